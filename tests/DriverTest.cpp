// The Korvex command: argument positions, the derived file names, the messages and exit
// statuses, the assertions that end a run, and the refusal of scenes the pipeline cannot
// process safely. Every input path holds a "/", so nothing is written at the file-system root.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "support/TestSupport.h"
#include "support/TriangleMesh.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::test::FileExists;
using korvex::test::KorvexExe;
using korvex::test::RunResult;
using korvex::test::TempDir;

const int kAbort = 128 + 6;  // killed by SIGABRT

// The executable, for what only it does: its command line and the runs that end abnormally.
RunResult Korvex(const std::vector<std::string>& args, const std::string& cwd = "") {
  return korvex::test::Run(KorvexExe(), args, cwd);
}

// The same conversion in this process, for every run that ends normally.
RunResult Convert(const std::vector<std::string>& args) {
  return korvex::test::ConvertInProcess(args);
}

// One textured triangle node: a scene every step of the pipeline accepts.
void BuildSimple(PODSceneBuilder& b) {
  b.AddTexture("t.png");
  b.AddMaterial("M", 0);
  b.AddMeshNode("Tri", AddTriangle(b), 0);
}

bool Save(PODSceneBuilder& b, const std::string& path) {
  CPODScene scene;
  return b.Build(scene) && scene.SavePOD(path.c_str(), "options");
}

// Writes the scene made by `build` as DIR/NAME.pod.
std::string SaveAs(const TempDir& dir, const std::string& name, void (*build)(PODSceneBuilder&)) {
  PODSceneBuilder b;
  build(b);
  const std::string input = dir.file(name + ".pod");
  EXPECT_TRUE(Save(b, input));
  return input;
}

std::string WriteSimple(const std::string& path) {
  PODSceneBuilder b;
  BuildSimple(b);
  EXPECT_TRUE(Save(b, path));
  return path;
}

// The last argument is the input whatever came before; only the first one is a flag position.
// "-r0" or "-r1" as the input path holds no ".", so the name derivation ends the run abnormally
// (an uncaught out-of-range error) right after the first line.
TEST(Driver, FlagTakenAsInputEndsInTheNameDerivation) {
  TempDir dir;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-r0"}, std::vector<std::string>{"car.pod", "-r1"}}) {
    const RunResult r = Korvex(args, dir.path());
    EXPECT_EQ(r.out, "Converting " + args.back() + "\n");
    EXPECT_NE(r.err.find("out_of_range"), std::string::npos) << r.err;
    EXPECT_EQ(r.exitStatus, kAbort);
  }
}

TEST(Driver, FileNameWithoutDotEndsBeforeAnyFileIsOpened) {
  TempDir dir;
  ASSERT_EQ(::mkdir(dir.file("dir.old").c_str(), 0755), 0);
  const std::string input = WriteSimple(dir.file("dir.old/model"));
  const RunResult r = Korvex({input});
  EXPECT_EQ(r.out, "Converting " + input + "\n");
  EXPECT_NE(r.err.find("out_of_range"), std::string::npos) << r.err;
  EXPECT_EQ(r.exitStatus, kAbort);
  // The output name would have been "dir.qsn/model"; the intermediate name was never made.
  EXPECT_FALSE(FileExists(dir.file("dir.qsn")));
  EXPECT_FALSE(FileExists(dir.file("dir.old/model.PODx")));
}

