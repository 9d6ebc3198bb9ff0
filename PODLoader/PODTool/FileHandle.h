#pragma once
// An open stdio file that closes itself. Close() is there for the writer that must know whether
// the last bytes reached the file; a handle that goes out of scope open is closed quietly.

#include <cstdio>
#include <memory>

namespace korvex {

class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(FILE* file) : m_file(file) {}
  FileHandle(const char* path, const char* mode) : m_file(std::fopen(path, mode)) {}

  FILE* get() const { return m_file.get(); }
  explicit operator bool() const { return m_file != nullptr; }
  // Closes the file now; false when the close reported an error (or nothing was open).
  bool Close() {
    FILE* f = m_file.release();
    return f != nullptr && std::fclose(f) == 0;
  }

 private:
  struct Closer {
    void operator()(FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<FILE, Closer> m_file;
};

}  // namespace korvex
