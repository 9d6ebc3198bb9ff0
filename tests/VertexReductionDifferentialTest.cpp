// The fast reduction against the plain first-match scan on random scenes built to hit what decides
// the result (repeated positions, near coordinates, signed zeros, NaN, bones, shared meshes,
// streams shorter than the vertex count).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "pod/PODWeldGatherAhead.h"
#include "support/ReferenceReduction.h"
#include "support/ReductionMeshes.h"
#include "edit/VertexReduction.h"

namespace {

using namespace reduction_test;

class SceneGenerator {
 public:
  // `shortStreams`: the meshes nodes use get streams anywhere between what their indices reach
  // and their full length, and a vertex count that need not match either.
  explicit SceneGenerator(unsigned seed, bool shortStreams = false)
      : m_rng(seed), m_shortStreams(shortStreams) {}

  SPODScene scene() {
    std::vector<MeshData> data;
    const int meshCount = number(1, 3);
    for (int k = 0; k < meshCount; ++k) data.push_back(mesh());
    std::vector<NodeSpec> nodes;
    const int nodeCount = number(1, 4);
    for (int k = 0; k < nodeCount; ++k)
      nodes.push_back({number(0, meshCount - 1), chance(50) ? number(0, 2) : number(-2, -1),
                       "node" + std::to_string(k)});
    std::vector<SPODMesh> meshes;
    for (int k = 0; k < meshCount; ++k) {
      // A mesh no node uses is not welded, and its count must still describe its streams.
      const bool used = std::any_of(nodes.begin(), nodes.end(), [k](const NodeSpec& n) { return n.mesh == k; });
      const bool cut = m_shortStreams && used;
      const uint32_t count = cut ? shorten(data[size_t(k)]) : 0;
      meshes.push_back(MakeMesh(data[size_t(k)]));
      if (cut) meshes.back().nNumVertex = count;
    }
    return MakeScene(meshes, nodes);
  }

 private:
  int number(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(m_rng); }
  bool chance(int percent) { return number(1, 100) <= percent; }

  float special(float usual) {
    if (chance(2)) return std::numeric_limits<float>::quiet_NaN();
    if (chance(1)) return -std::numeric_limits<float>::infinity();
    return usual;
  }

  // Few distinct values, so that positions repeat; signed zeros compare equal.
  float positionComponent() {
    static const float pool[] = {0.0f, -0.0f, 1.0f, 2.5f};
    return special(pool[number(0, 3)]);
  }

  // Coordinates on a chain 0.0009 apart (neighbours merge nearly, the ends do not), a value
  // 0.0011 away, a few unrelated ones, or anywhere in a band 0.02 wide on a 0.0001 grid (many
  // near-distinct values around one position, at every offset from the 0.002 steps).
  float textureComponent() {
    static const float pool[] = {0.5f, 0.5009f, 0.5018f, 0.5027f, 0.5011f, 0.4989f, 0.0f, -0.0f, 0.25f};
    if (chance(40)) return special(0.49f + 0.0001f * float(number(0, 200)));
    return special(pool[number(0, 8)]);
  }

  MeshData mesh() {
    MeshData m;
    const bool large = chance(3);
    const int vertices = large ? number(200, 1500) : number(1, 40);
    const int positionsPool = large ? vertices / 2 : number(1, 6);
    std::vector<float> pool;
    for (int k = 0; k < 3 * positionsPool; ++k) pool.push_back(large ? float(number(0, 20)) : positionComponent());
    for (int v = 0; v < vertices; ++v) {
      const int p = number(0, positionsPool - 1);
      m.positions.insert(m.positions.end(), pool.begin() + 3 * p, pool.begin() + 3 * p + 3);
      for (int a = 0; a < 3; ++a) m.normals.push_back(float(number(-1000, 1000)));
    }
    m.uvs.resize(number(0, 3));
    for (auto& set : m.uvs)
      for (int k = 0; k < 2 * vertices; ++k) set.push_back(textureComponent());
    const int corners = 3 * (large ? number(vertices / 2, 2 * vertices) : number(0, 30));
    for (int c = 0; c < corners; ++c) m.faces.push_back(uint16_t(number(0, vertices - 1)));
    if (chance(30)) {
      m.boneIdxN = uint32_t(number(0, 4));
      m.boneWeightN = m.boneIdxN + uint32_t(number(0, 2));
      for (uint32_t k = 0; k < vertices * m.boneIdxN; ++k) m.boneIdx.push_back(uint8_t(number(0, 255)));
      for (uint32_t k = 0; k < vertices * m.boneWeightN; ++k) m.boneWeights.push_back(float(number(0, 100)) / 100);
    }
    return m;
  }

