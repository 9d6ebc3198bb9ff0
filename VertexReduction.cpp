#include "edit/VertexReduction.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "pod/Assertion.h"
#include "pod/Diagnostics.h"
#include "pod/HelperThread.h"
#include "pod/IndexRange.h"
#include "pod/PODMeshWeld.h"

namespace {

constexpr uint32_t kMaxUVSets = 2;
// Bone streams are copied once per kept vertex and a vertex with a NaN becomes a new kept vertex
// at every corner, so a mesh with many bones a vertex could multiply its size by its corners.
// Meshes whose rebuilt bone streams would pass this size, as the weld keeps them, are left alone,
// and so are those that would make the scene's bone streams, all meshes together, grow by more.
constexpr uint64_t kMaxRebuiltBoneBytes = uint64_t{256} << 20;

// Bytes of bone indices and weights a vertex of a skinned mesh has; 0 for a mesh without bones.
uint64_t BoneBytesPerVertex(const SPODMesh& mesh) {
  if (mesh.sBoneBatches.nBatchCnt <= 0) return 0;
  return mesh.sBoneIdx.n + 4 * uint64_t{mesh.sBoneWeight.n};
}
constexpr double kNearTolerance = 0.001;
// A position group of near mode this long is searched through its cells instead of one by one.
constexpr uint32_t kLongGroup = 8;

// Memo states of an old vertex not resolved to a kept vertex (yet): one alone in its group, which
// becomes a kept vertex of its own at its first corner, and one that shares its group or can match
// nothing, which is resolved out of the corner loop.
constexpr int32_t kUnseen = -1;
constexpr int32_t kUnseenShared = -2;
// An old vertex resolved out of the corner loop keeps its kept vertex k as SharedMemo(k), below
// both: that kept vertex may take the normal of a later corner of another old vertex, so each of
// its corners sets the normal. One alone in its group is the only old vertex of its kept vertex,
// whose normal is its own from the start, and its memo is k itself.
constexpr int32_t SharedMemo(int32_t k) { return -k - 3; }
constexpr int32_t KeptOfMemo(int32_t memo) { return memo >= 0 ? memo : memo <= -3 ? -memo - 3 : -1; }

const char* NodeName(const SPODNode* node) {
  // A node without a name prints as an empty name rather than passing null to printf.
  return node != nullptr && node->pszName != nullptr ? node->pszName : "";
}

float LoadFloat(const uint8_t* p) {
  float f;
  std::memcpy(&f, p, sizeof f);
  return f;
}

bool IsPackedFloatStream(const CPODData& d, uint32_t components) {
  return d.eType == EPODDataFloat && d.n == components && d.nStride == components * 4 &&
         d.pData != nullptr;
}

bool IsPackedBoneStream(const CPODData& d, uint64_t elementSize) {
  return d.n == 0 || (d.nStride == elementSize && d.pData != nullptr);
}

// Whether a stream that passed its layout check holds whole elements for vertices 0 to
// `reach` - 1. One without components is never read.
bool Reaches(const CPODData& d, size_t reach) { return d.n == 0 || d.nDataSize / d.nStride >= reach; }

// Null when the reduction can handle the mesh, otherwise why not; `reach` is then one past the
// largest index the triangles use (0 without triangles). The reduction reads every stream at a
// fixed stride, only at the vertices the triangles use, and replaces some with packed arrays while
// keeping their descriptors, so anything else would be read or written out of bounds; such meshes
// are left as they are. nNumVertex bounds nothing here: a stream may hold fewer vertices than the
// count says, and an index may lie past the count, as long as every stream read holds it.
const char* WhyNotReducible(const SPODMesh& mesh, size_t& reach) {
  if (mesh.pInterleaved != nullptr) return "interleaved vertex data";
  if (mesh.nNumStrips != 0 || mesh.pnStripLength != nullptr) return "triangle strips";
  if (!IsPackedFloatStream(mesh.sVertex, 3)) return "positions are not 3 floats a vertex";
  if (!IsPackedFloatStream(mesh.sNormals, 3)) return "normals missing or not 3 floats a vertex";

  const uint32_t uvSets = std::min(mesh.nNumUVW, kMaxUVSets);
  if (uvSets > 0 && (mesh.psUVW == nullptr || mesh.nUVWCount < uvSets))
    return "texture-coordinate descriptors missing";
  for (uint32_t k = 0; k < uvSets; ++k)
    if (!IsPackedFloatStream(mesh.psUVW[k], 2)) return "texture coordinates are not 2 floats a vertex";

  const CPODData& faces = mesh.sFaces;
  if (mesh.nNumFaces > static_cast<uint32_t>(INT32_MAX) / 3) return "too many triangles";
  const size_t corners = static_cast<size_t>(mesh.nNumFaces) * 3;
  if (faces.eType != EPODDataUInt16 || faces.nStride != 2) return "indices are not 16-bit";
  if (faces.nDataSize / 2 < corners || (corners > 0 && faces.pData == nullptr))
    return "index stream shorter than its triangles";
  reach = corners > 0 ? size_t{HighestIndex(faces.pData, corners)} + 1 : 0;

  if (!Reaches(mesh.sVertex, reach)) return "an index lies beyond the positions";
  if (!Reaches(mesh.sNormals, reach)) return "an index lies beyond the normals";
  for (uint32_t k = 0; k < uvSets; ++k)
    if (!Reaches(mesh.psUVW[k], reach)) return "an index lies beyond the texture coordinates";

  if (mesh.sBoneBatches.nBatchCnt > 0) {
    const CPODData& idx = mesh.sBoneIdx;
    const CPODData& weights = mesh.sBoneWeight;
    // One weight is copied per bone index.
    if (weights.n < idx.n) return "fewer bone weights than bone indices";
    if (!IsPackedBoneStream(idx, idx.n) || !IsPackedBoneStream(weights, 4 * uint64_t{weights.n}))
      return "bone streams are not packed or shorter than their vertices";
    if (!Reaches(idx, reach) || !Reaches(weights, reach)) return "an index lies beyond the bone streams";
  }
  return nullptr;
}

// Everything of an old vertex that decides whether it merges.
struct Corner {
  float position[3];
  float u[kMaxUVSets];
  float v[kMaxUVSets];
};

uint32_t FloatKeyBits(float f) {
  // Equal floats must hash alike, and +0.0 equals -0.0 (kept free of branches: zeros are common).
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return (bits & 0x7FFFFFFFu) == 0 ? 0 : bits;
}

// Old vertices grouped by the components that must compare equal: the position, and in exact mode
// the texture coordinates when they take part. Each group is held by its first vertex in stream
// order; the table only ever grows within one mesh. A slot is one word, small enough that the
// table of a mesh stays in the nearest caches while it is probed at random: a tag of the hash
// (never 0) in the upper half and the first vertex (below 65,536: indices are 16-bit) in the lower
// half; 0 for an empty slot.
class VertexGroupIndex {
 public:
  // Empties the index for a mesh of at most maxGroups groups, keeping the memory it had.
  void reset(size_t maxGroups) {
    size_t capacity = 16;
    while (capacity < 4 * maxGroups) capacity *= 2;
    m_slots.assign(capacity, 0);
    m_mask = capacity - 1;
  }

