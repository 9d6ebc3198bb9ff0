#pragma once
// Writing a POD file so that its path never holds a partial file: the scene goes to a temporary
// file beside the target, which then replaces the target in one rename.

#include <string>

#include "pod/PODModel.h"

namespace korvex::podimport {

// False with a one-line `error` when the file cannot be written; the target is then as it was
// and no temporary file remains.
bool WritePODFileReplacing(const SPODScene& scene, const std::string& path,
                           const std::string& exportOptions, std::string& error);

}  // namespace korvex::podimport
