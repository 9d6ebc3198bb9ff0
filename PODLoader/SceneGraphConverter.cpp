// The converter object, the node walk, classification by name keyword, light-map linking, the
// file header and the node headers.

#include "convert/SceneGraphConverter.h"

#include <cstring>

#include "convert/AnimationNodeConverter.h"
#include "pod/Assertion.h"
#include "pod/PODModel.h"
#include "qsn/QelSceneGraphModel.h"
#include "convert/SkeletonNodeConverter.h"

namespace {

const char* const kSource = "PODLoader/SceneGraphConverter";

// Light-map names are exactly this long; light-mapped meshes start with one.
const size_t kLightMapNameLength = 11;

// The name starts with `keyword` (case-sensitive; a shorter name never matches).
bool StartsWith(const char* name, const char* keyword) {
  return std::strncmp(name, keyword, std::strlen(keyword)) == 0;
}

}  // namespace

SceneGraphConverter::SceneGraphConverter(QelSceneGraphModel* model)
    : mModel(model),
      mScene(nullptr),
      mSkeletonConverter(std::make_unique<SkeletonNodeConverter>()),
      mAnimationConverter(std::make_unique<AnimationNodeConverter>()) {}

SceneGraphConverter::~SceneGraphConverter() = default;

bool SceneGraphConverter::convertFromPOD(CPODScene* scene, const char* fileName) {
  mScene = scene;
  const uint64_t meshEnd = mScene->nNumMeshNode;
  const uint64_t lightEnd = meshEnd + mScene->nNumLight;
  const uint64_t cameraEnd = lightEnd + mScene->nNumCamera;
  for (uint32_t i = 0; i < mScene->nNumNode; ++i) {
    if (i < meshEnd)
      buildMeshType(static_cast<int>(i));
    else if (i < lightEnd)
      buildLightType(static_cast<int>(i));
    else if (i < cameraEnd)
      buildCameraType(static_cast<int>(i));
    // Other nodes (bones, helpers) are not converted.
  }
  buildLightMapMesh();
  SSGFileHeader* header = createFileHeader(fileName);
  mModel->createNode(header, ESGFileHeader);  // copied in; the model keeps and frees `header`
  KX_ASSERT(header->totalNodeNumber == this->mModel->nodeheader.size(), kSource);
  return true;
}

void SceneGraphConverter::setBorrowStreams(bool borrow) {
  m_borrowStreams = borrow;
  mSkeletonConverter->setBorrowStreams(borrow);
}

void SceneGraphConverter::getNodeListIDs(std::string name, int& objectIndex, int& nodeIndex) {
  objectIndex = -1;
  nodeIndex = -1;
  if (mScene == nullptr) return;
  for (uint32_t i = 0; i < mScene->nNumNode; ++i) {
    const char* nodeName = mScene->pNode[i].pszName;
    if (nodeName != nullptr && name == nodeName) {
      objectIndex = mScene->pNode[i].nIdx;
      nodeIndex = static_cast<int>(i);
    }
  }
}

void SceneGraphConverter::buildMeshType(int nodeIndex) {
  SPODNode& node = mScene->pNode[nodeIndex];
  KX_ASSERT(node.nIdx != -1, kSource);
  const char* name = node.pszName;

  if (StartsWith(name, "BILLBOARD")) {
    createNodeHeader(ESGBillboardNode, nodeIndex);
    mModel->createNode(createBillboard(nodeIndex), ESGBillboardNode);
  } else if (StartsWith(name, "MARKER")) {
    createNodeHeader(ESGMarkerNode, nodeIndex);
    mModel->createNode(createMarker(nodeIndex), ESGMarkerNode);
  } else if (StartsWith(name, "SKYBOX")) {
    createNodeHeader(ESGSkyBoxNode, nodeIndex);
    mModel->createNode(createSkyBox(nodeIndex), ESGSkyBoxNode);
  } else if (StartsWith(name, "COLLISIONBOX") || StartsWith(name, "PITBOX") ||
             StartsWith(name, "F1COLLISIONBOX")) {
    createNodeHeader(ESGCollisionBoxNode, nodeIndex);
    mModel->createNode(createBoxCollider(nodeIndex), ESGCollisionBoxNode);
  } else if (StartsWith(name, "COLLISIONSPHERE")) {
    createNodeHeader(ESGCollisionSphereNode, nodeIndex);
    mModel->createNode(createSphereCollider(nodeIndex), ESGCollisionSphereNode);
  } else if (StartsWith(name, "LIGHTMAP")) {
    if (std::strlen(name) == kLightMapNameLength) {
      // A light-map definition: a material, no node of its own.
      KX_ASSERT(node.nIdxMaterial != -1, kSource);
      m_LightMap[name] = createMaterialData(nodeIndex);
    } else {
      createNodeHeader(ESGMeshNode, nodeIndex);
      SSGQelMeshNodeData* record = createMesh(nodeIndex);
      mModel->createNode(record, ESGMeshNode);
      m_LightMapMesh.push_back(record);
    }
  } else if (mScene->nNumFrame == 0) {
    createNodeHeader(ESGMeshNode, nodeIndex);
    mModel->createNode(createMesh(nodeIndex), ESGMeshNode);
  } else if (mScene->pMesh[node.nIdx].sBoneBatches.nBatchCnt > 0) {
    createNodeHeader(ESGSkeletalMeshNode, nodeIndex);
    mModel->createNode(createSkeletalMesh(nodeIndex), ESGSkeletalMeshNode);
  } else {
    // In an animated scene every other mesh is baked, animated or not.
    createNodeHeader(ESGAnimationMeshNode, nodeIndex);
    mModel->createNode(createAnimationMesh(nodeIndex), ESGAnimationMeshNode);
  }
}

