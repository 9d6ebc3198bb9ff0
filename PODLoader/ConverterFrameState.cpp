#include "convert/ConverterFrameState.h"

#include <cstring>

#include "pod/ChannelKeys.h"

ConverterFrameState::ConverterFrameState() {
  std::memset(&m_impl, 0, sizeof m_impl);
}

// All fields zero, the frame fields copied from the scene, fresh per-node caches. The previous
// node's caches are released (reused) here; nothing of them is read again.
void ConverterFrameState::createEvaluationState() {
  const SPODImpl& sceneState = *m_scene->m_pImpl;
  std::memset(&m_impl, 0, sizeof m_impl);
  m_impl.fCurrentFrame = sceneState.fCurrentFrame;
  m_impl.fFrameBlend = sceneState.fFrameBlend;
  m_impl.nFrameIndex = sceneState.nFrameIndex;
  m_impl.bReadFromMemory = sceneState.bReadFromMemory;
  const size_t n = m_scene->nNumNode;
  m_cachedFrame.assign(n, 0.0f);
  m_worldCache.assign(n, PODMATRIXf{});
  m_worldFrameZero.assign(n, PODMATRIXf{});
  m_impl.pfCachedFrame = m_cachedFrame.data();
  m_impl.pmWorldCache = m_worldCache.data();
  m_impl.pmWorldFrameZero = m_worldFrameZero.data();
}

void ConverterFrameState::setFrame(float frame) {
  SPODImpl& state = *m_scene->m_pImpl;
  m_currentFrame = static_cast<int32_t>(frame);
  if (m_frameCount != 0) {
    state.nFrameIndex = m_currentFrame;
    state.fFrameBlend = frame - static_cast<float>(m_currentFrame);
  } else {
    state.nFrameIndex = 0;
    state.fFrameBlend = 0.0f;
  }
  if (frame > static_cast<float>(m_frameCount)) {
    m_currentFrame = 0;
  } else {
    state.fCurrentFrame = frame;
  }
}

void ConverterFrameState::bakedRotationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  if (korvex::RotationKeyCount(node) == 0) {
    PODMatrixIdentityF(out);
    return;
  }
  PODQUATERNIONf q = korvex::RotationKey(node, 0);
  if (node.nAnimFlags & ePODHasRotationAni) {
    const SPODImpl& state = *m_scene->m_pImpl;
    q = korvex::RotationBetweenKeys(node, state.nFrameIndex, state.fFrameBlend);
  }
  PODMatrixRotationQuaternionF(out, q);
}
