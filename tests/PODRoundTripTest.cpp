// The POD writer: its first bytes, and write, read, write of a scene setting every field the format
// carries (field for field, then byte for byte).

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "PODModel.h"
#include "PODSceneBuilder.h"
#include "PODTestFiles.h"
#include "TestSupport.h"

using korvex::PODSceneBuilder;
using korvex::PODStream;
using podtest::WriteBytes;

namespace {

std::vector<float> Ramp(size_t n, float start) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + 0.25f * float(i);
  return v;
}

// Every per-vertex stream, in types other than float too.
void FillMesh(PODSceneBuilder& b, int mesh, uint32_t vertices) {
  b.SetFloatStream(mesh, PODStream::Vertex, 3, Ramp(vertices * 3, 1));
  b.SetFloatStream(mesh, PODStream::Normals, 3, Ramp(vertices * 3, 2));
  b.SetFloatStream(mesh, PODStream::Tangents, 3, Ramp(vertices * 3, 3));
  b.SetFloatStream(mesh, PODStream::Binormals, 3, Ramp(vertices * 3, 4));
  b.AddFloatUVW(mesh, 2, Ramp(vertices * 2, 5));
  std::vector<int16_t> uv2(vertices * 2, -7);
  b.AddUVW(mesh, EPODDataInt16, 2, uv2.data(), uv2.size() * 2);
  std::vector<uint32_t> colours(vertices, 0x11223344u);
  b.SetStream(mesh, PODStream::Colours, EPODDataColourARGB, 1, colours.data(), colours.size() * 4);
  std::vector<uint8_t> bones(vertices * 4, 3);
  b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, bones.data(), bones.size());
  b.SetFloatStream(mesh, PODStream::BoneWeight, 2, Ramp(vertices * 2, 0.5f));
}

void BuildFullScene(PODSceneBuilder& b) {
  b.SetNumFrames(3);
  b.SetFlags(6);  // bits other than fixed point pass through untouched
  b.SetBackgroundColour(0.1f, 0.2f, 0.3f);
  b.SetAmbientColour(0.4f, 0.5f, 0.6f);
  int tex0 = b.AddTexture("stone.png");
  b.AddTexture("grass.tga");
  int mat = b.AddMaterial("rock", tex0);
  b.SetMaterialEffect(mat, "lit.pfx", "Lit");
  SPODMaterial& m = b.Material(mat);
  m.fMatOpacity = 0.75f;
  m.fMatShininess = 12.5f;
  for (int i = 0; i < 3; ++i) {
    m.pfMatAmbient[i] = 0.1f * float(i + 1);
    m.pfMatDiffuse[i] = 0.2f * float(i + 1);
    m.pfMatSpecular[i] = 0.3f * float(i + 1);
  }
  b.AddMaterial("plain");  // no effect strings, no texture

  // Separate layout with strips and bone batches.
  int strip = b.AddMesh(6);
  FillMesh(b, strip, 6);
  b.SetStrips(strip, {2, 1});
  b.SetFaces(strip, {0, 1, 2, 3, 4, 5, 2});
  b.SetBoneBatches(strip, 3, {{4, 5, 6}, {6, 7}}, {0, 3});
  // Interleaved layout with a triangle list of 32-bit indices.
  int inter = b.AddMesh(4);
  FillMesh(b, inter, 4);
  const uint32_t idx[6] = {0, 1, 2, 2, 1, 3};
  b.SetFaceData(inter, EPODDataInt32, idx, sizeof idx);
  b.Interleave(inter);

  int root = b.AddMeshNode("strip", strip, mat);
  b.AddMeshNode("inter", inter, 1, root);
  b.AddLightNode("sun", 1.0f, 0.9f, 0.8f, 0xDEADBEEFu, root);
  b.AddCameraNode("eye", 0.8f, 0.5f, 500.0f, 1, root);
  b.SetAnimFOV(0, {0.8f, 0.9f, 1.0f});
  int bone = b.AddNode("bone", root);
  b.Node(bone).nIdx = 7;
  b.SetAnimPosition(bone, Ramp(9, 0));
  b.SetAnimRotation(bone, {0, 0, 0, 1, 0, 0, 0.6f, 0.8f, 0, 0.6f, 0, 0.8f});
  b.SetAnimScale(bone, PODSceneBuilder::ScaleKeys(Ramp(9, 1)));
  b.SetAnimMatrix(bone, Ramp(48, -3));
  int still = b.AddNode("still", bone);
  b.SetAnimPosition(still, {1, 2, 3}, false);
  b.SetAnimRotation(still, {0, 0, 0, 1}, false);
  b.SetAnimScale(still, PODSceneBuilder::ScaleKeys({2, 2, 2}), false);
  b.SetAnimMatrix(still, Ramp(16, 0), false);
}


