#include "import/ModelFileImport.h"

#include <assimp/config.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <sys/stat.h>

#include <assimp/Importer.hpp>
#include <cerrno>
#include <cstring>
#include <exception>

#include "import/PODFileOutput.h"
#include "import/PODSceneImporter.h"
#include "pod/SameFile.h"
#include "convert/SceneValidation.h"

namespace korvex::podimport {

unsigned int ImportPostProcessSteps() {
  return aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_SortByPType |
         aiProcess_GenSmoothNormals | aiProcess_ValidateDataStructure;
}

namespace {

bool ReadableFile(const std::string& path, std::string& error) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    error = "cannot read " + path + ": it is a directory";
    return false;
  }
  return true;
}

bool ImportAndWrite(const std::string& input, const std::string& output,
                    const ImportOptions& options, const std::string& exportOptions,
                    ImportSummary& summary, std::string& error) {
  Assimp::Importer importer;
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                              aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  // Read first and post-processed after, so that a file without triangles is told as such
  // rather than by the library's validation.
  const aiScene* scene = importer.ReadFile(input, 0);
  if (scene != nullptr) {
    bool triangles = false;
    const unsigned int meshes = scene->mMeshes ? scene->mNumMeshes : 0;
    for (unsigned int m = 0; m < meshes; ++m) {
      const aiMesh* mesh = scene->mMeshes[m];
      if (mesh && (mesh->mPrimitiveTypes & (aiPrimitiveType_TRIANGLE | aiPrimitiveType_POLYGON)))
        triangles = true;
    }
    if (!triangles) {
      error = "cannot convert " + input + ": the file holds " +
              (meshes == 0 ? "no meshes" : "no triangles (only points or lines)");
      return false;
    }
    scene = importer.ApplyPostProcessing(ImportPostProcessSteps());
  }
  if (scene == nullptr) {
    const char* why = importer.GetErrorString();
    error = "cannot read " + input + ": " + (why && *why ? why : "not a model file it can read");
    return false;
  }
  CPODScene pod;
  PODSceneImporter converter(*scene, options, ModelFolderOf(input));
  std::string problem;
  if (!converter.Convert(pod, summary, problem)) {
    error = "cannot convert " + input + ": " + problem;
    return false;
  }
  importer.FreeScene();
  // The scene must pass the checks Korvex makes before it converts; a failure here is a fault of
  // this tool, reported rather than written.
  SceneCheck check = CheckSceneForEdits(pod, false);
  if (!check.found()) check = CheckSceneForSave(pod);
  if (!check.found()) check = CheckSceneForConversion(pod, false);
  if (check.found() || check.assertionAhead) {
    error = "cannot convert " + input + ": the scene made of it would not pass Korvex (" +
            (check.found() ? DescribeSceneCheck(pod, check, output) : "an assertion") + ")";
    return false;
  }
  return WritePODFileReplacing(pod, output, exportOptions, error);
}

}  // namespace

bool ImportModelFile(const std::string& input, const std::string& output,
                     const ImportOptions& options, const std::string& exportOptions,
                     ImportSummary& summary, std::string& error) {
  if (!ReadableFile(input, error)) return false;
  if (korvex::SameFile(input, output)) {
    error = "cannot write " + output + ": it is the input file";
    return false;
  }
  try {
    return ImportAndWrite(input, output, options, exportOptions, summary, error);
  } catch (const std::exception& e) {  // the library's way of saying a file cannot be read
    error = "cannot read " + input + ": " + e.what();
  }
  return false;
}

}  // namespace korvex::podimport