  // Cuts every stream to between the vertices the indices reach and its full length (texture sets
  // past the second, never read, anywhere down to nothing); returns a vertex count below, between
  // or above those lengths.
  uint32_t shorten(MeshData& m) {
    const int full = int(m.positions.size() / 3);
    const int reach = m.faces.empty() ? 0 : *std::max_element(m.faces.begin(), m.faces.end()) + 1;
    auto cut = [&](auto& values, size_t width, int least) { values.resize(width * size_t(number(least, full))); };
    cut(m.positions, 3, reach);
    cut(m.normals, 3, reach);
    for (size_t k = 0; k < m.uvs.size(); ++k) cut(m.uvs[k], 2, k < 2 ? reach : 0);
    cut(m.boneIdx, m.boneIdxN, reach);
    cut(m.boneWeights, m.boneWeightN, reach);
    return uint32_t(number(0, full + 40));
  }

  std::mt19937 m_rng;
  bool m_shortStreams;
};

std::string Bytes(const CPODData& d) {
  if (d.pData == nullptr) return "<absent>";
  return std::string(reinterpret_cast<const char*>(d.pData), d.nDataSize);
}

void ExpectSameMesh(const SPODMesh& fast, const SPODMesh& plain, const std::string& where) {
  EXPECT_EQ(fast.nNumVertex, plain.nNumVertex) << where;
  ASSERT_EQ(fast.nNumUVW, plain.nNumUVW) << where;
  EXPECT_EQ(Bytes(fast.sFaces), Bytes(plain.sFaces)) << where;
  EXPECT_EQ(Bytes(fast.sVertex), Bytes(plain.sVertex)) << where;
  EXPECT_EQ(Bytes(fast.sNormals), Bytes(plain.sNormals)) << where;
  EXPECT_EQ(Bytes(fast.sBoneIdx), Bytes(plain.sBoneIdx)) << where;
  EXPECT_EQ(Bytes(fast.sBoneWeight), Bytes(plain.sBoneWeight)) << where;
  for (size_t k = 0; k < fast.nUVWCount; ++k) EXPECT_EQ(Bytes(fast.psUVW[k]), Bytes(plain.psUVW[k])) << where;
}

// What `reduce` prints while it reduces `scene`.
std::string Printed(void (*reduce)(SPODScene*, bool), SPODScene& scene, bool nearly) {
  testing::internal::CaptureStdout();
  reduce(&scene, nearly);
  return testing::internal::GetCapturedStdout();
}

// Reduces a copy of `scene` with the fast reduction and one with the plain scan and compares the
// printed lines and every mesh.
void ExpectSameAsPlainScan(const SPODScene& scene, bool nearly, const std::string& where) {
  SPODScene fast = CopyScene(scene);
  SPODScene plain = CopyScene(scene);
  const std::string fastOut = Printed(reduceMeshVertex, fast, nearly);
  EXPECT_EQ(fastOut, Printed(reference_reduction::ReduceMeshVertex, plain, nearly)) << where;
  for (uint32_t k = 0; k < fast.nNumMesh; ++k) ExpectSameMesh(fast.pMesh[k], plain.pMesh[k], where);
  FreeScene(fast);
  FreeScene(plain);
}

TEST(VertexReductionDifferential, MatchesTheFirstMatchScanOnRandomScenes) {
  for (unsigned seed = 1; seed <= 1200 && !HasFailure(); ++seed) {
    SPODScene scene = SceneGenerator(seed).scene();
    ExpectSameAsPlainScan(scene, seed % 2 == 0, "seed " + std::to_string(seed));
    FreeScene(scene);
  }
}

// Streams shorter than the vertex count, and indices past it, that every stream read still holds.
TEST(VertexReductionDifferential, MatchesTheFirstMatchScanWithStreamsCutToWhatTheIndicesReach) {
  for (unsigned seed = 1; seed <= 1200 && !HasFailure(); ++seed) {
    SPODScene scene = SceneGenerator(seed, true).scene();
    ExpectSameAsPlainScan(scene, seed % 2 == 0, "seed " + std::to_string(seed));
    FreeScene(scene);
  }
}

// The file WritePOD makes of a scene, welded as `plan` says.
std::string Saved(const SPODScene& scene, const PODWeldPlan& plan = PODWeldPlan()) {
  FILE* f = std::tmpfile();
  if (f == nullptr) return "<no temporary file>";
  std::string bytes = WritePOD(f, nullptr, scene, plan) ? "" : "<write refused>";
  std::rewind(f);
  char chunk[4096];
  for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, f)) > 0;) bytes.append(chunk, got);
  std::fclose(f);
  return bytes;
}

