#pragma once
// The rules by which a POD scene becomes a scene graph, decided in one place: what each node
// becomes (by the range of the node array it stands in, the keyword its name starts with, whether
// the scene has frames and whether its mesh has bone batches), the light-map definitions and the
// meshes linked to them, which nodes are baked, how many node headers the file header announces
// and how many the conversion makes, and the parent chains (depths, and the first chain that
// never reaches a root).
//
// SceneRules reads a scene once, then only answers. The converter, the checks made before a
// conversion, the pipeline fuzz target and podimport ask it rather than deciding for themselves;
// the converter keeps its assertions, this only says what the scene is. It reads any scene,
// checked or not (names may be null, indices out of range), without reading outside an array.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CPODScene;

namespace korvex {

// What the conversion makes of one POD node.
enum class NodeKind : uint8_t {
  kNotConverted,        // past the camera nodes: bones, helpers, targets
  kLightMapDefinition,  // "LIGHTMAP" and three more characters: a material, no node of its own
  kMesh,                // a mesh without keyword in a scene without frames
  kLightMappedMesh,     // any other "LIGHTMAP..." name: a mesh linked to its light map
  kBillboard,
  kMarker,
  kSkyBox,
  kCollisionBox,
  kCollisionSphere,
  kSkeletalMesh,   // without keyword, with frames, its mesh has bone batches: baked
  kAnimationMesh,  // without keyword, with frames, no bone batches: baked
  kLight,
  kCamera,
  kAnimationCamera,  // a camera of a scene with frames: baked
};

// Light-map names are this long; a light-mapped mesh names its light map by this many of its
// first characters.
const size_t kLightMapNameLength = 11;

// A mesh node's kind. The name is tested against the keywords at its start, case-sensitively, in
// the order BILLBOARD, MARKER, SKYBOX, COLLISIONBOX / PITBOX / F1COLLISIONBOX, COLLISIONSPHERE,
// LIGHTMAP; the first that matches decides. A null name has no keyword. `skinned`: the node's mesh
// has bone batches (nBatchCnt > 0).
NodeKind MeshNodeKind(const char* name, bool sceneHasFrames, bool skinned);

// Kinds a mesh node can have (the light-map definition included).
bool IsMeshNodeKind(NodeKind kind);
// Kinds whose record is built on a mesh record (with bounding volumes): every mesh node kind but
// the light-map definition and the marker.
bool IsMeshRecordKind(NodeKind kind);
// Kinds whose animation is baked into per-frame tables.
bool IsBaked(NodeKind kind);
// Kinds whose node makes (or shares) the material record of its POD material: the light-map
// definition, and the mesh-record kinds when their material index is 0 or more. Markers, lights
// and cameras make none.
bool UsesMaterial(NodeKind kind);

// The light map a name names: its first kLightMapNameLength characters (fewer when it is shorter).
std::string LightMapName(const char* name);

class SceneRules {
 public:
  explicit SceneRules(const CPODScene& scene);

  // Nodes the scene holds (0 without a node array).
  uint32_t nodeCount() const { return static_cast<uint32_t>(m_kind.size()); }
  NodeKind kind(uint32_t node) const { return m_kind[node]; }
  bool baked(uint32_t node) const { return IsBaked(m_kind[node]); }

  // Light-map definitions and light-mapped meshes, each in node order.
  const std::vector<uint32_t>& lightMapDefinitions() const { return m_definitions; }
  const std::vector<uint32_t>& lightMappedMeshes() const { return m_lightMapped; }
  // The definition a light-mapped mesh is linked to: the last one of the name it names, since a
  // later definition replaces an earlier one. -1 when none defines it, or for another kind.
  int64_t lightMapOf(uint32_t node) const;
  // For a definition: the nearest earlier definition of the same name; -1 for the first one, or
  // for another kind.
  int64_t earlierDefinition(uint32_t node) const;
  // Every light-mapped mesh finds its light map.
  bool lightMapsLinked() const { return m_unlinked == 0; }

  // The header count the file header announces: one per mesh, light and camera node and per POD
  // material, less one per light-map name (a definition makes a material but no header). Counted
  // in 32 bits from the declared counts, as the file field is.
  uint32_t announcedHeaders() const { return m_announced; }
  // The headers the conversion makes: one per converted node but the definitions, and one per
  // POD material some node makes a record for. Differs from announcedHeaders() when a material is
  // used by nothing (or only by markers) or two definitions share a name.
  uint64_t headersMade() const { return m_made; }

  // Nodes on the node's parent chain, the node itself included (1 for a root); 0 when the chain
  // never reaches a root (it loops, or leads to a parent index beyond the node array). Any
  // negative parent index means no parent.
  uint32_t depth(uint32_t node) const { return m_depth[node]; }
  // The lowest node whose parent index is beyond the node array; -1 when none.
  int64_t parentOutOfRange() const { return m_parentOutOfRange; }
  // Following parents from each node in turn, the first chain that does not reach a root stops at
  // `node`: the first node met twice (`cyclic`), or the node whose parent is beyond the array.
  struct BrokenChain {
    int64_t node = -1;  // -1: every chain reaches a root
    bool cyclic = false;
  };
  BrokenChain firstBrokenChain() const { return m_broken; }

 private:
  void classify(const CPODScene& scene);
  void linkLightMaps(const CPODScene& scene);
  void countHeaders(const CPODScene& scene);
  void followParents(const CPODScene& scene);

  std::vector<NodeKind> m_kind;
  std::vector<uint32_t> m_definitions;
  std::vector<uint32_t> m_lightMapped;
  // Per node: for a light-mapped mesh its definition, for a definition the earlier one; else -1.
  std::vector<int64_t> m_lightMap;
  size_t m_lightMapNames = 0;  // distinct names among the definitions
  size_t m_unlinked = 0;
  uint32_t m_announced = 0;
  uint64_t m_made = 0;
  std::vector<uint32_t> m_depth;
  int64_t m_parentOutOfRange = -1;
  BrokenChain m_broken;
};

}  // namespace korvex
