// End to end: the Korvex executable converts small still scenes. Standard output, the exit
// status, the intermediate .PODx and the .qsn are compared byte for byte with expectations built
// here: the .PODx is the input scene with the expected texture names, written by the POD
// writer; the .qsn is laid out by hand from hand-computed values with a small byte builder.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "support/TestSupport.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::test::KorvexExe;
using korvex::test::ReadFileBytes;
using korvex::test::Run;
using korvex::test::TempDir;

// ---------------------------------------------------------------------------------------------
// Little-endian bytes of the expected file.

struct Bytes {
  std::vector<uint8_t> v;
  Bytes& u32(uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(uint8_t(x >> (8 * i)));
    return *this;
  }
  Bytes& i32(int32_t x) { return u32(uint32_t(x)); }
  Bytes& f32(float f) {
    uint32_t x;
    std::memcpy(&x, &f, 4);
    return u32(x);
  }
  Bytes& floats(const std::vector<float>& fs) {
    for (float f : fs) f32(f);
    return *this;
  }
  Bytes& zeros(size_t n) {
    v.insert(v.end(), n, 0);
    return *this;
  }
  // A fixed text field: the text cut to the field, the rest zero.
  Bytes& text(const std::string& s, size_t field) {
    const size_t n = s.size() < field ? s.size() : field;
    v.insert(v.end(), s.begin(), s.begin() + n);
    return zeros(field - n);
  }
  Bytes& append(const std::vector<uint8_t>& b) {
    v.insert(v.end(), b.begin(), b.end());
    return *this;
  }
};

std::vector<uint8_t> FloatBytes(const std::vector<float>& fs) { return Bytes().floats(fs).v; }
std::vector<uint8_t> IndexBytes(const std::vector<uint16_t>& is) {
  std::vector<uint8_t> b;
  for (uint16_t i : is) {
    b.push_back(uint8_t(i));
    b.push_back(uint8_t(i >> 8));
  }
  return b;
}

// A copied stream descriptor: eType, n, nStride, pointer slot (0), nFileOffset.
struct Stream {
  uint32_t type = 0, n = 0, stride = 0, fileOffset = 0;
};

const std::vector<float> kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// Scale then translate, as setNodeTransform builds it for an identity rotation.
std::vector<float> ScaleTranslate(float sx, float sy, float sz, float tx, float ty, float tz) {
  return {sx, 0, 0, 0, 0, sy, 0, 0, 0, 0, sz, 0, tx, ty, tz, 1};
}

struct NodePart {
  uint32_t index = 0;
  int32_t object = 0;
  std::vector<float> transform = kIdentity;
  uint32_t frames = 0, flags = 0;
};

void PutNodePart(Bytes& b, const NodePart& n) {
  b.u32(n.index).i32(n.object).floats(n.transform).u32(n.frames).u32(n.flags);
}

// Bounding volumes by their definition (running-mean centre, largest squared distance, box),
// for transforms without rotation, where the transformed positions are exact.
struct Volumes {
  std::vector<float> sphere;  // centre x, y, z, radius
  std::vector<float> box;     // centre, min, max
};

