#pragma once
// What podimport is asked to do beside the two file names.

#include <cstdint>
#include <string>

namespace korvex::podimport {

// The most frames podimport samples (over half an hour at 30 fps); --frames takes fewer.
const uint32_t kMaxFrames = 65536;
// Bone indices are stored as unsigned bytes, so a batch holds at most 255 bones.
const int kMaxBonesLimit = 255;

// How a texture's file name is written (--texture-names): models often carry paths from the
// machine they were made on.
enum class TextureNamePolicy {
  kKeep,      // as the model gives it
  kBase,      // the file name alone
  kRelative,  // relative to the model's folder when it lies below it, else the file name alone
};

struct ImportOptions {
  int64_t maxFrames = -1;  // most animation frames to sample; -1: the whole animation
  double fps = 30.0;       // frames sampled per second of animation
  std::string animation;   // name or index of the animation to sample; empty: the first
  int maxBones = 60;       // bones per bone batch
  bool quiet = false;      // no summary on standard output
  TextureNamePolicy textureNames = TextureNamePolicy::kRelative;
};

}  // namespace korvex::podimport
