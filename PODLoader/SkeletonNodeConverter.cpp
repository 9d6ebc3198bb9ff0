#include "convert/SkeletonNodeConverter.h"

#include <cstring>

#include "pod/Assertion.h"
#include "qsn/NodeDataBuffer.h"

using korvex::AllocateNodeData;
using korvex::LoadMatrixLE;
using korvex::LoadU32LE;
using korvex::StoreF32LE;
using korvex::StoreMatrixLE;
using korvex::StoreU32LE;

namespace {

const char kSource[] = "PODLoader/SkeletonNodeConverter";

// Sizes and allocations taken from the bone count use its low byte only: the count is a byte in
// the engine's format, so counts above 255 are not widened here (CheckAnimatedNode refuses them).
uint32_t LowByte(int32_t k) {
  return static_cast<uint32_t>(k) & 0xFFu;
}

// p carried as a row vector with w = 1; the additions run left to right, translation last.
void CarryPoint(float out[3], const float p[3], const PODMATRIXf& m) {
  out[0] = p[0] * m.f[0] + p[1] * m.f[4] + p[2] * m.f[8] + m.f[12];
  out[1] = p[0] * m.f[1] + p[1] * m.f[5] + p[2] * m.f[9] + m.f[13];
  out[2] = p[0] * m.f[2] + p[1] * m.f[6] + p[2] * m.f[10] + m.f[14];
}

void AddTo(float sum[3], const float v[3]) {
  for (int i = 0; i < 3; ++i) sum[i] = sum[i] + v[i];
}

ZarVector3 Mean(const float sum[3], float count) {
  return ZarVector3{sum[0] / count, sum[1] / count, sum[2] / count};
}

}  // namespace

int32_t SkeletonNodeConverter::boneCount() const {
  // A mesh without batch counts leaves BatchBoneCnt empty; its bone count is taken as 0, so the
  // bone tables stay empty and every per-frame volume is the 0/0 mean of no bones.
  const SSGNodeData& cnt = m_record->BatchBoneCnt;
  if (cnt.data == nullptr || cnt.length < 4) return 0;
  return static_cast<int32_t>(LoadU32LE(cnt.data));
}

int32_t SkeletonNodeConverter::batchEntry(int32_t b) const {
  return static_cast<int32_t>(LoadU32LE(m_record->Batch.data + 4 * static_cast<size_t>(b)));
}

void SkeletonNodeConverter::convertSkeletonNode(const CPODScene* scene, int nodeIndex,
                                                SSGQelSkeletalMeshNodeData* record,
                                                korvex::FrameFields& frame) {
  m_scene = scene;
  m_record = record;
  m_nodeIndex = nodeIndex;
  m_meshIndex = scene->pNode[nodeIndex].nIdx;
  m_registeredBones = 0;

  init(record);
  record->numAnimation = scene->nNumFrame;
  m_frameCount = static_cast<int32_t>(scene->nNumFrame);
  m_evaluator.start(*scene, frame);

  createBoneBatchItem();
  createBoneIdx();
  createBoneWeight();
  createSPODImpl();
  createBoneIndexBuffer();
  createBoneWorldMatrixBuffer();
  createBoundingVolumeBuffer();
  frame = m_evaluator.fields();
}

void SkeletonNodeConverter::init(SSGQelSkeletalMeshNodeData* record) {
  SSGNodeData* buffers[] = {&record->Batch,
                            &record->BatchBoneCnt,
                            &record->BatchOffset,
                            &record->BoneIdx_ptr,
                            &record->BoneWeight_ptr,
                            &record->sBoneIndexbuffer,
                            &record->sBoneWorldMatrixbuffer,
                            &record->sSpherebuffer,
                            &record->sAABBbuffer};
  for (SSGNodeData* b : buffers) *b = SSGNodeData{0, 0, nullptr, false};
}

void SkeletonNodeConverter::createBoneBatchItem() {
  const CPODBoneBatches& batches = m_scene->pMesh[m_meshIndex].sBoneBatches;
  m_record->boneBatchA = static_cast<uint32_t>(batches.nBatchBoneMax);
  m_record->boneBatchB = static_cast<uint32_t>(batches.nBatchCnt);
  if (batches.pnBatchBoneCnt == nullptr || batches.nBatchBoneCntSize < 4) return;

  // Only the first batch is converted; the engine reads one batch per skinned mesh.
  const int32_t k = batches.pnBatchBoneCnt[0];
  AllocateNodeData(m_record->BatchBoneCnt, SSGBufferInt32, 4);
  StoreU32LE(m_record->BatchBoneCnt.data, static_cast<uint32_t>(k));

  const uint32_t entries = LowByte(k);
  AllocateNodeData(m_record->Batch, SSGBufferInt32, entries * 4);
  const size_t available = batches.pnBatches ? batches.nBatchesSize / 4 : 0;
  for (uint32_t b = 0; b < entries && b < available; ++b) {
    StoreU32LE(m_record->Batch.data + 4 * b, static_cast<uint32_t>(batches.pnBatches[b]));
  }
}

