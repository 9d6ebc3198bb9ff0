// Runs the whole pipeline on fuzzed POD input through RunConversion, as the Korvex driver does:
// read (options, then scene), check, rename textures, weld, save, read back, check, convert, write.
// Input: one byte choosing the welding ("-r0", "-r1" or none), then the POD file.
//
// Inputs whose defined outcome is one of the pipeline's own assertions (which abort) are
// recognised first and skipped. Scenes with frames go through the skeletal and animated
// converters (seeds: podgen animated).

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "pipeline/Conversion.h"
#include "pod/PODModel.h"
#include "qsn/QelSceneGraphModel.h"
#include "convert/SceneGraphConverter.h"
#include "qsn/SceneGraphLoader.h"

namespace {

const std::string& ScratchDir() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/fuzz_pipeline.XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    dir = name;
    // The pipeline's progress lines would only slow the fuzzer down.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  }
  return dir;
}

bool StartsWith(const char* name, const char* keyword) {
  return std::strncmp(name, keyword, std::strlen(keyword)) == 0;
}

bool IsLightMapDefinition(const char* name) {
  return StartsWith(name, "LIGHTMAP") && std::strlen(name) == 11;
}

// Whether the light-map link or the header count of the conversion fails its assertion. The
// scene has passed CheckSceneForConversion, so every index below is in range.
bool FinalAssertionsFail(const CPODScene& s) {
  std::set<std::string> definitions;
  std::set<int32_t> materials;
  std::vector<std::string> mapped;
  // Only the nodes there are get headers.
  const uint64_t meshEnd = std::min<uint64_t>(s.nNumMeshNode, s.nNumNode);
  const uint64_t cameraEnd =
      std::min<uint64_t>(uint64_t(s.nNumMeshNode) + s.nNumLight + s.nNumCamera, s.nNumNode);
  uint32_t headers = static_cast<uint32_t>(cameraEnd - meshEnd);
  for (uint32_t i = 0; i < meshEnd; ++i) {
    const SPODNode& node = s.pNode[i];
    if (IsLightMapDefinition(node.pszName)) {
      definitions.insert(node.pszName);
      materials.insert(node.nIdxMaterial);
      continue;
    }
    ++headers;
    if (StartsWith(node.pszName, "LIGHTMAP")) mapped.push_back(std::string(node.pszName, 0, 11));
    if (!StartsWith(node.pszName, "MARKER") && node.nIdxMaterial >= 0)
      materials.insert(node.nIdxMaterial);
  }
  for (const std::string& name : mapped)
    if (definitions.count(name) == 0) return true;
  const uint32_t total = s.nNumMeshNode + s.nNumCamera + s.nNumLight + s.nNumMaterial -
                         static_cast<uint32_t>(definitions.size());
  return total != headers + materials.size();
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

bool HasKeyword(const char* name) {
  for (const char* k : {"BILLBOARD", "MARKER", "SKYBOX", "COLLISIONBOX", "PITBOX", "F1COLLISIONBOX",
                        "COLLISIONSPHERE", "LIGHTMAP"})
    if (StartsWith(name, k)) return true;
  return false;
}

// A NaN position fails the bounding box's order assertions.
bool BoxAssertionFails(CPODScene& s) {
  QelSceneGraphModel scratch;
  SceneGraphConverter converter(&scratch);
  converter.mScene = &s;
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  for (uint32_t i = 0; i < s.nNumMeshNode && i < s.nNumNode; ++i) {
    const SPODNode& node = s.pNode[i];
    if (IsLightMapDefinition(node.pszName) || StartsWith(node.pszName, "MARKER")) continue;
    const SPODMesh& mesh = s.pMesh[node.nIdx];
    SSGQelNodeData* part = converter.createNodeData(static_cast<int>(i));
    const bool nan = AnyNaN(mesh, part->transform);
    std::free(part);
    if (nan) return true;
    const bool box = StartsWith(node.pszName, "COLLISIONBOX") ||
                     StartsWith(node.pszName, "PITBOX") ||
                     StartsWith(node.pszName, "F1COLLISIONBOX");
    // Animated meshes redo their volumes in object space.
    const bool animated =
        s.nNumFrame != 0 && !HasKeyword(node.pszName) && mesh.sBoneBatches.nBatchCnt <= 0;
    if ((box || animated) && AnyNaN(mesh, identity)) return true;
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
    return FinalAssertionsFail(reloaded) || BoxAssertionFails(reloaded);
  };
  const korvex::ConversionOutcome outcome = korvex::RunConversion(request);
  if (!outcome.wroteOutput) return 0;

  // What was written loads back with every header.
  QelSceneGraphModel loaded;
  SceneGraphLoader loader;
  if (!loader.readFromFile(output, &loaded)) std::abort();
  if (loaded.nodeheader.size() != outcome.nodeHeaders) std::abort();
  return 0;
}
