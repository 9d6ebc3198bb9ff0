// Baking one skinned mesh: 10,000 vertices, 60 animated bones (three chains of 20), 200 frames.
// Target: convertSkeletonNode under 100 ms. Run with --benchmark_repetitions=5 for a median.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "pod/PODSceneBuilder.h"
#include "convert/SkeletonNodeConverter.h"

namespace {

const uint32_t kVertices = 10000;
const int kBones = 60;
const int kChainLength = 20;
const uint32_t kFrames = 200;

int BuildSkinnedScene(CPODScene& scene) {
  korvex::PODSceneBuilder b;
  b.SetNumFrames(kFrames);
  const int mesh = b.AddMesh(kVertices);
  std::vector<float> positions(kVertices * 3), weights(kVertices * 4, 0.25f);
  std::vector<uint8_t> indices(kVertices * 4);
  for (uint32_t v = 0; v < kVertices; ++v) {
    positions[3 * v] = float(v % 100);
    positions[3 * v + 1] = float(v / 100);
    positions[3 * v + 2] = 0.5f;
    for (int k = 0; k < 4; ++k) indices[4 * v + k] = uint8_t((v + k) % kBones);
  }
  b.SetFloatStream(mesh, korvex::PODStream::Vertex, 3, positions);
  b.SetStream(mesh, korvex::PODStream::BoneIdx, EPODDataUByte4, 1, indices.data(), indices.size());
  b.SetFloatStream(mesh, korvex::PODStream::BoneWeight, 4, weights);
  const int skin = b.AddMeshNode("skin", mesh);
  b.SetAnimScale(skin, korvex::PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
  b.SetAnimPosition(skin, {0, 0, 0}, false);

  std::vector<int32_t> bones;
  for (int i = 0; i < kBones; ++i) {
    const int32_t parent = i % kChainLength == 0 ? -1 : bones.back();
    const int bone = b.AddNode("bone", parent);
    std::vector<float> position, rotation;
    for (uint32_t f = 0; f < kFrames; ++f) {
      const float angle = 0.01f * float(f) + 0.1f * float(i);
      position.insert(position.end(), {0.0f, 1.0f + 0.001f * float(f), 0.0f});
      rotation.insert(rotation.end(), {0.0f, 0.0f, std::sin(angle), std::cos(angle)});
    }
    b.SetAnimPosition(bone, position);
    b.SetAnimRotation(bone, rotation);
    bones.push_back(bone);
  }
  b.SetBoneBatches(mesh, kBones, {bones}, {0});
  b.Build(scene);
  return skin;
}

void FreeSkeletalArrays(SSGQelSkeletalMeshNodeData& r) {
  for (SSGNodeData* d :
       {&r.Batch, &r.BatchBoneCnt, &r.BatchOffset, &r.BoneIdx_ptr, &r.BoneWeight_ptr,
        &r.sBoneIndexbuffer, &r.sBoneWorldMatrixbuffer, &r.sSpherebuffer, &r.sAABBbuffer}) {
    std::free(d->data);
    d->data = nullptr;
  }
}

void BM_ConvertSkeletonNode(benchmark::State& state) {
  CPODScene scene;
  const int skin = BuildSkinnedScene(scene);
  SkeletonNodeConverter converter;
  SSGQelSkeletalMeshNodeData record{};
  for (auto _ : state) {
    korvex::FrameFields frame;
    converter.convertSkeletonNode(&scene, skin, &record, frame);
    benchmark::DoNotOptimize(record.sAABBbuffer.data);
    FreeSkeletalArrays(record);
  }
}
BENCHMARK(BM_ConvertSkeletonNode)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
