// Bounding sphere and box of a position stream: values from hand arithmetic, the running-mean
// order of the centre, and the assertions that guard the stream format.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "BoundingVolumes.h"

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

TEST(BoundingVolumes, WithoutMatrixPositionsAreTakenAsStored) {
  std::vector<float> p = {-0.0f, 5, 7};
  CPODData d = Positions(p);
  float c[3], mn[3], mx[3];
  ASSERT_TRUE(CreateBoundingAABB(nullptr, &d, 1, c, mn, mx));
  EXPECT_TRUE(std::signbit(mn[0]));  // stored -0; through the identity it would be 0 + (-0) = +0
  PODMATRIXf m = Identity();
  ASSERT_TRUE(CreateBoundingAABB(&m, &d, 1, c, mn, mx));
  EXPECT_FALSE(std::signbit(mn[0]));
}

TEST(BoundingVolumes, CentreIsARunningMeanInSinglePrecision) {
  // The running mean c_k = v_k / (k + 1) + c_(k-1) * (k / (k + 1)) rounds differently from the
  // plain mean; this set shows the difference in the last bit.
  std::vector<float> p = {0.1f, 0, 0, 0.7f, 0, 0, 0.3f, 0, 0, 1e-3f, 0, 0, 5.3f, 0, 0};
  float running = 0.0f;
  for (int k = 0; k < 5; ++k) {
    const float t = float(k), w = 1.0f + t;
    running = p[3 * k] / w + running * (t / w);
  }
  float sum = 0.0f;
  for (int k = 0; k < 5; ++k) sum += p[3 * k];
  ASSERT_NE(running, sum / 5.0f) << "pick values whose two means differ";

  CPODData d = Positions(p);
  float c[3], r;
  ASSERT_TRUE(CreateBoundingSphere(nullptr, &d, 5, c, &r));
  EXPECT_EQ(c[0], running);
  // The farthest point is 5.3; the radius is its distance along x.
  EXPECT_EQ(r, std::sqrt((5.3f - running) * (5.3f - running)));
}

TEST(BoundingVolumes, NoVerticesWritesNothing) {
  std::vector<float> p;
  CPODData d = Positions(p);
  float c[3] = {7, 7, 7}, r = 7, mn[3] = {7, 7, 7}, mx[3] = {7, 7, 7};
  EXPECT_FALSE(CreateBoundingSphere(nullptr, &d, 0, c, &r));
  EXPECT_FALSE(CreateBoundingAABB(nullptr, &d, 0, c, mn, mx));
  EXPECT_EQ(c[0], 7.0f);
  EXPECT_EQ(r, 7.0f);
  EXPECT_EQ(mn[2], 7.0f);
  EXPECT_EQ(mx[1], 7.0f);
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
