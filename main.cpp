// Korvex: converts one POD scene into the engine's scene-graph file.
//
//   Korvex [flag] [ignored] input      flag: "-r0" weld exactly equal vertices, "-r1" nearly equal
//
// The command line and the run's surroundings; the conversion itself is RunConversion
// (Conversion.h).

#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pipeline/Conversion.h"
#include "pod/Diagnostics.h"

namespace {

// The input and intermediate files are mapped rather than copied into memory. Should another
// process shorten one of them while this run uses it, touching the lost part raises SIGBUS: the
// run then ends as for an unreadable input, with a message and status 1, instead of a crash.
void OnMappedFileShortened(int) {
  static const char kMessage[] = "Korvex: a file being read was shortened by another process\n";
  const ssize_t written = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  (void)written;
  _exit(1);
}

void EndRunWhenAMappedFileShrinks() {
  struct sigaction action {};
  action.sa_handler = OnMappedFileShortened;
  sigemptyset(&action.sa_mask);
  sigaction(SIGBUS, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    korvex::PrintText("The correct format is: Korvex file1\n");
    return 1;
  }
  const korvex::ConversionRequest request =
      korvex::RequestFromArguments(std::vector<std::string>(argv + 1, argv + argc));
  EndRunWhenAMappedFileShrinks();
  korvex::EndRunOnFailedNew();
  return korvex::RunConversion(request).status;
}
