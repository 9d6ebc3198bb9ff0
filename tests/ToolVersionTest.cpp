// The version the installed tools print, and Korvex's command line that has no room for it.

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

using korvex::test::BinDir;
using korvex::test::FileExists;
using korvex::test::KorvexExe;
using korvex::test::RunResult;

TEST(ToolVersion, ProjectVersionIsThreeNumbers) {
  EXPECT_TRUE(std::regex_match(std::string(KORVEX_VERSION), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")))
      << KORVEX_VERSION;
}

TEST(ToolVersion, EachToolPrintsItsNameAndTheProjectVersion) {
  // Each with an option of its own ahead: the version is answered before the command line is
  // judged complete (no file is given).
  const struct {
    const char* tool;
    const char* otherOption;
  } cases[] = {{"qsndump", "--json"}, {"podimport", "--quiet"}, {"qsnview", "--uv"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    const std::string exe = BinDir() + "/" + c.tool;
    // podimport and qsnview are built only where their libraries are.
    if (!FileExists(exe)) continue;
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--version"},
          std::vector<std::string>{c.otherOption, "--version"}}) {
      SCOPED_TRACE(args.front());
      const RunResult r = korvex::test::Run(exe, args);
      EXPECT_EQ(r.exitStatus, 0);
      EXPECT_EQ(r.out, std::string(c.tool) + " " KORVEX_VERSION "\n");
      EXPECT_EQ(r.err, "");
    }
    const RunResult help = korvex::test::Run(exe, {"--help"});
    EXPECT_NE(help.out.find("--version"), std::string::npos) << "the usage text lists it";
  }
}

TEST(ToolVersion, KorvexTakesVersionAsItsInputPath) {
  // The first argument is a flag position and the last the input: "--version" is a file name
  // without ".", which ends the run abnormally before any file is read.
  const RunResult r = korvex::test::Run(KorvexExe(), {"--version"});
  EXPECT_EQ(r.out.rfind("Converting --version\n", 0), 0u) << r.out;
  EXPECT_NE(r.exitStatus, 0);
  EXPECT_EQ(r.out.find(KORVEX_VERSION), std::string::npos);
  EXPECT_EQ(r.err.find(KORVEX_VERSION), std::string::npos);
}

}  // namespace
