#include "import/SourceHierarchy.h"

#include <unordered_set>
#include <utility>

namespace korvex::podimport {

bool SourceHierarchy::Build(const aiNode* root, size_t maxNodes) {
  m_nodes.clear();
  m_byName.clear();
  m_revisited = 0;
  if (root == nullptr) return true;
  std::unordered_set<const aiNode*> seen;
  std::vector<std::pair<const aiNode*, int32_t>> stack{{root, -1}};
  while (!stack.empty()) {
    const aiNode* node = stack.back().first;
    const int32_t parent = stack.back().second;
    stack.pop_back();
    if (node == nullptr) continue;
    if (!seen.insert(node).second) {
      ++m_revisited;
      continue;
    }
    if (m_nodes.size() >= maxNodes) return false;
    SourceNode entry;
    entry.node = node;
    entry.parent = parent;
    entry.rest = DecomposeTransform(node->mTransformation);
    const int32_t index = static_cast<int32_t>(m_nodes.size());
    m_nodes.push_back(entry);
    if (parent >= 0) ++m_nodes[parent].childCount;
    m_byName.emplace(NameOf(node->mName), index);
    if (node->mChildren != nullptr) {
      for (unsigned int c = node->mNumChildren; c-- > 0;)
        stack.emplace_back(node->mChildren[c], index);
    }
  }
  return true;
}

int32_t SourceHierarchy::Find(const aiString& name) const {
  const auto it = m_byName.find(NameOf(name));
  return it == m_byName.end() ? -1 : it->second;
}

}  // namespace korvex::podimport
