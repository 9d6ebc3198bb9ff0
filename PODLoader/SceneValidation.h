#pragma once
// Checks of a POD scene before each step of the pipeline touches it. The edits, the POD writer and
// the conversion index the scene's arrays without checks of their own; whatever a file could get
// wrong that they would read outside an array for is found here, once, in linear time. Only what
// would make a step read or write outside the data is refused: where the outcome is defined, odd
// as the data may be, the step is left to produce it.
//
// Checks follow the order in which the pipeline would meet the data. Where the pipeline would
// first stop at one of its own assertions (a mesh node without mesh, positions that are not 3
// floats at a 12-byte stride, a light-map definition without material), that assertion is the
// defined outcome: the check reports `assertionAhead` and looks no further.

#include <cstdint>
#include <string>
#include <vector>

class CPODScene;
class PODWeldPlan;

struct SceneCheck {
  int64_t node = -1;          // index in pNode of the node at fault; -1 for the scene as a whole
  std::string problem;        // empty when nothing is wrong
  bool assertionAhead = false;  // the checked steps end at a specified assertion before this
  // Data the step carries on without, with what it takes in its place (a texture without a name
  // is renamed ".qimg"): the run goes on, but not in silence.
  std::vector<std::string> warnings;
  bool found() const { return !problem.empty(); }
};

// What the texture renaming and the vertex reduction (when `reduction`) read. Holds for a scene
// whose read failed part-way as well.
SceneCheck CheckSceneForEdits(const CPODScene& scene, bool reduction);

// What the POD writer reads, on the edited scene: every array of every record, as long as its
// counts say. Streams that a vertex weld of `plan` rebuilds while saving are its own business;
// a weld that no longer fits its mesh is refused.
SceneCheck CheckSceneForSave(const CPODScene& scene, const PODWeldPlan* plan = nullptr);

// What the conversion reads: node, mesh, material, texture, camera and light indices of the nodes
// it walks (those that exist: counts of mesh, light and camera nodes beyond the node array are
// left to the header-count assertion), stream lengths, the arrays each node kind needs, parent
// chains; in an animated scene the animated nodes' own needs. `beforeSave`: the scene will be
// saved and read back first, so names (which the save settles) are not required yet, and the
// streams a weld of `plan` rebuilds count as rebuilt.
SceneCheck CheckSceneForConversion(const CPODScene& scene, bool beforeSave,
                                   const PODWeldPlan* plan = nullptr);

// One line for the user: "Korvex: FILE: node I "NAME": PROBLEM" (no node part for the scene).
std::string DescribeSceneCheck(const CPODScene& scene, const SceneCheck& check,
                               const std::string& file);
