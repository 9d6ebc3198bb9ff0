// The POD reader on hand-built files, including hostile ones.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODReader.h"
#include "support/PODTestFiles.h"
#include "support/TestSupport.h"

using podtest::Bytes;
using podtest::Counts;

namespace {

class PODReaderTest : public ::testing::Test {
 protected:
  korvex::test::TempDir dir;
  CPODScene scene;

  void TearDown() override { podtest::ReleaseScene(scene); }

  std::string Put(const Bytes& b, const char* name = "in.pod") {
    std::string path = dir.file(name);
    EXPECT_TRUE(korvex::test::WriteFileBytes(path, b.v));
    return path;
  }
  bool Load(const Bytes& b) {
    podtest::ReleaseScene(scene);
    return scene.ReadFromFile(Put(b).c_str());
  }
};

Bytes Stream(uint32_t tag, uint32_t type, uint32_t n, uint32_t stride, const Bytes& data) {
  Bytes b;
  b.open(tag).blockU32(9000, type).blockU32(9001, n).blockU32(9002, stride);
  return b.block(9003, data.v.data(), data.size()).close(tag);
}

// 0, 1, 2, ... as floats.
Bytes Ramp(int n) {
  Bytes d;
  for (int i = 0; i < n; ++i) d.f32(float(i));
  return d;
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
  mesh.block(9003, Ramp(9).v.data(), 36).append(u).close(6006).close(2012);
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
  // Every real value the conversion covers gets a 16.16 word of its own, in the order they are
  // read back below; after loading each must be that word / 65536.
  std::vector<uint32_t> words;
  auto next = [&](int n) {
    std::vector<uint32_t> v;
    for (int k = 0; k < n; ++k) {
      int32_t x = int32_t(words.size() + 1) * 40503 * (words.size() % 2 ? -1 : 1);
      words.push_back(uint32_t(x));
      v.push_back(uint32_t(x));
    }
    return v;
  };
  Bytes f;
  f.version().open(1001).blockWords(2000, next(3)).blockWords(2001, next(3));
  for (uint32_t tag : {2002u, 2003u, 2004u, 2005u, 2008u}) f.blockU32(tag, 1);
  f.blockU32(2009, 2).blockU32(2016, 3);
  f.open(2010).blockWords(8001, next(1)).blockWords(8002, next(1)).blockWords(8003, next(1));
  f.blockWords(8004, next(2)).close(2010);
  f.open(2011).blockWords(7001, next(3)).close(2011);
  f.open(2015).blockStr(3000, "m").blockWords(3002, next(1)).blockWords(3003, next(3));
  f.blockWords(3004, next(3)).blockWords(3005, next(3)).blockWords(3006, next(1)).close(2015);
  Bytes chans;  // older layout, so that the static values are read too
  chans.blockWords(5004, next(3)).blockWords(5005, next(4)).blockWords(5006, next(3));
  chans.blockWords(5007, next(6)).blockWords(5008, next(8)).blockWords(5009, next(14));
  chans.blockWords(5011, {65536, 2, 3});
  f.append(podtest::NodeRecord("n", -1, chans));
  f.open(2012).blockU32(6000, 1).append(Stream(6006, 1, 3, 12, Bytes().u32(65536).u32(2).u32(3)));
  f.close(2012).close(1001);
  ASSERT_TRUE(Load(f));

  std::vector<float> got;
  auto take = [&](const float* p, int n) { got.insert(got.end(), p, p + n); };
  const SPODCamera& c = scene.pCamera[0];
  const SPODMaterial& m = scene.pMaterial[0];
  const SPODNode& n = scene.pNode[0];
  take(scene.pfColourBackground, 3), take(scene.pfColourAmbient, 3);
  take(&c.fFOV, 1), take(&c.fFar, 1), take(&c.fNear, 1), take(c.pfAnimFOV, 2);
  take(scene.pLight[0].pfColour, 3);
  take(&m.fMatOpacity, 1), take(m.pfMatAmbient, 3), take(m.pfMatDiffuse, 3);
  take(m.pfMatSpecular, 3), take(&m.fMatShininess, 1);
  take(n.pfPosition, 3), take(n.pfRotation, 4), take(n.pfScale, 3);
  take(n.pfAnimPosition, 6), take(n.pfAnimRotation, 8), take(n.pfAnimScale, 14);
  ASSERT_EQ(got.size(), words.size());
  for (size_t i = 0; i < words.size(); ++i)
    EXPECT_EQ(got[i], float(int32_t(words[i])) / 65536.0f) << "value " << i;
  EXPECT_EQ(scene.nFlags, 2u);
  // Vertex data and the matrix channel keep their raw words.
  uint32_t raw[2];
  std::memcpy(&raw[0], scene.pMesh[0].sVertex.pData, 4);
  std::memcpy(&raw[1], n.pfAnimMatrix, 4);
  EXPECT_EQ(raw[0], 65536u);
  EXPECT_EQ(raw[1], 65536u);
}

// The conversion runs when the data ends. A stray scene end marker after the scene ends the read
// at once: the scene is read, and keeps its fixed-point words and flag.
TEST_F(PODReaderTest, StraySceneEndAfterTheSceneSkipsTheFixedPointConversion) {
  for (bool stray : {false, true}) {
    SCOPED_TRACE(stray ? "stray end marker" : "end of data");
    Bytes f;
    f.version().open(1001).blockWords(2000, {65536, 32768, 0}).blockU32(2016, 1).close(1001);
    if (stray) f.u32(1001u | 0x80000000u).u32(0).blockU32(7777, 5);
    ASSERT_TRUE(Load(f));
    EXPECT_EQ(scene.nFlags, stray ? 1u : 0u);
    uint32_t red;
    std::memcpy(&red, &scene.pfColourBackground[0], 4);
    EXPECT_EQ(red, stray ? 65536u : 0x3F800000u);
  }
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
}

TEST_F(PODReaderTest, StreamsNamesAndSizesFollowTheFile) {
  Counts c;
  c.meshes = 2;
  c.nodes = 1;
  c.textures = 1;
  Bytes file;
  file.version().open(1001).append(podtest::SceneValues(c));
  // Mesh 0: the block after the vertex stream, which stays an array of its own.
  file.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Ramp(9)));
  file.block(6014, Ramp(9).v.data(), 36).close(2012);
  // Mesh 1: counts promise 3 vertices of 12 bytes, the payload holds 20; two strips.
  file.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Ramp(5)));
  file.blockWords(6004, {4, 6}).blockU32(6005, 2).close(2012);
  // An empty node name stays absent; a name without its zero gets one.
  file.open(2013).block(5001, "", 0).blockU32(5003, uint32_t(-1)).close(2013);
  file.open(2014).block(4000, "abc", 3).close(2014).close(1001);
  ASSERT_TRUE(Load(file));

  const SPODMesh& late = scene.pMesh[0];
  ASSERT_NE(late.pInterleaved, nullptr);
  ASSERT_EQ(late.sVertex.nDataSize, 36u);
  EXPECT_EQ(std::memcmp(late.sVertex.pData, Ramp(9).v.data(), 36), 0);
  EXPECT_NE(late.sVertex.nFileOffset, 0u);

  EXPECT_EQ(scene.pMesh[1].sVertex.nDataSize, 20u);
  EXPECT_EQ(scene.pMesh[1].nStripLengthSize, 8u);
  EXPECT_EQ(scene.pMesh[1].pnStripLength[1], 6u);
  EXPECT_EQ(scene.pNode[0].pszName, nullptr);
  EXPECT_STREQ(scene.pTexture[0].pszName, "abc");
}

