#pragma once
// The .qsn layout of every record kind, written down once: its fixed size, its fields in file
// order and its arrays in file order. The writer, the loader, the model's release of records and
// the compile-time size checks all walk these descriptions with a visitor.
//
// A field visitor provides:
//   word(T&)            one 32-bit member (u32, i32 or float)
//   words(T*, n)        n consecutive 32-bit members
//   text(char*, n)      a fixed byte field of n bytes (names)
//   podData(CPODData&)  a copied stream descriptor: eType, n, nStride, pData slot, nFileOffset
//   buffer(SSGNodeData&) an array descriptor: type, length, data slot
// An array visitor provides array(SSGNodeData&), called once per array in file order.
// The record parameter is a template so that const records can be walked for writing.

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "qsn/SceneGraphRecords.h"

// A byte buffer of the writer and the loader: one file header, node header or data block.
using SGData = std::vector<uint8_t>;

namespace korvex {

template <class R, class V>
constexpr void DescribeNodePart(R& r, V& v) {
  v.word(r.indexToObject);
  v.word(r.objectIndex);
  v.words(r.transform.f, 16);
  v.word(r.numAnimation);
  v.word(r.animationFlag);
}

template <class R, class V>
constexpr void DescribeCameraPart(R& r, V& v) {
  DescribeNodePart(r, v);
  v.word(r.FOV);
  v.word(r.farPlane);
  v.word(r.nearPlane);
  v.word(r.targetIndex);
  v.words(r.targetPosition, 3);
}

template <class R, class V>
constexpr void DescribeMeshPart(R& r, V& v) {
  DescribeNodePart(r, v);
  v.word(r.numVertex);
  v.word(r.numFace);
  v.word(r.numUVW);
  v.words(r.sphereCenter, 3);
  v.word(r.sphereRadius);
  v.words(r.boxCenter, 3);
  v.words(r.boxMin, 3);
  v.words(r.boxMax, 3);
  v.podData(r.vertex);
  v.word(r.vertexOffset);
  v.podData(r.normal);
  v.word(r.normalOffset);
  v.podData(r.face);
  v.word(r.faceOffset);
  for (int i = 0; i < 8; ++i) v.podData(r.UVW[i]);
  v.words(r.UVWOffset, 8);
  v.word(r.defaultMaterialIndex);
  v.words(r.materialIndex, 8);
  v.buffer(r.vertexBuffer);
  v.buffer(r.normalBuffer);
  v.buffer(r.faceBuffer);
  v.buffer(r.UVWBuffer);
}

template <class R, class V>
constexpr void DescribeMeshArrays(R& r, V& v) {
  v.array(r.vertexBuffer);
  v.array(r.normalBuffer);
  v.array(r.faceBuffer);
  v.array(r.UVWBuffer);
}

// The animation state shared by the animated mesh and the animated camera.
template <class R, class V>
constexpr void DescribeEvalState(R& r, V& v) {
  v.word(r.evalFrame);
  v.word(r.evalBlend);
  v.word(r.evalFrameIndex);
}

// Common shape of a kind's description: Record is the exact type held in the model's sequence.
template <ESGName K, class Rec, uint32_t Fixed>
struct SGLayoutBase {
  static constexpr ESGName kKind = K;
  static constexpr uint32_t kFixedSize = Fixed;
  using Record = Rec;
  template <class R>
  static constexpr void checkRecord() {
    static_assert(std::is_same<std::remove_const_t<R>, Rec>::value, "record of another kind");
  }
};

template <ESGName K>
struct SGLayout;

template <>
struct SGLayout<ESGNode> : SGLayoutBase<ESGNode, SSGQelNodeData, kSGNodeSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) { checkRecord<R>(); DescribeNodePart(r, v); }
  template <class R, class V>
  static constexpr void arrays(R&, V&) {}
};

template <>
struct SGLayout<ESGMarkerNode> : SGLayoutBase<ESGMarkerNode, SSGQelMarkerNodeData, kSGNodeSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) { checkRecord<R>(); DescribeNodePart(r, v); }
  template <class R, class V>
  static constexpr void arrays(R&, V&) {}
};

template <>
struct SGLayout<ESGLightNode> : SGLayoutBase<ESGLightNode, SSGQelLightNodeData, kSGLightSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    DescribeNodePart(r, v);
    v.word(r.targetIndex);
    v.words(r.colour, 3);
    v.word(r.lightType);
  }
  template <class R, class V>
  static constexpr void arrays(R&, V&) {}
};

