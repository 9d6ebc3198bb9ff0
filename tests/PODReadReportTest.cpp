// What the POD reader says besides true or false: why and where a read stopped, the blocks a
// file that reads lacks, repeats or holds out of place, and what it makes of counts and scenes
// that come twice.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODReadReport.h"
#include "pod/PODReader.h"
#include "pod/PODSceneBuilder.h"
#include "support/PODTestFiles.h"
#include "support/TestSupport.h"
#include "support/TriangleMesh.h"

namespace {

using korvex::PODSceneBuilder;
using podtest::Bytes;
using podtest::Counts;
using podtest::Span;

struct Loaded {
  CPODScene scene;
  PODReadReport report;
  bool ok = false;
  ~Loaded() { podtest::ReleaseScene(scene); }
};

void Load(Loaded& l, const std::vector<uint8_t>& file) {
  l.ok = PODReadFromBytes(l.scene, file.data(), file.size(), nullptr, 0, &l.report);
}

// The first span of `tag` at or after `from`.
const Span& Find(const std::vector<Span>& spans, uint32_t tag, size_t from = 0) {
  for (const Span& s : spans)
    if (s.tag == tag && s.begin >= from) return s;
  ADD_FAILURE() << "no block " << tag;
  static const Span none{0, 0, 0};
  return none;
}

std::vector<uint8_t> Cut(const std::vector<uint8_t>& v, size_t n) {
  return std::vector<uint8_t>(v.begin(), v.begin() + n);
}
std::vector<uint8_t> Remove(const std::vector<uint8_t>& v, const Span& s) {
  std::vector<uint8_t> out(v.begin(), v.begin() + s.begin);
  out.insert(out.end(), v.begin() + s.end, v.end());
  return out;
}
std::vector<uint8_t> Duplicate(const std::vector<uint8_t>& v, const Span& s) {
  std::vector<uint8_t> out(v.begin(), v.begin() + s.end);
  out.insert(out.end(), v.begin() + s.begin, v.end());
  return out;
}
std::vector<uint8_t> MoveToEnd(const std::vector<uint8_t>& v, const Span& s) {
  std::vector<uint8_t> out = Remove(v, s);
  out.insert(out.end(), v.begin() + s.begin, v.begin() + s.end);
  return out;
}

// A complete file as the writer makes it: one textured triangle node with its three channels.
std::vector<uint8_t> CompleteFile() {
  PODSceneBuilder b;
  b.AddTexture("t.png");
  b.AddMaterial("M", 0);
  const int node = b.AddMeshNode("Tri", AddTriangle(b), 0);
  b.SetAnimPosition(node, {1, 2, 3}, false);
  b.SetAnimRotation(node, {0, 0, 0, 1}, false);
  b.SetAnimScale(node, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  CPODScene scene;
  EXPECT_TRUE(b.Build(scene));
  bool ok = false;
  std::vector<uint8_t> file = podtest::WriteBytes(scene, "options", &ok);
  EXPECT_TRUE(ok);
  return file;
}

TEST(PODReadReport, FailuresNameTheirCauseTheRecordAndTheByte) {
  const std::vector<uint8_t> full = CompleteFile();
  const std::vector<Span> spans = podtest::Spans(full);
  ASSERT_FALSE(spans.empty());
  const Span& mesh = Find(spans, 2012);
  const Span& positions = Find(spans, 6006);
  const Span& positionData = Find(spans, 9003, positions.begin);
  const Span& node = Find(spans, 2013);

  Counts two;
  two.meshes = 2;
  Counts one;
  one.meshes = 1;
  Counts huge;
  huge.nodes = 100000;
  const Bytes emptyMesh = Bytes().open(2012).close(2012);
  Bytes early;
  early.version().open(1001).append(emptyMesh).append(podtest::SceneValues(one)).close(1001);
  Bytes uvw;
  uvw.open(2012).blockU32(6002, 2).open(6010).close(6010).close(2012);
  // One set declared, two held: the second stream has no descriptor to go to.
  Bytes uvwBeyond;
  uvwBeyond.open(2012).blockU32(6002, 1).open(6010).close(6010).open(6010);
  const char wrong[11] = "AB.POD.3.0";

  const struct {
    const char* name;
    std::vector<uint8_t> file;
    EPODReadFailure failure;
    std::string where;
    size_t offset;
    std::string detail;
  } cases[] = {
      // Cut 10 bytes into the position payload: the block that cannot be read whole.
      {"payload cut", Cut(full, positionData.begin + 18), EPODReadFailure::Truncated,
       "stream sVertex of mesh 0", positionData.begin + 8, "a block of 36 bytes, 10 left"},
      {"cut after a start marker", Cut(full, mesh.begin + 8), EPODReadFailure::Truncated, "mesh 0",
       mesh.begin + 8, ""},
      {"marker cut in two", Cut(full, node.begin + 12), EPODReadFailure::Truncated, "node 0",
       node.begin + 8, ""},
      {"scene without its end", Cut(full, full.size() - 8), EPODReadFailure::Truncated, "the scene",
       full.size() - 8, ""},
      {"counts disagree", podtest::File(two, emptyMesh).v, EPODReadFailure::CountMismatch,
       "the scene", podtest::File(two, emptyMesh).size(), "2 meshes declared, 1 held"},
      {"record ahead of its count", early.v, EPODReadFailure::RecordWithoutSlot, "mesh 0",
       Bytes().version().open(1001).open(2012).size(), ""},
      {"texture-coordinate streams", podtest::File(one, uvw).v,
       EPODReadFailure::StreamCountMismatch, "mesh 0", podtest::File(one, uvw).size() - 8,
       "2 declared, 1 held"},
      {"a texture-coordinate stream too many", podtest::File(one, uvwBeyond).v,
       EPODReadFailure::StreamCountMismatch, "mesh 0", podtest::File(one, uvwBeyond).size() - 8,
       "more streams than the 1 declared"},
      {"version text", Bytes().block(1000, wrong, 11).open(1001).close(1001).v,
       EPODReadFailure::BadVersion, "the file", 8, ""},
      {"version length", Bytes().block(1000, wrong, 10).v, EPODReadFailure::BadVersion, "the file",
       8, "10 bytes"},
      {"no version", Bytes().open(1001).append(podtest::SceneValues(Counts())).close(1001).v,
       EPODReadFailure::NoVersion, "the file", 0, ""},
      {"no scene", Bytes().version().v, EPODReadFailure::NoScene, "the file", 0, ""},
      {"counts beyond the file", podtest::File(huge, Bytes()).v, EPODReadFailure::TooManyRecords,
       "the scene", 0, "100000 records"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Loaded l;
    Load(l, c.file);
    EXPECT_FALSE(l.ok);
    EXPECT_EQ(l.report.failure, c.failure);
    EXPECT_EQ(l.report.failureWhere, c.where);
    EXPECT_EQ(l.report.failureDetail, c.detail);
    // Where the read stopped is checked where it is fixed by the file's layout.
    if (c.offset != 0) {
      EXPECT_EQ(l.report.failureOffset, c.offset);
    }
  }

  Loaded cut;
  Load(cut, Cut(full, positionData.begin + 18));
  EXPECT_EQ(cut.report.DescribeFailure(),
            "the data ends inside stream sVertex of mesh 0 at byte " +
                std::to_string(positionData.begin + 8) + " (a block of 36 bytes, 10 left)");
}

TEST(PODReadReport, OptionsModeAndUnreadableFilesSayWhy) {
  korvex::test::TempDir dir;
  char options[16];
  CPODScene scene;
  PODReadReport report;
  EXPECT_FALSE(scene.ReadFromFile(dir.file("absent.pod").c_str(), options, 16, &report));
  EXPECT_EQ(report.failure, EPODReadFailure::CannotOpen);

  // Options after the scene are options missing ahead of it.
  Bytes late;
  late.version().open(1001).append(podtest::SceneValues(Counts())).close(1001).blockStr(1002, "x");
  PODReadReport lateReport;
  EXPECT_FALSE(PODReadFromBytes(scene, late.v.data(), late.size(), options, 16, &lateReport));
  EXPECT_EQ(lateReport.failure, EPODReadFailure::NoExportOptions);
  EXPECT_EQ(lateReport.DescribeFailure(), "no export-options block ahead of the scene");
  podtest::ReleaseScene(scene);
}

TEST(PODReadReport, AFileAsTheWriterMakesItHasNoIrregularity) {
  const std::vector<uint8_t> full = CompleteFile();
  Loaded l;
  Load(l, full);
  ASSERT_TRUE(l.ok);
  EXPECT_EQ(l.report.irregularityCount, 0u) << ::testing::PrintToString(l.report.irregularities);

  // Blocks the format does not know are passed over in silence: later files may hold more.
  const std::vector<Span> spans = podtest::Spans(full);
  const Span& node = Find(spans, 2013);
  std::vector<uint8_t> junk = full;
  const Bytes unknown = Bytes().blockStr(7777, "later");
  junk.insert(junk.begin() + node.begin + 8, unknown.v.begin(), unknown.v.end());
  Loaded j;
  Load(j, junk);
  ASSERT_TRUE(j.ok);
  EXPECT_EQ(j.report.irregularityCount, 0u) << ::testing::PrintToString(j.report.irregularities);
}

TEST(PODReadReport, BlocksMissingRepeatedOrOutOfPlaceAreNamed) {
  const std::vector<uint8_t> full = CompleteFile();
  const std::vector<Span> spans = podtest::Spans(full);
  const Span& parent = Find(spans, 5003);
  const Span& name = Find(spans, 5001);
  const Span& background = Find(spans, 2000);
  const Span& version = Find(spans, 1000);
  const Span& rotation = Find(spans, 5008);
  const Span& positions = Find(spans, 6006);
  const Span& positionData = Find(spans, 9003, positions.begin);
  const std::string movedTo = std::to_string(full.size() - (background.end - background.begin));

  const struct {
    const char* name;
    std::vector<uint8_t> file;
    std::vector<std::string> expected;
  } cases[] = {
      {"parent removed", Remove(full, parent), {"node 0: block 5003 (nIdxParent) is missing"}},
      {"rotation removed", Remove(full, rotation),
       {"node 0: block 5008 (pfAnimRotation) is missing"}},
      {"name twice", Duplicate(full, name),
       {"node 0: block 5001 (pszName) at byte " + std::to_string(name.end) +
        " comes a second time; the later one counts"}},
      {"colour moved out", MoveToEnd(full, background),
       {"the scene: block 2000 (pfColourBackground) is missing",
        "block 2000 (pfColourBackground) at byte " + movedTo +
            " lies outside its record and is skipped"}},
      {"version last", MoveToEnd(full, version), {"the file does not start with its version block"}},
      {"positions without data", Remove(full, positionData),
       {"mesh 0: stream sVertex has components but no data"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Loaded l;
    Load(l, c.file);
    EXPECT_TRUE(l.ok) << l.report.DescribeFailure();
    EXPECT_EQ(l.report.irregularities, c.expected);
    EXPECT_EQ(l.report.irregularityCount, c.expected.size());
  }
}

// Records whose blocks depend on what they hold: a node's layout, a mesh's bones and strips.
TEST(PODReadReport, BlocksARecordsOwnValuesCallForAreNamed) {
  Counts c;
  c.nodes = 1;
  Loaded older;
  Load(older, podtest::File(c, podtest::NodeRecord("n", -1, Bytes().blockFloats(5004, {1, 2, 3}))).v);
  ASSERT_TRUE(older.ok);
  EXPECT_EQ(older.report.irregularities,
            (std::vector<std::string>{"node 0: block 5005 (pfRotation) is missing",
                                      "node 0: block 5006 (pfScale) is missing"}));

  Loaded matrix;
  Bytes flags;
  flags.blockU32(5012, 8).blockFloats(5007, {0, 0, 0}).blockFloats(5008, {0, 0, 0, 1});
  flags.blockFloats(5009, {1, 1, 1, 0, 0, 0, 0});
  Load(matrix, podtest::File(c, podtest::NodeRecord("n", -1, flags)).v);
  ASSERT_TRUE(matrix.ok);
  EXPECT_EQ(matrix.report.irregularities,
            (std::vector<std::string>{
                "node 0: its flags animate a matrix but block 5011 (pfAnimMatrix) is missing"}));

  // A mesh's array is absent when its block is missing or empty, and reported where its count
  // calls for entries: batches of at most 0 bones have an empty (or no) table by right.
  struct MeshCase {
    const char* name;
    Bytes blocks;  // between the counts and the (empty) streams
    std::vector<std::string> expected;
  };
  const MeshCase meshCases[] = {
      {"missing",
       Bytes().blockU32(6005, 2).blockU32(6018, 4).blockU32(6019, 1).blockWords(6015, {0, 0, 0, 0}),
       {"mesh 0: nNumStrips is 2 but block 6004 (pnStripLength) is missing",
        "mesh 0: nBatchCnt is 1 but block 6016 (pnBatchBoneCnt) is missing"}},
      {"empty",
       Bytes()
           .blockU32(6005, 2)
           .block(6004, "", 0)
           .blockU32(6018, 4)
           .blockU32(6019, 1)
           .blockWords(6015, {0, 0, 0, 0})
           .block(6016, "", 0),
       {"mesh 0: nNumStrips is 2 but block 6004 (pnStripLength) is empty",
        "mesh 0: nBatchCnt is 1 but block 6016 (pnBatchBoneCnt) is empty"}},
      {"no bones",
       Bytes().blockU32(6005, 0).blockU32(6018, 0).blockU32(6019, 1).blockWords(6016, {0}),
       {}},
  };
  Counts m;
  m.meshes = 1;
  for (const MeshCase& c : meshCases) {
    SCOPED_TRACE(c.name);
    Bytes mesh;
    mesh.open(2012).blockU32(6000, 0).blockU32(6001, 0).blockU32(6002, 0).append(c.blocks);
    for (uint32_t tag : {6003u, 6006u, 6007u, 6008u, 6009u, 6011u, 6012u, 6013u})
      mesh.open(tag).blockU32(9000, 0).blockU32(9001, 0).blockU32(9002, 0).close(tag);
    mesh.close(2012);
    Loaded l;
    Load(l, podtest::File(m, mesh).v);
    ASSERT_TRUE(l.ok);
    EXPECT_EQ(l.report.irregularities, c.expected);
  }
}

// A second count for records already allocated gives a fresh zeroed array, and the count of
// records read goes on: the file below holds two meshes' worth of blocks for a count of 2 with
// the count given again between them, so its first mesh is a zeroed one.
TEST(PODReadReport, ASecondCountGivesFreshRecordsAndTheCounterGoesOn) {
  Counts c;
  c.meshes = 2;
  Bytes recs;
  recs.open(2012).blockU32(6000, 5).close(2012);
  recs.blockU32(2004, 2);
  recs.open(2012).blockU32(6000, 7).close(2012);
  Loaded l;
  Load(l, podtest::File(c, recs).v);
  ASSERT_TRUE(l.ok) << l.report.DescribeFailure();
  EXPECT_EQ(l.scene.nNumMesh, 2u);
  EXPECT_EQ(l.scene.pMesh[0].nNumVertex, 0u);
  EXPECT_EQ(l.scene.pMesh[1].nNumVertex, 7u);
  const std::string again = "the scene: block 2004 (nNumMesh) at byte " +
                            std::to_string(podtest::File(c, Bytes().open(2012).blockU32(6000, 5).close(2012)).size() - 8) +
                            " comes a second time; the later one counts";
  EXPECT_NE(std::find(l.report.irregularities.begin(), l.report.irregularities.end(), again),
            l.report.irregularities.end())
      << ::testing::PrintToString(l.report.irregularities);

  // A count of 0 keeps the array, and a record may still land in it, but the counts disagree at
  // the end (and what that record holds is not lost: the sanitizer build checks for leaks).
  Counts oneNode;
  oneNode.nodes = 1;
  Loaded zero;
  Load(zero, podtest::File(oneNode, Bytes().blockU32(2005, 0).append(podtest::NodeRecord("n", -1))).v);
  EXPECT_FALSE(zero.ok);
  EXPECT_EQ(zero.report.failure, EPODReadFailure::CountMismatch);
  EXPECT_EQ(zero.report.failureDetail, "0 nodes declared, 1 held");
  Counts oneMesh;
  oneMesh.meshes = 1;

  // The same for a mesh's texture-coordinate streams.
  Bytes uvw;
  uvw.open(2012).blockU32(6002, 1).open(6010).blockU32(9001, 2).close(6010);
  uvw.blockU32(6002, 1).close(2012);
  Loaded streams;
  Load(streams, podtest::File(oneMesh, uvw).v);
  ASSERT_TRUE(streams.ok) << streams.report.DescribeFailure();
  EXPECT_EQ(streams.scene.pMesh[0].nNumUVW, 1u);
  EXPECT_EQ(streams.scene.pMesh[0].psUVW[0].n, 0u);  // fresh, not the stream read before
}

TEST(PODReadReport, ASecondSceneIsReadOverTheFirst) {
  Counts one;
  one.meshes = 1;
  Bytes first = Bytes().open(1001).append(podtest::SceneValues(one));
  first.open(2012).blockU32(6000, 3).close(2012).close(1001);
  Bytes second = Bytes().open(1001).append(podtest::SceneValues(one));
  second.open(2012).blockU32(6000, 4).close(2012).close(1001);
  // And one that holds its record without counts of its own: it goes into the first slot.
  Bytes bare = Bytes().open(1001).open(2012).blockU32(6000, 9).close(2012).close(1001);
  Loaded l;
  Load(l, Bytes().version().append(first).append(second).append(bare).v);
  ASSERT_TRUE(l.ok) << l.report.DescribeFailure();
  EXPECT_EQ(l.scene.nNumMesh, 1u);
  EXPECT_EQ(l.scene.pMesh[0].nNumVertex, 9u);
  const auto repeated = std::count_if(
      l.report.irregularities.begin(), l.report.irregularities.end(), [](const std::string& line) {
        return line.rfind("block 1001 (scene) at byte ", 0) == 0 &&
               line.find("comes a second time") != std::string::npos;
      });
  EXPECT_EQ(repeated, 2);
}

// Counts given again and again still allocate no more than the file could hold at once.
TEST(PODReadReport, RepeatedCountsDoNotAddUpTheirAllocations) {
  Counts c;
  Bytes recs;
  for (int i = 0; i < 200; ++i) recs.blockU32(2004, 150);
  for (int i = 0; i < 150; ++i) recs.open(2012).close(2012);
  const Bytes file = podtest::File(c, recs);
  PODReaderResetAllocatedBytes();
  Loaded l;
  Load(l, file.v);
  ASSERT_TRUE(l.ok) << l.report.DescribeFailure();
  EXPECT_EQ(l.scene.nNumMesh, 150u);
  EXPECT_LE(PODReaderAllocatedBytes(), (sizeof(SPODMesh) / 16 + 8) * file.size());
}

}  // namespace
