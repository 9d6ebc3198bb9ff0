#pragma once
// The bones that move one vertex, and how strongly.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace korvex::podimport {

// The most bones a vertex follows in the written scene.
const size_t kMaxInfluences = 4;

struct BoneInfluence {
  uint32_t bone;  // the mesh's own bone number
  float weight;
};

// A vertex's influences, at most kMaxInfluences, strongest first.
struct VertexInfluences {
  uint8_t count = 0;
  BoneInfluence item[kMaxInfluences] = {};
};

// Merges influences of the same bone (their weights add up), drops weights that are not positive
// finite numbers, keeps the `maxCount` strongest (on equal weights the lower bone number) and
// scales what is kept to sum to 1. `dropped` is set when a positive weight was cut.
VertexInfluences LimitInfluences(std::vector<BoneInfluence> influences, size_t maxCount,
                                 bool* dropped = nullptr);

}  // namespace korvex::podimport
