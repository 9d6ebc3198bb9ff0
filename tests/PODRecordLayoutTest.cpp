// The written-down blocks of the camera, light, material and texture records: each description
// names every tag of its record exactly once, in the order files hold them, and each visitor
// kind meets the members it must.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "PODRecordLayout.h"

namespace {

// Records the tags a description visits, in order, with the kind of each.
struct TagList {
  std::vector<unsigned int> tags;
  std::string kinds;
  std::set<unsigned int> cleared;  // released as the record starts
  template <class T>
  void word(unsigned int tag, T&) {
    add(tag, 'w');
  }
  void real(unsigned int tag, float&) { add(tag, 'r'); }
  template <size_t N>
  void reals(unsigned int tag, float (&)[N]) {
    add(tag, 'R');
  }
  void text(unsigned int tag, char*&, bool needed, bool clear) {
    add(tag, needed ? 'N' : 'n');
    if (clear) cleared.insert(tag);
  }
  void frames(unsigned int tag, float*&, size_t&, unsigned int, bool clear) {
    add(tag, 'f');
    if (clear) cleared.insert(tag);
  }
  void add(unsigned int tag, char kind) {
    tags.push_back(tag);
    kinds += kind;
  }
};

std::vector<unsigned int> Range(unsigned int first, unsigned int last) {
  std::vector<unsigned int> r;
  for (unsigned int t = first; t <= last; ++t) r.push_back(t);
  return r;
}

TEST(PODRecordLayout, EveryTagOfARecordOnceInFileOrder) {
  SPODCamera camera{};
  SPODLight light{};
  SPODMaterial material{};
  SPODTexture texture{};
  TagList c, l, m, t;
  korvex::DescribeCamera(camera, c);
  korvex::DescribeLight(light, l);
  korvex::DescribeMaterial(material, m);
  korvex::DescribeTexture(texture, t);
  const struct {
    const char* name;
    const TagList& list;
    std::vector<unsigned int> tags;
    const char* kinds;
  } cases[] = {
      {"camera", c, Range(PODTag::CamIdxTgt, PODTag::CamAnimFOV), "wrrrf"},
      {"light", l, Range(PODTag::LightIdxTgt, PODTag::LightType), "wRw"},
      // Only name and effect are strings; the name alone is needed for writing.
      {"material", m, Range(PODTag::MatName, PODTag::MatEffectName), "NwrRRRrnn"},
      {"texture", t, {PODTag::TexName}, "N"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    EXPECT_EQ(k.list.tags, k.tags);
    EXPECT_EQ(k.list.kinds, k.kinds);
  }
}

// The members a record start releases are the format's: the camera's FOV table and the
// material's three strings, never the texture's name.
TEST(PODRecordLayout, OnlyTheFormatsMembersAreClearedAsARecordStarts) {
  SPODCamera camera{};
  SPODMaterial material{};
  SPODTexture texture{};
  TagList cleared;
  korvex::DescribeCamera(camera, cleared);
  korvex::DescribeMaterial(material, cleared);
  korvex::DescribeTexture(texture, cleared);
  EXPECT_EQ(cleared.cleared, (std::set<unsigned int>{PODTag::CamAnimFOV, PODTag::MatName, PODTag::MatEffectFile,
                                                     PODTag::MatEffectName}));
}

}  // namespace
