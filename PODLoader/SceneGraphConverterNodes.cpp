// Record builders of the converter: the node part, the mesh record and the records built on it
// (billboard, sky box, collision sphere and box), materials, cameras, lights and markers.

#include <cstdio>
#include <cstring>

#include "convert/BoundingVolumes.h"
#include "pod/Diagnostics.h"
#include "qsn/NodeDataBuffer.h"
#include "pod/PODModel.h"
#include "qsn/QelSceneGraphModel.h"
#include "convert/SceneGraphConverter.h"

namespace {

// Texture-coordinate sets carried into a mesh record; more are cut (with "Error1").
const uint32_t kMaxUVW = 2;

// The descriptor of a POD stream as a record keeps it: no pointer, file offset copied.
CPODData CopyDescriptor(const CPODData& from) {
  CPODData d = CPODData();
  d.eType = from.eType;
  d.n = from.n;
  d.nStride = from.nStride;
  d.nFileOffset = from.nFileOffset;
  return d;
}

}  // namespace

SSGQelNodeData* SceneGraphConverter::createNodeData(int nodeIndex) {
  SSGQelNodeData* record = newRecord<SSGQelNodeData>();
  fillNodeData(*record, nodeIndex);
  return record;
}

void SceneGraphConverter::fillNodeData(SSGQelNodeData& into, int nodeIndex) {
  SPODNode& node = mScene->pNode[nodeIndex];
  SSGQelNodeData* record = &into;
  record->indexToObject = static_cast<uint32_t>(nodeIndex);
  record->objectIndex = node.nIdx;
  setNodeTransform(record, &node);
  record->numAnimation = mScene->nNumFrame;
  record->animationFlag = node.nAnimFlags;
}

void SceneGraphConverter::setNodeTransform(SSGQelNode* record, SPODNode* node) {
  if (node->pfAnimMatrix != nullptr) {
    std::memcpy(record->transform.f, node->pfAnimMatrix, sizeof record->transform.f);
    return;
  }
  // Frame 0 of each channel where it is present, the static value where not.
  const float* position = node->pfAnimPosition ? node->pfAnimPosition : node->pfPosition;
  const float* rotation = node->pfAnimRotation ? node->pfAnimRotation : node->pfRotation;
  const float* scale = node->pfAnimScale ? node->pfAnimScale : node->pfScale;
  PODMATRIXf r;
  PODMATRIXf s;
  PODMATRIXf m;
  PODMatrixRotationQuaternionF(r, PODQUATERNIONf{rotation[0], rotation[1], rotation[2], rotation[3]});
  PODMatrixScalingF(s, scale[0], scale[1], scale[2]);
  PODMatrixMultiplyF(m, r, s);
  // The position replaces the translation; it is not added to it.
  m.f[12] = position[0];
  m.f[13] = position[1];
  m.f[14] = position[2];
  record->transform = m;
}

SSGQelMeshNodeData* SceneGraphConverter::createMeshNodeData(int nodeIndex) {
  return newMeshRecord<SSGQelMeshNodeData>(nodeIndex);
}

