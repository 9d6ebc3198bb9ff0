// The qsndump executable on files written by Korvex and on broken ones: its outputs, its JSON
// (parsed back here by a strict parser of its own) and its exit statuses.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/ConvertedScenes.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "support/SceneGraphSamples.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::test;

// Runs the tool (Run alone would name the test's own method). Under AddressSanitizer the printf
// interceptor notes the dump's untyped "%l" conversion on standard error; that note is the
// sanitizer's, not the tool's, and is dropped here.
RunResult Qsndump(const std::vector<std::string>& args) {
  RunResult r = korvex::test::Run(BinDir() + "/qsndump", args);
  static const std::regex note(
      "==[0-9]+==AddressSanitizer: WARNING: unexpected format specifier in printf interceptor: %l\n"
      "( \\(reported once per process\\)\n)?");
  r.err = std::regex_replace(r.err, note, "");
  return r;
}

// ---- A strict JSON reader: the grammar of RFC 8259.

struct Json {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  double number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;
  // A missing member or item throws, which fails the test.
  const Json& operator[](const std::string& key) const { return members.at(key); }
  const Json& operator[](size_t i) const { return items.at(i); }
};

struct JsonReader {
  const std::string& s;
  size_t p = 0;

  bool document(Json& v) { return value(v, 0) && (space(), p == s.size()); }
  void space() {
    while (p < s.size() && (s[p] == ' ' || s[p] == '\t' || s[p] == '\r' || s[p] == '\n')) ++p;
  }
  bool eat(char c) { return space(), p < s.size() && s[p] == c ? (++p, true) : false; }
  bool value(Json& v, int depth) {
    if (space(), depth > 64 || p >= s.size()) return false;
    if (eat('{')) {
      v.kind = Json::Object;
      if (eat('}')) return true;
      do {
        std::string key;
        Json member;
        if (!(space(),
              p < s.size() && s[p] == '"' && string(key) && eat(':') && value(member, depth + 1)))
          return false;
        v.members[key] = member;
      } while (eat(','));
      return eat('}');
    }
    if (eat('[')) {
      v.kind = Json::Array;
      if (eat(']')) return true;
      bool ok;
      do v.items.emplace_back();
      while ((ok = value(v.items.back(), depth + 1)) && eat(','));
      return ok && eat(']');
    }
    if (s[p] == '"') return v.kind = Json::String, string(v.text);
    for (const std::string word : {"null", "true", "false"})
      if (s.compare(p, word.size(), word) == 0)
        return p += word.size(), v.kind = word == "null" ? Json::Null : Json::Bool, true;
    static const std::regex number("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?");
    std::smatch m;
    if (!std::regex_search(s.begin() + p, s.end(), m, number,
                           std::regex_constants::match_continuous))
      return false;
    v.kind = Json::Number;
    v.number = std::stod(m.str());
    p += m.length();
    return true;
  }
  // The scenes here have plain ASCII names: a \u escape is not expected and is refused.
  bool string(std::string& out) {
    for (++p; p < s.size();) {
      const unsigned char c = s[p++];
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c != '\\') {
        out += char(c);
        continue;
      }
      const char* const escapes = "\"\\/bfnrt";
      const char* e = p < s.size() && s[p] != '\0' ? std::strchr(escapes, s[p++]) : nullptr;
      if (e == nullptr) return false;
      out += "\"\\/\b\f\n\r\t"[e - escapes];
    }
    return false;
  }
};

Json ParseJson(const std::string& text) {
  Json doc;
  EXPECT_TRUE(JsonReader{text}.document(doc)) << text;
  return doc;
}

// ---- The tool on converted files

// Pointer values differ between processes: they are masked before outputs are compared.
std::string MaskPointers(const std::string& dump) {
  static const std::regex pointer("(ptr: +|data: {2})[0-9a-f]+\n");
  return std::regex_replace(dump, pointer, "$1P\n");
}

std::string InProcessDump(const std::string& qsn) {
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  EXPECT_TRUE(loader.readFromFile(qsn, &model)) << loader.lastError();
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  model.printModelInfo();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(Qsndump, DumpsAConvertedSceneAsTheModelPrintsIt) {
  TempDir dir;
  converted::PODSceneBuilder b;
  converted::BuildStillScene(b);
  const std::string qsn = converted::Convert(b, dir, "still");
  const RunResult r = Qsndump({qsn});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out.rfind("FileHeader Type: 1000\nFileHeader version: 1\nNode name: "
                        "still.PODx\nNodeHeader Type: 2001\n",
                        0),
            0u);
  EXPECT_EQ(MaskPointers(r.out), MaskPointers(InProcessDump(qsn)));
}

