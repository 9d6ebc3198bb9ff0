#pragma once
// Bakes the matrix of one animated mesh or camera node into a per-frame table (the record's
// animMatrixbuffer): element f is the node's matrix at frame f, relative to its parent. One
// object serves every such node of a conversion; each convertAnimationNode starts afresh.

#include <cstdint>

#include "pod/NodeEvaluator.h"
#include "pod/PODModel.h"
#include "qsn/SceneGraphRecords.h"

class AnimationNodeConverter {
 public:
  AnimationNodeConverter() : m_evaluator(korvex::kAnimationRules) {}

  // Fills `buffer` with nNumFrame matrices of node `nodeIndex`. `frame` holds the frame fields the
  // previously converted node left; on return, those this one leaves (the last frame).
  void convertAnimationNode(const CPODScene* scene, int nodeIndex, SSGNodeData* buffer,
                            korvex::FrameFields& frame);

  void init();
  void createWorldMatrixBuffer();
  void calculateAllWorldMatrix();

 private:
  korvex::NodeEvaluator m_evaluator;
  const CPODScene* m_scene = nullptr;
  SSGNodeData* m_buffer = nullptr;
  int32_t m_nodeIndex = 0;
  int32_t m_objectIndex = 0;
  int32_t m_frameCount = 0;
};