// Reduces a copy of `scene` each way, saves both and compares; true if a mesh was rebuilt on save.
bool ExpectSameSave(const SPODScene& scene, bool nearly, const std::string& where) {
  SPODScene now = CopyScene(scene);
  SPODScene onSave = CopyScene(scene);
  const std::string nowOut = Printed(reduceMeshVertex, now, nearly);
  PODWeldPlan plan;
  testing::internal::CaptureStdout();
  plan = reduceMeshVertexForSave(&onSave, nearly);
  EXPECT_EQ(nowOut, testing::internal::GetCapturedStdout()) << where;
  const bool deferred = !plan.empty();
  const std::string nowFile = Saved(now);
  EXPECT_NE(nowFile.substr(0, 1), "<") << where << ": " << nowFile;
  EXPECT_TRUE(nowFile == Saved(onSave, plan)) << where << (deferred ? " (rebuilt on save)" : "");
  FreeScene(now);
  FreeScene(onSave);
  return deferred;
}

// Streams rebuilt only while saving give the file that streams rebuilt at once give.
TEST(VertexReductionDifferential, RebuildingOnSaveWritesTheSameFile) {
  unsigned deferredScenes = 0;
  for (unsigned seed = 1; seed <= 1200 && !HasFailure(); ++seed) {
    SPODScene scene = SceneGenerator(seed).scene();
    deferredScenes += ExpectSameSave(scene, seed % 2 == 0, "seed " + std::to_string(seed));
    FreeScene(scene);
  }
  // Most scenes have a mesh the reduction handles, so most saves above went through the rebuild.
  EXPECT_GT(deferredScenes, 900u);
}

TEST(VertexReductionDifferential, RebuildingOnSaveWritesTheSameFileWithStreamsCutToWhatTheIndicesReach) {
  unsigned deferredScenes = 0;
  for (unsigned seed = 1; seed <= 1200 && !HasFailure(); ++seed) {
    SPODScene scene = SceneGenerator(seed, true).scene();
    deferredScenes += ExpectSameSave(scene, seed % 2 == 0, "seed " + std::to_string(seed));
    FreeScene(scene);
  }
  EXPECT_GT(deferredScenes, 900u);
}

// Texture coordinates where the near comparison is decided by its last bit: on the edges and at
// the middles of the 0.002 cells the search is organised in (multiples of 0.002 and 0.001, and
// 0.125 and -0.875, which are exactly the middle of one), one
// float either side of them, pairs exactly 0.001 apart as floats, either side of 2^20 (beyond
// which only equal values are near), huge, tiny and signed-zero values, and non-finite ones.
std::vector<float> BoundaryCoordinates() {
  std::vector<float> bases = {0.0f,   -0.0f,    0.001f,  0.002f, -0.001f, -0.002f, 0.003f,   0.5f,
                              0.501f, 0.499f,   0.5005f, 1.0f,   -1.0f,   0.999f,  0.0009999f, 1e-40f,
                              2.0e-3f * 3.0f,   1048575.9375f, 1048576.0f, 1048576.125f, -1048576.0f,
                              524287.999f, 1e30f, 0.125f, -0.875f};
  std::vector<float> pool;
  for (float b : bases) {
    for (float x : {b, std::nextafter(b, 2e30f), std::nextafter(b, -2e30f), b + 0.001f, b - 0.001f,
                    b + 0.0009999f, b + 0.0010001f})
      pool.push_back(x);
  }
  // Within 0.001 of each other in double, not as a float difference.
  pool.insert(pool.end(), {6.3e-06f, -0.0009937f});
  pool.push_back(std::numeric_limits<float>::infinity());
  pool.push_back(std::numeric_limits<float>::quiet_NaN());
  return pool;
}

