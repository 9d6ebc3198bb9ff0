#pragma once
// The blocks of the camera, light, material and texture records, written down once, in the order
// a file of this system holds them. The reader, the writer, the fixed-point conversion and the
// release all walk these descriptions with a visitor.
//
// A visitor provides:
//   word(tag, T&)                  one 32-bit integer member (signed, unsigned or an enumeration)
//   real(tag, float&)              one float (16.16 fixed point in a fixed-point scene)
//   reals(tag, float (&)[N])       N floats held in the record
//   text(tag, char*&, need, clear) a string with its zero; `need`: a record cannot be written
//                                  without it (else no block when absent)
//   frames(tag, float*&, size_t& bytes, perFrame, clear)
//                                  perFrame floats a frame: nNumFrame frames when written, what
//                                  its block holds when read
// `clear`: the reader releases the member as the record starts. Only the members the format
// names are cleared so; the others keep what the record slot held (a second scene in one file
// reads over the first).
// The record parameter is a template so that const records can be walked for writing.

#include <cstddef>
#include <cstdlib>

#include "PODModel.h"
#include "PODTag.h"

namespace korvex {

constexpr bool kNeeded = true, kOptional = false;
constexpr bool kClearedFirst = true, kKept = false;

template <class R, class V>
void DescribeCamera(R& c, V& v) {
  v.word(PODTag::CamIdxTgt, c.nIdxTarget);
  v.real(PODTag::CamFOV, c.fFOV);
  v.real(PODTag::CamFar, c.fFar);
  v.real(PODTag::CamNear, c.fNear);
  v.frames(PODTag::CamAnimFOV, c.pfAnimFOV, c.nAnimFOVSize, 1, kClearedFirst);
}

template <class R, class V>
void DescribeLight(R& l, V& v) {
  v.word(PODTag::LightIdxTgt, l.nIdxTarget);
  v.reals(PODTag::LightColour, l.pfColour);
  v.word(PODTag::LightType, l.eType);
}

// A material without block 3001 keeps nIdxTexDiffuse 0 (a fresh slot is zeroed): the first
// texture, not none.
template <class R, class V>
void DescribeMaterial(R& m, V& v) {
  v.text(PODTag::MatName, m.pszName, kNeeded, kClearedFirst);
  v.word(PODTag::MatIdxTexDiffuse, m.nIdxTexDiffuse);
  v.real(PODTag::MatOpacity, m.fMatOpacity);
  v.reals(PODTag::MatAmbient, m.pfMatAmbient);
  v.reals(PODTag::MatDiffuse, m.pfMatDiffuse);
  v.reals(PODTag::MatSpecular, m.pfMatSpecular);
  v.real(PODTag::MatShininess, m.fMatShininess);
  v.text(PODTag::MatEffectFile, m.pszEffectFile, kOptional, kClearedFirst);
  v.text(PODTag::MatEffectName, m.pszEffectName, kOptional, kClearedFirst);
}

template <class R, class V>
void DescribeTexture(R& t, V& v) {
  v.text(PODTag::TexName, t.pszName, kNeeded, kKept);
}

// Frees the names and arrays of a record's description: every one (`onlyClearedFirst` false, as
// a record is released), or only those the reader clears as the record starts.
struct PODRecordArraysRelease {
  bool onlyClearedFirst = false;

  template <class T>
  void word(unsigned int, T&) {}
  void real(unsigned int, float&) {}
  template <size_t N>
  void reals(unsigned int, float (&)[N]) {}
  void text(unsigned int, char*& p, bool, bool clear) {
    if (!onlyClearedFirst || clear) Free(p);
  }
  void frames(unsigned int, float*& p, size_t& bytes, unsigned int, bool clear) {
    if (onlyClearedFirst && !clear) return;
    Free(p);
    bytes = 0;
  }

 private:
  template <class T>
  static void Free(T*& p) {
    std::free(p);
    p = nullptr;
  }
};

}  // namespace korvex