  // Of a key that holds the position and the first kKeySets texture-coordinate sets; never 0.
  // One multiplication a component, independent of each other, summed: the upper half of the sum
  // depends on every bit of every component.
  template <uint32_t kKeySets>
  static uint32_t hashOf(const Corner& c) {
    uint64_t h = uint64_t{FloatKeyBits(c.position[0])} * 0x9E3779B97F4A7C15ull +
                 uint64_t{FloatKeyBits(c.position[1])} * 0xC2B2AE3D27D4EB4Full +
                 uint64_t{FloatKeyBits(c.position[2])} * 0x165667B19E3779F9ull;
    for (uint32_t k = 0; k < kKeySets; ++k)
      h += uint64_t{FloatKeyBits(c.u[k])} * (0xD6E8FEB86659FD93ull + 2 * k) +
           uint64_t{FloatKeyBits(c.v[k])} * (0xFF51AFD7ED558CCDull + 2 * k);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    const uint32_t hash = static_cast<uint32_t>(h >> 32);
    return hash != 0 ? hash : 1;
  }

  // Probes land at random: the caller asks for the slot of a vertex some way ahead while it works
  // on the current one.
  void prefetch(uint32_t hash) const { __builtin_prefetch(&m_slots[hash & m_mask]); }

  // The first vertex of the group of vertex i (whose hash is `hash`), or -1 after making i the
  // first of a new group. equal(a, b) compares the keys of old vertices a and b.
  template <typename Equal>
  int32_t findOrAdd(uint32_t i, uint32_t hash, const Equal& equal) {
    const uint32_t tag = hash & 0xFFFF0000u ? hash & 0xFFFF0000u : 0x10000u;
    size_t pos = hash & m_mask;
    for (uint32_t slot; (slot = m_slots[pos]) != 0; pos = (pos + 1) & m_mask) {
      if ((slot & 0xFFFF0000u) == tag && equal(slot & 0xFFFFu, i)) return static_cast<int32_t>(slot & 0xFFFFu);
    }
    m_slots[pos] = tag | i;
    return -1;
  }