template <>
struct SGLayout<ESGCameraNode> : SGLayoutBase<ESGCameraNode, SSGQelCameraNodeData, kSGCameraSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) { checkRecord<R>(); DescribeCameraPart(r, v); }
  template <class R, class V>
  static constexpr void arrays(R&, V&) {}
};

template <>
struct SGLayout<ESGMaterial> : SGLayoutBase<ESGMaterial, SSGQelMaterialData, kSGMaterialSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    v.word(r.materialIndexOfNode);
    v.word(r.opacity);
    v.words(r.ambient, 3);
    v.words(r.diffuse, 3);
    v.words(r.specular, 3);
    v.word(r.shininess);
    v.text(r.materialName, 128);
    v.text(r.textureName, 128);
  }
  template <class R, class V>
  static constexpr void arrays(R&, V&) {}
};

// The plain mesh and the three kinds that share its layout.
template <ESGName K, class Rec>
struct SGMeshLikeLayout : SGLayoutBase<K, Rec, kSGMeshSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    SGLayoutBase<K, Rec, kSGMeshSize>::template checkRecord<R>();
    DescribeMeshPart(r, v);
  }
  template <class R, class V>
  static constexpr void arrays(R& r, V& v) { DescribeMeshArrays(r, v); }
};

template <>
struct SGLayout<ESGMeshNode> : SGMeshLikeLayout<ESGMeshNode, SSGQelMeshNodeData> {};
template <>
struct SGLayout<ESGCollisionSphereNode>
    : SGMeshLikeLayout<ESGCollisionSphereNode, SSGQelCollisionSphereNodeData> {};
template <>
struct SGLayout<ESGBillboardNode> : SGMeshLikeLayout<ESGBillboardNode, SSGQelBillboardNodeData> {};
template <>
struct SGLayout<ESGSkyBoxNode> : SGMeshLikeLayout<ESGSkyBoxNode, SSGQelSkyBoxNodeData> {};

template <>
struct SGLayout<ESGCollisionBoxNode>
    : SGLayoutBase<ESGCollisionBoxNode, SSGQelCollisionBoxNodeData, kSGCollisionBoxSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    DescribeMeshPart(r, v);
    v.words(r.localSphereCenter, 3);
    v.word(r.localSphereRadius);
    v.words(r.localBoxCenter, 3);
    v.words(r.localBoxMin, 3);
    v.words(r.localBoxMax, 3);
  }
  template <class R, class V>
  static constexpr void arrays(R& r, V& v) { DescribeMeshArrays(r, v); }
};

template <>
struct SGLayout<ESGAnimationMeshNode>
    : SGLayoutBase<ESGAnimationMeshNode, SSGQelAnimationMeshNodeData, kSGAnimationMeshSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    DescribeMeshPart(r, v);
    DescribeEvalState(r, v);
    v.buffer(r.animMatrixbuffer);
  }
  template <class R, class V>
  static constexpr void arrays(R& r, V& v) {
    DescribeMeshArrays(r, v);
    v.array(r.animMatrixbuffer);
  }
};

template <>
struct SGLayout<ESGAnimationCameraNode>
    : SGLayoutBase<ESGAnimationCameraNode, SSGQelAnimationCameraNodeData, kSGAnimationCameraSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    DescribeCameraPart(r, v);
    DescribeEvalState(r, v);
    v.buffer(r.animMatrixbuffer);
  }
  template <class R, class V>
  static constexpr void arrays(R& r, V& v) { v.array(r.animMatrixbuffer); }
};

template <>
struct SGLayout<ESGSkeletalMeshNode>
    : SGLayoutBase<ESGSkeletalMeshNode, SSGQelSkeletalMeshNodeData, kSGSkeletalMeshSize> {
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    checkRecord<R>();
    DescribeMeshPart(r, v);
    v.word(r.boneBatchA);
    v.word(r.boneBatchB);
    v.podData(r.boneWeight);
    v.podData(r.boneIdx);
    DescribeEvalState(r, v);
    v.buffer(r.Batch);
    v.buffer(r.BatchBoneCnt);
    v.buffer(r.BatchOffset);
    v.buffer(r.BoneIdx_ptr);
    v.buffer(r.BoneWeight_ptr);
    v.buffer(r.sBoneIndexbuffer);
    v.buffer(r.sBoneWorldMatrixbuffer);
    v.buffer(r.sSpherebuffer);
    v.buffer(r.sAABBbuffer);
  }
  template <class R, class V>
  static constexpr void arrays(R& r, V& v) {
    DescribeMeshArrays(r, v);
    v.array(r.Batch);
    v.array(r.BatchBoneCnt);
    v.array(r.BatchOffset);
    v.array(r.BoneIdx_ptr);
    v.array(r.BoneWeight_ptr);
    v.array(r.sBoneIndexbuffer);
    v.array(r.sBoneWorldMatrixbuffer);
    v.array(r.sSpherebuffer);
    v.array(r.sAABBbuffer);
  }
};

