// Damaged copies of the bundled example scene: every prefix of it, and every block of it removed,
// doubled or moved to the end of the file. Each run either ends without a .qsn and with a
// message, or writes a .qsn and says on standard error what it made of the damage: a .qsn never
// comes in silence.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/PODTestFiles.h"
#include "support/TestSupport.h"

namespace {

using korvex::test::FileExists;
using korvex::test::RunResult;
using korvex::test::TempDir;
using Bytes = std::vector<uint8_t>;

struct Variant {
  std::string name;
  Bytes bytes;
};

const Bytes& Example() {
  static const Bytes bytes =
      korvex::test::ReadFileBytes(korvex::test::SourceDir() + "/examples/example.pod");
  return bytes;
}

// What is wrong with one run, or "" when it kept to the rule.
std::string Judge(const RunResult& r, bool qsn) {
  if (qsn) {
    if (r.exitStatus != 0) return "a .qsn with status " + std::to_string(r.exitStatus);
    if (r.err.empty()) return "a .qsn in silence; standard output:\n" + r.out;
    return "";
  }
  if (r.err.empty() && r.out.find("Invalid input file") == std::string::npos)
    return "no .qsn and no message; status " + std::to_string(r.exitStatus);
  return "";
}

// Runs Korvex on every variant (a few at a time: each run is a process of its own) and reports
// each one that broke the rule.
void ExpectNeverSilent(const std::vector<Variant>& variants) {
  ASSERT_FALSE(variants.empty());
  std::atomic<size_t> next{0};
  std::mutex lock;
  std::vector<std::string> failures;
  auto work = [&]() {
    TempDir dir;
    const std::string input = dir.file("scene.pod");
    const std::string output = dir.file("scene.qsn");
    for (size_t i = next++; i < variants.size(); i = next++) {
      std::remove(output.c_str());
      std::remove(dir.file("scene.PODx").c_str());
      if (!korvex::test::WriteFileBytes(input, variants[i].bytes)) {
        std::lock_guard<std::mutex> guard(lock);
        failures.push_back(variants[i].name + ": cannot write the input");
        continue;
      }
      const RunResult r = korvex::test::Run(korvex::test::KorvexExe(), {input});
      const std::string fault = Judge(r, FileExists(output));
      if (!fault.empty()) {
        std::lock_guard<std::mutex> guard(lock);
        failures.push_back(variants[i].name + ": " + fault);
      }
    }
  };
  std::vector<std::thread> workers;
  for (int w = 0; w < 4; ++w) workers.emplace_back(work);
  for (std::thread& t : workers) t.join();
  EXPECT_TRUE(failures.empty()) << failures.size() << " of " << variants.size()
                                << " runs broke the rule; the first: " << failures.front();
}

std::vector<podtest::Span> ExampleBlocks() {
  const std::vector<podtest::Span> spans = podtest::Spans(Example());
  EXPECT_GT(spans.size(), 100u);  // the example is a whole scene, well framed
  return spans;
}

std::string Describe(const char* what, const podtest::Span& s) {
  return std::string(what) + " block " + std::to_string(s.tag) + " at byte " +
         std::to_string(s.begin);
}

// Prefixes in four groups, so that CTest can run them side by side.
class EveryPrefix : public ::testing::TestWithParam<int> {};

TEST_P(EveryPrefix, EndsWithAMessageOrAWarning) {
  const Bytes& full = Example();
  std::vector<Variant> variants;
  for (size_t n = static_cast<size_t>(GetParam()); n < full.size(); n += 4)
    variants.push_back({"prefix of " + std::to_string(n) + " bytes", Bytes(full.begin(), full.begin() + n)});
  ExpectNeverSilent(variants);
}

INSTANTIATE_TEST_SUITE_P(DamagedInput, EveryPrefix, ::testing::Range(0, 4));

TEST(DamagedInput, EveryBlockRemoved) {
  const Bytes& full = Example();
  std::vector<Variant> variants;
  for (const podtest::Span& s : ExampleBlocks()) {
    Bytes b(full.begin(), full.begin() + s.begin);
    b.insert(b.end(), full.begin() + s.end, full.end());
    variants.push_back({Describe("without", s), b});
  }
  ExpectNeverSilent(variants);
}

TEST(DamagedInput, EveryBlockDoubled) {
  const Bytes& full = Example();
  std::vector<Variant> variants;
  for (const podtest::Span& s : ExampleBlocks()) {
    Bytes b(full.begin(), full.begin() + s.end);
    b.insert(b.end(), full.begin() + s.begin, full.end());
    variants.push_back({Describe("doubled", s), b});
  }
  ExpectNeverSilent(variants);
}

// A block moved to the end lands outside its record (a block already last stays where it is).
TEST(DamagedInput, EveryBlockMovedToTheEnd) {
  const Bytes& full = Example();
  std::vector<Variant> variants;
  for (const podtest::Span& s : ExampleBlocks()) {
    if (s.end == full.size()) continue;
    Bytes b(full.begin(), full.begin() + s.begin);
    b.insert(b.end(), full.begin() + s.end, full.end());
    b.insert(b.end(), full.begin() + s.begin, full.begin() + s.end);
    variants.push_back({Describe("moved", s), b});
  }
  ExpectNeverSilent(variants);
}

// What the warnings say, for a file cut short and for a texture left without its name.
TEST(DamagedInput, WarningsNameTheFileTheCauseAndWhatWasMadeOfIt) {
  const Bytes& full = Example();
  const std::vector<podtest::Span> spans = ExampleBlocks();
  TempDir dir;

  // Cut just before the scene's end marker: everything is read, but the scene never ends.
  const std::string cut = dir.file("cut.pod");
  ASSERT_TRUE(korvex::test::WriteFileBytes(cut, Bytes(full.begin(), full.end() - 8)));
  RunResult r = korvex::test::Run(korvex::test::KorvexExe(), {cut});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(FileExists(dir.file("cut.qsn")));
  EXPECT_EQ(r.err, "Korvex: warning: " + cut + ": the data ends inside the scene at byte " +
                       std::to_string(full.size() - 8) + "; converting what was read\n");

  // The first texture's name block removed: the texture is renamed as an empty name would be.
  const podtest::Span* name = nullptr;
  for (const podtest::Span& s : spans)
    if (s.tag == 4000 && name == nullptr) name = &s;
  ASSERT_NE(name, nullptr);
  Bytes nameless(full.begin(), full.begin() + name->begin);
  nameless.insert(nameless.end(), full.begin() + name->end, full.end());
  const std::string input = dir.file("nameless.pod");
  ASSERT_TRUE(korvex::test::WriteFileBytes(input, nameless));
  r = korvex::test::Run(korvex::test::KorvexExe(), {input});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(FileExists(dir.file("nameless.qsn")));
  EXPECT_EQ(r.err, "Korvex: warning: " + input + ": texture 0: block 4000 (pszName) is missing\n" +
                       "Korvex: warning: " + input +
                       ": texture 0 has no name; it is renamed \".qimg\"\n");
}

}  // namespace
