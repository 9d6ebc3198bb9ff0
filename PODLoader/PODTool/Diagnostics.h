#pragma once
// Where every message of the conversion goes. Library code says what a message is, never which
// stream carries it:
//   - PrintText: the tool's own texts ("Converting ...", "Invalid input file", the counts, the
//     dump), byte for byte as the tool has always written them;
//   - ReportProblem: one line about something that went wrong or was worked around (refusals,
//     warnings, notes, the assertion lines, out of memory).
// The sink installed decides the channels. The default one writes texts to standard output and
// problem lines to standard error, after flushing what standard output holds so that the two
// interleave as they happened. Tests install a sink that keeps both.

#include <cstddef>
#include <string>

namespace korvex {

class DiagnosticSink {
 public:
  virtual ~DiagnosticSink() = default;
  virtual void Text(const char* bytes, size_t size) = 0;
  // One line, without its line end.
  virtual void Problem(const char* line, size_t size) = 0;
  // Hands on what has been sent so far, for a run that may end abnormally next.
  virtual void Flush() {}
};

// The sink in use; the standard streams' sink unless another was installed.
DiagnosticSink& Diagnostics();

// Installs `sink` (null: the standard streams again) for as long as this object lives.
class ScopedDiagnosticSink {
 public:
  explicit ScopedDiagnosticSink(DiagnosticSink* sink);
  ~ScopedDiagnosticSink();
  ScopedDiagnosticSink(const ScopedDiagnosticSink&) = delete;
  ScopedDiagnosticSink& operator=(const ScopedDiagnosticSink&) = delete;

 private:
  DiagnosticSink* m_previous;
};

// printf into a string, for message texts.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

void PrintText(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PrintText(const std::string& text);
void ReportProblem(const std::string& line);
void ReportProblem(const char* line);

// The one answer to exhausted memory outside the POD reader (whose allocations fail as the format
// defines, with a false return): one problem line naming what could not be allocated, then the
// run ends with status 1. Nothing half-written is left behind: files are only ever written
// through a temporary file that is renamed when complete, and pending ones are removed here.
[[noreturn]] void OutOfMemory(const char* what);

// calloc that never comes back empty-handed for a non-empty request: exhaustion ends the run
// through OutOfMemory, naming `what`.
void* AllocateZeroed(size_t count, size_t size, const char* what);
template <class T>
T* AllocateZeroed(size_t count, const char* what) {
  return static_cast<T*>(AllocateZeroed(count, sizeof(T), what));
}
// The same for a block whose every byte is written before it is read: nothing is zeroed.
void* AllocateUnfilled(size_t bytes, const char* what);

// Called by OutOfMemory before the run ends (the atomic writer's clean-up of its temporary files).
using ExitCleanup = void (*)();
void SetExitCleanup(ExitCleanup cleanup);

// Makes a failed `new` anywhere end the run through OutOfMemory, whose line then names `program`
// ("Korvex" unless said otherwise).
void EndRunOnFailedNew(const char* program = "Korvex");
// The program so named, for the problem lines library code words itself.
const char* ProgramName();

}  // namespace korvex