Volumes VolumesOf(const std::vector<float>& p, const std::vector<float>& m) {
  std::vector<float> t;
  for (size_t k = 0; k < p.size(); k += 3)
    for (int a = 0; a < 3; ++a) t.push_back(m[12 + a] + p[k + a] * m[5 * a]);
  float c[3] = {0, 0, 0};
  const size_t count = t.size() / 3;
  for (size_t k = 0; k < count; ++k) {
    const float f = float(k), w = 1.0f + f;
    for (int a = 0; a < 3; ++a) c[a] = t[3 * k + a] / w + c[a] * (f / w);
  }
  float best = 0;
  float lo[3] = {t[0], t[1], t[2]}, hi[3] = {t[0], t[1], t[2]};
  for (size_t k = 0; k < count; ++k) {
    float d[3];
    for (int a = 0; a < 3; ++a) {
      d[a] = t[3 * k + a] - c[a];
      lo[a] = std::min(lo[a], t[3 * k + a]);
      hi[a] = std::max(hi[a], t[3 * k + a]);
    }
    const float d2 = d[2] * d[2] + (d[0] * d[0] + d[1] * d[1]);
    if (d2 > best) best = d2;
  }
  return {{c[0], c[1], c[2], std::sqrt(best)},
          {(lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2, lo[0], lo[1], lo[2],
           hi[0], hi[1], hi[2]}};
}

// Everything a mesh block holds.
struct MeshBlock {
  NodePart node;
  uint32_t numVertex = 0, numFace = 0, numUVW = 0;
  Volumes world;  // zero-filled when the mesh has no vertices
  Stream vertex, normal, face;
  std::vector<Stream> uvw;        // the carried sets (descriptor file offset always 0)
  std::vector<uint32_t> uvwOffset;
  int32_t defaultMaterial = -1;
  std::vector<int32_t> materialIndex = std::vector<int32_t>(8, -1);
  std::vector<float> positions, normals, uvs;  // uvs: the carried sets, set after set
  std::vector<uint16_t> faces;
  bool collisionBox = false;
  Volumes local;
};

std::vector<uint8_t> MeshBytes(const MeshBlock& m) {
  Bytes b;
  PutNodePart(b, m.node);
  b.u32(m.numVertex).u32(m.numFace).u32(m.numUVW);
  const std::vector<float> noSphere(4, 0.0f), noBox(9, 0.0f);
  b.floats(m.world.sphere.empty() ? noSphere : m.world.sphere);
  b.floats(m.world.box.empty() ? noBox : m.world.box);
  for (const Stream* s : {&m.vertex, &m.normal, &m.face})
    b.u32(s->type).u32(s->n).u32(s->stride).u32(0).u32(s->fileOffset).u32(s->fileOffset);
  for (size_t k = 0; k < 8; ++k) {
    const Stream s = k < m.uvw.size() ? m.uvw[k] : Stream();
    b.u32(s.type).u32(s.n).u32(s.stride).u32(0).u32(0);
  }
  for (size_t k = 0; k < 8; ++k) b.u32(k < m.uvwOffset.size() ? m.uvwOffset[k] : 0);
  b.i32(m.defaultMaterial);
  for (int32_t i : m.materialIndex) b.i32(i);
  const std::vector<uint8_t> positions = FloatBytes(m.positions), normals = FloatBytes(m.normals),
                             faces = IndexBytes(m.faces), uvs = FloatBytes(m.uvs);
  b.u32(0).u32(uint32_t(positions.size())).u32(0);
  b.u32(0).u32(uint32_t(normals.size())).u32(0);
  b.u32(3).u32(uint32_t(faces.size())).u32(0);
  b.u32(0).u32(uint32_t(uvs.size())).u32(0);
  if (m.collisionBox) b.floats(m.local.sphere).floats(m.local.box);
  return b.append(positions).append(normals).append(faces).append(uvs).v;
}

struct MaterialBlock {
  int32_t podMaterial = 0;
  float opacity = 1;
  std::vector<float> ambient = {0, 0, 0}, diffuse = {0, 0, 0}, specular = {0, 0, 0};
  float shininess = 0;
  std::string name, texture;
};

std::vector<uint8_t> MaterialBytes(const MaterialBlock& m) {
  Bytes b;
  b.i32(m.podMaterial).f32(m.opacity).floats(m.ambient).floats(m.diffuse).floats(m.specular);
  return b.f32(m.shininess).text(m.name, 128).text(m.texture, 128).v;
}

// One node header and its block.
struct Entry {
  uint32_t type;
  std::string name;
  int32_t index;
  std::vector<uint8_t> block;
};

std::vector<uint8_t> QsnBytes(const std::string& podFile, const std::vector<Entry>& entries) {
  Bytes b;
  b.u32(1000).u32(1).u32(uint32_t(entries.size())).text(podFile, 256);
  uint32_t offset = 268 + 144 * uint32_t(entries.size());
  for (const Entry& e : entries) {
    b.u32(e.type).text(e.name, 128).u32(offset).u32(uint32_t(e.block.size())).i32(e.index);
    offset += uint32_t(e.block.size());
  }
  for (const Entry& e : entries) b.append(e.block);
  return b.v;
}

// ---------------------------------------------------------------------------------------------
// Where the reader found each stream's data in a POD file: the payload position of the 9003
// block of a stream container, by a walk of the block structure.

struct StreamOffsets {
  uint32_t faces = 0, vertex = 0, normals = 0;
  std::vector<uint32_t> uvw;
};

uint32_t Word(const std::vector<uint8_t>& f, size_t at) {
  return uint32_t(f[at]) | uint32_t(f[at + 1]) << 8 | uint32_t(f[at + 2]) << 16 |
         uint32_t(f[at + 3]) << 24;
}

StreamOffsets OffsetsOfMesh(const std::vector<uint8_t>& file, int mesh) {
  StreamOffsets out;
  int meshSeen = -1;
  uint32_t container = 0;
  for (size_t at = 0; at + 8 <= file.size();) {
    const uint32_t tag = Word(file, at), length = Word(file, at + 4);
    at += 8;
    if (tag == 2012) ++meshSeen;
    if (tag >= 6003 && tag <= 6013) container = tag;
    if (tag == 9003 && meshSeen == mesh) {
      const uint32_t payload = uint32_t(at);
      if (container == 6003) out.faces = payload;
      if (container == 6006) out.vertex = payload;
      if (container == 6007) out.normals = payload;
      if (container == 6010) out.uvw.push_back(payload);
    }
    at += length;
  }
  return out;
}

// ---------------------------------------------------------------------------------------------
// Scenes and the run.

// A node placed by one key of each channel, not animated (the POD writer keeps channel arrays
// only, so a static transform has to live in key 0).
void Place(PODSceneBuilder& b, int node, std::vector<float> position,
           std::vector<float> rotation = {0, 0, 0, 1}, std::vector<float> scale = {1, 1, 1}) {
  b.SetAnimPosition(node, position, false);
  b.SetAnimRotation(node, rotation, false);
  b.SetAnimScale(node, PODSceneBuilder::ScaleKeys(scale), false);
}

const std::vector<float> kTriangle = {0, 0, 0, 4, 0, 0, 0, 2, 0};
const std::vector<float> kNormals = {0, 0, 1, 0, 0, 1, 0, 0, 1};

// Texture-coordinate set k of the triangle.
std::vector<float> TriangleUV(int k) { return {float(k), 0, float(k) + 1, 0, float(k), 1}; }

int AddTriangle(PODSceneBuilder& b, int uvSets) {
  const int mesh = b.AddMesh(3);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, kTriangle);
  b.SetFloatStream(mesh, PODStream::Normals, 3, kNormals);
  for (int k = 0; k < uvSets; ++k) b.AddFloatUVW(mesh, 2, TriangleUV(k));
  b.SetFaces(mesh, {0, 1, 2});
  return mesh;
}

