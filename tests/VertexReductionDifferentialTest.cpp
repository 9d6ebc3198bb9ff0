// The fast reduction against the plain first-match scan on random scenes built to hit what decides
// the result (repeated positions, near coordinates, signed zeros, NaN, bones, shared meshes).

#include <gtest/gtest.h>

#include <cmath>
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

}  // namespace
