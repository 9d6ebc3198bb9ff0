// podimport's texture names (--texture-names keep|base|relative): the naming of paths written on
// other machines, the command line, the scene and summary made of them, and a model converted
// from its own folder.

#include <assimp/scene.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "import/ImportArguments.h"
#include "import/PODSceneImporter.h"
#include "import/TextureNames.h"
#include "support/PodImportFiles.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::podimport;
using korvex::test::RunResult;
using korvex::test::TempDir;

const char* const kFolder = "/home/artist/models";

TEST(PodImportTextureNames, EachPolicyNamesPathsFromOtherMachines) {
  const struct {
    const char* written;
    const char* base;
    const char* relative;
    bool outside;  // under relative
  } cases[] = {
      {"D:/projects/scene/drkwood2.jpg", "drkwood2.jpg", "drkwood2.jpg", true},
      {"D:\\projects\\scene\\drkwood2.jpg", "drkwood2.jpg", "drkwood2.jpg", true},
      {"D:drkwood2.jpg", "drkwood2.jpg", "drkwood2.jpg", true},
      {"\\\\server\\share\\stone.png", "stone.png", "stone.png", true},
      {"textures/wood.png", "wood.png", "textures/wood.png", false},
      {"textures\\wood.png", "wood.png", "textures/wood.png", false},
      {"./textures//wood.png", "wood.png", "textures/wood.png", false},
      {"wood.png", "wood.png", "wood.png", false},
      {"../shared/stone.png", "stone.png", "stone.png", true},
      {"textures/../../models2/stone.png", "stone.png", "stone.png", true},
      {"textures/../stone.png", "stone.png", "stone.png", false},
      {"/home/artist/models/textures/metal.png", "metal.png", "textures/metal.png", false},
      {"/home/artist/models/./a/../b/metal.png", "metal.png", "b/metal.png", false},
      // A folder whose name only starts like the model's is not below it.
      {"/home/artist/models2/metal.png", "metal.png", "metal.png", true},
      {"/home/artist/metal.png", "metal.png", "metal.png", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.written);
    const TextureName kept = NameTexture(c.written, kFolder, TextureNamePolicy::kKeep);
    EXPECT_EQ(kept.name, c.written);
    EXPECT_FALSE(kept.outsideModelFolder);
    const TextureName base = NameTexture(c.written, kFolder, TextureNamePolicy::kBase);
    EXPECT_EQ(base.name, c.base);
    EXPECT_FALSE(base.outsideModelFolder);
    const TextureName relative = NameTexture(c.written, kFolder, TextureNamePolicy::kRelative);
    EXPECT_EQ(relative.name, c.relative);
    EXPECT_EQ(relative.outsideModelFolder, c.outside);
  }
}

TEST(PodImportTextureNames, ModelFolderIsAbsoluteAndResolved) {
  EXPECT_EQ(ModelFolderOf("/home/artist/./x/../models/car.obj"), "/home/artist/models");
  EXPECT_EQ(ModelFolderOf("/car.obj"), "/");
  const std::string here = std::filesystem::current_path().lexically_normal().generic_string();
  EXPECT_EQ(ModelFolderOf("sub/car.obj"), (here == "/" ? "" : here) + "/sub");
}

TEST(PodImportTextureNames, CommandLineTakesThePolicy) {
  const struct {
    std::vector<std::string> args;
    ImportArguments::Outcome outcome;
    TextureNamePolicy policy;
  } cases[] = {
      {{"in.obj", "out.pod"}, ImportArguments::kRun, TextureNamePolicy::kRelative},
      {{"--texture-names", "keep", "in.obj", "out.pod"}, ImportArguments::kRun,
       TextureNamePolicy::kKeep},
      {{"in.obj", "--texture-names=base", "out.pod"}, ImportArguments::kRun,
       TextureNamePolicy::kBase},
      {{"--texture-names", "base", "--texture-names", "relative", "in.obj", "out.pod"},
       ImportArguments::kRun, TextureNamePolicy::kRelative},
      {{"--texture-names", "absolute", "in.obj", "out.pod"}, ImportArguments::kUsageError,
       TextureNamePolicy::kRelative},
      {{"--texture-names=Keep", "in.obj", "out.pod"}, ImportArguments::kUsageError,
       TextureNamePolicy::kRelative},
      {{"in.obj", "out.pod", "--texture-names"}, ImportArguments::kUsageError,
       TextureNamePolicy::kRelative},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const ImportArguments parsed = ParseImportArguments(c.args);
    EXPECT_EQ(parsed.outcome, c.outcome) << parsed.error;
    if (parsed.outcome == ImportArguments::kRun) EXPECT_EQ(parsed.options.textureNames, c.policy);
    else EXPECT_NE(parsed.error.find("--texture-names"), std::string::npos) << parsed.error;
  }
  EXPECT_NE(ImportUsageText().find("--texture-names"), std::string::npos);
}

