#include "pod/HelperThread.h"

#include <sched.h>

#include <cstdlib>

namespace korvex {
namespace {

// What the new thread needs to widen its cores again before it runs the work.
struct Start {
  void* (*run)(void*);
  void* arg;
  cpu_set_t allowed;
};

void* Begin(void* p) {
  Start start = *static_cast<Start*>(p);
  std::free(p);
  pthread_setaffinity_np(pthread_self(), sizeof start.allowed, &start.allowed);
  return start.run(start.arg);
}

}  // namespace

bool StartHelperThread(pthread_t& thread, void* (*run)(void*), void* arg) {
  // The cores the process may use but the one this thread is on; none (a single core, or an
  // unknown one): started as any thread.
  cpu_set_t allowed, others;
  const int here = sched_getcpu();
  if (here < 0 || here >= CPU_SETSIZE || sched_getaffinity(0, sizeof allowed, &allowed) != 0)
    return pthread_create(&thread, nullptr, run, arg) == 0;
  others = allowed;
  CPU_CLR(here, &others);
  auto* start = static_cast<Start*>(std::malloc(sizeof(Start)));
  pthread_attr_t attr;
  if (CPU_COUNT(&others) == 0 || start == nullptr || pthread_attr_init(&attr) != 0) {
    std::free(start);
    return pthread_create(&thread, nullptr, run, arg) == 0;
  }
  *start = Start{run, arg, allowed};
  const bool placed = pthread_attr_setaffinity_np(&attr, sizeof others, &others) == 0 &&
                      pthread_create(&thread, &attr, &Begin, start) == 0;
  pthread_attr_destroy(&attr);
  if (placed) return true;
  std::free(start);
  return pthread_create(&thread, nullptr, run, arg) == 0;
}

}  // namespace korvex
