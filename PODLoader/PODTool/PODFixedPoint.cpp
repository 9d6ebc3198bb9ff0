// Conversion of a scene's real numbers between 16.16 fixed point and float.

#include <cmath>
#include <cstdint>
#include <cstring>

#include "PODModel.h"

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

}  // namespace

void PODModelToggleFixedPoint(SPODScene& s) {
  const bool toFloat = (s.nFlags & 1u) != 0;
  const size_t frames = s.nNumFrame;
  for (unsigned int i = 0; s.pCamera && i < s.nNumCamera; ++i) {
    SPODCamera& c = s.pCamera[i];
    Toggle(c.fFOV, toFloat);
    Toggle(c.fFar, toFloat);
    Toggle(c.fNear, toFloat);
    Toggle(c.pfAnimFOV, frames, c.nAnimFOVSize, toFloat);
  }
  for (unsigned int i = 0; s.pLight && i < s.nNumLight; ++i) Toggle(s.pLight[i].pfColour, toFloat);
  for (unsigned int i = 0; s.pNode && i < s.nNumNode; ++i) {
    SPODNode& n = s.pNode[i];
    Toggle(n.pfPosition, toFloat);
    Toggle(n.pfRotation, toFloat);
    Toggle(n.pfScale, toFloat);
    Toggle(n.pfAnimPosition, frames * 3, n.nAnimPositionSize, toFloat);
    Toggle(n.pfAnimRotation, frames * 4, n.nAnimRotationSize, toFloat);
    Toggle(n.pfAnimScale, frames * 7, n.nAnimScaleSize, toFloat);
  }
  for (unsigned int i = 0; s.pMaterial && i < s.nNumMaterial; ++i) {
    SPODMaterial& m = s.pMaterial[i];
    Toggle(m.fMatOpacity, toFloat);
    Toggle(m.pfMatAmbient, toFloat);
    Toggle(m.pfMatDiffuse, toFloat);
    Toggle(m.pfMatSpecular, toFloat);
    Toggle(m.fMatShininess, toFloat);
  }
  Toggle(s.pfColourBackground, toFloat);
  Toggle(s.pfColourAmbient, toFloat);
  s.nFlags ^= 1u;
}
