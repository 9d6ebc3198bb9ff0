#pragma once
// The welded form of a mesh's streams, described by the old vertices each kept vertex is made of.
//
// Vertex welding decides which old vertices a mesh keeps; the streams are then rebuilt from that
// decision, either at once into arrays of their own (PODMeshApplyWeld), or only as the scene is
// saved: the welds of a scene travel as a PODWeldPlan, which the save takes next to the scene and
// applies while it writes, straight from the old streams. The meshes keep their own counts and
// streams, which agree with each other, so a scene saved right after welding never holds the
// rebuilt arrays in memory, and nothing but a save that is handed the plan sees the welds.
//
// Rebuilt streams: kept vertex e takes the position, texture coordinates and bones of old vertex
// pnSource[e] and the normal of old vertex pnNormalFrom[e]. Bones are packed as many a vertex as
// the vertex has bone indices, indices and weights alike; the weight array keeps its stride, so
// its tail stays zero. The triangle indices are rewritten; tangents, binormals and colours keep
// their arrays, of which the first nKept elements count.

#include <cstddef>
#include <cstdint>

#include "pod/PODModel.h"

struct SPODMeshWeld {
  uint32_t nKept;
  uint32_t nUVW;  // texture-coordinate sets rebuilt
  bool bBones;    // bone streams rebuilt
  uint16_t* pnSource;      // nKept old vertices
  uint16_t* pnNormalFrom;  // nKept old vertices
  // The kept vertex of each corner, by the old vertex it uses (pnKeptOf, one per old vertex an
  // index can reach) when every old vertex resolves to one kept vertex, else by corner
  // (pnCornerKept, one per corner; wrapped to 16 bits like the indices).
  uint16_t* pnKeptOf;
  uint16_t* pnCornerKept;
  // What the weld was decided on (PODMeshWeldNote): a mesh whose streams have changed since then
  // no longer fits it (PODMeshWeldFits).
  uint32_t nReach;  // old vertices pnKeptOf covers; indices below it
  uint32_t nFaces;
  uint32_t nNumUVW;
  CPODData sFaces, sVertex, sNormals, sUVW[2], sBoneIdx, sBoneWeight;
};

// A weld for a mesh of `corners` corners keeping `kept` vertices, with room for one kept vertex
// per old vertex (`byOldVertex`, `oldVertices` of them) or per corner.
// Released with PODMeshWeldFree.
SPODMeshWeld* PODMeshWeldCreate(uint32_t kept, bool byOldVertex, size_t oldVertices, size_t corners);
void PODMeshWeldFree(SPODMeshWeld* weld);

// Records in `weld` the streams of `mesh` it was decided on (with `oldVertices` old vertices
// reachable by the indices), for PODMeshWeldFits to compare with later.
void PODMeshWeldNote(SPODMeshWeld& weld, const SPODMesh& mesh, size_t oldVertices);

// Whether `mesh` still has the shape `weld` was decided on: streams of the same layouts and
// lengths and the same counts. Saving or applying a weld that does not fit would read outside the
// arrays. Indices beyond the old vertices the weld covers are found as they are read
// (PODMeshWeldGather, PODMeshApplyWeld).
bool PODMeshWeldFits(const SPODMesh& mesh, const SPODMeshWeld& weld);

// The streams a weld rebuilds.
enum class EPODWeldStream { Faces, Vertex, Normals, UVW0, UVW1, BoneIdx, BoneWeight };

// The stream of `mesh` a weld rebuilds as `stream`, or null when it rebuilds none of it
// (a texture-coordinate set or the bones it leaves alone).
const CPODData* PODMeshWeldedStream(const SPODMesh& mesh, const SPODMeshWeld& weld,
                                    EPODWeldStream stream);

// Bytes the rebuilt array of `stream` holds.
size_t PODMeshWeldedBytes(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream);

// Bytes [first, first + count) of the rebuilt array of `stream`, into `out`; the range lies
// inside PODMeshWeldedBytes and the weld fits the mesh. False when an index of the range lies
// beyond the old vertices the weld covers (what `out` then holds is of no use).
bool PODMeshWeldGather(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream,
                       size_t first, size_t count, uint8_t* out);

// Rebuilds the streams of `mesh` into arrays of their own and sets its vertex count. False, with
// the mesh as it was, when memory runs out, the weld does not fit, or an index lies beyond it.
bool PODMeshApplyWeld(SPODMesh& mesh, const SPODMeshWeld& weld);

// The welds decided for the meshes of one scene, by mesh index, as the reduction hands them to
// the save. Owns them; moves, never copies. An empty plan, or a mesh without a weld, saves the
// mesh as it stands.
class PODWeldPlan {
 public:
  PODWeldPlan() = default;
  PODWeldPlan(PODWeldPlan&& other) noexcept;
  PODWeldPlan& operator=(PODWeldPlan&& other) noexcept;
  PODWeldPlan(const PODWeldPlan&) = delete;
  PODWeldPlan& operator=(const PODWeldPlan&) = delete;
  ~PODWeldPlan();

  // Room for the welds of `meshes` meshes, none decided yet.
  void reserve(uint32_t meshes);
  uint32_t meshes() const { return m_meshes; }
  bool empty() const;

  // The weld of mesh `index`, null when it has none (or lies beyond the plan).
  const SPODMeshWeld* weld(uint32_t index) const;
  // Gives mesh `index` (below meshes()) its weld, releasing the one it had.
  void set(uint32_t index, SPODMeshWeld* weld);
  // Hands the weld of mesh `index` back to the caller, who frees it; null when it has none.
  SPODMeshWeld* take(uint32_t index);

 private:
  void clear();

  SPODMeshWeld** m_welds = nullptr;
  uint32_t m_meshes = 0;
};