 private:
  std::vector<uint32_t> m_slots;
  size_t m_mask = 0;
};

// One entry of the list of distinct vertices, held as the old vertices it is made of: `source`
// introduced it (its position, texture coordinates and bones are that vertex's) and `normalFrom`
// is the vertex of the last corner that merged into it (whose normal it has). Its new index is
// its place in the list.
struct buffer {
  uint32_t source;
  uint32_t normalFrom;
};

// Working memory of the reduction, kept from one mesh to the next: requesting (and touching)
// it anew for every mesh of a large scene costs more than the reduction itself.
struct ReductionScratch {
  VertexGroupIndex index;
  std::vector<buffer> entries;
  size_t kept = 0;  // entries in use
  std::vector<uint16_t> newFaces;  // the rewritten triangle indices
  std::vector<int32_t> resolved;   // memo of each old vertex (kUnseen, SharedMemo...)
  // Some old vertex matches nothing and is a new kept vertex at each of its corners: only
  // newFaces tells the kept vertex of a corner. Otherwise resolved does, and newFaces is unused.
  bool perCorner = false;
  std::vector<uint32_t> group;   // of each old vertex
  std::vector<int32_t> rank;     // of each group: its kept vertex (exact), its first one (near)
  std::vector<int32_t> last;     // near mode, of each group's first kept vertex: its last one
  std::vector<uint32_t> length;  // near mode, of each group's first kept vertex: how many
  std::vector<int32_t> next;     // near mode, of each kept vertex: the next one of its group
};

// The difference is taken in single precision and only then widened to double for the
// comparison: a double difference merges pairs whose float difference rounds above 0.001.
bool IsNear(float a, float b) {
  const float difference = a - b;
  return std::fabs(static_cast<double>(difference)) <= kNearTolerance;
}

bool UVsNear(const Corner& b, const Corner& c, uint32_t uvSets) {
  for (uint32_t k = 0; k < uvSets; ++k)
    if (!IsNear(b.u[k], c.u[k]) || !IsNear(b.v[k], c.v[k])) return false;
  return true;
}

// Cells of side 0.002 in each compared coordinate, scaled by 500 (exact for a float) and floored.
// Two coordinates within 0.001 lie in the same or adjacent cells, on the side of the half-cell
// the corner sits in. Below 2^20 a cell number stays within +-2^29. A float of magnitude 2^20 or
// more is at least 1/16 away from any other float, so only equal values are near it: its cell is
// one of its value alone (up to a few values sharing a hash), numbered below -2^30, so that many
// distinct far values do not all chain in one cell. (Non-finite coordinates never come here: see
// CanMatch.)
constexpr float kFarCoordinate = 1048576.0f;
// Covers the tolerance's excess over 0.001 and any rounding. A float difference within the
// tolerance is at most 0.000999999931 (the float below 0.001), so the exact difference is within
// 0.001 too: the cells hold every candidate.
constexpr double kSlack = 1e-9;

bool IsFar(float x) {
  return !(std::fabs(x) < kFarCoordinate);
}

int32_t CellOf(float x) {
  if (!IsFar(x)) return static_cast<int32_t>(std::floor(static_cast<double>(x) * 500.0));
  uint32_t bits;
  std::memcpy(&bits, &x, 4);
  return INT32_MIN + static_cast<int32_t>((bits * 0x9E3779B1u) >> 2);
}

// The cells a kept coordinate near `x` can lie in; returns how many (1 to 3).
int CellsNear(float x, int32_t* out) {
  const int32_t own = CellOf(x);
  if (IsFar(x)) {
    out[0] = own;
    return 1;
  }
  const double offset = static_cast<double>(x) * 500.0 - static_cast<double>(own);
  int n = 0;
  if (offset < 0.5 + kSlack) out[n++] = own - 1;
  out[n++] = own;
  if (offset > 0.5 - kSlack) out[n++] = own + 1;
  return n;
}

// Kept vertices of long position groups (near mode) by group and cell, in one open-addressed
// table of cells, each cell chaining its kept vertices in list order. The kept vertices of one
// group match none of each other, so a cell holds at most one in each half-cell combination
// (2^d for d compared coordinates): a lookup probes at most 3^d cells (2^d but at the exact middle
// of a cell) of at most 2^d entries, and the first match in list order is the smallest first match
// over the probed cells.
class NearCells {
 public:
  explicit NearCells(uint32_t uvSets) : m_dims(2 * uvSets) { rehash(64); }

  bool covers(uint32_t group) const { return group < m_covered.size() && m_covered[group]; }

  // Entries of a group are added in list order.
  void add(uint32_t group, int32_t entry, const Corner& b) {
    if (group >= m_covered.size()) m_covered.resize(size_t{group} + 1, false);
    m_covered[group] = true;
    if (static_cast<size_t>(entry) >= m_next.size()) m_next.resize(std::max(2 * m_next.size(), size_t(entry) + 1));
    m_next[static_cast<size_t>(entry)] = -1;
    Key key{group, {}};
    for (uint32_t d = 0; d < m_dims; ++d) key.cell[d] = CellOf(coordinate(b.u, b.v, d));
    if (2 * (m_used + 1) > m_cells.size()) rehash(2 * m_cells.size());
    Cell& cell = m_cells[slotOf(key, HashOf(key))];
    if (cell.head < 0) {
      cell = Cell{key, entry, entry};
      ++m_used;
    } else {
      m_next[static_cast<size_t>(cell.tail)] = entry;
      cell.tail = entry;
    }
  }

  template <typename Kept>
  int32_t firstMatch(uint32_t group, const Corner& c, const Kept& kept) const {
    int32_t options[2 * kMaxUVSets][3];
    int count[2 * kMaxUVSets];
    for (uint32_t d = 0; d < m_dims; ++d) count[d] = CellsNear(coordinate(c.u, c.v, d), options[d]);
    int choice[2 * kMaxUVSets] = {};
    int32_t best = -1;
    for (;;) {
      Key key{group, {}};
      for (uint32_t d = 0; d < m_dims; ++d) key.cell[d] = options[d][choice[d]];
      for (int32_t e = m_cells[slotOf(key, HashOf(key))].head; e >= 0; e = m_next[static_cast<size_t>(e)]) {
        if (best >= 0 && e >= best) break;
        if (UVsNear(kept(e), c, m_dims / 2)) {
          best = e;
          break;
        }
      }
      uint32_t d = 0;
      while (d < m_dims && ++choice[d] == count[d]) choice[d++] = 0;
      if (d == m_dims) return best;
    }
  }