TEST(Qsndump, JsonDescribesEveryNodeOfAConvertedAnimatedScene) {
  TempDir dir;
  converted::PODSceneBuilder b;
  converted::BuildEveryKindScene(b);
  const std::string qsn = converted::Convert(b, dir, "every");
  const std::vector<uint8_t> bytes = ReadFileBytes(qsn);
  const RunResult r = Qsndump({"--json", qsn});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");
  const Json doc = ParseJson(r.out);

  EXPECT_EQ(doc["file"]["type"].number, 1000);
  EXPECT_EQ(doc["file"]["version"].number, 1);
  EXPECT_EQ(doc["file"]["totalNodeNumber"].number, 12);
  EXPECT_EQ(doc["file"]["podFilename"].text, "every.PODx");
  const Json& nodes = doc["nodes"];
  ASSERT_EQ(nodes.items.size(), 12u);
  const std::vector<std::string> kinds = {
      "material",         "mesh",          "material", "collision box",
      "collision sphere", "billboard",     "sky box",  "marker",
      "skeletal mesh",    "animated mesh", "light",    "animated camera"};
  for (size_t i = 0; i < 12; ++i) {
    const size_t at = 268 + 144 * i;
    EXPECT_EQ(nodes[i]["kind"].text, kinds[i]);
    EXPECT_EQ(nodes[i]["type"].number, U32At(bytes, at));
    EXPECT_EQ(nodes[i]["name"].text, std::string(reinterpret_cast<const char*>(&bytes[at + 4])));
    EXPECT_EQ(nodes[i]["offset"].number, U32At(bytes, at + 132));
    EXPECT_EQ(nodes[i]["length"].number, U32At(bytes, at + 136));
    EXPECT_EQ(nodes[i]["index"].number, U32At(bytes, at + 140));
    EXPECT_EQ(nodes[i]["record"].kind, Json::Object);
  }
  const Json& wall = nodes[1]["record"];
  EXPECT_EQ(wall["vertices"].number, 4);
  EXPECT_EQ(wall["faces"].number, 2);
  EXPECT_EQ(wall["uvSets"].number, 1);
  ASSERT_EQ(wall["materials"].items.size(), 2u);
  EXPECT_EQ(wall["materials"][0].text, "wall");
  EXPECT_EQ(wall["materials"][1].text, "lm");
  EXPECT_EQ(nodes[0]["record"]["textureName"].text, "lm.png.qimg");
  // The unplaced square: sphere centre (1, 1, 0), radius sqrt(2); box (0,0,0)..(2,2,0).
  const Json& sphere = nodes[4]["record"];
  EXPECT_NEAR(sphere["sphere"]["radius"].number, std::sqrt(2.0), 1e-6);
  EXPECT_EQ(sphere["sphere"]["center"][0].number, 1);
  EXPECT_EQ(sphere["box"]["max"][1].number, 2);
  EXPECT_EQ(nodes[3]["record"]["localBox"]["max"][0].number, 2);
  EXPECT_EQ(nodes[7]["record"]["frames"].number, 3);
  EXPECT_EQ(nodes[8]["record"]["boneSlots"].number, 1);
  EXPECT_EQ(nodes[8]["record"]["boneMatrices"].number, 3);
  EXPECT_EQ(nodes[9]["record"]["matrixFrames"].number, 3);
  EXPECT_EQ(nodes[11]["record"]["matrixFrames"].number, 3);
  EXPECT_NEAR(nodes[11]["record"]["fov"].number, 0.8, 1e-7);
}

// ---- Broken files and usage errors

TEST(Qsndump, BrokenFilesExitWithStatusOneAndOneMessage) {
  TempDir dir;
  converted::PODSceneBuilder b;
  converted::BuildStillScene(b);
  const std::vector<uint8_t> good = ReadFileBytes(converted::Convert(b, dir, "still"));
  ASSERT_GT(good.size(), 1132u);

  std::vector<uint8_t> truncated(good.begin(), good.end() - 10);
  std::vector<uint8_t> wrongType = good;
  PutU32(wrongType, 0, 999);
  std::vector<uint8_t> pastEnd = good;
  PutU32(pastEnd, 268 + 132, static_cast<uint32_t>(good.size()));  // first block starts at the end
  std::vector<uint8_t> tooManyHeaders = good;
  PutU32(tooManyHeaders, 8, 1000000);
  const std::vector<std::pair<std::string, std::vector<uint8_t>>> broken = {
      {"truncated", truncated},
      {"wrongtype", wrongType},
      {"pastend", pastEnd},
      {"headers", tooManyHeaders},
      {"short", {0xE8, 0x03, 0, 0}}};
  for (const auto& [name, bytes] : broken) {
    const std::string path = dir.file(name + ".qsn");
    ASSERT_TRUE(WriteFileBytes(path, bytes));
    for (const char* mode : {"--check", "--json"}) {
      const RunResult r = Qsndump({mode, path});
      EXPECT_EQ(r.exitStatus, 1) << name;
      EXPECT_EQ(r.out, "") << name;
      EXPECT_EQ(r.err.rfind("qsndump: \"" + path + "\": ", 0), 0u) << r.err;
      EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // one line
    }
  }
}

TEST(Qsndump, UsageErrorsExitWithStatusTwoAndHelpWithZero) {
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"--bogus", "a.qsn"},
                                                       {"a.qsn", "b.qsn"},
                                                       {"--pod-dir"},
                                                       {"--check", "--json", "a.qsn"},
                                                       {"--check"}};
  for (const auto& args : wrong) {
    const RunResult r = Qsndump(args);
    EXPECT_EQ(r.exitStatus, 2) << (args.empty() ? "(none)" : args[0]);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err, "");
  }
  const RunResult help = Qsndump({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.out.rfind("Usage: qsndump", 0), 0u);
}

}  // namespace
