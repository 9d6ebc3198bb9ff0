// Vertex welding: the linear-time reduction against the plain first-match scan on triangulated
// grids of 1,000, 10,000 and 65,535 distinct vertices (each inner vertex used by 6 corners), with
// one texture-coordinate set on a node with material. Target: the 65,535-vertex grid in under
// 50 ms. The last benchmark is the hard case of near mode: every vertex at one position with
// coordinates too far apart to merge, so one position group holds every kept vertex (searched
// by cells of coordinates once it is long, instead of one by one), also with coordinates beyond
// 2^20, where each value has a cell of its own.
//
// BM_PlanExact and BM_PlanNear time what the tool runs before saving: the weld plan of a scene of
// 32 meshes shaped like podgen's large-still sheets (4 patches of 125 x 125 vertices whose seams
// repeat a column, the third one shifted by 0.0005 in u so that only near mode welds it), the
// streams left as they are. Target: near mode no slower than exact mode.
//
//   build/bench_reduction --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/ReferenceReduction.h"
#include "edit/VertexReduction.h"

namespace {

template <typename T>
CPODData Stream(EPODDataType type, uint32_t n, const std::vector<T>& values) {
  CPODData d{};
  d.eType = type;
  d.n = n;
  d.nStride = n * sizeof(T);
  d.nDataSize = values.size() * sizeof(T);
  d.pData = static_cast<uint8_t*>(std::malloc(d.nDataSize));
  std::memcpy(d.pData, values.data(), d.nDataSize);
  return d;
}

struct Source {
  std::vector<float> positions, normals, uvs;
  std::vector<uint16_t> faces;
};

// A width x height grid of vertices, two triangles a cell.
Source Grid(int width, int height) {
  Source s;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      s.positions.insert(s.positions.end(), {x * 0.25f, y * 0.25f, float((x * 7 + y * 3) % 5)});
      s.normals.insert(s.normals.end(), {0, 0, 1});
      s.uvs.insert(s.uvs.end(), {float(x) / float(width), float(y) / float(height)});
    }
  }
  for (int y = 0; y + 1 < height; ++y) {
    for (int x = 0; x + 1 < width; ++x) {
      const uint16_t a = uint16_t(y * width + x), b = uint16_t(a + 1), c = uint16_t(a + width), d = uint16_t(c + 1);
      s.faces.insert(s.faces.end(), {a, b, c, b, d, c});
    }
  }
  return s;
}

// Every vertex at the origin, coordinates 0.01 apart: nothing merges in near mode.
Source OnePosition(int vertices) {
  Source s;
  for (int v = 0; v < vertices; ++v) {
    s.positions.insert(s.positions.end(), {0, 0, 0});
    s.normals.insert(s.normals.end(), {0, 0, 1});
    s.uvs.insert(s.uvs.end(), {float(v % 256) * 0.01f, float(v / 256) * 0.01f});
  }
  for (int t = 0; t < vertices; ++t)
    s.faces.insert(s.faces.end(), {uint16_t(t), uint16_t((t + 1) % vertices), uint16_t((t + 2) % vertices)});
  return s;
}

// The same with coordinates beyond 2^20, where only equal values are near: u = 2^20 + v / 8.
Source FarCoordinates(int vertices) {
  Source s = OnePosition(vertices);
  for (int v = 0; v < vertices; ++v) {
    s.uvs[2 * size_t(v)] = 1048576.0f + float(v) * 0.125f;
    s.uvs[2 * size_t(v) + 1] = 0.0f;
  }
  return s;
}

// Four patches of side x side vertices side by side, each repeating the last column of the one
// before; the third patch's first column is 0.0005 off in u.
Source Sheet(int side) {
  Source s;
  const int columns = 4 * (side - 1);
  for (int p = 0; p < 4; ++p) {
    const int base = int(s.positions.size() / 3);
    for (int row = 0; row < side; ++row) {
      for (int c = 0; c < side; ++c) {
        const int column = p * (side - 1) + c;
        s.positions.insert(s.positions.end(), {0.1f * float(column), 0.1f * float(row), float(column % 7)});
        s.normals.insert(s.normals.end(), {0, 0, 1});
        const float u = float(column) / float(columns) + (p == 2 && c == 0 ? 0.0005f : 0.0f);
        s.uvs.insert(s.uvs.end(), {u, float(row) / float(side - 1)});
      }
    }
    for (int row = 0; row + 1 < side; ++row) {
      for (int c = 0; c + 1 < side; ++c) {
        const uint16_t a = uint16_t(base + row * side + c), b = uint16_t(a + 1), d = uint16_t(a + side), e = uint16_t(d + 1);
        s.faces.insert(s.faces.end(), {a, b, e, a, e, d});
      }
    }
  }
  return s;
}

