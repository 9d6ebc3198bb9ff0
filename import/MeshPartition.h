#pragma once
// Cuts one triangle mesh into pieces that 16-bit indices can address and, for a skinned mesh,
// each piece into bone batches of a bounded number of bones.
//
// Triangles are taken in their order and kept in it. A piece grows until the next triangle would
// bring it above the vertex limit; inside a piece, a batch grows until the next triangle would
// bring it above the bone limit. Vertices are shared inside a batch only, because a vertex's bone
// numbers are slots of its batch: a vertex used by two batches is stored once in each.

#include <cstdint>
#include <vector>

#include "import/BoneInfluences.h"

namespace korvex::podimport {

struct PartitionLimits {
  uint32_t maxVertices = 65535;  // per piece; at least 3
  uint32_t maxBones = 0;         // per batch, for a skinned mesh
};

struct BoneBatch {
  std::vector<uint32_t> bones;  // the mesh's bone numbers, by slot
  uint32_t firstTriangle = 0;   // the batch's first triangle in its piece
};

struct MeshPiece {
  std::vector<uint32_t> sourceVertex;        // for each piece vertex, the source vertex
  std::vector<VertexInfluences> influences;  // for each piece vertex (skinned meshes only);
                                             // `bone` is the slot in the vertex's batch
  std::vector<uint16_t> indices;             // three a triangle
  std::vector<BoneBatch> batches;            // skinned meshes only
};

struct PartitionResult {
  std::vector<MeshPiece> pieces;
  // Triangles whose vertices follow more bones together than a batch holds: their vertices were
  // stored with only the strongest bones of the triangle (see PartitionMesh).
  uint64_t prunedTriangles = 0;
};

// `triangles` holds three vertex numbers a triangle, each below `vertexCount`. `influences` is
// null for a mesh without skin, else one entry a source vertex, strongest first, with bone
// numbers below `boneCount`. A triangle that alone needs more bones than a batch holds keeps the
// strongest bone of each of its vertices and then the bones of the greatest total weight; its
// vertices lose the other bones (and are scaled to sum 1 again) in that triangle only.
PartitionResult PartitionMesh(const std::vector<uint32_t>& triangles, uint32_t vertexCount,
                              const std::vector<VertexInfluences>* influences, uint32_t boneCount,
                              const PartitionLimits& limits);

}  // namespace korvex::podimport