// Meshes whose vertices mostly share one or two positions, with coordinates drawn from the
// boundary values: long position groups, searched by cells, in one and two texture sets.
SPODScene BoundaryScene(unsigned seed) {
  static const std::vector<float> pool = BoundaryCoordinates();
  std::mt19937 rng(seed);
  auto number = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  MeshData m;
  const int vertices = number(20, 300);
  m.uvs.resize(size_t(number(1, 2)));
  for (int v = 0; v < vertices; ++v) {
    const float p = number(0, 9) == 0 ? 1.0f : 0.0f;
    m.positions.insert(m.positions.end(), {p, -0.0f, 0.0f});
    m.normals.insert(m.normals.end(), {float(v), 0, 1});
    for (auto& set : m.uvs) {
      // Mostly one coordinate of a set from the pool and the other on a short run, so that many
      // vertices differ in one coordinate only.
      set.push_back(pool[size_t(number(0, int(pool.size()) - 1))]);
      set.push_back(number(0, 2) == 0 ? pool[size_t(number(0, int(pool.size()) - 1))] : 0.25f);
    }
  }
  const int corners = 3 * number(vertices / 2, 2 * vertices);
  for (int c = 0; c < corners; ++c) m.faces.push_back(uint16_t(number(0, vertices - 1)));
  return MakeScene({MakeMesh(m)}, {{0, 0, "boundary"}});
}

TEST(VertexReductionDifferential, NearMatchesTheFirstMatchScanAtCellBoundaries) {
  for (unsigned seed = 1; seed <= 400 && !HasFailure(); ++seed) {
    SPODScene scene = BoundaryScene(seed);
    ExpectSameAsPlainScan(scene, true, "seed " + std::to_string(seed));
    FreeScene(scene);
  }
}

// Every pair of boundary coordinates, each kept vertex in a group long enough to be searched by
// cells: the kept vertices are the pool's values, then each value again in both orders.
TEST(VertexReductionDifferential, NearMatchesTheFirstMatchScanForEveryPairOfBoundaryValues) {
  const std::vector<float> pool = BoundaryCoordinates();
  MeshData m;
  m.uvs.resize(1);
  for (size_t a = 0; a < pool.size(); ++a) {
    for (size_t b = 0; b < pool.size(); ++b) {
      for (float u : {pool[a], pool[b]}) {
        m.positions.insert(m.positions.end(), {0, 0, 0});
        m.normals.insert(m.normals.end(), {float(a), float(b), 1});
        m.uvs[0].insert(m.uvs[0].end(), {u, 0.5f});
      }
    }
  }
  // Corners in stream order, then the pairs again reversed.
  const size_t vertices = m.positions.size() / 3;
  ASSERT_LT(vertices, 65536u);
  for (size_t v = 0; v < vertices; ++v) m.faces.push_back(uint16_t(v));
  for (size_t v = vertices; v-- > 0;) m.faces.push_back(uint16_t(v));
  while (m.faces.size() % 3 != 0) m.faces.push_back(0);
  SPODScene scene = MakeScene({MakeMesh(m)}, {{0, 0, "pairs"}});
  ExpectSameAsPlainScan(scene, true, "pairs");
  EXPECT_TRUE(ExpectSameSave(scene, true, "pairs"));
  FreeScene(scene);
}

// Eight vertices of which the triangles use the first six: repeated positions, coordinates that
// merge only nearly (old 2 into 0) or only in set 0 (old 5), and two bones a vertex with three
// weights. Each stream is cut to the vertices given; the vertex count is set on its own.
struct ShortStreams {
  const char* name;
  uint32_t count;
  int positions, normals, uv0, uv1, boneIdx, boneWeights;
  bool skinned;
  const char* note;  // why the mesh is left alone, null when it is welded
};

