#pragma once
// A helper thread that starts on another core than the thread that starts it. Left to itself,
// the system starts a new thread beside its creator, and both may then share one core for tens
// of milliseconds while another core stands idle; placed on another core first, the helper
// works beside its creator from the start. Once running it may move to any core the process may
// use, as any thread.

#include <pthread.h>

namespace korvex {

// Runs `run(arg)` on a new thread, `thread` its handle to join. False when no thread could be
// started (nothing runs then).
bool StartHelperThread(pthread_t& thread, void* (*run)(void*), void* arg);

}  // namespace korvex
