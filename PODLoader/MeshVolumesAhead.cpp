#include "convert/MeshVolumesAhead.h"

#include <cstring>
#include <utility>

MeshVolumesAhead::MeshVolumesAhead(std::vector<Job> jobs)
    : m_jobs(std::move(jobs)), m_slots(new Slot[m_jobs.size()]) {
  uint64_t positions = 0;
  for (const Job& job : m_jobs) positions += job.count > 0 ? static_cast<uint64_t>(job.count) : 0;
  if (m_jobs.size() < 2 || positions < kWorthAThread) return;
  m_thread.Start(&MeshVolumesAhead::Run, this);
}

MeshVolumesAhead::~MeshVolumesAhead() {
  m_stop = true;
  m_thread.Join();
}

void* MeshVolumesAhead::Run(void* self) {
  static_cast<MeshVolumesAhead*>(self)->Make();
  return nullptr;
}

// From the last job back, until the converter's own walk is met: a job it has reached is its.
void MeshVolumesAhead::Make() {
  for (size_t j = m_jobs.size(); j-- > 0 && !m_stop;) {
    Slot& slot = m_slots[j];
    uint8_t open = kOpen;
    if (!slot.state.compare_exchange_strong(open, kMaking)) return;
    const Job& job = m_jobs[j];
    const bool made =
        TryBoundingVolumes(job.objectSpace, job.matrix, *job.vertex, job.count, slot.values);
    std::lock_guard<std::mutex> lock(m_mutex);
    slot.state = made ? kMade : kLeft;
    m_made.notify_all();
  }
}

bool MeshVolumesAhead::Take(const Job& job, BoundingVolumeValues& values) {
  while (m_next < m_jobs.size() && m_jobs[m_next].node < job.node) ++m_next;
  if (m_next == m_jobs.size() || m_jobs[m_next].node != job.node) return false;
  Slot& slot = m_slots[m_next++];
  uint8_t open = kOpen;
  if (slot.state.compare_exchange_strong(open, kCallers)) return false;  // not begun: the caller's
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_made.wait(lock, [&slot] { return slot.state != kMaking; });
  }
  const Job& made = m_jobs[m_next - 1];
  if (slot.state != kMade || made.objectSpace != job.objectSpace || made.vertex != job.vertex ||
      made.count != job.count || std::memcmp(&made.matrix, &job.matrix, sizeof job.matrix) != 0)
    return false;
  values = slot.values;
  return true;
}