SPODScene ShortStreamScene(const ShortStreams& c, int32_t material) {
  MeshData m;
  m.positions = {0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 9, 9, 9, 9, 9, 9};
  m.uvs = {{0.5f, 0.5f, 0, 0, 0.5009f, 0.5f, 0.25f, 0, 1, 1, 0.5f, 0.5f, 7, 7, 7, 7},
           {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.0005f, 0, 0, 0, 0}};
  for (int v = 0; v < 8; ++v) {
    m.normals.insert(m.normals.end(), {float(v), 0, 1});
    m.boneIdx.insert(m.boneIdx.end(), {uint8_t(v), uint8_t(10 + v)});
    m.boneWeights.insert(m.boneWeights.end(), {0.1f * float(v), 0.2f, 0.3f});
  }
  m.faces = {0, 1, 4, 2, 3, 4, 5, 1, 0, 3, 5, 2};
  m.positions.resize(3 * size_t(c.positions));
  m.normals.resize(3 * size_t(c.normals));
  m.uvs[0].resize(2 * size_t(c.uv0));
  m.uvs[1].resize(2 * size_t(c.uv1));
  if (c.skinned) {
    m.boneIdxN = 2;
    m.boneWeightN = 3;
    m.boneIdx.resize(2 * size_t(c.boneIdx));
    m.boneWeights.resize(3 * size_t(c.boneWeights));
  }
  SPODMesh mesh = MakeMesh(m);
  mesh.nNumVertex = c.count;
  return MakeScene({mesh}, {{0, material, "short"}});
}

const ShortStreams kShortStreams[] = {
    {"positions shorter than the count", 8, 6, 8, 8, 8, 8, 8, true, nullptr},
    {"normals shorter than the count", 8, 8, 6, 8, 8, 8, 8, true, nullptr},
    {"texture coordinates shorter than the count", 8, 8, 8, 6, 7, 8, 8, true, nullptr},
    {"bone streams shorter than the count", 8, 8, 8, 8, 8, 6, 7, true, nullptr},
    {"every stream as long as the indices reach", 8, 6, 6, 6, 6, 6, 6, true, nullptr},
    {"indices past the count", 4, 8, 8, 8, 8, 8, 8, true, nullptr},
    {"indices past the count, streams as long as they reach", 2, 6, 6, 6, 6, 6, 6, true, nullptr},
    {"no vertex count", 0, 6, 7, 6, 6, 6, 6, true, nullptr},
    {"unskinned, streams as long as the indices reach", 8, 6, 6, 6, 6, 0, 0, false, nullptr},
    {"positions short of an index", 8, 5, 8, 8, 8, 8, 8, true, "an index lies beyond the positions"},
    {"normals short of an index", 4, 8, 5, 8, 8, 8, 8, true, "an index lies beyond the normals"},
    {"first texture set short of an index", 8, 6, 6, 5, 6, 6, 6, true,
     "an index lies beyond the texture coordinates"},
    {"second texture set short of an index", 3, 8, 8, 8, 5, 8, 8, true,
     "an index lies beyond the texture coordinates"},
    {"bone indices short of an index", 8, 8, 8, 8, 8, 5, 8, true, "an index lies beyond the bone streams"},
    {"bone weights short of an index", 4, 6, 6, 6, 6, 6, 5, true, "an index lies beyond the bone streams"},
};

