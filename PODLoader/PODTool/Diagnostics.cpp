#include "pod/Diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

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

void OnFailedNew() { OutOfMemory("memory for the conversion"); }

}  // namespace

DiagnosticSink& Diagnostics() { return *g_sink; }

ScopedDiagnosticSink::ScopedDiagnosticSink(DiagnosticSink* sink) : m_previous(g_sink) {
  g_sink = sink != nullptr ? sink : &g_standardStreams;
}

ScopedDiagnosticSink::~ScopedDiagnosticSink() { g_sink = m_previous; }

void PrintText(const char* format, ...) {
  char small[256];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(length) < sizeof small) {
    va_end(again);
    g_sink->Text(small, static_cast<size_t>(length));
    return;
  }
  std::vector<char> large(static_cast<size_t>(length) + 1);
  std::vsnprintf(large.data(), large.size(), format, again);
  va_end(again);
  g_sink->Text(large.data(), static_cast<size_t>(length));
}

void PrintText(const std::string& text) { g_sink->Text(text.data(), text.size()); }

void ReportProblem(const std::string& line) { g_sink->Problem(line.data(), line.size()); }

void ReportProblem(const char* line) { g_sink->Problem(line, std::strlen(line)); }

void OutOfMemory(const char* what) {
  // No allocation from here on: the message is built in a fixed buffer.
  char line[256];
  std::snprintf(line, sizeof line, "Korvex: out of memory (%s)", what);
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

void SetExitCleanup(ExitCleanup cleanup) { g_cleanup = cleanup; }

void EndRunOnFailedNew() { std::set_new_handler(OnFailedNew); }

}  // namespace korvex
