#pragma once
// A file written so that its path never holds a partial file: the bytes go to a temporary file
// beside the target, which replaces the target in one rename on Commit. As with a file opened for
// writing, a link is written through and the file replaced keeps its permissions. Destroyed uncommitted,
// the temporary file is removed and the target stays as it was; so it is when the run ends on
// exhausted memory (Diagnostics.h), which removes every temporary file still open.

#include <cstdint>
#include <cstdio>
#include <string>

namespace korvex {

class AtomicFile {
 public:
  explicit AtomicFile(std::string path);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Creates the temporary file; false with error() set when it cannot.
  bool Open();
  // The open temporary file (null before Open or after Commit).
  FILE* file() const { return m_file; }
  // Room on the disk for the `bytes` about to be written, taken in one go where the file system
  // can (its per-block bookkeeping then stays out of the writes); a hint that changes no byte of
  // the file, nor its size.
  void Reserve(uint64_t bytes);
  // Flushes, closes and renames onto the target; false with error() set when any step fails
  // (`writeFailed` reports a failure the writer saw itself, `writeErrno` its cause when known).
  // The temporary file is gone either way.
  bool Commit(bool writeFailed = false, int writeErrno = 0);
  const std::string& error() const { return m_error; }

 private:
  bool Fail(const std::string& what, int error);
  void Discard();
  void Track();
  void Untrack();
  static void RemoveTemporaryFiles();

  // Open files form a list the exit clean-up walks without allocating.
  AtomicFile* m_previousOpen = nullptr;
  AtomicFile* m_nextOpen = nullptr;
  bool m_tracked = false;

  std::string m_path;
  std::string m_target;  // the file replaced: the path, or where a link on it leads
  std::string m_tempPath;
  FILE* m_file = nullptr;
  std::string m_error;
};

}  // namespace korvex