// Both ways of rebuilding, in both modes, with and without material: a mesh whose streams hold
// every vertex its triangles use is welded as the plain scan welds it and saved alike; one with a
// stream short of an index is left exactly as it is, counted unchanged and noted.
TEST(VertexReductionDifferential, StreamsShorterThanTheCountAreWeldedWhenTheyHoldEveryIndexUsed) {
  for (const ShortStreams& c : kShortStreams) {
    for (int mode = 0; mode < 4; ++mode) {
      const bool nearly = mode & 1;
      const int32_t material = mode & 2 ? 0 : -1;
      const std::string where =
          std::string(c.name) + (nearly ? ", near" : ", exact") + (material >= 0 ? ", material" : "");
      SCOPED_TRACE(where);
      SPODScene scene = ShortStreamScene(c, material);
      if (c.note == nullptr) {
        ExpectSameAsPlainScan(scene, nearly, where);
        EXPECT_TRUE(ExpectSameSave(scene, nearly, where));
        FreeScene(scene);
        continue;
      }
      const int count = int(c.count);
      const std::string lines = std::string("Reducing vertex number with vertex have ") +
                                (nearly ? "NEARLY same" : "SAME") + " UV...Total vertex before reduction: " +
                                std::to_string(count) + "\nTotal vertex after reduction: " +
                                std::to_string(count) + "\nDifference: 0\n";
      for (bool forSave : {false, true}) {
        SPODScene copy = CopyScene(scene);
        PODWeldPlan plan;
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        if (forSave)
          plan = reduceMeshVertexForSave(&copy, nearly);
        else
          reduceMeshVertex(&copy, nearly);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), lines);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Note: vertices of \"short\" not reduced: " + std::string(c.note) + "\n");
        const SPODMesh& after = copy.pMesh[0];
        EXPECT_TRUE(plan.empty());
        EXPECT_EQ(after.nNumVertex, c.count);
        const SPODMesh& before = scene.pMesh[0];
        for (auto stream : {&SPODMesh::sFaces, &SPODMesh::sVertex, &SPODMesh::sNormals, &SPODMesh::sBoneIdx,
                            &SPODMesh::sBoneWeight})
          EXPECT_EQ(Bytes(after.*stream), Bytes(before.*stream));
        for (size_t k = 0; k < 2; ++k) EXPECT_EQ(Bytes(after.psUVW[k]), Bytes(before.psUVW[k]));
        FreeScene(copy);
      }
      FreeScene(scene);
    }
  }
}

// A grid of side x side vertices, skinned, in which every seventh vertex repeats its left
// neighbour's position and coordinates; `uvSets` texture-coordinate sets.
MeshData Grid(int side, size_t uvSets, unsigned seed) {
  MeshData m;
  std::mt19937 rng(seed);
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      const int px = x % 7 == 6 ? x - 1 : x;
      m.positions.insert(m.positions.end(), {float(px), float(y), 0.0f});
      m.normals.insert(m.normals.end(), {float(rng() % 100), 0.0f, 1.0f});
      for (int k = 0; k < 3; ++k) m.boneIdx.push_back(uint8_t(rng() % 60));
      for (int k = 0; k < 5; ++k) m.boneWeights.push_back(float(rng() % 100) / 100);
    }
  }
  m.uvs.assign(uvSets, {});
  for (int v = 0; v < side * side; ++v) {
    const int x = v % side % 7 == 6 ? v - 1 : v;
    for (size_t k = 0; k < uvSets; ++k)
      m.uvs[k].insert(m.uvs[k].end(), k == 0 ? std::initializer_list<float>{float(x % side), float(x / side)}
                                             : std::initializer_list<float>{0.5f, float(x % 3)});
  }
  m.boneIdxN = 3;
  m.boneWeightN = 5;
  for (int y = 0; y + 1 < side; ++y) {
    for (int x = 0; x + 1 < side; ++x) {
      const uint16_t a = uint16_t(y * side + x), b = uint16_t(a + 1), c = uint16_t(a + side), d = uint16_t(c + 1);
      m.faces.insert(m.faces.end(), {a, b, c, b, d, c});
    }
  }
  return m;
}

// Streams far larger than the slices they are written in (element sizes that do not divide the
// slice), skinned, with two texture-coordinate sets and a NaN position (kept vertex per corner).
TEST(VertexReductionDifferential, RebuildingOnSaveWritesLargeStreamsWhole) {
  MeshData m = Grid(200, 2, 7);
  SPODScene clean = MakeScene({MakeMesh(m)}, {{0, 0, "grid"}});
  EXPECT_TRUE(ExpectSameSave(clean, false, "grid"));
  EXPECT_TRUE(ExpectSameSave(clean, true, "grid, near"));
  m.positions[3 * 1234] = std::numeric_limits<float>::quiet_NaN();
  SPODScene withNaN = MakeScene({MakeMesh(m)}, {{0, -1, "grid"}});
  EXPECT_TRUE(ExpectSameSave(withNaN, false, "grid with NaN"));
  FreeScene(clean);
  FreeScene(withNaN);
}

