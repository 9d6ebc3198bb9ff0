// A helper thread starts on another core than its creator's, runs its work, and may then use
// every core its creator may.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include "pod/HelperThread.h"

namespace {

struct Seen {
  int arg = 0;
  int firstCore = -1;
  cpu_set_t cores;
  bool coresKnown = false;
};

void* Record(void* p) {
  Seen& seen = *static_cast<Seen*>(p);
  seen.firstCore = sched_getcpu();
  seen.coresKnown = pthread_getaffinity_np(pthread_self(), sizeof seen.cores, &seen.cores) == 0;
  seen.arg = 42;
  return nullptr;
}

TEST(HelperThread, StartsOnAnotherCoreThenMayUseEveryCore) {
  cpu_set_t process;
  ASSERT_EQ(sched_getaffinity(0, sizeof process, &process), 0);
  if (CPU_COUNT(&process) < 2) GTEST_SKIP() << "one core: nowhere else to start";
  // The creator's core is read before and after the start; a creator that moved meanwhile
  // (another process took its core) tells nothing, and the start is tried again.
  for (int attempt = 0; attempt < 20; ++attempt) {
    Seen seen;
    korvex::HelperThread thread;
    const int before = sched_getcpu();
    ASSERT_TRUE(thread.Start(&Record, &seen));
    const int after = sched_getcpu();
    EXPECT_FALSE(thread.Start(&Record, &seen));  // one thread a handle
    thread.Join();
    EXPECT_FALSE(thread.running());
    EXPECT_EQ(seen.arg, 42);
    ASSERT_TRUE(seen.coresKnown);
    // Once running, the helper may use every core its creator may, its creator's own included.
    EXPECT_TRUE(CPU_EQUAL(&seen.cores, &process));
    if (before != after) continue;
    EXPECT_NE(seen.firstCore, before);
    return;
  }
  FAIL() << "the creator never stayed on one core across a start";
}

}  // namespace
