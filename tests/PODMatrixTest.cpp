#include <gtest/gtest.h>

#include <cmath>

#include "PODMatrix.h"

namespace {

PODMATRIXf Filled(float v) {
  PODMATRIXf m;
  for (float& f : m.f) f = v;
  return m;
}

// Reference product in double, written independently of the code under test.
void ExpectProductIsIdentity(const PODMATRIXf& a, const PODMATRIXf& b, double tolerance) {
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k) sum += double(a.f[4 * r + k]) * double(b.f[4 * k + c]);
      EXPECT_NEAR(sum, r == c ? 1.0 : 0.0, tolerance) << "row " << r << " col " << c;
    }
  }
}

TEST(PODMatrix, MultiplyAppliesTheFirstOperandFirstAndMayAliasIt) {
  PODMATRIXf t, s;
  PODMatrixTranslationF(t, 1, 2, 3);
  PODMatrixScalingF(s, 2, 3, 4);
  // Translate, then scale: the translation row is scaled too.
  PODMatrixMultiplyF(t, t, s);
  const float expected[16] = {2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 2, 6, 12, 1};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(t.f[i], expected[i]) << i;
}

TEST(PODMatrix, PointTransformIncludesTranslation) {
  PODMATRIXf m;
  PODMatrixScalingF(m, 2, 3, 4);
  m.f[12] = 1;
  m.f[13] = 2;
  m.f[14] = 3;
  PODVECTOR3f out;
  PODMatrixVec3TransposeMultipleF(out, PODVECTOR3f{1, 1, 1}, m);
  EXPECT_EQ(out.x, 3.0f);
  EXPECT_EQ(out.y, 5.0f);
  EXPECT_EQ(out.z, 7.0f);
}

TEST(PODMatrix, InverseOfTranslationNegatesIt) {
  PODMATRIXf m, inv;
  PODMatrixTranslationF(m, 1, 2, 3);
  PODMatrixInverseF(inv, m);
  PODMATRIXf expected;
  PODMatrixTranslationF(expected, -1, -2, -3);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(inv.f[i], expected.f[i]) << i;
}

TEST(PODMatrix, InverseLeavesOutputUntouchedForSingularInput) {
  PODMATRIXf out = Filled(7.0f);
  PODMatrixInverseF(out, Filled(0.0f));
  for (float f : out.f) EXPECT_EQ(f, 7.0f);

  // Two equal rows in the 3x3 part.
  PODMATRIXf twoRows;
  PODMatrixIdentityF(twoRows);
  twoRows.f[4] = 1.0f;
  twoRows.f[5] = 0.0f;
  PODMatrixInverseF(out, twoRows);
  for (float f : out.f) EXPECT_EQ(f, 7.0f);

  // In place: the matrix stays as it was.
  PODMATRIXf same = twoRows;
  PODMatrixInverseF(same, same);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(same.f[i], twoRows.f[i]);
}

TEST(PODMatrix, InverseJudgesSingularityRelativeToTheTerms) {
  // det = 1e-18 in absolute terms, but the matrix is perfectly regular.
  PODMATRIXf m, inv = Filled(7.0f);
  PODMatrixScalingF(m, 1e-6f, 1e-6f, 1e-6f);
  PODMatrixInverseF(inv, m);
  EXPECT_NEAR(inv.f[0], 1e6, 1.0);
  EXPECT_NEAR(inv.f[5], 1e6, 1.0);
  EXPECT_NEAR(inv.f[10], 1e6, 1.0);
  EXPECT_EQ(inv.f[1], 0.0f);
  EXPECT_EQ(inv.f[15], 1.0f);
}

TEST(PODMatrix, InverseOfGeneralAffineMatrixComposesToIdentity) {
  // Rotation about an oblique axis, non-uniform scale, translation; column 3 is ignored.
  PODMATRIXf m = {{0.36f, 0.48f, -0.8f, 5.0f, -1.6f, 1.2f, 0.0f, 5.0f, 1.44f, 1.92f, 1.8f, 5.0f,
                   3.0f, -2.0f, 7.0f, 9.0f}};
  PODMATRIXf inv;
  PODMatrixInverseF(inv, m);
  EXPECT_EQ(inv.f[3], 0.0f);
  EXPECT_EQ(inv.f[7], 0.0f);
  EXPECT_EQ(inv.f[11], 0.0f);
  EXPECT_EQ(inv.f[15], 1.0f);
  m.f[3] = m.f[7] = m.f[11] = 0.0f;
  m.f[15] = 1.0f;
  ExpectProductIsIdentity(m, inv, 1e-5);
  ExpectProductIsIdentity(inv, m, 1e-5);
}

