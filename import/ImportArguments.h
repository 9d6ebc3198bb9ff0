#pragma once
// The podimport command line: [options] INPUT OUTPUT.pod.

#include <string>
#include <vector>

#include "import/ImportOptions.h"

namespace korvex::podimport {

struct ImportArguments {
  enum Outcome { kRun, kHelp, kVersion, kUsageError };
  Outcome outcome = kUsageError;
  ImportOptions options;
  std::string input;
  std::string output;
  std::string error;  // what is wrong with the command line, for kUsageError
};

// `args` are the arguments after the program name. Options may stand anywhere; "--" ends them.
// Values follow as the next argument or after "=" ("--fps 24", "--fps=24").
ImportArguments ParseImportArguments(const std::vector<std::string>& args);

std::string ImportUsageText();

// The command line as one line of text, for the export-options block of the written file:
// arguments holding spaces or quotes are quoted, and the text is cut to `maxBytes` bytes.
std::string CommandLineText(const std::vector<std::string>& argv, size_t maxBytes);

}  // namespace korvex::podimport
