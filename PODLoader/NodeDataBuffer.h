#pragma once
// Filling the arrays of SSGNodeData descriptors. The arrays are written to the .qsn file as they
// stand, so their elements are stored here in the file's little-endian byte order, whatever the
// host's; each array is a separate malloc'd block owned by its record.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pod/ByteIO.h"
#include "pod/Diagnostics.h"
#include "pod/PODMatrix.h"
#include "qsn/SceneGraphRecords.h"

namespace korvex {

// Gives `buffer` a zero-filled array of `length` bytes (none for 0). Sizes reaching here have been
// vetted, so a failed allocation is plain exhaustion and ends the run like any other.
inline void AllocateNodeData(SSGNodeData& buffer, uint32_t type, uint32_t length) {
  buffer.type = type;
  buffer.length = length;
  buffer.data = nullptr;
  buffer.borrowed = false;
  if (length == 0) return;
  buffer.data = AllocateZeroed<uint8_t>(length, "a record's array");
}

// `length` bytes of a POD stream array holding `held` bytes, for a record: the array itself when
// `borrow` is set and it holds them all (the scene then outlives the record), else a copy of what
// it holds, zero beyond.
inline void TakeStreamArray(SSGNodeData& buffer, uint32_t type, uint32_t length, uint8_t* from,
                            size_t held, bool borrow) {
  if (from == nullptr) held = 0;
  if (borrow && length != 0 && held >= length) {
    buffer.type = type;
    buffer.length = length;
    buffer.data = from;
    buffer.borrowed = true;
    return;
  }
  AllocateNodeData(buffer, type, length);
  const size_t copied = held < length ? held : length;
  if (copied != 0) std::memcpy(buffer.data, from, copied);
}

inline void StoreF32LE(uint8_t* p, float v) {
  uint32_t u;
  std::memcpy(&u, &v, 4);
  StoreU32LE(p, u);
}
inline float LoadF32LE(const uint8_t* p) {
  const uint32_t u = LoadU32LE(p);
  float v;
  std::memcpy(&v, &u, 4);
  return v;
}
inline void StoreMatrixLE(uint8_t* p, const PODMATRIXf& m) {
  for (int i = 0; i < 16; ++i) StoreF32LE(p + 4 * i, m.f[i]);
}
inline void LoadMatrixLE(PODMATRIXf& m, const uint8_t* p) {
  for (int i = 0; i < 16; ++i) m.f[i] = LoadF32LE(p + 4 * i);
}

}  // namespace korvex