TEST(Driver, FirstArgumentSelectsReduction) {
  TempDir dir;
  const std::string input = WriteSimple(dir.file("car.pod"));
  // "-R1" is no flag (case matters): plain conversion of the last argument.
  RunResult r = Korvex({"-R1", input});
  EXPECT_EQ(r.out, "Converting " + input + "\nRenaming texture...\n");
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(FileExists(dir.file("car.qsn")));

  // The middle argument is ignored; "-r1" compares texture coordinates nearly.
  r = Korvex({"-r1", "anything", input});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out.find("Converting " + input + "\nRenaming texture..."), 0u) << r.out;
  EXPECT_NE(r.out.find("NEARLY same UV"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Total vertex before reduction: 3\n"), std::string::npos) << r.out;
}

TEST(Driver, NamesDerivedFromTheInputPath) {
  TempDir dir;
  // The three characters after the last "." become "qsn"; the file name's last "." and up to
  // four more characters become ".PODx".
  WriteSimple(dir.file("a.podx"));
  RunResult r = Convert({dir.file("a.podx")});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(FileExists(dir.file("a.qsnx")));
  EXPECT_TRUE(FileExists(dir.file("a.PODx")));

  WriteSimple(dir.file("c.podfile"));
  r = Convert({dir.file("c.podfile")});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(FileExists(dir.file("c.qsnfile")));
  EXPECT_TRUE(FileExists(dir.file("c.PODxile")));
}

// An input that is its own intermediate file (named like it, or reached through a link) is read
// in full before the save overwrites it, and converts as a copy of it under another name does.
TEST(Driver, InputThatIsItsOwnIntermediateFileConverts) {
  TempDir dir;
  WriteSimple(dir.file("same.PODx"));
  WriteSimple(dir.file("other.pod"));
  ASSERT_EQ(::symlink(dir.file("linked.PODx").c_str(), dir.file("linked.pod").c_str()), 0);
  WriteSimple(dir.file("linked.PODx"));
  for (const char* name : {"same.PODx", "other.pod", "linked.pod"}) {
    const RunResult r = Convert({"-r0", dir.file(name)});
    EXPECT_EQ(r.exitStatus, 0) << name << r.err;
  }
  const std::vector<uint8_t> expected = korvex::test::ReadFileBytes(dir.file("other.PODx"));
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(korvex::test::ReadFileBytes(dir.file("same.PODx")), expected);
  EXPECT_EQ(korvex::test::ReadFileBytes(dir.file("linked.PODx")), expected);
  // The outputs differ only in the intermediate file's name in the file header.
  const std::vector<uint8_t> other = korvex::test::ReadFileBytes(dir.file("other.qsn"));
  for (const char* name : {"same.qsnx", "linked.qsn"}) {
    const std::vector<uint8_t> qsn = korvex::test::ReadFileBytes(dir.file(name));
    ASSERT_EQ(qsn.size(), other.size()) << name;
    ASSERT_GT(qsn.size(), 268u);
    EXPECT_TRUE(std::equal(qsn.begin() + 268, qsn.end(), other.begin() + 268)) << name;
  }
}

TEST(Driver, UnwritableIntermediateIsReportedWithStatusZero) {
  TempDir dir;
  const std::string input = WriteSimple(dir.file("car.pod"));
  ASSERT_EQ(::mkdir(dir.file("car.PODx").c_str(), 0755), 0);  // cannot be opened as a file
  const RunResult r = Convert({input});
  EXPECT_EQ(r.out, "Converting " + input + "\nRenaming texture...Invalid input file or save file\n");
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_FALSE(FileExists(dir.file("car.qsn")));
}

// ---------------------------------------------------------------------------------------------
// Assertions: expression, function and source name on standard error, abort, no .qsn.

struct AssertionCase {
  const char* name;
  void (*build)(PODSceneBuilder&);
  std::vector<std::string> flags;
  const char* expected;
};

void MeshNodeWithoutMesh(PODSceneBuilder& b) { b.AddMeshNode("Lost", -1); }
void LightMapWithoutMaterial(PODSceneBuilder& b) { b.AddMeshNode("LIGHTMAP001", AddTriangle(b)); }
void LightMapNotDefined(PODSceneBuilder& b) {
  b.AddMaterial("M", -1);
  b.AddMeshNode("LIGHTMAP002wall", AddTriangle(b), 0);
}
void MaterialOnlyOnAMarker(PODSceneBuilder& b) {
  b.AddMaterial("M", -1);
  b.AddMeshNode("MARKER1", AddTriangle(b), 0);
}
void PositionsOfFourFloats(PODSceneBuilder& b) {
  const int mesh = b.AddMesh(1);
  b.SetFloatStream(mesh, PODStream::Vertex, 4, {0, 0, 0, 1});
  b.AddMeshNode("Quad", mesh);
}
void GoodNodeThenMeshNodeWithoutMesh(PODSceneBuilder& b) {
  b.AddMeshNode("Fine", AddTriangle(b));
  b.AddMeshNode("Lost", -1);
}

TEST(DriverDeathTest, SpecifiedAssertionsEndTheRun) {
  const AssertionCase cases[] = {
      {"nidx", MeshNodeWithoutMesh, {},
       "PODLoader/SceneGraphConverter:[0-9]+: buildMeshType: Assertion `node.nIdx != -1' failed"},
      {"lightmapdef", LightMapWithoutMaterial, {},
       "PODLoader/SceneGraphConverter:[0-9]+: buildMeshType: Assertion `node.nIdxMaterial != -1' "
       "failed"},
      {"lightmapped", LightMapNotDefined, {},
       "PODLoader/SceneGraphConverter:[0-9]+: buildLightMapMesh: Assertion `lightmap != "
       "this->m_LightMap.end\\(\\)' failed"},
      {"count", MaterialOnlyOnAMarker, {},
       "PODLoader/SceneGraphConverter:[0-9]+: convertFromPOD: Assertion `"},
      {"stride", PositionsOfFourFloats, {},
       "PODLoader/SceneGraphConverter:[0-9]+: CreateBoundingSphere: Assertion `vertex->n == 3' "
       "failed"},
      // With welding the reduction meets the node first (its source is the driver's).
      {"reduce", GoodNodeThenMeshNodeWithoutMesh, {"-r0"},
       "main:[0-9]+: reduceMeshVertex: Assertion `node->nIdx != -1' failed"},
  };
  for (const AssertionCase& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string input = SaveAs(dir, c.name, c.build);
    std::vector<std::string> args = c.flags;
    args.push_back(input);
    const RunResult r = Korvex(args);
    EXPECT_EQ(r.exitStatus, kAbort);
    EXPECT_TRUE(testing::internal::RE::PartialMatch(r.err, testing::internal::RE(c.expected)))
        << r.err;
    EXPECT_FALSE(FileExists(dir.file(std::string(c.name) + ".qsn")));
  }
}

// ---------------------------------------------------------------------------------------------
// Scenes the pipeline would read outside their arrays: one message naming file, node and
// problem, status 1, nothing written.

void MaterialOutOfRange(PODSceneBuilder& b) {
  b.AddMaterial("M", -1);
  b.AddMeshNode("Box", AddTriangle(b), 5);  // one material only
}
// A few hundred bytes claiming 70,000,000 frames: 64 bytes a frame for the animated mesh.
void AnimationTooLargeToWrite(PODSceneBuilder& b) {
  b.SetNumFrames(70000000);
  b.AddMaterial("M", -1);
  b.AddMeshNode("Box", AddTriangle(b), 0);
}
void CameraTargetWithoutPosition(PODSceneBuilder& b) {
  b.AddCameraNode("Cam", 1, 1, 10, 1);  // camera 0 reads node 0 (itself): no position key
  b.AddNode("Target");
}

// The last line of standard error (warnings about the input may come before it).
std::string LastLine(const std::string& err) {
  const size_t end = err.size() > 0 && err.back() == '\n' ? err.size() - 1 : err.size();
  const size_t start = err.rfind('\n', end == 0 ? 0 : end - 1);
  return err.substr(start == std::string::npos ? 0 : start + 1, end - (start == std::string::npos ? 0 : start + 1));
}

TEST(Driver, ScenesThatCannotBeConvertedAreRefusedBeforeAnythingIsWritten) {
  const struct {
    const char* name;
    void (*build)(PODSceneBuilder&);
    const char* problem;
  } cases[] = {
      {"material", MaterialOutOfRange,
       "node 0 \"Box\": material index 5 is out of range (1 materials)"},
      {"camera", CameraTargetWithoutPosition,
       "node 0 \"Cam\": target position is read from node 0, which has no position key"},
      {"baked", AnimationTooLargeToWrite,
       "node 0 \"Box\": the animation baked up to this node takes 4480000000 bytes of tables, "
       "more than the 4294967295 allowed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string input = SaveAs(dir, c.name, c.build);
    const RunResult r = Convert({"-r0", input});
    EXPECT_EQ(r.out.find("Invalid"), std::string::npos) << r.out;
    EXPECT_EQ(LastLine(r.err), "Korvex: " + input + ": " + c.problem);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_FALSE(FileExists(dir.file(std::string(c.name) + ".PODx")));
    EXPECT_FALSE(FileExists(dir.file(std::string(c.name) + ".qsn")));
  }
}

// What the pipeline's steps define, odd as the data may be, is carried out rather than refused.
void ParentBelowMinusOne(PODSceneBuilder& b) {
  b.AddMaterial("M", -1);
  b.AddMeshNode("Box", AddTriangle(b), 0, -2);  // any negative index means no parent
}

TEST(Driver, AParentIndexBelowMinusOneIsNoParent) {
  TempDir dir;
  const std::string input = SaveAs(dir, "parent", ParentBelowMinusOne);
  const RunResult r = Convert({input});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_TRUE(FileExists(dir.file("parent.qsn")));
}

// More mesh nodes declared than there are nodes: the conversion visits the nodes there are and
// ends on its header count; the reduction would visit nodes that do not exist, so with welding
// the scene is refused instead.
TEST(Driver, MoreMeshNodesThanNodesEndOnTheHeaderCountOrAreRefusedForWelding) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddMaterial("M", -1);
  b.AddMeshNode("Box", AddTriangle(b), 0);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  scene.nNumMeshNode = 2;
  const std::string input = dir.file("count.pod");
  ASSERT_TRUE(scene.SavePOD(input.c_str(), "options"));

  RunResult r = Korvex({input});
  EXPECT_EQ(r.exitStatus, kAbort);
  EXPECT_NE(r.err.find("convertFromPOD: Assertion `header->totalNodeNumber"), std::string::npos)
      << r.err;
  EXPECT_FALSE(FileExists(dir.file("count.qsn")));

  ASSERT_EQ(std::remove(dir.file("count.PODx").c_str()), 0);  // written before the assertion
  r = Convert({"-r0", input});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(LastLine(r.err),
            "Korvex: " + input + ": 2 mesh nodes declared, but the scene holds 1 nodes");
  EXPECT_FALSE(FileExists(dir.file("count.PODx")));
}

}  // namespace

