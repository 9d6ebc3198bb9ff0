// Writes a few small .qsn files made by the writer, as seeds for the loader fuzzer:
//   qsnseed DIR   ->  DIR/empty.qsn, DIR/light_material.qsn, DIR/every_kind.qsn, DIR/with_node.qsn
// The models are the test suites' samples, so the seeds cover what the tests cover.

#include <cstdio>
#include <cstring>
#include <string>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphWritter.h"
#include "support/SceneGraphSamples.h"

namespace {

using korvex::test::AddNode;

bool Write(QelSceneGraphModel& model, const std::string& path) {
  korvex::test::SetFileHeader(model, "scene.PODx");
  SceneGraphWritter writer;
  return writer.WritetoFile(path, &model);
}

void LightAndMaterial(QelSceneGraphModel& model) {
  auto* light = AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light01");
  light->targetIndex = -1;
  light->colour[0] = 1.0f;
  auto* material = AddNode<SSGQelMaterialData>(model, ESGMaterial, "Stone");
  material->opacity = 1.0f;
  std::strcpy(material->materialName, "Stone");
  std::strcpy(material->textureName, "stone.tga");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: qsnseed DIR\n");
    return 1;
  }
  const std::string dir = argv[1];
  bool ok = true;
  {
    QelSceneGraphModel model;
    ok = Write(model, dir + "/empty.qsn") && ok;
  }
  {
    QelSceneGraphModel model;
    LightAndMaterial(model);
    ok = Write(model, dir + "/light_material.qsn") && ok;
  }
  {
    QelSceneGraphModel model;
    korvex::test::BuildEveryKindModel(model);
    ok = Write(model, dir + "/every_kind.qsn") && ok;
  }
  {
    // A header of kind 2000 is kept by the loader but never written.
    QelSceneGraphModel model;
    LightAndMaterial(model);
    AddNode<SSGQelNodeData>(model, ESGNode, "Bare")->numAnimation = 2;
    ok = Write(model, dir + "/with_node.qsn") && ok;
  }
  return ok ? 0 : 1;
}
