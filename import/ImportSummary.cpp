#include "import/ImportSummary.h"

#include <cstdio>

namespace korvex::podimport {

namespace {

std::string Count(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::string FormatImportSummary(const ImportSummary& s, const std::string& output) {
  std::string text = "podimport: wrote " + output + "\n";
  const uint64_t nodes = uint64_t{s.meshNodes} + s.lightNodes + s.cameraNodes + s.otherNodes;
  text += "  nodes:     " + std::to_string(nodes) + " (" + std::to_string(s.meshNodes) + " mesh, " +
          std::to_string(s.lightNodes) + " light, " + std::to_string(s.cameraNodes) + " camera, " +
          std::to_string(s.otherNodes) + " other)\n";
  text += "  meshes:    " + std::to_string(s.meshes) + " (" +
          Count(s.vertices, "vertex", "vertices") + ", " +
          Count(s.triangles, "triangle", "triangles") + ")\n";
  text += "  materials: " + std::to_string(s.materials) + " (" +
          Count(s.textures, "texture", "textures") + ")\n";
  for (const ImportSummary::RenamedTexture& t : s.renamedTextures)
    text += "  texture:   \"" + t.written + "\" -> \"" + t.name + "\"\n";
  if (s.frames == 0) {
    text += "  frames:    0 (still scene)\n";
  } else {
    char fps[32];
    std::snprintf(fps, sizeof fps, "%g", s.fps);
    text += "  frames:    " + std::to_string(s.frames) + " (";
    if (s.bindPoseInserted) text += "bind pose as frame 0, then ";
    text += Count(s.sampledFrames, "frame", "frames") + " of animation \"" + s.animation +
            "\" at " + fps + " fps)\n";
  }
  text += "  bones:     " + std::to_string(s.bones) + " (" +
          Count(s.skinnedMeshNodes, "skinned mesh node", "skinned mesh nodes") + ")\n";
  for (const std::string& note : s.notes) text += "  note: " + note + "\n";
  return text;
}

}  // namespace korvex::podimport
