// Bounding sphere and box of a position stream: values from hand arithmetic, and the assertions
// that guard the stream format.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

// The sphere and box as the documented loops form them, one vertex after the other.
struct Volumes {
  float sphere[4];  // centre, radius
  float box[9];     // centre, min, max
};

Volumes OneAfterTheOther(const PODMATRIXf* m, const std::vector<float>& p) {
  std::vector<float> v;
  for (size_t k = 0; k < p.size(); k += 3) {
    const float x = p[k], y = p[k + 1], z = p[k + 2];
    if (m == nullptr) {
      v.insert(v.end(), {x, y, z});
      continue;
    }
    for (int c = 0; c < 3; ++c)
      v.push_back(m->f[12 + c] + (x * m->f[c] + y * m->f[4 + c] + z * m->f[8 + c]));
  }
  const size_t n = v.size() / 3;
  Volumes out = {};
  float c[3] = {0, 0, 0};
  for (size_t k = 0; k < n; ++k) {
    const float t = float(k), w = 1.0f + t;
    for (int i = 0; i < 3; ++i) c[i] = v[3 * k + i] / w + c[i] * (t / w);
  }
  float mx2 = 0;
  for (size_t k = 0; k < n; ++k) {
    const float dx = v[3 * k] - c[0], dy = v[3 * k + 1] - c[1], dz = v[3 * k + 2] - c[2];
    const float d2 = dz * dz + (dx * dx + dy * dy);
    if (d2 > mx2) mx2 = d2;
  }
  out.sphere[0] = c[0], out.sphere[1] = c[1], out.sphere[2] = c[2];
  out.sphere[3] = std::sqrt(mx2);
  float* mn = out.box + 3;
  float* mx = out.box + 6;
  for (size_t k = 0; k < n; ++k) {
    for (int i = 0; i < 3; ++i) {
      const float e = v[3 * k + i];
      if (k == 0 || e < mn[i]) mn[i] = e;
      if (k == 0 || e > mx[i]) mx[i] = e;
    }
  }
  for (int i = 0; i < 3; ++i) out.box[i] = (mn[i] + mx[i]) / 2.0f;
  return out;
}

