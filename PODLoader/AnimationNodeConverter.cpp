#include "convert/AnimationNodeConverter.h"

#include "qsn/NodeDataBuffer.h"

void AnimationNodeConverter::init() {
  m_frameCount = 0;
}

void AnimationNodeConverter::convertAnimationNode(const CPODScene* scene, int nodeIndex,
                                                  SSGNodeData* buffer, korvex::FrameFields& frame) {
  m_scene = scene;
  m_buffer = buffer;
  m_nodeIndex = nodeIndex;
  m_objectIndex = scene->pNode[nodeIndex].nIdx;
  init();
  m_frameCount = static_cast<int32_t>(scene->nNumFrame);
  m_evaluator.start(*scene, frame);
  createWorldMatrixBuffer();
  frame = m_evaluator.fields();
}

void AnimationNodeConverter::createWorldMatrixBuffer() {
  korvex::AllocateNodeData(*m_buffer, SSGBufferMatrix, m_scene->nNumFrame * 64u);
  calculateAllWorldMatrix();
}

void AnimationNodeConverter::calculateAllWorldMatrix() {
  const uint32_t node = static_cast<uint32_t>(m_nodeIndex);
  for (int32_t f = 0; f < m_frameCount; ++f) {
    m_evaluator.setFrame(static_cast<float>(f));
    korvex::StoreMatrixLE(m_buffer->data + 64 * static_cast<size_t>(f), m_evaluator.world(node));
  }
}
