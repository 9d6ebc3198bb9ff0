#include "import/BoneInfluences.h"

#include <algorithm>
#include <cmath>

namespace korvex::podimport {

VertexInfluences LimitInfluences(std::vector<BoneInfluence> influences, size_t maxCount,
                                 bool* dropped) {
  if (dropped) *dropped = false;
  std::sort(influences.begin(), influences.end(),
            [](const BoneInfluence& a, const BoneInfluence& b) { return a.bone < b.bone; });
  // Merge in double so that many small parts of one bone add up without loss.
  std::vector<std::pair<uint32_t, double>> merged;
  for (const BoneInfluence& in : influences) {
    if (!(std::isfinite(in.weight) && in.weight > 0.0f)) continue;
    if (!merged.empty() && merged.back().first == in.bone)
      merged.back().second += in.weight;
    else
      merged.emplace_back(in.bone, in.weight);
  }
  std::stable_sort(merged.begin(), merged.end(),
                   [](const std::pair<uint32_t, double>& a, const std::pair<uint32_t, double>& b) {
                     return a.second > b.second;
                   });
  const size_t keep = std::min({merged.size(), maxCount, kMaxInfluences});
  if (dropped) *dropped = keep < merged.size();
  double sum = 0.0;
  for (size_t i = 0; i < keep; ++i) sum += merged[i].second;
  VertexInfluences out;
  if (keep == 0 || !std::isfinite(sum) || sum <= 0.0) return out;
  out.count = static_cast<uint8_t>(keep);
  for (size_t i = 0; i < keep; ++i)
    out.item[i] = BoneInfluence{merged[i].first, static_cast<float>(merged[i].second / sum)};
  return out;
}

}  // namespace korvex::podimport
