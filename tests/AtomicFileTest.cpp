// Files written in one rename: room reserved ahead is a hint that changes neither the bytes nor
// the size of what is written.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "pod/AtomicFile.h"
#include "support/TestSupport.h"

namespace {

using korvex::test::ReadFileBytes;
using korvex::test::TempDir;

TEST(AtomicFile, RoomReservedAheadLeavesTheFileAsWritten) {
  TempDir dir;
  const std::string text = "a scene";
  // Room for more than is written, for exactly it, for less, and none.
  for (uint64_t room : {uint64_t{1} << 20, uint64_t{7}, uint64_t{3}, uint64_t{0}}) {
    SCOPED_TRACE("room " + std::to_string(room));
    const std::string path = dir.file("scene.qsn");
    korvex::AtomicFile file(path);
    ASSERT_TRUE(file.Open());
    file.Reserve(room);
    ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), file.file()), text.size());
    ASSERT_TRUE(file.Commit());
    const std::vector<uint8_t> bytes = ReadFileBytes(path);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(text.size()));
  }
}

}  // namespace
