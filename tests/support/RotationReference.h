#pragma once
// Rotation matrices worked out from the documented formulas alone (normalisation and the
// quaternion-to-matrix table), for checking evaluated and baked matrices bit for bit without
// calling the math under test.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "pod/PODMatrix.h"

namespace korvex::test {

// q divided by its length: squares summed in float, root and reciprocal in double, each
// component scaled in double and rounded to float.
PODQUATERNIONf ReferenceNormalised(const PODQUATERNIONf& q);

// The rotation table applied to q as it is, in float, each element in the table's order.
PODMATRIXf ReferenceRotation(const PODQUATERNIONf& q);

// Element `index` of a table of matrices stored as raw bytes.
PODMATRIXf MatrixAt(const uint8_t* data, size_t index);

// Success when the two matrices have the same bit pattern element by element; the failure
// lists the elements that differ.
::testing::AssertionResult SameBits(const PODMATRIXf& actual, const PODMATRIXf& expected);

}  // namespace korvex::test
