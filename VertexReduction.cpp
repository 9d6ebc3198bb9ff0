#include "VertexReduction.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "Assertion.h"
#include "IndexRange.h"
#include "PODMeshWeld.h"

namespace {

constexpr uint32_t kMaxUVSets = 2;
// Bone streams are copied once per kept vertex and a vertex with a NaN becomes a new kept vertex
// at every corner, so a huge per-vertex bone count would multiply the input size. Real skinned
// meshes carry a handful of bones a vertex; meshes claiming more than this are left alone.
constexpr uint32_t kMaxBonesPerVertex = 16;
constexpr double kNearTolerance = 0.001;
// A position group of near mode this long is searched through its cells instead of one by one.
constexpr uint32_t kLongGroup = 8;

// Memo states of an old vertex besides the index of the kept vertex it resolves to.
constexpr int32_t kUnseen = -1;
constexpr int32_t kNeverMatches = -2;

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

bool IsPackedBoneStream(const CPODData& d, uint32_t elementSize) {
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
    if (idx.n > kMaxBonesPerVertex || weights.n > kMaxBonesPerVertex)
      return "too many bones a vertex";
    // One weight is copied per bone index.
    if (weights.n < idx.n) return "fewer bone weights than bone indices";
    if (!IsPackedBoneStream(idx, idx.n) || !IsPackedBoneStream(weights, weights.n * 4))
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

// Kept vertices grouped by the components that must compare equal (the position, and in exact
// mode the texture coordinates when they take part). Each group lists its kept vertices in list
// order, so the first match of the full scan is the first match in the group. Only near mode with
// texture coordinates needs more than a group's first entry: the other modes compare everything
// the key holds, so a group never grows past it and no list is kept.
class KeptVertexIndex {
 public:
  // Empties the index for a mesh of at most maxGroups groups, keeping the memory it had.
  void reset(size_t maxGroups, uint32_t uvSetsInKey, bool listsGroups) {
    m_uvSetsInKey = uvSetsInKey;
    m_listsGroups = listsGroups;
    size_t capacity = 16;
    while (capacity < 4 * maxGroups) capacity *= 2;
    m_slots.assign(capacity, Slot{0, -1});
    m_mask = capacity - 1;
    m_next.clear();
    m_tail.clear();
    m_length.clear();
  }

  uint32_t hashOf(const Corner& c) const {
    // Two components a multiplication, the products independent of each other, then one mix.
    auto pair = [](float a, float b) {
      return uint64_t{FloatKeyBits(a)} | uint64_t{FloatKeyBits(b)} << 32;
    };
    uint64_t h = pair(c.position[0], c.position[1]) * 0x9E3779B97F4A7C15ull;
    h ^= pair(c.position[2], 0.0f) * 0xC2B2AE3D27D4EB4Full;
    for (uint32_t k = 0; k < m_uvSetsInKey; ++k) h ^= pair(c.u[k], c.v[k]) * (0x165667B19E3779F9ull + k);
    h ^= h >> 32;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 29;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 32;
    return static_cast<uint32_t>(h);
  }

  // Probes land at random in a table larger than the nearest caches: the caller asks for the
  // slot of a corner some way ahead while it works on the current one.
  void prefetch(uint32_t hash) const { __builtin_prefetch(&m_slots[hash & m_mask]); }

  // The slot of the group of `c` (whose hash is `hash`): an occupied one if the group exists,
  // else where it goes. kept(e) gives the components of kept vertex e.
  template <typename Kept>
  size_t find(const Corner& c, uint32_t hash, const Kept& kept) const {
    size_t pos = hash & m_mask;
    while (m_slots[pos].head >= 0) {
      if (m_slots[pos].hash == hash && keyEquals(kept(m_slots[pos].head), c)) return pos;
      pos = (pos + 1) & m_mask;
    }
    return pos;
  }

  int32_t head(size_t slot) const { return m_slots[slot].head; }
  // Of an occupied slot.
  uint32_t length(size_t slot) const { return m_length[m_slots[slot].head]; }
  size_t capacity() const { return m_slots.size(); }
  int32_t next(int32_t entry) const { return m_next[entry]; }

  // Every kept vertex is registered, grouped or not, so entry numbers stay aligned.
  void registerUngrouped() {
    if (m_listsGroups) registerEntry();
  }

  void append(size_t slot, uint32_t hash, int32_t entry) {
    Slot& s = m_slots[slot];
    if (!m_listsGroups) {
      s = Slot{hash, entry};
      return;
    }
    registerEntry();
    if (s.head < 0) {
      s = Slot{hash, entry};
      m_tail[entry] = entry;
      m_length[entry] = 1;
    } else {
      m_next[m_tail[s.head]] = entry;
      m_tail[s.head] = entry;
      ++m_length[s.head];
    }
  }

 private:
  // Small, so that the table probed at random stays in the cache as far as it can; a group's last
  // entry and length are kept by its first entry.
  struct Slot {
    uint32_t hash;
    int32_t head;  // first kept vertex of the group, -1 for an empty slot
  };

  void registerEntry() {
    m_next.push_back(-1);
    m_tail.push_back(-1);
    m_length.push_back(0);
  }

  bool keyEquals(const Corner& b, const Corner& c) const {
    for (int a = 0; a < 3; ++a)
      if (!(b.position[a] == c.position[a])) return false;
    for (uint32_t k = 0; k < m_uvSetsInKey; ++k)
      if (!(b.u[k] == c.u[k]) || !(b.v[k] == c.v[k])) return false;
    return true;
  }

  std::vector<Slot> m_slots;
  std::vector<int32_t> m_next;
  std::vector<int32_t> m_tail;     // of group heads: the group's last entry
  std::vector<uint32_t> m_length;  // of group heads: the group's entry count
  size_t m_mask = 0;
  uint32_t m_uvSetsInKey = 0;
  bool m_listsGroups = false;
};

// Working memory of the reduction, kept from one mesh to the next: requesting (and touching)
// it anew for every mesh of a large scene costs more than the reduction itself.
// One entry of the list of distinct vertices, held as the old vertices it is made of: `source`
// introduced it (its position, texture coordinates and bones are that vertex's) and `normalFrom`
// is the vertex of the last corner that merged into it (whose normal it has). Its new index is
// its place in the list.
struct buffer {
  uint32_t source;
  uint32_t normalFrom;
};

struct ReductionScratch {
  KeptVertexIndex index;
  std::vector<buffer> entries;
  std::vector<uint16_t> newFaces;  // the rewritten triangle indices
  std::vector<int32_t> resolved;   // kept vertex of each old vertex (negative: none)
  // Some old vertex matches nothing and is a new kept vertex at each of its corners: only
  // newFaces tells the kept vertex of a corner. Otherwise resolved does, and newFaces is unused.
  bool perCorner = false;
  std::vector<uint32_t> hashes;  // exact mode: of each old vertex
  std::vector<uint32_t> group;   // exact mode: of each old vertex
  std::vector<int32_t> rank;     // exact mode: kept vertex of each group
};

bool IsNear(float a, float b) {
  return std::fabs(static_cast<double>(a) - static_cast<double>(b)) <= kNearTolerance;
}

bool UVsNear(const Corner& b, const Corner& c, uint32_t uvSets) {
  for (uint32_t k = 0; k < uvSets; ++k)
    if (!IsNear(b.u[k], c.u[k]) || !IsNear(b.v[k], c.v[k])) return false;
  return true;
}

// Cells of side 0.002 in each compared coordinate, scaled by 500 (exact for a float) and floored.
// Two coordinates within 0.001 lie in the same or adjacent cells, on the side of the half-cell
// the corner sits in. A float of magnitude 2^20 or more is at least 1/16 away from any other
// float, so only equal values are near it: such values share one far cell.
constexpr float kFarCoordinate = 1048576.0f;
constexpr int64_t kFarCell = INT64_MIN;
constexpr double kSlack = 1e-9;  // covers the tolerance's excess over 0.001 and any rounding

int64_t CellOf(float x) {
  if (!(std::fabs(x) < kFarCoordinate)) return kFarCell;
  return static_cast<int64_t>(std::floor(static_cast<double>(x) * 500.0));
}

// The cells a kept coordinate near `x` can lie in; returns how many (1 to 3).
int CellsNear(float x, int64_t* out) {
  const int64_t own = CellOf(x);
  if (own == kFarCell) {
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

// Kept vertices of long position groups (near mode) by group and cell. The kept vertices of one
// group match none of each other, so a cell holds at most one in each half-cell combination
// (2^d for d compared coordinates): a lookup probes at most 2^d cells of at most 2^d entries,
// and the first match in list order is the smallest first match over the probed cells.
class NearCells {
 public:
  NearCells(size_t groups, uint32_t uvSets) : m_covered(groups, false), m_dims(2 * uvSets) {}

  bool covers(size_t group) const { return m_covered[group]; }

  // Entries of a group are added in list order.
  void add(size_t group, int32_t entry, const Corner& b) {
    m_covered[group] = true;
    Key key{group, {}};
    for (uint32_t d = 0; d < m_dims; ++d) key.cell[d] = CellOf(coordinate(b.u, b.v, d));
    m_cells[key].push_back(entry);
  }

  template <typename Kept>
  int32_t firstMatch(size_t group, const Corner& c, const Kept& kept) const {
    int64_t options[2 * kMaxUVSets][3];
    int count[2 * kMaxUVSets];
    for (uint32_t d = 0; d < m_dims; ++d) count[d] = CellsNear(coordinate(c.u, c.v, d), options[d]);
    int choice[2 * kMaxUVSets] = {};
    int32_t best = -1;
    for (;;) {
      Key key{group, {}};
      for (uint32_t d = 0; d < m_dims; ++d) key.cell[d] = options[d][choice[d]];
      const auto it = m_cells.find(key);
      if (it != m_cells.end()) {
        for (int32_t e : it->second) {
          if (best >= 0 && e >= best) break;
          if (UVsNear(kept(e), c, m_dims / 2)) {
            best = e;
            break;
          }
        }
      }
      uint32_t d = 0;
      while (d < m_dims && ++choice[d] == count[d]) choice[d++] = 0;
      if (d == m_dims) return best;
    }
  }

 private:
  struct Key {
    size_t group;
    int64_t cell[2 * kMaxUVSets];
    bool operator==(const Key& o) const {
      return group == o.group && std::equal(cell, cell + 2 * kMaxUVSets, o.cell);
    }
  };
  struct KeyHash {
    size_t operator()(const Key& k) const {
      uint64_t h = k.group * 0x9E3779B97F4A7C15ull;
      for (int64_t c : k.cell) {
        h = (h ^ static_cast<uint64_t>(c)) * 0xFF51AFD7ED558CCDull;
        h ^= h >> 29;
      }
      return static_cast<size_t>(h);
    }
  };

  template <typename Coordinates>
  static float coordinate(const Coordinates& u, const Coordinates& v, uint32_t d) {
    return d % 2 == 0 ? u[d / 2] : v[d / 2];
  }

  std::vector<bool> m_covered;
  uint32_t m_dims;
  std::unordered_map<Key, std::vector<int32_t>, KeyHash> m_cells;
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

  Corner cornerOf(uint32_t i) const {
    Corner c{};
    for (int a = 0; a < 3; ++a) c.position[a] = LoadFloat(positions + 12 * size_t{i} + 4 * a);
    for (uint32_t k = 0; k < uvSets; ++k) {
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
// on the old vertices that can match at all. The first-match scan then comes down to this: old
// vertices fall into groups of equal keys; the list keeps one vertex per group, in the order the
// corners first reach the groups, made of the old vertex of that first corner and the normal of
// the last; a vertex that can match nothing is a new kept vertex at every corner. Grouping runs
// over the vertices in stream order, which lets the probes of the table be fetched ahead.
void ScanByGroups(const MeshStreams& m, uint32_t uvSetsInKey, ReductionScratch& s) {
  const uint32_t vertices = static_cast<uint32_t>(m.vertices);
  // Group of the vertices that can match nothing: never taken by a vertex that can.
  const uint32_t loner = vertices;
  KeptVertexIndex& index = s.index;
  index.reset(vertices, uvSetsInKey, false);

  s.hashes.resize(vertices);
  s.group.resize(vertices);
  uint32_t* hashes = s.hashes.data();
  uint32_t* group = s.group.data();
  bool anyLoner = false;
  for (uint32_t i = 0; i < vertices; ++i) {
    const Corner c = m.cornerOf(i);
    const bool matches = CanMatch(c, uvSetsInKey, false);
    hashes[i] = matches ? index.hashOf(c) : 0;
    group[i] = matches ? 0 : loner;
    anyLoner = anyLoner || !matches;
  }

  // A group is held in the table by its first vertex.
  auto vertex = [&m](int32_t e) { return m.cornerOf(static_cast<uint32_t>(e)); };
  constexpr uint32_t kProbeAhead = 16;  // about a cache miss's worth of vertices
  uint32_t groups = 0;
  for (uint32_t i = 0; i < vertices; ++i) {
    if (i + kProbeAhead < vertices) index.prefetch(hashes[i + kProbeAhead]);
    if (group[i] == loner) continue;
    const size_t slot = index.find(m.cornerOf(i), hashes[i], vertex);
    const int32_t first = index.head(slot);
    if (first >= 0) {
      group[i] = group[static_cast<size_t>(first)];
    } else {
      index.append(slot, hashes[i], static_cast<int32_t>(i));
      group[i] = groups++;
    }
  }

  // At most one kept vertex per group, plus one per corner of a vertex that matches nothing.
  size_t bound = groups;
  if (anyLoner) {
    for (size_t f = 0; f < m.corners; ++f) bound += group[m.faceIndex(f)] == loner;
  }
  s.entries.resize(std::min(bound, m.corners));
  s.rank.assign(size_t{vertices} + 1, -1);
  s.perCorner = anyLoner;
  if (anyLoner) s.newFaces.resize(m.corners);

  buffer* entries = s.entries.data();
  int32_t* rank = s.rank.data();
  uint16_t* newFaces = s.newFaces.data();
  int32_t n = 0;
  for (size_t f = 0; f < m.corners; ++f) {
    const uint16_t i = m.faceIndex(f);
    const uint32_t g = group[i];
    int32_t k = rank[g];
    const bool fresh = k < 0 || g == loner;
    if (fresh) {
      k = n++;
      rank[g] = k;
      entries[k].source = i;
    }
    entries[k].normalFrom = i;
    if (anyLoner) newFaces[f] = static_cast<uint16_t>(k);  // wraps above 65,535 by design
  }
  s.entries.resize(static_cast<size_t>(n));
  if (!anyLoner) {
    s.resolved.resize(vertices);
    for (uint32_t i = 0; i < vertices; ++i) s.resolved[i] = rank[group[i]];
  }
}

// Near mode with texture coordinates: coordinates within the tolerance of each other match, which
// is not an equivalence, so the corners are resolved in order against the kept vertices so far.
// Each position group lists its kept vertices in list order; the first match in the group is the
// first match of the full scan.
void ScanNear(const MeshStreams& m, uint32_t uvSetsCompared, ReductionScratch& s) {
  std::vector<buffer>& entries = s.entries;
  entries.clear();
  entries.reserve(std::min(m.corners, m.vertices));
  KeptVertexIndex& index = s.index;
  index.reset(m.vertices, 0, true);
  NearCells cells(index.capacity(), uvSetsCompared);
  // An old vertex resolves to the same kept vertex at every corner that uses it: kept vertices
  // are only ever appended and never change what they compare on, so the ones the first scan
  // passed over still fail and the one it stopped at still matches.
  std::vector<int32_t>& resolved = s.resolved;
  resolved.assign(m.vertices, kUnseen);
  s.perCorner = false;
  std::vector<uint16_t>& newFaces = s.newFaces;
  newFaces.resize(m.corners);  // every element is written below

  auto kept = [&](int32_t e) { return m.cornerOf(entries[static_cast<size_t>(e)].source); };
  auto appendKept = [&](uint32_t i) {
    entries.push_back(buffer{i, i});
    return static_cast<int32_t>(entries.size() - 1);
  };

  for (size_t f = 0; f < m.corners; ++f) {
    const uint16_t i = m.faceIndex(f);
    int32_t entry = resolved[i];
    if (entry < 0) {
      const Corner c = m.cornerOf(i);
      if (entry == kNeverMatches || !CanMatch(c, uvSetsCompared, true)) {
        s.perCorner = true;
        entry = appendKept(i);
        index.registerUngrouped();
        resolved[i] = kNeverMatches;
      } else {
        const uint32_t hash = index.hashOf(c);
        const size_t slot = index.find(c, hash, kept);
        entry = cells.covers(slot) ? cells.firstMatch(slot, c, kept) : index.head(slot);
        if (!cells.covers(slot)) {
          while (entry >= 0 && !UVsNear(kept(entry), c, uvSetsCompared)) entry = index.next(entry);
        }
        if (entry < 0) {
          entry = appendKept(i);
          index.append(slot, hash, entry);
          if (cells.covers(slot)) {
            cells.add(slot, entry, c);
          } else if (index.length(slot) >= kLongGroup) {
            for (int32_t e = index.head(slot); e >= 0; e = index.next(e)) cells.add(slot, e, kept(e));
          }
        }
        resolved[i] = entry;
      }
    }
    entries[static_cast<size_t>(entry)].normalFrom = i;
    newFaces[f] = static_cast<uint16_t>(entry);  // wraps above 65,535 by design
  }
}

// The vertex count of mesh `index` as the save will write it.
uint32_t CountAfterWelds(const SPODMesh& mesh, uint32_t index, const PODWeldPlan* plan) {
  const SPODMeshWeld* weld = plan != nullptr ? plan->weld(index) : nullptr;
  return weld != nullptr ? weld->nKept : mesh.nNumVertex;
}

// Reduces the mesh (mesh `index` of its scene); null when done, otherwise why the mesh was left as
// it is. With a plan, the weld goes into it and the mesh keeps its streams; without, the streams
// are rebuilt at once.
const char* ReduceMesh(SPODNode* node, SPODMesh* mesh, uint32_t index, bool useUV, bool nearly,
                       ReductionScratch& scratch, PODWeldPlan* plan) {
  if (mesh == nullptr) return "no mesh";
  // A mesh used by two nodes is reduced twice; the second pass reads the first one's result.
  if (SPODMeshWeld* earlier = plan != nullptr ? plan->take(index) : nullptr) {
    const bool applied = PODMeshApplyWeld(*mesh, *earlier);
    if (!applied) {
      plan->set(index, earlier);
      return "out of memory";
    }
    PODMeshWeldFree(earlier);
  }
  size_t addressable = 0;  // old vertices the indices can reach
  if (const char* why = WhyNotReducible(*mesh, addressable)) return why;
  if (mesh->nNumUVW > kMaxUVSets) {
    mesh->nNumUVW = kMaxUVSets;
    std::printf("Error1: Number of UVW > 2, \"%s\"\n", NodeName(node));
  }

  const uint32_t uvSets = mesh->nNumUVW;
  const uint32_t uvSetsCompared = useUV ? uvSets : 0;
  const size_t corners = static_cast<size_t>(mesh->nNumFaces) * 3;

  MeshStreams streams{mesh->sVertex.pData, {}, uvSets, mesh->sFaces.pData, corners, addressable};
  for (uint32_t k = 0; k < uvSets; ++k) streams.uvs[k] = mesh->psUVW[k].pData;
  // Near mode compares positions exactly too; without texture coordinates it is exact mode.
  if (nearly && uvSetsCompared > 0)
    ScanNear(streams, uvSetsCompared, scratch);
  else
    ScanByGroups(streams, uvSetsCompared, scratch);

  const std::vector<buffer>& entries = scratch.entries;
  const size_t n = entries.size();
  SPODMeshWeld* weld = PODMeshWeldCreate(static_cast<uint32_t>(n), !scratch.perCorner, addressable, corners);
  if (weld == nullptr) return "out of memory";
  weld->nUVW = uvSets;
  weld->bBones = mesh->sBoneBatches.nBatchCnt > 0;
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
      weld->pnKeptOf[i] = static_cast<uint16_t>(std::max(scratch.resolved[i], 0));
  }
  PODMeshWeldNote(*weld, *mesh, addressable);

  if (plan != nullptr) {
    plan->set(index, weld);
    return nullptr;
  }
  const bool applied = PODMeshApplyWeld(*mesh, *weld);
  PODMeshWeldFree(weld);
  return applied ? nullptr : "out of memory";
}

// Standard output is the tool's exact output, so a mesh left alone is noted on standard error.
void NoteUnreduced(const SPODNode* node, const char* why) {
  std::fprintf(stderr, "Note: vertices of \"%s\" not reduced: %s\n", NodeName(node), why);
}

// With a plan, the welds go into it (see ReduceMesh).
void ReduceScene(SPODScene* scene, bool nearly, PODWeldPlan* plan) {
  // Like the texture renaming's line, this one is left open: the count lines follow on it.
  std::fputs(nearly ? "Reducing vertex number with vertex have NEARLY same UV..."
                    : "Reducing vertex number with vertex have SAME UV...",
             stdout);
  // 32-bit totals, wrapping like the counts they add up.
  uint32_t before = 0;
  uint32_t after = 0;
  // Mesh nodes beyond the node array cannot be visited.
  const uint32_t meshNodes =
      scene != nullptr && scene->pNode != nullptr ? std::min(scene->nNumMeshNode, scene->nNumNode) : 0;
  // Without room for the welds of every mesh, the streams are rebuilt at once: the same counts
  // and the same file.
  if (plan != nullptr && !plan->reserve(scene != nullptr ? scene->nNumMesh : 0)) plan = nullptr;
  ReductionScratch scratch;
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
    if (const char* why = ReduceMesh(node, mesh, index, node->nIdxMaterial >= 0, nearly, scratch, plan))
      NoteUnreduced(node, why);
    after += CountAfterWelds(*mesh, index, plan);
  }
  std::printf("Total vertex before reduction: %d\n", static_cast<int32_t>(before));
  std::printf("Total vertex after reduction: %d\n", static_cast<int32_t>(after));
  std::printf("Difference: %d\n", static_cast<int32_t>(before - after));
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
