#include "support/SceneGraphSamples.h"

#include <cstdlib>

namespace korvex::test {

uint32_t U32At(const std::vector<uint8_t>& b, size_t o) {
  return uint32_t(b.at(o)) | uint32_t(b.at(o + 1)) << 8 | uint32_t(b.at(o + 2)) << 16 |
         uint32_t(b.at(o + 3)) << 24;
}

void PutU32(std::vector<uint8_t>& b, size_t o, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.at(o + i) = uint8_t(v >> (8 * i));
}

void PutF32(std::vector<uint8_t>& b, size_t o, float v) {
  uint32_t u;
  std::memcpy(&u, &v, 4);
  PutU32(b, o, u);
}

void FillArray(SSGNodeData& buffer, uint32_t type, uint32_t bytes, uint8_t seed) {
  buffer.type = type;
  buffer.length = bytes;
  buffer.data = static_cast<uint8_t*>(std::malloc(bytes));
  for (uint32_t i = 0; i < bytes; ++i) buffer.data[i] = uint8_t(seed + i);
}

void SetFileHeader(QelSceneGraphModel& model, const char* podName) {
  model.header.type = ESGFileHeader;
  model.header.version = 1;
  model.header.totalNodeNumber = static_cast<uint32_t>(model.nodeheader.size());
  std::memset(model.header.PODFilename, 0, sizeof model.header.PODFilename);
  std::strncpy(model.header.PODFilename, podName, sizeof model.header.PODFilename - 1);
}

void FillMesh(SSGQelMeshNodeData& m, uint32_t sets, uint8_t seed) {
  m.indexToObject = seed;
  m.transform.f[0] = m.transform.f[5] = m.transform.f[10] = m.transform.f[15] = 1.0f;
  m.numVertex = 3;
  m.numFace = 1;
  m.numUVW = sets;
  m.vertex = {EPODDataFloat, 3, 12, nullptr, 40, 0, false};
  m.normal = {EPODDataFloat, 3, 12, nullptr, 76, 0, false};
  m.face = {EPODDataUInt16, 1, 2, nullptr, 112, 0, false};
  for (uint32_t i = 0; i < sets; ++i) m.UVW[i] = {EPODDataFloat, 2, 8, nullptr, 118 + 24 * i, 0, false};
  m.defaultMaterialIndex = -1;
  for (int i = 0; i < 8; ++i) m.materialIndex[i] = -1;
  FillArray(m.vertexBuffer, SSGBufferFloat, 36, seed);
  FillArray(m.normalBuffer, SSGBufferFloat, 36, uint8_t(seed + 50));
  FillArray(m.faceBuffer, SSGBufferFace16, 6, uint8_t(seed + 100));
  if (sets > 0) FillArray(m.UVWBuffer, SSGBufferFloat, 24 * sets, uint8_t(seed + 150));
}

void BuildEveryKindModel(QelSceneGraphModel& model) {
  FillMesh(*AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh"), 2, 1);
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light")->colour[1] = 0.5f;
  AddNode<SSGQelCameraNodeData>(model, ESGCameraNode, "Camera")->FOV = 0.75f;
  std::strcpy(AddNode<SSGQelMaterialData>(model, ESGMaterial, "Mat")->textureName, "t.png");
  auto* box = AddNode<SSGQelCollisionBoxNodeData>(model, ESGCollisionBoxNode, "COLBOX");
  FillMesh(*box, 1, 2);
  box->localBoxMax[2] = 4.0f;
  FillMesh(*AddNode<SSGQelCollisionSphereNodeData>(model, ESGCollisionSphereNode, "COLSPHERE"), 1, 3);
  FillMesh(*AddNode<SSGQelBillboardNodeData>(model, ESGBillboardNode, "BILLBOARD"), 1, 4);
  FillMesh(*AddNode<SSGQelSkyBoxNodeData>(model, ESGSkyBoxNode, "SKYBOX"), 1, 5);
  AddNode<SSGQelMarkerNodeData>(model, ESGMarkerNode, "MARKER")->numAnimation = 7;
  auto* skin = AddNode<SSGQelSkeletalMeshNodeData>(model, ESGSkeletalMeshNode, "Skin");
  FillMesh(*skin, 1, 6);
  SSGNodeData* skeletal[] = {&skin->Batch,          &skin->BatchBoneCnt,     &skin->BatchOffset,
                             &skin->BoneIdx_ptr,    &skin->BoneWeight_ptr,   &skin->sBoneIndexbuffer,
                             &skin->sBoneWorldMatrixbuffer, &skin->sSpherebuffer, &skin->sAABBbuffer};
  const uint32_t lengths[] = {8, 4, 4, 12, 12, 8, 128, 48, 88};
  for (int i = 0; i < 9; ++i) FillArray(*skeletal[i], 1, lengths[i], uint8_t(200 + i));
  auto* anim = AddNode<SSGQelAnimationMeshNodeData>(model, ESGAnimationMeshNode, "Anim");
  FillMesh(*anim, 1, 7);
  FillArray(anim->animMatrixbuffer, SSGBufferMatrix, 128, 9);
  FillArray(AddNode<SSGQelAnimationCameraNodeData>(model, ESGAnimationCameraNode, "AnimCam")->animMatrixbuffer,
            SSGBufferMatrix, 192, 11);
  SetFileHeader(model, "scene.PODx");
}

}  // namespace korvex::test
