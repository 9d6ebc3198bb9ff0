// The POD writer: its first bytes, and write, read, write of a scene setting every field the format
// carries (field for field, then byte for byte).

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "support/FullPODScene.h"
#include "support/PODTestFiles.h"
#include "support/TestSupport.h"

using korvex::PODSceneBuilder;
using podtest::WriteBytes;

namespace {

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
  korvex::test::BuildFullPODScene(b);
  CPODScene built;
  ASSERT_TRUE(b.Build(built));
  bool ok = false;
  std::vector<uint8_t> first = WriteBytes(built, "-opt", &ok);
  ASSERT_TRUE(ok);

  korvex::test::TempDir dir;
  std::string path = dir.file("full.PODx");
  ASSERT_TRUE(korvex::test::WriteFileBytes(path, first));
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
