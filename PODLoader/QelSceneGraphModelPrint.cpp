// The model dump and the texture-coordinate check of QelSceneGraphModel. Both print the tool's
// own texts (Diagnostics.h), in the fixed wording developers and their scripts know.
//
// A model may come from an untrusted file, and the loader only vouches that each array is as long
// as its descriptor says, not that the counts of a record agree with those lengths. So every
// array is read only as far as its descriptor's length reaches: per-vertex lines stop where the
// buffer ends, the fixed numbers of matrices, spheres and boxes shrink to what the buffer holds,
// at most eight texture-coordinate sets exist, and records are looked up by index only when the
// index lies inside its sequence. Array contents are read as little-endian file words.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "pod/ByteIO.h"
#include "pod/Diagnostics.h"
#include "qsn/NodeDataBuffer.h"
#include "qsn/QelSceneGraphModel.h"

namespace {

using korvex::LoadF32LE;

const size_t kMatrixBytes = 64;
const size_t kMaxUVWSets = 8;

// "%x" of a pointer prints its 32-bit slot: the low 32 bits of the native pointer.
unsigned PointerSlot(const void* p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// Copies a fixed name field into a scratch buffer that always ends with a terminator, so "%s"
// stops inside it even when the field is full. Only the field's own bytes are copied.
template <size_t N>
const char* NameText(char (&scratch)[N], const char* field, size_t fieldSize) {
  static_assert(N > 256, "scratch must hold the largest field and a terminator");
  const size_t n = strnlen(field, fieldSize < N - 1 ? fieldSize : N - 1);
  std::memcpy(scratch, field, n);
  scratch[n] = '\0';
  return scratch;
}

// Number of whole elements of `size` bytes the buffer holds from byte `start` on.
uint64_t ElementsFrom(const SSGNodeData& b, uint64_t start, uint64_t size) {
  if (b.data == nullptr || start >= b.length) return 0;
  return (b.length - start) / size;
}

uint64_t Min(uint64_t a, uint64_t b) {
  return a < b ? a : b;
}

int32_t I32At(const uint8_t* p) {
  return static_cast<int32_t>(korvex::LoadU32LE(p));
}
unsigned U16At(const uint8_t* p) {
  return unsigned(p[0]) | unsigned(p[1]) << 8;
}

void PrintMatrix(const uint8_t* m) {
  for (int row = 0; row < 4; ++row) {
    const uint8_t* r = m + 16 * row;
    korvex::PrintText("%f, %f,%f, %f\n", LoadF32LE(r), LoadF32LE(r + 4), LoadF32LE(r + 8), LoadF32LE(r + 12));
  }
}

// The label, type and length of a buffer.
void PrintBufferHead(const char* label, const SSGNodeData& b) {
  korvex::PrintText("%s\n", label);
  korvex::PrintText("type: %d\n", static_cast<int>(b.type));
  korvex::PrintText("length: %d\n", static_cast<int>(b.length));
}

// At most `count` matrices of the buffer (fewer when it holds fewer), then an empty line. The
// labels of the matrix buffers are the names of the buffers.
void PrintMatrixBuffer(const char* label, const SSGNodeData& b, uint64_t count) {
  PrintBufferHead(label, b);
  const uint64_t n = Min(count, ElementsFrom(b, 0, kMatrixBytes));
  for (uint64_t i = 0; i < n; ++i) PrintMatrix(b.data + i * kMatrixBytes);
  korvex::PrintText("\n");
}

// length/4 words of the buffer on one line, each followed by a comma.
void PrintIntWords(const char* label, const SSGNodeData& b) {
  PrintBufferHead(label, b);
  const uint64_t n = ElementsFrom(b, 0, 4);
  for (uint64_t i = 0; i < n; ++i) korvex::PrintText("%d,", I32At(b.data + 4 * i));
  korvex::PrintText("\n");
}

void PrintFloatWords(const char* label, const SSGNodeData& b) {
  PrintBufferHead(label, b);
  const uint64_t n = ElementsFrom(b, 0, 4);
  for (uint64_t i = 0; i < n; ++i) korvex::PrintText("%f,", LoadF32LE(b.data + 4 * i));
  korvex::PrintText("\n");
}

// Lines of three floats, 12 bytes apart, at most `count` of them.
void PrintVectors(const char* format, const SSGNodeData& b, uint64_t count) {
  const uint64_t n = Min(count, ElementsFrom(b, 0, 12));
  for (uint64_t i = 0; i < n; ++i) {
    const uint8_t* v = b.data + 12 * i;
    korvex::PrintText(format, LoadF32LE(v), LoadF32LE(v + 4), LoadF32LE(v + 8));
  }
}

}  // namespace

void QelSceneGraphModel::printModelInfo() {
  printFileHeaderInfo(&header);
  for (SSGNodeHeader* h : nodeheader) {
    printNodeHeaderInfo(h);
    const bool present = h->index >= 0 && static_cast<size_t>(h->index) < recordCount(h->type);
    const size_t i = static_cast<size_t>(h->index);
    switch (h->type) {
      case ESGMeshNode:
        if (present) printMeshNodeInfo(meshnode[i]);
        break;
      case ESGCollisionBoxNode:
        korvex::PrintText("%s\n", "***Collision Box***");
        if (present) printCollisionBoxNodeInfo(collisionboxnode[i]);
        break;
      case ESGCollisionSphereNode:
        korvex::PrintText("%s\n", "***Collision Sphere***");
        if (present) printCollisionSphereNodeInfo(collisionspherenode[i]);
        break;
      case ESGBillboardNode:
        korvex::PrintText("%s\n", "***Billboard***");
        if (present) printBillboardNodeInfo(billboardnode[i]);
        break;
      case ESGSkyBoxNode:
        korvex::PrintText("%s\n", "***Sky Box***");
        if (present) printSkyboxNodeInfo(skyboxnode[i]);
        break;
      case ESGMarkerNode:
        korvex::PrintText("%s\n", "***Marker***");
        if (present) printMarkerNodeInfo(markernode[i]);
        break;
      case ESGSkeletalMeshNode:
        korvex::PrintText("%s\n", "***Skeletal Mesh***");
        if (present) printSkeletonNodeInfo(skeletalmeshnode[i]);
        break;
      case ESGAnimationMeshNode:
        korvex::PrintText("%s\n", "***Animation Mesh***");
        if (present) printAnimationNodeInfo(animationmeshnode[i]);
        break;
      case ESGAnimationCameraNode:
        korvex::PrintText("%s\n", "***Animation Camera***");
        if (present) printAnimationCameraNodeInfo(animationcameranode[i]);
        break;
      default:  // lights, cameras, materials and unknown kinds: the header says all
        break;
    }
  }
}

void QelSceneGraphModel::printFileHeaderInfo(SSGFileHeader* fileHeader) {
  char name[257];
  korvex::PrintText("FileHeader Type: %d\n", static_cast<int>(fileHeader->type));
  korvex::PrintText("FileHeader version: %d\n", static_cast<int>(fileHeader->version));
  korvex::PrintText("Node name: %s\n",
         NameText(name, fileHeader->PODFilename, sizeof fileHeader->PODFilename));
}

void QelSceneGraphModel::printNodeHeaderInfo(SSGNodeHeader* nodeHeader) {
  char name[257];
  korvex::PrintText("NodeHeader Type: %d\n", static_cast<int>(nodeHeader->type));
  korvex::PrintText("Node offset: %d\n", static_cast<int>(nodeHeader->offset));
  // The length line's format, "Node length: %l\n", ends in a conversion without a type, which
  // is undefined; glibc prints it as "%" and the newline. Those bytes are written as they stand.
  korvex::PrintText(std::string("Node length: %\n"));
  korvex::PrintText("Node index: %d\n", static_cast<int>(nodeHeader->index));
  korvex::PrintText("Node name: %s\n", NameText(name, nodeHeader->name, sizeof nodeHeader->name));
}

void QelSceneGraphModel::printNodeInfo(SSGQelNodeData* data) {
  korvex::PrintText("Index to object: %d\n", static_cast<int>(data->indexToObject));
  korvex::PrintText("Object Index: %d\n", static_cast<int>(data->objectIndex));
  const float* m = data->transform.f;
  for (int row = 0; row < 4; ++row)
    korvex::PrintText("Transform: %f, %f, %f, %f\n", m[4 * row], m[4 * row + 1], m[4 * row + 2],
           m[4 * row + 3]);
  korvex::PrintText("Number of animation: %u\n", data->numAnimation);
  korvex::PrintText("Animation Flag: %u\n", data->animationFlag);
}

void QelSceneGraphModel::printMeshNodeInfo(SSGQelMeshNodeData* data) {
  printNodeInfo(data);
  korvex::PrintText("Number of vertex: %u\n", data->numVertex);
  korvex::PrintText("Number of face: %u\n", data->numFace);
  korvex::PrintText("Number of UVW: %u\n", data->numUVW);
  korvex::PrintText("Bounding Sphere: center:%f, %f, %f with radius %f\n", data->sphereCenter[0],
         data->sphereCenter[1], data->sphereCenter[2], data->sphereRadius);
  korvex::PrintText("Bounding Box: center:%f, %f, %f with max %f %f %f and min %f %f %f\n", data->boxCenter[0],
         data->boxCenter[1], data->boxCenter[2], data->boxMax[0], data->boxMax[1], data->boxMax[2],
         data->boxMin[0], data->boxMin[1], data->boxMin[2]);

  korvex::PrintText("Vertex data type: %d\n", static_cast<int>(data->vertex.eType));
  korvex::PrintText("Vertex number of values: %d\n", static_cast<int>(data->vertex.n));
  korvex::PrintText("Vertex stride: %d\n", static_cast<int>(data->vertex.nStride));
  korvex::PrintText("Vertex data location offset: %u\n", data->vertexOffset);
  korvex::PrintText("Vertex data length:  %d\n", static_cast<int>(data->vertexBuffer.length));
  korvex::PrintText("Vertex data ptr:  %x\n", PointerSlot(data->vertexBuffer.data));
  PrintVectors("Vertex data: %f %f %f\n", data->vertexBuffer, data->numVertex);

  korvex::PrintText("Normal data type: %d\n", static_cast<int>(data->normal.eType));
  korvex::PrintText("Normal number of values: %d\n", static_cast<int>(data->normal.n));
  korvex::PrintText("Normal stride: %d\n", static_cast<int>(data->normal.nStride));
  korvex::PrintText("Normal data:  %x\n", PointerSlot(data->normal.pData));
  korvex::PrintText("Normal data location offset: %u\n", data->normalOffset);
  korvex::PrintText("Normal data length: %d\n", static_cast<int>(data->normalBuffer.length));
  korvex::PrintText("Normal data ptr: %x\n", PointerSlot(data->normalBuffer.data));
  PrintVectors("Normal data: %f %f %f\n", data->normalBuffer, data->numVertex);

  korvex::PrintText("Face data type: %d\n", static_cast<int>(data->face.eType));
  korvex::PrintText("Face number of values: %d\n", static_cast<int>(data->face.n));
  korvex::PrintText("Face stride: %d\n", static_cast<int>(data->face.nStride));
  korvex::PrintText("Face data:  %x\n", PointerSlot(data->face.pData));
  korvex::PrintText("Face data location offset: %u\n", data->faceOffset);
  korvex::PrintText("Face data length: %d\n", static_cast<int>(data->faceBuffer.length));
  korvex::PrintText("Face data ptr: %x\n", PointerSlot(data->faceBuffer.data));
  // The descriptor's pointer decides, the buffer supplies the values: a converted plain mesh
  // (face.pData zero) prints no indices, a loaded collision/billboard/sky box record does.
  if (data->face.pData != nullptr) {
    const uint64_t n = Min(uint64_t(3) * data->numFace, ElementsFrom(data->faceBuffer, 0, 2));
    for (uint64_t i = 0; i < n; ++i)
      korvex::PrintText("Face data: %d\n", static_cast<int>(U16At(data->faceBuffer.data + 2 * i)));
  }

  const uint64_t sets = Min(data->numUVW, kMaxUVWSets);
  const uint64_t setBytes = uint64_t(data->numVertex) * 8;
  for (uint64_t i = 0; i < sets; ++i) {
    korvex::PrintText("UVW Number: %d\n", static_cast<int>(i));
    korvex::PrintText("UVW data type: %d\n", static_cast<int>(data->UVW[i].eType));
    korvex::PrintText("UVW number of values: %d\n", static_cast<int>(data->UVW[i].n));
    korvex::PrintText("UVW stride: %d\n", static_cast<int>(data->UVW[i].nStride));
    korvex::PrintText("UVW data:  %x\n", PointerSlot(data->UVW[i].pData));
    korvex::PrintText("UVW data location offset: %u\n", data->UVWOffset[i]);
    korvex::PrintText("UVW data length: %x\n", data->UVWBuffer.length);
    if (data->UVWBuffer.length != 0) {
      const uint64_t n = Min(data->numVertex, ElementsFrom(data->UVWBuffer, i * setBytes, 8));
      for (uint64_t k = 0; k < n; ++k) {
        const uint8_t* uv = data->UVWBuffer.data + i * setBytes + 8 * k;
        korvex::PrintText("UVW data: %f %f\n", LoadF32LE(uv), LoadF32LE(uv + 4));
      }
    }
  }

  for (int m = 0; m < 8; ++m) {
    const int32_t index = data->materialIndex[m];
    korvex::PrintText("Material Number: %d\n", m);
    korvex::PrintText("Material Index %d\n", static_cast<int>(index));
    if (index >= 0 && static_cast<size_t>(index) < material.size())
      printMaterialNodeInfo(material[index]);
  }
  korvex::PrintText("Default material index %d\n", static_cast<int>(data->defaultMaterialIndex));
}

void QelSceneGraphModel::printMaterialNodeInfo(SSGQelMaterialData* data) {
  char name[257];
  korvex::PrintText("Opacity: %f\n", data->opacity);
  korvex::PrintText("Ambient: %f %f %f\n", data->ambient[0], data->ambient[1], data->ambient[2]);
  korvex::PrintText("Diffuse: %f %f %f\n", data->diffuse[0], data->diffuse[1], data->diffuse[2]);
  korvex::PrintText("Specular:  %f %f %f\n", data->specular[0], data->specular[1], data->specular[2]);
  korvex::PrintText("Shininess:  %f\n", data->shininess);
  korvex::PrintText("Material Name: %s\n", NameText(name, data->materialName, sizeof data->materialName));
  korvex::PrintText("Texture Name: %s\n", NameText(name, data->textureName, sizeof data->textureName));
}

void QelSceneGraphModel::printCameraNodeInfo(SSGQelCameraNodeData* data) {
  printNodeInfo(data);
  korvex::PrintText("FOV: %f\n", data->FOV);
  korvex::PrintText("Far plane: %f\n", data->farPlane);
  korvex::PrintText("Near Plane: %f\n", data->nearPlane);
}

void QelSceneGraphModel::printLightNodeInfo(SSGQelLightNodeData* data) {
  printNodeInfo(data);
}

void QelSceneGraphModel::printMarkerNodeInfo(SSGQelMarkerNodeData* data) {
  korvex::PrintText("%s\n", "***Marker***");
  printNodeInfo(data);
}

void QelSceneGraphModel::printCollisionBoxNodeInfo(SSGQelCollisionBoxNodeData* data) {
  korvex::PrintText("%s\n", "***Collision Box***");
  printMeshNodeInfo(data);
}

void QelSceneGraphModel::printCollisionSphereNodeInfo(SSGQelCollisionSphereNodeData* data) {
  korvex::PrintText("%s\n", "***Collision Sphere***");
  printMeshNodeInfo(data);
}

void QelSceneGraphModel::printBillboardNodeInfo(SSGQelBillboardNodeData* data) {
  korvex::PrintText("%s\n", "***Billboard Box***");
  printMeshNodeInfo(data);
}

void QelSceneGraphModel::printSkyboxNodeInfo(SSGQelSkyBoxNodeData* data) {
  korvex::PrintText("%s\n", "***Sky Box***");
  printMeshNodeInfo(data);
}

void QelSceneGraphModel::printSkeletonNodeInfo(SSGQelSkeletalMeshNodeData* data) {
  korvex::PrintText("%s\n", "***Skeleton***");
  printMeshNodeInfo(data);
  PrintIntWords("Batch", data->Batch);
  PrintIntWords("BatchBoneCnt", data->BatchBoneCnt);
  PrintIntWords("BatchOffset", data->BatchOffset);
  PrintIntWords("BoneIdx_ptr", data->BoneIdx_ptr);
  PrintFloatWords("BoneWeight_ptr", data->BoneWeight_ptr);
  PrintIntWords("sBoneIndexbuffer", data->sBoneIndexbuffer);
  PrintMatrixBuffer("sBoneWorldMatrixbuffer", data->sBoneWorldMatrixbuffer, 10);

  PrintBufferHead("sSpherebuffer", data->sSpherebuffer);
  const uint64_t spheres = Min(3, ElementsFrom(data->sSpherebuffer, 0, kSGSphereElementSize));
  for (uint64_t i = 0; i < spheres; ++i) {
    const uint8_t* s = data->sSpherebuffer.data + kSGSphereElementSize * i;
    korvex::PrintText("Center %f, %f, %f\n", LoadF32LE(s + 4), LoadF32LE(s + 8), LoadF32LE(s + 12));
    korvex::PrintText("Radius %f\n", LoadF32LE(s + 16));
  }
  korvex::PrintText("\n");

  PrintBufferHead("sAABBbuffer", data->sAABBbuffer);
  const uint64_t boxes = Min(3, ElementsFrom(data->sAABBbuffer, 0, kSGAABBElementSize));
  for (uint64_t i = 0; i < boxes; ++i) {
    const uint8_t* b = data->sAABBbuffer.data + kSGAABBElementSize * i;
    korvex::PrintText("Max %f, %f, %f\n", LoadF32LE(b + 16), LoadF32LE(b + 20), LoadF32LE(b + 24));
    korvex::PrintText("Min %f, %f, %f\n", LoadF32LE(b + 4), LoadF32LE(b + 8), LoadF32LE(b + 12));
  }
  korvex::PrintText("\n");
}

void QelSceneGraphModel::printAnimationNodeInfo(SSGQelAnimationMeshNodeData* data) {
  korvex::PrintText("%s\n", "***Animation***");
  printMeshNodeInfo(data);
  PrintMatrixBuffer("animMatrixbuffer", data->animMatrixbuffer, 3);
}

void QelSceneGraphModel::printAnimationCameraNodeInfo(SSGQelAnimationCameraNodeData* data) {
  korvex::PrintText("%s\n", "***Animation Camera***");
  printCameraNodeInfo(data);
  PrintMatrixBuffer("animMatrixbuffer", data->animMatrixbuffer, 30);
}

void QelSceneGraphModel::printCheckModelInfo() {
  for (SSGNodeHeader* h : nodeheader) {
    if (h->type != ESGMeshNode) continue;
    if (h->index >= 0 && static_cast<size_t>(h->index) < meshnode.size())
      checkMeshNode(h, meshnode[h->index]);
  }
}

void QelSceneGraphModel::checkMeshNode(SSGNodeHeader* nodeHeader, SSGQelMeshNodeData* data) {
  // The name is read as 256 bytes from the start of its field: a name filling all 128 bytes runs
  // on into the bytes of the header's offset, length and index, as the file stores them. Past the
  // header there is nothing to read: the name ends there.
  uint8_t bytes[sizeof nodeHeader->name + 12];
  std::memcpy(bytes, nodeHeader->name, sizeof nodeHeader->name);
  korvex::StoreU32LE(bytes + 128, nodeHeader->offset);
  korvex::StoreU32LE(bytes + 132, nodeHeader->length);
  korvex::StoreU32LE(bytes + 136, static_cast<uint32_t>(nodeHeader->index));
  char name[257];
  NameText(name, reinterpret_cast<const char*>(bytes), sizeof bytes);
  if (data->numUVW >= 3) {
    korvex::PrintText("Error1: Number of UVW > 2, \"%s\"\n", name);
    return;
  }
  if (data->numUVW != 2) return;
  // The first vertex of set 0 and of set 1; a buffer too short for both has nothing to compare.
  const uint64_t second = uint64_t(data->numVertex) * 8;
  if (ElementsFrom(data->UVWBuffer, second, 8) == 0) return;
  const uint8_t* uv0 = data->UVWBuffer.data;
  const uint8_t* uv1 = data->UVWBuffer.data + second;
  const float u0 = LoadF32LE(uv0), v0 = LoadF32LE(uv0 + 4);
  const float u1 = LoadF32LE(uv1), v1 = LoadF32LE(uv1 + 4);
  if (std::fabs(u0 - u1) < 0.001f && std::fabs(v0 - v1) < 0.001f)
    korvex::PrintText("Error2: Same UVW in 2 planes \"%s\"\t\t\t: UV0:(%f, %f) UV1:(%f,%f)\n",
                      name, u0, v0, u1, v1);
}
