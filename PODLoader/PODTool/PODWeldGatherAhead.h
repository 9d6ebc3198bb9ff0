#pragma once
// Gathers the streams a save rebuilds from a weld plan on a second thread, a slice at a time and
// in the order the save writes them, so that the file takes one slice while the next is gathered.
// The save asks for each slice in turn; a slice the gatherer does not hold as asked (another
// order, or no thread) is refused, and the save gathers it itself. The bytes are the same either
// way.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "pod/HelperThread.h"
#include "pod/PODMeshWeld.h"
#include "pod/PODModel.h"

// One rebuilt stream: the mesh as the save writes it (a copy of the record; the arrays are the
// scene's), its weld, which stream and how many bytes.
struct PODWeldGatherRequest {
  SPODMesh mesh;
  const SPODMeshWeld* weld;
  EPODWeldStream stream;
  size_t bytes;
};

class PODWeldGatherAhead {
 public:
  static constexpr size_t kSlice = size_t{1} << 18;

  // Starts gathering `requests` in order; nothing is gathered when the thread cannot be started.
  explicit PODWeldGatherAhead(std::vector<PODWeldGatherRequest> requests);
  // Stops the thread, also part-way.
  ~PODWeldGatherAhead();
  PODWeldGatherAhead(const PODWeldGatherAhead&) = delete;
  PODWeldGatherAhead& operator=(const PODWeldGatherAhead&) = delete;

  // The slice [at, at + n) of request `request`, gathered, with whether its gather succeeded;
  // null when that is not the next slice held (the gatherer then stops). Done() hands a slice
  // taken back once it is written.
  const uint8_t* Take(size_t request, size_t at, size_t n, bool& ok);
  void Done();

 private:
  struct Slot {
    std::vector<uint8_t> data;
    size_t request = 0, at = 0, n = 0;
    bool ok = false;
  };
  static constexpr size_t kSlots = 4;

  static void* Run(void* self);
  void Gather();
  void Stop();

  std::vector<PODWeldGatherRequest> m_requests;
  Slot m_slots[kSlots];
  std::mutex m_mutex;
  std::condition_variable m_changed;
  size_t m_gathered = 0;  // slices filled so far
  size_t m_taken = 0;     // slices handed back
  bool m_finished = false;
  bool m_stop = false;
  korvex::HelperThread m_thread;  // last: joined before the members it uses go
};