// One triangle node per texture path, each with a material of its own.
std::unique_ptr<aiScene> TexturedScene(const std::vector<std::string>& textures) {
  auto scene = std::make_unique<aiScene>();
  scene->mRootNode = new aiNode("Root");
  const unsigned int count = static_cast<unsigned int>(textures.size());
  scene->mRootNode->mNumChildren = count;
  scene->mRootNode->mChildren = new aiNode*[count];
  scene->mNumMeshes = scene->mNumMaterials = count;
  scene->mMeshes = new aiMesh*[count];
  scene->mMaterials = new aiMaterial*[count];
  for (unsigned int i = 0; i < count; ++i) {
    aiNode* node = scene->mRootNode->mChildren[i] = new aiNode("Mesh" + std::to_string(i));
    node->mParent = scene->mRootNode;
    node->mNumMeshes = 1;
    node->mMeshes = new unsigned int[1]{i};
    aiMesh* mesh = scene->mMeshes[i] = new aiMesh();
    mesh->mPrimitiveTypes = aiPrimitiveType_TRIANGLE;
    mesh->mMaterialIndex = i;
    mesh->mNumVertices = 3;
    mesh->mVertices = new aiVector3D[3]{{0, 0, float(i)}, {1, 0, float(i)}, {0, 1, float(i)}};
    mesh->mNumFaces = 1;
    mesh->mFaces = new aiFace[1];
    mesh->mFaces[0].mNumIndices = 3;
    mesh->mFaces[0].mIndices = new unsigned int[3]{0, 1, 2};
    aiMaterial* material = scene->mMaterials[i] = new aiMaterial();
    const aiString name("Material" + std::to_string(i));
    material->AddProperty(&name, AI_MATKEY_NAME);
    const aiString texture(textures[i]);
    material->AddProperty(&texture, AI_MATKEY_TEXTURE_DIFFUSE(0));
  }
  return scene;
}

TEST(PodImportTextureNames, SceneAndSummaryNameEachChangeOnce) {
  // Two materials share the first path; two other paths end up with one name.
  const std::unique_ptr<aiScene> source =
      TexturedScene({"D:\\art\\drkwood2.jpg", "D:\\art\\drkwood2.jpg", "textures/wood.png",
                     "../shared/drkwood2.jpg", "/home/artist/models/tex/metal.png"});
  ImportOptions options;
  CPODScene pod;
  ImportSummary summary;
  std::string error;
  ASSERT_TRUE(PODSceneImporter(*source, options, kFolder).Convert(pod, summary, error)) << error;

  ASSERT_EQ(pod.nNumTexture, 3u);
  EXPECT_STREQ(pod.pTexture[0].pszName, "drkwood2.jpg");
  EXPECT_STREQ(pod.pTexture[1].pszName, "textures/wood.png");
  EXPECT_STREQ(pod.pTexture[2].pszName, "tex/metal.png");
  ASSERT_EQ(pod.nNumMaterial, 5u);
  const int expectedTexture[5] = {0, 0, 1, 0, 2};
  for (int m = 0; m < 5; ++m) EXPECT_EQ(pod.pMaterial[m].nIdxTexDiffuse, expectedTexture[m]) << m;

  // Unchanged names are not listed; the shared path is listed once.
  ASSERT_EQ(summary.renamedTextures.size(), 3u);
  EXPECT_EQ(summary.renamedTextures[0].written, "D:\\art\\drkwood2.jpg");
  EXPECT_EQ(summary.renamedTextures[0].name, "drkwood2.jpg");
  EXPECT_EQ(summary.renamedTextures[1].written, "../shared/drkwood2.jpg");
  EXPECT_EQ(summary.renamedTextures[2].name, "tex/metal.png");
  const std::string text = FormatImportSummary(summary, "out.pod");
  EXPECT_NE(text.find("  texture:   \"D:\\art\\drkwood2.jpg\" -> \"drkwood2.jpg\"\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("note: texture \"../shared/drkwood2.jpg\" lies outside the model's folder"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("note: textures \"D:\\art\\drkwood2.jpg\" and \"../shared/drkwood2.jpg\" "
                      "are both named \"drkwood2.jpg\""),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("wood.png\" ->"), std::string::npos) << "an unchanged name is listed";

  options.textureNames = TextureNamePolicy::kKeep;
  ImportSummary keptSummary;
  ASSERT_TRUE(PODSceneImporter(*source, options, kFolder).Convert(pod, keptSummary, error));
  ASSERT_EQ(pod.nNumTexture, 4u);
  EXPECT_STREQ(pod.pTexture[0].pszName, "D:\\art\\drkwood2.jpg");
  EXPECT_TRUE(keptSummary.renamedTextures.empty());
  EXPECT_EQ(FormatImportSummary(keptSummary, "out.pod").find("texture:"), std::string::npos);
}

TEST(PodImportTextureNames, AbsolutePathBelowTheModelFileIsMadeRelativeToIt) {
  // The model folder comes from the input path as given on the command line.
  TempDir dir;
  ASSERT_TRUE(podimport_test::WriteText(
      dir.file("scene.mtl"), "newmtl Wood\nKd 1 1 1\nmap_Kd " + dir.path() + "/tex/wood.png\n"));
  ASSERT_TRUE(podimport_test::WriteText(
      dir.file("scene.obj"), "mtllib scene.mtl\no Crate\nusemtl Wood\nv 0 0 0\nv 1 0 0\n"
                             "v 0 1 0\nf 1 2 3\n"));
  for (const char* policy : {"relative", "keep"}) {
    SCOPED_TRACE(policy);
    const RunResult r = podimport_test::PodImport(
        {"--texture-names", policy, dir.file("scene.obj"), dir.file("scene.pod")});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    CPODScene pod;
    ASSERT_TRUE(pod.ReadFromFile(dir.file("scene.pod").c_str(), nullptr, 0));
    ASSERT_EQ(pod.nNumTexture, 1u);
    const std::string expected =
        std::string(policy) == "keep" ? dir.path() + "/tex/wood.png" : "tex/wood.png";
    EXPECT_EQ(pod.pTexture[0].pszName, expected);
    EXPECT_EQ(r.out.find("texture:") != std::string::npos, std::string(policy) == "relative")
        << r.out;
  }
}

}  // namespace
