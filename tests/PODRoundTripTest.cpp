// Write, read, write: scenes that set every field the format carries come back field for field
// and are written again byte for byte.

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

std::vector<uint8_t> WriteBytes(const SPODScene& s) {
  FILE* f = tmpfile();
  EXPECT_NE(f, nullptr);
  EXPECT_TRUE(WritePOD(f, "-opt", s));
  std::vector<uint8_t> out(size_t(ftell(f)));
  rewind(f);
  EXPECT_EQ(fread(out.data(), 1, out.size(), f), out.size());
  fclose(f);
  return out;
}

#define EXPECT_BYTES(a, b, n) EXPECT_EQ(std::memcmp((a), (b), (n)), 0)

void ExpectArray(const void* a, size_t aSize, const void* b, size_t bSize, const char* what) {
  ASSERT_EQ(aSize, bSize) << what;
  ASSERT_EQ(a == nullptr, b == nullptr) << what;
  if (aSize) {
    EXPECT_BYTES(a, b, aSize) << what;
  }
}

void ExpectStream(const CPODData& a, const CPODData& b, bool interleaved, const char* what) {
  EXPECT_EQ(a.eType, b.eType) << what;
  EXPECT_EQ(a.n, b.n) << what;
  EXPECT_EQ(a.nStride, b.nStride) << what;
  if (interleaved)
    EXPECT_EQ(a.pData, b.pData) << what;  // both offsets
  else
    ExpectArray(a.pData, a.nDataSize, b.pData, b.nDataSize, what);
}

// Everything the file carries (static transforms and file offsets are not among it).
void ExpectSameScene(const SPODScene& a, const SPODScene& b) {
  EXPECT_BYTES(a.pfColourBackground, b.pfColourBackground, 12);
  EXPECT_BYTES(a.pfColourAmbient, b.pfColourAmbient, 12);
  EXPECT_EQ(a.nNumMeshNode, b.nNumMeshNode);
  EXPECT_EQ(a.nNumFrame, b.nNumFrame);
  EXPECT_EQ(a.nFlags, b.nFlags);
  ASSERT_EQ(a.nNumCamera, b.nNumCamera);
  for (uint32_t i = 0; i < a.nNumCamera; ++i) {
    const SPODCamera &x = a.pCamera[i], &y = b.pCamera[i];
    EXPECT_EQ(x.nIdxTarget, y.nIdxTarget);
    EXPECT_EQ(x.fFOV, y.fFOV);
    EXPECT_EQ(x.fFar, y.fFar);
    EXPECT_EQ(x.fNear, y.fNear);
    ExpectArray(x.pfAnimFOV, x.nAnimFOVSize, y.pfAnimFOV, y.nAnimFOVSize, "fov");
  }
  ASSERT_EQ(a.nNumLight, b.nNumLight);
  for (uint32_t i = 0; i < a.nNumLight; ++i) {
    EXPECT_EQ(a.pLight[i].nIdxTarget, b.pLight[i].nIdxTarget);
    EXPECT_BYTES(a.pLight[i].pfColour, b.pLight[i].pfColour, 12);
    EXPECT_EQ(a.pLight[i].eType, b.pLight[i].eType);
  }
  ASSERT_EQ(a.nNumMaterial, b.nNumMaterial);
  for (uint32_t i = 0; i < a.nNumMaterial; ++i) {
    const SPODMaterial &x = a.pMaterial[i], &y = b.pMaterial[i];
    EXPECT_STREQ(x.pszName, y.pszName);
    EXPECT_EQ(x.nIdxTexDiffuse, y.nIdxTexDiffuse);
    EXPECT_EQ(x.fMatOpacity, y.fMatOpacity);
    EXPECT_BYTES(x.pfMatAmbient, y.pfMatAmbient, 12);
    EXPECT_BYTES(x.pfMatDiffuse, y.pfMatDiffuse, 12);
    EXPECT_BYTES(x.pfMatSpecular, y.pfMatSpecular, 12);
    EXPECT_EQ(x.fMatShininess, y.fMatShininess);
    EXPECT_EQ(x.pszEffectFile == nullptr, y.pszEffectFile == nullptr);
    EXPECT_EQ(x.pszEffectName == nullptr, y.pszEffectName == nullptr);
    if (x.pszEffectFile && y.pszEffectFile) {
      EXPECT_STREQ(x.pszEffectFile, y.pszEffectFile);
    }
    if (x.pszEffectName && y.pszEffectName) {
      EXPECT_STREQ(x.pszEffectName, y.pszEffectName);
    }
  }
  ASSERT_EQ(a.nNumMesh, b.nNumMesh);
  for (uint32_t i = 0; i < a.nNumMesh; ++i) {
    const SPODMesh &x = a.pMesh[i], &y = b.pMesh[i];
    const bool inter = x.pInterleaved != nullptr;
    EXPECT_EQ(x.nNumVertex, y.nNumVertex);
    EXPECT_EQ(x.nNumFaces, y.nNumFaces);
    EXPECT_EQ(x.nNumStrips, y.nNumStrips);
    ExpectArray(x.pnStripLength, x.nStripLengthSize, y.pnStripLength, y.nStripLengthSize, "strips");
    ExpectArray(x.pInterleaved, x.nInterleavedSize, y.pInterleaved, y.nInterleavedSize, "block");
    ExpectStream(x.sFaces, y.sFaces, false, "faces");
    ExpectStream(x.sVertex, y.sVertex, inter, "vertex");
    ExpectStream(x.sNormals, y.sNormals, inter, "normals");
    ExpectStream(x.sTangents, y.sTangents, inter, "tangents");
    ExpectStream(x.sBinormals, y.sBinormals, inter, "binormals");
    ExpectStream(x.sVtxColours, y.sVtxColours, inter, "colours");
    ExpectStream(x.sBoneIdx, y.sBoneIdx, inter, "bone indices");
    ExpectStream(x.sBoneWeight, y.sBoneWeight, inter, "bone weights");
    ASSERT_EQ(x.nNumUVW, y.nNumUVW);
    for (uint32_t k = 0; k < x.nNumUVW; ++k) ExpectStream(x.psUVW[k], y.psUVW[k], inter, "uvw");
    const CPODBoneBatches &p = x.sBoneBatches, &q = y.sBoneBatches;
    EXPECT_EQ(p.nBatchBoneMax, q.nBatchBoneMax);
    EXPECT_EQ(p.nBatchCnt, q.nBatchCnt);
    ExpectArray(p.pnBatches, p.nBatchesSize, q.pnBatches, q.nBatchesSize, "batches");
    ExpectArray(p.pnBatchBoneCnt, p.nBatchBoneCntSize, q.pnBatchBoneCnt, q.nBatchBoneCntSize,
                "batch bone counts");
    ExpectArray(p.pnBatchOffset, p.nBatchOffsetSize, q.pnBatchOffset, q.nBatchOffsetSize,
                "batch offsets");
  }
  ASSERT_EQ(a.nNumNode, b.nNumNode);
  for (uint32_t i = 0; i < a.nNumNode; ++i) {
    const SPODNode &x = a.pNode[i], &y = b.pNode[i];
    EXPECT_EQ(x.nIdx, y.nIdx);
    EXPECT_STREQ(x.pszName, y.pszName);
    EXPECT_EQ(x.nIdxMaterial, y.nIdxMaterial);
    EXPECT_EQ(x.nIdxParent, y.nIdxParent);
    EXPECT_EQ(x.nAnimFlags, y.nAnimFlags);
    ExpectArray(x.pfAnimPosition, x.nAnimPositionSize, y.pfAnimPosition, y.nAnimPositionSize, "pos");
    ExpectArray(x.pfAnimRotation, x.nAnimRotationSize, y.pfAnimRotation, y.nAnimRotationSize, "rot");
    ExpectArray(x.pfAnimScale, x.nAnimScaleSize, y.pfAnimScale, y.nAnimScaleSize, "scale");
    ExpectArray(x.pfAnimMatrix, x.nAnimMatrixSize, y.pfAnimMatrix, y.nAnimMatrixSize, "matrix");
  }
  ASSERT_EQ(a.nNumTexture, b.nNumTexture);
  for (uint32_t i = 0; i < a.nNumTexture; ++i)
    EXPECT_STREQ(a.pTexture[i].pszName, b.pTexture[i].pszName);
}

