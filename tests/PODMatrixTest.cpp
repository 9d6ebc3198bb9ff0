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

void ExpectMatrix(const PODMATRIXf& m, const float (&expected)[16]) {
  for (int i = 0; i < 16; ++i) EXPECT_EQ(m.f[i], expected[i]) << "element " << i;
}

TEST(PODMatrix, MultiplyAppliesTheFirstOperandFirstAndMayAliasIt) {
  PODMATRIXf t, s;
  PODMatrixTranslationF(t, 1, 2, 3);
  PODMatrixScalingF(s, 2, 3, 4);
  // Translate, then scale: the translation row is scaled too.
  PODMatrixMultiplyF(t, t, s);
  ExpectMatrix(t, {2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 2, 6, 12, 1});
  // A point transform includes the translation: (1,1,1) -> (2+2, 3+6, 4+12).
  PODVECTOR3f out;
  PODMatrixVec3TransposeMultipleF(out, PODVECTOR3f{1, 1, 1}, t);
  EXPECT_EQ(out.x, 4.0f);
  EXPECT_EQ(out.y, 9.0f);
  EXPECT_EQ(out.z, 16.0f);
}

TEST(PODMatrix, InverseOfTranslationNegatesIt) {
  PODMATRIXf m, inv;
  PODMatrixTranslationF(m, 1, 2, 3);
  PODMatrixInverseF(inv, m);
  ExpectMatrix(inv, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, -1, -2, -3, 1});
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
  m.f[3] = m.f[7] = m.f[11] = 0.0f;
  m.f[15] = 1.0f;
  ExpectProductIsIdentity(m, inv, 1e-5);
  ExpectProductIsIdentity(inv, m, 1e-5);
}

TEST(PODMatrix, LerpIsUnclampedAndNormalizeLeavesZeroAlone) {
  PODVECTOR3f out;
  PODMatrixVec3LerpF(out, PODVECTOR3f{1, 2, 3}, PODVECTOR3f{3, 2, 1}, -1.0f);
  EXPECT_EQ(out.x, -1.0f);
  EXPECT_EQ(out.y, 2.0f);
  EXPECT_EQ(out.z, 5.0f);
  PODQUATERNIONf q{0, 0, 3, 4};
  PODMatrixQuaternionNormalizeF(q);
  EXPECT_FLOAT_EQ(q.z, 0.6f);
  EXPECT_FLOAT_EQ(q.w, 0.8f);
  PODQUATERNIONf zero{0, 0, 0, 0};
  PODMatrixQuaternionNormalizeF(zero);
  EXPECT_EQ(zero.w, 0.0f);
}

void ExpectQuat(const PODQUATERNIONf& q, double x, double y, double z, double w, double tol) {
  EXPECT_NEAR(q.x, x, tol);
  EXPECT_NEAR(q.y, y, tol);
  EXPECT_NEAR(q.z, z, tol);
  EXPECT_NEAR(q.w, w, tol);
}

TEST(PODMatrix, SlerpOutsideUnitRangeGivesIdentityAndZeroAngleGivesFirstAsIs) {
  const PODQUATERNIONf a{0, 0, 0.6f, 0.8f}, b{0.6f, 0, 0, 0.8f};
  PODQUATERNIONf out;
  for (float t : {-0.5f, 1.5f}) {
    PODMatrixQuaternionSlerpF(out, a, b, t);
    ExpectQuat(out, 0, 0, 0, 1, 0);
  }
  // Dot product 4, clamped to 1: angle 0, so q1 comes back without normalisation.
  const PODQUATERNIONf twice{0, 0, 0, 2};
  PODMatrixQuaternionSlerpF(out, twice, twice, 0.5f);
  ExpectQuat(out, 0, 0, 0, 2, 0);
}

TEST(PODMatrix, SlerpInterpolatesAlongTheShortArc) {
  // Identity to 90 degrees about z: halfway is 45 degrees about z, also towards -b.
  const double h = std::acos(-1.0) / 4;  // half of 90 degrees
  const PODQUATERNIONf a{0, 0, 0, 1};
  const PODQUATERNIONf b{0, 0, float(std::sin(h)), float(std::cos(h))};
  const PODQUATERNIONf negB{-b.x, -b.y, -b.z, -b.w};
  PODQUATERNIONf out;
  PODMatrixQuaternionSlerpF(out, a, b, 0.5f);
  ExpectQuat(out, 0, 0, std::sin(h / 2), std::cos(h / 2), 1e-6);
  PODMatrixQuaternionSlerpF(out, a, negB, 0.5f);
  ExpectQuat(out, 0, 0, std::sin(h / 2), std::cos(h / 2), 1e-6);
  // q against -q: the same rotation, so q comes back.
  PODMatrixQuaternionSlerpF(out, b, negB, 0.3f);
  ExpectQuat(out, 0, 0, b.z, b.w, 1e-6);
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
