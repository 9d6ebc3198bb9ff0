// The POD reader on hand-built files: framing, failure rules, the older node layout, fixed point,
// export-options mode, stream offsets, and its safety on hostile input.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "PODModel.h"
#include "PODReader.h"
#include "PODTestFiles.h"
#include "TestSupport.h"

using podtest::Bytes;
using podtest::Counts;

namespace {

class PODReaderTest : public ::testing::Test {
 protected:
  korvex_test::TempDir dir;
  CPODScene scene;

  void TearDown() override { podtest::ReleaseScene(scene); }

  std::string Put(const Bytes& b, const char* name = "in.pod") {
    std::string path = dir.file(name);
    EXPECT_TRUE(korvex_test::WriteFileBytes(path, b.v));
    return path;
  }
  bool Load(const Bytes& b) {
    podtest::ReleaseScene(scene);
    return scene.ReadFromFile(Put(b).c_str());
  }
};

uint32_t Bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}

// A small mesh: 3 vertices of 12 bytes, 3 16-bit indices, optionally interleaved.
Bytes Stream(uint32_t tag, uint32_t type, uint32_t n, uint32_t stride, const Bytes& data) {
  Bytes b;
  b.open(tag).blockU32(9000, type).blockU32(9001, n).blockU32(9002, stride);
  b.block(9003, data.v.data(), data.size());
  return b.close(tag);
}

Bytes Positions() {
  Bytes d;
  for (int i = 0; i < 9; ++i) d.f32(float(i));
  return d;
}

Bytes Indices() {
  Bytes d;
  const uint16_t idx[3] = {0, 1, 2};
  return d.raw(idx, 6);
}

TEST_F(PODReaderTest, MinimalSceneLoadsItsValues) {
  Counts c;
  c.frames = 7;
  c.flags = 6;
  ASSERT_TRUE(Load(podtest::File(c, Bytes())));
  EXPECT_FLOAT_EQ(scene.pfColourBackground[2], 0.3f);
  EXPECT_FLOAT_EQ(scene.pfColourAmbient[0], 0.4f);
  EXPECT_EQ(scene.nNumFrame, 7u);
  EXPECT_EQ(scene.nFlags, 6u);
  EXPECT_NE(scene.m_pImpl, nullptr);
}

TEST_F(PODReaderTest, VersionBlockMustBeExact) {
  Bytes versionOnly;
  versionOnly.version();
  EXPECT_FALSE(Load(versionOnly));

  Bytes body = Bytes().open(1001).append(podtest::SceneValues(Counts())).close(1001);
  const char good[11] = "AB.POD.2.0";
  for (int i = 0; i < 11; ++i) {
    char bad[11];
    std::memcpy(bad, good, 11);
    bad[i] ^= 0x20;
    EXPECT_FALSE(Load(Bytes().block(1000, bad, 11).append(body))) << "byte " << i;
  }
  EXPECT_FALSE(Load(Bytes().block(1000, good, 10).append(body)));
  EXPECT_FALSE(Load(body));  // no version at all
  EXPECT_TRUE(Load(Bytes().block(1000, good, 11).append(body)));
}

TEST_F(PODReaderTest, CountsMustMatchRecordBlocks) {
  Bytes mesh = Bytes().open(2012).close(2012);
  Counts two;
  two.meshes = 2;
  EXPECT_FALSE(Load(podtest::File(two, mesh)));
  EXPECT_TRUE(Load(podtest::File(two, Bytes().append(mesh).append(mesh))));
  EXPECT_EQ(scene.nNumMesh, 2u);

  // A record beyond its count, or ahead of it, has no slot: refused without touching memory.
  Counts one;
  one.meshes = 1;
  EXPECT_FALSE(Load(podtest::File(one, Bytes().append(mesh).append(mesh).append(mesh))));
  Bytes early;
  early.version().open(1001).append(mesh).append(podtest::SceneValues(one)).close(1001);
  EXPECT_FALSE(Load(early));

  // A texture-coordinate count that disagrees with the 6010 streams.
  Bytes uvw = Stream(6010, 1, 2, 8, Bytes().f32(0).f32(1));
  Bytes meshUVW = Bytes().open(2012).blockU32(6002, 2).append(uvw).close(2012);
  EXPECT_FALSE(Load(podtest::File(one, meshUVW)));
  meshUVW = Bytes().open(2012).blockU32(6002, 1).append(uvw).append(uvw).close(2012);
  EXPECT_FALSE(Load(podtest::File(one, meshUVW)));
  meshUVW = Bytes().open(2012).blockU32(6002, 1).append(uvw).close(2012);
  EXPECT_TRUE(Load(podtest::File(one, meshUVW)));
  EXPECT_EQ(scene.pMesh[0].nUVWCount, 1u);
}

