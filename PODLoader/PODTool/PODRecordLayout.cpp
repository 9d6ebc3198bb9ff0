// What the record tables say about tags as such: the field each tag fills and the blocks each
// container expects, gathered once by walking the tables over empty records.

#include "pod/PODRecordLayout.h"

#include <algorithm>
#include <string>
#include <vector>

#include "pod/PODReadReport.h"

namespace korvex {

void PODRecordArraysRelease::stream(const PODVertexStream&, CPODData& d, bool withData) {
  if (onlyClearedFirst || (!withData && d.nDataSize == 0)) return;
  // An interleaved mesh's descriptor owns an array only when it was read as one before the
  // interleaved block came: its size says so.
  if (!d.bBorrowed) std::free(d.pData);
  d.pData = nullptr;
  d.bBorrowed = false;
  d.nDataSize = 0;
}

namespace {

enum class Presence { Required, Optional, Repeatable };

struct TagEntry {
  uint32_t tag;
  const char* field;
  EPODRecord inside;
  Presence presence;
};

// Lists every entry of one table.
struct TagCollector : PODFieldVisitor {
  std::vector<TagEntry>& out;
  EPODRecord inside;

  void add(unsigned int tag, const char* name, Presence p) { out.push_back({tag, name, inside, p}); }
  template <class... A> void word(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Required); }
  template <class... A> void real(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Required); }
  template <class... A> void reals(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Required); }
  template <class... A> void count(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Required); }
  template <class... A> void uvCount(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Required); }
  template <class... A> void older(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Optional); }
  template <class... A> void array(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Optional); }
  template <class... A> void frames(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Optional); }
  template <class... A> void payload(unsigned int t, const char* n, A&&...) { add(t, n, Presence::Optional); }
  void text(unsigned int t, const char* n, char*&, bool needed, bool) {
    add(t, n, needed ? Presence::Required : Presence::Optional);
  }
  template <class T>
  void records(unsigned int t, const char* n, T*&, uint32_t) { add(t, n, Presence::Repeatable); }
  void stream(const PODVertexStream& s, CPODData&, bool) {
    add(s.tag, s.name, s.tag == PODTag::MeshUVW ? Presence::Repeatable : Presence::Required);
  }
};

template <class K>
void Collect(std::vector<TagEntry>& out) {
  K record{};
  CPODData oneSet{};
  if constexpr (std::is_same<K, SPODMesh>::value) {
    // One texture-coordinate set, so that its tag is listed.
    record.psUVW = &oneSet;
    record.nUVWCount = record.nNumUVW = 1;
  }
  TagCollector c{{}, out, PODLayout<K>::kRecord};
  DescribePOD(record, c);
}

struct Catalogue {
  std::vector<TagEntry> entries;
  PODBlockSet sets[9];

  Catalogue() {
    // The top level is not a record: its three blocks are read and written on their own.
    entries = {{PODTag::FormatVersion, "format version", EPODRecord::File, Presence::Required},
               {PODTag::Scene, "scene", EPODRecord::File, Presence::Required},
               {PODTag::ExportOptions, "export options", EPODRecord::File, Presence::Optional}};
    Collect<SPODScene>(entries);
    Collect<SPODCamera>(entries);
    Collect<SPODLight>(entries);
    Collect<SPODMaterial>(entries);
    Collect<SPODMesh>(entries);
    Collect<SPODNode>(entries);
    Collect<SPODTexture>(entries);
    Collect<CPODData>(entries);
    for (size_t k = 0; k < 9; ++k) {
      const auto kind = static_cast<EPODRecord>(k);
      unsigned int first = ~0u, last = 0;
      for (const TagEntry& e : entries) {
        if (e.inside != kind) continue;
        first = std::min(first, e.tag);
        last = std::max(last, e.tag);
      }
      PODBlockSet& set = sets[k];
      set = {first, last - first + 1, 0, 0};
      for (const TagEntry& e : entries) {
        if (e.inside != kind) continue;
        const uint32_t bit = 1u << (e.tag - first);
        if (e.presence == Presence::Required) set.required |= bit;
        if (e.presence == Presence::Repeatable) set.repeatable |= bit;
      }
    }
    // Which of a node's flags and channels it must hold depends on its layout: the node reader
    // checks those itself.
    sets[static_cast<size_t>(EPODRecord::Node)].required &= 0xFu;
  }
};

const Catalogue& TheCatalogue() {
  static const Catalogue catalogue;
  return catalogue;
}

}  // namespace

const PODBlockSet& PODBlocksOf(EPODRecord kind) {
  return TheCatalogue().sets[static_cast<size_t>(kind)];
}

}  // namespace korvex

const char* PODTagField(uint32_t tag) {
  for (const korvex::TagEntry& e : korvex::TheCatalogue().entries) {
    if (e.tag == tag) return e.field;
  }
  return nullptr;
}

std::string PODBlockName(uint32_t tag) {
  const char* field = PODTagField(tag);
  return "block " + std::to_string(tag) + (field ? std::string(" (") + field + ")" : "");
}
