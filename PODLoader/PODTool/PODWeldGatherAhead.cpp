#include "pod/PODWeldGatherAhead.h"

#include <algorithm>
#include <utility>

PODWeldGatherAhead::PODWeldGatherAhead(std::vector<PODWeldGatherRequest> requests)
    : m_requests(std::move(requests)) {
  for (Slot& slot : m_slots) slot.data.resize(kSlice);
  m_thread.Start(&PODWeldGatherAhead::Run, this);
}

PODWeldGatherAhead::~PODWeldGatherAhead() { Stop(); }

void* PODWeldGatherAhead::Run(void* self) {
  static_cast<PODWeldGatherAhead*>(self)->Gather();
  return nullptr;
}

void PODWeldGatherAhead::Gather() {
  for (size_t r = 0; r < m_requests.size(); ++r) {
    const PODWeldGatherRequest& q = m_requests[r];
    for (size_t at = 0; at < q.bytes; at += kSlice) {
      Slot* slot = nullptr;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_stop || m_gathered - m_taken < kSlots; });
        if (m_stop) return;
        slot = &m_slots[m_gathered % kSlots];
      }
      // The slot is this thread's until it is counted as gathered.
      slot->request = r;
      slot->at = at;
      slot->n = std::min(q.bytes - at, kSlice);
      slot->ok = PODMeshWeldGather(q.mesh, *q.weld, q.stream, at, slot->n, slot->data.data());
      std::lock_guard<std::mutex> lock(m_mutex);
      ++m_gathered;
      m_changed.notify_all();
    }
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_finished = true;
  m_changed.notify_all();
}

const uint8_t* PODWeldGatherAhead::Take(size_t request, size_t at, size_t n, bool& ok) {
  if (!m_thread.running()) return nullptr;
  const Slot* slot = nullptr;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stop || m_finished || m_gathered > m_taken; });
    if (!m_stop && m_gathered > m_taken) slot = &m_slots[m_taken % kSlots];
  }
  if (slot == nullptr || slot->request != request || slot->at != at || slot->n != n) {
    Stop();
    return nullptr;
  }
  ok = slot->ok;
  return slot->data.data();
}

void PODWeldGatherAhead::Done() {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_taken;
  m_changed.notify_all();
}

void PODWeldGatherAhead::Stop() {
  if (!m_thread.running()) return;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    m_changed.notify_all();
  }
  m_thread.Join();
}
