#pragma once
// Reads a .qsn file back into an empty scene-graph model: the file header, every node header,
// and for each node header of a kind 2001..2012 a new record whose arrays are read from the
// file straight into their own allocations, then aimed at by the record's pointers.
//
// The file is untrusted. Anything the file cannot hold is refused before it is allocated or
// read: readFromFile returns false and lastError() names the path and the fault. On a refusal
// the model keeps the file header (copied before any check, as for a type other than 1000) and
// the node headers and records of the nodes before the faulty one; every header of a kind
// 2001..2012 in the model has its record.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "pod/FileHandle.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLayout.h"

class SceneGraphLoader {
 public:
  SceneGraphLoader();
  ~SceneGraphLoader();
  SceneGraphLoader(const SceneGraphLoader&) = delete;
  SceneGraphLoader& operator=(const SceneGraphLoader&) = delete;

  // True when the whole file was loaded into `model`.
  bool readFromFile(const std::string& path, QelSceneGraphModel* model);
  // The same on bytes already in memory (not copied; they must outlive the call).
  bool readFromMemory(const uint8_t* bytes, size_t size, QelSceneGraphModel* model);
  const std::string& lastError() const { return m_error; }

  // Closes an open file first; true when the path opened for reading.
  bool openFile();
  bool closeFile();
  // Reads exactly `size` bytes at the current position; false on a short read.
  bool readFile(uint8_t* buffer, size_t size);
  bool seekFile(uint32_t offset);

  bool readFileHeader(SGData* buffer);
  void createFileHeader(const SGData* buffer);
  bool readNode(int count);
  void createNodeHeader(const SGData* buffer, SSGNodeHeader* nodeHeader);
  // Copies the file header into the model, then reads the node headers; false for a type other
  // than 1000 (the model's header is overwritten all the same) or a file too short for them.
  bool readFileFormat();
  bool buildSceneGraph();

  bool createMeshNode(SSGNodeHeader* h);
  bool createLightNode(SSGNodeHeader* h);
  bool createCameraNode(SSGNodeHeader* h);
  bool createMaterialNode(SSGNodeHeader* h);
  bool createCollisionBoxNode(SSGNodeHeader* h);
  bool createCollisionSphereNode(SSGNodeHeader* h);
  bool createBillboardNode(SSGNodeHeader* h);
  bool createSkyboxNode(SSGNodeHeader* h);
  bool createMarkerNode(SSGNodeHeader* h);
  bool createSkeletonNode(SSGNodeHeader* h);
  bool createAnimationMeshNode(SSGNodeHeader* h);
  bool createAnimationCameraNode(SSGNodeHeader* h);

  uint32_t calculateFileHeaderSize(const SSGFileHeader* fileHeader) const;
  uint32_t calculateNodeHeaderSize(const SSGNodeHeader* nodeHeader) const;

  uint64_t bytesRead() const { return m_bytesRead; }

 private:
  bool load();
  template <class L>
  bool createRecord(SSGNodeHeader* h);
  bool fail(const std::string& what);
  bool failNode(const SSGNodeHeader* h, const std::string& what);

  QelSceneGraphModel* m_model;
  std::vector<SGData> m_nodeHeaders;  // in file order
  korvex::FileHandle m_file;
  std::string m_path;
  uint64_t m_bytesRead;

  // The source: the open file, or a memory range when m_memory is set.
  const uint8_t* m_memory;
  uint64_t m_size;      // bytes in the source
  uint64_t m_position;  // current read position
  uint64_t m_blockBytes;  // bytes the records read so far hold
  size_t m_nodeNumber;    // position of the node being built, for messages
  std::string m_error;
};
