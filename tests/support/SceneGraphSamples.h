#pragma once
// Small scene-graph models for the model, writer and loader suites, and little-endian access to
// file images for checking them independently of the serialiser.

#include <cstdint>
#include <cstring>
#include <vector>

#include "qsn/QelSceneGraphModel.h"

namespace korvex::test {

uint32_t U32At(const std::vector<uint8_t>& bytes, size_t offset);
void PutU32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value);
void PutF32(std::vector<uint8_t>& bytes, size_t offset, float value);

// A malloc'd array of `bytes` bytes holding seed, seed+1, ... (mod 256).
void FillArray(SSGNodeData& buffer, uint32_t type, uint32_t bytes, uint8_t seed);

// Appends a node header (index = the kind's current record count) and a new zero-filled record.
template <class T>
T* AddNode(QelSceneGraphModel& model, ESGName kind, const char* name) {
  SSGNodeHeader* h = SGNewRecord<SSGNodeHeader>();
  h->type = kind;
  std::memcpy(h->name, name, strnlen(name, sizeof h->name));
  h->index = static_cast<int32_t>(model.recordCount(kind));
  model.adoptNodeHeader(h);
  T* r = SGNewRecord<T>();
  model.adoptNode(r, kind);
  return r;
}

// type 1000, version 1, totalNodeNumber = number of node headers, PODFilename = podName.
void SetFileHeader(QelSceneGraphModel& model, const char* podName);

// Gives a mesh part numVertex 3, numFace 1, `sets` texture-coordinate sets and filled arrays.
void FillMesh(SSGQelMeshNodeData& mesh, uint32_t sets, uint8_t seed);

// One record of every kind 2001..2012, each array non-empty and distinct.
void BuildEveryKindModel(QelSceneGraphModel& model);

}  // namespace korvex::test
