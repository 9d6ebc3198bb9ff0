#pragma once
// The welded form of a mesh's streams, described by the old vertices each kept vertex is made of.
//
// Vertex welding decides which old vertices a mesh keeps; the streams are then rebuilt from that
// decision, either at once into arrays of their own (PODMeshApplyWeld), or only as the scene is
// saved: a mesh carrying a weld (SPODMesh::pWeld) is written as if rebuilt, straight from its old
// streams, so a scene saved right after welding never holds the rebuilt arrays in memory.
//
// Rebuilt streams: kept vertex e takes the position, texture coordinates and bones of old vertex
// pnSource[e] and the normal of old vertex pnNormalFrom[e]. Bones are packed as many a vertex as
// the vertex has bone indices, indices and weights alike; the weight array keeps its stride, so
// its tail stays zero. The triangle indices are rewritten in place; tangents, binormals and
// colours keep their arrays, of which the first nKept elements count.

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
};

// A weld for a mesh of `corners` corners keeping `kept` vertices, with room for one kept vertex
// per old vertex (`byOldVertex`, `oldVertices` of them) or per corner. Null when memory runs out.
// Released with PODMeshWeldFree.
SPODMeshWeld* PODMeshWeldCreate(uint32_t kept, bool byOldVertex, size_t oldVertices, size_t corners);
void PODMeshWeldFree(SPODMeshWeld* weld);

// The streams a weld rebuilds.
enum class EPODWeldStream { Faces, Vertex, Normals, UVW0, UVW1, BoneIdx, BoneWeight };

// The stream of `mesh` a weld rebuilds as `stream`, or null when it rebuilds none of it
// (a texture-coordinate set or the bones it leaves alone).
const CPODData* PODMeshWeldedStream(const SPODMesh& mesh, const SPODMeshWeld& weld,
                                    EPODWeldStream stream);

// Bytes the rebuilt array of `stream` holds.
size_t PODMeshWeldedBytes(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream);

// Bytes [first, first + count) of the rebuilt array of `stream`, into `out`; the range lies
// inside PODMeshWeldedBytes.
void PODMeshWeldGather(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream,
                       size_t first, size_t count, uint8_t* out);

// Rebuilds the streams of `mesh` (whose streams are still the old ones) into arrays of their own
// and sets its vertex count. False, with the mesh as it was, when memory runs out.
bool PODMeshApplyWeld(SPODMesh& mesh, const SPODMeshWeld& weld);
