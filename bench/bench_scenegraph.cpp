// Throughput of writing and loading .qsn files: a model of `meshes` plain meshes with 4096
// vertices each (positions, normals, one texture-coordinate set, 4096 triangles), about 176 KB a
// mesh in the file.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "qsn/SceneGraphWritter.h"

namespace {

void Array(SSGNodeData& b, uint32_t bytes) {
  b.length = bytes;
  b.data = static_cast<uint8_t*>(std::malloc(bytes));
  std::memset(b.data, 0x3f, bytes);
}

void BuildModel(QelSceneGraphModel& model, int meshes) {
  const uint32_t vertices = 4096;
  for (int i = 0; i < meshes; ++i) {
    SSGNodeHeader* h = SGNewRecord<SSGNodeHeader>();
    h->type = ESGMeshNode;
    std::snprintf(h->name, sizeof h->name, "Mesh%d", i);
    h->index = i;
    model.adoptNodeHeader(h);
    auto* m = SGNewRecord<SSGQelMeshNodeData>();
    m->numVertex = vertices;
    m->numFace = vertices;
    m->numUVW = 1;
    Array(m->vertexBuffer, vertices * 12);
    Array(m->normalBuffer, vertices * 12);
    Array(m->faceBuffer, vertices * 6);
    Array(m->UVWBuffer, vertices * 8);
    model.adoptNode(m, ESGMeshNode);
  }
  model.header.type = ESGFileHeader;
  model.header.version = 1;
  model.header.totalNodeNumber = static_cast<uint32_t>(meshes);
  std::strcpy(model.header.PODFilename, "bench.PODx");
}

std::string BenchPath() {
  const char* tmp = std::getenv("TMPDIR");
  return std::string(tmp && *tmp ? tmp : "/tmp") + "/bench_scenegraph_" + std::to_string(getpid()) + ".qsn";
}

void BM_WriteQsn(benchmark::State& state) {
  QelSceneGraphModel model;
  BuildModel(model, static_cast<int>(state.range(0)));
  const std::string path = BenchPath();
  uint64_t bytes = 0;
  for (auto _ : state) {
    SceneGraphWritter writer;
    if (!writer.WritetoFile(path, &model)) state.SkipWithError("write failed");
    bytes = writer.bytesWritten();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
  std::remove(path.c_str());
}
BENCHMARK(BM_WriteQsn)->Arg(1)->Arg(100)->Unit(benchmark::kMillisecond);

void BM_LoadQsn(benchmark::State& state) {
  const std::string path = BenchPath();
  uint64_t bytes = 0;
  {
    QelSceneGraphModel model;
    BuildModel(model, static_cast<int>(state.range(0)));
    SceneGraphWritter writer;
    if (!writer.WritetoFile(path, &model)) state.SkipWithError("write failed");
    bytes = writer.bytesWritten();
  }
  for (auto _ : state) {
    QelSceneGraphModel model;
    SceneGraphLoader loader;
    if (!loader.readFromFile(path, &model)) state.SkipWithError(loader.lastError().c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
  std::remove(path.c_str());
}
BENCHMARK(BM_LoadQsn)->Arg(1)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
