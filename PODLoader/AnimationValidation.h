#pragma once
// Up-front checks of the nodes whose animation is baked (skinned and animated meshes, animated
// cameras): whether their conversion can run on this scene without reading outside any array,
// and whether what baking them all takes stays within its budget.

#include <cstdint>
#include <string>

#include "pod/PODModel.h"

namespace korvex {
class SceneRules;
}

// Empty when the skeletal or animated conversion of mesh or camera node `nodeIndex` of a scene
// with frames can run safely; otherwise the problem in a few words. Nodes that are not baked
// (other kinds, keyword meshes, scenes without frames) have nothing to check and pass. `rules`
// are the scene's own.
std::string CheckAnimatedNode(const CPODScene& scene, const korvex::SceneRules& rules,
                              unsigned int nodeIndex);

// What baking a scene's animation costs, added up node by node in the order the conversion takes
// them: the bytes of the per-frame tables and the node evaluations that fill them. Both are
// capped, and the node that takes a total past its cap is refused.
class AnimationBudget {
 public:
  // What any scene may take: tables a scene-graph file's 32-bit offsets can hold, and 2^30 node
  // evaluations (one to a few minutes).
  static constexpr uint64_t kMaxBytes = UINT32_MAX;
  static constexpr uint64_t kMaxWork = uint64_t{1} << 30;
  explicit AnimationBudget(uint64_t maxBytes = kMaxBytes, uint64_t maxWork = kMaxWork)
      : m_maxBytes(maxBytes), m_maxWork(maxWork) {}

  // Adds node `nodeIndex`, which CheckAnimatedNode has passed; nodes that are not baked cost
  // nothing. Empty while the totals stay within the caps, otherwise the problem.
  std::string Add(const CPODScene& scene, const korvex::SceneRules& rules, unsigned int nodeIndex);

 private:
  uint64_t m_maxBytes, m_maxWork;
  uint64_t m_bytes = 0;
  uint64_t m_work = 0;
};
