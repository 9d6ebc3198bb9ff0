#include "pod/IndexRange.h"

#include <cstring>

// Every index of a mesh is read once more for this, so it is kept out of line: on its own the
// compiler runs the loop in vector registers (inlined into its callers, it does not).
__attribute__((noinline)) uint16_t HighestIndex(const uint8_t* indices, size_t count) {
  uint16_t highest = 0;
  for (size_t c = 0; c < count; ++c) {
    uint16_t i;
    std::memcpy(&i, indices + 2 * c, 2);
    highest = i > highest ? i : highest;
  }
  return highest;
}