// A scene large enough that its meshes are welded on two cores ahead of the reduction's loop,
// and their rebuilt streams (5.5 MB) gathered on a second core while it is saved, is saved as one
// node at a time, in node order, leaves it: a mesh with three texture-coordinate sets (cut to two,
// with its line) shared by two nodes (welded again by the second), one with a NaN position, one
// without a material, one left alone.
TEST(VertexReductionDifferential, WeldsMadeAheadOnTwoCoresAreThoseOfOneNodeAtATime) {
  MeshData withNaN = Grid(170, 1, 3);
  withNaN.positions[3 * 777] = std::numeric_limits<float>::quiet_NaN();
  SPODMesh unweldable = MakeMesh(Grid(20, 1, 4));
  unweldable.sNormals.eType = EPODDataInt32;
  SPODScene scene = MakeScene(
      {MakeMesh(Grid(170, 2, 1)), MakeMesh(Grid(170, 3, 2)), MakeMesh(withNaN), unweldable},
      {{1, 0, "three sets"}, {0, -1, "no material"}, {2, 0, "with NaN"}, {3, 0, "left alone"}, {1, 0, "shared"}});
  for (bool nearly : {false, true}) {
    SCOPED_TRACE(nearly ? "near" : "exact");
    SPODScene onSave = CopyScene(scene);
    SPODScene byNode = CopyScene(scene);
    testing::internal::CaptureStdout();
    const PODWeldPlan plan = reduceMeshVertexForSave(&onSave, nearly);
    const std::string printed = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    for (uint32_t k = 0; k < byNode.nNumNode; ++k) {
      SPODNode& node = byNode.pNode[k];
      reduceVertex(&node, &byNode.pMesh[node.nIdx], node.nIdxMaterial >= 0, nearly);
    }
    const std::string printedByNode = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printedByNode, "Error1: Number of UVW > 2, \"three sets\"\n");
    EXPECT_NE(printed.find("UV..." + printedByNode + "Total vertex before reduction: "), std::string::npos)
        << printed;
    const std::string saved = Saved(byNode);
    EXPECT_NE(saved.substr(0, 1), "<") << saved.substr(0, 40);
    EXPECT_TRUE(saved == Saved(onSave, plan));
    EXPECT_LT(byNode.pMesh[0].nNumVertex, scene.pMesh[0].nNumVertex);
    EXPECT_EQ(byNode.pMesh[3].nNumVertex, scene.pMesh[3].nNumVertex);
    FreeScene(onSave);
    FreeScene(byNode);
  }
  FreeScene(scene);
}

// A grid mesh welded for saving (the plan's weld, null when none was made), and the mesh as the
// save writes it: its own streams, the weld's vertex count.
struct WeldedGrid {
  SPODScene scene;
  PODWeldPlan plan;
  const SPODMeshWeld* weld = nullptr;
  SPODMesh asWritten{};

  WeldedGrid(int side, unsigned seed) : scene(MakeScene({MakeMesh(Grid(side, 1, seed))}, {{0, 0, "grid"}})) {
    testing::internal::CaptureStdout();
    plan = reduceMeshVertexForSave(&scene, false);
    testing::internal::GetCapturedStdout();
    weld = plan.weld(0);
    asWritten = scene.pMesh[0];
    if (weld != nullptr) asWritten.nNumVertex = weld->nKept;
  }
  ~WeldedGrid() { FreeScene(scene); }
  WeldedGrid(const WeldedGrid&) = delete;
  WeldedGrid& operator=(const WeldedGrid&) = delete;
};