namespace {

// Raw copy of a separate per-vertex stream (or the stream's array itself, when borrowing); the
// bytes beyond what the stream holds (none once vetted) stay zero.
void CopyBoneStream(SSGNodeData& buffer, CPODData& descriptor, const CPODData& stream,
                    uint32_t numVertex, bool borrow) {
  descriptor.eType = stream.eType;
  descriptor.n = stream.n;
  descriptor.nStride = stream.nStride;
  descriptor.pData = nullptr;
  const uint32_t bytes = numVertex * stream.nStride;
  korvex::TakeStreamArray(buffer, 0, bytes, stream.pData, stream.nDataSize, borrow);
}

}  // namespace

void SkeletonNodeConverter::createBoneIdx() {
  const SPODMesh& mesh = m_scene->pMesh[m_meshIndex];
  CopyBoneStream(m_record->BoneIdx_ptr, m_record->boneIdx, mesh.sBoneIdx, mesh.nNumVertex,
                 m_borrowStreams);
}

void SkeletonNodeConverter::createBoneWeight() {
  const SPODMesh& mesh = m_scene->pMesh[m_meshIndex];
  CopyBoneStream(m_record->BoneWeight_ptr, m_record->boneWeight, mesh.sBoneWeight, mesh.nNumVertex,
                 m_borrowStreams);
}

void SkeletonNodeConverter::createSPODImpl() {
  const korvex::FrameFields& fields = m_evaluator.fields();
  m_record->evalFrame = fields.frame;
  m_record->evalBlend = fields.blend;
  m_record->evalFrameIndex = fields.index;
}

void SkeletonNodeConverter::createBoneIndexBuffer() {
  const uint32_t bytes = LowByte(boneCount()) * 4;
  AllocateNodeData(m_record->sBoneIndexbuffer, SSGBufferInt32, bytes);
  if (bytes > 0) std::memset(m_record->sBoneIndexbuffer.data, 0xFF, bytes);
}

void SkeletonNodeConverter::createBoneWorldMatrixBuffer() {
  const uint32_t bytes = m_record->numAnimation * LowByte(boneCount()) * 64;
  AllocateNodeData(m_record->sBoneWorldMatrixbuffer, SSGBufferMatrix, bytes);
  calculateAllBoneWorldMatrix();
}

void SkeletonNodeConverter::createBoundingVolumeBuffer() {
  AllocateNodeData(m_record->sSpherebuffer, SSGBufferSphere,
                   m_record->numAnimation * kSGSphereElementSize);
  AllocateNodeData(m_record->sAABBbuffer, SSGBufferAABB,
                   m_record->numAnimation * kSGAABBElementSize);
  calculateBVbuffer();
}

int SkeletonNodeConverter::getBoneIndex(int bone) const {
  const int32_t k = boneCount();
  for (int32_t slot = 0; slot < k; ++slot) {
    const uint8_t* entry = m_record->sBoneIndexbuffer.data + 4 * static_cast<size_t>(slot);
    if (static_cast<int32_t>(LoadU32LE(entry)) == bone) return slot;
  }
  return -1;
}

void SkeletonNodeConverter::setBoneIndex(int bone) {
  if (getBoneIndex(bone) != -1) return;
  StoreU32LE(m_record->sBoneIndexbuffer.data + 4 * static_cast<size_t>(m_registeredBones),
             static_cast<uint32_t>(bone));
  ++m_registeredBones;
}

// A slot of -1 (a bone not in the table) ends the process.
void SkeletonNodeConverter::requireSlot(int32_t slot, const char* function, int line) const {
  if (slot == -1) korvex::AssertionFailed("_index!=-1", function, kSource, line);
}

uint8_t* SkeletonNodeConverter::matrixAt(int32_t slot, int32_t frame) const {
  const size_t element =
      static_cast<size_t>(m_frameCount) * static_cast<size_t>(slot) + static_cast<size_t>(frame);
  return m_record->sBoneWorldMatrixbuffer.data + 64 * element;
}

void SkeletonNodeConverter::setBoneWorldMatrix(PODMATRIXf matrix, int bone, int frame) {
  const int _index = getBoneIndex(bone);
  requireSlot(_index, __func__, 204);
  StoreMatrixLE(matrixAt(_index, frame), matrix);
}