 private:
  struct Key {
    uint32_t group;
    int32_t cell[2 * kMaxUVSets];  // unused ones 0
    bool operator==(const Key& o) const {
      return group == o.group && std::equal(cell, cell + 2 * kMaxUVSets, o.cell);
    }
  };
  struct Cell {
    Key key;
    int32_t head = -1;  // -1: an empty slot
    int32_t tail = -1;
  };

  static uint64_t HashOf(const Key& k) {
    uint64_t h = (k.group + 1) * 0x9E3779B97F4A7C15ull;
    for (int32_t c : k.cell) {
      h = (h ^ static_cast<uint32_t>(c)) * 0xFF51AFD7ED558CCDull;
      h ^= h >> 29;
    }
    return h;
  }

  // The slot holding `key`, or the empty one where it goes.
  size_t slotOf(const Key& key, uint64_t hash) const {
    size_t pos = static_cast<size_t>(hash) & (m_cells.size() - 1);
    while (m_cells[pos].head >= 0 && !(m_cells[pos].key == key)) pos = (pos + 1) & (m_cells.size() - 1);
    return pos;
  }

  void rehash(size_t capacity) {
    std::vector<Cell> old;
    old.swap(m_cells);
    m_cells.assign(capacity, Cell{});
    for (const Cell& cell : old)
      if (cell.head >= 0) m_cells[slotOf(cell.key, HashOf(cell.key))] = cell;
  }

  template <typename Coordinates>
  static float coordinate(const Coordinates& u, const Coordinates& v, uint32_t d) {
    return d % 2 == 0 ? u[d / 2] : v[d / 2];
  }

  uint32_t m_dims;
  std::vector<bool> m_covered;
  std::vector<Cell> m_cells;  // a power of two, at most half used
  size_t m_used = 0;
  std::vector<int32_t> m_next;  // of each kept vertex in a cell: the next one in the same cell
};

// Whether a corner can match a kept vertex at all. One that cannot (a NaN compared exactly, or
// a non-finite coordinate compared nearly) matches nothing, not even a copy of itself, so it
// becomes a new kept vertex at every corner and never joins a group.
inline bool CanMatch(const Corner& c, uint32_t uvSetsCompared, bool nearly) {
  for (float f : c.position)
    if (std::isnan(f)) return false;
  for (uint32_t k = 0; k < uvSetsCompared; ++k) {
    const bool ok = nearly ? std::isfinite(c.u[k]) && std::isfinite(c.v[k])
                           : !std::isnan(c.u[k]) && !std::isnan(c.v[k]);
    if (!ok) return false;
  }
  return true;
}

// The streams of a mesh that passed WhyNotReducible, as the scans read them.
struct MeshStreams {
  const uint8_t* positions;
  const uint8_t* uvs[kMaxUVSets];
  uint32_t uvSets;
  const uint8_t* faces;
  size_t corners;
  size_t vertices;  // those an index can reach

  // The position and the first kSets texture-coordinate sets of old vertex i (at most uvSets).
  template <uint32_t kSets>
  Corner load(uint32_t i) const {
    Corner c{};
    for (int a = 0; a < 3; ++a) c.position[a] = LoadFloat(positions + 12 * size_t{i} + 4 * a);
    for (uint32_t k = 0; k < kSets; ++k) {
      c.u[k] = LoadFloat(uvs[k] + 8 * size_t{i});
      c.v[k] = LoadFloat(uvs[k] + 8 * size_t{i} + 4);
    }
    return c;
  }

