// Writes a few small .qsn files made by the writer, as seeds for the loader fuzzer:
//   qsnseed DIR   ->  DIR/empty.qsn, DIR/light_material.qsn, DIR/every_kind.qsn, DIR/with_node.qsn

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphWritter.h"

namespace {

// An array of `bytes` bytes filled with a recognisable pattern.
void Fill(SSGNodeData& buffer, uint32_t type, uint32_t bytes, uint8_t seed) {
  buffer.type = type;
  buffer.length = bytes;
  buffer.data = static_cast<uint8_t*>(std::malloc(bytes ? bytes : 1));
  for (uint32_t i = 0; i < bytes; ++i) buffer.data[i] = static_cast<uint8_t>(seed + i * 7);
}

void NodePart(SSGQelNodeData& n, uint32_t i) {
  n.indexToObject = i;
  n.objectIndex = static_cast<int32_t>(i);
  for (int k = 0; k < 16; ++k) n.transform.f[k] = (k % 5 == 0) ? 1.0f : 0.0f;
  n.transform.f[12] = float(i);
  n.numAnimation = 2;
}

void MeshPart(SSGQelMeshNodeData& m, uint32_t i) {
  NodePart(m, i);
  m.numVertex = 3;
  m.numFace = 1;
  m.numUVW = 1;
  m.vertex = {EPODDataFloat, 3, 12, nullptr, 100, 0, false};
  m.normal = {EPODDataFloat, 3, 12, nullptr, 136, 0, false};
  m.face = {EPODDataUInt16, 1, 2, nullptr, 172, 0, false};
  m.UVW[0] = {EPODDataFloat, 2, 8, nullptr, 178, 0, false};
  m.vertexOffset = 100;
  m.normalOffset = 136;
  m.faceOffset = 172;
  m.UVWOffset[0] = 178;
  m.defaultMaterialIndex = 0;
  for (int k = 0; k < 8; ++k) m.materialIndex[k] = -1;
  Fill(m.vertexBuffer, SSGBufferFloat, 36, 1);
  Fill(m.normalBuffer, SSGBufferFloat, 36, 2);
  Fill(m.faceBuffer, SSGBufferFace16, 6, 3);
  Fill(m.UVWBuffer, SSGBufferFloat, 24, 4);
}

SSGNodeHeader* Header(QelSceneGraphModel& model, ESGName kind, const char* name) {
  SSGNodeHeader* h = SGNewRecord<SSGNodeHeader>();
  h->type = kind;
  std::memcpy(h->name, name, strnlen(name, sizeof h->name));
  h->index = static_cast<int32_t>(model.recordCount(kind));
  model.createNodeHeader(h);
  return h;
}

template <class T>
T* Add(QelSceneGraphModel& model, ESGName kind, const char* name) {
  Header(model, kind, name);
  T* r = SGNewRecord<T>();
  model.createNode(r, kind);
  return r;
}

void FileHeader(QelSceneGraphModel& model) {
  model.header.type = ESGFileHeader;
  model.header.version = 1;
  model.header.totalNodeNumber = static_cast<uint32_t>(model.nodeheader.size());
  std::memset(model.header.PODFilename, 0, sizeof model.header.PODFilename);
  std::strcpy(model.header.PODFilename, "scene.PODx");
}

bool Write(QelSceneGraphModel& model, const std::string& path) {
  FileHeader(model);
  SceneGraphWritter writer;
  return writer.WritetoFile(path, &model);
}

void LightAndMaterial(QelSceneGraphModel& model) {
  auto* light = Add<SSGQelLightNodeData>(model, ESGLightNode, "Light01");
  NodePart(*light, 1);
  light->targetIndex = -1;
  light->colour[0] = 1.0f;
  auto* material = Add<SSGQelMaterialData>(model, ESGMaterial, "Stone");
  material->opacity = 1.0f;
  std::strcpy(material->materialName, "Stone");
  std::strcpy(material->textureName, "stone.tga");
}

void EveryKind(QelSceneGraphModel& model) {
  MeshPart(*Add<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh"), 0);
  LightAndMaterial(model);
  auto* camera = Add<SSGQelCameraNodeData>(model, ESGCameraNode, "Camera");
  NodePart(*camera, 3);
  camera->FOV = 0.7f;
  camera->farPlane = 1000.0f;
  camera->nearPlane = 1.0f;
  camera->targetIndex = -1;
  auto* box = Add<SSGQelCollisionBoxNodeData>(model, ESGCollisionBoxNode, "COLBOX");
  MeshPart(*box, 4);
  box->localSphereRadius = 2.0f;
  MeshPart(*Add<SSGQelCollisionSphereNodeData>(model, ESGCollisionSphereNode, "COLSPHERE"), 5);
  MeshPart(*Add<SSGQelBillboardNodeData>(model, ESGBillboardNode, "BILLBOARD"), 6);
  MeshPart(*Add<SSGQelSkyBoxNodeData>(model, ESGSkyBoxNode, "SKYBOX"), 7);
  NodePart(*Add<SSGQelMarkerNodeData>(model, ESGMarkerNode, "MARKER"), 8);
  auto* skin = Add<SSGQelSkeletalMeshNodeData>(model, ESGSkeletalMeshNode, "Skin");
  MeshPart(*skin, 9);
  skin->boneBatchA = 2;
  skin->boneBatchB = 1;
  Fill(skin->Batch, SSGBufferInt32, 8, 10);
  Fill(skin->BatchBoneCnt, SSGBufferInt32, 4, 11);
  Fill(skin->BatchOffset, SSGBufferInt32, 4, 12);
  Fill(skin->BoneIdx_ptr, SSGBufferInt32, 12, 13);
  Fill(skin->BoneWeight_ptr, SSGBufferFloat, 12, 14);
  Fill(skin->sBoneIndexbuffer, SSGBufferInt32, 8, 15);
  Fill(skin->sBoneWorldMatrixbuffer, SSGBufferMatrix, 4 * 64, 16);
  Fill(skin->sSpherebuffer, SSGBufferSphere, 2 * 24, 17);
  Fill(skin->sAABBbuffer, SSGBufferAABB, 2 * 44, 18);
  auto* anim = Add<SSGQelAnimationMeshNodeData>(model, ESGAnimationMeshNode, "Anim");
  MeshPart(*anim, 10);
  Fill(anim->animMatrixbuffer, SSGBufferMatrix, 2 * 64, 19);
  auto* animCamera = Add<SSGQelAnimationCameraNodeData>(model, ESGAnimationCameraNode, "AnimCamera");
  NodePart(*animCamera, 11);
  animCamera->FOV = 0.9f;
  Fill(animCamera->animMatrixbuffer, SSGBufferMatrix, 2 * 64, 20);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: qsnseed DIR\n");
    return 1;
  }
  const std::string dir = argv[1];
  bool ok = true;
  {
    QelSceneGraphModel model;
    ok = Write(model, dir + "/empty.qsn") && ok;
  }
  {
    QelSceneGraphModel model;
    LightAndMaterial(model);
    ok = Write(model, dir + "/light_material.qsn") && ok;
  }
  {
    QelSceneGraphModel model;
    EveryKind(model);
    ok = Write(model, dir + "/every_kind.qsn") && ok;
  }
  {
    // A header of kind 2000 is kept by the loader but never written.
    QelSceneGraphModel model;
    LightAndMaterial(model);
    NodePart(*Add<SSGQelNodeData>(model, ESGNode, "Bare"), 12);
    ok = Write(model, dir + "/with_node.qsn") && ok;
  }
  return ok ? 0 : 1;
}
