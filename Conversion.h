#pragma once
// The whole conversion of one POD file, as the command line asks for it: read the input
// (options, then scene) -> check -> rename textures (-> weld) -> save <input>.PODx -> read it
// back -> check -> convert -> write <input>.qsn. Its texts and problem lines go to the diagnostic
// sink (Diagnostics.h); a scene that cannot be handled safely is refused with one problem line.
// The tool, the pipeline fuzz target and the driver tests all run it.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

class CPODScene;

namespace korvex {

struct ConversionRequest {
  std::string inputPath;
  bool weld = false;    // "-r0" or "-r1"
  bool nearly = false;  // "-r1": texture coordinates nearly equal
  // Set by a caller that must not abort (a fuzzer): asked, with the reloaded scene, whether the
  // conversion would end in one of its specified assertions. The run then stops there, as it
  // does where the checks see an assertion ahead. The tool leaves it empty: an assertion is its
  // defined outcome.
  std::function<bool(CPODScene&)> assertsAhead;
};

struct ConversionOutcome {
  int status = 0;                       // the tool's exit status
  bool wroteOutput = false;             // the .qsn was written
  size_t nodeHeaders = 0;               // ... with this many node headers
  bool stoppedBeforeAssertion = false;  // see ConversionRequest::assertsAhead
};

// The request of a command line's arguments (the program name not included; 1 to 3 of them):
// only the first one is a flag position, and the input is always the last one.
ConversionRequest RequestFromArguments(const std::vector<std::string>& arguments);

ConversionOutcome RunConversion(const ConversionRequest& request);

}  // namespace korvex
