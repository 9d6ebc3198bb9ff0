// The fast reduction against the plain first-match scan on random scenes built to hit what decides
// the result (repeated positions, near coordinates, signed zeros, NaN, bones, shared meshes).

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "../bench/ReferenceReduction.h"
#include "ReductionMeshes.h"
#include "VertexReduction.h"

namespace {

using namespace reduction_test;

class SceneGenerator {
 public:
  explicit SceneGenerator(unsigned seed) : m_rng(seed) {}

  SPODScene scene() {
    std::vector<SPODMesh> meshes;
    const int meshCount = number(1, 3);
    for (int k = 0; k < meshCount; ++k) meshes.push_back(MakeMesh(mesh()));
    std::vector<NodeSpec> nodes;
    const int nodeCount = number(1, 4);
    for (int k = 0; k < nodeCount; ++k)
      nodes.push_back({number(0, meshCount - 1), chance(50) ? number(0, 2) : number(-2, -1),
                       "node" + std::to_string(k)});
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

  std::mt19937 m_rng;
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

TEST(VertexReductionDifferential, MatchesTheFirstMatchScanOnRandomScenes) {
  for (unsigned seed = 1; seed <= 1200; ++seed) {
    SPODScene fast = SceneGenerator(seed).scene();
    SPODScene plain = CopyScene(fast);
    const bool nearly = seed % 2 == 0;
    testing::internal::CaptureStdout();
    reduceMeshVertex(&fast, nearly);
    const std::string fastOut = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    reference_reduction::ReduceMeshVertex(&plain, nearly);
    const std::string plainOut = testing::internal::GetCapturedStdout();

    const std::string where = "seed " + std::to_string(seed);
    EXPECT_EQ(fastOut, plainOut) << where;
    for (uint32_t k = 0; k < fast.nNumMesh; ++k) ExpectSameMesh(fast.pMesh[k], plain.pMesh[k], where);
    FreeScene(fast);
    FreeScene(plain);
    if (HasFailure()) break;
  }
}

// The file WritePOD makes of a scene.
std::string Saved(const SPODScene& scene) {
  FILE* f = std::tmpfile();
  if (f == nullptr) return "<no temporary file>";
  std::string bytes = WritePOD(f, nullptr, scene) ? "" : "<write refused>";
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
  testing::internal::CaptureStdout();
  reduceMeshVertex(&now, nearly);
  const std::string nowOut = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  reduceMeshVertexForSave(&onSave, nearly);
  const std::string onSaveOut = testing::internal::GetCapturedStdout();

  EXPECT_EQ(nowOut, onSaveOut) << where;
  bool deferred = false;
  for (uint32_t k = 0; k < onSave.nNumMesh; ++k) deferred = deferred || onSave.pMesh[k].pWeld != nullptr;
  const std::string nowFile = Saved(now);
  EXPECT_NE(nowFile.substr(0, 1), "<") << where << ": " << nowFile;
  EXPECT_TRUE(nowFile == Saved(onSave)) << where << (deferred ? " (rebuilt on save)" : "");
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

// Streams far larger than the slices they are written in (element sizes that do not divide the
// slice), skinned, with two texture-coordinate sets and a NaN position (kept vertex per corner).
TEST(VertexReductionDifferential, RebuildingOnSaveWritesLargeStreamsWhole) {
  MeshData m;
  const int side = 200;
  std::mt19937 rng(7);
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      // Every seventh vertex repeats its left neighbour's position and coordinates.
      const int px = x % 7 == 6 ? x - 1 : x;
      m.positions.insert(m.positions.end(), {float(px), float(y), 0.0f});
      m.normals.insert(m.normals.end(), {float(rng() % 100), 0.0f, 1.0f});
      for (int k = 0; k < 3; ++k) m.boneIdx.push_back(uint8_t(rng() % 60));
      for (int k = 0; k < 5; ++k) m.boneWeights.push_back(float(rng() % 100) / 100);
    }
  }
  m.uvs.assign(2, {});
  for (int v = 0; v < side * side; ++v) {
    const int x = v % side % 7 == 6 ? v - 1 : v;
    m.uvs[0].insert(m.uvs[0].end(), {float(x % side), float(x / side)});
    m.uvs[1].insert(m.uvs[1].end(), {0.5f, float(x % 3)});
  }
  m.boneIdxN = 3;
  m.boneWeightN = 5;
  for (int y = 0; y + 1 < side; ++y) {
    for (int x = 0; x + 1 < side; ++x) {
      const uint16_t a = uint16_t(y * side + x), b = uint16_t(a + 1), c = uint16_t(a + side), d = uint16_t(c + 1);
      m.faces.insert(m.faces.end(), {a, b, c, b, d, c});
    }
  }
  SPODScene clean = MakeScene({MakeMesh(m)}, {{0, 0, "grid"}});
  EXPECT_TRUE(ExpectSameSave(clean, false, "grid"));
  EXPECT_TRUE(ExpectSameSave(clean, true, "grid, near"));
  m.positions[3 * 1234] = std::numeric_limits<float>::quiet_NaN();
  SPODScene withNaN = MakeScene({MakeMesh(m)}, {{0, -1, "grid"}});
  EXPECT_TRUE(ExpectSameSave(withNaN, false, "grid with NaN"));
  FreeScene(clean);
  FreeScene(withNaN);
}

}  // namespace
