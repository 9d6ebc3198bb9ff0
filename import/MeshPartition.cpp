#include "import/MeshPartition.h"

#include <algorithm>

namespace korvex::podimport {

namespace {

class Partitioner {
 public:
  Partitioner(uint32_t vertexCount, const std::vector<VertexInfluences>* influences,
              uint32_t boneCount, const PartitionLimits& limits)
      : m_influences(influences),
        m_boneCount(influences ? boneCount : 0),
        m_maxVertices(std::max<uint32_t>(limits.maxVertices, 3)),
        m_maxBones(std::max<uint32_t>(limits.maxBones, 1)),
        m_vertexStamp(vertexCount, 0),
        m_vertexLocal(vertexCount, 0),
        m_boneStamp(m_boneCount, 0),
        m_boneSlot(m_boneCount, 0) {
    StartPiece();
  }

  void Add(const uint32_t corner[3]) {
    if (Piece().sourceVertex.size() + CountNewVertices(corner) > m_maxVertices) StartPiece();
    if (m_influences) {
      std::vector<uint32_t>& bones = m_bones;
      NewBones(corner, bones);
      if (!BatchEmpty() && Batch().bones.size() + bones.size() > m_maxBones) {
        StartBatch();
        if (Piece().sourceVertex.size() + CountNewVertices(corner) > m_maxVertices) StartPiece();
        NewBones(corner, bones);
      }
      // Only a triangle alone in its batch can need more bones than the batch holds.
      if (bones.size() > m_maxBones) {
        if (Piece().sourceVertex.size() + 3 > m_maxVertices) StartPiece();
        ++m_result.prunedTriangles;
        AddPruned(corner);
        return;
      }
    }
    for (int k = 0; k < 3; ++k) Piece().indices.push_back(LocalVertex(corner[k]));
  }

  PartitionResult Finish() {
    if (Piece().indices.empty()) m_result.pieces.pop_back();
    return std::move(m_result);
  }

 private:
  MeshPiece& Piece() { return m_result.pieces.back(); }
  BoneBatch& Batch() { return Piece().batches.back(); }
  uint32_t PieceTriangles() { return static_cast<uint32_t>(Piece().indices.size() / 3); }
  bool BatchEmpty() { return Batch().firstTriangle == PieceTriangles(); }
  bool InBatch(uint32_t v) const { return m_vertexStamp[v] == m_serial; }

  void StartPiece() {
    ++m_serial;
    if (!m_result.pieces.empty() && Piece().indices.empty()) {
      // Nothing was added to the current piece: it is reused.
      if (m_influences) Piece().batches.assign(1, BoneBatch());
      return;
    }
    // A batch opened for a triangle that then went to the next piece stays out.
    if (m_influences && !m_result.pieces.empty() && BatchEmpty()) Piece().batches.pop_back();
    m_result.pieces.emplace_back();
    if (m_influences) Piece().batches.emplace_back();
  }

  void StartBatch() {
    BoneBatch batch;
    batch.firstTriangle = PieceTriangles();
    Piece().batches.push_back(batch);
    ++m_serial;
  }

  uint32_t CountNewVertices(const uint32_t corner[3]) const {
    uint32_t count = 0;
    for (int k = 0; k < 3; ++k) {
      const bool repeated = (k > 0 && corner[k] == corner[0]) || (k > 1 && corner[k] == corner[1]);
      if (!repeated && !InBatch(corner[k])) ++count;
    }
    return count;
  }

  bool BoneInBatch(uint32_t bone) const { return m_boneStamp[bone] == m_serial; }

  // Distinct bones the triangle's vertices would add to the batch.
  void NewBones(const uint32_t corner[3], std::vector<uint32_t>& bones) const {
    bones.clear();
    for (int k = 0; k < 3; ++k) {
      if (InBatch(corner[k])) continue;
      const VertexInfluences& in = (*m_influences)[corner[k]];
      for (uint8_t i = 0; i < in.count; ++i) {
        const uint32_t bone = in.item[i].bone;
        if (bone >= m_boneCount || BoneInBatch(bone)) continue;
        if (std::find(bones.begin(), bones.end(), bone) == bones.end()) bones.push_back(bone);
      }
    }
  }

  uint32_t SlotOf(uint32_t bone) {
    if (!BoneInBatch(bone)) {
      m_boneStamp[bone] = m_serial;
      m_boneSlot[bone] = static_cast<uint32_t>(Batch().bones.size());
      Batch().bones.push_back(bone);
    }
    return m_boneSlot[bone];
  }

