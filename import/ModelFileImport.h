#pragma once
// One model file in, one POD file out: reading through the import library, the conversion, the
// checks the converter relies on, and the writing.

#include <string>

#include "import/ImportOptions.h"
#include "import/ImportSummary.h"

namespace korvex::podimport {

// The library's steps run on every file: triangles only, indexed vertices, normals where the
// file has none, points and lines removed, the scene's structure validated.
unsigned int ImportPostProcessSteps();

// Reads `input`, writes `output` with `exportOptions` as its options block. False with a
// one-line `error` (naming the file) when the input cannot be read or converted or the output
// cannot be written; no output file is then created.
bool ImportModelFile(const std::string& input, const std::string& output,
                     const ImportOptions& options, const std::string& exportOptions,
                     ImportSummary& summary, std::string& error);

}  // namespace korvex::podimport