// Parent chains are the business of whoever evaluates or converts the scene: the reader loads
// them as they are, and the frame-0 cache it builds stays finite whatever they hold.
TEST_F(PODReaderTest, ParentChainsLoadAsTheyAre) {
  auto chain = [](std::vector<int32_t> parents) {
    Counts c;
    c.nodes = uint32_t(parents.size());
    Bytes recs;
    for (int32_t p : parents) recs.append(podtest::NodeRecord("n", p));
    return podtest::File(c, recs);
  };
  for (const std::vector<int32_t>& parents :
       {std::vector<int32_t>{-1, 0, 1, 0}, {-1, 4}, {-1, 1}, {2, 0, 1, -1}, {-1, 0, 3, 4, 2},
        {-2, 0, -7}}) {
    SCOPED_TRACE(::testing::PrintToString(parents));
    ASSERT_TRUE(Load(chain(parents)));
    ASSERT_NE(scene.m_pImpl, nullptr);
    for (size_t i = 0; i < parents.size(); ++i) EXPECT_EQ(scene.pNode[i].nIdxParent, parents[i]);
  }
}

TEST_F(PODReaderTest, EveryPrefixOfAFileFailsAndHostileLengthsAreRefused) {
  Counts c;
  c.nodes = 1;
  c.meshes = 1;
  Bytes recs;
  recs.open(2012).blockU32(6000, 3).append(Stream(6006, 1, 3, 12, Ramp(9))).close(2012);
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
  huge.nodes = 100000;
  PODReaderResetAllocatedBytes();
  EXPECT_FALSE(Load(podtest::File(huge, Bytes())));
  Bytes small = podtest::File(huge, Bytes());
  EXPECT_LT(PODReaderAllocatedBytes(), 2 * small.size());

  // A file of empty mesh containers loads, at about a mesh record per 16 bytes: the worst case.
  const size_t perFileByte = sizeof(SPODMesh) / 16 + 8;
  Counts meshes;
  meshes.meshes = 1000;
  Bytes recs;
  for (int i = 0; i < 1000; ++i) recs.open(2012).close(2012);
  Bytes many = podtest::File(meshes, recs);
  PODReaderResetAllocatedBytes();
  EXPECT_TRUE(Load(many));
  EXPECT_GE(PODReaderAllocatedBytes(), 1000 * sizeof(SPODMesh));
  EXPECT_LE(PODReaderAllocatedBytes(), perFileByte * many.size());
}