void SceneGraphConverter::fillMeshNodeData(SSGQelMeshNodeData& into, int nodeIndex,
                                           MeshVolumes volumes) {
  SPODNode& node = mScene->pNode[nodeIndex];
  SPODMesh& mesh = mScene->pMesh[node.nIdx];
  SSGQelMeshNodeData* record = &into;
  fillNodeData(*record, nodeIndex);

  record->numVertex = mesh.nNumVertex;
  record->numFace = mesh.nNumFaces;
  record->numUVW = mesh.nNumUVW;
  if (record->numUVW > kMaxUVW) {
    record->numUVW = kMaxUVW;  // the scene keeps its sets; only the record is cut
    korvex::PrintText("Error1: Number of UVW > 2, \"%s\"\n", node.pszName);
  }

  // A mesh without vertices gets no volumes: the fields stay zero.
  const int count = static_cast<int>(record->numVertex);
  const MeshVolumesAhead::Job job{static_cast<uint32_t>(nodeIndex),
                                  volumes == MeshVolumes::ObjectSpace, record->transform,
                                  &mesh.sVertex, count};
  BoundingVolumeValues ahead;
  BoundingVolumeResult made{true, true};
  if (m_volumesAhead != nullptr && m_volumesAhead->Take(job, ahead)) {
    std::memcpy(record->sphereCenter, ahead.sphereCenter, sizeof ahead.sphereCenter);
    record->sphereRadius = ahead.sphereRadius;
    std::memcpy(record->boxCenter, ahead.boxCenter, sizeof ahead.boxCenter);
    std::memcpy(record->boxMin, ahead.boxMin, sizeof ahead.boxMin);
    std::memcpy(record->boxMax, ahead.boxMax, sizeof ahead.boxMax);
  } else {
    made = (job.objectSpace ? CreateObjectSpaceVolumes : CreateBoundingVolumes)(
        &record->transform, &mesh.sVertex, count, record->sphereCenter, &record->sphereRadius,
        record->boxCenter, record->boxMin, record->boxMax);
  }
  if (!made.sphere) korvex::PrintText("Error3: cannot create bounding sphere, %s\n", node.pszName);
  if (!made.box) korvex::PrintText("Error3: cannot create bounding AABB, %s\n", node.pszName);

  const bool borrow = m_borrowStreams;
  record->vertex = CopyDescriptor(mesh.sVertex);
  record->vertexOffset = mesh.sVertex.nFileOffset;
  korvex::TakeStreamArray(record->vertexBuffer, SSGBufferFloat,
                          record->numVertex * record->vertex.n * 4, mesh.sVertex.pData,
                          mesh.sVertex.nDataSize, borrow);

  record->normal = CopyDescriptor(mesh.sNormals);
  record->normalOffset = mesh.sNormals.nFileOffset;
  korvex::TakeStreamArray(record->normalBuffer, SSGBufferFloat,
                          record->numVertex * record->normal.n * 4, mesh.sNormals.pData,
                          mesh.sNormals.nDataSize, borrow);

  record->face = CopyDescriptor(mesh.sFaces);
  record->faceOffset = mesh.sFaces.nFileOffset;
  korvex::TakeStreamArray(record->faceBuffer, SSGBufferFace16, record->numFace * 6,
                          mesh.sFaces.pData, mesh.sFaces.nDataSize, borrow);

  record->defaultMaterialIndex = node.nIdxMaterial;
  // Without a material no texture coordinates are carried: UVW, UVWOffset and UVWBuffer stay zero.
  if (record->defaultMaterialIndex >= 0) {
    const uint32_t sets = record->numUVW;
    const uint32_t setBytes = record->numVertex * 8;  // two floats a vertex
    // One set is the scene's array as it stands; two are laid end to end in an array of their own,
    // which, borrowing, the nodes of one mesh share (many nodes on one mesh take no copy each).
    if (sets == 1) {
      korvex::TakeStreamArray(record->UVWBuffer, SSGBufferFloat, setBytes, mesh.psUVW[0].pData,
                              mesh.psUVW[0].nDataSize, borrow);
    } else if (borrow && setBytes != 0) {
      uint8_t*& joined = m_joinedUVW[node.nIdx];
      if (joined == nullptr) {
        joined = mModel->keepArray(size_t{sets} * setBytes);
        for (uint32_t k = 0; k < sets; ++k)
          std::memcpy(joined + k * setBytes, mesh.psUVW[k].pData, setBytes);
      }
      korvex::TakeStreamArray(record->UVWBuffer, SSGBufferFloat, sets * setBytes, joined,
                              size_t{sets} * setBytes, borrow);
    } else {
      korvex::AllocateNodeData(record->UVWBuffer, SSGBufferFloat, sets * setBytes);
      for (uint32_t k = 0; setBytes != 0 && k < sets; ++k)
        std::memcpy(record->UVWBuffer.data + k * setBytes, mesh.psUVW[k].pData, setBytes);
    }
    for (uint32_t k = 0; k < sets; ++k) {
      const CPODData& uvw = mesh.psUVW[k];
      record->UVW[k] = CopyDescriptor(uvw);
      record->UVW[k].nFileOffset = 0;  // never set for texture coordinates; written as zero
      record->UVWOffset[k] = uvw.nFileOffset;
    }
  }

  for (int32_t& material : record->materialIndex) material = -1;
  if (record->defaultMaterialIndex >= 0) record->materialIndex[0] = createMaterialData(nodeIndex);
}

SSGQelCollisionSphereNodeData* SceneGraphConverter::createSphereColliderNodeData(int nodeIndex) {
  return newMeshRecord<SSGQelCollisionSphereNodeData>(nodeIndex);
}

SSGQelSkyBoxNodeData* SceneGraphConverter::createSkyBoxNodeData(int nodeIndex) {
  return newMeshRecord<SSGQelSkyBoxNodeData>(nodeIndex);
}

SSGQelBillboardNodeData* SceneGraphConverter::createBillboardNodeData(int nodeIndex) {
  return newMeshRecord<SSGQelBillboardNodeData>(nodeIndex);
}

SSGQelCollisionBoxNodeData* SceneGraphConverter::createBoxColliderNodeData(int nodeIndex) {
  SSGQelCollisionBoxNodeData* record =
      newMeshRecord<SSGQelCollisionBoxNodeData>(nodeIndex);
  // The same volumes again in object space; an empty mesh leaves them zero, unreported.
  SPODMesh& mesh = mScene->pMesh[mScene->pNode[nodeIndex].nIdx];
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  const int count = static_cast<int>(record->numVertex);
  CreateBoundingVolumes(&identity, &mesh.sVertex, count, record->localSphereCenter,
                        &record->localSphereRadius, record->localBoxCenter, record->localBoxMin,
                        record->localBoxMax);
  return record;
}

