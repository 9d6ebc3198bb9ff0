#include "import/AnimationSampling.h"

#include <algorithm>
#include <cmath>

namespace korvex::podimport {

namespace {

template <class Key>
double KeyTime(const Key& key) {
  return key.mTime;
}

// The keys around `ticks` and the weight of the later one; both indices are valid (count > 0).
template <class Key>
void Bracket(const Key* keys, unsigned int count, double ticks, unsigned int& first,
             unsigned int& second, double& weight) {
  const Key* end = keys + count;
  const Key* after =
      std::upper_bound(keys, end, ticks, [](double t, const Key& k) { return t < KeyTime(k); });
  if (after == keys) {
    first = second = 0;
    weight = 0.0;
    return;
  }
  if (after == end) {
    first = second = count - 1;
    weight = 0.0;
    return;
  }
  second = static_cast<unsigned int>(after - keys);
  first = second - 1;
  const double span = keys[second].mTime - keys[first].mTime;
  weight = span > 0.0 ? (ticks - keys[first].mTime) / span : 0.0;
  if (!(weight >= 0.0)) weight = 0.0;
  if (weight > 1.0) weight = 1.0;
}

aiVector3D LerpKeys(const aiVectorKey* keys, unsigned int count, double ticks) {
  unsigned int a = 0, b = 0;
  double w = 0.0;
  Bracket(keys, count, ticks, a, b, w);
  if (a == b || w == 0.0) return keys[a].mValue;
  const aiVector3D& p = keys[a].mValue;
  const aiVector3D& q = keys[b].mValue;
  return aiVector3D(static_cast<ai_real>(p.x + (q.x - p.x) * w),
                    static_cast<ai_real>(p.y + (q.y - p.y) * w),
                    static_cast<ai_real>(p.z + (q.z - p.z) * w));
}

aiQuaternion SlerpKeys(const aiQuatKey* keys, unsigned int count, double ticks) {
  unsigned int a = 0, b = 0;
  double w = 0.0;
  Bracket(keys, count, ticks, a, b, w);
  if (a == b || w == 0.0) return keys[a].mValue;
  aiQuaternion out;
  aiQuaternion::Interpolate(out, keys[a].mValue, keys[b].mValue, static_cast<ai_real>(w));
  return out;
}

}  // namespace

double AnimationTicksPerSecond(const aiAnimation& animation) {
  const double tps = animation.mTicksPerSecond;
  return std::isfinite(tps) && tps > 0.0 ? tps : 25.0;
}

uint64_t WholeAnimationFrames(const aiAnimation& animation, double fps) {
  const double duration = animation.mDuration;
  if (!std::isfinite(duration) || duration <= 0.0) return 1;
  // The small allowance keeps a duration of exactly N frames from losing its last frame to
  // rounding of the tick rate.
  const double frames = duration / AnimationTicksPerSecond(animation) * fps + 1e-6;
  if (!(frames < 1e15)) return uint64_t{1} << 50;
  return static_cast<uint64_t>(std::floor(frames)) + 1;
}

double FrameTicks(const aiAnimation& animation, double fps, uint64_t frame) {
  return static_cast<double>(frame) / fps * AnimationTicksPerSecond(animation);
}

LocalTransform SampleChannel(const aiNodeAnim& channel, double ticks, const LocalTransform& rest) {
  LocalTransform t = rest;
  if (channel.mNumPositionKeys > 0 && channel.mPositionKeys)
    t.position = LerpKeys(channel.mPositionKeys, channel.mNumPositionKeys, ticks);
  if (channel.mNumRotationKeys > 0 && channel.mRotationKeys)
    t.rotation = SlerpKeys(channel.mRotationKeys, channel.mNumRotationKeys, ticks);
  if (channel.mNumScalingKeys > 0 && channel.mScalingKeys)
    t.scale = LerpKeys(channel.mScalingKeys, channel.mNumScalingKeys, ticks);
  return t;
}

}  // namespace korvex::podimport
