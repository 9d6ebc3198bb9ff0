#pragma once
// The one assertion facility of the tool. A failed check prints the expression, the function,
// the source name the check belongs to and a line number on standard error, then aborts.
// Assertions are part of the tool's behaviour, so they stay active in release builds.

namespace korvex {

[[noreturn]] void AssertionFailed(const char* expression, const char* function, const char* source,
                                  int line);

}  // namespace korvex

// KX_ASSERT(expr, "PODLoader/SceneGraphConverter"): line number of the check itself.
#define KX_ASSERT(expr, source) \
  ((expr) ? (void)0 : ::korvex::AssertionFailed(#expr, __func__, (source), __LINE__))

// KX_ASSERT_TEXT(expr, text, source, line): a check whose printed text and line are fixed by the
// file format's documentation rather than by where the check happens to stand in this file.
#define KX_ASSERT_TEXT(expr, text, source, line) \
  ((expr) ? (void)0 : ::korvex::AssertionFailed((text), __func__, (source), (line)))