  uint16_t faceIndex(size_t f) const {
    uint16_t i;
    std::memcpy(&i, faces + 2 * f, 2);
    return i;
  }
};

// Exact comparison (of positions, and of texture coordinates when they count) is an equivalence
// on the old vertices that can match at all, and so is the exact comparison of positions alone.
// The old vertices fall into groups of equal keys: in exact mode those are the kept vertices to
// be; in near mode (key: the position) a kept vertex never leaves the group of its position.
// Grouping runs over the vertices in stream order, which lets the probes of the table be fetched
// ahead. kSets texture-coordinate sets are compared, exactly (in the key) or nearly. Returns the
// number of groups; the vertices that can match nothing get group `vertices`. Each vertex's memo
// starts as kUnseen when it is alone in its group, else as kUnseenShared.
template <uint32_t kSets, bool kNear>
uint32_t GroupVertices(const MeshStreams& m, ReductionScratch& s, bool& anyLoner) {
  constexpr uint32_t kKeySets = kNear ? 0 : kSets;
  const uint32_t vertices = static_cast<uint32_t>(m.vertices);
  const uint32_t loner = vertices;
  VertexGroupIndex& index = s.index;
  index.reset(vertices);
  s.group.resize(vertices);
  s.resolved.resize(vertices);
  uint32_t* group = s.group.data();
  int32_t* resolved = s.resolved.data();

  // The hash of a vertex, 0 for one that can match nothing; taken kAhead vertices before the
  // vertex is grouped, so that its slot is on its way by then.
  auto hashAt = [&m](uint32_t i) -> uint32_t {
    const Corner c = m.load<kSets>(i);
    return CanMatch(c, kSets, kNear) ? VertexGroupIndex::hashOf<kKeySets>(c) : 0;
  };
  auto equal = [&m](uint32_t a, uint32_t b) {
    const Corner ca = m.load<kKeySets>(a), cb = m.load<kKeySets>(b);
    for (int k = 0; k < 3; ++k)
      if (!(ca.position[k] == cb.position[k])) return false;
    for (uint32_t k = 0; k < kKeySets; ++k)
      if (!(ca.u[k] == cb.u[k]) || !(ca.v[k] == cb.v[k])) return false;
    return true;
  };
  constexpr uint32_t kAhead = 16;  // about a cache miss's worth of vertices
  uint32_t ahead[kAhead];
  for (uint32_t i = 0; i < kAhead && i < vertices; ++i) {
    ahead[i] = hashAt(i);
    index.prefetch(ahead[i]);
  }
  uint32_t groups = 0;
  bool lonely = false;
  for (uint32_t i = 0; i < vertices; ++i) {
    const uint32_t hash = ahead[i % kAhead];
    if (i + kAhead < vertices) {
      const uint32_t later = hashAt(i + kAhead);
      ahead[i % kAhead] = later;
      index.prefetch(later);
    }
    if (hash == 0) {
      group[i] = loner;
      resolved[i] = kUnseenShared;
      lonely = true;
      continue;
    }
    const int32_t first = index.findOrAdd(i, hash, equal);
    if (first >= 0) {
      group[i] = group[first];
      resolved[i] = resolved[first] = kUnseenShared;
    } else {
      group[i] = groups++;
      resolved[i] = kUnseen;
    }
  }
  anyLoner = lonely;
  return groups;
}

// Near mode: the kept vertices of the groups whose position several old vertices share, each
// group's in list order. Kept out of the corner loop, which mostly meets resolved vertices.
class SharedGroups {
 public:
  SharedGroups(const MeshStreams& m, uint32_t uvSets, ReductionScratch& s)
      : m_m(m), m_uvSets(uvSets), m_s(s) {}

  // The first kept vertex of group g that old vertex i matches, -1 for none.
  __attribute__((noinline)) int32_t firstMatch(uint32_t i, uint32_t g) const {
    const int32_t head = m_s.rank[g];
    if (head < 0) return -1;
    const Corner c = corner(i);
    auto kept = [this](int32_t e) { return corner(m_s.entries[static_cast<size_t>(e)].source); };
    if (m_cells && m_cells->covers(g)) return m_cells->firstMatch(g, c, kept);
    for (int32_t e = head; e >= 0; e = m_s.next[static_cast<size_t>(e)])
      if (UVsNear(kept(e), c, m_uvSets)) return e;
    return -1;
  }

  // Kept vertex e, just made, joins group g.
  __attribute__((noinline)) void append(uint32_t g, int32_t e) {
    std::vector<int32_t>& next = m_s.next;
    next[static_cast<size_t>(e)] = -1;
    const int32_t head = m_s.rank[g];
    if (head < 0) {
      m_s.rank[g] = e;
      m_s.last[static_cast<size_t>(e)] = e;
      m_s.length[static_cast<size_t>(e)] = 1;
      return;
    }
    next[static_cast<size_t>(m_s.last[static_cast<size_t>(head)])] = e;
    m_s.last[static_cast<size_t>(head)] = e;
    const uint32_t length = ++m_s.length[static_cast<size_t>(head)];
    auto kept = [this](int32_t k) { return corner(m_s.entries[static_cast<size_t>(k)].source); };
    if (m_cells && m_cells->covers(g)) {
      m_cells->add(g, e, kept(e));
    } else if (length >= kLongGroup) {
      if (!m_cells) m_cells.reset(new NearCells(m_uvSets));
      for (int32_t k = head; k >= 0; k = next[static_cast<size_t>(k)]) m_cells->add(g, k, kept(k));
    }
  }

 private:
  Corner corner(uint32_t i) const {
    return m_uvSets == 1 ? m_m.load<1>(i) : m_m.load<kMaxUVSets>(i);
  }

  const MeshStreams& m_m;
  uint32_t m_uvSets;
  ReductionScratch& m_s;
  std::unique_ptr<NearCells> m_cells;
};

// The kept vertex of an old vertex whose group others share (exact mode: the group's one kept
// vertex; near mode: the first match among the group's kept vertices) or that can match nothing
// (a new one each time), met for the first time; appended to the list when there is none yet.
template <bool kNear, bool kLoners>
class SharedSight {
 public:
  SharedSight(const MeshStreams& m, uint32_t uvSetsCompared, ReductionScratch& s)
      : m_loner(static_cast<uint32_t>(m.vertices)),
        m_group(s.group.data()),
        m_rank(s.rank.data()),
        m_resolved(s.resolved.data()),
        m_entries(s.entries.data()),
        m_sharedGroups(m, uvSetsCompared, s) {}

