// Exhausted memory ends a run one way: a line naming what could not be allocated, status 1, and
// no temporary file left beside an output.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <new>

#include "pod/AtomicFile.h"
#include "pod/Diagnostics.h"
#include "support/TestSupport.h"

namespace {

using korvex::test::TempDir;

size_t FilesIn(const std::string& dir) {
  size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    (void)entry;
    ++n;
  }
  return n;
}

TEST(DiagnosticsDeathTest, OutOfMemoryEndsTheRunAndRemovesHalfWrittenFiles) {
  TempDir dir;
  const std::string output = dir.file("scene.qsn");
  EXPECT_EXIT(
      {
        korvex::AtomicFile file(output);
        if (!file.Open()) std::_Exit(3);
        std::fputs("half a file", file.file());
        std::fflush(file.file());
        korvex::OutOfMemory("a test record");
      },
      ::testing::ExitedWithCode(1), "^Korvex: out of memory \\(a test record\\)\n$");
  EXPECT_EQ(FilesIn(dir.path()), 0u);
}

#if defined(__SANITIZE_ADDRESS__)
#define KX_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KX_UNDER_ASAN 1
#endif
#endif

TEST(DiagnosticsDeathTest, AFailedNewEndsTheRunTheSameWay) {
#ifdef KX_UNDER_ASAN
  GTEST_SKIP() << "the address sanitizer reports an impossible allocation itself";
#else
  EXPECT_EXIT(
      {
        korvex::EndRunOnFailedNew();
        // More than any machine has: the allocation fails without touching memory.
        volatile size_t huge = SIZE_MAX / 4;
        static char* volatile kept = nullptr;
        kept = static_cast<char*>(::operator new(huge));
        std::_Exit(kept != nullptr ? 3 : 4);
      },
      ::testing::ExitedWithCode(1), "^Korvex: out of memory \\(memory for the conversion\\)\n$");
#endif
}

}  // namespace
