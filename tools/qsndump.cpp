// qsndump: prints a .qsn scene-graph file for people and scripts.
//
//   qsndump [--pod-dir DIR] FILE.qsn           the full dump of every header and record
//   qsndump [--pod-dir DIR] --check FILE.qsn   texture-coordinate warnings of plain meshes
//   qsndump [--pod-dir DIR] --json FILE.qsn    one JSON document describing the file
//   qsndump --version
//
// --pod-dir re-reads the mesh streams from the POD file named in the file header, found in DIR,
// before printing. Exit status: 0 success, 1 unreadable or invalid file (one message on standard
// error), 2 usage error.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "pod/Diagnostics.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphJson.h"
#include "qsn/SceneGraphLoader.h"

namespace {

const int kExitInvalidFile = 1;
const int kExitUsage = 2;

const char* const kUsage =
    "Usage: qsndump [--check | --json] [--pod-dir DIR] FILE.qsn\n"
    "\n"
    "Prints the scene-graph file FILE.qsn: every header and record (default), the\n"
    "texture-coordinate check of its plain meshes (--check), or one JSON document\n"
    "for scripts (--json).\n"
    "\n"
    "  --check        report meshes with more than two or two identical UV sets\n"
    "  --json         print the file header and every node as JSON\n"
    "  --pod-dir DIR  first re-read the mesh streams from the POD file named in the\n"
    "                 file header, looked up in DIR\n"
    "  --help         print this text\n"
    "  --version      print the version\n"
    "\n"
    "Exit status: 0 success, 1 unreadable or invalid file, 2 usage error.\n";

enum class Mode { Dump, Check, Json };

int UsageError(const std::string& what) {
  std::fprintf(stderr, "qsndump: %s\nTry 'qsndump --help'.\n", what.c_str());
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  korvex::EndRunOnFailedNew("qsndump");
  Mode mode = Mode::Dump;
  bool modeGiven = false;
  bool podDirGiven = false;
  std::string podDir;
  std::string file;
  bool fileGiven = false;
  bool optionsEnded = false;

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!optionsEnded && arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (!optionsEnded && arg == "--version") {
      std::puts("qsndump " KORVEX_VERSION);
      return 0;
    }
    if (!optionsEnded && (arg == "--check" || arg == "--json")) {
      const Mode wanted = arg == "--check" ? Mode::Check : Mode::Json;
      if (modeGiven && wanted != mode) return UsageError("--check and --json exclude each other");
      mode = wanted;
      modeGiven = true;
    } else if (!optionsEnded && arg == "--pod-dir") {
      if (i + 1 >= argc) return UsageError("--pod-dir needs a directory");
      if (podDirGiven) return UsageError("--pod-dir given twice");
      podDir = argv[++i];
      podDirGiven = true;
    } else if (!optionsEnded && arg == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
      return UsageError("unknown option '" + arg + "'");
    } else {
      if (fileGiven) return UsageError("only one file can be dumped at a time");
      file = arg;
      fileGiven = true;
    }
  }
  if (!fileGiven) return UsageError("no file given");

  QelSceneGraphModel model;
  SceneGraphLoader loader;
  if (!loader.readFromFile(file, &model)) {
    std::fprintf(stderr, "qsndump: %s\n", loader.lastError().c_str());
    return kExitInvalidFile;
  }

  if (podDirGiven) {
    if (!podDir.empty() && podDir.back() != '/') podDir += '/';
    model.PODDirectory = podDir;
    // The model reads whatever opens; a POD file that is not there is the user's mistake to hear
    // of.
    const std::string podPath =
        podDir + std::string(model.header.PODFilename,
                             strnlen(model.header.PODFilename, sizeof model.header.PODFilename));
    struct stat st;
    if (::stat(podPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !model.openPODFile(podPath)) {
      std::fprintf(stderr, "qsndump: \"%s\": cannot open the POD file named in \"%s\"\n",
                   podPath.c_str(), file.c_str());
      return kExitInvalidFile;
    }
    model.closePODFile();
    model.loadAllNodeDataFromPOD();
  }

  switch (mode) {
    case Mode::Dump:
      model.printModelInfo();
      break;
    case Mode::Check:
      model.printCheckModelInfo();
      break;
    case Mode::Json:
      std::fputs(korvex::SceneGraphToJson(model).c_str(), stdout);
      break;
  }
  // Output that could not be written (a full disk, a closed pipe) is no success either.
  return std::fflush(stdout) == 0 ? 0 : kExitInvalidFile;
}
