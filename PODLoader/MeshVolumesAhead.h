#pragma once
// The bounding volumes of a scene's mesh records, made on a second core while the converter walks
// the nodes. A helper thread makes them from the last mesh record back; the converter takes each
// in node order, and makes itself those the helper has not begun. Only volumes made without a
// failing check are handed over: any other mesh is left to the converter in its turn, so what it
// prints, and where an assertion stops it, is the same as without the helper.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "convert/BoundingVolumes.h"
#include "pod/HelperThread.h"
#include "pod/PODModel.h"

class MeshVolumesAhead {
 public:
  // The volumes of one mesh record: its node, through which matrix, of which positions.
  struct Job {
    uint32_t node;
    bool objectSpace;  // kept in object space, the matrix only checked (see BoundingVolumes.h)
    PODMATRIXf matrix;
    const CPODData* vertex;
    int count;
  };

  // Jobs in node order. The helper starts for two jobs or more with kWorthAThread positions in
  // all; without it (or when the system will not start it) the converter makes every volume.
  explicit MeshVolumesAhead(std::vector<Job> jobs);
  // Stops the helper, also part-way.
  ~MeshVolumesAhead();
  MeshVolumesAhead(const MeshVolumesAhead&) = delete;
  MeshVolumesAhead& operator=(const MeshVolumesAhead&) = delete;

  // The volumes of `job`, when the helper made them from these very inputs; false: the caller
  // makes them. Asked in node order.
  bool Take(const Job& job, BoundingVolumeValues& values);

  static constexpr uint64_t kWorthAThread = uint64_t{1} << 17;

 private:
  enum State : uint8_t { kOpen, kMaking, kMade, kLeft, kCallers };
  struct Slot {
    std::atomic<uint8_t> state{kOpen};
    BoundingVolumeValues values;
  };

  static void* Run(void* self);
  void Make();

  std::vector<Job> m_jobs;
  std::unique_ptr<Slot[]> m_slots;
  size_t m_next = 0;  // the first job Take has not passed
  std::mutex m_mutex;
  std::condition_variable m_made;
  std::atomic<bool> m_stop{false};
  korvex::HelperThread m_thread;  // last: joined before the members it uses go
};