TEST_F(PODReaderTest, UnknownTagsAreSkippedAnywhere) {
  const char junk[5] = {1, 2, 3, 4, 5};
  Bytes u = Bytes().block(7777, junk, 5);
  Counts c;
  c.meshes = 1;
  c.nodes = 1;
  Bytes mesh;
  mesh.open(2012).append(u).blockU32(6000, 3).append(u);
  mesh.open(6006).append(u).blockU32(9000, 1).blockU32(9001, 3).blockU32(9002, 12);
  mesh.block(9003, Positions().v.data(), 36).append(u).close(6006).close(2012);
  Bytes node = podtest::NodeRecord("n", -1, u);
  Bytes file;
  file.append(u).version().append(u).open(1001).append(u).append(podtest::SceneValues(c));
  file.append(mesh).append(node).append(u).close(1001).append(u);
  ASSERT_TRUE(Load(file));
  EXPECT_EQ(scene.pMesh[0].nNumVertex, 3u);
  EXPECT_EQ(scene.pMesh[0].sVertex.nDataSize, 36u);
  EXPECT_STREQ(scene.pNode[0].pszName, "n");
}

TEST_F(PODReaderTest, OlderNodeLayoutBecomesChannels) {
  Counts c;
  c.nodes = 2;
  c.frames = 2;
  // Node 0: static position, rotation and scale only.
  Bytes old0;
  old0.blockFloats(5004, {1, 2, 3}).blockFloats(5005, {0, 0, 0, 1}).blockFloats(5006, {4, 5, 6});
  // Node 1: static position plus a position animation of two keys, file flags 8.
  Bytes old1;
  old1.blockU32(5012, 8).blockFloats(5004, {1, 2, 3});
  old1.blockFloats(5007, {7, 8, 9, 10, 11, 12});
  ASSERT_TRUE(Load(podtest::File(
      c, Bytes().append(podtest::NodeRecord("a", -1, old0)).append(podtest::NodeRecord("b", -1, old1)))));

  const SPODNode& a = scene.pNode[0];
  EXPECT_EQ(a.nAnimFlags, 0u);
  ASSERT_EQ(a.nAnimPositionSize, 12u);
  EXPECT_EQ(std::vector<float>(a.pfAnimPosition, a.pfAnimPosition + 3), (std::vector<float>{1, 2, 3}));
  ASSERT_EQ(a.nAnimRotationSize, 16u);
  EXPECT_EQ(std::vector<float>(a.pfAnimRotation, a.pfAnimRotation + 4),
            (std::vector<float>{0, 0, 0, 1}));
  // The scale frame: the static scale, then the words that followed it in the older record:
  // the low halves of the position and rotation pointers as they were then, a null scale
  // pointer and the flags.
  ASSERT_EQ(a.nAnimScaleSize, 28u);
  EXPECT_EQ(std::vector<float>(a.pfAnimScale, a.pfAnimScale + 3), (std::vector<float>{4, 5, 6}));
  uint32_t tail[4];
  std::memcpy(tail, a.pfAnimScale + 3, 16);
  EXPECT_EQ(tail[0], uint32_t(reinterpret_cast<uintptr_t>(a.pfAnimPosition)));
  EXPECT_EQ(tail[1], uint32_t(reinterpret_cast<uintptr_t>(a.pfAnimRotation)));
  EXPECT_EQ(tail[2], 0u);
  EXPECT_EQ(tail[3], 0u);

  const SPODNode& b = scene.pNode[1];
  EXPECT_EQ(b.nAnimFlags, 8u | 1u);
  ASSERT_EQ(b.nAnimPositionSize, 24u);
  EXPECT_EQ(b.pfAnimPosition[3], 10.0f);
  uint32_t flagsWord;
  std::memcpy(&flagsWord, b.pfAnimScale + 6, 4);
  EXPECT_EQ(flagsWord, 9u);
  // Position read from the file, so the static rotation of (0,0,0,0) got its own frame.
  EXPECT_EQ(b.nAnimRotationSize, 16u);
}

