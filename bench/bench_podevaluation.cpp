// Frame evaluation costs: the frame-0 cache that every read builds, and per-frame world matrices
// of an animated hierarchy.

#include <benchmark/benchmark.h>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"

namespace {

// `count` nodes; each node's parent is the one `fanout` places before it (fanout 1: one chain).
void BuildHierarchy(CPODScene& scene, int count, int fanout, int frames) {
  korvex::PODSceneBuilder b;
  b.SetNumFrames(frames);
  for (int i = 0; i < count; ++i) {
    const int n = b.AddNode("n", i >= fanout ? (i - 1) / fanout : -1);
    b.SetScale(n, 1.0f, 1.0f, 1.0f);
    b.SetRotation(n, 0.0f, 0.0f, 0.0998f, 0.995f);
    if (frames > 1) {
      std::vector<float> pos, rot;
      for (int f = 0; f < frames; ++f) {
        pos.insert(pos.end(), {0.01f * f, 1.0f, 0.0f});
        rot.insert(rot.end(), {0.0f, 0.0f, 0.001f * f, 1.0f});
      }
      b.SetAnimPosition(n, pos);
      b.SetAnimRotation(n, rot);
    } else {
      b.SetPosition(n, 0.0f, 1.0f, 0.0f);
    }
  }
  b.Build(scene);
}

// The cache every successful read builds; a single long chain is the worst case.
void BM_FlushCacheChain(benchmark::State& state) {
  CPODScene scene;
  BuildHierarchy(scene, static_cast<int>(state.range(0)), 1, 0);
  for (auto _ : state) {
    scene.FlushCache();
    benchmark::DoNotOptimize(scene.m_pImpl->pmWorldFrameZero);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FlushCacheChain)->Arg(1000)->Arg(100000);

// A skeleton of 64 bones evaluated at every frame of a 100-frame animation, uncached.
void BM_SkeletonAllFrames(benchmark::State& state) {
  const int bones = 64, frames = 100;
  CPODScene scene;
  BuildHierarchy(scene, bones, 2, frames);
  PODMATRIXf m;
  for (auto _ : state) {
    for (int f = 0; f < frames; ++f) {
      scene.SetFrame(static_cast<float>(f));
      for (int i = 0; i < bones; ++i) {
        scene.GetWorldMatrixNoCache(m, scene.pNode[i]);
        benchmark::DoNotOptimize(m);
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * bones * frames);
}
BENCHMARK(BM_SkeletonAllFrames);

}  // namespace

BENCHMARK_MAIN();
