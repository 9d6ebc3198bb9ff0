#pragma once
// Helpers shared by the test suites: temporary directories, file bytes, running the real
// executables with captured output, and running the conversion in process.

#include <cstdint>
#include <string>
#include <vector>

namespace korvex::test {

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return m_path; }
  std::string file(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

std::vector<uint8_t> ReadFileBytes(const std::string& path);
bool WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);
bool FileExists(const std::string& path);

struct RunResult {
  int exitStatus = -1;  // exit code, or 128 + signal number when killed by a signal
  std::string out;
  std::string err;
};

// Runs `program` with `args` in directory `cwd` (empty: the current one), capturing both streams.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::string& cwd = "");

// Runs the conversion in this process with the tool's arguments `args` (flag position first,
// input last), its texts and problem lines captured as the tool's standard output and error.
// Only for runs that end normally: an assertion ends this process too.
RunResult ConvertInProcess(const std::vector<std::string>& args);

// Paths of the built executables (set by the build).
std::string KorvexExe();
std::string BinDir();
std::string SourceDir();

}  // namespace korvex::test
