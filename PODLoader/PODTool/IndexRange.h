#pragma once
// The range of a run of 16-bit triangle indices, as stored in a file (little-endian, unaligned).

#include <cstddef>
#include <cstdint>

// The largest of `count` indices at `indices` (0 when there are none).
uint16_t HighestIndex(const uint8_t* indices, size_t count);
