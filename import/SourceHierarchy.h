#pragma once
// The node tree of an imported scene as a flat table in depth-first order (every parent before
// its children, children in their order), with a lookup by name.

#include <assimp/scene.h>
#include <assimp/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "import/PODConventions.h"

namespace korvex::podimport {

// The text of a library string, never read past its buffer.
inline std::string NameOf(const aiString& name) {
  const size_t length = name.length < MAXLEN ? name.length : MAXLEN - 1;
  return std::string(name.data, length);
}

struct SourceNode {
  const aiNode* node = nullptr;
  int32_t parent = -1;  // index in the table; -1 for the root
  uint32_t childCount = 0;
  LocalTransform rest;  // the node's own transform, split
};

class SourceHierarchy {
 public:
  // Walks the tree without recursion. A node met a second time (a file whose tree is not a tree)
  // is left out with everything under it; false when more than `maxNodes` nodes are met.
  bool Build(const aiNode* root, size_t maxNodes);

  const std::vector<SourceNode>& Nodes() const { return m_nodes; }
  const SourceNode& operator[](size_t i) const { return m_nodes[i]; }
  size_t Size() const { return m_nodes.size(); }
  // The first node of that name in table order, or -1.
  int32_t Find(const aiString& name) const;
  uint32_t RevisitedNodes() const { return m_revisited; }

 private:
  std::vector<SourceNode> m_nodes;
  std::unordered_map<std::string, int32_t> m_byName;
  uint32_t m_revisited = 0;
};

}  // namespace korvex::podimport
