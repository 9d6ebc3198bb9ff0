#include "import/PODFileOutput.h"

#include "pod/AtomicFile.h"
#include "pod/PODWriter.h"

namespace korvex::podimport {

bool WritePODFileReplacing(const SPODScene& scene, const std::string& path,
                           const std::string& exportOptions, std::string& error) {
  korvex::AtomicFile out(path);
  if (!out.Open()) {
    error = out.error();
    return false;
  }
  const bool written = WritePOD(out.file(), exportOptions.c_str(), scene);
  if (!out.Commit(!written)) {
    error = out.error();
    return false;
  }
  return true;
}

}  // namespace korvex::podimport
