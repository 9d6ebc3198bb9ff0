#pragma once
// Texture file names as podimport writes them (--texture-names keep|base|relative).
//
// Both "/" and "\" separate folders. Absolute: a path starting with a separator or with a drive
// letter ("D:/art/wood.png", "D:wood.png", "\\server\share\wood.png"). Paths are compared as
// text, "." and ".." resolved; links on this machine are not followed.

#include <string>

#include "import/ImportOptions.h"

namespace korvex::podimport {

struct TextureName {
  std::string name;
  bool outsideModelFolder = false;  // kRelative only: named by its file name for that reason
};

// `written` is the name the model gives; `modelFolder` the absolute folder of the model file, as
// ModelFolderOf makes it. Relative names are taken from the model's folder, as the tools that
// read models look them up. Names written with kRelative and kBase use "/" only.
TextureName NameTexture(const std::string& written, const std::string& modelFolder,
                        TextureNamePolicy policy);

// The absolute folder of the file `modelPath` (relative paths from the current folder), "." and
// ".." resolved, without a trailing "/" (the root is "/").
std::string ModelFolderOf(const std::string& modelPath);

}  // namespace korvex::podimport