TEST_F(PODReaderTest, FixedPointSceneIsConvertedOnce) {
  // 16.16 values: 65536 = 1, -32768 = -0.5, 98304 = 1.5, 1 = 2^-16.
  Counts c;
  c.cameras = 1;
  c.lights = 1;
  c.nodes = 1;
  c.materials = 1;
  c.meshes = 1;
  c.frames = 2;
  c.flags = 3;
  Bytes f;
  f.version().open(1001);
  f.blockWords(2000, {65536, 131072, uint32_t(-32768)}).blockWords(2001, {98304, 1, 0});
  f.blockU32(2002, 1).blockU32(2003, 1).blockU32(2004, 1).blockU32(2005, 1).blockU32(2008, 1);
  f.blockU32(2009, 2).blockU32(2016, 3);
  f.open(2010).blockU32(8001, 65536).blockU32(8002, 131072).blockU32(8003, 32768);
  f.blockWords(8004, {65536, 98304}).close(2010);
  f.open(2011).blockWords(7001, {32768, 65536, 0}).close(2011);
  f.open(2015).blockStr(3000, "m").blockU32(3002, 65536).blockWords(3003, {1, 2, 3});
  f.blockWords(3004, {4, 5, 6}).blockWords(3005, {7, 8, 9}).blockU32(3006, 655360).close(2015);
  Bytes vtx;
  vtx.u32(65536).u32(2).u32(3);
  f.open(2012).blockU32(6000, 1).append(Stream(6006, 1, 3, 12, vtx)).close(2012);
  Bytes chans;
  chans.blockU32(5012, 7);
  chans.blockWords(5007, {65536, 0, 0, 131072, 0, 0});
  chans.blockWords(5008, {0, 0, 0, 65536, 0, 0, 0, 65536});
  chans.blockWords(5009, {65536, 65536, 65536, 0, 0, 0, 0, 131072, 131072, 131072, 0, 0, 0, 0});
  chans.blockWords(5011, {65536, 2, 3});
  f.append(podtest::NodeRecord("n", -1, chans)).close(1001);
  ASSERT_TRUE(Load(f));

  EXPECT_EQ(scene.nFlags, 2u);
  EXPECT_EQ(scene.pfColourBackground[0], 1.0f);
  EXPECT_EQ(scene.pfColourBackground[1], 2.0f);
  EXPECT_EQ(scene.pfColourBackground[2], -0.5f);
  EXPECT_EQ(scene.pfColourAmbient[0], 1.5f);
  EXPECT_EQ(scene.pfColourAmbient[1], 1.0f / 65536.0f);
  EXPECT_EQ(scene.pCamera[0].fFOV, 1.0f);
  EXPECT_EQ(scene.pCamera[0].fFar, 2.0f);
  EXPECT_EQ(scene.pCamera[0].fNear, 0.5f);
  EXPECT_EQ(scene.pCamera[0].pfAnimFOV[1], 1.5f);
  EXPECT_EQ(scene.pLight[0].pfColour[0], 0.5f);
  EXPECT_EQ(scene.pMaterial[0].fMatOpacity, 1.0f);
  EXPECT_EQ(scene.pMaterial[0].pfMatSpecular[2], 9.0f / 65536.0f);
  EXPECT_EQ(scene.pMaterial[0].fMatShininess, 10.0f);
  const SPODNode& n = scene.pNode[0];
  EXPECT_EQ(n.pfAnimPosition[3], 2.0f);
  EXPECT_EQ(n.pfAnimRotation[7], 1.0f);
  EXPECT_EQ(n.pfAnimScale[7], 2.0f);
  // Vertex data and the matrix channel keep their raw words.
  uint32_t w;
  std::memcpy(&w, scene.pMesh[0].sVertex.pData, 4);
  EXPECT_EQ(w, 65536u);
  EXPECT_EQ(Bits(n.pfAnimMatrix[0]), 65536u);
}

