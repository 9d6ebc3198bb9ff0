#include "PODFileOutput.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace korvex_import {

bool WritePODFileReplacing(const SPODScene& scene, const std::string& path,
                           const std::string& exportOptions, std::string& error) {
  // mkstemp needs the six X at the end of the name.
  std::string temporary = path + ".tmp-XXXXXX";
  std::vector<char> name(temporary.begin(), temporary.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  temporary = name.data();
  // mkstemp makes the file private; give it the mode a plainly created file would have.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);

  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    close(fd);
    unlink(temporary.c_str());
    return false;
  }
  errno = 0;
  bool ok = WritePOD(file, exportOptions.c_str(), scene);
  ok = std::fflush(file) == 0 && ok;
  const int writeErrno = errno;
  ok = std::fclose(file) == 0 && ok;
  if (!ok) {
    error = "cannot write " + path + ": " +
            (writeErrno != 0 ? std::strerror(writeErrno) : "the scene could not be stored");
    unlink(temporary.c_str());
    return false;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace korvex_import
