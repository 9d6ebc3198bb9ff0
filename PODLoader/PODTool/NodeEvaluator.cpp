#include "pod/NodeEvaluator.h"

#include <cstring>

#include "pod/ChannelKeys.h"

namespace korvex {

// name, interpolateUnflagged, unflaggedRotationReadsKeyZero, absentRotationIsIdentity,
// matrixChannelReplaces, withoutParents, bindPoseFromFirstKeys
const EvaluationRules kSceneRules = {"scene", false, false, false, false, false, false};
const EvaluationRules kSkeletalRules = {"skeletal", true, true, true, false, false, true};
const EvaluationRules kAnimationRules = {"animation", false, true, true, true, true, false};

FrameFields FieldsOf(const SPODImpl& state) {
  FrameFields f;
  f.frame = state.fCurrentFrame;
  f.blend = state.fFrameBlend;
  f.index = state.nFrameIndex;
  return f;
}

void StoreFields(SPODImpl& state, const FrameFields& fields) {
  state.fCurrentFrame = fields.frame;
  state.fFrameBlend = fields.blend;
  state.nFrameIndex = fields.index;
}

const SPODNode* ParentOf(const SPODScene& scene, const SPODNode& node) {
  const uint32_t count = scene.pNode ? scene.nNumNode : 0;
  if (node.nIdxParent < 0 || static_cast<uint32_t>(node.nIdxParent) >= count) return nullptr;
  return &scene.pNode[node.nIdxParent];
}

namespace {

template <class Key>
PODVECTOR3f VectorChannel(const SPODNode& node, size_t keys, Key key, bool flagged,
                          const float* fixed, const EvaluationRules& rules, const KeyPoint& at) {
  if (keys == 0) return PODVECTOR3f{fixed[0], fixed[1], fixed[2]};
  if (!flagged && !rules.interpolateUnflagged) return key(node, 0);
  PODVECTOR3f out;
  PODMatrixVec3LerpF(out, key(node, at.index), key(node, at.index + 1), at.blend);
  return out;
}

// (S x R) x T.
void Compose(PODMATRIXf& out, const PODVECTOR3f& scale, const PODMATRIXf& rotation,
             const PODVECTOR3f& position) {
  PODMATRIXf translation;
  PODMatrixScalingF(out, scale.x, scale.y, scale.z);
  PODMatrixMultiplyF(out, out, rotation);
  PODMatrixTranslationF(translation, position.x, position.y, position.z);
  PODMatrixMultiplyF(out, out, translation);
}

// The bind pose of a skinned mesh node: its first keys, which exporters write for skinned meshes
// (checked before baking); the static values stand in only for a channel without keys.
void FirstKeysMatrix(PODMATRIXf& out, const SPODNode& node) {
  const float* s = node.pfScale;
  const float* p = node.pfPosition;
  const float* r = node.pfRotation;
  const PODVECTOR3f scale = ScaleKeyCount(node) ? ScaleKey(node, 0) : PODVECTOR3f{s[0], s[1], s[2]};
  const PODVECTOR3f position =
      PositionKeyCount(node) ? PositionKey(node, 0) : PODVECTOR3f{p[0], p[1], p[2]};
  PODMATRIXf rotation;
  PODMatrixRotationQuaternionF(rotation, RotationKeyCount(node)
                                             ? RotationKey(node, 0)
                                             : PODQUATERNIONf{r[0], r[1], r[2], r[3]});
  Compose(out, scale, rotation, position);
}

// A node and its ancestors, nearest first, cut after nNumNode parent steps.
class AncestorChain {
 public:
  AncestorChain(const SPODScene& scene, const SPODNode& node) {
    const uint32_t limit = scene.pNode ? scene.nNumNode : 0;
    const SPODNode* current = &node;
    push(current);
    for (uint32_t steps = 0; steps < limit; ++steps) {
      current = ParentOf(scene, *current);
      if (current == nullptr) break;
      push(current);
    }
  }
  size_t size() const { return m_size; }
  const SPODNode& operator[](size_t i) const {
    return *(i < kInline ? m_inline[i] : m_overflow[i - kInline]);
  }

