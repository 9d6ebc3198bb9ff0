#pragma once
// Builds complete CPODScenes in memory (for tests, fixtures, examples and benchmarks) with the
// same ownership a loaded scene has: every array and string is its own malloc'd block, every
// `n...Size` field holds the bytes really allocated, and Build ends with InitImpl, so the scene
// can be evaluated, saved and destroyed like one read from a file.
//
// Node order: a scene's nodes must be mesh nodes, then light nodes, then camera nodes, then all
// others. The builder enforces it: add nodes in that order (AddMeshNode..., AddLightNode...,
// AddCameraNode..., AddNode...); adding a kind after a later kind is a programming error and
// aborts through KX_ASSERT. Because nothing is reordered, every index an Add function returns is
// the record's final index in the built scene.
//
// Defaults of new records: nodes have nIdx/nIdxMaterial/nIdxParent as given (-1 for none),
// position 0, rotation (0, 0, 0, 1), scale 1, no animation; materials have opacity 1; camera and
// light targets are -1. Everything else is zero.
//
// Channel arrays are copied exactly as given (their size fields say how many keys they hold),
// so short or one-key arrays can be built on purpose; nothing is checked against nNumFrame.
//
// Minimal use:
//   korvex::PODSceneBuilder b;
//   int mesh = b.AddMesh(3);
//   b.SetFloatStream(mesh, korvex::PODStream::Vertex, 3, {0,0,0, 1,0,0, 0,1,0});
//   b.SetFaces(mesh, {0, 1, 2});
//   int node = b.AddMeshNode("box", mesh);
//   b.SetNumFrames(2);
//   b.SetAnimPosition(node, {0,0,0, 1,2,3});
//   CPODScene scene;
//   b.Build(scene);

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pod/PODModel.h"

namespace korvex {

// Per-vertex streams of a mesh other than texture coordinates (those are added with AddUVW).
enum class PODStream { Vertex, Normals, Tangents, Binormals, Colours, BoneIdx, BoneWeight };

class PODSceneBuilder {
 public:
  PODSceneBuilder();
  ~PODSceneBuilder();  // releases whatever was added but never built
  PODSceneBuilder(const PODSceneBuilder&) = delete;
  PODSceneBuilder& operator=(const PODSceneBuilder&) = delete;

  // Scene-wide fields.
  void SetNumFrames(uint32_t numFrames);
  void SetFlags(uint32_t flags);
  void SetBackgroundColour(float r, float g, float b);
  void SetAmbientColour(float r, float g, float b);

  // Textures and materials; each returns the new record's index.
  int AddTexture(const char* name);
  int AddMaterial(const char* name, int32_t texture = -1);
  void SetMaterialEffect(int material, const char* effectFile, const char* effectName);

  // Meshes, built in the separate layout; Interleave converts one afterwards.
  int AddMesh(uint32_t numVertex);
  // Copies `bytes` bytes as the stream's own array; the stride is n * size of `type`.
  void SetStream(int mesh, PODStream which, EPODDataType type, uint32_t n, const void* data,
                 size_t bytes);
  void SetFloatStream(int mesh, PODStream which, uint32_t n, const std::vector<float>& values);
  // Adds the next texture-coordinate set; returns its index in psUVW.
  int AddUVW(int mesh, EPODDataType type, uint32_t n, const void* data, size_t bytes);
  int AddFloatUVW(int mesh, uint32_t n, const std::vector<float>& values);
  // Index stream (16-bit); nNumFaces becomes indices / 3 unless the mesh has strips.
  void SetFaces(int mesh, const std::vector<uint16_t>& indices);
  // Index stream of any element type (one component per index), e.g. 32-bit indices.
  void SetFaceData(int mesh, EPODDataType type, const void* data, size_t bytes);
  // Strip lengths in triangles; nNumFaces becomes their sum.
  void SetStrips(int mesh, const std::vector<uint32_t>& lengths);
  // bones[b] = node indices of the bones batch b uses (at most boneMax each).
  void SetBoneBatches(int mesh, int32_t boneMax, const std::vector<std::vector<int32_t>>& bones,
                      const std::vector<int32_t>& offsets);
  // Moves every present per-vertex stream (vertex, normals, tangents, binormals, the UV sets,
  // colours, bone indices, bone weights, in that order) into one interleaved block: each
  // descriptor then holds its byte offset and the whole vertex as its stride.
  void Interleave(int mesh);

  // Nodes, in the required order; each returns the node's index.
  int AddMeshNode(const char* name, int32_t mesh, int32_t material = -1, int32_t parent = -1);
  // Adds light record nNumLight and the node that places it.
  int AddLightNode(const char* name, float r, float g, float b, uint32_t type = 0,
                   int32_t target = -1, int32_t parent = -1);
  // Adds camera record nNumCamera and the node that places it.
  int AddCameraNode(const char* name, float fov, float nearClip, float farClip,
                    int32_t target = -1, int32_t parent = -1);
  int AddNode(const char* name, int32_t parent = -1);

  void SetParent(int node, int32_t parent);
  void SetPosition(int node, float x, float y, float z);
  void SetRotation(int node, float x, float y, float z, float w);
  void SetScale(int node, float x, float y, float z);
  // Channel arrays: 3 floats a key for position, 4 for rotation, 7 for scale (x, y, z then four
  // unused words; see ScaleKeys), 16 for the matrix. `animated` sets or clears the channel's bit.
  void SetAnimPosition(int node, const std::vector<float>& keys, bool animated = true);
  void SetAnimRotation(int node, const std::vector<float>& keys, bool animated = true);
  void SetAnimScale(int node, const std::vector<float>& keys, bool animated = true);
  void SetAnimMatrix(int node, const std::vector<float>& keys, bool animated = true);
  // Field of view per frame of camera `camera` (its index among the cameras).
  void SetAnimFOV(int camera, const std::vector<float>& fov);

  // Pads x, y, z scale triples to the 7-float keys of the scale channel.
  static std::vector<float> ScaleKeys(const std::vector<float>& xyz);

  // Direct access for unusual fields. A reference stays valid until the next Add of its kind.
  // Pointers placed in records must be malloc'd blocks (the scene frees them), with their size
  // fields set. Scene() holds the scene-wide scalars only: counts and arrays come from the Adds.
  SPODScene& Scene() { return m_scene; }
  SPODNode& Node(int index);
  SPODMesh& Mesh(int index);
  SPODMaterial& Material(int index);
  SPODTexture& Texture(int index);
  SPODCamera& Camera(int index);
  SPODLight& Light(int index);
  int NumNodes() const { return static_cast<int>(m_nodes.size()); }

  // Releases what `scene` held, hands it everything added so far and runs InitImpl. The builder
  // is empty afterwards and can be reused. False only when InitImpl fails.
  bool Build(CPODScene& scene);

 private:
  enum NodeKind { kMeshNode, kLightNode, kCameraNode, kOtherNode };
  int AddNodeOfKind(NodeKind kind, const char* name, int32_t idx, int32_t parent);
  CPODData& StreamOf(SPODMesh& mesh, PODStream which);

  SPODScene m_scene;
  std::vector<SPODNode> m_nodes;
  std::vector<SPODMesh> m_meshes;
  std::vector<SPODMaterial> m_materials;
  std::vector<SPODTexture> m_textures;
  std::vector<SPODCamera> m_cameras;
  std::vector<SPODLight> m_lights;
  uint32_t m_kindCount[4];
};

}  // namespace korvex