// Counts the rest of the file cannot hold are allocated within a small allowance, so that a count
// declared again, or a smaller second scene read over a first, reads as the file says.
TEST_F(PODReaderTest, CountsDeclaredAgainAndASmallerSecondSceneReadAsTheyStand) {
  Counts one;
  one.meshes = one.nodes = 1;
  const Bytes node = Bytes().open(2013).blockU32(5000, 0).close(2013);
  struct Case {
    const char* name;
    Bytes file;
  };
  Bytes bigFirst = Bytes().version().open(1001).blockU32(2004, 200).blockU32(2005, 300);
  bigFirst.append(podtest::SceneValues(one)).open(2012).close(2012).append(node).close(1001);
  Bytes uvsAgain =
      Bytes().open(2012).blockU32(6002, 500).blockU32(6002, 0).close(2012).append(node);
  Counts many = one;
  many.nodes = 200;
  Bytes nodes;
  for (int i = 0; i < 200; ++i) nodes.append(node);
  Bytes secondScene = podtest::File(many, Bytes().open(2012).close(2012).append(nodes));
  secondScene.open(1001).append(podtest::SceneValues(one));
  secondScene.open(2012).close(2012).append(node).close(1001);
  const Case cases[] = {
      {"record counts declared again", bigFirst},
      {"texture-coordinate count declared again", podtest::File(one, uvsAgain)},
      {"a smaller second scene", secondScene},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(Load(c.file));
    EXPECT_EQ(scene.nNumMesh, 1u);
    EXPECT_EQ(scene.nNumNode, 1u);
    EXPECT_EQ(scene.pMesh[0].nNumUVW, 0u);
  }
}

