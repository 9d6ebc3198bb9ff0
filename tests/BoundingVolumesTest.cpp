// Bounding sphere and box of a position stream: values from hand arithmetic, and the assertions
// that guard the stream format.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "convert/BoundingVolumes.h"

namespace {

// A position stream over `floats` (3 a vertex, stride 12), not owning them.
CPODData Positions(std::vector<float>& floats) {
  CPODData d = CPODData();
  d.eType = EPODDataFloat;
  d.n = 3;
  d.nStride = 12;
  d.pData = reinterpret_cast<uint8_t*>(floats.data());
  d.nDataSize = floats.size() * 4;
  return d;
}

PODMATRIXf Identity() {
  PODMATRIXf m = {};
  m.f[0] = m.f[5] = m.f[10] = m.f[15] = 1.0f;
  return m;
}

TEST(BoundingVolumes, TwoPointsUnderTheIdentity) {
  std::vector<float> p = {0, 0, 0, 2, 0, 0};
  CPODData d = Positions(p);
  PODMATRIXf m = Identity();
  float c[3], r = -1;
  ASSERT_TRUE(CreateBoundingSphere(&m, &d, 2, c, &r));
  EXPECT_EQ(c[0], 1.0f);
  EXPECT_EQ(c[1], 0.0f);
  EXPECT_EQ(c[2], 0.0f);
  EXPECT_EQ(r, 1.0f);

  float bc[3], mn[3], mx[3];
  ASSERT_TRUE(CreateBoundingAABB(&m, &d, 2, bc, mn, mx));
  EXPECT_EQ(std::vector<float>(mn, mn + 3), (std::vector<float>{0, 0, 0}));
  EXPECT_EQ(std::vector<float>(mx, mx + 3), (std::vector<float>{2, 0, 0}));
  EXPECT_EQ(std::vector<float>(bc, bc + 3), (std::vector<float>{1, 0, 0}));
}

// The assertion line: expression, function and source name.
std::string Assertion(const char* function, const char* expression) {
  std::string escaped;
  for (const char* e = expression; *e; ++e) {
    if (std::strchr(".[]()*+?{}|^$\\", *e)) escaped += '\\';
    escaped += *e;
  }
  return std::string("PODLoader/SceneGraphConverter:[0-9]+: ") + function + ": Assertion `" +
         escaped + "' failed";
}

TEST(BoundingVolumesDeathTest, PositionsMustBeThreeFloatsAtStride12) {
  std::vector<float> p = {0, 0, 0};
  float c[3], r, mn[3], mx[3];
  CPODData d = Positions(p);
  d.eType = EPODDataInt32;
  EXPECT_DEATH(CreateBoundingSphere(nullptr, &d, 1, c, &r),
               Assertion("CreateBoundingSphere", "vertex->eType == EPODDataFloat"));
  d = Positions(p);
  d.n = 4;
  EXPECT_DEATH(CreateBoundingAABB(nullptr, &d, 1, c, mn, mx),
               Assertion("CreateBoundingAABB", "vertex->n == 3"));
  d = Positions(p);
  d.nStride = 16;
  // Checked even when there is nothing to read.
  EXPECT_DEATH(CreateBoundingSphere(nullptr, &d, 0, c, &r),
               Assertion("CreateBoundingSphere", "vertex->nStride == 12"));
  EXPECT_DEATH(CreateBoundingAABB(nullptr, nullptr, 0, c, mn, mx),
               Assertion("CreateBoundingAABB", "vertex"));
}

TEST(BoundingVolumesDeathTest, NaNPositionFailsTheBoxOrder) {
  std::vector<float> p = {std::numeric_limits<float>::quiet_NaN(), 0, 0};
  CPODData d = Positions(p);
  float c[3], mn[3], mx[3];
  EXPECT_DEATH(CreateBoundingAABB(nullptr, &d, 1, c, mn, mx),
               Assertion("CreateBoundingAABB", "mMin.x <= psV2->x"));
}

}  // namespace
