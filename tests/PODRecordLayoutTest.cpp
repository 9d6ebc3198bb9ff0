// The POD record tables: every tag of the format is listed once, in the record that holds it,
// as the kind of member the format says; the reader clears the members the format names as a
// record starts; and since the tables drive reading and writing, a file holding every tag a
// file of this system carries reads back and writes out to the same bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/FullPODScene.h"
#include "pod/PODReader.h"
#include "pod/PODRecordLayout.h"
#include "support/PODTestFiles.h"
#include "pod/PODWriter.h"

namespace {

// One line of the tag table: the tag, the record it lies in, the member it fills, and its kind:
// w word, r float, R floats in the record, o older-layout floats (read only), N string a record
// needs, n optional string, a array sized by its block, f array sized by nNumFrame, c record
// count, u texture-coordinate set count, C record container, s stream container, d stream data.
struct Entry {
  unsigned int tag;
  EPODRecord inside;
  std::string field;
  char kind;
  bool operator==(const Entry& o) const {
    return std::tie(tag, inside, field, kind) == std::tie(o.tag, o.inside, o.field, o.kind);
  }
  bool operator<(const Entry& o) const { return tag < o.tag; }
};

std::ostream& operator<<(std::ostream& os, const Entry& e) {
  return os << e.tag << " in " << int(e.inside) << ": " << e.field << " '" << e.kind << "'";
}

struct Lister : korvex::PODFieldVisitor {
  std::vector<Entry>& out;
  EPODRecord inside;
  std::set<unsigned int>* cleared = nullptr;

