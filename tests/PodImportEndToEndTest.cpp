// podimport, then Korvex, then the scene-graph loader, on models the tests write: OBJ with
// materials and keyword names, a mesh too large for 16-bit indices, a placed glTF node, and a
// glTF skin with an animation; and the refusals of bad command lines and inputs.
// Expected values are derived by hand from the models written here.

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/PodImportFiles.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "support/TestSupport.h"

namespace {

using korvex::test::FileExists;
using korvex::test::RunResult;
using korvex::test::TempDir;
using podimport_test::Gltf;
using podimport_test::PodImport;
using podimport_test::WriteText;

const double kPi = 3.14159265358979323846;

struct Converted {
  RunResult import;
  RunResult korvex;
  QelSceneGraphModel model;
  bool loaded = false;
  std::string error;
};

// podimport SOURCE dir/model.pod [extra], then Korvex dir/model.pod, then the loader.
std::unique_ptr<Converted> Convert(const TempDir& dir, const std::string& source,
                                   std::vector<std::string> extra = {}) {
  auto out = std::make_unique<Converted>();
  extra.push_back(source);
  extra.push_back(dir.file("model.pod"));
  out->import = PodImport(extra);
  if (out->import.exitStatus != 0) return out;
  out->korvex = korvex::test::Run(korvex::test::KorvexExe(), {dir.file("model.pod")});
  if (out->korvex.exitStatus != 0) return out;
  SceneGraphLoader loader;
  out->loaded = loader.readFromFile(dir.file("model.qsn"), &out->model);
  out->error = loader.lastError();
  return out;
}

#define ASSERT_CONVERTED(c)                                                   \
  ASSERT_EQ((c)->import.exitStatus, 0) << (c)->import.err;                    \
  ASSERT_EQ((c)->korvex.exitStatus, 0) << (c)->korvex.out << (c)->korvex.err; \
  ASSERT_TRUE((c)->loaded) << (c)->error

// The record of kind K whose node header carries `name`, or null.
template <ESGName K>
typename korvex::SGLayout<K>::Record* Find(QelSceneGraphModel& model, const std::string& name) {
  for (const SSGNodeHeader* h : model.nodeheader) {
    if (h->type == K && std::strncmp(h->name, name.c_str(), sizeof h->name) == 0)
      return model.sequence<K>().at(h->index);
  }
  return nullptr;
}

float FloatAt(const SSGNodeData& d, size_t i) {
  float v;
  std::memcpy(&v, d.data + 4 * i, 4);
  return v;
}

std::vector<std::string> DirectoryEntries(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* d = opendir(path.c_str())) {
    while (dirent* e = readdir(d))
      if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

// --- OBJ ---------------------------------------------------------------------------------

// A unit quad in the xy plane at height z, as two triangles.
std::string ObjQuad(const std::string& object, const std::string& material, int& base, float z) {
  std::string text = "o " + object + "\nusemtl " + material + "\n";
  const char* corners[] = {"0 0", "1 0", "1 1", "0 1"};
  for (const char* c : corners) text += std::string("v ") + c + " " + std::to_string(z) + "\n";
  text += "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n";
  const std::string a = std::to_string(base + 1), b = std::to_string(base + 2),
                    c = std::to_string(base + 3), d = std::to_string(base + 4);
  text += "f " + a + "/" + a + " " + b + "/" + b + " " + c + "/" + c + "\n";
  text += "f " + a + "/" + a + " " + c + "/" + c + " " + d + "/" + d + "\n";
  base += 4;
  return text;
}

TEST(PodImportObj, KeywordNamesMaterialsAndCounts) {
  TempDir dir;
  ASSERT_TRUE(WriteText(dir.file("scene.mtl"),
                        "newmtl Wood\nKd 0.5 0.25 1\nKs 0.1 0.2 0.3\nNs 12\nmap_Kd wood.png\n"
                        "newmtl Unused\nKd 1 1 1\n"
                        "newmtl Glass\nKd 0 0 1\nd 0.5\n"));
  int base = 0;
  std::string obj = "mtllib scene.mtl\n";
  obj += ObjQuad("Crate", "Wood", base, 0);
  obj += ObjQuad("BILLBOARD_tree", "Wood", base, 1);
  obj += ObjQuad("COLLISIONBOX_wall", "Glass", base, 2);
  obj += ObjQuad("MARKER_spawn", "Glass", base, 3);
  obj += ObjQuad("SKYBOX", "Glass", base, 4);
  obj += ObjQuad("LIGHTMAP001", "Glass", base, 5);
  obj += ObjQuad("LIGHTMAP001wall", "Wood", base, 6);
  ASSERT_TRUE(WriteText(dir.file("scene.obj"), obj));

  auto c = Convert(dir, dir.file("scene.obj"));
  ASSERT_CONVERTED(c);
  QelSceneGraphModel& m = c->model;
  // Seven quads of 4 vertices and 2 triangles each; every name reaches its own kind.
  EXPECT_NE(c->import.out.find("(28 vertices, 14 triangles)"), std::string::npos) << c->import.out;
  ASSERT_NE(Find<ESGMeshNode>(m, "Crate"), nullptr);
  EXPECT_EQ(Find<ESGMeshNode>(m, "Crate")->numVertex, 4u);
  EXPECT_EQ(Find<ESGMeshNode>(m, "Crate")->numFace, 2u);
  EXPECT_NE(Find<ESGBillboardNode>(m, "BILLBOARD_tree"), nullptr);
  EXPECT_NE(Find<ESGCollisionBoxNode>(m, "COLLISIONBOX_wall"), nullptr);
  EXPECT_NE(Find<ESGMarkerNode>(m, "MARKER_spawn"), nullptr);
  EXPECT_NE(Find<ESGSkyBoxNode>(m, "SKYBOX"), nullptr);
  // The light-mapped mesh is linked to the light map's material (Glass) as its second one.
  ASSERT_EQ(m.meshnode.size(), 2u);
  const SSGQelMeshNodeData* wall = Find<ESGMeshNode>(m, "LIGHTMAP001wall");
  ASSERT_NE(wall, nullptr);
  ASSERT_GE(wall->materialIndex[1], 0);
  EXPECT_STREQ(m.material.at(wall->materialIndex[1])->materialName, "Glass");

  // "Unused" is dropped; Korvex would have asserted on it.
  ASSERT_EQ(m.material.size(), 2u);
  const SSGQelMaterialData* wood = Find<ESGMaterial>(m, "Wood");
  ASSERT_NE(wood, nullptr);
  EXPECT_STREQ(wood->textureName, "wood.png.qimg");
  EXPECT_FLOAT_EQ(wood->diffuse[0], 0.5f);
  EXPECT_FLOAT_EQ(wood->diffuse[1], 0.25f);
  EXPECT_FLOAT_EQ(wood->specular[2], 0.3f);
  EXPECT_FLOAT_EQ(wood->shininess, 12.0f);
  const SSGQelMaterialData* glass = Find<ESGMaterial>(m, "Glass");
  ASSERT_NE(glass, nullptr);
  EXPECT_STREQ(glass->textureName, "");
  EXPECT_FLOAT_EQ(glass->opacity, 0.5f);
  // The crate's texture coordinates came through: corner (1, 1) is among them.
  const SSGQelMeshNodeData* crate = Find<ESGMeshNode>(m, "Crate");
  EXPECT_EQ(crate->numUVW, 1u);
  bool corner = false;
  for (uint32_t v = 0; v < crate->numVertex; ++v)
    corner = corner ||
             (FloatAt(crate->UVWBuffer, 2 * v) == 1 && FloatAt(crate->UVWBuffer, 2 * v + 1) == 1);
  EXPECT_TRUE(corner);
}

TEST(PodImportObj, MeshAbove65535VerticesIsSplit) {
  // 23,334 separate triangles: 70,002 vertices, none shared.
  TempDir dir;
  const int triangles = 23334;
  std::string obj = "o Big\n";
  obj.reserve(size_t(triangles) * 90);
  for (int t = 0; t < triangles; ++t) {
    const std::string x = std::to_string(t);
    obj += "v " + x + " 0 0\nv " + x + " 1 0\nv " + x + " 0 1\n";
  }
  for (int t = 0; t < triangles; ++t) {
    obj += "f " + std::to_string(3 * t + 1) + " " + std::to_string(3 * t + 2) + " " +
           std::to_string(3 * t + 3) + "\n";
  }
  ASSERT_TRUE(WriteText(dir.file("big.obj"), obj));
  auto c = Convert(dir, dir.file("big.obj"), {"--quiet"});
  ASSERT_CONVERTED(c);
  EXPECT_EQ(c->import.out, "");
  const SSGQelMeshNodeData* first = Find<ESGMeshNode>(c->model, "Big");
  const SSGQelMeshNodeData* second = Find<ESGMeshNode>(c->model, "Big_1");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(c->model.meshnode.size(), 2u);
  // The first piece is filled to the limit with whole triangles: 21,845 of them.
  EXPECT_EQ(first->numVertex, 65535u);
  EXPECT_EQ(first->numFace, 21845u);
  EXPECT_EQ(second->numVertex, 70002u - 65535u);
  EXPECT_EQ(second->numFace, uint32_t(triangles) - 21845u);
}

// --- glTF node transform -------------------------------------------------------------------

// One triangle mesh; its accessors are 0 (positions) and 1 (indices).
void AddTriangle(Gltf& g) {
  g.Floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
  g.Shorts({0, 1, 2}, "SCALAR", 1);
}

TEST(PodImportGltf, NodeTransformIsTheSourceMatrix) {
  TempDir dir;
  Gltf g;
  AddTriangle(g);
  // 30 degrees about (1, 2, 2) / 3, scale 2, at (1, 2, 3).
  const double half = 15 * kPi / 180;
  const double k[3] = {1.0 / 3, 2.0 / 3, 2.0 / 3};
  char rotation[128];
  std::snprintf(rotation, sizeof rotation, "[%.9f,%.9f,%.9f,%.9f]", k[0] * sin(half),
                k[1] * sin(half), k[2] * sin(half), cos(half));
  const std::string json = g.Json(
      "\"scene\":0,\"scenes\":[{\"nodes\":[0]}],"
      "\"nodes\":[{\"name\":\"Crate\",\"mesh\":0,\"translation\":[1,2,3],\"scale\":[2,2,2],"
      "\"rotation\":" +
      std::string(rotation) +
      "}],\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0},\"indices\":1}]}]");
  ASSERT_TRUE(WriteText(dir.file("nodes.gltf"), json));
  auto c = Convert(dir, dir.file("nodes.gltf"));
  ASSERT_CONVERTED(c);

  // The converted transform is the source matrix T * R * S, transposed for row vectors.
  double r[3][3];
  const double cs = cos(2 * half), sn = sin(2 * half);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r[i][j] = (i == j ? cs : 0) + (1 - cs) * k[i] * k[j];
  r[0][1] -= sn * k[2], r[0][2] += sn * k[1], r[1][0] += sn * k[2];
  r[1][2] -= sn * k[0], r[2][0] -= sn * k[1], r[2][1] += sn * k[0];
  const SSGQelMeshNodeData* crate = Find<ESGMeshNode>(c->model, "Crate");
  ASSERT_NE(crate, nullptr);
  for (int row = 0; row < 3; ++row)
    for (int col = 0; col < 3; ++col)
      EXPECT_NEAR(crate->transform.f[4 * row + col], 2 * r[col][row], 1e-5) << row << col;
  EXPECT_NEAR(crate->transform.f[12], 1, 1e-6);
  EXPECT_NEAR(crate->transform.f[13], 2, 1e-6);
  EXPECT_NEAR(crate->transform.f[14], 3, 1e-6);
}

// --- glTF skin and animation ---------------------------------------------------------------

// A quad skinned to two bones: Root at the origin and its child Arm at (1, 0, 0), which turns
// about z from `fromDeg` to `toDeg` degrees over one second. Source weights (Root, Arm): vertex
// (0,0,0) 0.3 and 0.3, (1,0,0) 1 and 0, (1,1,0) 0.5 and 0.5, (0,1,0) 0 and 1.
std::string SkinnedQuad(double fromDeg, double toDeg) {
  Gltf g;
  g.Floats({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, "VEC3", 3);
  g.Shorts({0, 1, 2, 0, 2, 3}, "SCALAR", 1);
  g.Shorts({0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}, "VEC4", 4);
  g.Floats({.3f, .3f, 0, 0, 1, 0, 0, 0, .5f, .5f, 0, 0, 0, 1, 0, 0}, "VEC4", 4);
  // Inverse bind matrices (column-major): identity, and a translation by (-1, 0, 0).
  g.Floats({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0,  0, 0, 1,
            1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, -1, 0, 0, 1},
           "MAT4", 16);
  g.Floats({0, 1}, "SCALAR", 1);
  const double a = fromDeg * kPi / 360, b = toDeg * kPi / 360;
  g.Floats({0, 0, float(sin(a)), float(cos(a)), 0, 0, float(sin(b)), float(cos(b))}, "VEC4", 4);
  return g.Json(
      "\"scene\":0,\"scenes\":[{\"nodes\":[0,1]}],"
      "\"nodes\":[{\"name\":\"Skin\",\"mesh\":0,\"skin\":0},"
      "{\"name\":\"Root\",\"children\":[2]},{\"name\":\"Arm\",\"translation\":[1,0,0]}],"
      "\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0,\"JOINTS_0\":2,"
      "\"WEIGHTS_0\":3},\"indices\":1}]}],"
      "\"skins\":[{\"joints\":[1,2],\"inverseBindMatrices\":4}],"
      "\"animations\":[{\"name\":\"Wave\",\"channels\":[{\"sampler\":0,"
      "\"target\":{\"node\":2,\"path\":\"rotation\"}}],"
      "\"samplers\":[{\"input\":5,\"output\":6}]}]");
}

// Where the source puts vertex p: Root leaves it, Arm turns it by `deg` about (1, 0, 0).
void Expected(const float p[3], double deg, double out[3]) {
  const double weights[4][2] = {{.5, .5}, {1, 0}, {.5, .5}, {0, 1}};
  const int v = p[0] == 0 ? (p[1] == 0 ? 0 : 3) : (p[1] == 0 ? 1 : 2);
  const double c = cos(deg * kPi / 180), s = sin(deg * kPi / 180);
  const double x = p[0] - 1, y = p[1];
  out[0] = weights[v][0] * p[0] + weights[v][1] * (1 + c * x - s * y);
  out[1] = weights[v][0] * p[1] + weights[v][1] * (s * x + c * y);
  out[2] = p[2];
}

// Vertex v of a skeletal record at frame f: its bones' matrices of that frame, blended.
void Skinned(const SSGQelSkeletalMeshNodeData& r, uint32_t v, uint32_t f, double out[3]) {
  const uint32_t frames = r.numAnimation;
  const uint32_t bones = r.Batch.length / 4;
  int32_t batch[256], slots[256];
  std::memcpy(batch, r.Batch.data, 4 * bones);
  std::memcpy(slots, r.sBoneIndexbuffer.data, 4 * bones);
  const float p[3] = {FloatAt(r.vertexBuffer, 3 * v), FloatAt(r.vertexBuffer, 3 * v + 1),
                      FloatAt(r.vertexBuffer, 3 * v + 2)};
  out[0] = out[1] = out[2] = 0;
  for (uint32_t i = 0; i < r.boneIdx.n; ++i) {
    const uint8_t index = r.BoneIdx_ptr.data[v * r.boneIdx.nStride + i];
    float w;
    std::memcpy(&w, r.BoneWeight_ptr.data + v * r.boneWeight.nStride + 4 * i, 4);
    uint32_t slot = 0;
    while (slot < bones && slots[slot] != batch[index]) ++slot;
    ASSERT_LT(slot, bones);
    float m[16];
    std::memcpy(m, r.sBoneWorldMatrixbuffer.data + 64 * (size_t(frames) * slot + f), 64);
    for (int c = 0; c < 3; ++c)
      out[c] += w * (p[0] * m[c] + p[1] * m[4 + c] + p[2] * m[8 + c] + m[12 + c]);
  }
}

// Every vertex of the record at frame `frame` against the source at `deg` degrees.
void ExpectPose(const SSGQelSkeletalMeshNodeData& r, uint32_t frame, double deg) {
  for (uint32_t v = 0; v < r.numVertex; ++v) {
    const float p[3] = {FloatAt(r.vertexBuffer, 3 * v), FloatAt(r.vertexBuffer, 3 * v + 1),
                        FloatAt(r.vertexBuffer, 3 * v + 2)};
    double got[3], want[3];
    Skinned(r, v, frame, got);
    Expected(p, deg, want);
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(got[c], want[c], 1e-4)
          << "vertex (" << p[0] << ", " << p[1] << ") frame " << frame << " axis " << c;
  }
}

TEST(PodImportSkin, AnimationStartingAtTheBindPose) {
  TempDir dir;
  ASSERT_TRUE(WriteText(dir.file("skin.gltf"), SkinnedQuad(0, 90)));
  auto c = Convert(dir, dir.file("skin.gltf"));
  ASSERT_CONVERTED(c);
  // One second at 30 fps: frames 0 to 30, the first of them the bind pose already.
  EXPECT_NE(c->import.out.find("frames:    31 (31 frames of animation \"Wave\" at 30 fps)"),
            std::string::npos)
      << c->import.out;
  const SSGQelSkeletalMeshNodeData* r = Find<ESGSkeletalMeshNode>(c->model, "Skin");
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(r->numAnimation, 31u);
  ASSERT_EQ(r->numVertex, 4u);
  ASSERT_EQ(r->Batch.length, 8u);
  // The weights of (0, 0, 0), 0.3 and 0.3 in the source, are scaled to sum 1.
  for (uint32_t v = 0; v < 4; ++v) {
    if (FloatAt(r->vertexBuffer, 3 * v) != 0 || FloatAt(r->vertexBuffer, 3 * v + 1) != 0) continue;
    ASSERT_EQ(r->boneWeight.n, 2u);
    EXPECT_FLOAT_EQ(FloatAt(r->BoneWeight_ptr, 2 * v), 0.5f);
    EXPECT_FLOAT_EQ(FloatAt(r->BoneWeight_ptr, 2 * v + 1), 0.5f);
  }
  ExpectPose(*r, 0, 0);
  ExpectPose(*r, 15, 45);
  ExpectPose(*r, 30, 90);
}

// --- refusals --------------------------------------------------------------------------------

TEST(PodImportRefusals, BadInputsGiveStatusOneAndLeaveNothingBehind) {
  TempDir dir;
  std::vector<uint8_t> noise(300);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 151 + 7);
  ASSERT_TRUE(korvex::test::WriteFileBytes(dir.file("noise.xyz"), noise));
  ASSERT_TRUE(WriteText(dir.file("lines.obj"), "v 0 0 0\nv 1 0 0\nl 1 2\n"));
  ASSERT_TRUE(WriteText(dir.file("empty.gltf"),
                        "{\"asset\":{\"version\":\"2.0\"},\"scene\":0,"
                        "\"scenes\":[{\"nodes\":[0]}],\"nodes\":[{\"name\":\"Empty\"}]}"));
  ASSERT_TRUE(WriteText(dir.file("skin.gltf"), SkinnedQuad(0, 90)));
  int base = 0;
  ASSERT_TRUE(WriteText(dir.file("lightmap.obj"), ObjQuad("LIGHTMAP002floor", "None", base, 0)));
  ASSERT_TRUE(WriteText(dir.file("kept.pod"), "earlier"));
  const std::vector<std::string> before = DirectoryEntries(dir.path());
  struct Case {
    std::vector<std::string> args;
    const char* message;
  };
  const Case cases[] = {
      {{dir.file("missing.obj"), dir.file("out.pod")}, "cannot read"},
      {{dir.file("noise.xyz"), dir.file("out.pod")}, "cannot read"},
      {{dir.file("lines.obj"), dir.file("out.pod")}, "no triangles"},
      {{dir.file("empty.gltf"), dir.file("kept.pod")}, "no meshes"},
      {{"--animation", "Run", dir.file("skin.gltf"), dir.file("out.pod")}, "\"Wave\""},
      {{dir.file("lightmap.obj"), dir.file("out.pod")}, "light map \"LIGHTMAP002\""},
      {{dir.file("skin.gltf"), dir.path() + "/./skin.gltf"}, "it is the input file"},
      {{dir.file("skin.gltf"), dir.path() + "/no/such/dir/out.pod"}, "cannot write"},
  };
  for (const Case& c : cases) {
    const RunResult r = PodImport(c.args);
    EXPECT_EQ(r.exitStatus, 1) << c.args[0];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("podimport: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  // No output, no temporary file; an earlier output stays as it was.
  EXPECT_EQ(DirectoryEntries(dir.path()), before);
  EXPECT_EQ(korvex::test::ReadFileBytes(dir.file("kept.pod")).size(), 7u);
}

TEST(PodImportRefusals, CommandLineMistakesGiveStatusTwo) {
  TempDir dir;
  ASSERT_TRUE(WriteText(dir.file("skin.gltf"), SkinnedQuad(0, 90)));
  const std::string in = dir.file("skin.gltf"), out = dir.file("out.pod");
  // clang-format off
  const std::vector<std::vector<std::string>> mistakes = {
      {}, {in}, {in, out, out}, {"--fps", "0", in, out}, {"--fps=nan", in, out},
      {"--max-bones", "256", in, out}, {"--max-bones=0", in, out}, {"--frames", "-1", in, out},
      {"--frames=65537", in, out}, {"--frames", in, out}, {"--colour", in, out}};
  // clang-format on
  for (const std::vector<std::string>& args : mistakes) {
    const RunResult r = PodImport(args);
    EXPECT_EQ(r.exitStatus, 2) << ::testing::PrintToString(args);
    EXPECT_NE(r.err.find("Usage: podimport"), std::string::npos);
  }
  EXPECT_FALSE(FileExists(out));
  const RunResult help = PodImport({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("--max-bones"), std::string::npos);
}

}  // namespace
