#pragma once
// Evaluation of a node's transform at a frame, written once for the three rule sets that use it:
// the scene's own (CPODScene's Get... operations), skeletal baking and animation baking. The
// rule sets differ on purpose; EvaluationRules names each point where they do.
//
// A node's world matrix is S x R x T x parent world. NodeEvaluator, the bakers' evaluator, keeps
// each node's world matrix at the current frame once computed, so a frame costs one local matrix
// and one product a node however many bones share an ancestor. Every matrix is still the product
// the uncached definition forms, in the same grouping: local(n) x world(parent(n)).

#include <cstdint>
#include <vector>

#include "pod/PODModel.h"

namespace korvex {

// The frame fields of an evaluation state, as SPODImpl holds them. Baked records copy the fields
// the previously converted node left, so they are handed from one conversion to the next.
struct FrameFields {
  float frame = 0.0f;  // the frame last set
  float blend = 0.0f;  // weight of key index + 1
  int32_t index = 0;   // key index: the frame truncated toward zero
};

FrameFields FieldsOf(const SPODImpl& state);
void StoreFields(SPODImpl& state, const FrameFields& fields);

// Where a rule set departs from the scene's own rules (kSceneRules: all false).
struct EvaluationRules {
  const char* name;
  // A position or scale channel whose flag is clear is interpolated all the same (else key 0).
  bool interpolateUnflagged;
  // A rotation channel whose flag is clear reads its key 0 (else the static pfRotation).
  bool unflaggedRotationReadsKeyZero;
  // A node without rotation keys is not rotated (else it takes the static pfRotation).
  bool absentRotationIsIdentity;
  // A matrix channel, when present, replaces scale, rotation and position.
  bool matrixChannelReplaces;
  // The parent chain does not apply: a node's matrix is relative to its parent.
  bool withoutParents;
  // The bind pose of a bone matrix is the mesh node's first keys (no static fallback) times its
  // parent's world matrix only when that parent is above node 0; else the mesh's world at frame 0.
  bool bindPoseFromFirstKeys;
};

// The scene's own: a position or scale whose flag is clear reads key 0, a rotation whose flag is
// clear (or without keys) the static pfRotation; no matrix channel; parents apply; the bind pose
// is the mesh node's world matrix at frame 0.
extern const EvaluationRules kSceneRules;
// Skeletal baking: position and scale interpolate whatever the flags say; an unflagged rotation
// reads key 0 and one without keys is the identity; no matrix channel; parents apply; the bind
// pose is the mesh node's first keys, and a mesh parented to node 0 keeps no parent in it.
extern const EvaluationRules kSkeletalRules;
// Animation baking: a clear flag reads key 0 as in the scene's, but for rotation too, and no
// rotation keys means no rotation; a matrix channel replaces the others; parents never apply
// (there are no bone matrices here).
extern const EvaluationRules kAnimationRules;

// Where the keys are read: key `index` blended with key index + 1 by `blend`; a flagged matrix
// channel reads key `matrixKey` unblended.
struct KeyPoint {
  int64_t index;
  float blend;
  int64_t matrixKey;
};

PODVECTOR3f NodePosition(const SPODNode& node, const EvaluationRules& rules, const KeyPoint& at);
PODVECTOR3f NodeScale(const SPODNode& node, const EvaluationRules& rules, const KeyPoint& at);
void NodeRotationMatrix(PODMATRIXf& out, const SPODNode& node, const EvaluationRules& rules,
                        const KeyPoint& at);
// The node alone: its matrix channel where the rules take it, else (S x R) x T.
void NodeLocalMatrix(PODMATRIXf& out, const SPODNode& node, const EvaluationRules& rules,
                     const KeyPoint& at);
// The world matrix from scratch, the chain walked to its root (cut after nNumNode parent steps,
// so a cyclic chain ends); a parent index outside the node array ends the chain.
void NodeWorldMatrix(PODMATRIXf& out, const SPODScene& scene, const SPODNode& node,
                     const EvaluationRules& rules, const KeyPoint& at);

// A bone matrix is bindPose x inverse(boneWorld(0)) x boneWorld(frame): from the mesh's bind pose
// into the bone's animated pose. The first two factors do not depend on the frame.
void BoneBindTerm(PODMATRIXf& out, const PODMATRIXf& bindPose, const PODMATRIXf& boneWorldAtZero);
void BoneMatrix(PODMATRIXf& out, const PODMATRIXf& bindTerm, const PODMATRIXf& boneWorld);

// The parent of a node, or null for a root and for a parent index outside the node array.
const SPODNode* ParentOf(const SPODScene& scene, const SPODNode& node);

// World matrices of a scene's nodes at one point, each computed once from its parent's. A node
// whose chain loops is computed from scratch each time and never kept (its cut chain depends on
// where it starts).
class WorldTable {
 public:
  // Forget everything; room for `nodes` nodes.
  void reset(uint32_t nodes);
  // Forget the matrices, keep the room: the point has changed.
  void invalidate();
  bool empty() const { return m_stamp.empty(); }
  const PODMATRIXf& world(const SPODScene& scene, uint32_t node, const EvaluationRules& rules,
                          const KeyPoint& at);