TEST(PODMatrix, LerpIsUnclamped) {
  PODVECTOR3f out;
  const PODVECTOR3f a{1, 2, 3}, b{3, 2, 1};
  PODMatrixVec3LerpF(out, a, b, 0.25f);
  EXPECT_EQ(out.x, 1.5f);
  EXPECT_EQ(out.y, 2.0f);
  EXPECT_EQ(out.z, 2.5f);
  PODMatrixVec3LerpF(out, a, b, -1.0f);
  EXPECT_EQ(out.x, -1.0f);
  EXPECT_EQ(out.z, 5.0f);
}

TEST(PODMatrix, NormalizeDividesByLengthAndLeavesZeroAlone) {
  PODQUATERNIONf q{0, 0, 3, 4};
  PODMatrixQuaternionNormalizeF(q);
  EXPECT_FLOAT_EQ(q.z, 0.6f);
  EXPECT_FLOAT_EQ(q.w, 0.8f);
  PODQUATERNIONf zero{0, 0, 0, 0};
  PODMatrixQuaternionNormalizeF(zero);
  EXPECT_EQ(zero.w, 0.0f);
}

TEST(PODMatrix, SlerpOutsideUnitRangeYieldsIdentity) {
  const PODQUATERNIONf a{0, 0, 0.6f, 0.8f}, b{0.6f, 0, 0, 0.8f};
  for (float t : {-0.5f, 1.5f}) {
    PODQUATERNIONf out{9, 9, 9, 9};
    PODMatrixQuaternionSlerpF(out, a, b, t);
    EXPECT_EQ(out.x, 0.0f);
    EXPECT_EQ(out.y, 0.0f);
    EXPECT_EQ(out.z, 0.0f);
    EXPECT_EQ(out.w, 1.0f);
  }
}

TEST(PODMatrix, SlerpInterpolatesAlongTheShortArc) {
  // Identity to 90 degrees about z: halfway is 45 degrees about z.
  const double h = std::acos(-1.0) / 4;  // half of 90 degrees
  const PODQUATERNIONf a{0, 0, 0, 1};
  const PODQUATERNIONf b{0, 0, float(std::sin(h)), float(std::cos(h))};
  PODQUATERNIONf out;
  PODMatrixQuaternionSlerpF(out, a, b, 0.5f);
  EXPECT_NEAR(out.z, std::sin(h / 2), 1e-6);
  EXPECT_NEAR(out.w, std::cos(h / 2), 1e-6);

  // -b is the same rotation: same result.
  const PODQUATERNIONf negB{-b.x, -b.y, -b.z, -b.w};
  PODQUATERNIONf viaNeg;
  PODMatrixQuaternionSlerpF(viaNeg, a, negB, 0.5f);
  EXPECT_NEAR(viaNeg.z, std::sin(h / 2), 1e-6);
  EXPECT_NEAR(viaNeg.w, std::cos(h / 2), 1e-6);

  // q against -q: the same rotation, so q comes back.
  PODQUATERNIONf self;
  PODMatrixQuaternionSlerpF(self, b, negB, 0.3f);
  EXPECT_NEAR(self.z, b.z, 1e-6);
  EXPECT_NEAR(self.w, b.w, 1e-6);
}

TEST(PODMatrix, SlerpAtZeroAngleReturnsFirstQuaternionUnnormalised) {
  const PODQUATERNIONf q{0, 0, 0, 2};  // dot product 4, clamped to 1: angle 0
  PODQUATERNIONf out;
  PODMatrixQuaternionSlerpF(out, q, q, 0.5f);
  EXPECT_EQ(out.w, 2.0f);
  EXPECT_EQ(out.z, 0.0f);
}

TEST(PODMatrix, QuaternionMatrixFollowsTheTableWithoutNormalising) {
  PODMATRIXf m;
  PODMatrixRotationQuaternionF(m, PODQUATERNIONf{0, 0, 0, 1});
  PODMATRIXf id;
  PODMatrixIdentityF(id);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(m.f[i], id.f[i]);

  // (1, 1, 1, 1) has length 2: 1 - 2 - 2 = -3 on the diagonal, 2 - 2 = 0 and 2 + 2 = 4 elsewhere.
  PODMatrixRotationQuaternionF(m, PODQUATERNIONf{1, 1, 1, 1});
  const float expected[16] = {-3, 0, 4, 0, 4, -3, 0, 0, 0, 4, -3, 0, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(m.f[i], expected[i]) << i;
}

}  // namespace
