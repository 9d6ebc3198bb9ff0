#pragma once
// Up-front check of the nodes whose animation is baked (skinned and animated meshes, animated
// cameras): whether their conversion can run on this scene without reading outside any array.

#include <string>

#include "pod/PODModel.h"

namespace korvex {
class SceneRules;
}

// Empty when the skeletal or animated conversion of mesh or camera node `nodeIndex` of a scene
// with frames can run safely; otherwise the problem in a few words. Nodes that are not baked
// (other kinds, keyword meshes, scenes without frames) have nothing to check and pass. `rules`
// are the scene's own.
std::string CheckAnimatedNode(const CPODScene& scene, const korvex::SceneRules& rules,
                              unsigned int nodeIndex);