TEST(PODRoundTrip, FullSceneComesBackFieldForFieldAndByteForByte) {
  PODSceneBuilder b;
  BuildFullScene(b);
  CPODScene built;
  ASSERT_TRUE(b.Build(built));
  std::vector<uint8_t> first = WriteBytes(built);

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
  EXPECT_EQ(WriteBytes(read), first);

  // Every separate stream remembers where its bytes lie in the file.
  const SPODMesh& m = read.pMesh[0];
  const CPODData* streams[] = {&m.sFaces,    &m.sVertex,     &m.sNormals,  &m.sTangents,
                               &m.sBinormals, &m.psUVW[0],   &m.psUVW[1],  &m.sVtxColours,
                               &m.sBoneIdx,  &m.sBoneWeight, &read.pMesh[1].sFaces};
  for (const CPODData* d : streams) {
    ASSERT_GT(d->nDataSize, 0u);
    ASSERT_LE(d->nFileOffset + d->nDataSize, first.size());
    EXPECT_BYTES(first.data() + d->nFileOffset, d->pData, d->nDataSize);
  }
  EXPECT_EQ(read.pMesh[1].sVertex.nFileOffset, 0u);
}

TEST(PODRoundTrip, PresentButEmptyArraysComeBackAbsent) {
  // A camera with a field-of-view array in a scene without frames is written as an empty block,
  // which reads back as no array; the next file then has no block at all.
  PODSceneBuilder b;
  b.AddCameraNode("eye", 1, 1, 10);
  b.SetAnimFOV(0, {0.5f});
  CPODScene built;
  ASSERT_TRUE(b.Build(built));
  std::vector<uint8_t> first = WriteBytes(built);
  korvex_test::TempDir dir;
  ASSERT_TRUE(korvex_test::WriteFileBytes(dir.file("a.pod"), first));
  CPODScene read;
  ASSERT_TRUE(read.ReadFromFile(dir.file("a.pod").c_str()));
  EXPECT_EQ(read.pCamera[0].pfAnimFOV, nullptr);
  std::vector<uint8_t> second = WriteBytes(read);
  EXPECT_EQ(second.size() + 16, first.size());
}

}  // namespace
