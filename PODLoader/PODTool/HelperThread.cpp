#include "pod/HelperThread.h"

#include <sched.h>

#include <cstdlib>

namespace korvex {
namespace {

// What the new thread needs to widen its cores again before it runs the work.
struct Begin {
  void* (*run)(void*);
  void* arg;
  cpu_set_t allowed;
};

void* Run(void* p) {
  const Begin begin = *static_cast<Begin*>(p);
  std::free(p);
  pthread_setaffinity_np(pthread_self(), sizeof begin.allowed, &begin.allowed);
  return begin.run(begin.arg);
}

// A thread placed on a core of `allowed` other than `here`; false when it cannot be placed so.
bool StartElsewhere(pthread_t& thread, void* (*run)(void*), void* arg, const cpu_set_t& allowed,
                    int here) {
  cpu_set_t others = allowed;
  CPU_CLR(here, &others);
  if (CPU_COUNT(&others) == 0) return false;
  auto* begin = static_cast<Begin*>(std::malloc(sizeof(Begin)));
  pthread_attr_t attr;
  if (begin == nullptr || pthread_attr_init(&attr) != 0) {
    std::free(begin);
    return false;
  }
  *begin = Begin{run, arg, allowed};
  const bool started = pthread_attr_setaffinity_np(&attr, sizeof others, &others) == 0 &&
                       pthread_create(&thread, &attr, &Run, begin) == 0;
  pthread_attr_destroy(&attr);
  if (!started) std::free(begin);
  return started;
}

}  // namespace

bool HelperThread::Start(void* (*run)(void*), void* arg) {
  if (m_running) return false;
  // A creator on one core only (or on one the system does not tell) starts it as any thread.
  cpu_set_t allowed;
  const int here = sched_getcpu();
  const bool known = here >= 0 && here < CPU_SETSIZE &&
                     pthread_getaffinity_np(pthread_self(), sizeof allowed, &allowed) == 0;
  m_running = (known && StartElsewhere(m_thread, run, arg, allowed, here)) ||
              pthread_create(&m_thread, nullptr, run, arg) == 0;
  return m_running;
}

void HelperThread::Join() {
  if (!m_running) return;
  pthread_join(m_thread, nullptr);
  m_running = false;
}

}  // namespace korvex
