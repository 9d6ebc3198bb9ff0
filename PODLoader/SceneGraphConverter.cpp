// The converter object, the node walk, the records each node kind gets, light-map linking, the
// file header and the node headers. What each node is comes from the scene's rules.

#include "convert/SceneGraphConverter.h"

#include <cstdlib>

#include "convert/AnimationNodeConverter.h"
#include "pod/Assertion.h"
#include "pod/PODModel.h"
#include "qsn/QelSceneGraphModel.h"
#include "convert/SceneRules.h"
#include "convert/SkeletonNodeConverter.h"

using korvex::NodeKind;

namespace {

const char* const kSource = "PODLoader/SceneGraphConverter";

}  // namespace

// The volumes each mesh record will be given, in node order: those of its node's mesh through the
// node's own matrix.
std::vector<MeshVolumesAhead::Job> SceneGraphConverter::meshVolumeJobs() {
  std::vector<MeshVolumesAhead::Job> jobs;
  const korvex::SceneRules& sceneRules = rules();
  for (uint32_t i = 0; i < sceneRules.nodeCount(); ++i) {
    const NodeKind kind = sceneRules.kind(i);
    SPODNode& node = mScene->pNode[i];
    if (!korvex::IsMeshRecordKind(kind) || node.nIdx < 0 ||
        static_cast<uint32_t>(node.nIdx) >= mScene->nNumMesh || mScene->pMesh == nullptr)
      continue;
    SSGQelNode placed{};
    setNodeTransform(&placed, &node);
    const SPODMesh& mesh = mScene->pMesh[node.nIdx];
    jobs.push_back({i, kind == NodeKind::kAnimationMesh, placed.transform, &mesh.sVertex,
                    static_cast<int>(mesh.nNumVertex)});
  }
  return jobs;
}

SceneGraphConverter::SceneGraphConverter(QelSceneGraphModel* model)
    : mModel(model),
      mScene(nullptr),
      mSkeletonConverter(std::make_unique<SkeletonNodeConverter>()),
      mAnimationConverter(std::make_unique<AnimationNodeConverter>()) {}

SceneGraphConverter::~SceneGraphConverter() = default;

const korvex::SceneRules& SceneGraphConverter::rules() {
  if (m_rules == nullptr || m_rulesScene != mScene) {
    m_rules = std::make_unique<korvex::SceneRules>(*mScene);
    m_rulesScene = mScene;
  }
  return *m_rules;
}

