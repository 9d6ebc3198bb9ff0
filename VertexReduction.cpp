#include "VertexReduction.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "Assertion.h"

namespace {

constexpr uint32_t kMaxUVSets = 2;
// Indices are 16-bit, so no triangle can reach a vertex beyond this.
constexpr size_t kAddressableVertices = 65536;
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

bool IsPackedFloatStream(const CPODData& d, uint32_t components, uint32_t vertices) {
  return d.eType == EPODDataFloat && d.n == components && d.nStride == components * 4 &&
         d.pData != nullptr && d.nDataSize / d.nStride >= vertices;
}

bool HoldsPackedElements(const CPODData& d, uint32_t elementSize, uint32_t vertices) {
  if (d.n == 0) return true;
  return d.nStride == elementSize && d.pData != nullptr && d.nDataSize / d.nStride >= vertices;
}

// Null when the reduction can handle the mesh, otherwise why not. The reduction reads every
// stream at a fixed stride and replaces some with packed arrays while keeping their descriptors,
// so anything else would be read or written out of bounds; such meshes are left as they are.
const char* WhyNotReducible(const SPODMesh& mesh) {
  const uint32_t nv = mesh.nNumVertex;
  if (mesh.pInterleaved != nullptr) return "interleaved vertex data";
  if (mesh.nNumStrips != 0 || mesh.pnStripLength != nullptr) return "triangle strips";
  if (!IsPackedFloatStream(mesh.sVertex, 3, nv)) return "positions are not 3 floats a vertex";
  if (!IsPackedFloatStream(mesh.sNormals, 3, nv)) return "normals missing or not 3 floats a vertex";

  const uint32_t uvSets = std::min(mesh.nNumUVW, kMaxUVSets);
  if (uvSets > 0 && (mesh.psUVW == nullptr || mesh.nUVWCount < uvSets))
    return "texture-coordinate descriptors missing";
  for (uint32_t k = 0; k < uvSets; ++k)
    if (!IsPackedFloatStream(mesh.psUVW[k], 2, nv))
      return "texture coordinates are not 2 floats a vertex";

  const CPODData& faces = mesh.sFaces;
  if (mesh.nNumFaces > static_cast<uint32_t>(INT32_MAX) / 3) return "too many triangles";
  const size_t corners = static_cast<size_t>(mesh.nNumFaces) * 3;
  if (faces.eType != EPODDataUInt16 || faces.nStride != 2) return "indices are not 16-bit";
  if (faces.nDataSize / 2 < corners || (corners > 0 && faces.pData == nullptr))
    return "index stream shorter than its triangles";
  for (size_t c = 0; c < corners; ++c) {
    uint16_t i;
    std::memcpy(&i, faces.pData + 2 * c, 2);
    if (i >= nv) return "an index is out of range";
  }

  if (mesh.sBoneBatches.nBatchCnt > 0) {
    const CPODData& idx = mesh.sBoneIdx;
    const CPODData& weights = mesh.sBoneWeight;
    if (idx.n > kMaxBonesPerVertex || weights.n > kMaxBonesPerVertex)
      return "too many bones a vertex";
    // One weight is copied per bone index.
    if (weights.n < idx.n) return "fewer bone weights than bone indices";
    if (!HoldsPackedElements(idx, idx.n, nv) || !HoldsPackedElements(weights, weights.n * 4, nv))
      return "bone streams are not packed or shorter than their vertices";
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
  // Equal floats must hash alike, and +0.0 equals -0.0.
  if (f == 0.0f) return 0;
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

// Kept vertices grouped by the components that must compare equal (the position, and in exact
// mode the texture coordinates when they take part). Each group lists its kept vertices in list
// order, so the first match of the full scan is the first match in the group.
class KeptVertexIndex {
 public:
  // Empties the index for a mesh of at most maxGroups groups, keeping the memory it had.
  void reset(size_t maxGroups, uint32_t uvSetsInKey) {
    m_uvSetsInKey = uvSetsInKey;
    size_t capacity = 16;
    while (capacity < 2 * maxGroups) capacity *= 2;
    m_slots.assign(capacity, Slot{0, -1});
    m_mask = capacity - 1;
    m_next.clear();
    m_tail.clear();
    m_length.clear();
  }

  // The slot of the group of `c`: an occupied one if the group exists, else where it goes.
  // kept(e) gives the components of kept vertex e.
  template <typename Kept>
  size_t find(const Corner& c, const Kept& kept, uint32_t& hash) const {
    hash = hashOf(c);
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
  void registerUngrouped() { registerEntry(); }

  void append(size_t slot, uint32_t hash, int32_t entry) {
    registerEntry();
    Slot& s = m_slots[slot];
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

  uint32_t hashOf(const Corner& c) const {
    uint64_t h = 0x9E3779B97F4A7C15ull;
    auto mix = [&h](float f) {
      h = (h ^ FloatKeyBits(f)) * 0xFF51AFD7ED558CCDull;
      h ^= h >> 29;
    };
    for (float f : c.position) mix(f);
    for (uint32_t k = 0; k < m_uvSetsInKey; ++k) {
      mix(c.u[k]);
      mix(c.v[k]);
    }
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 32;
    return static_cast<uint32_t>(h);
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
  std::vector<int32_t> resolved;
  std::vector<uint16_t> newFaces;
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
bool CanMatch(const Corner& c, uint32_t uvSetsCompared, bool nearly) {
  for (float f : c.position)
    if (std::isnan(f)) return false;
  for (uint32_t k = 0; k < uvSetsCompared; ++k) {
    const bool ok = nearly ? std::isfinite(c.u[k]) && std::isfinite(c.v[k])
                           : !std::isnan(c.u[k]) && !std::isnan(c.v[k]);
    if (!ok) return false;
  }
  return true;
}

void* AllocZeroed(size_t bytes) {
  // Never null on success, even for an empty mesh: a present stream stays present.
  return std::calloc(bytes > 0 ? bytes : 1, 1);
}

void Install(CPODData& d, void* data, size_t bytes) {
  // A borrowed array belongs to the scene's source file: only the pointer goes.
  if (!d.bBorrowed) std::free(d.pData);
  d.pData = static_cast<uint8_t*>(data);
  d.bBorrowed = false;
  d.nDataSize = bytes;
}

// Reduces the mesh; null when done, otherwise why the mesh was left as it is.
const char* ReduceMesh(SPODNode* node, SPODMesh* mesh, bool useUV, bool nearly,
                       ReductionScratch& scratch) {
  if (mesh == nullptr) return "no mesh";
  if (const char* why = WhyNotReducible(*mesh)) return why;
  if (mesh->nNumUVW > kMaxUVSets) {
    mesh->nNumUVW = kMaxUVSets;
    std::printf("Error1: Number of UVW > 2, \"%s\"\n", NodeName(node));
  }

  const uint32_t uvSets = mesh->nNumUVW;
  const uint32_t uvSetsCompared = useUV ? uvSets : 0;
  const bool skinned = mesh->sBoneBatches.nBatchCnt > 0;
  const uint32_t bonesPerVertex = skinned ? mesh->sBoneIdx.n : 0;
  const size_t corners = static_cast<size_t>(mesh->nNumFaces) * 3;
  const size_t addressable = std::min<size_t>(mesh->nNumVertex, kAddressableVertices);

  const uint8_t* positions = mesh->sVertex.pData;
  const uint8_t* normals = mesh->sNormals.pData;

  std::vector<buffer>& entries = scratch.entries;
  entries.clear();
  entries.reserve(std::min(corners, addressable));
  KeptVertexIndex& index = scratch.index;
  index.reset(addressable, nearly ? 0 : uvSetsCompared);
  NearCells cells(nearly ? index.capacity() : 0, uvSetsCompared);
  // An old vertex resolves to the same kept vertex at every corner that uses it: kept vertices
  // are only ever appended and never change what they compare on, so the ones the first scan
  // passed over still fail and the one it stopped at still matches.
  std::vector<int32_t>& resolved = scratch.resolved;
  resolved.assign(addressable, kUnseen);
  std::vector<uint16_t>& newFaces = scratch.newFaces;
  newFaces.resize(corners);  // every element is written below

  auto cornerOf = [&](uint32_t i) {
    Corner c{};
    for (int a = 0; a < 3; ++a) c.position[a] = LoadFloat(positions + 12 * size_t{i} + 4 * a);
    for (uint32_t k = 0; k < uvSets; ++k) {
      c.u[k] = LoadFloat(mesh->psUVW[k].pData + 8 * size_t{i});
      c.v[k] = LoadFloat(mesh->psUVW[k].pData + 8 * size_t{i} + 4);
    }
    return c;
  };
  auto kept = [&](int32_t e) { return cornerOf(entries[static_cast<size_t>(e)].source); };
  auto appendKept = [&](uint32_t i) {
    entries.push_back(buffer{i, i});
    return static_cast<int32_t>(entries.size() - 1);
  };

  for (size_t f = 0; f < corners; ++f) {
    uint16_t i;
    std::memcpy(&i, mesh->sFaces.pData + 2 * f, 2);
    int32_t entry = resolved[i];
    if (entry < 0) {
      const Corner c = cornerOf(i);
      if (entry == kNeverMatches || !CanMatch(c, uvSetsCompared, nearly)) {
        entry = appendKept(i);
        index.registerUngrouped();
        resolved[i] = kNeverMatches;
      } else {
        uint32_t hash;
        const size_t slot = index.find(c, kept, hash);
        const bool nearUV = nearly && uvSetsCompared > 0;
        entry = index.head(slot);
        if (nearUV && cells.covers(slot)) {
          entry = cells.firstMatch(slot, c, kept);
        } else if (nearUV) {
          while (entry >= 0 && !UVsNear(kept(entry), c, uvSetsCompared)) entry = index.next(entry);
        }
        if (entry < 0) {
          entry = appendKept(i);
          index.append(slot, hash, entry);
          if (nearUV && cells.covers(slot)) {
            cells.add(slot, entry, c);
          } else if (nearUV && index.length(slot) >= kLongGroup) {
            for (int32_t e = index.head(slot); e >= 0; e = index.next(e)) cells.add(slot, e, kept(e));
          }
        }
        resolved[i] = entry;
      }
    }
    entries[static_cast<size_t>(entry)].normalFrom = i;
    newFaces[f] = static_cast<uint16_t>(entry);  // wraps above 65,535 by design
  }

  // Allocate everything before changing anything, so a failed allocation leaves the mesh whole.
  const size_t n = entries.size();
  const uint32_t weightsPerVertex = skinned ? mesh->sBoneWeight.n : 0;
  const size_t boneIdxBytes = n * bonesPerVertex;
  const size_t boneWeightBytes = n * weightsPerVertex * 4;
  float* newPositions = static_cast<float*>(AllocZeroed(n * 12));
  float* newNormals = static_cast<float*>(AllocZeroed(n * 12));
  float* newUVs[kMaxUVSets] = {};
  for (uint32_t k = 0; k < uvSets; ++k) newUVs[k] = static_cast<float*>(AllocZeroed(n * 8));
  // The weight array keeps its stride of sBoneWeight.n floats but is filled with one weight per
  // bone index; the rest is zero rather than left undefined.
  uint8_t* newBoneIdx = skinned ? static_cast<uint8_t*>(AllocZeroed(boneIdxBytes)) : nullptr;
  float* newBoneWeights = skinned ? static_cast<float*>(AllocZeroed(boneWeightBytes)) : nullptr;
  bool allocated = newPositions != nullptr && newNormals != nullptr;
  for (uint32_t k = 0; k < uvSets; ++k) allocated = allocated && newUVs[k] != nullptr;
  if (skinned) allocated = allocated && newBoneIdx != nullptr && newBoneWeights != nullptr;
  if (!allocated) {
    std::free(newPositions);
    std::free(newNormals);
    for (float* uv : newUVs) std::free(uv);
    std::free(newBoneIdx);
    std::free(newBoneWeights);
    return "out of memory";
  }

  const CPODData& boneIdx = mesh->sBoneIdx;
  const CPODData& boneWeights = mesh->sBoneWeight;
  for (size_t e = 0; e < n; ++e) {
    const size_t i = entries[e].source;
    std::memcpy(newPositions + 3 * e, positions + 12 * i, 12);
    std::memcpy(newNormals + 3 * e, normals + 12 * size_t{entries[e].normalFrom}, 12);
    for (uint32_t k = 0; k < uvSets; ++k) std::memcpy(newUVs[k] + 2 * e, mesh->psUVW[k].pData + 8 * i, 8);
    // Bones: as many indices and weights as the vertex has bone indices, one after the other.
    for (uint32_t j = 0; j < bonesPerVertex; ++j) {
      newBoneIdx[e * bonesPerVertex + j] = boneIdx.pData[size_t{boneIdx.nStride} * i + j];
      std::memcpy(newBoneWeights + e * bonesPerVertex + j,
                  boneWeights.pData + size_t{boneWeights.nStride} * i + 4 * j, 4);
    }
  }

  if (corners > 0) std::memcpy(mesh->sFaces.pData, newFaces.data(), 2 * corners);
  Install(mesh->sVertex, newPositions, n * 12);
  for (uint32_t k = 0; k < uvSets; ++k) Install(mesh->psUVW[k], newUVs[k], n * 8);
  Install(mesh->sNormals, newNormals, n * 12);
  mesh->nNumVertex = static_cast<uint32_t>(n);
  if (skinned) {
    Install(mesh->sBoneIdx, newBoneIdx, boneIdxBytes);
    Install(mesh->sBoneWeight, newBoneWeights, boneWeightBytes);
  }
  return nullptr;
}

// Standard output is the tool's exact output, so a mesh left alone is noted on standard error.
void NoteUnreduced(const SPODNode* node, const char* why) {
  std::fprintf(stderr, "Note: vertices of \"%s\" not reduced: %s\n", NodeName(node), why);
}

}  // namespace

void reduceVertex(SPODNode* node, SPODMesh* mesh, bool useUV, bool nearly) {
  ReductionScratch scratch;
  ReduceMesh(node, mesh, useUV, nearly, scratch);
}

void reduceMeshVertex(SPODScene* scene, bool nearly) {
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
  ReductionScratch scratch;
  for (uint32_t k = 0; k < meshNodes; ++k) {
    SPODNode* node = &scene->pNode[k];
    KX_ASSERT(node->nIdx != -1, "main");
    if (node->nIdx < 0 || static_cast<uint32_t>(node->nIdx) >= scene->nNumMesh ||
        scene->pMesh == nullptr) {
      NoteUnreduced(node, "no such mesh");
      continue;
    }
    SPODMesh* mesh = &scene->pMesh[node->nIdx];
    before += mesh->nNumVertex;
    if (const char* why = ReduceMesh(node, mesh, node->nIdxMaterial >= 0, nearly, scratch))
      NoteUnreduced(node, why);
    after += mesh->nNumVertex;
  }
  std::printf("Total vertex before reduction: %d\n", static_cast<int32_t>(before));
  std::printf("Total vertex after reduction: %d\n", static_cast<int32_t>(after));
  std::printf("Difference: %d\n", static_cast<int32_t>(before - after));
}
