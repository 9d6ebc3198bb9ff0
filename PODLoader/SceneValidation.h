#pragma once
// Up-front checks of a POD scene before the pipeline touches it. The edits, the POD writer and
// the conversion index the scene's arrays without checks of their own; whatever a file could get
// wrong that they would read outside an array for is found here, once, in linear time.
//
// Checks follow the order in which the pipeline would meet the data. Where the pipeline would
// first stop at one of its own assertions (a mesh node without mesh, positions that are not 3
// floats at a 12-byte stride, a light-map definition without material), that assertion is the
// defined outcome: the check reports `assertionAhead` and looks no further.

#include <cstdint>
#include <string>

class CPODScene;

struct SceneCheck {
  int64_t node = -1;          // index in pNode of the node at fault; -1 for the scene as a whole
  std::string problem;        // empty when nothing is wrong
  bool assertionAhead = false;  // the checked steps end at a specified assertion before this
  bool found() const { return !problem.empty(); }
};

// What the texture renaming, the vertex reduction (when `reduction`) and the POD writer read.
// Holds for a scene whose read failed part-way as well.
SceneCheck CheckSceneForEdits(const CPODScene& scene, bool reduction);

// What the conversion reads: node, mesh, material, texture, camera and light indices of the nodes
// it walks, stream lengths, the arrays each node kind needs, parent chains; in an animated scene
// the animated nodes' own needs. `beforeSave`: the scene will be saved and read back first, so
// names (which the save settles) are not required yet.
SceneCheck CheckSceneForConversion(const CPODScene& scene, bool beforeSave);

// One line for the user: "Korvex: FILE: node I "NAME": PROBLEM" (no node part for the scene).
std::string DescribeSceneCheck(const CPODScene& scene, const SceneCheck& check,
                               const std::string& file);
