// The POD writer: exact bytes of the fixed parts, block order, payload lengths, and the scenes it
// refuses rather than read past an array.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "PODModel.h"
#include "PODSceneBuilder.h"
#include "PODTestFiles.h"
#include "PODWriter.h"
#include "TestSupport.h"

using korvex::PODSceneBuilder;
using korvex::PODStream;
using podtest::Block;
using podtest::Bytes;
using podtest::WriteBytes;

namespace {


std::vector<Block> Blocks(const std::vector<uint8_t>& file) {
  std::vector<Block> blocks;
  EXPECT_TRUE(podtest::Walk(file, blocks));
  return blocks;
}

// The blocks with `tag` inside the `index`th container with tag `container` (in file order).
std::vector<Block> Inside(const std::vector<Block>& all, uint32_t container, int index,
                          uint32_t tag) {
  std::vector<Block> found;
  int seen = -1;
  int depth = -1;
  for (const Block& b : all) {
    if (depth >= 0 && b.depth <= depth) depth = -1;
    if (b.tag == container && ++seen == index) {
      depth = b.depth;
      continue;
    }
    if (depth >= 0 && b.tag == tag) found.push_back(b);
  }
  return found;
}

TEST(PODWriter, FileStartsWithTheVersionBlock) {
  CPODScene empty;
  std::vector<uint8_t> f = WriteBytes(empty, nullptr);
  const uint8_t start[27] = {0xE8, 0x03, 0x00, 0x00, 0x0B, 0x00, 0x00, 0x00, 'A',  'B',
                             '.',  'P',  'O',  'D',  '.',  '2',  '.',  '0',  0x00, 0xE8,
                             0x03, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00};
  ASSERT_GE(f.size(), 27u);
  EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.begin() + 27), std::vector<uint8_t>(start, start + 27));
}

TEST(PODWriter, EmptySceneIsItsElevenValueBlocks) {
  CPODScene s;
  const float bg[3] = {0.1f, 0.2f, 0.3f}, amb[3] = {0.4f, 0.5f, 0.6f};
  std::memcpy(s.pfColourBackground, bg, 12);
  std::memcpy(s.pfColourAmbient, amb, 12);
  s.nNumMeshNode = 0;
  s.nNumFrame = 0;
  s.nFlags = 0;
  Bytes expected = podtest::File(podtest::Counts(), Bytes());
  EXPECT_EQ(WriteBytes(s, nullptr), expected.v);
  EXPECT_EQ(WriteBytes(s, ""), expected.v);  // an empty options text has no block

  Bytes withOptions;
  withOptions.version().blockStr(1002, "-opt").open(1001);
  withOptions.append(podtest::SceneValues(podtest::Counts())).close(1001);
  EXPECT_EQ(WriteBytes(s, "-opt"), withOptions.v);
}

// One record of every kind, two frames of animation.
void BuildOneOfEach(PODSceneBuilder& b) {
  b.SetNumFrames(30);
  int tex = b.AddTexture("t.png");
  int mat = b.AddMaterial("m", tex);
  int mesh = b.AddMesh(3);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFaces(mesh, {0, 1, 2});
  b.AddMeshNode("mesh", mesh, mat);
  b.AddLightNode("light", 1, 1, 1);
  b.AddCameraNode("camera", 1, 1, 10);
  b.AddNode("other");
}

TEST(PODWriter, RecordGroupsComeInTheirFixedOrder) {
  PODSceneBuilder b;
  BuildOneOfEach(b);
  b.AddTexture("t2.png");
  CPODScene s;
  ASSERT_TRUE(b.Build(s));
  std::vector<uint32_t> groups;
  for (const Block& blk : Blocks(WriteBytes(s, nullptr)))
    if (blk.depth == 1 && podtest::IsContainer(blk.tag)) groups.push_back(blk.tag);
  // cameras, lights, materials, meshes, the four nodes, textures
  EXPECT_EQ(groups, (std::vector<uint32_t>{2010, 2011, 2015, 2012, 2013, 2013, 2013, 2013, 2014,
                                           2014}));
}

