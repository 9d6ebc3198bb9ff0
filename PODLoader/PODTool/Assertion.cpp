#include "pod/Assertion.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pod/Diagnostics.h"

namespace korvex {

void AssertionFailed(const char* expression, const char* function, const char* source, int line) {
  // A fixed buffer: the run may be failing for want of memory.
  char text[1024];
  std::snprintf(text, sizeof text, "Korvex: %s:%d: %s: Assertion `%s' failed.", source, line,
                function, expression);
  Diagnostics().Problem(text, std::strlen(text));
  Diagnostics().Flush();
  std::abort();
}

}  // namespace korvex
