#include "support/RotationReference.h"

#include <cmath>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace korvex::test {

PODQUATERNIONf ReferenceNormalised(const PODQUATERNIONf& q) {
  const float sum = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w;
  const double length = std::sqrt(static_cast<double>(sum));
  if (length == 0.0) return q;
  const double inverse = 1.0 / length;
  return PODQUATERNIONf{static_cast<float>(q.x * inverse), static_cast<float>(q.y * inverse),
                        static_cast<float>(q.z * inverse), static_cast<float>(q.w * inverse)};
}

PODMATRIXf ReferenceRotation(const PODQUATERNIONf& q) {
  const float x = q.x, y = q.y, z = q.z, w = q.w;
  const float two = 2.0f, one = 1.0f;
  return PODMATRIXf{{one - two * y * y - two * z * z, two * x * y - two * z * w,
                     two * x * z + two * y * w, 0.0f,
                     two * x * y + two * z * w, one - two * x * x - two * z * z,
                     two * y * z - two * x * w, 0.0f,
                     two * x * z - two * y * w, two * y * z + two * x * w,
                     one - two * x * x - two * y * y, 0.0f,
                     0.0f, 0.0f, 0.0f, 1.0f}};
}

PODMATRIXf MatrixAt(const uint8_t* data, size_t index) {
  PODMATRIXf m;
  std::memcpy(m.f, data + sizeof m.f * index, sizeof m.f);
  return m;
}

::testing::AssertionResult SameBits(const PODMATRIXf& actual, const PODMATRIXf& expected) {
  std::ostringstream differences;
  differences << std::setprecision(9);
  for (int e = 0; e < 16; ++e) {
    uint32_t a, b;
    std::memcpy(&a, &actual.f[e], 4);
    std::memcpy(&b, &expected.f[e], 4);
    if (a != b) {
      differences << " [" << e << "] " << actual.f[e] << " (0x" << std::hex << a << ") != "
                  << expected.f[e] << " (0x" << b << ")" << std::dec;
    }
  }
  if (differences.str().empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "elements differ:" << differences.str();
}

}  // namespace korvex::test
