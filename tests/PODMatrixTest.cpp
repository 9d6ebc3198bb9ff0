#include <gtest/gtest.h>

#include <cmath>

#include "pod/PODMatrix.h"

namespace {

PODMATRIXf Filled(float v) {
  PODMATRIXf m;
  for (float& f : m.f) f = v;
  return m;
}

void ExpectMatrix(const PODMATRIXf& m, const float (&expected)[16]) {
  for (int i = 0; i < 16; ++i) EXPECT_EQ(m.f[i], expected[i]) << "element " << i;
}

void ExpectQuat(const PODQUATERNIONf& q, double x, double y, double z, double w, double tol) {
  EXPECT_NEAR(q.x, x, tol);
  EXPECT_NEAR(q.y, y, tol);
  EXPECT_NEAR(q.z, z, tol);
  EXPECT_NEAR(q.w, w, tol);
}

TEST(PODMatrix, AffineInverse) {
  PODMATRIXf m, inv;
  PODMatrixTranslationF(m, 1, 2, 3);
  PODMatrixInverseF(inv, m);
  ExpectMatrix(inv, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, -1, -2, -3, 1});

  // Singular: the output is left untouched, also when it is the input.
  PODMATRIXf out = Filled(7.0f);
  PODMatrixInverseF(out, Filled(0.0f));
  for (float f : out.f) EXPECT_EQ(f, 7.0f);
  PODMATRIXf twoRows;  // two equal rows in the 3x3 part
  PODMatrixIdentityF(twoRows);
  twoRows.f[4] = 1.0f;
  twoRows.f[5] = 0.0f;
  PODMatrixInverseF(out, twoRows);
  for (float f : out.f) EXPECT_EQ(f, 7.0f);
  PODMATRIXf same = twoRows;
  PODMatrixInverseF(same, same);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(same.f[i], twoRows.f[i]);

  // det = 1e-18 in absolute terms, but the matrix is perfectly regular.
  inv = Filled(7.0f);
  PODMatrixScalingF(m, 1e-6f, 1e-6f, 1e-6f);
  PODMatrixInverseF(inv, m);
  EXPECT_NEAR(inv.f[0], 1e6, 1.0);
  EXPECT_NEAR(inv.f[5], 1e6, 1.0);
  EXPECT_NEAR(inv.f[10], 1e6, 1.0);
  EXPECT_EQ(inv.f[1], 0.0f);
  EXPECT_EQ(inv.f[15], 1.0f);
}

TEST(PODMatrix, Slerp) {
  const PODQUATERNIONf a{0, 0, 0.6f, 0.8f}, b{0.6f, 0, 0, 0.8f};
  PODQUATERNIONf out;
  for (float t : {-0.5f, 1.5f}) {  // outside 0..1: identity
    PODMatrixQuaternionSlerpF(out, a, b, t);
    ExpectQuat(out, 0, 0, 0, 1, 0);
  }
  // Dot product 4, clamped to 1: angle 0, so q1 comes back without normalisation.
  const PODQUATERNIONf twice{0, 0, 0, 2};
  PODMatrixQuaternionSlerpF(out, twice, twice, 0.5f);
  ExpectQuat(out, 0, 0, 0, 2, 0);

  // Identity to 90 degrees about z: halfway is 45 degrees about z, also towards -q.
  const double h = std::acos(-1.0) / 4;
  const PODQUATERNIONf id{0, 0, 0, 1};
  const PODQUATERNIONf q{0, 0, float(std::sin(h)), float(std::cos(h))};
  const PODQUATERNIONf negQ{-q.x, -q.y, -q.z, -q.w};
  PODMatrixQuaternionSlerpF(out, id, q, 0.5f);
  ExpectQuat(out, 0, 0, std::sin(h / 2), std::cos(h / 2), 1e-6);
  PODMatrixQuaternionSlerpF(out, id, negQ, 0.5f);
  ExpectQuat(out, 0, 0, std::sin(h / 2), std::cos(h / 2), 1e-6);
  // q against -q: the same rotation, so q comes back.
  PODMatrixQuaternionSlerpF(out, q, negQ, 0.3f);
  ExpectQuat(out, 0, 0, q.z, q.w, 1e-6);
}

TEST(PODMatrix, QuaternionMatrixFollowsTheTableWithoutNormalising) {
  PODMATRIXf m;
  PODMatrixRotationQuaternionF(m, PODQUATERNIONf{0, 0, 0, 1});
  ExpectMatrix(m, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1});
  // (1, 1, 1, 1) has length 2: 1 - 2 - 2 = -3 on the diagonal, 2 - 2 = 0 and 2 + 2 = 4 elsewhere.
  PODMatrixRotationQuaternionF(m, PODQUATERNIONf{1, 1, 1, 1});
  ExpectMatrix(m, {-3, 0, 4, 0, 4, -3, 0, 0, 0, 4, -3, 0, 0, 0, 0, 1});
}

}  // namespace