TEST(PODWriter, ChannelsAreSizedByTheirFlags) {
  PODSceneBuilder b;
  BuildOneOfEach(b);
  std::vector<float> thirty(30 * 3, 1.0f);
  b.SetAnimPosition(3, thirty, false);  // flag clear: one key is written
  b.SetAnimRotation(3, std::vector<float>(30 * 4, 0.5f), true);
  b.SetAnimScale(3, std::vector<float>(30 * 7, 2.0f), true);
  b.SetAnimMatrix(3, std::vector<float>(30 * 16, 3.0f), false);
  b.SetAnimFOV(0, std::vector<float>(30, 0.7f));
  CPODScene s;
  ASSERT_TRUE(b.Build(s));
  std::vector<Block> all = Blocks(WriteBytes(s, nullptr));
  auto lengthOf = [&](uint32_t container, int index, uint32_t tag) {
    std::vector<Block> f = Inside(all, container, index, tag);
    return f.size() == 1 ? int64_t(f[0].len) : -1;
  };
  EXPECT_EQ(lengthOf(2013, 3, 5007), 12);
  EXPECT_EQ(lengthOf(2013, 3, 5008), 30 * 16);
  EXPECT_EQ(lengthOf(2013, 3, 5009), 30 * 28);
  EXPECT_EQ(lengthOf(2013, 3, 5011), 64);
  EXPECT_EQ(lengthOf(2010, 0, 8004), 30 * 4);
  // An absent stream of a separate mesh is its container with type, count and stride only.
  EXPECT_EQ(Inside(all, 6007, 0, 9003).size(), 0u);
  EXPECT_EQ(Inside(all, 6007, 0, 9002).size(), 1u);
  EXPECT_EQ(Inside(all, 6006, 0, 9003).size(), 1u);
  // Absent arrays have no block; node 0 has no animation at all.
  EXPECT_EQ(lengthOf(2013, 0, 5007), -1);
  EXPECT_EQ(lengthOf(2013, 0, 5012), 4);
  // Static transforms are never written.
  for (uint32_t tag : {5004u, 5005u, 5006u}) EXPECT_EQ(lengthOf(2013, 3, tag), -1);
}

TEST(PODWriter, InterleavedStreamsWriteOffsetsAndStripsCountIndices) {
  PODSceneBuilder b;
  int mesh = b.AddMesh(4);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, std::vector<float>(12, 1.0f));
  b.SetFloatStream(mesh, PODStream::Normals, 3, std::vector<float>(12, 0.0f));
  b.AddFloatUVW(mesh, 2, std::vector<float>(8, 0.5f));
  b.SetStrips(mesh, {4, 6});
  std::vector<uint16_t> idx(14);
  for (size_t i = 0; i < idx.size(); ++i) idx[i] = uint16_t(i % 4);
  b.SetFaces(mesh, idx);
  b.Interleave(mesh);
  b.AddMeshNode("m", mesh);
  CPODScene s;
  ASSERT_TRUE(b.Build(s));
  std::vector<uint8_t> file = WriteBytes(s, nullptr);
  std::vector<Block> all = Blocks(file);

  // (4 + 2) + (6 + 2) indices of 2 bytes.
  std::vector<Block> faces = Inside(all, 6003, 0, 9003);
  ASSERT_EQ(faces.size(), 1u);
  EXPECT_EQ(faces[0].len, 28u);
  EXPECT_EQ(std::memcmp(file.data() + faces[0].pos, idx.data(), 28), 0);
  std::vector<Block> strips = Inside(all, 2012, 0, 6004);
  ASSERT_EQ(strips.size(), 1u);
  EXPECT_EQ(strips[0].len, 8u);

  // Vertex 12 bytes, normal 12 bytes, UV 8 bytes: offsets 0, 12, 24 in a 32-byte vertex.
  std::vector<Block> block = Inside(all, 2012, 0, 6014);
  ASSERT_EQ(block.size(), 1u);
  EXPECT_EQ(block[0].len, 4u * 32u);
  const std::pair<uint32_t, uint32_t> streams[] = {{6006, 0}, {6007, 12}, {6010, 24}};
  for (auto [tag, offset] : streams) {
    std::vector<Block> d = Inside(all, tag, 0, 9003);
    ASSERT_EQ(d.size(), 1u) << tag;
    EXPECT_EQ(d[0].len, 4u) << tag;
    EXPECT_EQ(podtest::Le32(file, d[0].pos), offset) << tag;
  }
  // An absent stream of an interleaved mesh still has its offset block, holding 0.
  std::vector<Block> tangents = Inside(all, 6008, 0, 9003);
  ASSERT_EQ(tangents.size(), 1u);
  EXPECT_EQ(podtest::Le32(file, tangents[0].pos), 0u);
}