// The triangle's mesh block under `transform`, carrying `carried` of its `sets` texture sets.
MeshBlock TriangleBlock(uint32_t nodeIndex, const std::vector<float>& transform,
                        const StreamOffsets& at, uint32_t sets, uint32_t carried = 0) {
  MeshBlock m;
  m.node.index = nodeIndex;
  m.node.transform = transform;
  m.numVertex = 3;
  m.numFace = 1;
  m.numUVW = sets;
  m.world = VolumesOf(kTriangle, transform);
  m.vertex = {1, 3, 12, at.vertex};
  m.normal = {1, 3, 12, at.normals};
  m.face = {3, 1, 2, at.faces};
  m.positions = kTriangle;
  m.normals = kNormals;
  m.faces = {0, 1, 2};
  for (uint32_t k = 0; k < carried; ++k) {
    m.uvw.push_back({1, 2, 8, 0});
    m.uvwOffset.push_back(at.uvw.at(k));
    const std::vector<float> uv = TriangleUV(int(k));
    m.uvs.insert(m.uvs.end(), uv.begin(), uv.end());
  }
  return m;
}

// Writes the scene made by `build` as a POD file (with an export-options block, as exporters
// do); a suffix goes to every texture name.
using Build = void (*)(PODSceneBuilder&, const std::string& suffix);

std::vector<uint8_t> Save(Build build, const std::string& suffix, const std::string& path) {
  PODSceneBuilder b;
  build(b, suffix);
  CPODScene scene;
  EXPECT_TRUE(b.Build(scene));
  EXPECT_TRUE(scene.SavePOD(path.c_str(), "test options"));
  return ReadFileBytes(path);
}