// The volumes are computed several vertices at a time; the results must be those of the loops
// above to the bit, whatever the count (tails), the order of equal values and the signs of zeros
// (an extreme of zero keeps the sign of the first zero met).
TEST(BoundingVolumes, SeveralVerticesAtATimeGiveTheOneAfterTheOtherResultToTheBit) {
  PODMATRIXf turned = Identity();  // mirrors x, moves by -0 so that zeros keep their signs
  turned.f[0] = -1.0f;
  turned.f[9] = 0.5f;
  turned.f[12] = turned.f[13] = turned.f[14] = -0.0f;
  PODMATRIXf identity = Identity();
  struct Case {
    const char* what;
    std::vector<float> pool;  // the values positions are drawn from
  };
  const Case cases[] = {
      {"mixed signs", {-0.0f, 0.0f, 1.5f, -2.25f, 3.0f, 0.1f, -7.0f}},
      {"nothing above zero", {-0.0f, 0.0f, -1.0f, -2.5f}},
      {"nothing below zero", {0.0f, -0.0f, 1.0f, 2.5f}},
      {"zeros only", {0.0f, -0.0f}},
  };
  uint32_t seed = 12345;
  for (const Case& c : cases) {
    for (int count : {1, 3, 4, 5, 8, 11, 64, 203}) {
      for (int order = 0; order < 4; ++order) {
        std::vector<float> p;
        for (int i = 0; i < 3 * count; ++i) {
          seed = seed * 1664525u + 1013904223u;
          p.push_back(c.pool[(seed >> 16) % c.pool.size()]);
        }
        CPODData d = Positions(p);
        for (PODMATRIXf* m : {static_cast<PODMATRIXf*>(nullptr), &identity, &turned}) {
          SCOPED_TRACE(testing::Message() << c.what << ", " << count << " vertices, draw " << order
                                          << (m == nullptr ? ", as stored"
                                                           : m == &identity ? ", identity"
                                                                            : ", mirrored"));
          const Volumes expected = OneAfterTheOther(m, p);
          Volumes got;
          ASSERT_TRUE(CreateBoundingSphere(m, &d, count, got.sphere, &got.sphere[3]));
          ASSERT_TRUE(CreateBoundingAABB(m, &d, count, got.box, got.box + 3, got.box + 6));
          EXPECT_EQ(std::memcmp(got.sphere, expected.sphere, sizeof got.sphere), 0);
          for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(std::signbit(got.box[i]), std::signbit(expected.box[i])) << i;
            EXPECT_EQ(got.box[i], expected.box[i]) << i;
          }
          // Both in one go: the same bits.
          Volumes both;
          std::memset(&both, 0x7F, sizeof both);
          const BoundingVolumeResult made = CreateBoundingVolumes(
              m, &d, count, both.sphere, &both.sphere[3], both.box, both.box + 3, both.box + 6);
          EXPECT_TRUE(made.sphere && made.box);
          EXPECT_EQ(std::memcmp(&both, &got, sizeof both), 0);
          // Kept in object space whatever the world matrix: the identity's bits (zeros of the
          // stream turn positive through it).
          if (m == nullptr) continue;
          // Made ahead, on any thread: the same bits, from four positions on.
          BoundingVolumeValues ahead;
          ASSERT_EQ(TryBoundingVolumes(false, *m, d, count, ahead), count >= 4);
          if (count >= 4) {
            EXPECT_EQ(std::memcmp(ahead.sphereCenter, both.sphere, sizeof both.sphere), 0);
            EXPECT_EQ(std::memcmp(ahead.boxCenter, both.box, sizeof both.box), 0);
          }
          const Volumes object = OneAfterTheOther(&identity, p);
          Volumes kept;
          std::memset(&kept, 0x7F, sizeof kept);
          const BoundingVolumeResult madeKept = CreateObjectSpaceVolumes(
              m, &d, count, kept.sphere, &kept.sphere[3], kept.box, kept.box + 3, kept.box + 6);
          EXPECT_TRUE(madeKept.sphere && madeKept.box);
          EXPECT_EQ(std::memcmp(kept.sphere, object.sphere, sizeof kept.sphere), 0);
          for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(std::signbit(kept.box[i]), std::signbit(object.box[i])) << i;
            EXPECT_EQ(kept.box[i], object.box[i]) << i;
          }
          ASSERT_EQ(TryBoundingVolumes(true, *m, d, count, ahead), count >= 4);
          if (count >= 4) {
            EXPECT_EQ(std::memcmp(ahead.sphereCenter, kept.sphere, sizeof kept.sphere), 0);
            EXPECT_EQ(std::memcmp(ahead.boxCenter, kept.box, sizeof kept.box), 0);
          }
        }
      }
    }
  }
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
  // Both volumes at once fail as the sphere, which comes first, also when the world volumes are
  // only checked.
  EXPECT_DEATH(CreateBoundingVolumes(nullptr, &d, 1, c, &r, c, mn, mx),
               Assertion("CreateBoundingSphere", "vertex->nStride == 12"));
  PODMATRIXf world = Identity();
  EXPECT_DEATH(CreateObjectSpaceVolumes(&world, &d, 1, c, &r, c, mn, mx),
               Assertion("CreateBoundingSphere", "vertex->nStride == 12"));
}

TEST(BoundingVolumes, NothingToBoundIsTwoFalseResultsAndNoWrites) {
  std::vector<float> p = {1, 2, 3};
  CPODData d = Positions(p);
  float out[13];
  std::fill(out, out + 13, 5.0f);
  PODMATRIXf world = Identity();
  for (int count : {0, -4}) {
    for (bool objectSpace : {false, true}) {
      const BoundingVolumeResult made =
          objectSpace ? CreateObjectSpaceVolumes(&world, &d, count, out, out + 3, out + 4, out + 7, out + 10)
                      : CreateBoundingVolumes(nullptr, &d, count, out, out + 3, out + 4, out + 7, out + 10);
      EXPECT_FALSE(made.sphere);
      EXPECT_FALSE(made.box);
    }
  }
  for (float f : out) EXPECT_EQ(f, 5.0f);
}

TEST(BoundingVolumesDeathTest, NaNPositionFailsTheBoxOrder) {
  // The first check that fails names the component; wherever the NaN stands (alone, inside a
  // group of four, in the vertices after the last whole group).
  struct Case {
    int count, vertex, component;
    const char* expression;
  };
  const Case cases[] = {{1, 0, 0, "mMin.x <= psV2->x"},
                        {9, 5, 1, "mMin.y <= psV2->y"},
                        {6, 5, 2, "mMin.z <= psV2->z"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expression);
    std::vector<float> p(3 * size_t(c.count), 1.0f);
    p[3 * size_t(c.vertex) + size_t(c.component)] = std::numeric_limits<float>::quiet_NaN();
    CPODData d = Positions(p);
    float ctr[3], mn[3], mx[3];
    EXPECT_DEATH(CreateBoundingAABB(nullptr, &d, c.count, ctr, mn, mx),
                 Assertion("CreateBoundingAABB", c.expression));
    float sc[3], r;
    EXPECT_DEATH(CreateBoundingVolumes(nullptr, &d, c.count, sc, &r, ctr, mn, mx),
                 Assertion("CreateBoundingAABB", c.expression));
  }
}