  // Out of the corner loop, which keeps its few values in registers across the call.
  __attribute__((noinline)) int32_t kept(uint16_t i, int32_t& n) {
    const uint32_t g = m_group[i];
    if (kLoners && g == m_loner) return make(i, n);
    int32_t k;
    if (!kNear) {
      k = m_rank[g];
      if (k < 0) m_rank[g] = k = make(i, n);
    } else {
      k = m_sharedGroups.firstMatch(i, g);
      if (k < 0) m_sharedGroups.append(g, k = make(i, n));
    }
    m_resolved[i] = SharedMemo(k);
    return k;
  }

 private:
  int32_t make(uint16_t i, int32_t& n) {
    m_entries[n].source = i;
    return n++;
  }

  uint32_t m_loner;
  const uint32_t* m_group;
  int32_t* m_rank;
  int32_t* m_resolved;
  buffer* m_entries;
  SharedGroups m_sharedGroups;
};

template <bool kNear, bool kLoners>
void ResolveCorners(const MeshStreams& m, uint32_t uvSetsCompared, ReductionScratch& s) {
  SharedSight<kNear, kLoners> shared(m, uvSetsCompared, s);
  int32_t* resolved = s.resolved.data();
  buffer* entries = s.entries.data();
  uint16_t* newFaces = kLoners ? s.newFaces.data() : nullptr;
  const uint8_t* faces = m.faces;
  const size_t corners = m.corners;
  int32_t n = 0;
  for (size_t f = 0; f < corners; ++f) {
    uint16_t i;
    std::memcpy(&i, faces + 2 * f, 2);
    int32_t k = resolved[i];
    if (k < 0) {
      if (k == kUnseen) {
        // Alone in its group: nothing before it can match, and it is its own kept vertex.
        k = n++;
        entries[k] = buffer{i, i};
        resolved[i] = k;
      } else {
        k = k == kUnseenShared ? shared.kept(i, n) : KeptOfMemo(k);
        entries[k].normalFrom = i;
      }
    }
    if (kLoners) newFaces[f] = static_cast<uint16_t>(k);  // wraps above 65,535 by design
  }
  s.kept = static_cast<size_t>(n);
}

// Fills scratch.entries (the first scratch.kept of them), and scratch.resolved or (perCorner)
// scratch.newFaces, for a mesh.
void Scan(const MeshStreams& m, uint32_t uvSetsCompared, bool nearly, ReductionScratch& s) {
  // Near mode compares positions exactly too; without texture coordinates it is exact mode.
  const bool near = nearly && uvSetsCompared > 0;
  bool anyLoner = false;
  uint32_t groups = 0;
  switch (uvSetsCompared * 2 + near) {
    case 0: groups = GroupVertices<0, false>(m, s, anyLoner); break;
    case 2: groups = GroupVertices<1, false>(m, s, anyLoner); break;
    case 3: groups = GroupVertices<1, true>(m, s, anyLoner); break;
    case 4: groups = GroupVertices<2, false>(m, s, anyLoner); break;
    default: groups = GroupVertices<2, true>(m, s, anyLoner); break;
  }
  const uint32_t vertices = static_cast<uint32_t>(m.vertices);

  // At most one kept vertex per old vertex that can match, plus one per corner of one that
  // cannot (exact mode: one per group).
  size_t bound = near ? vertices : groups;
  if (anyLoner) {
    if (near) bound = 0;
    for (uint32_t i = 0; near && i < vertices; ++i) bound += s.group[i] != vertices;
    for (size_t f = 0; f < m.corners; ++f) bound += s.group[m.faceIndex(f)] == vertices;
  }
  // Grown only: what is there is overwritten entry by entry.
  const size_t room = std::min(bound, m.corners);
  if (s.entries.size() < room) s.entries.resize(room);
  s.rank.assign(groups, -1);
  s.perCorner = anyLoner;
  if (anyLoner) s.newFaces.resize(m.corners);
  if (near && s.next.size() < room) {
    s.next.resize(room);
    s.last.resize(room);
    s.length.resize(room);
  }
  if (near) {
    if (anyLoner)
      ResolveCorners<true, true>(m, uvSetsCompared, s);
    else
      ResolveCorners<true, false>(m, uvSetsCompared, s);
  } else {
    if (anyLoner)
      ResolveCorners<false, true>(m, uvSetsCompared, s);
    else
      ResolveCorners<false, false>(m, uvSetsCompared, s);
  }
}

// The vertex count of mesh `index` as the save will write it.
uint32_t CountAfterWelds(const SPODMesh& mesh, uint32_t index, const PODWeldPlan* plan) {
  const SPODMeshWeld* weld = plan != nullptr ? plan->weld(index) : nullptr;
  return weld != nullptr ? weld->nKept : mesh.nNumVertex;
}

// A mesh's weld as the reduction makes it, or why the mesh is left as it is. It depends on the
// mesh's streams alone (texture-coordinate sets beyond the second are not read), so it may be made
// ahead of the loop that prints.
struct MeshWeld {
  SPODMeshWeld* weld = nullptr;
  const char* why = nullptr;
};

MeshWeld MakeWeld(const SPODMesh& mesh, bool useUV, bool nearly, ReductionScratch& scratch) {
  size_t addressable = 0;  // old vertices the indices can reach
  if (const char* why = WhyNotReducible(mesh, addressable)) return {nullptr, why};

  const uint32_t uvSets = std::min(mesh.nNumUVW, kMaxUVSets);
  const uint32_t uvSetsCompared = useUV ? uvSets : 0;
  const size_t corners = static_cast<size_t>(mesh.nNumFaces) * 3;

  MeshStreams streams{mesh.sVertex.pData, {}, uvSets, mesh.sFaces.pData, corners, addressable};
  for (uint32_t k = 0; k < uvSets; ++k) streams.uvs[k] = mesh.psUVW[k].pData;
  Scan(streams, uvSetsCompared, nearly, scratch);

  const std::vector<buffer>& entries = scratch.entries;
  const size_t n = scratch.kept;
  if (n > 0 && BoneBytesPerVertex(mesh) > kMaxRebuiltBoneBytes / n)
    return {nullptr, "the rebuilt bone streams would pass 256 MiB"};
  SPODMeshWeld* weld = PODMeshWeldCreate(static_cast<uint32_t>(n), !scratch.perCorner, addressable, corners);
  weld->nUVW = uvSets;
  weld->bBones = mesh.sBoneBatches.nBatchCnt > 0;
  // Old vertex indices are below 65,536: they come from 16-bit indices.
  for (size_t e = 0; e < n; ++e) {
    weld->pnSource[e] = static_cast<uint16_t>(entries[e].source);
    weld->pnNormalFrom[e] = static_cast<uint16_t>(entries[e].normalFrom);
  }
  if (scratch.perCorner) {
    std::copy(scratch.newFaces.begin(), scratch.newFaces.begin() + corners, weld->pnCornerKept);
  } else {
    // Without such vertices fewer than 65,536 are kept. Vertices no corner uses map to 0.
    for (size_t i = 0; i < addressable; ++i)
      weld->pnKeptOf[i] = static_cast<uint16_t>(std::max(KeptOfMemo(scratch.resolved[i]), 0));
  }
  PODMeshWeldNote(*weld, mesh, addressable);
  return {weld, nullptr};
}

// Reduces the mesh (mesh `index` of its scene); null when done, otherwise why the mesh was left as
// it is. With a plan, the weld goes into it and the mesh keeps its streams; without, the streams
// are rebuilt at once. `ahead`: the weld made of the mesh as it is now, taken over (null: made
// here). `boneGrowth`: what the scene's welds so far add to its bone streams (null: not counted).
const char* ReduceMesh(SPODNode* node, SPODMesh* mesh, uint32_t index, bool useUV, bool nearly,
                       ReductionScratch& scratch, PODWeldPlan* plan, MeshWeld* ahead = nullptr,
                       uint64_t* boneGrowth = nullptr) {
  if (mesh == nullptr) return "no mesh";
  // First of all, also for a mesh that is then left as it is.
  if (mesh->nNumUVW > kMaxUVSets) {
    mesh->nNumUVW = kMaxUVSets;
    korvex::PrintText("Error1: Number of UVW > 2, \"%s\"\n", NodeName(node));
  }
  // A mesh used by two nodes is reduced twice; the second pass reads the first one's result.
  if (SPODMeshWeld* earlier = plan != nullptr ? plan->take(index) : nullptr) {
    const bool applied = PODMeshApplyWeld(*mesh, *earlier);
    if (!applied) {
      plan->set(index, earlier);
      return "its streams have changed since it was welded";
    }
    PODMeshWeldFree(earlier);
  }
  const MeshWeld made = ahead != nullptr ? *ahead : MakeWeld(*mesh, useUV, nearly, scratch);
  if (ahead != nullptr) *ahead = MeshWeld{};
  if (made.why != nullptr) return made.why;
  if (boneGrowth != nullptr && made.weld->nKept > mesh->nNumVertex) {
    const uint64_t growth =
        (made.weld->nKept - uint64_t{mesh->nNumVertex}) * BoneBytesPerVertex(*mesh);
    if (growth > kMaxRebuiltBoneBytes - *boneGrowth) {
      PODMeshWeldFree(made.weld);
      return "the scene's rebuilt bone streams would grow by more than 256 MiB";
    }
    *boneGrowth += growth;
  }
  if (plan != nullptr) {
    plan->set(index, made.weld);
    return nullptr;
  }
  const bool applied = PODMeshApplyWeld(*mesh, *made.weld);
  PODMeshWeldFree(made.weld);
  return applied ? nullptr : "its streams do not fit the weld made of them";
}

// Welds made on two cores before the reduction's loop, which then takes them in node order, so
// that what it prints and makes is the same as without. A weld depends only on its mesh as it
// stands; with a plan, no stream changes until a node comes back to a mesh welded before (and
// rewelds it in place), so the nodes ahead of that one are welded here. A scene too small to gain
// from a second thread, or one the system will not start, is welded by the loop alone.
class WeldsAhead {
 public:
  WeldsAhead(const SPODScene* s, uint32_t meshNodes, bool nearly) : m_scene(s), m_nearly(nearly) {
    if (s == nullptr || s->pMesh == nullptr) return;
    const SPODScene& scene = *s;
    std::vector<bool> seen(scene.nNumMesh, false);
    uint64_t corners = 0;
    for (uint32_t k = 0; k < meshNodes; ++k) {
      const int32_t idx = scene.pNode[k].nIdx;
      if (idx < 0 || static_cast<uint32_t>(idx) >= scene.nNumMesh) continue;
      if (seen[idx]) break;
      seen[idx] = true;
      m_nodes.push_back(k);
      corners += uint64_t{scene.pMesh[idx].nNumFaces} * 3;
    }
    if (m_nodes.size() < 2 || corners < kWorthAThread) return;
    m_welds.resize(meshNodes);
    korvex::HelperThread helper;
    helper.Start(&WeldsAhead::Work, this);
    Work(this);
    helper.Join();
  }
  ~WeldsAhead() {
    for (MeshWeld& w : m_welds) PODMeshWeldFree(w.weld);  // only those no node took (an abort)
  }
  WeldsAhead(const WeldsAhead&) = delete;
  WeldsAhead& operator=(const WeldsAhead&) = delete;