 private:
  static constexpr size_t kInline = 32;  // deeper hierarchies are rare
  void push(const SPODNode* n) {
    if (m_size < kInline)
      m_inline[m_size] = n;
    else
      m_overflow.push_back(n);
    ++m_size;
  }
  const SPODNode* m_inline[kInline];
  std::vector<const SPODNode*> m_overflow;
  size_t m_size = 0;
};

}  // namespace

PODVECTOR3f NodePosition(const SPODNode& node, const EvaluationRules& rules, const KeyPoint& at) {
  return VectorChannel(node, PositionKeyCount(node), PositionKey,
                       (node.nAnimFlags & ePODHasPositionAni) != 0, node.pfPosition, rules, at);
}

PODVECTOR3f NodeScale(const SPODNode& node, const EvaluationRules& rules, const KeyPoint& at) {
  return VectorChannel(node, ScaleKeyCount(node), ScaleKey,
                       (node.nAnimFlags & ePODHasScaleAni) != 0, node.pfScale, rules, at);
}

void NodeRotationMatrix(PODMATRIXf& out, const SPODNode& node, const EvaluationRules& rules,
                        const KeyPoint& at) {
  const float* r = node.pfRotation;
  PODQUATERNIONf q{r[0], r[1], r[2], r[3]};
  if (RotationKeyCount(node) == 0) {
    if (rules.absentRotationIsIdentity) {
      PODMatrixIdentityF(out);
      return;
    }
  } else if (node.nAnimFlags & ePODHasRotationAni) {
    q = RotationBetweenKeys(node, at.index, at.blend);
  } else if (rules.unflaggedRotationReadsKeyZero) {
    q = RotationKey(node, 0);
  }
  PODMatrixRotationQuaternionF(out, q);
}

void NodeLocalMatrix(PODMATRIXf& out, const SPODNode& node, const EvaluationRules& rules,
                     const KeyPoint& at) {
  if (rules.matrixChannelReplaces && MatrixKeyCount(node) > 0) {
    out = MatrixKey(node, (node.nAnimFlags & ePODHasMatrixAni) ? at.matrixKey : 0);
    return;
  }
  PODMATRIXf rotation;
  NodeRotationMatrix(rotation, node, rules, at);
  Compose(out, NodeScale(node, rules, at), rotation, NodePosition(node, rules, at));
}

void NodeWorldMatrix(PODMATRIXf& out, const SPODScene& scene, const SPODNode& node,
                     const EvaluationRules& rules, const KeyPoint& at) {
  if (rules.withoutParents) {
    NodeLocalMatrix(out, node, rules, at);
    return;
  }
  // local(n) x (local(parent) x (local(grandparent) x ...)), built from the root down so that
  // deep hierarchies need no recursion.
  const AncestorChain chain(scene, node);
  PODMATRIXf world;
  PODMATRIXf local;
  for (size_t k = chain.size(); k-- > 0;) {
    NodeLocalMatrix(local, chain[k], rules, at);
    if (k + 1 == chain.size())
      world = local;
    else
      PODMatrixMultiplyF(world, local, world);
  }
  out = world;
}

void BoneBindTerm(PODMATRIXf& out, const PODMATRIXf& bindPose, const PODMATRIXf& boneWorldAtZero) {
  // Inverted in place: a singular matrix is left as it is, as the inverse leaves its output.
  PODMATRIXf inverse = boneWorldAtZero;
  PODMatrixInverseF(inverse, inverse);
  PODMatrixMultiplyF(out, bindPose, inverse);
}

void BoneMatrix(PODMATRIXf& out, const PODMATRIXf& bindTerm, const PODMATRIXf& boneWorld) {
  PODMatrixMultiplyF(out, bindTerm, boneWorld);
}

void WorldTable::reset(uint32_t nodes) {
  m_world.resize(nodes);
  m_stamp.assign(nodes, 0);
  m_current = 1;
}

void WorldTable::invalidate() {
  if (++m_current == 0) {  // wrapped: old stamps could match again
    std::fill(m_stamp.begin(), m_stamp.end(), 0u);
    m_current = 1;
  }
}

const PODMATRIXf& WorldTable::world(const SPODScene& scene, uint32_t node,
                                    const EvaluationRules& rules, const KeyPoint& at) {
  if (m_stamp[node] == m_current) return m_world[node];
  if (rules.withoutParents) {
    NodeLocalMatrix(m_world[node], scene.pNode[node], rules, at);
    m_stamp[node] = m_current;
    return m_world[node];
  }
  // Up to the first ancestor already known (or the root), then down again: world(n) =
  // local(n) x world(parent), the very product the uncached walk forms at that step.
  const uint32_t count = static_cast<uint32_t>(m_stamp.size());
  m_path.clear();
  const PODMATRIXf* above = nullptr;
  for (uint32_t n = node;;) {
    m_path.push_back(n);
    const SPODNode* parent = ParentOf(scene, scene.pNode[n]);
    if (parent == nullptr) break;
    const uint32_t p = static_cast<uint32_t>(parent - scene.pNode);
    if (m_stamp[p] == m_current) {
      above = &m_world[p];
      break;
    }
    if (m_path.size() >= count) {  // more ancestors than nodes: the chain loops
      NodeWorldMatrix(m_uncached, scene, scene.pNode[node], rules, at);
      return m_uncached;
    }
    n = p;
  }
  for (size_t k = m_path.size(); k-- > 0;) {
    const uint32_t n = m_path[k];
    PODMATRIXf local;
    NodeLocalMatrix(local, scene.pNode[n], rules, at);
    if (above != nullptr)
      PODMatrixMultiplyF(m_world[n], local, *above);
    else
      m_world[n] = local;
    m_stamp[n] = m_current;
    above = &m_world[n];
  }
  return m_world[node];
}

void NodeEvaluator::start(const SPODScene& scene, const FrameFields& carried) {
  m_scene = &scene;
  m_fields = carried;
  m_currentFrame = 0;
  m_frameCount = static_cast<int32_t>(scene.nNumFrame);
  const uint32_t nodes = scene.pNode ? scene.nNumNode : 0;
  m_table.reset(nodes);
  m_current = &m_table;
  if (m_kept != &scene)
    m_frames.clear();
  else if (m_frames.empty() &&
           uint64_t{scene.nNumFrame} * nodes * (sizeof(PODMATRIXf) + 4) <= kKeptFramesBudget)
    m_frames.resize(scene.nNumFrame);
  setFrame(0.0f);
}

void NodeEvaluator::keepFrames(const SPODScene* scene) {
  m_kept = scene;
  m_frames.clear();
  m_frames.shrink_to_fit();
  m_current = &m_table;
}

void NodeEvaluator::setFrame(float frame) {
  const KeyPoint before = keyPoint();
  m_currentFrame = static_cast<int32_t>(frame);
  if (m_frameCount != 0) {
    m_fields.index = m_currentFrame;
    m_fields.blend = frame - static_cast<float>(m_currentFrame);
  } else {
    m_fields.index = 0;
    m_fields.blend = 0.0f;
  }
  if (frame > static_cast<float>(m_frameCount)) {
    m_currentFrame = 0;
  } else {
    m_fields.frame = frame;
  }
  // The matrices depend on the key point alone (the blend to the bit: -0 and +0 can differ).
  const KeyPoint after = keyPoint();
  uint32_t blendBefore, blendAfter;
  std::memcpy(&blendBefore, &before.blend, 4);
  std::memcpy(&blendAfter, &after.blend, 4);
  // A whole frame has a table of its own when frames are kept: index and matrix key the frame,
  // the blend +0.
  if (after.index == after.matrixKey && blendAfter == 0 && after.index >= 0 &&
      after.index < static_cast<int64_t>(m_frames.size())) {
    m_current = &m_frames[static_cast<size_t>(after.index)];
    if (m_current->empty()) m_current->reset(m_scene->pNode ? m_scene->nNumNode : 0);
    return;
  }
  if (m_current != &m_table || before.index != after.index || blendBefore != blendAfter ||
      before.matrixKey != after.matrixKey) {
    m_table.invalidate();
  }
  m_current = &m_table;
}

KeyPoint NodeEvaluator::keyPoint() const {
  return KeyPoint{m_fields.index, m_fields.blend, m_currentFrame};
}

const PODMATRIXf& NodeEvaluator::world(uint32_t node) {
  return m_current->world(*m_scene, node, *m_rules, keyPoint());
}

void NodeEvaluator::bindTerm(PODMATRIXf& out, uint32_t meshNode, uint32_t boneNode) {
  setFrame(0.0f);
  PODMATRIXf bind;
  if (m_rules->bindPoseFromFirstKeys) {
    const SPODNode& mesh = m_scene->pNode[meshNode];
    FirstKeysMatrix(bind, mesh);
    // Only a parent above node 0 counts.
    const SPODNode* parent = ParentOf(*m_scene, mesh);
    if (parent != nullptr && mesh.nIdxParent > 0) {
      PODMatrixMultiplyF(bind, bind, world(static_cast<uint32_t>(mesh.nIdxParent)));
    }
  } else {
    bind = world(meshNode);
  }
  BoneBindTerm(out, bind, world(boneNode));
}

}  // namespace korvex
