#pragma once
// Bakes the matrix of one animated mesh or camera node into a per-frame table (the record's
// animMatrixbuffer): element f is the node's matrix at frame f, relative to its parent. One
// object serves every such node of a conversion; each convertAnimationNode starts afresh.

#include <cstdint>

#include "convert/ConverterFrameState.h"
#include "pod/PODModel.h"
#include "qsn/SceneGraphRecords.h"

class AnimationNodeConverter : public ConverterFrameState {
 public:
  // Fills `buffer` with nNumFrame matrices of node `nodeIndex`, driving the scene's frame state;
  // it is left at the last frame.
  void convertAnimationNode(CPODScene* scene, int nodeIndex, SSGNodeData* buffer);

  void init();

  // One channel at the current frame, with this converter's rules (see the .cpp).
  void getTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getScalingMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getRotationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void getTransformationMatrix(PODMATRIXf& out, const SPODNode& node) const;

  void getWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node) const;
  void getWorldMatrix(PODMATRIXf& out, const SPODNode& node);
  // Sets the frame again from the current integer frame, then evaluates `node`.
  void getWorldMatrix(PODMATRIXf& out, const SPODNode& frameNode, const SPODNode& node);

  void createWorldMatrixBuffer();
  void calculateAllWorldMatrix();

 private:
  SSGNodeData* m_buffer = nullptr;
  int32_t m_nodeIndex = 0;
  int32_t m_objectIndex = 0;
};
