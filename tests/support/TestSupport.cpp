#include "support/TestSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "pipeline/Conversion.h"
#include "pod/Diagnostics.h"

namespace korvex::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/korvex-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  m_path = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(m_path, ec);
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

static std::string Slurp(int fd) {
  std::string s;
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
  return s;
}

RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::string& cwd) {
  TempDir capture;
  std::string outPath = capture.file("out"), errPath = capture.file("err");
  RunResult r;
  pid_t pid = ::fork();
  if (pid < 0) return r;
  if (pid == 0) {
    if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) _exit(127);
    int o = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (o < 0 || e < 0) _exit(127);
    ::dup2(o, 1);
    ::dup2(e, 2);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (WIFEXITED(status)) r.exitStatus = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) r.exitStatus = 128 + WTERMSIG(status);
  int fo = ::open(outPath.c_str(), O_RDONLY), fe = ::open(errPath.c_str(), O_RDONLY);
  if (fo >= 0) { r.out = Slurp(fo); ::close(fo); }
  if (fe >= 0) { r.err = Slurp(fe); ::close(fe); }
  return r;
}

std::string KorvexExe() { return KORVEX_EXE; }
std::string BinDir() { return KORVEX_BIN_DIR; }
std::string SourceDir() { return KORVEX_SOURCE_DIR; }

namespace {

class CapturingSink final : public korvex::DiagnosticSink {
 public:
  explicit CapturingSink(RunResult& result) : m_result(result) {}
  void Text(const char* bytes, size_t size) override { m_result.out.append(bytes, size); }
  void Problem(const char* line, size_t size) override {
    m_result.err.append(line, size);
    m_result.err.push_back('\n');
  }

 private:
  RunResult& m_result;
};

}  // namespace

RunResult ConvertInProcess(const std::vector<std::string>& args) {
  RunResult result;
  CapturingSink sink(result);
  korvex::ScopedDiagnosticSink use(&sink);
  result.exitStatus = korvex::RunConversion(korvex::RequestFromArguments(args)).status;
  return result;
}

}  // namespace korvex::test
