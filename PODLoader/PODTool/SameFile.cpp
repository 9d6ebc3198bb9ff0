#include "pod/SameFile.h"

#include <sys/stat.h>

namespace korvex {

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa;
  struct stat sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

}  // namespace korvex