#define EXPECT_BYTES(a, b, n) EXPECT_EQ(std::memcmp((a), (b), (n)), 0)

void ExpectArray(const void* a, size_t aSize, const void* b, size_t bSize, const char* what) {
  ASSERT_EQ(aSize, bSize) << what;
  ASSERT_EQ(a == nullptr, b == nullptr) << what;
  if (aSize) {
    EXPECT_BYTES(a, b, aSize) << what;
  }
}

void ExpectString(const char* a, const char* b) {
  ASSERT_EQ(a == nullptr, b == nullptr);
  if (a) {
    EXPECT_STREQ(a, b);
  }
}

// Field by field: x and y are the two records in scope.
#define SAME(f) EXPECT_EQ(x.f, y.f) << #f
#define SAME_BYTES(f) EXPECT_BYTES(&x.f, &y.f, sizeof x.f) << #f
#define SAME_ARRAY(p, size) ExpectArray(x.p, x.size, y.p, y.size, #p)

void ExpectStream(const CPODData& x, const CPODData& y, bool interleaved) {
  SAME(eType);
  SAME(n);
  SAME(nStride);
  if (interleaved)
    SAME(pData);  // both offsets
  else
    SAME_ARRAY(pData, nDataSize);
}

// Everything the file carries (static transforms and file offsets are not among it).
void ExpectSameScene(const SPODScene& a, const SPODScene& b) {
  const SPODScene &x = a, &y = b;
  SAME_BYTES(pfColourBackground);
  SAME_BYTES(pfColourAmbient);
  SAME(nNumMeshNode);
  SAME(nNumFrame);
  SAME(nFlags);
  ASSERT_EQ(x.nNumCamera, y.nNumCamera);
  ASSERT_EQ(x.nNumLight, y.nNumLight);
  ASSERT_EQ(x.nNumMaterial, y.nNumMaterial);
  ASSERT_EQ(x.nNumMesh, y.nNumMesh);
  ASSERT_EQ(x.nNumNode, y.nNumNode);
  ASSERT_EQ(x.nNumTexture, y.nNumTexture);
  for (uint32_t i = 0; i < x.nNumCamera; ++i) {
    const SPODCamera &x = a.pCamera[i], &y = b.pCamera[i];
    SAME(nIdxTarget); SAME(fFOV); SAME(fFar); SAME(fNear);
    SAME_ARRAY(pfAnimFOV, nAnimFOVSize);
  }
  for (uint32_t i = 0; i < x.nNumLight; ++i) {
    const SPODLight &x = a.pLight[i], &y = b.pLight[i];
    SAME(nIdxTarget); SAME_BYTES(pfColour); SAME(eType);
  }
  for (uint32_t i = 0; i < x.nNumMaterial; ++i) {
    const SPODMaterial &x = a.pMaterial[i], &y = b.pMaterial[i];
    SAME(nIdxTexDiffuse); SAME(fMatOpacity); SAME(fMatShininess);
    SAME_BYTES(pfMatAmbient); SAME_BYTES(pfMatDiffuse); SAME_BYTES(pfMatSpecular);
    ExpectString(x.pszName, y.pszName);
    ExpectString(x.pszEffectFile, y.pszEffectFile);
    ExpectString(x.pszEffectName, y.pszEffectName);
  }
  for (uint32_t i = 0; i < x.nNumMesh; ++i) {
    const SPODMesh &x = a.pMesh[i], &y = b.pMesh[i];
    const bool inter = x.pInterleaved != nullptr;
    SAME(nNumVertex); SAME(nNumFaces); SAME(nNumStrips); SAME(nNumUVW);
    SAME_ARRAY(pnStripLength, nStripLengthSize);
    SAME_ARRAY(pInterleaved, nInterleavedSize);
    ExpectStream(x.sFaces, y.sFaces, false);
    for (auto s : {&SPODMesh::sVertex, &SPODMesh::sNormals, &SPODMesh::sTangents,
                   &SPODMesh::sBinormals, &SPODMesh::sVtxColours, &SPODMesh::sBoneIdx,
                   &SPODMesh::sBoneWeight})
      ExpectStream(x.*s, y.*s, inter);
    for (uint32_t k = 0; k < x.nNumUVW; ++k) ExpectStream(x.psUVW[k], y.psUVW[k], inter);
    SAME(sBoneBatches.nBatchBoneMax); SAME(sBoneBatches.nBatchCnt);
    SAME_ARRAY(sBoneBatches.pnBatches, sBoneBatches.nBatchesSize);
    SAME_ARRAY(sBoneBatches.pnBatchBoneCnt, sBoneBatches.nBatchBoneCntSize);
    SAME_ARRAY(sBoneBatches.pnBatchOffset, sBoneBatches.nBatchOffsetSize);
  }
  for (uint32_t i = 0; i < x.nNumNode; ++i) {
    const SPODNode &x = a.pNode[i], &y = b.pNode[i];
    SAME(nIdx); SAME(nIdxMaterial); SAME(nIdxParent); SAME(nAnimFlags);
    ExpectString(x.pszName, y.pszName);
    SAME_ARRAY(pfAnimPosition, nAnimPositionSize);
    SAME_ARRAY(pfAnimRotation, nAnimRotationSize);
    SAME_ARRAY(pfAnimScale, nAnimScaleSize);
    SAME_ARRAY(pfAnimMatrix, nAnimMatrixSize);
  }
  for (uint32_t i = 0; i < x.nNumTexture; ++i) ExpectString(a.pTexture[i].pszName, b.pTexture[i].pszName);
}

