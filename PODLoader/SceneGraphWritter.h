#pragma once
// Writes a scene-graph model as one .qsn file: the file header, the node headers of the kinds
// 2001..2012, then one data block per written header (fixed part, then its arrays). Each block's
// fixed part is assembled in a small buffer and its arrays are written straight from the record,
// so the file is written with a few large calls and the model is never held twice.
//
// The file is written through korvex::AtomicFile: to a temporary file in the target's directory,
// renamed over the target only once every byte is written and the file is closed, so a failed or
// interrupted run never leaves a truncated .qsn behind.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "pod/AtomicFile.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLayout.h"

class SceneGraphWritter {
 public:
  SceneGraphWritter();
  ~SceneGraphWritter();
  SceneGraphWritter(const SceneGraphWritter&) = delete;
  SceneGraphWritter& operator=(const SceneGraphWritter&) = delete;

  // Lays the model out (updating each written node header's offset and length in place) and
  // writes it to `path`. False, with a message on standard error and in lastError(), when the
  // layout does not fit 32-bit offsets or the file cannot be created, written or renamed; the
  // target is then left as it was and no temporary file remains.
  bool WritetoFile(const std::string& path, QelSceneGraphModel* model);
  const std::string& lastError() const { return m_error; }

  // Creates the temporary file beside the target (dropping an open one first).
  bool openFile();
  // Closes the temporary file and renames it onto the target; false when a write, the close or
  // the rename failed (the temporary file is gone either way).
  bool closeFile();
  // One fwrite; the byte count grows by `size` whether or not the write succeeded.
  bool writeFile(const uint8_t* bytes, size_t size);

  uint32_t calculateFileHeaderSize(const SSGFileHeader* fileHeader) const;
  uint32_t calculateNodeHeaderSize(const SSGNodeHeader* nodeHeader) const;
  // Block lengths: the fixed part plus every array's length.
  uint64_t calculateNodeSize(const SSGQelNodeData* data) const;
  uint64_t calculateSSGNodeSize(const SSGNodeData* buffer) const;
  uint64_t calculateMeshNodeSize(const SSGQelMeshNodeData* data) const;
  uint64_t calculateLightNodeSize(const SSGQelLightNodeData* data) const;
  uint64_t calculateCameraNodeSize(const SSGQelCameraNodeData* data) const;
  uint64_t calculateMaterialNodeSize(const SSGQelMaterialData* data) const;
  uint64_t calculateCollisionBoxNodeSize(const SSGQelCollisionBoxNodeData* data) const;
  uint64_t calculateCollisionSphereNodeSize(const SSGQelCollisionSphereNodeData* data) const;
  uint64_t calculateBillboardNodeSize(const SSGQelBillboardNodeData* data) const;
  uint64_t calculateSkyboxNodeSize(const SSGQelSkyBoxNodeData* data) const;
  uint64_t calculateMarkerNodeSize(const SSGQelMarkerNodeData* data) const;
  uint64_t calculateSkeletonNodeSize(const SSGQelSkeletalMeshNodeData* data) const;
  uint64_t calculateAnimationNodeSize(const SSGQelAnimationMeshNodeData* data) const;
  uint64_t calculateAnimationCameraNodeSize(const SSGQelAnimationCameraNodeData* data) const;

  SGData createFileHeader() const;
  SGData createNodeHeader(const SSGNodeHeader* nodeHeader) const;
  SGData createNodeData(const SSGQelNodeData* data) const;
  // A bare node part followed by one array.
  SGData createSSGNodeData(const SSGQelNodeData* data, const SSGNodeData* buffer) const;
  SGData createMeshData(const SSGQelMeshNodeData* data) const;
  SGData createLightData(const SSGQelLightNodeData* data) const;
  SGData createCameraData(const SSGQelCameraNodeData* data) const;
  SGData createMaterialData(const SSGQelMaterialData* data) const;
  SGData createCollisionBoxData(const SSGQelCollisionBoxNodeData* data) const;
  SGData createCollisionSphereData(const SSGQelCollisionSphereNodeData* data) const;
  SGData createBillboardData(const SSGQelBillboardNodeData* data) const;
  SGData createSkyboxData(const SSGQelSkyBoxNodeData* data) const;
  SGData createMarkerData(const SSGQelMarkerNodeData* data) const;
  SGData createSkeletonData(const SSGQelSkeletalMeshNodeData* data) const;
  SGData createAnimationMeshData(const SSGQelAnimationMeshNodeData* data) const;
  SGData createAnimationCameraData(const SSGQelAnimationCameraNodeData* data) const;

  // Sizes every block and sets offset and length of the written node headers, whose buffers it
  // builds. False when an offset or a length would not fit in 32 bits.
  bool buildFileFormat();
  bool writeFileHeader();
  bool writeNodeHeader();
  bool writeData();
  bool writeFileFormat();

  uint64_t bytesWritten() const { return m_bytesWritten; }

 private:
  // Prints and keeps the message; false for `return`.
  bool fail(const std::string& what);

  QelSceneGraphModel* m_model;
  SGData m_fileHeader;
  std::vector<SGData> m_nodeHeaders;
  std::vector<const SSGNodeHeader*> m_written;  // headers whose blocks are written, in order
  std::unique_ptr<korvex::AtomicFile> m_out;
  FILE* m_file;  // m_out's open file, null when none is open
  static constexpr size_t kFileBufferSize = 1 << 16;
  std::vector<char> m_fileBuffer;  // the open file's stdio buffer
  std::string m_path;
  uint64_t m_bytesWritten;
  int m_writeError;  // errno of the first failed write, 0 when none failed
  std::string m_error;
};
