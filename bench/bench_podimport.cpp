// podimport on a 1,000,000-triangle OBJ that the benchmark writes (a 1000 x 500 grid of quads
// with texture coordinates and one shared normal), against the import library's own reading of
// the same file with the same processing steps. Target: podimport (reading, conversion, checks,
// writing the POD file) takes at most twice as long as the library alone; the "ratio" counter of
// BM_PodimportOverLibrary is podimport's time over the library's, timed in one process.

#include <assimp/config.h>
#include <assimp/scene.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <assimp/Importer.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "import/ImportOptions.h"
#include "import/ImportSummary.h"
#include "import/ModelFileImport.h"

namespace {

const int kColumns = 1000;
const int kRows = 500;  // kColumns x kRows quads, two triangles each

class GridFile {
 public:
  GridFile() {
    char pattern[] = "/tmp/bench-podimport-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    m_dir = pattern;
    m_obj = m_dir + "/grid.obj";
    FILE* f = std::fopen(m_obj.c_str(), "w");
    if (f == nullptr) std::abort();
    std::fputs("o Grid\n", f);
    for (int y = 0; y <= kRows; ++y)
      for (int x = 0; x <= kColumns; ++x)
        std::fprintf(f, "v %d %d %.4f\n", x, y, std::sin(x * 0.05) * std::cos(y * 0.05));
    for (int y = 0; y <= kRows; ++y)
      for (int x = 0; x <= kColumns; ++x)
        std::fprintf(f, "vt %.5f %.5f\n", double(x) / kColumns, double(y) / kRows);
    std::fputs("vn 0 0 1\n", f);
    for (int y = 0; y < kRows; ++y) {
      for (int x = 0; x < kColumns; ++x) {
        const int a = y * (kColumns + 1) + x + 1, b = a + 1, c = a + kColumns + 2,
                  d = a + kColumns + 1;
        std::fprintf(f, "f %d/%d/1 %d/%d/1 %d/%d/1\nf %d/%d/1 %d/%d/1 %d/%d/1\n", a, a, b, b, c, c,
                     a, a, c, c, d, d);
      }
    }
    if (std::fclose(f) != 0) std::abort();
  }
  ~GridFile() {
    std::remove(m_obj.c_str());
    std::remove(Output().c_str());
    rmdir(m_dir.c_str());
  }
  const std::string& Obj() const { return m_obj; }
  std::string Output() const { return m_dir + "/grid.pod"; }

 private:
  std::string m_dir;
  std::string m_obj;
};

const GridFile& Grid() {
  static const GridFile grid;
  return grid;
}

double LibraryImport(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  Assimp::Importer importer;
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                              aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  const aiScene* scene = importer.ReadFile(path, korvex::podimport::ImportPostProcessSteps());
  if (scene == nullptr || scene->mNumMeshes == 0) std::abort();
  benchmark::DoNotOptimize(scene->mMeshes[0]->mNumVertices);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Podimport(const std::string& path, const std::string& output) {
  const auto start = std::chrono::steady_clock::now();
  korvex::podimport::ImportSummary summary;
  std::string error;
  if (!korvex::podimport::ImportModelFile(path, output, korvex::podimport::ImportOptions(), "", summary,
                                      error) ||
      summary.triangles != uint64_t{2} * kColumns * kRows)
    std::abort();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_LibraryImport(benchmark::State& state) {
  const GridFile& grid = Grid();
  for (auto _ : state) LibraryImport(grid.Obj());
}
BENCHMARK(BM_LibraryImport)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Podimport(benchmark::State& state) {
  const GridFile& grid = Grid();
  for (auto _ : state) Podimport(grid.Obj(), grid.Output());
}
BENCHMARK(BM_Podimport)->Unit(benchmark::kMillisecond)->Iterations(3);

// Both in each iteration, one after the other, so that they share the machine's state.
void BM_PodimportOverLibrary(benchmark::State& state) {
  const GridFile& grid = Grid();
  double library = 0, podimport = 0;
  for (auto _ : state) {
    library += LibraryImport(grid.Obj());
    podimport += Podimport(grid.Obj(), grid.Output());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["library_s"] = library / n;
  state.counters["podimport_s"] = podimport / n;
  state.counters["ratio"] = podimport / library;
}
BENCHMARK(BM_PodimportOverLibrary)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
