// Speed of saving and loading POD files: a scene of many meshes and animated nodes, the size of a
// large level, written with SavePOD and read with ReadFromFile (both modes, as the driver does).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODReader.h"
#include "pod/PODSceneBuilder.h"

using korvex::PODSceneBuilder;
using korvex::PODStream;

namespace {

// `meshes` meshes of 2000 vertices (position, normal, one UV set) and one animated node each,
// 100 frames.
void Build(CPODScene& scene, int meshes) {
  PODSceneBuilder b;
  b.SetNumFrames(100);
  const uint32_t vertices = 2000;
  std::vector<float> xyz(vertices * 3, 0.5f), uv(vertices * 2, 0.25f);
  std::vector<uint16_t> faces(3 * (vertices - 2));
  for (size_t i = 0; i < faces.size(); ++i) faces[i] = uint16_t(i % vertices);
  for (int m = 0; m < meshes; ++m) {
    int mesh = b.AddMesh(vertices);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, xyz);
    b.SetFloatStream(mesh, PODStream::Normals, 3, xyz);
    b.AddFloatUVW(mesh, 2, uv);
    b.SetFaces(mesh, faces);
  }
  for (int m = 0; m < meshes; ++m) {
    int node = b.AddMeshNode(("mesh" + std::to_string(m)).c_str(), m);
    b.SetAnimPosition(node, std::vector<float>(300, 1.0f));
    b.SetAnimRotation(node, std::vector<float>(400, 0.5f));
  }
  b.Build(scene);
}

std::string TempPath() { return std::string(P_tmpdir) + "/korvex_bench_pod_io.pod"; }

void BM_SavePOD(benchmark::State& state) {
  CPODScene scene;
  Build(scene, int(state.range(0)));
  const std::string path = TempPath();
  for (auto _ : state) {
    if (!scene.SavePOD(path.c_str(), "-options")) state.SkipWithError("SavePOD failed");
  }
  FILE* f = fopen(path.c_str(), "rb");
  fseek(f, 0, SEEK_END);
  const long bytes = ftell(f);
  fclose(f);
  state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
  std::remove(path.c_str());
}
BENCHMARK(BM_SavePOD)->Arg(10)->Arg(200)->Unit(benchmark::kMillisecond);

void BM_ReadFromFile(benchmark::State& state) {
  const std::string path = TempPath();
  long bytes = 0;
  {
    CPODScene scene;
    Build(scene, int(state.range(0)));
    scene.SavePOD(path.c_str(), "-options");
    FILE* f = fopen(path.c_str(), "rb");
    fseek(f, 0, SEEK_END);
    bytes = ftell(f);
    fclose(f);
  }
  char options[2048];
  for (auto _ : state) {
    CPODScene scene;
    if (!scene.ReadFromFile(path.c_str(), options, sizeof options)) state.SkipWithError("options");
    scene.Destroy();
    if (!scene.ReadFromFile(path.c_str())) state.SkipWithError("ReadFromFile failed");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
  std::remove(path.c_str());
}
BENCHMARK(BM_ReadFromFile)->Arg(10)->Arg(200)->Unit(benchmark::kMillisecond);

// One mesh of 4 vertices with `sets` texture-coordinate sets: the rate of sets read should not fall
// as their number grows (a block must cost the same however many sets its mesh has).
void BM_ReadTextureSets(benchmark::State& state) {
  const std::string path = TempPath();
  const int sets = int(state.range(0));
  {
    PODSceneBuilder b;
    const int mesh = b.AddMesh(4);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, std::vector<float>(12, 1.0f));
    for (int k = 0; k < sets; ++k) b.AddFloatUVW(mesh, 2, std::vector<float>(8, 0.5f));
    b.AddMeshNode("mesh", mesh);
    CPODScene scene;
    b.Build(scene);
    scene.SavePOD(path.c_str(), "-options");
  }
  for (auto _ : state) {
    CPODScene scene;
    if (!scene.ReadFromFile(path.c_str())) state.SkipWithError("ReadFromFile failed");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * sets);
  std::remove(path.c_str());
}
BENCHMARK(BM_ReadTextureSets)->Arg(1000)->Arg(16000)->Unit(benchmark::kMillisecond);

// A scene that declares its mesh count `repeats` times, each as large as the meshes read so far and
// the rest of the file can hold, with an empty mesh after each: the rate of counts read should not
// fall as their number grows (a count declared again must cost what was read since, not its size).
void BM_ReadRepeatedCounts(benchmark::State& state) {
  const uint32_t repeats = uint32_t(state.range(0));
  std::vector<uint8_t> file;
  auto word = [&file](uint32_t w) {
    for (int i = 0; i < 4; ++i) file.push_back(uint8_t(w >> (8 * i)));
  };
  auto marker = [&word](uint32_t tag, uint32_t len) { word(tag), word(len); };
  marker(1000, 11);
  for (const char c : std::string("AB.POD.2.0", 11)) file.push_back(uint8_t(c));
  marker(1000 | 0x80000000u, 0);
  marker(1001, 0);
  const size_t perRepeat = 20 + 16, size = file.size() + repeats * perRepeat + 20 + 8;
  for (uint32_t i = 0; i < repeats; ++i) {
    marker(2004, 4);
    word(uint32_t(i + (size - file.size() - 12) / 16));  // the meshes read, and all the rest holds
    marker(2004 | 0x80000000u, 0);
    marker(2012, 0);
    marker(2012 | 0x80000000u, 0);
  }
  marker(2004, 4);
  word(repeats);
  marker(2004 | 0x80000000u, 0);
  marker(1001 | 0x80000000u, 0);
  for (auto _ : state) {
    CPODScene scene;
    PODReadReport report;
    if (!PODReadFromBytes(scene, file.data(), file.size(), nullptr, 0, &report))
      state.SkipWithError(report.DescribeFailure().c_str());
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * repeats);
}
BENCHMARK(BM_ReadRepeatedCounts)->Arg(1000)->Arg(16000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