// A save gathers a rebuilt stream in slices that may cut an element, or a vertex's bones, anywhere:
// every range holds the bytes of the whole stream there (which the scans above check), for the
// bones too, whose weights are packed by bone index and end in zeros.
TEST(VertexReductionDifferential, AnyRangeOfARebuiltStreamIsThatRangeOfTheWholeStream) {
  WeldedGrid grid(30, 4);
  ASSERT_NE(grid.weld, nullptr);
  const SPODMeshWeld* weld = grid.weld;
  const SPODMesh& asWritten = grid.asWritten;
  std::mt19937 rng(7);
  for (EPODWeldStream stream : {EPODWeldStream::Faces, EPODWeldStream::Vertex, EPODWeldStream::UVW0,
                                EPODWeldStream::BoneIdx, EPODWeldStream::BoneWeight}) {
    const size_t bytes = PODMeshWeldedBytes(asWritten, *weld, stream);
    std::vector<uint8_t> whole(bytes);
    ASSERT_TRUE(PODMeshWeldGather(asWritten, *weld, stream, 0, bytes, whole.data()));
    if (stream == EPODWeldStream::BoneWeight) {
      // Three weights a vertex, one per bone index; the array's last two fifths are zeros.
      const size_t packed = size_t{weld->nKept} * 3 * 4;
      ASSERT_EQ(bytes, size_t{weld->nKept} * 5 * 4);
      EXPECT_EQ(std::count(whole.begin() + packed, whole.end(), 0), std::ptrdiff_t(bytes - packed));
    }
    for (int k = 0; k < 200; ++k) {
      const size_t at = rng() % bytes;
      const size_t n = 1 + rng() % std::min<size_t>(bytes - at, 97);
      SCOPED_TRACE("stream " + std::to_string(int(stream)) + " at " + std::to_string(at) + " n " +
                   std::to_string(n));
      std::vector<uint8_t> part(n);
      ASSERT_TRUE(PODMeshWeldGather(asWritten, *weld, stream, at, n, part.data()));
      ASSERT_EQ(std::memcmp(part.data(), whole.data() + at, n), 0);
    }
  }
}

// The gatherer of a save hands over the slices of the streams it was given, in order, as the save
// itself would gather them, with the gather's failure; asked out of order, it stops and hands over
// nothing more, and the save gathers the rest itself.
TEST(VertexReductionDifferential, GatheringAheadHandsOverTheSlicesOfEachStreamInOrder) {
  WeldedGrid grid(200, 9);
  ASSERT_NE(grid.weld, nullptr);
  const SPODMeshWeld* weld = grid.weld;
  const SPODMesh& asWritten = grid.asWritten;
  std::vector<PODWeldGatherRequest> requests;
  for (EPODWeldStream stream : {EPODWeldStream::Faces, EPODWeldStream::Vertex, EPODWeldStream::UVW0})
    requests.push_back({asWritten, weld, stream, PODMeshWeldedBytes(asWritten, *weld, stream)});
  ASSERT_GT(requests[1].bytes, PODWeldGatherAhead::kSlice);  // more than one slice

  // An index beyond the old vertices, at corner 5: the first slice of the indices fails.
  const uint16_t beyond = 0xFFFF;
  std::memcpy(grid.scene.pMesh[0].sFaces.pData + 10, &beyond, 2);
  for (size_t r = 0; r < requests.size(); ++r) {
    SCOPED_TRACE("stream " + std::to_string(r));
    std::vector<uint8_t> whole(requests[r].bytes);
    const bool wholeOk = PODMeshWeldGather(asWritten, *weld, requests[r].stream, 0, whole.size(), whole.data());
    EXPECT_EQ(wholeOk, r != 0);
  }
  {
    PODWeldGatherAhead ahead(requests);
    for (size_t r = 0; r < requests.size(); ++r) {
      for (size_t at = 0; at < requests[r].bytes; at += PODWeldGatherAhead::kSlice) {
        SCOPED_TRACE("stream " + std::to_string(r) + " at " + std::to_string(at));
        const size_t n = std::min(requests[r].bytes - at, PODWeldGatherAhead::kSlice);
        std::vector<uint8_t> expected(n);
        const bool expectedOk = PODMeshWeldGather(asWritten, *weld, requests[r].stream, at, n, expected.data());
        bool ok = !expectedOk;
        const uint8_t* got = ahead.Take(r, at, n, ok);
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(ok, expectedOk);
        if (expectedOk) {
          EXPECT_EQ(std::memcmp(got, expected.data(), n), 0);
        }
        ahead.Done();
      }
    }
    bool ok = true;
    EXPECT_EQ(ahead.Take(requests.size(), 0, 1, ok), nullptr);
  }
  {
    PODWeldGatherAhead ahead(requests);
    bool ok = true;
    EXPECT_EQ(ahead.Take(1, 0, PODWeldGatherAhead::kSlice, ok), nullptr);
    EXPECT_EQ(ahead.Take(0, 0, PODWeldGatherAhead::kSlice, ok), nullptr);
  }
}

}  // namespace