// A file's stream payloads stay in the file the scene keeps instead of being copied (a stream met
// twice takes the later payload); a scene read from a caller's bytes copies them.
TEST_F(PODReaderTest, StreamsAreBorrowedFromTheFileTheSceneKeeps) {
  Counts c;
  c.meshes = 1;
  Bytes file;
  file.version().open(1001).append(podtest::SceneValues(c));
  file.open(2012).blockU32(6000, 3).blockU32(6001, 1);
  file.append(Stream(6003, 3, 1, 2, Bytes().raw("\x00\x00\x01\x00\x02\x00", 6)));
  Bytes later;
  for (int i = 0; i < 9; ++i) later.f32(100.0f + float(i));
  file.append(Stream(6006, 1, 3, 12, Ramp(9))).append(Stream(6006, 1, 3, 12, later));
  file.close(2012).close(1001);
  ASSERT_TRUE(Load(file));

  ASSERT_NE(scene.m_pSourceFile, nullptr);
  const uint8_t* base = static_cast<const uint8_t*>(scene.m_pSourceFile->DataPtr());
  const SPODMesh& m = scene.pMesh[0];
  for (const CPODData* d : {&m.sFaces, &m.sVertex}) {
    EXPECT_TRUE(d->bBorrowed);
    EXPECT_EQ(d->pData, base + d->nFileOffset);
  }
  ASSERT_EQ(m.sVertex.nDataSize, 36u);
  EXPECT_EQ(std::memcmp(m.sVertex.pData, later.v.data(), 36), 0);
  EXPECT_EQ(std::memcmp(m.sFaces.pData, "\x00\x00\x01\x00\x02\x00", 6), 0);

  // Written from the borrowed arrays and read back from bytes the caller keeps, which are copied.
  bool ok = false;
  const std::vector<uint8_t> again = podtest::WriteBytes(scene, nullptr, &ok);
  ASSERT_TRUE(ok);
  scene.Destroy();
  EXPECT_EQ(scene.m_pSourceFile, nullptr);
  EXPECT_EQ(scene.pMesh, nullptr);

  CPODScene copied;
  ASSERT_TRUE(PODReadFromBytes(copied, again.data(), again.size(), nullptr, 0));
  EXPECT_EQ(copied.m_pSourceFile, nullptr);
  const SPODMesh& back = copied.pMesh[0];
  EXPECT_FALSE(back.sVertex.bBorrowed);
  ASSERT_EQ(back.sVertex.nDataSize, 36u);
  EXPECT_EQ(std::memcmp(back.sVertex.pData, later.v.data(), 36), 0);
  ASSERT_EQ(back.sFaces.nDataSize, 6u);
  EXPECT_EQ(std::memcmp(back.sFaces.pData, "\x00\x00\x01\x00\x02\x00", 6), 0);
  copied.Destroy();
}

// A loaded file is followed by a zero byte, also when it ends exactly on a page boundary (where a
// mapping of the file alone would end).
TEST(PODResourceFile, LoadedFileIsFollowedByAZeroWhateverItsLength) {
  korvex::test::TempDir dir;
  const long page = sysconf(_SC_PAGESIZE);
  ASSERT_GT(page, 0);
  for (size_t size : {size_t(1), size_t(page) - 1, size_t(page), 2 * size_t(page)}) {
    const std::string path = dir.file("f" + std::to_string(size));
    ASSERT_TRUE(korvex::test::WriteFileBytes(path, std::vector<uint8_t>(size, 0xA5)));
    CResourceFile f(path.c_str());
    ASSERT_TRUE(f.IsOpen()) << size;
    ASSERT_EQ(f.Size(), size);
    const char* p = f.StringPtr();
    EXPECT_EQ(p[size], 0) << size;
    EXPECT_EQ(static_cast<unsigned char>(p[0]), 0xA5);
    EXPECT_EQ(static_cast<unsigned char>(p[size - 1]), 0xA5);
  }
  CResourceFile absent(dir.file("absent").c_str());
  EXPECT_FALSE(absent.IsOpen());
}

}  // namespace
