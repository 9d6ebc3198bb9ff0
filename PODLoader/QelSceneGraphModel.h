#pragma once
// The scene-graph model: one file header, the node headers in creation order, and one record
// sequence per node kind. The converter and the loader fill it, the writer serialises it.
//
// Ownership: records and node headers handed over with createNode and createNodeHeader stay their
// creator's: the model keeps the pointers and never frees them, nor their arrays. Those the
// converter and the loader make are adopted instead (adoptNode, adoptNodeHeader): the model
// releases them with their arrays in its destructor, so they live as long as the model. Adopted
// records, headers and arrays come from malloc/calloc (SGNewRecord below); each SSGNodeData.data
// is a separately allocated block owned by the record that holds the descriptor, unless it is
// borrowed. A copied CPODData.pData never owns: it is zero, aims into one of the record's own
// arrays, or aims at an array read by loadMeshData, which the model keeps and releases itself.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "pod/Diagnostics.h"
#include "pod/FileHandle.h"
#include "qsn/SceneGraphLayout.h"
#include "qsn/SceneGraphRecords.h"

// A zero-filled record, header or array the model can own (released with free). Sizes are fixed
// and small: a failed allocation is plain exhaustion and ends the run.
template <class T>
T* SGNewRecord() {
  return korvex::AllocateZeroed<T>(1, "a scene-graph record");
}

class QelSceneGraphModel {
 public:
  QelSceneGraphModel();
  ~QelSceneGraphModel();
  QelSceneGraphModel(const QelSceneGraphModel&) = delete;
  QelSceneGraphModel& operator=(const QelSceneGraphModel&) = delete;

  // Kind 1000 copies the 268-byte header; 2000..2012 append the pointer to that kind's
  // sequence (the model takes it, but never frees it); any other kind is ignored.
  void createNode(void* record, ESGName kind);
  void createNodeHeader(SSGNodeHeader* nodeHeader);
  // The same for a record or header made for this model: released with it.
  void adoptNode(void* record, ESGName kind);
  void adoptNodeHeader(SSGNodeHeader* nodeHeader);

  // POD-file access for lazy loading of mesh streams.
  bool openPODFile(const std::string& path);
  bool closePODFile();
  bool seekFile(uint32_t offset);
  // Reads `size` bytes at `offset`; bytes the file does not hold are left as they were. True
  // whenever the file is open and the size not negative, however much was read.
  bool readPODData(uint8_t* buffer, int size, uint32_t offset);
  // Reads the position, face, normal and texture-coordinate streams of a mesh into new arrays
  // aimed at by its CPODData.pData members. False when a stream is too large for the file (its
  // pData is then null) or could not be read in full (the rest of its array is zero).
  bool loadMeshData(SSGQelMeshNode* mesh);
  void loadNodeDataFromPOD(SSGNodeHeader* nodeHeader);
  void loadAllNodeDataFromPOD();

  // The record of kind `kind` at `index` of its sequence; an index outside the sequence or a
  // kind outside 2000..2012 is a broken invariant and aborts.
  void* record(uint32_t kind, int32_t index);
  // Number of records in the sequence of `kind` (0 for a kind outside 2000..2012).
  size_t recordCount(uint32_t kind) const;
  // The sequence of a kind by its ESGName.
  template <ESGName K>
  std::vector<typename korvex::SGLayout<K>::Record*>& sequence();
  template <ESGName K>
  const std::vector<typename korvex::SGLayout<K>::Record*>& sequence() const {
    return const_cast<QelSceneGraphModel*>(this)->sequence<K>();
  }

  // A zero-filled array of `bytes` bytes, freed with the model: one that several records share,
  // each borrowing it.
  uint8_t* keepArray(size_t bytes);

  // Frees a record of `kind` with all its arrays (for records never handed to a model).
  static void destroyRecord(uint32_t kind, void* record);

  // Model dump and consistency printout (defined in QelSceneGraphModelPrint.cpp).
  void printModelInfo();
  void printCheckModelInfo();
  void printFileHeaderInfo(SSGFileHeader* fileHeader);
  void printNodeHeaderInfo(SSGNodeHeader* nodeHeader);
  void printNodeInfo(SSGQelNodeData* data);
  void printMeshNodeInfo(SSGQelMeshNodeData* data);
  void printMaterialNodeInfo(SSGQelMaterialData* data);
  void printCameraNodeInfo(SSGQelCameraNodeData* data);
  void printLightNodeInfo(SSGQelLightNodeData* data);
  void printMarkerNodeInfo(SSGQelMarkerNodeData* data);
  void printCollisionBoxNodeInfo(SSGQelCollisionBoxNodeData* data);
  void printCollisionSphereNodeInfo(SSGQelCollisionSphereNodeData* data);
  void printBillboardNodeInfo(SSGQelBillboardNodeData* data);
  void printSkyboxNodeInfo(SSGQelSkyBoxNodeData* data);
  void printSkeletonNodeInfo(SSGQelSkeletalMeshNodeData* data);
  void printAnimationNodeInfo(SSGQelAnimationMeshNodeData* data);
  void printAnimationCameraNodeInfo(SSGQelAnimationCameraNodeData* data);
  void checkMeshNode(SSGNodeHeader* nodeHeader, SSGQelMeshNodeData* data);

