#pragma once
// Little-endian byte writer and bounds-checked byte reader. Files are serialised field by field
// through these, never by dumping in-memory structs, so the file layout holds on any host.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace korvex {

class ByteWriter {
 public:
  std::vector<uint8_t>& bytes() { return m_bytes; }
  const std::vector<uint8_t>& bytes() const { return m_bytes; }
  size_t size() const { return m_bytes.size(); }
  void reserve(size_t n) { m_bytes.reserve(n); }

  void u32(uint32_t v) {
    uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    m_bytes.insert(m_bytes.end(), b, b + 4);
  }
  void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
  void f32(float v) {
    uint32_t u;
    std::memcpy(&u, &v, 4);
    u32(u);
  }
  void floats(const float* v, size_t n) {
    for (size_t i = 0; i < n; ++i) f32(v[i]);
  }
  // Raw bytes; a null pointer with a non-zero size writes zeros (an absent array slot).
  void raw(const void* p, size_t n) {
    if (n == 0) return;
    if (p == nullptr) {
      m_bytes.insert(m_bytes.end(), n, 0);
      return;
    }
    const uint8_t* b = static_cast<const uint8_t*>(p);
    m_bytes.insert(m_bytes.end(), b, b + n);
  }
  void zeros(size_t n) { m_bytes.insert(m_bytes.end(), n, 0); }
  // A fixed-size text field: zero-filled, then at most `field` bytes of the text.
  void fixedText(const char* text, size_t field) {
    size_t len = text ? strnlen(text, field) : 0;
    raw(text, len);
    zeros(field - len);
  }

 private:
  std::vector<uint8_t> m_bytes;
};

// Reads from a byte range it does not own. Every read checks the remaining length first and
// fails without moving when the range is too short.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  size_t position() const { return m_pos; }
  size_t size() const { return m_size; }
  size_t remaining() const { return m_size - m_pos; }
  const uint8_t* current() const { return m_data + m_pos; }

  bool seek(size_t pos) {
    if (pos > m_size) return false;
    m_pos = pos;
    return true;
  }
  bool skip(size_t n) {
    if (n > remaining()) return false;
    m_pos += n;
    return true;
  }
  bool raw(void* dst, size_t n) {
    if (n > remaining()) return false;
    if (n) std::memcpy(dst, m_data + m_pos, n);
    m_pos += n;
    return true;
  }
  bool u32(uint32_t& v) {
    if (4 > remaining()) return false;
    const uint8_t* b = m_data + m_pos;
    v = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    m_pos += 4;
    return true;
  }
  bool i32(int32_t& v) {
    uint32_t u;
    if (!u32(u)) return false;
    v = static_cast<int32_t>(u);
    return true;
  }
  bool f32(float& v) {
    uint32_t u;
    if (!u32(u)) return false;
    std::memcpy(&v, &u, 4);
    return true;
  }
  bool floats(float* v, size_t n) {
    if (n > remaining() / 4) return false;
    for (size_t i = 0; i < n; ++i) f32(v[i]);
    return true;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

// Host-independent little-endian loads and stores on raw memory.
inline uint32_t LoadU32LE(const uint8_t* b) {
  return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}
inline void StoreU32LE(uint8_t* b, uint32_t v) {
  b[0] = uint8_t(v);
  b[1] = uint8_t(v >> 8);
  b[2] = uint8_t(v >> 16);
  b[3] = uint8_t(v >> 24);
}

inline bool HostIsLittleEndian() {
  const uint16_t probe = 1;
  uint8_t first;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

// An array of 32-bit words between host order and little-endian, in place (the same turn both
// ways); nothing to do on a little-endian host.
inline void WordsLittleEndian(void* p, size_t nBytes) {
  if (HostIsLittleEndian()) return;
  uint8_t* b = static_cast<uint8_t*>(p);
  for (size_t i = 0; i + 4 <= nBytes; i += 4) {
    const uint32_t v = LoadU32LE(b + i);
    std::memcpy(b + i, &v, 4);
  }
}

}  // namespace korvex
