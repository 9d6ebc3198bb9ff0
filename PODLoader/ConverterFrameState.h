#pragma once
// The evaluation state a baking converter keeps apart from the scene's, and the frame driving
// both converters share. Each converter keeps its own channel rules; only this scaffolding is
// common.

#include <algorithm>
#include <cstdint>
#include <vector>

#include "pod/PODModel.h"

class ConverterFrameState {
 public:
  // Drives the scene's own frame state: the blend and index the channel rules read are the
  // scene's.
  void setFrame(float frame);
  int32_t currentFrame() const { return m_currentFrame; }

 protected:
  ConverterFrameState();
  ConverterFrameState(const ConverterFrameState&) = delete;
  ConverterFrameState& operator=(const ConverterFrameState&) = delete;
  ~ConverterFrameState() = default;

  // Fresh state for m_scene at frame 0, its frame-0 table filled by `evaluate(out, node)`.
  template <class Evaluate>
  void startFrames(Evaluate evaluate) {
    createEvaluationState();
    setFrame(0);
    for (uint32_t i = 0; i < m_scene->nNumNode; ++i) {
      evaluate(m_worldFrameZero[i], m_scene->pNode[i]);
    }
    m_worldCache = m_worldFrameZero;
    std::fill(m_cachedFrame.begin(), m_cachedFrame.end(), 0.0f);
    m_impl.pmWorldCache = m_worldCache.data();
  }

  // The rotation rule both baking converters share: no rotation array means no rotation, flag 2
  // takes the rotation between keys n and n + 1 as the scene does, a clear flag takes key 0 (the
  // scene's own rule takes the static pfRotation there instead).
  void bakedRotationMatrix(PODMATRIXf& out, const SPODNode& node) const;

  CPODScene* m_scene = nullptr;
  int32_t m_frameCount = 0;
  int32_t m_currentFrame = 0;

  // The converter's own evaluation state; its arrays live in the vectors below, which replace
  // those of the previous node at each conversion and are released with the converter.
  SPODImpl m_impl;
  std::vector<float> m_cachedFrame;
  std::vector<PODMATRIXf> m_worldCache;
  std::vector<PODMATRIXf> m_worldFrameZero;

 private:
  void createEvaluationState();
};