void SkeletonNodeConverter::getBoneWorldMatrixBuffer(PODMATRIXf& out, int bone, int frame) const {
  const int _index = getBoneIndex(bone);
  requireSlot(_index, __func__, 402);
  if (frame >= m_frameCount) frame = 0;
  LoadMatrixLE(out, matrixAt(_index, frame));
}

// The geometry word and the trailing word of a volume element carry nothing; they are written 0.
void SkeletonNodeConverter::setBVSphere(const QelSphere* sphere, int frame) {
  uint8_t* p = m_record->sSpherebuffer.data + kSGSphereElementSize * static_cast<size_t>(frame);
  StoreU32LE(p, 0);
  StoreF32LE(p + 4, sphere->center.x);
  StoreF32LE(p + 8, sphere->center.y);
  StoreF32LE(p + 12, sphere->center.z);
  StoreF32LE(p + 16, sphere->radius);
  StoreU32LE(p + 20, 0);
}

void SkeletonNodeConverter::setBVAABB(const QelAABB* box, int frame) {
  uint8_t* p = m_record->sAABBbuffer.data + kSGAABBElementSize * static_cast<size_t>(frame);
  const ZarVector3* vectors[] = {&box->min, &box->max, &box->center};
  StoreU32LE(p, 0);
  for (int v = 0; v < 3; ++v) {
    StoreF32LE(p + 4 + 12 * v, vectors[v]->x);
    StoreF32LE(p + 8 + 12 * v, vectors[v]->y);
    StoreF32LE(p + 12 + 12 * v, vectors[v]->z);
  }
  StoreU32LE(p + 40, 0);
}

// Each bone matrix is bindTerm(bone) x boneWorld(frame) (see korvex::BoneBindTerm): the bind
// term is formed once per bone, and each frame's world matrices once per node, whatever the
// number of bones below them. A bone is registered before its matrices are stored, in batch
// order, as the slot table requires.
void SkeletonNodeConverter::calculateAllBoneWorldMatrix() {
  const int32_t k = boneCount();
  m_slots.clear();
  for (int32_t b = 0; b < k; ++b) {
    const int32_t bone = batchEntry(b);
    setBoneIndex(bone);
    m_slots.push_back(getBoneIndex(bone));
  }
  if (k <= 0 || m_frameCount <= 0) return;
  // The bind term reads frame 0; the loop below then leaves the last frame set, as the record
  // converted next will see.

  m_bindTerms.resize(static_cast<size_t>(k));
  for (int32_t b = 0; b < k; ++b) {
    m_evaluator.bindTerm(m_bindTerms[b], static_cast<uint32_t>(m_nodeIndex),
                         static_cast<uint32_t>(batchEntry(b)));
  }
  for (int32_t f = 0; f < m_frameCount; ++f) {
    m_evaluator.setFrame(static_cast<float>(f));
    for (int32_t b = 0; b < k; ++b) {
      requireSlot(m_slots[b], "setBoneWorldMatrix", 204);
      PODMATRIXf m;
      korvex::BoneMatrix(m, m_bindTerms[b], m_evaluator.world(static_cast<uint32_t>(batchEntry(b))));
      StoreMatrixLE(matrixAt(m_slots[b], f), m);
    }
  }
}

// The per-frame volumes follow the mean skinned centre. The three box sums all receive the
// carried box centre (the carried corners are not used), so each frame's box collapses onto
// that point: min, max and centre are equal, and the radius stays the static one.
void SkeletonNodeConverter::calculateBVbuffer() {
  const int32_t k = boneCount();
  const float count = static_cast<float>(k);
  m_slots.clear();
  for (int32_t b = 0; b < k; ++b) {
    m_slots.push_back(getBoneIndex(batchEntry(b)));
  }
  for (int32_t f = 0; f < m_frameCount; ++f) {
    float sphereSum[3] = {0, 0, 0}, centreSum[3] = {0, 0, 0};
    float maxSum[3] = {0, 0, 0}, minSum[3] = {0, 0, 0};
    for (int32_t b = 0; b < k; ++b) {
      requireSlot(m_slots[b], "getBoneWorldMatrixBuffer", 402);
      PODMATRIXf m;
      LoadMatrixLE(m, matrixAt(m_slots[b], f));
      float p[3];
      CarryPoint(p, m_record->sphereCenter, m);
      AddTo(sphereSum, p);
      CarryPoint(p, m_record->boxCenter, m);
      AddTo(centreSum, p);
      AddTo(maxSum, p);
      AddTo(minSum, p);
    }
    QelSphere sphere{};
    sphere.center = Mean(sphereSum, count);
    sphere.radius = m_record->sphereRadius;
    setBVSphere(&sphere, f);
    QelAABB box{};
    box.min = Mean(minSum, count);
    box.max = Mean(maxSum, count);
    box.center = Mean(centreSum, count);
    setBVAABB(&box, f);
  }
}
