#pragma once
// Vertex welding of the input scene before it is saved: the vertices of each mesh that share
// their position (and, on nodes with a material, their texture coordinates) are merged, the
// triangle indices rewritten and the position, normal, texture-coordinate and bone streams
// rebuilt with one element per kept vertex, in order of first use by the triangles.
//
// The result is that of scanning the list of kept vertices from its start for every triangle
// corner and taking the first that matches; this implementation reaches the same result by
// grouping the old vertices first (one hash lookup each, by position, and in exact mode by
// texture coordinates too) and then walking the corners once. Only old vertices whose group
// others share are compared with anything: in near mode with the kept vertices of their position
// in list order, or with a few cells of them when there are many. A kept vertex is held as the old
// vertex that introduced it and the old vertex of the last corner merged into it (whose normal it
// takes); the streams are rebuilt from those, so no vertex record is copied around.

#include <cstdint>

#include "pod/PODMeshWeld.h"
#include "pod/PODModel.h"

// Reduces the mesh of every mesh node (printing the header line, then the totals). `nearly`
// lets texture coordinates differ by up to 0.001. A mesh left as it is (beyond the cut to two
// texture-coordinate sets every mesh gets) gets a note on standard error. Takes the scene's records, so a CPODScene is passed as it is.
void reduceMeshVertex(SPODScene* scene, bool nearly);

// The same, but the meshes keep their streams and counts: how each reduced mesh is welded comes
// back as a plan, which the save applies as it writes (CPODScene::SavePOD with the plan). The
// printed lines and counts are the same, and so is the saved file. A mesh shared by several
// nodes is rebuilt at once when it is reduced the second time, as the second pass reads the
// first one's result.
PODWeldPlan reduceMeshVertexForSave(SPODScene* scene, bool nearly);

// Reduces one mesh in place. `useUV`: texture coordinates take part in the comparison.
// A mesh whose streams are not laid out as this reduction expects is left untouched.
void reduceVertex(SPODNode* node, SPODMesh* mesh, bool useUV, bool nearly);
