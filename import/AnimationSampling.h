#pragma once
// Sampling one animation of the import library at a fixed frame rate.
//
// Frame k lies at k / fps seconds from the animation's start; the whole animation has the frames
// from 0 to its duration. Between two keys positions and scales are interpolated linearly and
// rotations spherically; before the first key and after the last the nearest key holds.

#include <assimp/anim.h>

#include <cstdint>

#include "import/PODConventions.h"

namespace korvex::podimport {

// The animation's ticks per second; 25 when the file gives none, as the library's own tools take.
double AnimationTicksPerSecond(const aiAnimation& animation);

// Frames of the whole animation at `fps` (at least 1; a duration that is not a finite positive
// number counts as 0). Saturates far above any frame limit.
uint64_t WholeAnimationFrames(const aiAnimation& animation, double fps);

// Time of frame `frame`, in the animation's ticks.
double FrameTicks(const aiAnimation& animation, double fps, uint64_t frame);

// The channel's local transform at `ticks`. A part whose keys the channel lacks is the rest
// transform's.
LocalTransform SampleChannel(const aiNodeAnim& channel, double ticks, const LocalTransform& rest);

}  // namespace korvex::podimport
