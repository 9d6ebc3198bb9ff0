#pragma once
// The smallest mesh every step of the pipeline accepts, shared by the suites that build scenes
// around it.

#include "pod/PODSceneBuilder.h"

// A triangle with normals and one texture-coordinate set; returns its mesh index.
inline int AddTriangle(korvex::PODSceneBuilder& b) {
  const int mesh = b.AddMesh(3);
  b.SetFloatStream(mesh, korvex::PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFloatStream(mesh, korvex::PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 0, 1});
  b.SetFaces(mesh, {0, 1, 2});
  return mesh;
}
