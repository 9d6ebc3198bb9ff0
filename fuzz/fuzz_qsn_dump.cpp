// Feeds arbitrary bytes to the .qsn loader and prints whatever loads: the full dump, the
// texture-coordinate check and the JSON description must stay inside the record arrays however
// the counts of a record disagree with its array lengths. The printed text itself goes to
// /dev/null; the JSON must be free of raw control characters.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphJson.h"
#include "qsn/SceneGraphLoader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  if (!loader.readFromMemory(data, size, &model)) return 0;
  model.printModelInfo();
  model.printCheckModelInfo();
  const std::string json = korvex::SceneGraphToJson(model);
  for (size_t i = 0; i + 1 < json.size(); ++i)
    if (static_cast<unsigned char>(json[i]) < 0x20) std::abort();
  return 0;
}