bool SceneGraphConverter::convertFromPOD(CPODScene* scene, const char* fileName) {
  mScene = scene;
  m_joinedUVW.clear();
  m_materialRecord.clear();
  m_materialsIndexed = 0;
  const korvex::SceneRules& sceneRules = rules();
  m_volumesAhead = std::make_unique<MeshVolumesAhead>(meshVolumeJobs());
  mSkeletonConverter->keepFrames(scene);
  for (uint32_t i = 0; i < sceneRules.nodeCount(); ++i) {
    const NodeKind kind = sceneRules.kind(i);
    if (korvex::IsMeshNodeKind(kind))
      buildMeshType(static_cast<int>(i));
    else if (kind == NodeKind::kLight)
      buildLightType(static_cast<int>(i));
    else if (kind == NodeKind::kCamera || kind == NodeKind::kAnimationCamera)
      buildCameraType(static_cast<int>(i));
    // Other nodes (bones, helpers) are not converted.
  }
  m_volumesAhead.reset();
  mSkeletonConverter->keepFrames(nullptr);
  buildLightMapMesh();
  SSGFileHeader* header = createFileHeader(fileName);
  mModel->createNode(header, ESGFileHeader);  // copied in
  KX_ASSERT(header->totalNodeNumber == this->mModel->nodeheader.size(), kSource);
  std::free(header);
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
  // What the node becomes is the scene rules' answer; here it gets its header and record.
  const NodeKind kind = rules().kind(static_cast<uint32_t>(nodeIndex));

  if (kind == NodeKind::kBillboard) {
    createNodeHeader(ESGBillboardNode, nodeIndex);
    mModel->adoptNode(createBillboard(nodeIndex), ESGBillboardNode);
  } else if (kind == NodeKind::kMarker) {
    createNodeHeader(ESGMarkerNode, nodeIndex);
    mModel->adoptNode(createMarker(nodeIndex), ESGMarkerNode);
  } else if (kind == NodeKind::kSkyBox) {
    createNodeHeader(ESGSkyBoxNode, nodeIndex);
    mModel->adoptNode(createSkyBox(nodeIndex), ESGSkyBoxNode);
  } else if (kind == NodeKind::kCollisionBox) {
    createNodeHeader(ESGCollisionBoxNode, nodeIndex);
    mModel->adoptNode(createBoxCollider(nodeIndex), ESGCollisionBoxNode);
  } else if (kind == NodeKind::kCollisionSphere) {
    createNodeHeader(ESGCollisionSphereNode, nodeIndex);
    mModel->adoptNode(createSphereCollider(nodeIndex), ESGCollisionSphereNode);
  } else if (kind == NodeKind::kLightMapDefinition) {
    // A light-map definition: a material, no node of its own. A later definition of the same
    // name takes over the map entry.
    KX_ASSERT(node.nIdxMaterial != -1, kSource);
    m_LightMap[korvex::LightMapName(node.pszName)] = createMaterialData(nodeIndex);
  } else if (kind == NodeKind::kLightMappedMesh) {
    createNodeHeader(ESGMeshNode, nodeIndex);
    SSGQelMeshNodeData* record = createMesh(nodeIndex);
    mModel->adoptNode(record, ESGMeshNode);
    m_LightMapMesh.push_back(record);
  } else if (kind == NodeKind::kSkeletalMesh) {
    createNodeHeader(ESGSkeletalMeshNode, nodeIndex);
    mModel->adoptNode(createSkeletalMesh(nodeIndex), ESGSkeletalMeshNode);
  } else if (kind == NodeKind::kAnimationMesh) {
    createNodeHeader(ESGAnimationMeshNode, nodeIndex);
    mModel->adoptNode(createAnimationMesh(nodeIndex), ESGAnimationMeshNode);
  } else {
    // A plain mesh: no keyword, in a scene without frames.
    createNodeHeader(ESGMeshNode, nodeIndex);
    mModel->adoptNode(createMesh(nodeIndex), ESGMeshNode);
  }
}

void SceneGraphConverter::buildLightType(int nodeIndex) {
  createNodeHeader(ESGLightNode, nodeIndex);
  mModel->adoptNode(createLight(nodeIndex), ESGLightNode);
}

void SceneGraphConverter::buildCameraType(int nodeIndex) {
  if (rules().kind(static_cast<uint32_t>(nodeIndex)) == NodeKind::kAnimationCamera) {
    createNodeHeader(ESGAnimationCameraNode, nodeIndex);
    mModel->adoptNode(createAnimationCamera(nodeIndex), ESGAnimationCameraNode);
  } else {
    createNodeHeader(ESGCameraNode, nodeIndex);
    mModel->adoptNode(createCamera(nodeIndex), ESGCameraNode);
  }
}

void SceneGraphConverter::buildLightMapMesh() {
  // Linked once every node has been walked: a light map may be defined after the meshes that use
  // it, and a later definition of its name replaces an earlier one. A mesh names its light map by
  // the first 11 characters of its own name.
  for (SSGQelMeshNodeData* record : m_LightMapMesh) {
    const SPODNode& node = mScene->pNode[record->indexToObject];
    const auto lightmap = this->m_LightMap.find(korvex::LightMapName(node.pszName));
    KX_ASSERT(lightmap != this->m_LightMap.end(), kSource);
    record->materialIndex[1] = lightmap->second;
  }
}

SSGFileHeader* SceneGraphConverter::createFileHeader(const char* fileName) {
  SSGFileHeader* header = newRecord<SSGFileHeader>();
  header->type = ESGFileHeader;
  header->version = 1;
  header->totalNodeNumber = rules().announcedHeaders();
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
  mModel->adoptNodeHeader(header);
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