  void add(unsigned int t, const char* n, char k) { out.push_back({t, inside, n, k}); }
  template <class... A> void word(unsigned int t, const char* n, A&&...) { add(t, n, 'w'); }
  template <class... A> void real(unsigned int t, const char* n, A&&...) { add(t, n, 'r'); }
  template <class... A> void reals(unsigned int t, const char* n, A&&...) { add(t, n, 'R'); }
  template <class... A> void older(unsigned int t, const char* n, A&&...) { add(t, n, 'o'); }
  template <class... A> void count(unsigned int t, const char* n, A&&...) { add(t, n, 'c'); }
  template <class... A> void uvCount(unsigned int t, const char* n, A&&...) { add(t, n, 'u'); }
  template <class... A> void records(unsigned int t, const char* n, A&&...) { add(t, n, 'C'); }
  template <class... A> void payload(unsigned int t, const char* n, A&&...) { add(t, n, 'd'); }
  void stream(const PODVertexStream& s, CPODData&, bool) { add(s.tag, s.name, 's'); }
  void text(unsigned int t, const char* n, char*&, bool needed, bool clear) {
    add(t, n, needed ? 'N' : 'n');
    if (clear && cleared) cleared->insert(t);
  }
  template <class T>
  void array(unsigned int t, const char* n, T*&, size_t&, int64_t, bool clear) {
    add(t, n, 'a');
    if (clear && cleared) cleared->insert(t);
  }
  void frames(unsigned int t, const char* n, float*&, size_t&, unsigned int, bool, bool) {
    add(t, n, 'f');
    if (cleared) cleared->insert(t);
  }
};

// Every table, walked over empty records (a mesh with one texture-coordinate set).
std::vector<Entry> AllTables(std::set<unsigned int>* cleared = nullptr) {
  std::vector<Entry> out;
  auto walk = [&](auto record, EPODRecord inside) {
    Lister l{{}, out, inside, cleared};
    korvex::DescribePOD(record, l);
  };
  walk(SPODScene{}, EPODRecord::Scene);
  walk(SPODCamera{}, EPODRecord::Camera);
  walk(SPODLight{}, EPODRecord::Light);
  walk(SPODMaterial{}, EPODRecord::Material);
  walk(SPODTexture{}, EPODRecord::Texture);
  walk(SPODNode{}, EPODRecord::Node);
  CPODData set{};
  SPODMesh mesh{};
  mesh.psUVW = &set;
  mesh.nUVWCount = mesh.nNumUVW = 1;
  walk(mesh, EPODRecord::Mesh);
  walk(CPODData{}, EPODRecord::Stream);
  return out;
}

// The format's tag table below the top level, written out independently of the tables.
std::vector<Entry> TheFormat() {
  using R = EPODRecord;
  std::vector<Entry> e = {
      {2000, R::Scene, "pfColourBackground", 'R'}, {2001, R::Scene, "pfColourAmbient", 'R'},
      {2002, R::Scene, "nNumCamera", 'c'},  {2003, R::Scene, "nNumLight", 'c'},
      {2004, R::Scene, "nNumMesh", 'c'},    {2005, R::Scene, "nNumNode", 'c'},
      {2006, R::Scene, "nNumMeshNode", 'w'}, {2007, R::Scene, "nNumTexture", 'c'},
      {2008, R::Scene, "nNumMaterial", 'c'}, {2009, R::Scene, "nNumFrame", 'w'},
      {2010, R::Scene, "camera", 'C'},      {2011, R::Scene, "light", 'C'},
      {2012, R::Scene, "mesh", 'C'},        {2013, R::Scene, "node", 'C'},
      {2014, R::Scene, "texture", 'C'},     {2015, R::Scene, "material", 'C'},
      {2016, R::Scene, "nFlags", 'w'},
      {3000, R::Material, "pszName", 'N'},  {3001, R::Material, "nIdxTexDiffuse", 'w'},
      {3002, R::Material, "fMatOpacity", 'r'}, {3003, R::Material, "pfMatAmbient", 'R'},
      {3004, R::Material, "pfMatDiffuse", 'R'}, {3005, R::Material, "pfMatSpecular", 'R'},
      {3006, R::Material, "fMatShininess", 'r'}, {3007, R::Material, "pszEffectFile", 'n'},
      {3008, R::Material, "pszEffectName", 'n'},
      {4000, R::Texture, "pszName", 'N'},
      {5000, R::Node, "nIdx", 'w'},         {5001, R::Node, "pszName", 'N'},
      {5002, R::Node, "nIdxMaterial", 'w'}, {5003, R::Node, "nIdxParent", 'w'},
      {5004, R::Node, "pfPosition", 'o'},   {5005, R::Node, "pfRotation", 'o'},
      {5006, R::Node, "pfScale", 'o'},      {5007, R::Node, "pfAnimPosition", 'f'},
      {5008, R::Node, "pfAnimRotation", 'f'}, {5009, R::Node, "pfAnimScale", 'f'},
      {5011, R::Node, "pfAnimMatrix", 'f'}, {5012, R::Node, "nAnimFlags", 'w'},
      {6000, R::Mesh, "nNumVertex", 'w'},   {6001, R::Mesh, "nNumFaces", 'w'},
      {6002, R::Mesh, "nNumUVW", 'u'},      {6003, R::Mesh, "sFaces", 's'},
      {6004, R::Mesh, "pnStripLength", 'a'}, {6005, R::Mesh, "nNumStrips", 'w'},
      {6006, R::Mesh, "sVertex", 's'},      {6007, R::Mesh, "sNormals", 's'},
      {6008, R::Mesh, "sTangents", 's'},    {6009, R::Mesh, "sBinormals", 's'},
      {6010, R::Mesh, "psUVW", 's'},        {6011, R::Mesh, "sVtxColours", 's'},
      {6012, R::Mesh, "sBoneIdx", 's'},     {6013, R::Mesh, "sBoneWeight", 's'},
      {6014, R::Mesh, "pInterleaved", 'a'}, {6015, R::Mesh, "pnBatches", 'a'},
      {6016, R::Mesh, "pnBatchBoneCnt", 'a'}, {6017, R::Mesh, "pnBatchOffset", 'a'},
      {6018, R::Mesh, "nBatchBoneMax", 'w'}, {6019, R::Mesh, "nBatchCnt", 'w'},
      {7000, R::Light, "nIdxTarget", 'w'},  {7001, R::Light, "pfColour", 'R'},
      {7002, R::Light, "eType", 'w'},
      {8000, R::Camera, "nIdxTarget", 'w'}, {8001, R::Camera, "fFOV", 'r'},
      {8002, R::Camera, "fFar", 'r'},       {8003, R::Camera, "fNear", 'r'},
      {8004, R::Camera, "pfAnimFOV", 'f'},
      {9000, R::Stream, "eType", 'w'},      {9001, R::Stream, "n", 'w'},
      {9002, R::Stream, "nStride", 'w'},    {9003, R::Stream, "pData", 'd'},
  };
  return e;
}

TEST(PODRecordLayout, EveryTagOfTheFormatIsListedOnceInItsRecordAsItsKind) {
  std::vector<Entry> tables = AllTables();
  std::stable_sort(tables.begin(), tables.end());
  const std::vector<Entry> format = TheFormat();
  ASSERT_EQ(tables.size(), format.size());
  for (size_t i = 0; i < format.size(); ++i) {
    SCOPED_TRACE(format[i].tag);
    EXPECT_EQ(tables[i], format[i]);
    // The reader's messages name the same member.
    EXPECT_EQ(PODTagField(format[i].tag), format[i].field);
  }
  EXPECT_EQ(PODTagField(5010), nullptr);
  EXPECT_EQ(PODTagField(7777), nullptr);
}

// The members a record start releases are the format's: the camera's FOV table, the material's
// three strings, a mesh's strip lengths, interleaved block and bone-batch tables, and a node's
// name and channels; never a texture's name or any stream.
TEST(PODRecordLayout, OnlyTheFormatsMembersAreClearedAsARecordStarts) {
  std::set<unsigned int> cleared;
  AllTables(&cleared);
  EXPECT_EQ(cleared, (std::set<unsigned int>{8004, 3000, 3007, 3008, 6004, 6014, 6015, 6016, 6017,
                                             5001, 5007, 5008, 5009, 5011}));
}

// The full scene's file holds every tag but the older node layout's, and reading it then
// writing it gives the same bytes.
TEST(PODRecordLayout, AFileHoldingEveryWrittenTagReadsAndWritesToTheSameBytes) {
  korvex::PODSceneBuilder b;
  korvex::test::BuildFullPODScene(b);
  CPODScene built;
  ASSERT_TRUE(b.Build(built));
  bool ok = false;
  const std::vector<uint8_t> first = podtest::WriteBytes(built, "-opt", &ok);
  ASSERT_TRUE(ok);

  std::vector<podtest::Block> blocks;
  ASSERT_TRUE(podtest::Walk(first, blocks));
  std::set<unsigned int> held, expected = {1000, 1001, 1002};
  for (const podtest::Block& k : blocks) held.insert(k.tag);
  for (const Entry& e : TheFormat()) {
    if (e.kind != 'o') expected.insert(e.tag);
  }
  EXPECT_EQ(held, expected);

  CPODScene read;
  ASSERT_TRUE(PODReadFromBytes(read, first.data(), first.size(), nullptr, 0));
  EXPECT_EQ(podtest::WriteBytes(read, "-opt"), first);
}

}  // namespace