// Runs Korvex on DIR/NAME.pod; checks standard output (the messages between the renaming and
// the final newline), the exit status, and the .PODx against the scene with renamed textures.
// Returns the .PODx and the .qsn.
std::pair<std::vector<uint8_t>, std::vector<uint8_t>> Convert(const TempDir& dir, const char* name,
                                                              Build build,
                                                              const std::string& messages = "") {
  const std::string input = dir.file(std::string(name) + ".pod");
  Save(build, "", input);
  const korvex::test::RunResult r = Run(KorvexExe(), {input});
  EXPECT_EQ(r.out, "Converting " + input + "\nRenaming texture..." + messages + "\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.exitStatus, 0);
  const std::vector<uint8_t> podx = ReadFileBytes(dir.file(std::string(name) + ".PODx"));
  EXPECT_EQ(podx, Save(build, ".qimg", dir.file("expected.bin")));
  return {podx, ReadFileBytes(dir.file(std::string(name) + ".qsn"))};
}

// ---------------------------------------------------------------------------------------------

// A cube of 8 corners with a textured material; the node is turned half a turn about z
// (quaternion (0, 0, 1, 0) gives diag(-1, -1, 1)), scaled (2, 3, 4) and placed at (1, 2, 3).
std::vector<float> CubeCorners() {
  std::vector<float> c;
  for (int k = 0; k < 8; ++k)
    c.insert(c.end(), {k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f});
  return c;
}
std::vector<float> CubeUV() {
  std::vector<float> uv;
  for (int k = 0; k < 8; ++k) uv.insert(uv.end(), {float(k & 1), float(k >> 1) / 4});
  return uv;
}
const std::vector<uint16_t> kCubeFaces = {0, 1, 3, 0, 3, 2, 4, 6, 7, 4, 7, 5, 0, 4, 5, 0, 5, 1,
                                          2, 3, 7, 2, 7, 6, 0, 2, 6, 0, 6, 4, 1, 5, 7, 1, 7, 3};

void BuildCube(PODSceneBuilder& b, const std::string& suffix) {
  const int mat = b.AddMaterial("CrateMat", b.AddTexture(("crate.png" + suffix).c_str()));
  SPODMaterial& m = b.Material(mat);
  m.fMatOpacity = 0.5f;
  const float colours[9] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f, 0.8f, 0.9f};
  std::memcpy(m.pfMatAmbient, colours, 12);
  std::memcpy(m.pfMatDiffuse, colours + 3, 12);
  std::memcpy(m.pfMatSpecular, colours + 6, 12);
  m.fMatShininess = 8;
  const int mesh = b.AddMesh(8);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, CubeCorners());
  b.SetFloatStream(mesh, PODStream::Normals, 3, CubeCorners());
  b.AddFloatUVW(mesh, 2, CubeUV());
  b.SetFaces(mesh, kCubeFaces);
  Place(b, b.AddMeshNode("Crate", mesh, mat), {1, 2, 3}, {0, 0, 1, 0}, {2, 3, 4});
}

TEST(ConvertStillScene, CubeWithTexturedMaterial) {
  TempDir dir;
  const auto [podx, qsn] = Convert(dir, "cube", BuildCube);
  const StreamOffsets at = OffsetsOfMesh(podx, 0);
  ASSERT_EQ(at.uvw.size(), 1u);
  MeshBlock m;
  m.node.transform = {-2, 0, 0, 0, 0, -3, 0, 0, 0, 0, 4, 0, 1, 2, 3, 1};
  m.numVertex = 8;
  m.numFace = 12;
  m.numUVW = 1;
  m.positions = m.normals = CubeCorners();
  // Corners map to x in {3, -1}, y in {-1, 5}, z in {-1, 7}.
  m.world = VolumesOf(m.positions, m.node.transform);
  EXPECT_EQ(m.world.box, (std::vector<float>{1, 2, 3, -1, -1, -1, 3, 5, 7}));
  m.vertex = {1, 3, 12, at.vertex};
  m.normal = {1, 3, 12, at.normals};
  m.face = {3, 1, 2, at.faces};
  m.uvw = {{1, 2, 8, 0}};
  m.uvwOffset = {at.uvw[0]};
  m.uvs = CubeUV();
  m.faces = kCubeFaces;
  m.defaultMaterial = 0;
  m.materialIndex[0] = 0;
  MaterialBlock mat{0, 0.5f, {0.1f, 0.2f, 0.3f}, {0.4f, 0.5f, 0.6f}, {0.7f, 0.8f, 0.9f}, 8,
                    "CrateMat", "crate.png.qimg"};
  EXPECT_EQ(qsn, QsnBytes("cube.PODx", {{2001, "Crate", 0, MeshBytes(m)},
                                        {2004, "CrateMat", 0, MaterialBytes(mat)}}));
}

