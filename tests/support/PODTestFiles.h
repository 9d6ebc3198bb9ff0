#pragma once
// Support for the POD file tests: hand-built bytes, written and walked here independently of the
// code under test (markers, data blocks and containers as the file format lays them out), and the
// release of scenes a failed read left behind.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"

namespace podtest {

constexpr uint32_t kEnd = 0x80000000u;

class Bytes {
 public:
  std::vector<uint8_t> v;

  Bytes& u32(uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(uint8_t(x >> (8 * i)));
    return *this;
  }
  Bytes& f32(float f) {
    uint32_t x;
    std::memcpy(&x, &f, 4);
    return u32(x);
  }
  Bytes& raw(const void* p, size_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    v.insert(v.end(), b, b + n);
    return *this;
  }
  Bytes& marker(uint32_t tag, uint32_t len) { return u32(tag).u32(len); }
  Bytes& open(uint32_t tag) { return marker(tag, 0); }
  Bytes& close(uint32_t tag) { return marker(tag | kEnd, 0); }
  // A data block: start marker, payload, end marker.
  Bytes& block(uint32_t tag, const void* p, size_t n) {
    marker(tag, uint32_t(n));
    raw(p, n);
    return close(tag);
  }
  Bytes& blockU32(uint32_t tag, uint32_t x) { return marker(tag, 4).u32(x).close(tag); }
  Bytes& blockFloats(uint32_t tag, std::initializer_list<float> fs) {
    marker(tag, uint32_t(4 * fs.size()));
    for (float f : fs) f32(f);
    return close(tag);
  }
  Bytes& blockWords(uint32_t tag, const std::vector<uint32_t>& ws) {
    marker(tag, uint32_t(4 * ws.size()));
    for (uint32_t w : ws) u32(w);
    return close(tag);
  }
  // A string block with its zero.
  Bytes& blockStr(uint32_t tag, const std::string& s) { return block(tag, s.c_str(), s.size() + 1); }
  Bytes& version() { return blockStr(1000, "AB.POD.2.0"); }
  Bytes& append(const Bytes& other) {
    v.insert(v.end(), other.v.begin(), other.v.end());
    return *this;
  }
  size_t size() const { return v.size(); }
};

// A scene block around `body` with the given counts (cameras, lights, meshes, nodes, textures,
// materials), frames and flags.
struct Counts {
  uint32_t cameras = 0, lights = 0, meshes = 0, nodes = 0, textures = 0, materials = 0;
  uint32_t meshNodes = 0, frames = 0, flags = 0;
};

inline Bytes SceneValues(const Counts& c) {
  Bytes b;
  b.blockFloats(2000, {0.1f, 0.2f, 0.3f}).blockFloats(2001, {0.4f, 0.5f, 0.6f});
  b.blockU32(2002, c.cameras).blockU32(2003, c.lights).blockU32(2004, c.meshes);
  b.blockU32(2005, c.nodes).blockU32(2006, c.meshNodes).blockU32(2007, c.textures);
  b.blockU32(2008, c.materials).blockU32(2009, c.frames).blockU32(2016, c.flags);
  return b;
}

inline Bytes File(const Counts& c, const Bytes& records) {
  Bytes b;
  b.version().open(1001).append(SceneValues(c)).append(records).close(1001);
  return b;
}

// A node container holding an index, a name and a parent.
inline Bytes NodeRecord(const std::string& name, int32_t parent, const Bytes& extra = Bytes()) {
  Bytes b;
  b.open(2013).blockU32(5000, uint32_t(-1)).blockStr(5001, name);
  b.blockU32(5002, uint32_t(-1)).blockU32(5003, uint32_t(parent)).append(extra);
  return b.close(2013);
}

// One block of a walked file: its tag, payload position and length, nesting depth.
struct Block {
  uint32_t tag;
  size_t pos;
  uint32_t len;
  int depth;
};

inline bool IsContainer(uint32_t tag) {
  return tag == 1001 || (tag >= 2010 && tag <= 2015) || tag == 6003 ||
         (tag >= 6006 && tag <= 6013);
}

inline uint32_t Le32(const std::vector<uint8_t>& v, size_t p) {
  return uint32_t(v[p]) | uint32_t(v[p + 1]) << 8 | uint32_t(v[p + 2]) << 16 |
         uint32_t(v[p + 3]) << 24;
}

// Walks a file written in the exact framing (every block closed by its end marker) and lists its
// start markers in order. Returns false on any framing error.
inline bool Walk(const std::vector<uint8_t>& v, std::vector<Block>& out) {
  size_t p = 0;
  int depth = 0;
  std::vector<uint32_t> open;
  while (p < v.size()) {
    if (v.size() - p < 8) return false;
    uint32_t tag = Le32(v, p), len = Le32(v, p + 4);
    p += 8;
    if (tag & kEnd) {
      if (open.empty() || open.back() != (tag & ~kEnd) || len != 0) return false;
      open.pop_back();
      --depth;
      continue;
    }
    out.push_back({tag, p, len, depth});
    if (IsContainer(tag)) {
      if (len != 0) return false;
      open.push_back(tag);
      ++depth;
      continue;
    }
    if (v.size() - p < size_t(len) + 8) return false;
    p += len;
    if (Le32(v, p) != (tag | kEnd) || Le32(v, p + 4) != 0) return false;
    p += 8;
  }
  return open.empty();
}

// Where one block of a well-framed file lies: from its start marker to just past its end marker.
struct Span {
  uint32_t tag;
  size_t begin, end;
};

// Every block of a file as Walk sees it, containers included, in the order they start; empty when
// the file is not well framed.
inline std::vector<Span> Spans(const std::vector<uint8_t>& v) {
  std::vector<Block> blocks;
  std::vector<Span> spans;
  if (!Walk(v, blocks)) return spans;
  std::vector<size_t> open;  // indices into spans of the containers still open
  size_t p = 0;
  for (size_t b = 0; b <= blocks.size(); ++b) {
    // Close the containers whose end markers come before the next block's start marker.
    const size_t next = b < blocks.size() ? blocks[b].pos - 8 : v.size();
    while (p < next) {
      spans[open.back()].end = p + 8;
      open.pop_back();
      p += 8;
    }
    if (b == blocks.size()) break;
    const Block& k = blocks[b];
    spans.push_back({k.tag, k.pos - 8, 0});
    if (IsContainer(k.tag)) {
      open.push_back(spans.size() - 1);
      p = k.pos;
    } else {
      p = k.pos + k.len + 8;
      spans.back().end = p;
    }
  }
  return spans;
}

// The bytes WritePOD produces for a scene (through a temporary file); `ok` gets its result.
inline std::vector<uint8_t> WriteBytes(const SPODScene& s, const char* options, bool* ok = nullptr) {
  std::vector<uint8_t> out;
  FILE* f = std::tmpfile();
  if (!f) return out;
  bool written = WritePOD(f, options, s);
  if (ok) *ok = written;
  out.resize(size_t(std::ftell(f)));
  std::rewind(f);
  if (std::fread(out.data(), 1, out.size(), f) != out.size()) out.clear();
  std::fclose(f);
  return out;
}

// Releases whatever a scene holds, also after a failed read.
inline void ReleaseScene(CPODScene& s) { s.Destroy(); }

}  // namespace podtest
