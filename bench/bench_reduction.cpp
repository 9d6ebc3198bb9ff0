// Vertex welding: the linear-time reduction against the plain first-match scan on triangulated
// grids of 1,000, 10,000 and 65,535 distinct vertices (each inner vertex used by 6 corners), with
// one texture-coordinate set on a node with material. Target: the 65,535-vertex grid in under
// 50 ms. The last benchmark is the hard case of near mode: every vertex at one position with
// coordinates too far apart to merge, so one position group holds every kept vertex (searched
// by cells of coordinates once it is long, instead of one by one).
//
//   build/bench_reduction --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>

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
void BM_FastNearOnePosition(benchmark::State& state) {
  Run(state, OnePosition(int(state.range(0))), true, reduceVertex);
}

}  // namespace

BENCHMARK(BM_FastExact)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceExact)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNear)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceNear)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNearOnePosition)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