SPODMesh MakeMesh(const Source& s) {
  SPODMesh m{};
  m.nNumVertex = uint32_t(s.positions.size() / 3);
  m.nNumFaces = uint32_t(s.faces.size() / 3);
  m.sVertex = Stream(EPODDataFloat, 3, s.positions);
  m.sNormals = Stream(EPODDataFloat, 3, s.normals);
  m.sFaces = Stream(EPODDataUInt16, 1, s.faces);
  m.nNumUVW = 1;
  m.nUVWCount = 1;
  m.psUVW = static_cast<CPODData*>(std::calloc(1, sizeof(CPODData)));
  m.psUVW[0] = Stream(EPODDataFloat, 2, s.uvs);
  return m;
}

void FreeMesh(SPODMesh& m) {
  std::free(m.sVertex.pData);
  std::free(m.sNormals.pData);
  std::free(m.sFaces.pData);
  std::free(m.psUVW[0].pData);
  std::free(m.psUVW);
}

Source GridOf(int vertices) {
  switch (vertices) {
    case 1000: return Grid(40, 25);
    case 10000: return Grid(100, 100);
    default: return Grid(255, 257);  // 65,535
  }
}

template <typename Reduce>
void Run(benchmark::State& state, const Source& source, bool nearly, Reduce reduce) {
  SPODNode node{};
  node.pszName = const_cast<char*>("grid");
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    SPODMesh mesh = MakeMesh(source);
    state.ResumeTiming();
    reduce(&node, &mesh, true, nearly);
    state.PauseTiming();
    kept = mesh.nNumVertex;
    FreeMesh(mesh);
    state.ResumeTiming();
  }
  state.counters["corners"] = double(source.faces.size());
  state.counters["kept"] = double(kept);
}

void BM_FastExact(benchmark::State& state) { Run(state, GridOf(int(state.range(0))), false, reduceVertex); }
void BM_ReferenceExact(benchmark::State& state) {
  Run(state, GridOf(int(state.range(0))), false, reference_reduction::ReduceVertex);
}
void BM_FastNear(benchmark::State& state) { Run(state, GridOf(int(state.range(0))), true, reduceVertex); }
void BM_ReferenceNear(benchmark::State& state) {
  Run(state, GridOf(int(state.range(0))), true, reference_reduction::ReduceVertex);
}
// The plan for a scene of `meshes` copies of the sheet, one mesh node with material each.
void RunPlan(benchmark::State& state, bool nearly) {
  const Source sheet = Sheet(125);
  const uint32_t meshes = 32;
  std::vector<SPODMesh> mesh(meshes);
  std::vector<SPODNode> nodes(meshes);
  for (uint32_t k = 0; k < meshes; ++k) {
    mesh[k] = MakeMesh(sheet);
    nodes[k] = SPODNode{};
    nodes[k].nIdx = int32_t(k);
    nodes[k].nIdxMaterial = 0;
    nodes[k].pszName = const_cast<char*>("sheet");
  }
  SPODScene scene{};
  scene.nNumMesh = meshes;
  scene.pMesh = mesh.data();
  scene.nNumNode = scene.nNumMeshNode = meshes;
  scene.pNode = nodes.data();
  // The reduction's lines go to /dev/null while it runs; the benchmark's own report is on stdout.
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  const int null = open("/dev/null", O_WRONLY);
  if (saved < 0 || null < 0 || dup2(null, STDOUT_FILENO) < 0) state.SkipWithError("stdout not redirected");
  size_t kept = 0;
  for (auto _ : state) {
    const PODWeldPlan plan = reduceMeshVertexForSave(&scene, nearly);
    kept = plan.weld(0) != nullptr ? plan.weld(0)->nKept : 0;
    benchmark::DoNotOptimize(kept);
  }
  std::fflush(stdout);
  if (saved >= 0) dup2(saved, STDOUT_FILENO);
  if (saved >= 0) close(saved);
  if (null >= 0) close(null);
  for (SPODMesh& m : mesh) FreeMesh(m);
  state.counters["corners"] = double(sheet.faces.size() * meshes);
  state.counters["kept a mesh"] = double(kept);
}

void BM_PlanExact(benchmark::State& state) { RunPlan(state, false); }
void BM_PlanNear(benchmark::State& state) { RunPlan(state, true); }

void BM_FastNearOnePosition(benchmark::State& state) {
  Run(state, OnePosition(int(state.range(0))), true, reduceVertex);
}
void BM_FastNearFarCoordinates(benchmark::State& state) {
  Run(state, FarCoordinates(int(state.range(0))), true, reduceVertex);
}

}  // namespace

BENCHMARK(BM_FastExact)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceExact)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNear)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceNear)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlanExact)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlanNear)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNearOnePosition)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNearFarCoordinates)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(65535)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
