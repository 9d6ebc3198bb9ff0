// podimport: brings a model of a common format (glTF, OBJ, FBX, Collada, ...) into the pipeline
// as a POD file that Korvex converts.
//
//   podimport [options] INPUT OUTPUT.pod        (podimport --help for the options)
//
// Exit status: 0 written, 1 the input could not be read or converted (one message on standard
// error, no output file written), 2 wrong command line.

#include <cstdio>
#include <string>
#include <vector>

#include "import/ImportArguments.h"
#include "import/ModelFileImport.h"
#include "pod/Diagnostics.h"

int main(int argc, char** argv) {
  using namespace korvex::podimport;
  korvex::EndRunOnFailedNew("podimport");
  const std::vector<std::string> all(argv, argv + argc);
  const std::vector<std::string> args(all.begin() + (argc > 0 ? 1 : 0), all.end());
  const ImportArguments parsed = ParseImportArguments(args);
  if (parsed.outcome == ImportArguments::kHelp) {
    std::fputs(ImportUsageText().c_str(), stdout);
    return 0;
  }
  if (parsed.outcome == ImportArguments::kVersion) {
    std::puts("podimport " KORVEX_VERSION);
    return 0;
  }
  if (parsed.outcome == ImportArguments::kUsageError) {
    std::fprintf(stderr, "podimport: %s\n%s", parsed.error.c_str(), ImportUsageText().c_str());
    return 2;
  }
  // The command line goes into the file's options block, which readers take in 2048 bytes.
  std::vector<std::string> line = args;
  line.insert(line.begin(), "podimport");
  const std::string exportOptions = CommandLineText(line, 2047);

  ImportSummary summary;
  std::string error;
  if (!ImportModelFile(parsed.input, parsed.output, parsed.options, exportOptions, summary,
                       error)) {
    std::fprintf(stderr, "podimport: %s\n", error.c_str());
    return 1;
  }
  if (!parsed.options.quiet)
    std::fputs(FormatImportSummary(summary, parsed.output).c_str(), stdout);
  return 0;
}