// The two headers, described the same way.
struct SGFileHeaderLayout {
  static constexpr uint32_t kFixedSize = kSGFileHeaderSize;
  using Record = SSGFileHeader;
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    v.word(r.type);
    v.word(r.version);
    v.word(r.totalNodeNumber);
    v.text(r.PODFilename, 256);
  }
};

struct SGNodeHeaderLayout {
  static constexpr uint32_t kFixedSize = kSGNodeHeaderSize;
  using Record = SSGNodeHeader;
  template <class R, class V>
  static constexpr void fields(R& r, V& v) {
    v.word(r.type);
    v.text(r.name, 128);
    v.word(r.offset);
    v.word(r.length);
    v.word(r.index);
  }
};

// Calls f(SGLayout<K>{}) for a node kind 2000..2012 and returns true; false for any other value.
template <class F>
bool SGDispatchKind(uint32_t kind, F&& f) {
  switch (kind) {
    case ESGNode: f(SGLayout<ESGNode>{}); return true;
    case ESGMeshNode: f(SGLayout<ESGMeshNode>{}); return true;
    case ESGLightNode: f(SGLayout<ESGLightNode>{}); return true;
    case ESGCameraNode: f(SGLayout<ESGCameraNode>{}); return true;
    case ESGMaterial: f(SGLayout<ESGMaterial>{}); return true;
    case ESGCollisionBoxNode: f(SGLayout<ESGCollisionBoxNode>{}); return true;
    case ESGCollisionSphereNode: f(SGLayout<ESGCollisionSphereNode>{}); return true;
    case ESGBillboardNode: f(SGLayout<ESGBillboardNode>{}); return true;
    case ESGSkyBoxNode: f(SGLayout<ESGSkyBoxNode>{}); return true;
    case ESGMarkerNode: f(SGLayout<ESGMarkerNode>{}); return true;
    case ESGSkeletalMeshNode: f(SGLayout<ESGSkeletalMeshNode>{}); return true;
    case ESGAnimationMeshNode: f(SGLayout<ESGAnimationMeshNode>{}); return true;
    case ESGAnimationCameraNode: f(SGLayout<ESGAnimationCameraNode>{}); return true;
    default: return false;
  }
}

// Counts the bytes a description occupies in the file; usable at compile time.
struct SGFieldSizeCounter {
  uint32_t size = 0;
  template <class T>
  constexpr void word(T&) { static_assert(sizeof(T) == 4, "a file word is 32 bits"); size += 4; }
  template <class T>
  constexpr void words(T*, uint32_t n) { static_assert(sizeof(T) == 4, "a file word is 32 bits"); size += 4 * n; }
  template <class T>
  constexpr void text(T*, uint32_t n) { size += n; }
  template <class T>
  constexpr void podData(T&) { size += 20; }
  template <class T>
  constexpr void buffer(T&) { size += 12; }
};

// Counts the arrays of a description (0 for the array-less kinds).
struct SGArrayCounter {
  uint32_t count = 0;
  template <class T>
  constexpr void array(T&) { ++count; }
};

template <class L>
constexpr uint32_t SGDescribedFixedSize() {
  typename L::Record r{};
  SGFieldSizeCounter c;
  L::fields(r, c);
  return c.size;
}

template <class L>
constexpr uint32_t SGDescribedArrayCount() {
  typename L::Record r{};
  SGArrayCounter c;
  L::arrays(r, c);
  return c.count;
}

// The bytes a record's arrays add to its fixed part: what the writer lays out after it and what
// the loader expects a block to hold.
template <class L>
uint64_t SGArraysLength(const typename L::Record& r) {
  struct Sum {
    uint64_t total = 0;
    void array(const SSGNodeData& b) { total += b.length; }
  } sum;
  L::arrays(r, sum);
  return sum.total;
}

// Copies at most `size` bytes of `name` into a zero-filled name field (no terminator when the
// name fills it); a null name leaves the field zero.
inline void SGCopyName(char* field, size_t size, const char* name) {
  std::memset(field, 0, size);
  if (name != nullptr) std::memcpy(field, name, strnlen(name, size));
}

// The fixed size of a node kind 2000..2012, or 0 for any other value.
uint32_t SGKindFixedSize(uint32_t kind);
// A short readable name of a node kind ("light", "skeletal mesh", ...), "unknown" otherwise.
const char* SGKindName(uint32_t kind);

}  // namespace korvex