 private:
  std::vector<PODMATRIXf> m_world;
  std::vector<uint32_t> m_stamp;  // m_world[i] is valid when m_stamp[i] == m_current
  uint32_t m_current = 1;
  std::vector<uint32_t> m_path;   // scratch: a node and its unknown ancestors, child first
  PODMATRIXf m_uncached;
};

// The bakers' evaluator: its own frame state (not the scene's), and the world matrices of the
// current frame (kept, those of every whole frame: see keepFrames).
class NodeEvaluator {
 public:
  explicit NodeEvaluator(const EvaluationRules& rules) : m_rules(&rules) {}
  NodeEvaluator(const NodeEvaluator&) = delete;
  NodeEvaluator& operator=(const NodeEvaluator&) = delete;

  const EvaluationRules& rules() const { return *m_rules; }

  // A fresh state for `scene` (not owned; it must outlive the evaluation): nothing cached, the
  // frame fields those `carried` over from the previously converted node, then frame 0.
  void start(const SPODScene& scene, const FrameFields& carried);

  // The bakers' frame selection: the integer frame is `frame` truncated; with animation the key
  // index is that and the blend the rest, else both 0. A frame beyond the frame count resets the
  // integer frame to 0 and leaves the frame field as it was.
  void setFrame(float frame);
  const FrameFields& fields() const { return m_fields; }
  int32_t currentFrame() const { return m_currentFrame; }
  int32_t frameCount() const { return m_frameCount; }

  // World matrix of node i at the current frame, by the rules (relative to the parent when they
  // apply no parents).
  const PODMATRIXf& world(uint32_t node);
  // While `scene` is the one evaluated (null: never), the world matrices of each whole frame are
  // kept from one start() to the next: bakers of several meshes that share bones then compute a
  // bone's world at a frame once. The scene must not change meanwhile. Scenes whose frames and
  // nodes would take more than kKeptFramesBudget bytes keep nothing.
  void keepFrames(const SPODScene* scene);
  static constexpr uint64_t kKeptFramesBudget = uint64_t{32} << 20;
  // bindPose(mesh) x inverse(boneWorld(0)) of one bone, evaluated at frame 0 (the frame is left
  // there).
  void bindTerm(PODMATRIXf& out, uint32_t meshNode, uint32_t boneNode);

 private:
  KeyPoint keyPoint() const;

  const EvaluationRules* m_rules;
  const SPODScene* m_scene = nullptr;
  FrameFields m_fields;
  int32_t m_currentFrame = 0;
  int32_t m_frameCount = 0;
  WorldTable m_table;  // any other point
  const SPODScene* m_kept = nullptr;
  std::vector<WorldTable> m_frames;  // whole frame f at m_frames[f], kept (see keepFrames)
  WorldTable* m_current = &m_table;
};

}  // namespace korvex
