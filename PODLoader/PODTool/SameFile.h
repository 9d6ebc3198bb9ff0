#pragma once
// Whether two names lead to one existing file (the same device and inode), for a run that must
// not write over the file it reads.

#include <string>

namespace korvex {

bool SameFile(const std::string& a, const std::string& b);

}  // namespace korvex
