#pragma once
// Bakes a skinned mesh node into the skeletal tail of its scene-graph record: the first bone
// batch, copies of the per-vertex bone streams, the table of bones, one skinning matrix per bone
// and frame, and one bounding sphere and box per frame. One object serves every skinned node of
// a conversion; each convertSkeletonNode starts afresh.

#include <cstdint>
#include <vector>

#include "convert/ConverterFrameState.h"
#include "pod/PODModel.h"
#include "qsn/SceneGraphRecords.h"

class SkeletonNodeConverter : public ConverterFrameState {
 public:
  // Fills the skeletal part of `record` (its mesh part must already be filled). The node must
  // have passed CheckAnimatedNode: its mesh's first batch and bone streams are read as vetted.
  void convertSkeletonNode(CPODScene* scene, int nodeIndex, SSGQelSkeletalMeshNodeData* record);

  // Bone streams are taken from the scene as they are rather than copied (see
  // SceneGraphConverter::setBorrowStreams).
  void setBorrowStreams(bool borrow) { m_borrowStreams = borrow; }

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

  // Node evaluation with this converter's rules (see the .cpp for how they differ).
  void getTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getScalingMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getRotationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node);
  void getWorldMatrix(PODMATRIXf& out, const SPODNode& node);
  void getBoneWorldMatrix(PODMATRIXf& out, const SPODNode& meshNode, const SPODNode& boneNode);

  void calculateAllBoneWorldMatrix();
  void calculateBVbuffer();

  // The bone count K of the record's first batch; 0 when the mesh has no batch counts.
  int32_t boneCount() const;

 private:
  int32_t batchEntry(int32_t b) const;
  void localMatrix(PODMATRIXf& out, const SPODNode& node) const;

  SSGQelSkeletalMeshNodeData* m_record = nullptr;
  int32_t m_nodeIndex = 0;
  int32_t m_meshIndex = 0;
  int32_t m_registeredBones = 0;
  bool m_borrowStreams = false;

  std::vector<uint32_t> m_chain;  // scratch: a node and its ancestors, child first
};