TEST(PODFixedPoint, ConvertsLastToFirstAndBothWays) {
  // Overlapping source and destination show the order: from last to first.
  int words[3] = {65536, 131072, -65536};
  FixedToFloat(reinterpret_cast<float*>(words), words, 3);
  float back[3];
  std::memcpy(back, words, 12);
  EXPECT_EQ(back[0], 1.0f);
  EXPECT_EQ(back[2], -1.0f);
  const float f[3] = {1.5f, -2.25f, 1e20f};
  int fixed[3];
  FloatToFixed(fixed, f, 3);
  EXPECT_EQ(fixed[0], 98304);
  EXPECT_EQ(fixed[1], -147456);
  EXPECT_EQ(fixed[2], INT32_MAX);  // saturated, not undefined
  FixedToFloat(nullptr, fixed, 3);  // a null pointer does nothing
}

TEST_F(PODReaderTest, ExportOptionsModeCopiesAtMostCount) {
  Bytes f;
  f.version().block(1002, "abc", 4).open(1001).append(podtest::SceneValues(Counts())).close(1001);
  std::string path = Put(f);
  char buf[2048];
  std::memset(buf, 'X', sizeof buf);
  ASSERT_TRUE(scene.ReadFromFile(path.c_str(), buf, 2048));
  EXPECT_EQ(std::memcmp(buf, "abc\0X", 5), 0);
  EXPECT_NE(scene.m_pImpl, nullptr);
  EXPECT_EQ(scene.nNumNode, 0u);
  podtest::ReleaseScene(scene);

  std::memset(buf, 'X', sizeof buf);
  ASSERT_TRUE(scene.ReadFromFile(path.c_str(), buf, 2));
  EXPECT_EQ(std::memcmp(buf, "abX", 3), 0);  // no zero added
  podtest::ReleaseScene(scene);

  // Options after the scene, or none: not found before the scene ends.
  Bytes late;
  late.version().open(1001).append(podtest::SceneValues(Counts())).close(1001).block(1002, "abc", 4);
  EXPECT_FALSE(scene.ReadFromFile(Put(late, "late.pod").c_str(), buf, 2048));
  podtest::ReleaseScene(scene);
  Bytes none = podtest::File(Counts(), Bytes());
  EXPECT_FALSE(scene.ReadFromFile(Put(none, "none.pod").c_str(), buf, 2048));
  podtest::ReleaseScene(scene);
  // In scene mode the options block is skipped wherever it stands.
  EXPECT_TRUE(scene.ReadFromFile(path.c_str()));
  EXPECT_TRUE(Load(late));
}

TEST_F(PODReaderTest, StreamsKeepFileOffsetsAndInterleavedOffsets) {
  Counts c;
  c.meshes = 1;
  Bytes file;
  file.version().open(1001).append(podtest::SceneValues(c));
  file.open(2012).blockU32(6000, 3).blockU32(6001, 1);
  Bytes facesStream = Stream(6003, 3, 1, 2, Indices());
  size_t facesPayload = file.size() + facesStream.size() - 8 - 8 - 6;  // before 9003's end, 6003's end
  file.append(facesStream);
  Bytes block;
  for (int i = 0; i < 3 * 5; ++i) block.f32(float(i));
  file.block(6014, block.v.data(), block.size());
  Bytes nor;
  nor.open(6007).blockU32(9000, 1).blockU32(9001, 3).blockU32(9002, 20).blockU32(9003, 12);
  file.append(nor.close(6007)).close(2012).close(1001);
  ASSERT_TRUE(Load(file));
  const SPODMesh& m = scene.pMesh[0];
  EXPECT_EQ(m.sFaces.nFileOffset, facesPayload);
  EXPECT_EQ(m.sFaces.nDataSize, 6u);
  EXPECT_EQ(std::memcmp(m.sFaces.pData, file.v.data() + facesPayload, 6), 0);
  EXPECT_EQ(m.nInterleavedSize, 60u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(m.sNormals.pData), 12u);
  EXPECT_EQ(m.sNormals.nDataSize, 0u);
  EXPECT_EQ(m.sNormals.nFileOffset, 0u);
  EXPECT_EQ(m.sNormals.nStride, 20u);
}