// Materials are made once, in order of first use, their headers right after the first mesh
// that uses them; "LIGHTMAP001" defines a light map (a material, no node of its own) that
// "LIGHTMAP001Three" takes as its second material. "Tri3" has three texture-coordinate sets:
// the record carries two (with "Error1"), the saved scene keeps three; its material has no
// texture and a 200-character name, cut to 128 bytes.
std::string LongName() {
  std::string name;
  for (int i = 0; i < 200; ++i) name += char('a' + i % 26);
  return name;
}

void BuildMaterials(PODSceneBuilder& b, const std::string& suffix) {
  for (const char* t : {"a.png", "b.png", "baked.png"}) b.AddTexture((t + suffix).c_str());
  b.AddMaterial("MatA", 0);
  b.AddMaterial("MatB", 1);
  b.AddMaterial("Baked", 2);
  b.AddMaterial(LongName().c_str(), -1);
  const int one = AddTriangle(b, 1), three = AddTriangle(b, 3);
  Place(b, b.AddMeshNode("One", one, 1), {10, 0, 0});
  Place(b, b.AddMeshNode("LIGHTMAP001", one, 2), {5, 5, 5});
  Place(b, b.AddMeshNode("Two", one, 1), {0, 10, 0});
  Place(b, b.AddMeshNode("LIGHTMAP001Three", one, 0), {0, 0, 0}, {0, 0, 0, 1}, {2, 2, 2});
  Place(b, b.AddMeshNode("Tri3", three, 3), {0, 0, 0});
}

TEST(ConvertStillScene, MaterialsLightMapsAndTextureSets) {
  TempDir dir;
  const auto [podx, qsn] =
      Convert(dir, "materials", BuildMaterials, "Error1: Number of UVW > 2, \"Tri3\"\n");
  const StreamOffsets at = OffsetsOfMesh(podx, 0), at3 = OffsetsOfMesh(podx, 1);
  ASSERT_EQ(at3.uvw.size(), 3u);
  MeshBlock one = TriangleBlock(0, ScaleTranslate(1, 1, 1, 10, 0, 0), at, 1, 1);
  MeshBlock two = TriangleBlock(2, ScaleTranslate(1, 1, 1, 0, 10, 0), at, 1, 1);
  MeshBlock three = TriangleBlock(3, ScaleTranslate(2, 2, 2, 0, 0, 0), at, 1, 1);
  MeshBlock tri3 = TriangleBlock(4, kIdentity, at3, 2, 2);
  one.defaultMaterial = two.defaultMaterial = 1;
  one.materialIndex[0] = two.materialIndex[0] = 0;  // MatB, the first record
  three.defaultMaterial = 0;
  three.materialIndex = {2, 1, -1, -1, -1, -1, -1, -1};  // MatA, then the light map "Baked"
  tri3.node.object = 1;
  tri3.defaultMaterial = 3;
  tri3.materialIndex[0] = 3;
  const MaterialBlock matB{1, 1, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, "MatB", "b.png.qimg"};
  const MaterialBlock baked{2, 1, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, "Baked", "baked.png.qimg"};
  const MaterialBlock matA{0, 1, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, "MatA", "a.png.qimg"};
  const MaterialBlock longMat{3, 1, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, LongName(), ""};
  // 5 mesh nodes + 4 materials - 1 light map = 8 headers.
  EXPECT_EQ(qsn, QsnBytes("materials.PODx",
                          {{2001, "One", 0, MeshBytes(one)},
                           {2004, "MatB", 0, MaterialBytes(matB)},
                           {2004, "Baked", 1, MaterialBytes(baked)},
                           {2001, "Two", 1, MeshBytes(two)},
                           {2001, "LIGHTMAP001Three", 2, MeshBytes(three)},
                           {2004, "MatA", 2, MaterialBytes(matA)},
                           {2001, "Tri3", 3, MeshBytes(tri3)},
                           {2004, LongName().substr(0, 128), 3, MaterialBytes(longMat)}}));
}

