#pragma once
// A scene that sets every field a POD file carries: two textures, a material with and one
// without effect strings, a mesh of strips with bone batches and every per-vertex stream (in
// types other than float too), an interleaved mesh of 32-bit indices, a light, a camera with a
// field-of-view table, an animated node with all four channels and a still one. Three frames.

#include "pod/PODSceneBuilder.h"

namespace korvex::test {

void BuildFullPODScene(korvex::PODSceneBuilder& b);

}  // namespace korvex::test