TEST_F(PODReaderTest, InterleavedBlockAfterAStreamLeavesThatStreamSeparate) {
  Counts c;
  c.meshes = 1;
  Bytes mesh;
  mesh.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Positions()));
  mesh.block(6014, Positions().v.data(), 36).close(2012);
  ASSERT_TRUE(Load(podtest::File(c, mesh)));
  const SPODMesh& m = scene.pMesh[0];
  ASSERT_NE(m.pInterleaved, nullptr);
  ASSERT_EQ(m.sVertex.nDataSize, 36u);
  float v[9];
  std::memcpy(v, m.sVertex.pData, 36);
  EXPECT_EQ(v[8], 8.0f);
  EXPECT_NE(m.sVertex.nFileOffset, 0u);
}

TEST_F(PODReaderTest, NamesAndSizesFollowTheFile) {
  Counts c;
  c.nodes = 2;
  c.textures = 1;
  c.meshes = 1;
  Bytes unnamed;
  unnamed.open(2013).block(5001, "", 0).blockU32(5003, uint32_t(-1)).close(2013);
  Bytes tex;
  tex.open(2014).block(4000, "abc", 3).close(2014);  // no zero in the file
  // Counts promise 3 vertices of 12 bytes, the payload holds 20 bytes.
  Bytes shortMesh;
  shortMesh.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Bytes().raw("12345678901234567890", 20)));
  shortMesh.blockWords(6004, {4, 6}).blockU32(6005, 2).close(2012);
  Bytes recs;
  recs.append(shortMesh).append(unnamed).append(podtest::NodeRecord("x", 0)).append(tex);
  ASSERT_TRUE(Load(podtest::File(c, recs)));
  EXPECT_EQ(scene.pNode[0].pszName, nullptr);
  EXPECT_STREQ(scene.pTexture[0].pszName, "abc");
  EXPECT_EQ(scene.pMesh[0].sVertex.nDataSize, 20u);
  EXPECT_EQ(scene.pMesh[0].nStripLengthSize, 8u);
  EXPECT_EQ(scene.pMesh[0].pnStripLength[1], 6u);
  EXPECT_EQ(scene.pMaterial, nullptr);
}

TEST_F(PODReaderTest, ParentsOutsideTheArrayOrInCyclesFail) {
  auto chain = [](std::vector<int32_t> parents) {
    Counts c;
    c.nodes = uint32_t(parents.size());
    Bytes recs;
    for (int32_t p : parents) recs.append(podtest::NodeRecord("n", p));
    return podtest::File(c, recs);
  };
  EXPECT_TRUE(Load(chain({-1, 0, 1, 0})));
  EXPECT_FALSE(Load(chain({-1, 4})));
  EXPECT_FALSE(Load(chain({-1, 1})));
  EXPECT_FALSE(Load(chain({2, 0, 1, -1})));
  EXPECT_FALSE(Load(chain({-1, 0, 3, 4, 2})));  // a cycle that does not start at a root walk
  EXPECT_EQ(scene.m_pImpl, nullptr);  // refused before evaluation

  std::vector<int32_t> deep(kPODMaxParentDepth);
  for (size_t i = 0; i < deep.size(); ++i) deep[i] = int32_t(i) - 1;
  EXPECT_TRUE(Load(chain(deep)));
  deep.push_back(int32_t(deep.size()) - 1);
  EXPECT_FALSE(Load(chain(deep)));
}

