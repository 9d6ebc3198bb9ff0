#pragma once
// What podimport wrote, for the lines it prints.

#include <cstdint>
#include <string>
#include <vector>

namespace korvex::podimport {

struct ImportSummary {
  uint32_t meshNodes = 0;
  uint32_t lightNodes = 0;
  uint32_t cameraNodes = 0;
  uint32_t otherNodes = 0;
  uint32_t meshes = 0;
  uint64_t vertices = 0;
  uint64_t triangles = 0;
  uint32_t materials = 0;
  uint32_t textures = 0;
  uint32_t frames = 0;         // nNumFrame of the written scene
  uint32_t sampledFrames = 0;  // frames taken from the animation
  bool bindPoseInserted = false;
  std::string animation;  // name of the sampled animation
  double fps = 0.0;
  uint32_t bones = 0;  // nodes that some written bone batch names
  uint32_t skinnedMeshNodes = 0;
  struct RenamedTexture {
    std::string written;  // as the model gives it
    std::string name;     // as the POD file names it
  };
  std::vector<RenamedTexture> renamedTextures;  // each texture name --texture-names changed
  std::vector<std::string> notes;  // what was left out or changed, one line each
};

// The lines printed after a successful import.
std::string FormatImportSummary(const ImportSummary& summary, const std::string& output);

}  // namespace korvex::podimport
