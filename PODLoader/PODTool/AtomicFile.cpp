#include "pod/AtomicFile.h"

#include "pod/Diagnostics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace korvex {

namespace {
AtomicFile* g_firstOpen = nullptr;
}  // namespace

void AtomicFile::Track() {
  if (m_tracked) return;
  m_nextOpen = g_firstOpen;
  if (g_firstOpen != nullptr) g_firstOpen->m_previousOpen = this;
  g_firstOpen = this;
  m_tracked = true;
  SetExitCleanup(&AtomicFile::RemoveTemporaryFiles);
}

void AtomicFile::Untrack() {
  if (!m_tracked) return;
  if (m_previousOpen != nullptr) m_previousOpen->m_nextOpen = m_nextOpen;
  else g_firstOpen = m_nextOpen;
  if (m_nextOpen != nullptr) m_nextOpen->m_previousOpen = m_previousOpen;
  m_previousOpen = m_nextOpen = nullptr;
  m_tracked = false;
}

void AtomicFile::RemoveTemporaryFiles() {
  for (AtomicFile* f = g_firstOpen; f != nullptr; f = f->m_nextOpen)
    if (!f->m_tempPath.empty()) unlink(f->m_tempPath.c_str());
}

AtomicFile::AtomicFile(std::string path) : m_path(std::move(path)) {}

AtomicFile::~AtomicFile() { Discard(); }

bool AtomicFile::Fail(const std::string& what, int error) {
  m_error = "cannot write " + m_path + ": " + what + (error != 0 ? std::string(": ") + std::strerror(error) : "");
  return false;
}

void AtomicFile::Discard() {
  if (m_file != nullptr) std::fclose(m_file);
  m_file = nullptr;
  if (!m_tempPath.empty()) unlink(m_tempPath.c_str());
  m_tempPath.clear();
  Untrack();
}

bool AtomicFile::Open() {
  Discard();
  // A link is written through, as opening it would: the file it leads to is the one replaced
  // (a link that leads nowhere is replaced itself).
  m_target = m_path;
  if (char* resolved = realpath(m_path.c_str(), nullptr)) {
    m_target = resolved;
    std::free(resolved);
  }
  // mkstemp needs the six X at the end of the name; it never opens an existing file or link.
  std::string name = m_target + ".tmp-XXXXXX";
  const int fd = mkstemp(name.data());
  if (fd < 0) return Fail("cannot create a temporary file beside it", errno);
  m_tempPath = name;
  Track();
  // mkstemp makes the file private; give it the mode of the file it replaces, or the one a
  // plainly created file would have.
  struct stat existing;
  if (stat(m_target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
    fchmod(fd, existing.st_mode & 07777);
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
  }
  m_file = fdopen(fd, "wb");
  if (m_file == nullptr) {
    const int error = errno;
    close(fd);
    Discard();
    return Fail("cannot open the temporary file", error);
  }
  return true;
}

void AtomicFile::Reserve(uint64_t bytes) {
#ifdef FALLOC_FL_KEEP_SIZE
  // A file system without it, or without the room, is left to allocate as the bytes come.
  if (m_file != nullptr && bytes > 0 && bytes <= uint64_t{INT64_MAX})
    (void)fallocate(fileno(m_file), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(bytes));
#else
  (void)bytes;
#endif
}

bool AtomicFile::Commit(bool writeFailed, int writeErrno) {
  if (m_file == nullptr) return Fail("not open", 0);
  errno = 0;
  bool ok = std::fflush(m_file) == 0 && !writeFailed;
  const int writeError = writeErrno != 0 ? writeErrno : errno;
  ok = std::fclose(m_file) == 0 && ok;
  m_file = nullptr;
  if (!ok) {
    Discard();
    return Fail("the write failed", writeError != 0 ? writeError : errno);
  }
  if (std::rename(m_tempPath.c_str(), m_target.c_str()) != 0) {
    const int error = errno;
    Discard();
    return Fail("cannot replace it", error);
  }
  m_tempPath.clear();
  Untrack();
  return true;
}

}  // namespace korvex
