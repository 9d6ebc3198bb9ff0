// The SceneGraphConverter record builders of the kinds whose animation is baked: skeletal meshes,
// animated meshes and animated cameras. They run only when the scene has frames.

#include <cstdlib>
#include <cstring>

#include "convert/AnimationNodeConverter.h"
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

// Bakes a node's matrices at every frame into an animated record (mesh or camera), which first
// copies the frame fields the previous node left.
template <typename Record>
void BakeAnimation(CPODScene* scene, AnimationNodeConverter& converter, Record* record, int nodeIndex) {
  record->numAnimation = scene->nNumFrame;
  korvex::FrameFields frame = korvex::FieldsOf(*scene->m_pImpl);
  CopyFrameState(record, frame);
  converter.convertAnimationNode(scene, nodeIndex, &record->animMatrixbuffer, frame);
  korvex::StoreFields(*scene->m_pImpl, frame);
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
  // The per-frame matrices place the mesh, so its volumes are kept in object space. They are
  // formed here, before the baking they follow in the record's making, in the pass that checks
  // the world volumes: baking reads no volume and can fail no check, so nothing tells the orders
  // apart.
  auto* record = newMeshRecord<SSGQelAnimationMeshNodeData>(nodeIndex, MeshVolumes::ObjectSpace);
  BakeAnimation(mScene, *mAnimationConverter, record, nodeIndex);
  return record;
}

SSGQelAnimationCameraNodeData* SceneGraphConverter::createAnimationCameraNodeData(int nodeIndex) {
  auto* record = newRecord<SSGQelAnimationCameraNodeData>();
  fillCameraNodeData(*record, nodeIndex);
  // The field of view stays the camera's single value; its per-frame values are not baked.
  BakeAnimation(mScene, *mAnimationConverter, record, nodeIndex);
  return record;
}
