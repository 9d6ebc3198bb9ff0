#pragma once
// Bakes a skinned mesh node into the skeletal tail of its scene-graph record: the first bone
// batch, copies of the per-vertex bone streams, the table of bones, one skinning matrix per bone
// and frame, and one bounding sphere and box per frame. One object serves every skinned node of
// a conversion; each convertSkeletonNode starts afresh.

#include <cstdint>
#include <vector>

#include "pod/NodeEvaluator.h"
#include "pod/PODModel.h"
#include "qsn/SceneGraphRecords.h"

class SkeletonNodeConverter {
 public:
  SkeletonNodeConverter() : m_evaluator(korvex::kSkeletalRules) {}

  // Fills the skeletal part of `record` (its mesh part must already be filled). The node must
  // have passed CheckAnimatedNode: its mesh's first batch and bone streams are read as vetted.
  // `frame` holds the frame fields the previously converted node left; on return, those this one
  // leaves (the last frame baked).
  void convertSkeletonNode(const CPODScene* scene, int nodeIndex,
                           SSGQelSkeletalMeshNodeData* record, korvex::FrameFields& frame);

  // Bone streams are taken from the scene as they are rather than copied (see
  // SceneGraphConverter::setBorrowStreams).
  void setBorrowStreams(bool borrow) { m_borrowStreams = borrow; }

  // The bones' world matrices at each frame are kept from one node to the next while `scene`
  // (unchanged) is converted; null ends that (see NodeEvaluator::keepFrames).
  void keepFrames(const CPODScene* scene) { m_evaluator.keepFrames(scene); }

  void init(SSGQelSkeletalMeshNodeData* record);

  void createBoneBatchItem();
  void createBoneIdx();
  void createBoneWeight();
  void createSPODImpl();
  void createBoneIndexBuffer();
  void createBoneWorldMatrixBuffer();
  void createBoundingVolumeBuffer();

  // Bone table: slot of a bone node index, or -1; registration in order of first meeting.
  int getBoneIndex(int bone) const;
  void setBoneIndex(int bone);
  // Slot-major matrix table: all frames of slot 0, then all frames of slot 1, ...
  void setBoneWorldMatrix(PODMATRIXf matrix, int bone, int frame);
  void getBoneWorldMatrixBuffer(PODMATRIXf& out, int bone, int frame) const;
  void setBVSphere(const QelSphere* sphere, int frame);
  void setBVAABB(const QelAABB* box, int frame);

  void calculateAllBoneWorldMatrix();
  void calculateBVbuffer();

  // The bone count K of the record's first batch; 0 when the mesh has no batch counts.
  int32_t boneCount() const;

 private:
  int32_t batchEntry(int32_t b) const;
  void requireSlot(int32_t slot, const char* function, int line) const;
  // Element (frame count x slot + frame) of the matrix table.
  uint8_t* matrixAt(int32_t slot, int32_t frame) const;

  korvex::NodeEvaluator m_evaluator;
  const CPODScene* m_scene = nullptr;
  SSGQelSkeletalMeshNodeData* m_record = nullptr;
  int32_t m_nodeIndex = 0;
  int32_t m_meshIndex = 0;
  int32_t m_frameCount = 0;
  int32_t m_registeredBones = 0;
  bool m_borrowStreams = false;

  std::vector<PODMATRIXf> m_bindTerms;  // scratch: one a batch entry
  std::vector<int32_t> m_slots;         // scratch: the slot of each batch entry
};