// Streams that hold fewer vertices than the mesh's count: saving as is would read past them, so
// the scene is refused; welding rebuilds them from the vertices the triangles use, so with -r0 or
// -r1 it converts.
TEST(Driver, StreamsShortOfTheVertexCountConvertOnlyWhenWelded) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddMaterial("M", -1);
  b.AddMeshNode("Short", AddTriangle(b), 0);
  const std::string input = dir.file("short.pod");
  ASSERT_TRUE(Save(b, input));
  // The writer stores as many vertices as the count says, so the count is raised in the file.
  std::vector<uint8_t> bytes = korvex::test::ReadFileBytes(input);
  const uint8_t count[] = {0x70, 0x17, 0, 0, 4, 0, 0, 0, 3, 0, 0, 0};  // vertex count 3
  const auto at = std::search(bytes.begin(), bytes.end(), std::begin(count), std::end(count));
  ASSERT_NE(at, bytes.end());
  ASSERT_EQ(std::search(at + 1, bytes.end(), std::begin(count), std::end(count)), bytes.end());
  at[8] = 5;
  ASSERT_TRUE(korvex::test::WriteFileBytes(input, bytes));

  RunResult r = Convert({input});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(LastLine(r.err),
            "Korvex: " + input + ": mesh 0: sVertex is shorter than its 5 elements");
  EXPECT_FALSE(FileExists(dir.file("short.qsn")));

  for (const char* flag : {"-r0", "-r1"}) {
    SCOPED_TRACE(flag);
    r = Convert({flag, input});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_NE(r.out.find("Total vertex before reduction: 5\nTotal vertex after reduction: 3\n"),
              std::string::npos)
        << r.out;
    EXPECT_TRUE(FileExists(dir.file("short.qsn")));
    ASSERT_EQ(std::remove(dir.file("short.qsn").c_str()), 0);
  }
}
