#include "support/FullPODScene.h"

#include <cstdint>
#include <vector>

using korvex::PODSceneBuilder;
using korvex::PODStream;

namespace korvex::test {

namespace {

std::vector<float> Ramp(size_t n, float start) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + 0.25f * float(i);
  return v;
}

// Every per-vertex stream, in types other than float too.
void FillMesh(PODSceneBuilder& b, int mesh, uint32_t vertices) {
  b.SetFloatStream(mesh, PODStream::Vertex, 3, Ramp(vertices * 3, 1));
  b.SetFloatStream(mesh, PODStream::Normals, 3, Ramp(vertices * 3, 2));
  b.SetFloatStream(mesh, PODStream::Tangents, 3, Ramp(vertices * 3, 3));
  b.SetFloatStream(mesh, PODStream::Binormals, 3, Ramp(vertices * 3, 4));
  b.AddFloatUVW(mesh, 2, Ramp(vertices * 2, 5));
  std::vector<int16_t> uv2(vertices * 2, -7);
  b.AddUVW(mesh, EPODDataInt16, 2, uv2.data(), uv2.size() * 2);
  std::vector<uint32_t> colours(vertices, 0x11223344u);
  b.SetStream(mesh, PODStream::Colours, EPODDataColourARGB, 1, colours.data(), colours.size() * 4);
  std::vector<uint8_t> bones(vertices * 4, 3);
  b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, bones.data(), bones.size());
  b.SetFloatStream(mesh, PODStream::BoneWeight, 2, Ramp(vertices * 2, 0.5f));
}

}  // namespace

void BuildFullPODScene(PODSceneBuilder& b) {
  b.SetNumFrames(3);
  b.SetFlags(6);  // bits other than fixed point pass through untouched
  b.SetBackgroundColour(0.1f, 0.2f, 0.3f);
  b.SetAmbientColour(0.4f, 0.5f, 0.6f);
  int tex0 = b.AddTexture("stone.png");
  b.AddTexture("grass.tga");
  int mat = b.AddMaterial("rock", tex0);
  b.SetMaterialEffect(mat, "lit.pfx", "Lit");
  SPODMaterial& m = b.Material(mat);
  m.fMatOpacity = 0.75f;
  m.fMatShininess = 12.5f;
  for (int i = 0; i < 3; ++i) {
    m.pfMatAmbient[i] = 0.1f * float(i + 1);
    m.pfMatDiffuse[i] = 0.2f * float(i + 1);
    m.pfMatSpecular[i] = 0.3f * float(i + 1);
  }
  b.AddMaterial("plain");  // no effect strings, no texture

  // Separate layout with strips and bone batches.
  int strip = b.AddMesh(6);
  FillMesh(b, strip, 6);
  b.SetStrips(strip, {2, 1});
  b.SetFaces(strip, {0, 1, 2, 3, 4, 5, 2});
  b.SetBoneBatches(strip, 3, {{4, 5, 6}, {6, 7}}, {0, 3});
  // Interleaved layout with a triangle list of 32-bit indices.
  int inter = b.AddMesh(4);
  FillMesh(b, inter, 4);
  const uint32_t idx[6] = {0, 1, 2, 2, 1, 3};
  b.SetFaceData(inter, EPODDataInt32, idx, sizeof idx);
  b.Interleave(inter);

  int root = b.AddMeshNode("strip", strip, mat);
  b.AddMeshNode("inter", inter, 1, root);
  b.AddLightNode("sun", 1.0f, 0.9f, 0.8f, 0xDEADBEEFu, root);
  b.AddCameraNode("eye", 0.8f, 0.5f, 500.0f, 1, root);
  b.SetAnimFOV(0, {0.8f, 0.9f, 1.0f});
  int bone = b.AddNode("bone", root);
  b.Node(bone).nIdx = 7;
  b.SetAnimPosition(bone, Ramp(9, 0));
  b.SetAnimRotation(bone, {0, 0, 0, 1, 0, 0, 0.6f, 0.8f, 0, 0.6f, 0, 0.8f});
  b.SetAnimScale(bone, PODSceneBuilder::ScaleKeys(Ramp(9, 1)));
  b.SetAnimMatrix(bone, Ramp(48, -3));
  int still = b.AddNode("still", bone);
  b.SetAnimPosition(still, {1, 2, 3}, false);
  b.SetAnimRotation(still, {0, 0, 0, 1}, false);
  b.SetAnimScale(still, PODSceneBuilder::ScaleKeys({2, 2, 2}), false);
  b.SetAnimMatrix(still, Ramp(16, 0), false);
}

}  // namespace korvex::test
