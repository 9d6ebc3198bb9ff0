// Feeds arbitrary bytes to the .qsn loader. A file that loads is written back and loaded again;
// when every node header is of a written kind and names its record in load order (the loader
// appends records whatever the index says, the writer takes the record the index names), the
// second load must succeed and a second write must reproduce the first byte for byte.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "qsn/SceneGraphWritter.h"

namespace {

std::string ScratchDir() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/fuzz_qsn_loader.XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    dir = name;
  }
  return dir;
}

std::vector<uint8_t> ReadAll(const std::string& path) {
  std::vector<uint8_t> bytes;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) std::abort();
  uint8_t chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
  std::fclose(f);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  if (!loader.readFromMemory(data, size, &model)) {
    if (loader.lastError().empty()) std::abort();  // a refusal always explains itself
    return 0;
  }

  bool allWritten = true;
  std::vector<int32_t> seen(ESGAnimationCameraNode - ESGMeshNode + 1, 0);
  for (const SSGNodeHeader* h : model.nodeheader) {
    allWritten = allWritten && h->type >= ESGMeshNode && h->type <= ESGAnimationCameraNode;
    if (allWritten) allWritten = h->index == seen[h->type - ESGMeshNode]++;
  }

  const std::string first = ScratchDir() + "/first.qsn";
  const std::string second = ScratchDir() + "/second.qsn";
  SceneGraphWritter writer;
  if (!writer.WritetoFile(first, &model)) return 0;  // e.g. offsets beyond 32 bits

  QelSceneGraphModel reloaded;
  SceneGraphLoader reloader;
  const bool loaded = reloader.readFromFile(first, &reloaded);
  if (!allWritten) return 0;
  if (!loaded) {
    std::fprintf(stderr, "reload failed: %s\n", reloader.lastError().c_str());
    std::abort();
  }
  SceneGraphWritter rewriter;
  if (!rewriter.WritetoFile(second, &reloaded)) std::abort();
  if (ReadAll(first) != ReadAll(second)) {
    std::fprintf(stderr, "write -> load -> write changed the file\n");
    std::abort();
  }
  return 0;
}
