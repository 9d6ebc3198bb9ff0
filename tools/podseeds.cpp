// Writes the seed corpus of the POD reader fuzzer: small scenes that between them use every block
// of the format, saved by the project's own writer, plus two hand-made files for what the writer
// never produces (the older node layout and a fixed-point scene).
//
// Usage: podseeds DIRECTORY

#include <cstdio>
#include <string>
#include <vector>

#include "pod/ByteIO.h"
#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"

using korvex::PODSceneBuilder;
using korvex::PODStream;

namespace {

bool Save(PODSceneBuilder& b, const std::string& path, const char* options) {
  CPODScene scene;
  return b.Build(scene) && scene.SavePOD(path.c_str(), options);
}

void Triangle(PODSceneBuilder& b, int mesh) {
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 0, 1});
  b.SetFaces(mesh, {0, 1, 2});
}

// Cameras, lights, materials, textures, a separate and an interleaved mesh, animation.
bool Full(const std::string& path) {
  PODSceneBuilder b;
  b.SetNumFrames(2);
  b.SetBackgroundColour(0.1f, 0.2f, 0.3f);
  int tex = b.AddTexture("wood.png");
  int mat = b.AddMaterial("mat", tex);
  b.SetMaterialEffect(mat, "fx.pfx", "effect");
  int m0 = b.AddMesh(3);
  Triangle(b, m0);
  b.SetStrips(m0, {1});
  b.SetBoneBatches(m0, 2, {{1, 2}}, {0});
  float bone[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  b.SetStream(m0, PODStream::BoneWeight, EPODDataFloat, 1, bone, 12);
  int m1 = b.AddMesh(3);
  Triangle(b, m1);
  b.Interleave(m1);
  int n0 = b.AddMeshNode("mesh0", m0, mat);
  b.AddMeshNode("mesh1", m1, -1, n0);
  b.AddLightNode("light", 1, 1, 1, 2);
  b.AddCameraNode("camera", 0.7f, 1, 100, n0);
  b.SetAnimFOV(0, {0.7f, 0.8f});
  int other = b.AddNode("other", n0);
  b.SetAnimPosition(other, {0, 0, 0, 1, 2, 3});
  b.SetAnimRotation(other, {0, 0, 0, 1, 0, 0, 1, 0});
  b.SetAnimScale(other, PODSceneBuilder::ScaleKeys({1, 1, 1, 2, 2, 2}));
  b.SetAnimMatrix(other, std::vector<float>(32, 0.5f));
  return Save(b, path, "-exportoptions");
}

bool Empty(const std::string& path) {
  PODSceneBuilder b;
  return Save(b, path, "o");
}

bool Hierarchy(const std::string& path) {
  PODSceneBuilder b;
  int parent = -1;
  for (int i = 0; i < 6; ++i) parent = b.AddNode(("n" + std::to_string(i)).c_str(), parent);
  b.SetAnimPosition(3, {1, 2, 3}, false);
  return Save(b, path, nullptr);
}

// Hand-made blocks for files the writer does not produce.
struct Blocks {
  korvex::ByteWriter w;
  void marker(uint32_t tag, uint32_t len) {
    w.u32(tag);
    w.u32(len);
  }
  void words(uint32_t tag, std::vector<uint32_t> v) {
    marker(tag, uint32_t(4 * v.size()));
    for (uint32_t x : v) w.u32(x);
    marker(tag | 0x80000000u, 0);
  }
  void floats(uint32_t tag, std::vector<float> v) {
    marker(tag, uint32_t(4 * v.size()));
    w.floats(v.data(), v.size());
    marker(tag | 0x80000000u, 0);
  }
  void text(uint32_t tag, const char* s) {
    marker(tag, uint32_t(std::string(s).size() + 1));
    w.raw(s, std::string(s).size() + 1);
    marker(tag | 0x80000000u, 0);
  }
  bool save(const std::string& path) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(w.bytes().data(), 1, w.size(), f) == w.size();
    return fclose(f) == 0 && ok;
  }
};

// Two nodes of the older layout (static transforms; one with a position animation) in a
// fixed-point scene with a camera and a light.
bool OlderFixed(const std::string& path) {
  Blocks b;
  b.text(1000, "AB.POD.2.0");
  b.text(1002, "x");
  b.marker(1001, 0);
  b.words(2000, {65536, 0, 32768});
  b.words(2002, {1});
  b.words(2003, {1});
  b.words(2005, {2});
  b.words(2009, {2});
  b.words(2016, {1});
  b.marker(2010, 0);
  b.words(8001, {65536});
  b.words(8004, {65536, 98304});
  b.marker(2010 | 0x80000000u, 0);
  b.marker(2011, 0);
  b.words(7001, {65536, 65536, 0});
  b.marker(2011 | 0x80000000u, 0);
  b.marker(2013, 0);
  b.text(5001, "old");
  b.words(5003, {0xFFFFFFFFu});
  b.words(5004, {65536, 131072, 196608});
  b.words(5005, {0, 0, 0, 65536});
  b.words(5006, {65536, 65536, 65536});
  b.marker(2013 | 0x80000000u, 0);
  b.marker(2013, 0);
  b.text(5001, "older");
  b.words(5003, {0});
  b.words(5004, {0, 0, 0});
  b.words(5007, {0, 0, 0, 65536, 0, 0});
  b.words(7777, {5});  // a tag the reader does not know
  b.marker(2013 | 0x80000000u, 0);
  b.marker(1001 | 0x80000000u, 0);
  return b.save(path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: podseeds DIRECTORY\n");
    return 1;
  }
  const std::string dir = argv[1];
  bool ok = Full(dir + "/full.pod") && Empty(dir + "/empty.pod") &&
            Hierarchy(dir + "/hierarchy.pod") && OlderFixed(dir + "/older_fixed.pod");
  if (!ok) fprintf(stderr, "podseeds: could not write the seeds\n");
  return ok ? 0 : 1;
}