void SceneGraphConverter::buildLightType(int nodeIndex) {
  createNodeHeader(ESGLightNode, nodeIndex);
  mModel->createNode(createLight(nodeIndex), ESGLightNode);
}

void SceneGraphConverter::buildCameraType(int nodeIndex) {
  if (mScene->nNumFrame != 0) {
    createNodeHeader(ESGAnimationCameraNode, nodeIndex);
    mModel->createNode(createAnimationCamera(nodeIndex), ESGAnimationCameraNode);
  } else {
    createNodeHeader(ESGCameraNode, nodeIndex);
    mModel->createNode(createCamera(nodeIndex), ESGCameraNode);
  }
}

void SceneGraphConverter::buildLightMapMesh() {
  for (SSGQelMeshNodeData* record : m_LightMapMesh) {
    const SPODNode& node = mScene->pNode[record->indexToObject];
    // The mesh names its light map by the first 11 characters of its own name.
    const std::string prefix(node.pszName, strnlen(node.pszName, kLightMapNameLength));
    const auto lightmap = this->m_LightMap.find(prefix);
    KX_ASSERT(lightmap != this->m_LightMap.end(), kSource);
    record->materialIndex[1] = lightmap->second;
  }
}

SSGFileHeader* SceneGraphConverter::createFileHeader(const char* fileName) {
  SSGFileHeader* header = newRecord<SSGFileHeader>();
  header->type = ESGFileHeader;
  header->version = 1;
  // One header per mesh, light and camera node and per material, less the light-map definitions,
  // which make a material but no node.
  header->totalNodeNumber = mScene->nNumMeshNode + mScene->nNumCamera + mScene->nNumLight +
                            mScene->nNumMaterial - static_cast<uint32_t>(m_LightMap.size());
  // The bytes after the name stay zero; a name of 256 characters or more has no terminator.
  korvex::SGCopyName(header->PODFilename, sizeof header->PODFilename, fileName);
  return header;
}

void SceneGraphConverter::createNodeHeader(ESGName kind, int nodeIndex) {
  SSGNodeHeader* header = newRecord<SSGNodeHeader>();
  header->type = kind;
  const SPODNode& node = mScene->pNode[nodeIndex];
  // A material's header carries the material's name, not the node's.
  const char* name =
      kind == ESGMaterial ? mScene->pMaterial[node.nIdxMaterial].pszName : node.pszName;
  korvex::SGCopyName(header->name, sizeof header->name, name);
  header->offset = 0;
  header->length = 0;
  header->index = static_cast<int32_t>(mModel->recordCount(kind));
  mModel->createNodeHeader(header);
}

SSGQelMeshNodeData* SceneGraphConverter::createMesh(int nodeIndex) {
  return createMeshNodeData(nodeIndex);
}
SSGQelSkeletalMeshNodeData* SceneGraphConverter::createSkeletalMesh(int nodeIndex) {
  return createSkeletalMeshNodeData(nodeIndex);
}
SSGQelAnimationMeshNodeData* SceneGraphConverter::createAnimationMesh(int nodeIndex) {
  return createAnimationMeshNodeData(nodeIndex);
}
SSGQelNodeData* SceneGraphConverter::createNode(int nodeIndex) { return createNodeData(nodeIndex); }
SSGQelCameraNodeData* SceneGraphConverter::createCamera(int nodeIndex) {
  return createCameraNodeData(nodeIndex);
}
SSGQelAnimationCameraNodeData* SceneGraphConverter::createAnimationCamera(int nodeIndex) {
  return createAnimationCameraNodeData(nodeIndex);
}
SSGQelLightNodeData* SceneGraphConverter::createLight(int nodeIndex) {
  return createLightNodeData(nodeIndex);
}
SSGQelMarkerNodeData* SceneGraphConverter::createMarker(int nodeIndex) {
  return createMarkerNodeData(nodeIndex);
}
SSGQelCollisionBoxNodeData* SceneGraphConverter::createBoxCollider(int nodeIndex) {
  return createBoxColliderNodeData(nodeIndex);
}
SSGQelCollisionSphereNodeData* SceneGraphConverter::createSphereCollider(int nodeIndex) {
  return createSphereColliderNodeData(nodeIndex);
}
SSGQelSkyBoxNodeData* SceneGraphConverter::createSkyBox(int nodeIndex) {
  return createSkyBoxNodeData(nodeIndex);
}
SSGQelBillboardNodeData* SceneGraphConverter::createBillboard(int nodeIndex) {
  return createBillboardNodeData(nodeIndex);
}
