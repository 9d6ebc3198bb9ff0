#pragma once
// The records of the scene-graph model, in memory. Member order and widths follow the .qsn
// file layout, but the file is never a dump of these structs: pointer members are native here
// and are written as 32-bit zero slots by the serialiser (SceneGraphLayout).

#include <cstdint>

#include "pod/PODModel.h"

enum ESGName : uint32_t {
  ESGFileHeader = 1000,
  ESGNode = 2000,
  ESGMeshNode = 2001,
  ESGLightNode = 2002,
  ESGCameraNode = 2003,
  ESGMaterial = 2004,
  ESGCollisionBoxNode = 2005,
  ESGCollisionSphereNode = 2006,
  ESGBillboardNode = 2007,
  ESGSkyBoxNode = 2008,
  ESGMarkerNode = 2009,
  ESGSkeletalMeshNode = 2010,
  ESGAnimationMeshNode = 2011,
  ESGAnimationCameraNode = 2012,
};

// SSGNodeData::type codes used by the converters.
enum SSGBufferType : uint32_t {
  SSGBufferFloat = 0,
  SSGBufferInt32 = 1,
  SSGBufferFace16 = 3,
  SSGBufferMatrix = 6,
  SSGBufferSphere = 7,
  SSGBufferAABB = 8,
};

struct SSGFileHeader {
  uint32_t type;
  uint32_t version;
  uint32_t totalNodeNumber;
  char PODFilename[256];
};

struct SSGNodeHeader {
  uint32_t type;
  char name[128];
  uint32_t offset;
  uint32_t length;
  int32_t index;
};

// An array owned by the record that holds the descriptor, unless `borrowed`: then it is a stream
// array of the POD scene the record was converted from, which must outlive the record (see
// SceneGraphConverter::setBorrowStreams), and it is never freed with the record.
struct SSGNodeData {
  uint32_t type;
  uint32_t length;  // bytes
  uint8_t* data;
  bool borrowed;
};

struct ZarVector3 {
  float x, y, z;
};

struct QelGeom {
  uint32_t geom;  // no meaning here; written as zero
};

struct QelSphere : QelGeom {
  ZarVector3 center;
  float radius;
  uint32_t reserved;
};

struct QelAABB : QelGeom {
  ZarVector3 min;
  ZarVector3 max;
  ZarVector3 center;
  uint32_t reserved;
};

struct SSGQelNodeData {
  uint32_t indexToObject;
  int32_t objectIndex;
  PODMATRIXf transform;
  uint32_t numAnimation;
  uint32_t animationFlag;
};
// The leading part as the transform-setting step sees it.
using SSGQelNode = SSGQelNodeData;

struct SSGQelMarkerNodeData : SSGQelNodeData {};

struct SSGQelLightNodeData : SSGQelNodeData {
  int32_t targetIndex;
  float colour[3];
  uint32_t lightType;
};

struct SSGQelCameraNodeData : SSGQelNodeData {
  float FOV;
  float farPlane;
  float nearPlane;
  int32_t targetIndex;
  float targetPosition[3];
};

struct SSGQelMaterialData {
  int32_t materialIndexOfNode;
  float opacity;
  float ambient[3];
  float diffuse[3];
  float specular[3];
  float shininess;
  char materialName[128];
  char textureName[128];
};

// The mesh part that follows the node part of every mesh-based record. Copied stream
// descriptors keep only eType, n, nStride, pData and nFileOffset in the file.
struct SSGQelMeshNodeData : SSGQelNodeData {
  uint32_t numVertex;
  uint32_t numFace;
  uint32_t numUVW;
  float sphereCenter[3];
  float sphereRadius;
  float boxCenter[3];
  float boxMin[3];
  float boxMax[3];
  CPODData vertex;
  uint32_t vertexOffset;
  CPODData normal;
  uint32_t normalOffset;
  CPODData face;
  uint32_t faceOffset;
  CPODData UVW[8];
  uint32_t UVWOffset[8];
  int32_t defaultMaterialIndex;
  int32_t materialIndex[8];
  SSGNodeData vertexBuffer;
  SSGNodeData normalBuffer;
  SSGNodeData faceBuffer;
  SSGNodeData UVWBuffer;
};
using SSGQelMeshNode = SSGQelMeshNodeData;

struct SSGQelBillboardNodeData : SSGQelMeshNodeData {};
struct SSGQelSkyBoxNodeData : SSGQelMeshNodeData {};
struct SSGQelCollisionSphereNodeData : SSGQelMeshNodeData {};

struct SSGQelCollisionBoxNodeData : SSGQelMeshNodeData {
  float localSphereCenter[3];
  float localSphereRadius;
  float localBoxCenter[3];
  float localBoxMin[3];
  float localBoxMax[3];
};

struct SSGQelAnimationMeshNodeData : SSGQelMeshNodeData {
  float evalFrame;
  float evalBlend;
  int32_t evalFrameIndex;
  SSGNodeData animMatrixbuffer;
};

struct SSGQelAnimationCameraNodeData : SSGQelCameraNodeData {
  float evalFrame;
  float evalBlend;
  int32_t evalFrameIndex;
  SSGNodeData animMatrixbuffer;
};

struct SSGQelSkeletalMeshNodeData : SSGQelMeshNodeData {
  uint32_t boneBatchA;
  uint32_t boneBatchB;
  CPODData boneWeight;
  CPODData boneIdx;
  float evalFrame;
  float evalBlend;
  int32_t evalFrameIndex;
  SSGNodeData Batch;
  SSGNodeData BatchBoneCnt;
  SSGNodeData BatchOffset;
  SSGNodeData BoneIdx_ptr;
  SSGNodeData BoneWeight_ptr;
  SSGNodeData sBoneIndexbuffer;
  SSGNodeData sBoneWorldMatrixbuffer;
  SSGNodeData sSpherebuffer;
  SSGNodeData sAABBbuffer;
};

// Sizes of the fixed parts and array elements in the file.
enum : uint32_t {
  kSGFileHeaderSize = 268,
  kSGNodeHeaderSize = 144,
  kSGNodeSize = 80,
  kSGLightSize = 100,
  kSGCameraSize = 108,
  kSGMaterialSize = 304,
  kSGMeshSize = 492,
  kSGCollisionBoxSize = 544,
  kSGAnimationMeshSize = 516,
  kSGSkeletalMeshSize = 660,
  kSGAnimationCameraSize = 132,
  kSGSphereElementSize = 24,
  kSGAABBElementSize = 44,
};
