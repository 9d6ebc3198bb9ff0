// Runs the whole pipeline on fuzzed POD input through RunConversion, as the Korvex driver does:
// read (options, then scene), check, rename textures, weld, save, read back, check, convert, write.
// Input: one byte choosing the welding ("-r0", "-r1" or none), then the POD file.
//
// Inputs whose defined outcome is one of the pipeline's own assertions (which abort) are
// recognised first and skipped. Scenes with frames go through the skeletal and animated
// converters (seeds: podgen animated).

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "convert/AnimationValidation.h"
#include "convert/SceneGraphConverter.h"
#include "convert/SceneRules.h"
#include "pipeline/Conversion.h"
#include "pod/Diagnostics.h"
#include "pod/PODModel.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"

namespace {

// The pipeline's texts would only slow the fuzzer down; problem lines (an assertion's above all)
// still go to standard error, where the fuzzer reports.
class TextsDropped final : public korvex::DiagnosticSink {
 public:
  void Text(const char*, size_t) override {}
  void Problem(const char* line, size_t size) override {
    std::fwrite(line, 1, size, stderr);
    std::fputc('\n', stderr);
  }
};

const std::string& ScratchDir() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/fuzz_pipeline.XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    dir = name;
  }
  return dir;
}

// Whether the light-map link or the header count of the conversion fails its assertion. The
// scene has passed CheckSceneForConversion, so every index the rules read is in range.
bool FinalAssertionsFail(const korvex::SceneRules& rules) {
  return !rules.lightMapsLinked() || rules.announcedHeaders() != rules.headersMade();
}

// Whether a transformed position is NaN, in the bounding box's own order of operations.
bool AnyNaN(const SPODMesh& mesh, const PODMATRIXf& matrix) {
  const float* m = matrix.f;
  for (uint32_t k = 0; k < mesh.nNumVertex; ++k) {
    float p[3];
    std::memcpy(p, mesh.sVertex.pData + 12 * size_t(k), 12);
    for (int a = 0; a < 3; ++a) {
      const float t = m[12 + a] + (p[0] * m[a] + p[1] * m[4 + a] + p[2] * m[8 + a]);
      if (std::isnan(t)) return true;
    }
  }
  return false;
}

// A NaN position fails the bounding box's order assertions.
bool BoxAssertionFails(CPODScene& s, const korvex::SceneRules& rules) {
  QelSceneGraphModel scratch;
  SceneGraphConverter converter(&scratch);
  converter.mScene = &s;
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  for (uint32_t i = 0; i < rules.nodeCount(); ++i) {
    const korvex::NodeKind kind = rules.kind(i);
    if (!korvex::IsMeshRecordKind(kind)) continue;  // only these have volumes
    const SPODMesh& mesh = s.pMesh[s.pNode[i].nIdx];
    SSGQelNodeData* part = converter.createNodeData(static_cast<int>(i));
    const bool nan = AnyNaN(mesh, part->transform);
    std::free(part);
    if (nan) return true;
    // Collision boxes add object-space volumes; animated meshes redo theirs in object space.
    const bool objectSpace =
        kind == korvex::NodeKind::kCollisionBox || kind == korvex::NodeKind::kAnimationMesh;
    if (objectSpace && AnyNaN(mesh, identity)) return true;
  }
  return false;
}

// A run must stay within libFuzzer's memory and time limits, far below what the tool allows a
// scene to take to bake (the caps themselves are tested on their own): larger scenes are skipped.
bool BakesTooMuchForARun(const CPODScene& s, const korvex::SceneRules& rules) {
  AnimationBudget budget(uint64_t{128} << 20, uint64_t{1} << 25);
  for (uint32_t i = 0; i < rules.nodeCount(); ++i) {
    if (!budget.Add(s, rules, i).empty()) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const std::string& dir = ScratchDir();
  const bool reduction = data[0] % 3 != 0;
  const bool nearly = data[0] % 3 == 2;
  const std::string input = dir + "/in.pod", output = dir + "/in.qsn";
  FILE* f = std::fopen(input.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size > 1 && std::fwrite(data + 1, 1, size - 1, f) != size - 1) std::abort();
  std::fclose(f);

  korvex::ConversionRequest request;
  request.inputPath = input;
  request.weld = reduction;
  request.nearly = nearly;
  request.assertsAhead = [](CPODScene& reloaded) {
    const korvex::SceneRules rules(reloaded);
    return FinalAssertionsFail(rules) || BoxAssertionFails(reloaded, rules) ||
           BakesTooMuchForARun(reloaded, rules);
  };
  static TextsDropped sink;
  const korvex::ScopedDiagnosticSink use(&sink);
  const korvex::ConversionOutcome outcome = korvex::RunConversion(request);
  if (!outcome.wroteOutput) return 0;

  // What was written loads back with every header.
  QelSceneGraphModel loaded;
  SceneGraphLoader loader;
  if (!loader.readFromFile(output, &loaded)) std::abort();
  if (loaded.nodeheader.size() != outcome.nodeHeaders) std::abort();
  return 0;
}
