#include "pod/Diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace korvex {

namespace {

class StandardStreams final : public DiagnosticSink {
 public:
  void Text(const char* bytes, size_t size) override { std::fwrite(bytes, 1, size, stdout); }
  void Problem(const char* line, size_t size) override {
    std::fflush(stdout);
    std::fwrite(line, 1, size, stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
  }
  void Flush() override { std::fflush(stdout); }
};

StandardStreams g_standardStreams;
DiagnosticSink* g_sink = &g_standardStreams;
ExitCleanup g_cleanup = nullptr;
const char* g_program = "Korvex";

void OnFailedNew() { OutOfMemory("memory for the conversion"); }

}  // namespace

DiagnosticSink& Diagnostics() { return *g_sink; }

ScopedDiagnosticSink::ScopedDiagnosticSink(DiagnosticSink* sink) : m_previous(g_sink) {
  g_sink = sink != nullptr ? sink : &g_standardStreams;
}

ScopedDiagnosticSink::~ScopedDiagnosticSink() { g_sink = m_previous; }

namespace {

std::string FormatList(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  char small[256];
  const int length = std::vsnprintf(small, sizeof small, format, args);
  std::string text;
  if (length >= 0 && static_cast<size_t>(length) < sizeof small) {
    text.assign(small, static_cast<size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<size_t>(length) + 1);
    std::vsnprintf(&text[0], text.size(), format, again);
    text.resize(static_cast<size_t>(length));
  }
  va_end(again);
  return text;
}

}  // namespace

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatList(format, args);
  va_end(args);
  return text;
}

void PrintText(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = FormatList(format, args);
  va_end(args);
  g_sink->Text(text.data(), text.size());
}

void PrintText(const std::string& text) { g_sink->Text(text.data(), text.size()); }

void ReportProblem(const std::string& line) { g_sink->Problem(line.data(), line.size()); }

void ReportProblem(const char* line) { g_sink->Problem(line, std::strlen(line)); }

void OutOfMemory(const char* what) {
  // No allocation from here on: the message is built in a fixed buffer.
  char line[256];
  std::snprintf(line, sizeof line, "%s: out of memory (%s)", g_program, what);
  g_sink->Problem(line, std::strlen(line));
  Diagnostics().Flush();
  if (g_cleanup != nullptr) g_cleanup();
  std::_Exit(1);
}

void* AllocateZeroed(size_t count, size_t size, const char* what) {
  void* p = std::calloc(count, size);
  if (p == nullptr && count != 0 && size != 0) OutOfMemory(what);
  return p;
}

void* AllocateUnfilled(size_t bytes, const char* what) {
  void* p = std::malloc(bytes);
  if (p == nullptr && bytes != 0) OutOfMemory(what);
  return p;
}

void SetExitCleanup(ExitCleanup cleanup) { g_cleanup = cleanup; }

void EndRunOnFailedNew(const char* program) {
  g_program = program;
  std::set_new_handler(OnFailedNew);
}

const char* ProgramName() {
  return g_program;
}

}  // namespace korvex
