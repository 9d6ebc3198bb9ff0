#include "Conversion.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "PODModel.h"
#include "PODReadReport.h"
#include "QelSceneGraphModel.h"
#include "SameFile.h"
#include "SceneGraphConverter.h"
#include "SceneGraphWritter.h"
#include "SceneValidation.h"
#include "TextureRenaming.h"
#include "VertexReduction.h"

namespace korvex {

namespace {

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

const unsigned long kExportOptionsSize = 2048;

// Standard output carries the tool's exact texts; everything else goes to standard error, after
// what standard output holds so far.
void Say(const std::string& line) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", line.c_str());
}

void Warn(const std::string& file, const std::string& text) {
  Say("Korvex: warning: " + file + ": " + text);
}

// A damaged input is converted as far as it was read, but never in silence: why and where the
// read stopped, and the blocks a complete file would have had (or not had) where they were.
void WarnAboutRead(const std::string& file, bool read, const PODReadReport& report) {
  if (!read) Warn(file, report.DescribeFailure() + "; converting what was read");
  const size_t kShown = 10;
  for (size_t i = 0; i < report.irregularities.size() && i < kShown; ++i)
    Warn(file, report.irregularities[i]);
  if (report.irregularityCount > kShown)
    Warn(file, "and " + std::to_string(report.irregularityCount - kShown) +
                   " more irregular blocks");
}

}  // namespace

ConversionOutcome RunConversion(const ConversionRequest& request) {
  const std::string& inputPath = request.inputPath;
  ConversionOutcome outcome;
  auto Ended = [&outcome](int status) {
    outcome.status = status;
    return outcome;
  };
  auto Stopped = [&outcome]() {
    outcome.stoppedBeforeAssertion = true;
    return outcome;
  };
  auto Refused = [&outcome](const CPODScene& scene, const SceneCheck& check, const std::string& file) {
    Say(DescribeSceneCheck(scene, check, file));
    outcome.status = 1;
    return outcome;
  };
  std::printf("Converting %s\n", inputPath.c_str());
  // The name derivation below may end the run abnormally; the line above must be out by then.
  std::fflush(stdout);

  CPODScene inputScene;
  CPODScene reloadedScene;
  // One byte more than the reader may fill, always zero: options text that fills the whole
  // buffer stays terminated when the writer measures it.
  std::unique_ptr<char, FreeDeleter> options(static_cast<char*>(std::calloc(kExportOptionsSize + 1, 1)));
  char* const exportOptions = options.get();
  if (exportOptions == nullptr) {
    Say("Korvex: out of memory");
    return Ended(1);
  }

  // Output: the three characters after the last "." become "qsn". Without any ".", rfind's npos
  // + 1 wraps to 0 and the first three characters are replaced.
  std::string outputPath = inputPath;
  outputPath.replace(outputPath.rfind('.') + 1, 3, "qsn");

  // Without a "/", the intermediate file goes to the file-system root.
  std::string fileName;
  std::string directory;
  const size_t slash = inputPath.rfind('/');
  if (slash == std::string::npos) {
    fileName = inputPath;
    directory = "/";
  } else {
    fileName = inputPath.substr(slash + 1);
    directory = inputPath.substr(0, slash + 1);
  }
  // Up to five characters from the last "." become ".PODx". A file name without "." makes
  // replace throw std::out_of_range, uncaught: the run ends abnormally before any file is opened.
  fileName.replace(fileName.rfind('.'), 5, ".PODx");
  const std::string intermediatePath = directory + fileName;

  PODReadReport optionsReport;
  if (!inputScene.ReadFromFile(inputPath.c_str(), exportOptions, kExportOptionsSize,
                               &optionsReport)) {
    std::printf("Invalid input file\n");
    Say("Korvex: " + inputPath + ": " + optionsReport.DescribeFailure());
    return Ended(1);
  }
  inputScene.Destroy();  // the options call leaves an evaluation state behind
  PODReadReport inputReport;
  const bool inputRead = inputScene.ReadFromFile(inputPath.c_str(), nullptr, 0, &inputReport);
  WarnAboutRead(inputPath, inputRead, inputReport);

  // Each step's data is checked before the step runs, so that a scene that would be refused is
  // refused before anything is written. After a failed read the conversion's needs are left to
  // the check of the reloaded scene: the save settles what the partial scene becomes.
  SceneCheck check = CheckSceneForEdits(inputScene, request.weld);
  if (request.assertsAhead && check.assertionAhead) return Stopped();
  if (check.found()) {
    return Refused(inputScene, check, inputPath);
  }
  for (const std::string& warning : check.warnings) Warn(inputPath, warning);

  renameMeshTextureName(&inputScene);
  // How the meshes are welded travels from the reduction to the save as a value; the scene keeps
  // its streams until then.
  PODWeldPlan welds;
  if (request.weld) welds = reduceMeshVertexForSave(&inputScene, request.nearly);

  check = CheckSceneForSave(inputScene, &welds);
  if (!check.found() && inputRead) check = CheckSceneForConversion(inputScene, true, &welds);
  if (check.found()) {
    return Refused(inputScene, check, inputPath);
  }

  // The input's stream arrays stay in its file, which saving truncates when the intermediate file
  // is the input itself (an input named like its intermediate file, or a link to it): then they
  // are copied out first.
  if (korvex::SameFile(inputPath, intermediatePath) && !PODModelOwnBorrowedArrays(inputScene)) {
    Say("Korvex: out of memory");
    return Ended(1);
  }
  const bool saveSucceeded = inputScene.SavePOD(intermediatePath.c_str(), exportOptions, welds);
  // Nothing reads the input scene again: its memory goes before the intermediate file comes in.
  inputScene.Destroy();

  reloadedScene.ReadFromFile(intermediatePath.c_str(), exportOptions, kExportOptionsSize);
  reloadedScene.Destroy();
  PODReadReport reloadReport;
  const bool reloadSucceeded =
      reloadedScene.ReadFromFile(intermediatePath.c_str(), nullptr, 0, &reloadReport);

  if (reloadSucceeded && saveSucceeded) {
    // The scene that is converted is checked itself. Its nodes are the input's, so the
    // message names the input file.
    const SceneCheck reloadCheck = CheckSceneForConversion(reloadedScene, false);
    if (request.assertsAhead && !reloadCheck.found() &&
        (reloadCheck.assertionAhead || request.assertsAhead(reloadedScene)))
      return Stopped();
    if (reloadCheck.found()) {
        return Refused(reloadedScene, reloadCheck, inputPath);
    }
    // Released at the end of this block (writer, converter, then model), although the process
    // ends right away, so that leak checkers stay quiet.
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    // The records take the reloaded scene's arrays instead of copies: the scene outlives the model.
    converter.setBorrowStreams(true);
    converter.convertFromPOD(&reloadedScene, fileName.c_str());
    SceneGraphWritter writer;
    // The writer has said what went wrong on standard error.
    if (!writer.WritetoFile(outputPath, &model))
      outcome.status = 1;
    else
      outcome.wroteOutput = true;
    outcome.nodeHeaders = model.nodeheader.size();
    std::printf("\n");
  } else {
    std::printf("Invalid input file or save file\n");
    if (!saveSucceeded)
      Say("Korvex: " + intermediatePath +
          ": the edited scene could not be written (a node or material without a name, or a "
          "failed write)");
    else
      Say("Korvex: " + intermediatePath + ": reading it back failed: " +
          reloadReport.DescribeFailure());
  }
  return outcome;
}

}  // namespace korvex