// The saved-scene check and the writer read the same tables by the same length rules: what the
// check names is exactly what makes WritePOD fail.
TEST(PODRecordLayout, TheSaveCheckNamesWhatTheWriterCannotWrite) {
  const struct {
    const char* name;
    void (*damage)(SPODScene&);
    const char* shortfall;
  } cases[] = {
      {"nothing short", [](SPODScene&) {}, ""},
      {"field-of-view keys", [](SPODScene& s) { s.pCamera[0].nAnimFOVSize = 8; },
       "camera 0: pfAnimFOV holds fewer than 3 keys"},
      {"matrix keys", [](SPODScene& s) { s.pNode[4].nAnimMatrixSize = 64; },
       "node 4: pfAnimMatrix holds fewer than 3 keys"},
      {"one static key", [](SPODScene& s) { s.pNode[5].nAnimScaleSize = 20; },
       "node 5: pfAnimScale holds fewer than 1 keys"},
      {"bone batches", [](SPODScene& s) { s.pMesh[0].sBoneBatches.nBatchesSize = 20; },
       "mesh 0: pnBatches holds fewer than its 6 elements"},
      {"a stream", [](SPODScene& s) { s.pMesh[0].sNormals.nDataSize = 60; },
       "mesh 0: sNormals is shorter than its 6 elements"},
      {"a texture-coordinate set", [](SPODScene& s) { s.pMesh[0].psUVW[1].nDataSize = 4; },
       "mesh 0: psUVW is shorter than its 6 elements"},
      {"strip lengths", [](SPODScene& s) { s.pMesh[0].nStripLengthSize = 4; },
       "mesh 0: strip lengths are shorter than its strips"},
      {"no vertex stride", [](SPODScene& s) { s.pMesh[1].sVertex.nStride = 0; },
       "mesh 1: an interleaved block with no vertex stride"},
      // (2^32 - 3) x (2^32 - 1) bytes: more than a 64-bit signed count holds.
      {"an interleaved block no count holds",
       [](SPODScene& s) {
         s.pMesh[1].nNumVertex = 0xFFFFFFFDu;
         s.pMesh[1].sVertex.nStride = 0xFFFFFFFFu;
       },
       "mesh 1: pInterleaved holds fewer than its 9223372036854775807 elements"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    korvex::PODSceneBuilder b;
    korvex::test::BuildFullPODScene(b);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    c.damage(scene);
    EXPECT_EQ(PODWriteShortfall(scene), c.shortfall);
    bool written = false;
    podtest::WriteBytes(scene, nullptr, &written);
    EXPECT_EQ(written, std::string(c.shortfall).empty());
  }
}
