// Korvex: converts one POD scene into the engine's scene-graph file.
//
//   Korvex [flag] [ignored] input      flag: "-r0" weld exactly equal vertices, "-r1" nearly equal
//
// The command line and the run's surroundings; the conversion itself is RunConversion
// (Conversion.h).

#include <malloc.h>
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

// Arrays of some hundred kilobytes (a mesh's weld, a slice of a stream) come and go on two
// threads at once. Mapped and unmapped one by one, each changes the process's memory map, which
// the other thread's page faults then wait for; kept in the heap, they are reused instead.
void KeepLargeArraysInTheHeap() {
#if defined(__GLIBC__) && defined(M_MMAP_THRESHOLD)
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
#endif
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
  KeepLargeArraysInTheHeap();
  korvex::EndRunOnFailedNew();
  return korvex::RunConversion(request).status;
}
