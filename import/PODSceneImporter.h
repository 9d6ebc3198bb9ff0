#pragma once
// Turns a scene read by the import library into a POD scene laid out the way Korvex converts it.
//
// Layout of the written scene:
// - Nodes in the order mesh nodes, light nodes, camera nodes, then all others; within each kind in
//   the depth-first order of the source tree. Every source node keeps its name and its parent.
//   A source node with several meshes (or a mesh cut into pieces) gets one mesh node each, the
//   first under the node's own name and the others named NAME_1, NAME_2, ..., as siblings with
//   the same transform; they are placed alike whether or not a reader applies parents.
// - Skinned meshes are root nodes at the origin: the library places a skinned vertex by its bones
//   alone (bone world matrix times offset matrix), so the node's own transform has no say.
// - Cameras and lights look at a target node NAME.Target, a child one unit along their viewing
//   direction. Light kinds: point 0, directional 1, spot 2; area lights become point lights and
//   ambient lights add their colour to the scene's ambient colour.
// - Every node has position, rotation and scale channels: one key when still, one key a frame
//   when it moves. One animation is sampled at a fixed rate, so nNumFrame is the number of
//   samples. Korvex takes each bone's matrix relative to frame 0, so with skinned meshes frame 0
//   must be the bind pose: an animation that does not start there gets the bind pose inserted
//   as an extra frame 0 (bones in their bind pose, every other node in its rest pose). A scene
//   without animation is still (nNumFrame 0) and its skinned meshes show their bind pose.
// - Skin: at most 4 bones a vertex (the strongest, scaled to sum 1); bone indices are unsigned
//   bytes (n = the most bones any vertex of the mesh follows), weights floats; batches of at most
//   --max-bones bones, each batch's offset counted in triangles of its mesh.
// - Materials are the source materials some mesh node uses (mesh nodes named MARKER... use none);
//   textures are the diffuse textures of those materials, by the file name the source gives as
//   --texture-names has it (TextureNames.h).
// - Light maps as Korvex links them (a mesh node LIGHTMAPxyz of exactly 11 characters defines
//   one, with its material; other LIGHTMAP... mesh nodes use the one their first 11 characters
//   name) are checked: a scene Korvex would stop at is refused.

#include <assimp/scene.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "import/ImportOptions.h"
#include "import/ImportSummary.h"
#include "import/MeshPartition.h"
#include "import/PODConventions.h"
#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "import/SourceHierarchy.h"
#include "import/TextureNames.h"

namespace korvex::podimport {

// Ceilings that keep a hostile file from asking for absurd amounts of memory.
const size_t kMaxSourceNodes = size_t{1} << 22;
const uint64_t kMaxNodeFrames = uint64_t{1} << 22;  // moving nodes times frames

class PODSceneImporter {
 public:
  // `modelFolder`: the folder of the model file, from which relative texture names are taken
  // (ModelFolderOf).
  PODSceneImporter(const aiScene& scene, const ImportOptions& options,
                   const std::string& modelFolder = ModelFolderOf("./model"));

  // Fills `out` (anything it held is released). False with a one-line `error` when the scene
  // cannot be converted; `summary` then holds nothing of use.
  bool Convert(CPODScene& out, ImportSummary& summary, std::string& error);

 private:
  struct MeshConversion {
    bool converted = false;
    bool usable = false;              // has triangles
    bool skinned = false;             // some vertex follows a bone
    std::vector<int32_t> boneSource;  // mesh bone number -> source node
    PartitionResult partition;
    std::vector<int32_t> podMesh;  // POD mesh of each piece, -1 until built
  };

  enum class Kind { kMesh, kLight, kCamera, kOther };
  struct PlannedNode {
    std::string name;
    Kind kind = Kind::kOther;
    int32_t source = -1;         // the source node whose transform it takes; -1: still
    int32_t parentSource = -1;   // parent: the primary node of this source node
    int32_t parentPlanned = -1;  // or this planned node (target nodes)
    uint32_t mesh = 0;           // source mesh and piece (mesh nodes)
    uint32_t piece = 0;
    int32_t light = -1;                // source light (light nodes)
    int32_t camera = -1;               // source camera (camera nodes)
    int32_t target = -1;               // planned target node of a light or camera
    aiVector3D targetOffset{0, 0, 0};  // position of a target node under its parent
    int32_t material = -1;             // POD material (mesh nodes)
    int32_t index = -1;                // index in the written node array
  };

  bool SelectAnimation(std::string& error);
  void ResolveLightsAndCameras();
  bool ConvertMesh(uint32_t mesh, std::string& error);
  void RegisterBind(int32_t source, const aiMatrix4x4& offset, const std::string& meshName);
  bool SampleFrames(std::string& error);
  aiMatrix4x4 SampledLocalMatrix(size_t source, uint32_t sample) const;
  // The local transform at written frame `frame` (valid once the frames are settled).
  LocalTransform FrameLocal(size_t source, uint32_t frame) const;
  void PlanNodes();
  int32_t Plan(const PlannedNode& node);
  void PlanTarget(int32_t owner, const aiVector3D& direction);
  void PlanMaterials();
  // Whether Korvex makes (or shares) a material record for the mesh node: not for a marker.
  bool UsesMaterial(const PlannedNode& node) const;
  // The light maps of the built scene as Korvex links them.
  bool CheckLightMaps(const CPODScene& scene, std::string& error) const;
  bool CanMove(const PlannedNode& node) const;
  bool SkinnedPiece(uint32_t mesh, uint32_t piece) const;
  bool Build(CPODScene& out, std::string& error);
  void BuildMeshPiece(korvex::PODSceneBuilder& builder, uint32_t mesh, uint32_t piece);
  void BuildChannels(korvex::PODSceneBuilder& builder, const PlannedNode& node, int index);
  void Note(const std::string& text);
  std::string TextureNameOf(const std::string& written);

  const aiScene& m_scene;
  const ImportOptions m_options;
  const std::string m_modelFolder;
  SourceHierarchy m_hierarchy;
  ImportSummary m_summary;

  // Per source node.
  std::vector<int32_t> m_light;    // source light placed by the node, -1
  std::vector<int32_t> m_camera;   // source camera placed by the node, -1
  std::vector<int32_t> m_channel;  // channel of the sampled animation, -1
  std::vector<uint8_t> m_isBone;
  std::vector<uint8_t> m_hasBind;
  std::vector<aiMatrix4x4> m_bindWorld;  // a bone's world matrix in the bind pose
  std::vector<int32_t> m_primary;        // planned node that stands for the source node
  std::vector<std::vector<LocalTransform>> m_samples;  // per animated node, per sampled frame
  std::vector<LocalTransform> m_bindLocal;             // when the bind pose is inserted

  std::vector<MeshConversion> m_meshes;
  const aiAnimation* m_animation = nullptr;
  uint32_t m_sampledFrames = 0;
  bool m_bindInserted = false;
  uint32_t m_frames = 0;  // nNumFrame
  float m_ambient[3] = {0, 0, 0};

  std::vector<PlannedNode> m_planned;
  std::vector<int32_t> m_order[4];        // planned nodes of each kind, in order
  std::vector<int32_t> m_materialOf;      // source material -> POD material, -1
  std::vector<uint32_t> m_usedMaterials;  // source materials, in POD order
  std::unordered_map<std::string, std::string> m_textureNamed;  // written name -> name
  std::unordered_map<std::string, std::string> m_textureFrom;   // name -> first written name
};

}  // namespace korvex::podimport