int32_t SceneGraphConverter::createMaterialData(int nodeIndex) {
  const int32_t podMaterial = mScene->pNode[nodeIndex].nIdxMaterial;
  // One record per POD material, shared by every node that uses it: the first record made for
  // it, looked up by index rather than by a scan of every record for every node.
  const std::vector<SSGQelMaterialData*>& records = mModel->material;
  if (m_materialsIndexed > records.size()) m_materialRecord.clear(), m_materialsIndexed = 0;
  for (; m_materialsIndexed < records.size(); ++m_materialsIndexed)
    m_materialRecord.emplace(records[m_materialsIndexed]->materialIndexOfNode,
                             static_cast<int32_t>(m_materialsIndexed));
  const auto made = m_materialRecord.find(podMaterial);
  if (made != m_materialRecord.end()) return made->second;

  SSGQelMaterialData* leading = createMaterialNode(nodeIndex);
  SSGQelMaterialData* record = newRecord<SSGQelMaterialData>();
  std::memcpy(record, leading, offsetof(SSGQelMaterialData, materialName));
  std::free(leading);

  const SPODMaterial& material = mScene->pMaterial[podMaterial];
  korvex::SGCopyName(record->materialName, sizeof record->materialName, material.pszName);
  // Only -1 means "no texture"; the field then stays all zero.
  if (material.nIdxTexDiffuse != -1)
    korvex::SGCopyName(record->textureName, sizeof record->textureName,
             mScene->pTexture[material.nIdxTexDiffuse].pszName);

  createNodeHeader(ESGMaterial, nodeIndex);
  mModel->adoptNode(record, ESGMaterial);
  return static_cast<int32_t>(mModel->material.size()) - 1;
}

SSGQelMaterialData* SceneGraphConverter::createMaterialNode(int nodeIndex) {
  const int32_t podMaterial = mScene->pNode[nodeIndex].nIdxMaterial;
  const SPODMaterial& material = mScene->pMaterial[podMaterial];
  SSGQelMaterialData* record = newRecord<SSGQelMaterialData>();
  record->materialIndexOfNode = podMaterial;
  record->opacity = material.fMatOpacity;
  std::memcpy(record->ambient, material.pfMatAmbient, sizeof record->ambient);
  std::memcpy(record->diffuse, material.pfMatDiffuse, sizeof record->diffuse);
  std::memcpy(record->specular, material.pfMatSpecular, sizeof record->specular);
  record->shininess = material.fMatShininess;
  return record;
}

SSGQelCameraNodeData* SceneGraphConverter::createCameraNodeData(int nodeIndex) {
  SSGQelCameraNodeData* record = newRecord<SSGQelCameraNodeData>();
  fillCameraNodeData(*record, nodeIndex);
  return record;
}

void SceneGraphConverter::fillCameraNodeData(SSGQelCameraNodeData& into, int nodeIndex) {
  const SPODNode& node = mScene->pNode[nodeIndex];
  const SPODCamera& camera = mScene->pCamera[node.nIdx];
  SSGQelCameraNodeData* record = &into;
  fillNodeData(*record, nodeIndex);

  record->FOV = camera.fFOV;
  record->farPlane = camera.fFar;
  record->nearPlane = camera.fNear;
  if (camera.nIdxTarget >= 0) {
    record->targetIndex = camera.nIdxTarget;
    // Taken from the node whose position in the node array is the camera's own index (nIdx),
    // not from the target node. Kept so: files already converted depend on it.
    std::memcpy(record->targetPosition, mScene->pNode[node.nIdx].pfAnimPosition,
                sizeof record->targetPosition);
  } else {
    record->targetIndex = -1;  // position stays zero
  }
}

SSGQelLightNodeData* SceneGraphConverter::createLightNodeData(int nodeIndex) {
  const SPODNode& node = mScene->pNode[nodeIndex];
  const SPODLight& light = mScene->pLight[node.nIdx];
  SSGQelLightNodeData* record = newRecord<SSGQelLightNodeData>();
  fillNodeData(*record, nodeIndex);

  record->targetIndex = light.nIdxTarget;
  std::memcpy(record->colour, light.pfColour, sizeof record->colour);
  record->lightType = light.eType;
  return record;
}

SSGQelMarkerNodeData* SceneGraphConverter::createMarkerNodeData(int nodeIndex) {
  SSGQelMarkerNodeData* record = newRecord<SSGQelMarkerNodeData>();
  fillNodeData(*record, nodeIndex);
  return record;
}
