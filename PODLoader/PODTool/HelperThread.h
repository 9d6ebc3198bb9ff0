#pragma once
// A helper thread, joined when its handle goes (or by Join). It starts on another core than the
// thread that starts it: left to itself, the system starts a new thread beside its creator, and
// both may then share one core for tens of milliseconds while another core stands idle. Once
// running, the helper may move to any core its creator may use, as any thread.
//
// An owner whose helper uses its other members declares the handle last, so that the helper is
// joined before they go.

#include <pthread.h>

namespace korvex {

class HelperThread {
 public:
  HelperThread() = default;
  ~HelperThread() { Join(); }
  HelperThread(const HelperThread&) = delete;
  HelperThread& operator=(const HelperThread&) = delete;

  // Runs `run(arg)` on a new thread; false when none could be started (nothing runs then), or
  // when this handle already has one.
  bool Start(void* (*run)(void*), void* arg);
  // Waits for the thread to end; nothing when none runs.
  void Join();
  bool running() const { return m_running; }

 private:
  pthread_t m_thread{};
  bool m_running = false;
};

}  // namespace korvex