TEST(PODWriter, RefusesScenesItCannotWriteFaithfully) {
  auto refused = [](CPODScene& s) {
    bool ok = true;
    WriteBytes(s, nullptr, &ok);
    return !ok;
  };
  PODSceneBuilder b;
  BuildOneOfEach(b);
  b.SetAnimFOV(0, std::vector<float>(30, 0.7f));
  b.SetAnimPosition(3, std::vector<float>(30 * 3, 1.0f), true);
  CPODScene s;
  ASSERT_TRUE(b.Build(s));
  ASSERT_FALSE(refused(s));

  // A record without a name.
  for (char** name : {&s.pNode[1].pszName, &s.pMaterial[0].pszName, &s.pTexture[0].pszName}) {
    char* kept = *name;
    *name = nullptr;
    EXPECT_TRUE(refused(s));
    *name = kept;
  }
  // Counts that say more than an array holds.
  s.nNumFrame = 31;
  EXPECT_TRUE(refused(s));  // both the field of view and the position keys fall short
  s.nNumFrame = 30;
  SPODMesh& m = s.pMesh[0];
  m.nNumVertex = 4;
  EXPECT_TRUE(refused(s));
  m.nNumVertex = 3;
  m.nNumFaces = 2;
  EXPECT_TRUE(refused(s));
  m.nNumFaces = 1;
  m.nNumStrips = 1;  // strips declared, no strip array
  EXPECT_TRUE(refused(s));
  m.nNumStrips = 0;
  m.nNumUVW = 1;  // a texture-coordinate set that does not exist
  EXPECT_TRUE(refused(s));
  m.nNumUVW = 0;
  SPODLight* lights = s.pLight;  // a count without its array
  s.pLight = nullptr;
  EXPECT_TRUE(refused(s));
  s.pLight = lights;
  EXPECT_FALSE(refused(s));
}

TEST(PODWriter, RefusesInterleavedMeshesWhoseStreamsCannotBeOffsets) {
  auto build = [](CPODScene& s) {
    PODSceneBuilder b;
    int mesh = b.AddMesh(3);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, std::vector<float>(9, 1.0f));
    b.SetFloatStream(mesh, PODStream::Normals, 3, std::vector<float>(9, 0.0f));
    b.SetFaces(mesh, {0, 1, 2});
    b.Interleave(mesh);
    b.AddMeshNode("m", mesh);
    return b.Build(s);
  };
  bool ok = false;
  {
    CPODScene s;
    ASSERT_TRUE(build(s));
    // A stream holding an array of its own (its file had the block after the streams).
    SPODMesh& m = s.pMesh[0];
    uint8_t* offset = m.sNormals.pData;
    m.sNormals.pData = static_cast<uint8_t*>(std::calloc(36, 1));
    m.sNormals.nDataSize = 36;
    WriteBytes(s, nullptr, &ok);
    EXPECT_FALSE(ok);
    std::free(m.sNormals.pData);
    m.sNormals.pData = offset;
    m.sNormals.nDataSize = 0;
    // A block that would be written empty while there are vertices.
    m.sVertex.nStride = 0;
    WriteBytes(s, nullptr, &ok);
    EXPECT_FALSE(ok);
    // A block shorter than the vertices it should hold.
    m.sVertex.nStride = 24;
    m.nNumVertex = 4;
    WriteBytes(s, nullptr, &ok);
    EXPECT_FALSE(ok);
    m.nNumVertex = 3;
    WriteBytes(s, nullptr, &ok);
    EXPECT_TRUE(ok);
  }
}

TEST(PODWriter, SavePODWritesTheSameBytesAndReportsShortWrites) {
  PODSceneBuilder b;
  BuildOneOfEach(b);
  CPODScene s;
  ASSERT_TRUE(b.Build(s));
  korvex_test::TempDir dir;
  std::string path = dir.file("out.PODx");
  ASSERT_TRUE(korvex_test::WriteFileBytes(path, std::vector<uint8_t>(100000, 7)));  // truncated
  ASSERT_TRUE(s.SavePOD(path.c_str(), "opts"));
  EXPECT_EQ(korvex_test::ReadFileBytes(path), WriteBytes(s, "opts"));
  EXPECT_FALSE(s.SavePOD(dir.file("missing/out.PODx").c_str(), nullptr));
  if (korvex_test::FileExists("/dev/full")) {
    EXPECT_FALSE(s.SavePOD("/dev/full", nullptr));
  }
}

}  // namespace