TEST(PODRoundTrip, FullSceneComesBackFieldForFieldAndByteForByte) {
  PODSceneBuilder b;
  BuildFullScene(b);
  CPODScene built;
  ASSERT_TRUE(b.Build(built));
  bool ok = false;
  std::vector<uint8_t> first = WriteBytes(built, "-opt", &ok);
  ASSERT_TRUE(ok);

  korvex_test::TempDir dir;
  std::string path = dir.file("full.PODx");
  ASSERT_TRUE(korvex_test::WriteFileBytes(path, first));
  char options[2048];
  CPODScene read;
  ASSERT_TRUE(read.ReadFromFile(path.c_str(), options, sizeof options));
  EXPECT_STREQ(options, "-opt");
  read.Destroy();
  ASSERT_TRUE(read.ReadFromFile(path.c_str()));

  {
    SCOPED_TRACE("built against read");
    ExpectSameScene(built, read);
  }
  EXPECT_EQ(WriteBytes(read, "-opt"), first);
}

TEST(PODRoundTrip, FileStartsWithTheVersionBlock) {
  CPODScene empty;
  std::vector<uint8_t> f = WriteBytes(empty, nullptr);
  const uint8_t start[27] = {0xE8, 0x03, 0x00, 0x00, 0x0B, 0x00, 0x00, 0x00, 'A',  'B',
                             '.',  'P',  'O',  'D',  '.',  '2',  '.',  '0',  0x00, 0xE8,
                             0x03, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00};
  ASSERT_GE(f.size(), 27u);
  EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.begin() + 27), std::vector<uint8_t>(start, start + 27));
}

}  // namespace