  // The weld made for node k, or null.
  MeshWeld* Of(uint32_t k) {
    return k < m_welds.size() && (m_welds[k].weld || m_welds[k].why) ? &m_welds[k] : nullptr;
  }

 private:
  static constexpr uint64_t kWorthAThread = 1 << 17;

  static void* Work(void* self) {
    WeldsAhead& a = *static_cast<WeldsAhead*>(self);
    ReductionScratch scratch;
    for (size_t j; (j = a.m_next++) < a.m_nodes.size();) {
      const SPODNode& node = a.m_scene->pNode[a.m_nodes[j]];
      // The mesh as its first node's pass sees it: cut to two texture-coordinate sets.
      SPODMesh cut = a.m_scene->pMesh[node.nIdx];
      cut.nNumUVW = std::min(cut.nNumUVW, kMaxUVSets);
      a.m_welds[a.m_nodes[j]] = MakeWeld(cut, node.nIdxMaterial >= 0, a.m_nearly, scratch);
    }
    return nullptr;
  }

  const SPODScene* m_scene;
  const bool m_nearly;
  std::vector<uint32_t> m_nodes;  // the nodes welded here
  std::vector<MeshWeld> m_welds;  // by node
  std::atomic<size_t> m_next{0};
};

// The tool's texts are fixed, so a mesh left alone is noted as a problem line.
void NoteUnreduced(const SPODNode* node, const char* why) {
  korvex::ReportProblem(std::string("Note: vertices of \"") + NodeName(node) + "\" not reduced: " + why);
}

// With a plan, the welds go into it (see ReduceMesh).
void ReduceScene(SPODScene* scene, bool nearly, PODWeldPlan* plan) {
  // Like the texture renaming's line, this one is left open: the count lines follow on it.
  korvex::PrintText(std::string(nearly ? "Reducing vertex number with vertex have NEARLY same UV..."
                                       : "Reducing vertex number with vertex have SAME UV..."));
  // 32-bit totals, wrapping like the counts they add up.
  uint32_t before = 0;
  uint32_t after = 0;
  // Mesh nodes beyond the node array cannot be visited.
  const uint32_t meshNodes =
      scene != nullptr && scene->pNode != nullptr ? std::min(scene->nNumMeshNode, scene->nNumNode) : 0;
  if (plan != nullptr) plan->reserve(scene != nullptr ? scene->nNumMesh : 0);
  WeldsAhead ahead(plan != nullptr ? scene : nullptr, meshNodes, nearly);
  ReductionScratch scratch;
  uint64_t boneGrowth = 0;
  for (uint32_t k = 0; k < meshNodes; ++k) {
    SPODNode* node = &scene->pNode[k];
    // The check is reduceMeshVertex's, by whichever entry point it is reached.
    if (node->nIdx == -1)
      korvex::AssertionFailed("node->nIdx != -1", "reduceMeshVertex", "main", __LINE__);
    if (node->nIdx < 0 || static_cast<uint32_t>(node->nIdx) >= scene->nNumMesh ||
        scene->pMesh == nullptr) {
      NoteUnreduced(node, "no such mesh");
      continue;
    }
    const uint32_t index = static_cast<uint32_t>(node->nIdx);
    SPODMesh* mesh = &scene->pMesh[index];
    before += CountAfterWelds(*mesh, index, plan);
    if (const char* why = ReduceMesh(node, mesh, index, node->nIdxMaterial >= 0, nearly, scratch,
                                     plan, ahead.Of(k), &boneGrowth))
      NoteUnreduced(node, why);
    after += CountAfterWelds(*mesh, index, plan);
  }
  korvex::PrintText("Total vertex before reduction: %d\n", static_cast<int32_t>(before));
  korvex::PrintText("Total vertex after reduction: %d\n", static_cast<int32_t>(after));
  korvex::PrintText("Difference: %d\n", static_cast<int32_t>(before - after));
}

}  // namespace

void reduceVertex(SPODNode* node, SPODMesh* mesh, bool useUV, bool nearly) {
  ReductionScratch scratch;
  ReduceMesh(node, mesh, 0, useUV, nearly, scratch, nullptr);
}

void reduceMeshVertex(SPODScene* scene, bool nearly) { ReduceScene(scene, nearly, nullptr); }

PODWeldPlan reduceMeshVertexForSave(SPODScene* scene, bool nearly) {
  PODWeldPlan plan;
  ReduceScene(scene, nearly, &plan);
  return plan;
}
