#include "pipeline/Conversion.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "pod/Diagnostics.h"
#include "pod/PODMeshWeld.h"
#include "pod/PODModel.h"
#include "pod/PODReadReport.h"
#include "qsn/QelSceneGraphModel.h"
#include "pod/SameFile.h"
#include "convert/SceneGraphConverter.h"
#include "qsn/SceneGraphWritter.h"
#include "convert/SceneValidation.h"
#include "edit/TextureRenaming.h"
#include "edit/VertexReduction.h"

namespace korvex {

namespace {

const unsigned long kExportOptionsSize = 2048;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// The files of one run, derived from the input path as the tool always has, quirks included.
struct RunFiles {
  std::string input;
  std::string output;        // <input>.qsn
  std::string intermediate;  // <input>.PODx
  std::string name;          // the intermediate file's name without its folder
};

RunFiles DeriveFiles(const std::string& inputPath) {
  RunFiles files;
  files.input = inputPath;
  // Output: the three characters after the last "." become "qsn". Without any ".", rfind's npos
  // + 1 wraps to 0 and the first three characters are replaced.
  files.output = inputPath;
  files.output.replace(files.output.rfind('.') + 1, 3, "qsn");

  // Without a "/", the intermediate file goes to the file-system root.
  std::string directory;
  const size_t slash = inputPath.rfind('/');
  if (slash == std::string::npos) {
    files.name = inputPath;
    directory = "/";
  } else {
    files.name = inputPath.substr(slash + 1);
    directory = inputPath.substr(0, slash + 1);
  }
  // Up to five characters from the last "." become ".PODx". A file name without "." makes
  // replace throw std::out_of_range, uncaught: the run ends abnormally before any file is opened.
  files.name.replace(files.name.rfind('.'), 5, ".PODx");
  files.intermediate = directory + files.name;
  return files;
}

void Warn(const std::string& file, const std::string& text) {
  ReportProblem("Korvex: warning: " + file + ": " + text);
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

// One run, stage by stage. Every stage that can end the run returns false and leaves the
// outcome set; each check runs before the step whose data it checks, so that a scene that
// would be refused is refused before anything is written.
class ConversionRun {
 public:
  explicit ConversionRun(const ConversionRequest& request) : m_request(request) {}

  ConversionOutcome Run() {
    PrintText("Converting %s\n", m_request.inputPath.c_str());
    // The name derivation may end the run abnormally; the line above must be out by then.
    Diagnostics().Flush();
    AllocateOptions();
    m_files = DeriveFiles(m_request.inputPath);

    if (!ReadInput() || !CheckInput()) return m_outcome;
    Edit();
    if (!CheckEdited()) return m_outcome;
    const bool saved = Save();
    const bool reloaded = Reload();
    if (!saved || !reloaded) {
      ReportUnusableIntermediate(saved);
      return m_outcome;
    }
    if (!CheckReloaded()) return m_outcome;
    ConvertAndWrite();
    return m_outcome;
  }

 private:
  // The export options buffer: one byte more than the reader may fill, always zero, so that
  // options text filling the whole buffer stays terminated when the writer measures it.
  void AllocateOptions() {
    m_options.reset(AllocateZeroed<char>(kExportOptionsSize + 1, "the export options"));
  }

  // Read: the export options (a refusal when they cannot be read), then the scene, which a
  // damaged file yields as far as it could be read.
  bool ReadInput() {
    PODReadReport optionsReport;
    if (!m_input.ReadFromFile(m_files.input.c_str(), m_options.get(), kExportOptionsSize,
                              &optionsReport)) {
      PrintText("Invalid input file\n");
      ReportProblem("Korvex: " + m_files.input + ": " + optionsReport.DescribeFailure());
      m_outcome.status = 1;
      return false;
    }
    m_input.Destroy();  // the options call leaves an evaluation state behind
    PODReadReport report;
    m_inputRead = m_input.ReadFromFile(m_files.input.c_str(), nullptr, 0, &report);
    WarnAboutRead(m_files.input, m_inputRead, report);
    return true;
  }

  // Check: what the edits need. After a failed read the conversion's needs are left to the check
  // of the reloaded scene: the save settles what the partial scene becomes.
  bool CheckInput() {
    const SceneCheck check = CheckSceneForEdits(m_input, m_request.weld);
    if (m_request.assertsAhead && check.assertionAhead) return StopBeforeAssertion();
    if (check.found()) return Refuse(m_input, check);
    for (const std::string& warning : check.warnings) Warn(m_files.input, warning);
    return true;
  }

  // Edit: texture names, then (asked for) welding, whose plan travels to the save as a value;
  // the scene keeps its streams until then.
  void Edit() {
    renameMeshTextureName(&m_input);
    if (m_request.weld) m_welds = reduceMeshVertexForSave(&m_input, m_request.nearly);
  }

  // Check: the edited scene must be saveable and, read completely, convertible.
  bool CheckEdited() {
    SceneCheck check = CheckSceneForSave(m_input, &m_welds);
    if (!check.found() && m_inputRead) check = CheckSceneForConversion(m_input, true, &m_welds);
    if (check.found()) return Refuse(m_input, check);
    return true;
  }

  // Save: <input>.PODx. The input's stream arrays stay in its file, which saving truncates when
  // the intermediate file is the input itself (an input named like its intermediate file, or a
  // link to it): then they are copied out first.
  bool Save() {
    if (SameFile(m_files.input, m_files.intermediate)) PODModelOwnBorrowedArrays(m_input);
    const bool saved = m_input.SavePOD(m_files.intermediate.c_str(), m_options.get(), m_welds);
    // Nothing reads the input scene again: its memory goes before the intermediate file comes in.
    m_input.Destroy();
    return saved;
  }

  // Reload: the intermediate file, options first as for the input.
  bool Reload() {
    m_reloaded.ReadFromFile(m_files.intermediate.c_str(), m_options.get(), kExportOptionsSize);
    m_reloaded.Destroy();
    return m_reloaded.ReadFromFile(m_files.intermediate.c_str(), nullptr, 0, &m_reloadReport);
  }

  void ReportUnusableIntermediate(bool saved) {
    PrintText("Invalid input file or save file\n");
    if (!saved)
      ReportProblem("Korvex: " + m_files.intermediate +
                    ": the edited scene could not be written (a node or material without a name, "
                    "or a failed write)");
    else
      ReportProblem("Korvex: " + m_files.intermediate +
                    ": reading it back failed: " + m_reloadReport.DescribeFailure());
  }

  // Check: the scene that is converted is checked itself. Its nodes are the input's, so a
  // message names the input file.
  bool CheckReloaded() {
    const SceneCheck check = CheckSceneForConversion(m_reloaded, false);
    if (m_request.assertsAhead && !check.found() &&
        (check.assertionAhead || m_request.assertsAhead(m_reloaded)))
      return StopBeforeAssertion();
    if (check.found()) return Refuse(m_reloaded, check);
    return true;
  }

  // Convert, then write <input>.qsn.
  void ConvertAndWrite() {
    // Released at the end of this call (writer, converter, then model), although the process
    // ends right away, so that leak checkers stay quiet.
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    // The records take the reloaded scene's arrays instead of copies: the scene outlives the model.
    converter.setBorrowStreams(true);
    converter.convertFromPOD(&m_reloaded, m_files.name.c_str());
    SceneGraphWritter writer;
    // The writer has said what went wrong.
    if (!writer.WritetoFile(m_files.output, &model))
      m_outcome.status = 1;
    else
      m_outcome.wroteOutput = true;
    m_outcome.nodeHeaders = model.nodeheader.size();
    PrintText("\n");
  }

  bool Refuse(const CPODScene& scene, const SceneCheck& check) {
    ReportProblem(DescribeSceneCheck(scene, check, m_files.input));
    m_outcome.status = 1;
    return false;
  }

  bool StopBeforeAssertion() {
    m_outcome.stoppedBeforeAssertion = true;
    return false;
  }

  const ConversionRequest& m_request;
  ConversionOutcome m_outcome;
  RunFiles m_files;
  std::unique_ptr<char, FreeDeleter> m_options;
  CPODScene m_input;
  bool m_inputRead = false;
  PODWeldPlan m_welds;
  CPODScene m_reloaded;
  PODReadReport m_reloadReport;
};

}  // namespace

ConversionRequest RequestFromArguments(const std::vector<std::string>& arguments) {
  ConversionRequest request;
  if (arguments.empty()) return request;
  const std::string& first = arguments.front();
  request.weld = first == "-r0" || first == "-r1";
  request.nearly = first == "-r1";
  request.inputPath = arguments.back();
  return request;
}

ConversionOutcome RunConversion(const ConversionRequest& request) {
  return ConversionRun(request).Run();
}

}  // namespace korvex
