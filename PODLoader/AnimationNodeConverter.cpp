#include "convert/AnimationNodeConverter.h"

#include "pod/ChannelKeys.h"
#include "qsn/NodeDataBuffer.h"

void AnimationNodeConverter::init() {
  m_currentFrame = 0;
  m_frameCount = 0;
}

void AnimationNodeConverter::convertAnimationNode(CPODScene* scene, int nodeIndex,
                                                  SSGNodeData* buffer) {
  m_scene = scene;
  m_buffer = buffer;
  m_nodeIndex = nodeIndex;
  m_objectIndex = scene->pNode[nodeIndex].nIdx;
  init();
  m_frameCount = static_cast<int32_t>(scene->nNumFrame);

  startFrames([this](PODMATRIXf& out, const SPODNode& node) { getWorldMatrixNoCache(out, node); });

  createWorldMatrixBuffer();
}

// Channel rules of this converter: those of the scene's own evaluation, except that a present
// rotation without its flag reads key 0 of its keys (not the static rotation), and a matrix
// channel, when present, replaces the other three.
void AnimationNodeConverter::getTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  PODVECTOR3f p{node.pfPosition[0], node.pfPosition[1], node.pfPosition[2]};
  if (korvex::PositionKeyCount(node) > 0) {
    p = korvex::PositionKey(node, 0);
    if (node.nAnimFlags & ePODHasPositionAni) {
      const SPODImpl& state = *m_scene->m_pImpl;
      PODMatrixVec3LerpF(p, korvex::PositionKey(node, state.nFrameIndex),
                         korvex::PositionKey(node, int64_t{state.nFrameIndex} + 1),
                         state.fFrameBlend);
    }
  }
  PODMatrixTranslationF(out, p.x, p.y, p.z);
}

void AnimationNodeConverter::getScalingMatrix(PODMATRIXf& out, const SPODNode& node) const {
  PODVECTOR3f s{node.pfScale[0], node.pfScale[1], node.pfScale[2]};
  if (korvex::ScaleKeyCount(node) > 0) {
    s = korvex::ScaleKey(node, 0);
    if (node.nAnimFlags & ePODHasScaleAni) {
      const SPODImpl& state = *m_scene->m_pImpl;
      PODMatrixVec3LerpF(s, korvex::ScaleKey(node, state.nFrameIndex),
                         korvex::ScaleKey(node, int64_t{state.nFrameIndex} + 1), state.fFrameBlend);
    }
  }
  PODMatrixScalingF(out, s.x, s.y, s.z);
}

void AnimationNodeConverter::getRotationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  bakedRotationMatrix(out, node);
}

// The matrix channel: the key of the current integer frame, never blended; key 0 unflagged.
void AnimationNodeConverter::getTransformationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  const int64_t key = (node.nAnimFlags & ePODHasMatrixAni) ? m_currentFrame : 0;
  out = korvex::MatrixKey(node, key);
}

// The node's own S x R x T (or its matrix channel); the parent chain is never applied, so the
// table holds each node's matrix relative to its parent.
void AnimationNodeConverter::getWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node) const {
  if (korvex::MatrixKeyCount(node) > 0) {
    getTransformationMatrix(out, node);
    return;
  }
  PODMATRIXf tmp;
  getScalingMatrix(out, node);
  getRotationMatrix(tmp, node);
  PODMatrixMultiplyF(out, out, tmp);
  getTranslationMatrix(tmp, node);
  PODMatrixMultiplyF(out, out, tmp);
}

void AnimationNodeConverter::getWorldMatrix(PODMATRIXf& out, const SPODNode& node) {
  const size_t i = static_cast<size_t>(&node - m_scene->pNode);
  const float frame = m_scene->m_pImpl->fCurrentFrame;
  if (frame == 0.0f) {
    out = m_worldFrameZero[i];
  } else if (frame == m_cachedFrame[i]) {
    out = m_worldCache[i];
  } else {
    getWorldMatrixNoCache(out, node);
    m_cachedFrame[i] = frame;
    m_worldCache[i] = out;
  }
}

void AnimationNodeConverter::getWorldMatrix(PODMATRIXf& out, const SPODNode& frameNode,
                                            const SPODNode& node) {
  (void)frameNode;
  setFrame(static_cast<float>(m_currentFrame));
  getWorldMatrix(out, node);
}

void AnimationNodeConverter::createWorldMatrixBuffer() {
  korvex::AllocateNodeData(*m_buffer, SSGBufferMatrix, m_scene->nNumFrame * 64u);
  calculateAllWorldMatrix();
}

void AnimationNodeConverter::calculateAllWorldMatrix() {
  const SPODNode& node = m_scene->pNode[m_nodeIndex];
  for (int32_t f = 0; f < m_frameCount; ++f) {
    setFrame(static_cast<float>(f));
    PODMATRIXf m;
    getWorldMatrix(m, node, node);
    korvex::StoreMatrixLE(m_buffer->data + 64 * static_cast<size_t>(f), m);
  }
}