TEST_F(PODReaderTest, EveryPrefixOfAFileFailsAndHostileLengthsAreRefused) {
  Counts c;
  c.nodes = 1;
  c.meshes = 1;
  Bytes recs;
  recs.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Positions())).close(2012);
  recs.append(podtest::NodeRecord("node", -1, Bytes().blockFloats(5007, {1, 2, 3})));
  Bytes full = podtest::File(c, recs);
  ASSERT_TRUE(Load(full));
  // (From memory: the same parse, without a file per prefix.)
  for (size_t n = 0; n < full.size(); ++n) {
    podtest::ReleaseScene(scene);
    EXPECT_FALSE(PODReadFromBytes(scene, full.v.data(), n, nullptr, 0)) << n;
  }

  // A length that no file can hold, at every level.
  for (uint32_t tag : {1002u, 7777u, 2000u, 5001u, 5007u, 6014u, 9003u}) {
    Bytes b;
    b.version().open(1001).append(podtest::SceneValues(c));
    b.open(2012).open(6006).marker(tag, 0xFFFFFFFFu).u32(0);
    PODReaderResetAllocatedBytes();
    EXPECT_FALSE(Load(b)) << tag;
    EXPECT_LT(PODReaderAllocatedBytes(), 4 * b.size()) << tag;
  }
}

TEST_F(PODReaderTest, AllocationStaysASmallMultipleOfTheFileSize) {
  // Counts far beyond what the file can hold fail before allocating.
  Counts huge;
  huge.nodes = 1000;
  PODReaderResetAllocatedBytes();
  EXPECT_FALSE(Load(podtest::File(huge, Bytes())));
  Bytes small = podtest::File(huge, Bytes());
  EXPECT_LT(PODReaderAllocatedBytes(), 2 * small.size());

  // Each kind may claim what is left of the file, but not all of them at once: the worst case
  // is one record per 16 bytes of file, the largest record being a mesh.
  Bytes greedy;
  greedy.version().open(1001);
  for (uint32_t tag : {2002u, 2003u, 2004u, 2005u, 2007u, 2008u}) greedy.blockU32(tag, 250);
  for (int i = 0; i < 250; ++i) greedy.open(2012).close(2012);
  PODReaderResetAllocatedBytes();
  EXPECT_FALSE(Load(greedy));
  const size_t perFileByte = sizeof(SPODMesh) / 16 + 8;
  EXPECT_LE(PODReaderAllocatedBytes(), perFileByte * greedy.size());

  // A file of empty mesh containers loads, at about a mesh record per 16 bytes.
  Counts meshes;
  meshes.meshes = 1000;
  Bytes recs;
  for (int i = 0; i < 1000; ++i) recs.open(2012).close(2012);
  Bytes many = podtest::File(meshes, recs);
  PODReaderResetAllocatedBytes();
  EXPECT_TRUE(Load(many));
  EXPECT_GE(PODReaderAllocatedBytes(), 1000 * sizeof(SPODMesh));
  EXPECT_LE(PODReaderAllocatedBytes(), perFileByte * many.size());

  // A second count for records already allocated is refused rather than reallocated.
  Bytes twice;
  twice.version().open(1001).blockU32(2004, 1).blockU32(2004, 1).open(2012).close(2012).close(1001);
  EXPECT_FALSE(Load(twice));
}

TEST_F(PODReaderTest, MissingFileFailsAndLeavesTheSceneAlone) {
  ASSERT_TRUE(Load(podtest::File(Counts(), Bytes())));
  SPODImpl* impl = scene.m_pImpl;
  EXPECT_FALSE(scene.ReadFromFile(dir.file("absent.pod").c_str()));
  EXPECT_EQ(scene.m_pImpl, impl);
  EXPECT_FLOAT_EQ(scene.pfColourBackground[0], 0.1f);
}

}  // namespace
