// The SceneGraphConverter record builders of the kinds whose animation is baked: skeletal meshes,
// animated meshes and animated cameras. They run only when the scene has frames.

#include <cstdlib>
#include <cstring>

#include "convert/AnimationNodeConverter.h"
#include "convert/BoundingVolumes.h"
#include "pod/NodeEvaluator.h"
#include "pod/PODModel.h"
#include "convert/SceneGraphConverter.h"
#include "convert/SkeletonNodeConverter.h"

namespace {

// The frame fields the previously baked node left (kept in the scene's evaluation state from one
// baked node to the next): records copy them before their own frames are computed, so the order
// of conversion shows in the file.
template <typename Record>
void CopyFrameState(Record* record, const korvex::FrameFields& frame) {
  record->evalFrame = frame.frame;
  record->evalBlend = frame.blend;
  record->evalFrameIndex = frame.index;
}

}  // namespace

SSGQelSkeletalMeshNodeData* SceneGraphConverter::createSkeletalMeshNodeData(int nodeIndex) {
  auto* record = newMeshRecord<SSGQelSkeletalMeshNodeData>(nodeIndex);
  korvex::FrameFields frame = korvex::FieldsOf(*mScene->m_pImpl);
  mSkeletonConverter->convertSkeletonNode(mScene, nodeIndex, record, frame);
  korvex::StoreFields(*mScene->m_pImpl, frame);
  return record;
}

SSGQelAnimationMeshNodeData* SceneGraphConverter::createAnimationMeshNodeData(int nodeIndex) {
  auto* record = newMeshRecord<SSGQelAnimationMeshNodeData>(nodeIndex, WorldSphere::CheckedOnly);
  record->numAnimation = mScene->nNumFrame;
  korvex::FrameFields frame = korvex::FieldsOf(*mScene->m_pImpl);
  CopyFrameState(record, frame);
  mAnimationConverter->convertAnimationNode(mScene, nodeIndex, &record->animMatrixbuffer, frame);
  korvex::StoreFields(*mScene->m_pImpl, frame);

  // The per-frame matrices place the mesh, so its volumes are kept in object space: computed
  // again through the identity matrix. A mesh without vertices was reported above already.
  SPODMesh& podMesh = mScene->pMesh[mScene->pNode[nodeIndex].nIdx];
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  const int count = static_cast<int>(record->numVertex);
  CreateBoundingVolumes(&identity, &podMesh.sVertex, count, true, record->sphereCenter,
                        &record->sphereRadius, record->boxCenter, record->boxMin, record->boxMax);
  return record;
}

SSGQelAnimationCameraNodeData* SceneGraphConverter::createAnimationCameraNodeData(int nodeIndex) {
  auto* record = newRecord<SSGQelAnimationCameraNodeData>();
  fillCameraNodeData(*record, nodeIndex);
  record->numAnimation = mScene->nNumFrame;
  korvex::FrameFields frame = korvex::FieldsOf(*mScene->m_pImpl);
  CopyFrameState(record, frame);
  // The field of view stays the camera's single value; its per-frame values are not baked.
  mAnimationConverter->convertAnimationNode(mScene, nodeIndex, &record->animMatrixbuffer, frame);
  korvex::StoreFields(*mScene->m_pImpl, frame);
  return record;
}