// Keywords at the start of names (case-sensitive, anything may follow), a mesh without
// vertices, a light without target, a camera with a target and one without. No mesh node has a
// material, so the triangle's texture coordinates are not carried. A camera's target position
// is read from the node whose index is the camera's own (camera 0: node 0), not the target's.
const std::vector<float> kMatrix = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const char* const kKeywordNodes[] = {"Marker",           "COLLISIONBOXES", "PITBOX_A",
                                     "F1COLLISIONBOX",   "COLLISIONSPHERE2",
                                     "BILLBOARD1",       "SKYBOX_day"};

void BuildKinds(PODSceneBuilder& b, const std::string&) {
  const int mesh = AddTriangle(b, 1), empty = b.AddMesh(0);
  b.SetFloatStream(empty, PODStream::Vertex, 3, {});
  const int marker = b.AddMeshNode("MARKERS", mesh);
  Place(b, marker, {7, 8, 9});
  b.SetAnimMatrix(marker, kMatrix, false);  // taken verbatim, before the other channels
  for (const char* name : kKeywordNodes)
    Place(b, b.AddMeshNode(name, mesh), {0, 0, 0}, {0, 0, 0, 1}, {2, 2, 2});
  Place(b, b.AddMeshNode("Empty", empty), {0, 0, 0});
  Place(b, b.AddLightNode("Lamp", 1.0f, 0.5f, 0.25f, 2), {0, 10, 0});
  Place(b, b.AddCameraNode("CamA", 0.75f, 0.5f, 250.0f, 12), {0, 0, 20});
  Place(b, b.AddCameraNode("CamB", 1.5f, 1.0f, 100.0f), {0, 0, -20});
  Place(b, b.AddNode("Target"), {100, 100, 100});
}

TEST(ConvertStillScene, NodeKindsCamerasAndLights) {
  TempDir dir;
  const auto [podx, qsn] = Convert(dir, "kinds", BuildKinds,
                                   "Error3: cannot create bounding sphere, Empty\n"
                                   "Error3: cannot create bounding AABB, Empty\n");
  const StreamOffsets at = OffsetsOfMesh(podx, 0), emptyAt = OffsetsOfMesh(podx, 1);
  Bytes marker, lamp, camA, camB;
  PutNodePart(marker, {0, 0, kMatrix, 0, 0});
  std::vector<Entry> expected = {{2009, "MARKERS", 0, marker.v}};
  const uint32_t kinds[] = {2001, 2005, 2005, 2005, 2006, 2007, 2008};
  const int32_t indices[] = {0, 0, 1, 2, 0, 0, 0};
  for (uint32_t k = 0; k < 7; ++k) {
    MeshBlock m = TriangleBlock(k + 1, ScaleTranslate(2, 2, 2, 0, 0, 0), at, 1);
    m.collisionBox = kinds[k] == 2005;
    m.local = VolumesOf(kTriangle, kIdentity);  // object space
    expected.push_back({kinds[k], kKeywordNodes[k], indices[k], MeshBytes(m)});
  }
  MeshBlock none;  // no volumes, no arrays; the position stream has no data block
  none.node = {8, 1, kIdentity, 0, 0};
  none.vertex = {1, 3, 12, emptyAt.vertex};
  EXPECT_EQ(emptyAt.vertex, 0u);
  expected.push_back({2001, "Empty", 1, MeshBytes(none)});
  PutNodePart(lamp, {9, 0, ScaleTranslate(1, 1, 1, 0, 10, 0), 0, 0});
  lamp.i32(-1).floats({1.0f, 0.5f, 0.25f}).u32(2);
  PutNodePart(camA, {10, 0, ScaleTranslate(1, 1, 1, 0, 0, 20), 0, 0});
  camA.floats({0.75f, 250.0f, 0.5f}).i32(12).floats({7, 8, 9});
  PutNodePart(camB, {11, 1, ScaleTranslate(1, 1, 1, 0, 0, -20), 0, 0});
  camB.floats({1.5f, 100.0f, 1.0f}).i32(-1).floats({0, 0, 0});
  expected.insert(expected.end(), {{2002, "Lamp", 0, lamp.v},
                                   {2003, "CamA", 0, camA.v},
                                   {2003, "CamB", 1, camB.v}});
  EXPECT_EQ(qsn, QsnBytes("kinds.PODx", expected));
}

}  // namespace
