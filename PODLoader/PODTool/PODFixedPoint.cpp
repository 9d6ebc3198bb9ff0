// Conversion of a scene's real numbers between 16.16 fixed point and float.

#include <cmath>
#include <cstdint>
#include <cstring>

#include "PODModel.h"
#include "PODRecordLayout.h"

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

template <size_t N>
void Toggle(float (&v)[N], bool toFloat) {
  Toggle(v, N, sizeof v, toFloat);
}

void Toggle(float& v, bool toFloat) { Toggle(&v, 1, 4, toFloat); }

// Converts the real numbers of a record's description; integers and names stay as they are.
struct RealsToggle {
  size_t nNumFrame;
  bool toFloat;

  template <class T>
  void word(unsigned int, T&) {}
  void real(unsigned int, float& v) { Toggle(v, toFloat); }
  template <size_t N>
  void reals(unsigned int, float (&v)[N]) {
    Toggle(v, toFloat);
  }
  void text(unsigned int, char*&, bool, bool) {}
  void frames(unsigned int, float*& p, size_t& bytes, unsigned int perFrame, bool) {
    Toggle(p, nNumFrame * perFrame, bytes, toFloat);
  }
};

}  // namespace

void PODModelToggleFixedPoint(SPODScene& s) {
  const bool toFloat = (s.nFlags & 1u) != 0;
  const size_t frames = s.nNumFrame;
  RealsToggle toggle{frames, toFloat};
  for (unsigned int i = 0; s.pCamera && i < s.nNumCamera; ++i) korvex::DescribeCamera(s.pCamera[i], toggle);
  for (unsigned int i = 0; s.pLight && i < s.nNumLight; ++i) korvex::DescribeLight(s.pLight[i], toggle);
  for (unsigned int i = 0; s.pNode && i < s.nNumNode; ++i) {
    SPODNode& n = s.pNode[i];
    Toggle(n.pfPosition, toFloat);
    Toggle(n.pfRotation, toFloat);
    Toggle(n.pfScale, toFloat);
    Toggle(n.pfAnimPosition, frames * 3, n.nAnimPositionSize, toFloat);
    Toggle(n.pfAnimRotation, frames * 4, n.nAnimRotationSize, toFloat);
    Toggle(n.pfAnimScale, frames * 7, n.nAnimScaleSize, toFloat);
  }
  for (unsigned int i = 0; s.pMaterial && i < s.nNumMaterial; ++i) korvex::DescribeMaterial(s.pMaterial[i], toggle);
  Toggle(s.pfColourBackground, toFloat);
  Toggle(s.pfColourAmbient, toFloat);
  s.nFlags ^= 1u;
}
