#include "Assertion.h"

#include <cstdio>
#include <cstdlib>

namespace korvex {

void AssertionFailed(const char* expression, const char* function, const char* source, int line) {
  std::fflush(stdout);
  std::fprintf(stderr, "Korvex: %s:%d: %s: Assertion `%s' failed.\n", source, line, function,
               expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace korvex