  SSGFileHeader header;
  std::vector<SSGNodeHeader*> nodeheader;
  std::vector<SSGQelNodeData*> node;
  std::vector<SSGQelMeshNodeData*> meshnode;
  std::vector<SSGQelLightNodeData*> lightnode;
  std::vector<SSGQelCameraNodeData*> cameranode;
  std::vector<SSGQelMaterialData*> material;
  std::vector<SSGQelCollisionBoxNodeData*> collisionboxnode;
  std::vector<SSGQelCollisionSphereNodeData*> collisionspherenode;
  std::vector<SSGQelBillboardNodeData*> billboardnode;
  std::vector<SSGQelSkyBoxNodeData*> skyboxnode;
  std::vector<SSGQelMarkerNodeData*> markernode;
  std::vector<SSGQelSkeletalMeshNodeData*> skeletalmeshnode;
  std::vector<SSGQelAnimationMeshNodeData*> animationmeshnode;
  std::vector<SSGQelAnimationCameraNodeData*> animationcameranode;
  korvex::FileHandle PODFile;
  std::string PODDirectory;
  std::string PODFilePath;

 private:
  // Reads up to `size` bytes at `offset`; returns how many were read.
  size_t readAt(uint8_t* buffer, size_t size, uint32_t offset);
  // Reads one stream of `bytes` bytes at `offset` into a zero-filled array kept by the model, the
  // one already read from that place if any. False when the file is not open, the stream is
  // larger than it, what is loaded in all would pass twice its size, or a read falls short.
  bool loadStream(CPODData& stream, uint64_t bytes, uint32_t offset);

  std::vector<std::pair<uint32_t, void*>> m_adopted;  // kind and record
  std::vector<SSGNodeHeader*> m_adoptedHeaders;
  std::vector<uint8_t*> m_loadedStreams;  // arrays made by loadMeshData
  // The same by place in the POD file (offset, bytes), with whether they were read in full:
  // records that name the same bytes (nodes on one mesh, headers naming one record) share them.
  std::map<std::pair<uint32_t, uint64_t>, std::pair<uint8_t*, bool>> m_loadedAt;
  uint64_t m_loadedBytes = 0;
  std::vector<uint8_t*> m_keptArrays;     // arrays made by keepArray
};

template <>
inline std::vector<SSGQelNodeData*>& QelSceneGraphModel::sequence<ESGNode>() { return node; }
template <>
inline std::vector<SSGQelMeshNodeData*>& QelSceneGraphModel::sequence<ESGMeshNode>() { return meshnode; }
template <>
inline std::vector<SSGQelLightNodeData*>& QelSceneGraphModel::sequence<ESGLightNode>() { return lightnode; }
template <>
inline std::vector<SSGQelCameraNodeData*>& QelSceneGraphModel::sequence<ESGCameraNode>() { return cameranode; }
template <>
inline std::vector<SSGQelMaterialData*>& QelSceneGraphModel::sequence<ESGMaterial>() { return material; }
template <>
inline std::vector<SSGQelCollisionBoxNodeData*>& QelSceneGraphModel::sequence<ESGCollisionBoxNode>() {
  return collisionboxnode;
}
template <>
inline std::vector<SSGQelCollisionSphereNodeData*>& QelSceneGraphModel::sequence<ESGCollisionSphereNode>() {
  return collisionspherenode;
}
template <>
inline std::vector<SSGQelBillboardNodeData*>& QelSceneGraphModel::sequence<ESGBillboardNode>() {
  return billboardnode;
}
template <>
inline std::vector<SSGQelSkyBoxNodeData*>& QelSceneGraphModel::sequence<ESGSkyBoxNode>() { return skyboxnode; }
template <>
inline std::vector<SSGQelMarkerNodeData*>& QelSceneGraphModel::sequence<ESGMarkerNode>() { return markernode; }
template <>
inline std::vector<SSGQelSkeletalMeshNodeData*>& QelSceneGraphModel::sequence<ESGSkeletalMeshNode>() {
  return skeletalmeshnode;
}
template <>
inline std::vector<SSGQelAnimationMeshNodeData*>& QelSceneGraphModel::sequence<ESGAnimationMeshNode>() {
  return animationmeshnode;
}
template <>
inline std::vector<SSGQelAnimationCameraNodeData*>& QelSceneGraphModel::sequence<ESGAnimationCameraNode>() {
  return animationcameranode;
}
