// Conversion of a scene's real numbers between 16.16 fixed point and float.

#include <cmath>
#include <cstdint>
#include <cstring>

#include "pod/PODModel.h"
#include "pod/PODRecordLayout.h"

// Values are converted in place, so source and destination alias the same words: every word
// is moved through memcpy rather than through the typed pointers.
void FixedToFloat(float* dst, const int* src, unsigned int count) {
  if (!dst || !src) return;
  for (unsigned int i = count; i-- > 0;) {
    int32_t fixed;
    memcpy(&fixed, src + i, 4);
    float value = static_cast<float>(fixed) / 65536.0f;
    memcpy(dst + i, &value, 4);
  }
}

void FloatToFixed(int* dst, const float* src, unsigned int count) {
  if (!dst || !src) return;
  for (unsigned int i = count; i-- > 0;) {
    float value;
    memcpy(&value, src + i, 4);
    float scaled = value * 65536.0f;
    // Values outside the 32-bit range saturate and NaN becomes 0: a plain conversion of those
    // would be undefined.
    int32_t fixed;
    if (std::isnan(scaled))
      fixed = 0;
    else if (scaled >= 2147483648.0f)
      fixed = INT32_MAX;
    else if (scaled < -2147483648.0f)
      fixed = INT32_MIN;
    else
      fixed = static_cast<int32_t>(scaled);
    memcpy(dst + i, &fixed, 4);
  }
}

namespace {

// Converts `count` values at p in the direction the flag gives, never past `nBytes` (what the
// array really holds).
void Toggle(float* p, size_t count, size_t nBytes, bool toFloat) {
  if (count > nBytes / 4) count = nBytes / 4;
  if (toFloat)
    FixedToFloat(p, reinterpret_cast<const int*>(p), static_cast<unsigned int>(count));
  else
    FloatToFixed(reinterpret_cast<int*>(p), p, static_cast<unsigned int>(count));
}

// Converts the real numbers of the scene's tables, records included; integers, names, vertex
// data and the matrix channel stay as they are. Each value is converted on its own, so the
// order of the walk does not matter.
struct RealsToggle : korvex::PODFieldVisitor {
  size_t nNumFrame;
  bool toFloat;

  void real(unsigned int, const char*, float& v) { Toggle(&v, 1, 4, toFloat); }
  template <size_t N>
  void reals(unsigned int, const char*, float (&v)[N]) {
    Toggle(v, N, sizeof v, toFloat);
  }
  template <size_t N>
  void older(unsigned int, const char*, float (&v)[N]) {
    Toggle(v, N, sizeof v, toFloat);
  }
  void frames(unsigned int, const char*, float*& p, size_t& bytes, unsigned int perFrame, bool,
              bool converted) {
    if (converted) Toggle(p, nNumFrame * perFrame, bytes, toFloat);
  }
  template <class T>
  void records(unsigned int, const char*, T* array, uint32_t count) {
    for (uint32_t i = 0; array != nullptr && i < count; ++i) korvex::DescribePOD(array[i], *this);
  }
};

}  // namespace

void PODModelToggleFixedPoint(SPODScene& s) {
  RealsToggle toggle{{}, s.nNumFrame, (s.nFlags & 1u) != 0};
  korvex::DescribePOD(s, toggle);
  s.nFlags ^= 1u;
}
