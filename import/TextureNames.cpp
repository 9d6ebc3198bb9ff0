#include "import/TextureNames.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <vector>

namespace korvex::podimport {

namespace {

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

bool HasDriveLetter(const std::string& path) {
  return path.size() >= 2 && std::isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':';
}

// The folder names and file name of `path`, "." and empty ones dropped, ".." taking back the
// one before it. False when a ".." climbs above where the path starts.
bool Components(const std::string& path, std::vector<std::string>& out) {
  out.clear();
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = start;
    while (end < path.size() && !IsSeparator(path[end])) ++end;
    const std::string part = path.substr(start, end - start);
    if (part == "..") {
      if (out.empty()) return false;
      out.pop_back();
    } else if (!part.empty() && part != ".") {
      out.push_back(part);
    }
    start = end + 1;
  }
  return true;
}

std::string Joined(const std::vector<std::string>& parts, size_t from) {
  std::string text;
  for (size_t i = from; i < parts.size(); ++i) text += (i > from ? "/" : "") + parts[i];
  return text;
}

std::string BaseName(const std::string& path) {
  size_t start = HasDriveLetter(path) ? 2 : 0;
  for (size_t i = start; i < path.size(); ++i)
    if (IsSeparator(path[i])) start = i + 1;
  return path.substr(start);
}

}  // namespace

TextureName NameTexture(const std::string& written, const std::string& modelFolder,
                        TextureNamePolicy policy) {
  switch (policy) {
    case TextureNamePolicy::kKeep:
      return {written, false};
    case TextureNamePolicy::kBase:
      return {BaseName(written), false};
    case TextureNamePolicy::kRelative:
      break;
  }
  if (written.empty()) return {written, false};
  std::vector<std::string> parts;
  if (HasDriveLetter(written) || written[0] == '\\') {
    // A Windows path: never below a folder of this machine.
  } else if (written[0] == '/') {
    std::vector<std::string> folder;
    if (Components(written, parts) && Components(modelFolder, folder) &&
        parts.size() > folder.size() &&
        std::equal(folder.begin(), folder.end(), parts.begin()))
      return {Joined(parts, folder.size()), false};
  } else if (Components(written, parts) && !parts.empty()) {
    return {Joined(parts, 0), false};
  }
  return {BaseName(written), true};
}

std::string ModelFolderOf(const std::string& modelPath) {
  std::error_code error;
  std::filesystem::path path = std::filesystem::absolute(modelPath, error);
  if (error) path = std::filesystem::path("/") / modelPath;
  std::string folder = path.lexically_normal().parent_path().generic_string();
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder.empty() ? "/" : folder;
}

}  // namespace korvex::podimport