TEST(BoundingVolumesDeathTest, ObjectSpaceVolumesFailFirstWhereTheWorldBoxWould) {
  // Finite positions: a NaN comes only from a matrix, the world's (an infinite scale times a zero
  // coordinate) or the identity's (a zero times an infinite coordinate). The world box, formed
  // first, fails first; the object-space box fails only when the world box holds.
  struct Case {
    const char* what;
    int count, vertex;
    float world0, coordinate;  // the world's x scale; x of `vertex` (1 elsewhere)
    const char* expression;
  };
  const float inf = std::numeric_limits<float>::infinity();
  const Case cases[] = {
      {"world NaN in a group of four", 8, 6, inf, 0.0f, "mMin.x <= psV2->x"},
      {"world NaN after the last group", 7, 6, inf, 0.0f, "mMin.x <= psV2->x"},
      {"world NaN, fewer than four", 3, 2, inf, 0.0f, "mMin.x <= psV2->x"},
      {"object-space NaN only", 9, 3, 1.0f, inf, "mMin.y <= psV2->y"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<float> p(3 * size_t(c.count), 1.0f);
    p[3 * size_t(c.vertex)] = c.coordinate;
    CPODData d = Positions(p);
    PODMATRIXf world = Identity();
    world.f[0] = c.world0;
    if (c.coordinate == inf) world.f[1] = world.f[2] = 1.0f;  // the world's y and z stay clear
    float sc[3], r, ctr[3], mn[3], mx[3];
    EXPECT_DEATH(CreateObjectSpaceVolumes(&world, &d, c.count, sc, &r, ctr, mn, mx),
                 Assertion("CreateBoundingAABB", c.expression));
  }
}

// Volumes made ahead are only those their functions make without failing: whatever would fail a
// check (or reads beyond the stream) is left to the functions, and trying it ends nothing.
TEST(BoundingVolumes, TryingLeavesToTheFunctionsWhatTheyFailOn) {
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    const char* what;
    bool objectSpace;
    int count;
    float world0, x5;           // the matrix's x scale; x of vertex 5 (1 elsewhere)
    void (*damage)(CPODData&);  // the stream as described
  };
  const Case cases[] = {
      {"a NaN position", false, 9, 1.0f, std::numeric_limits<float>::quiet_NaN(), nullptr},
      {"a NaN through the matrix", false, 9, inf, 0.0f, nullptr},
      {"a NaN through the world matrix only", true, 9, inf, 0.0f, nullptr},
      {"a NaN kept in object space only", true, 9, 1.0f, inf, nullptr},
      {"fewer than four positions", false, 3, 1.0f, 1.0f, nullptr},
      {"four floats a position", false, 9, 1.0f, 1.0f, [](CPODData& d) { d.n = 4; }},
      {"a stride of 16", false, 9, 1.0f, 1.0f, [](CPODData& d) { d.nStride = 16; }},
      {"integers", false, 9, 1.0f, 1.0f, [](CPODData& d) { d.eType = EPODDataInt32; }},
      {"fewer positions held than asked for", false, 9, 1.0f, 1.0f,
       [](CPODData& d) { d.nDataSize -= 4; }},
      {"no array", false, 9, 1.0f, 1.0f, [](CPODData& d) { d.pData = nullptr; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<float> p(27, 1.0f);
    if (c.count > 5) p[15] = c.x5;
    CPODData d = Positions(p);
    if (c.damage) c.damage(d);
    PODMATRIXf m = Identity();
    m.f[0] = c.world0;
    m.f[1] = m.f[2] = c.x5 == inf ? 1.0f : 0.0f;  // an infinite x reaches every world axis
    BoundingVolumeValues values;
    EXPECT_FALSE(TryBoundingVolumes(c.objectSpace, m, d, c.count, values));
  }
  // The same stream, whole and sound: made.
  std::vector<float> p(27, 1.0f);
  BoundingVolumeValues values;
  EXPECT_TRUE(TryBoundingVolumes(true, Identity(), Positions(p), 9, values));
  EXPECT_EQ(values.sphereRadius, 0.0f);
}

}  // namespace