  // Stores a vertex (not shared with later triangles when `influences` are its own).
  uint16_t Store(uint32_t source, const VertexInfluences* influences) {
    MeshPiece& piece = Piece();
    const uint16_t local = static_cast<uint16_t>(piece.sourceVertex.size());
    piece.sourceVertex.push_back(source);
    if (m_influences) {
      VertexInfluences in = influences ? *influences : (*m_influences)[source];
      uint8_t kept = 0;
      for (uint8_t i = 0; i < in.count; ++i) {
        if (in.item[i].bone >= m_boneCount) continue;
        in.item[kept] = in.item[i];
        in.item[kept].bone = SlotOf(in.item[i].bone);
        ++kept;
      }
      in.count = kept;
      piece.influences.push_back(in);
    }
    return local;
  }

  uint16_t LocalVertex(uint32_t v) {
    if (InBatch(v)) return static_cast<uint16_t>(m_vertexLocal[v]);
    const uint16_t local = Store(v, nullptr);
    m_vertexStamp[v] = m_serial;
    m_vertexLocal[v] = local;
    return local;
  }

  // The triangle starts a batch of its own (it is empty now) with the bones chosen below.
  void AddPruned(const uint32_t corner[3]) {
    std::vector<uint32_t> chosen;
    for (int k = 0; k < 3 && chosen.size() < m_maxBones; ++k) {
      const VertexInfluences& in = (*m_influences)[corner[k]];
      if (in.count > 0 && std::find(chosen.begin(), chosen.end(), in.item[0].bone) == chosen.end())
        chosen.push_back(in.item[0].bone);
    }
    std::vector<BoneInfluence> totals;
    for (int k = 0; k < 3; ++k) {
      const VertexInfluences& in = (*m_influences)[corner[k]];
      for (uint8_t i = 0; i < in.count; ++i) {
        auto same = [&](const BoneInfluence& t) { return t.bone == in.item[i].bone; };
        auto it = std::find_if(totals.begin(), totals.end(), same);
        if (it == totals.end())
          totals.push_back(in.item[i]);
        else
          it->weight += in.item[i].weight;
      }
    }
    std::stable_sort(totals.begin(), totals.end(),
                     [](const BoneInfluence& a, const BoneInfluence& b) {
                       return a.weight != b.weight ? a.weight > b.weight : a.bone < b.bone;
                     });
    for (const BoneInfluence& t : totals) {
      if (chosen.size() >= m_maxBones) break;
      if (std::find(chosen.begin(), chosen.end(), t.bone) == chosen.end()) chosen.push_back(t.bone);
    }
    for (int k = 0; k < 3; ++k) {
      const VertexInfluences& in = (*m_influences)[corner[k]];
      std::vector<BoneInfluence> kept;
      for (uint8_t i = 0; i < in.count; ++i) {
        if (std::find(chosen.begin(), chosen.end(), in.item[i].bone) != chosen.end())
          kept.push_back(in.item[i]);
      }
      const VertexInfluences own = LimitInfluences(kept, kMaxInfluences);
      Piece().indices.push_back(Store(corner[k], &own));
    }
  }

  const std::vector<VertexInfluences>* m_influences;
  uint32_t m_boneCount;
  uint32_t m_maxVertices;
  uint32_t m_maxBones;
  // A vertex or bone belongs to the current batch when its stamp equals the batch's serial.
  uint32_t m_serial = 0;
  std::vector<uint32_t> m_vertexStamp;
  std::vector<uint32_t> m_vertexLocal;
  std::vector<uint32_t> m_boneStamp;
  std::vector<uint32_t> m_boneSlot;
  std::vector<uint32_t> m_bones;  // scratch: the bones a triangle adds
  PartitionResult m_result;
};

}  // namespace

PartitionResult PartitionMesh(const std::vector<uint32_t>& triangles, uint32_t vertexCount,
                              const std::vector<VertexInfluences>* influences, uint32_t boneCount,
                              const PartitionLimits& limits) {
  Partitioner partitioner(vertexCount, influences, boneCount, limits);
  for (size_t t = 0; t + 2 < triangles.size(); t += 3) {
    const uint32_t corner[3] = {triangles[t], triangles[t + 1], triangles[t + 2]};
    if (corner[0] >= vertexCount || corner[1] >= vertexCount || corner[2] >= vertexCount) continue;
    partitioner.Add(corner);
  }
  return partitioner.Finish();
}

}  // namespace korvex::podimport
