#include "import/ImportArguments.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace korvex::podimport {

namespace {

// Whole-string numbers only: "12x", "", " 3" and out-of-range values are refused.
bool ParseInteger(const std::string& text, long long low, long long high, long long& out) {
  if (text.empty() || !(text[0] == '-' || (text[0] >= '0' && text[0] <= '9'))) return false;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  out = value;
  return true;
}

bool ParseRate(const std::string& text, double& out) {
  if (text.empty() || !((text[0] >= '0' && text[0] <= '9') || text[0] == '.')) return false;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  // Above 1000 frames a second the sampling says nothing the keys do not.
  if (errno != 0 || *end != '\0' || !std::isfinite(value) || value <= 0.0 || value > 1000.0)
    return false;
  out = value;
  return true;
}

ImportArguments UsageError(const std::string& what) {
  ImportArguments result;
  result.outcome = ImportArguments::kUsageError;
  result.error = what;
  return result;
}

}  // namespace

ImportArguments ParseImportArguments(const std::vector<std::string>& args) {
  ImportArguments result;
  std::vector<std::string> files;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      files.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      result.outcome = ImportArguments::kHelp;
      return result;
    }
    if (arg == "--version") {
      result.outcome = ImportArguments::kVersion;
      return result;
    }
    if (arg == "--quiet" || arg == "-q") {
      result.options.quiet = true;
      continue;
    }
    std::string name = arg;
    std::string value;
    bool hasValue = false;
    const size_t equals = arg.find('=');
    if (equals != std::string::npos) {
      name = arg.substr(0, equals);
      value = arg.substr(equals + 1);
      hasValue = true;
    }
    if (name != "--frames" && name != "--fps" && name != "--animation" && name != "--max-bones" &&
        name != "--texture-names")
      return UsageError("unknown option " + name);
    if (!hasValue) {
      if (i + 1 >= args.size()) return UsageError(name + " needs a value");
      value = args[++i];
    }
    if (name == "--frames") {
      long long frames = 0;
      if (!ParseInteger(value, 0, kMaxFrames, frames))
        return UsageError("--frames takes a whole number from 0 to " + std::to_string(kMaxFrames) +
                          ", not \"" + value + "\"");
      result.options.maxFrames = frames;
    } else if (name == "--fps") {
      if (!ParseRate(value, result.options.fps))
        return UsageError("--fps takes a number above 0 and at most 1000, not \"" + value + "\"");
    } else if (name == "--texture-names") {
      if (value == "keep") result.options.textureNames = TextureNamePolicy::kKeep;
      else if (value == "base") result.options.textureNames = TextureNamePolicy::kBase;
      else if (value == "relative") result.options.textureNames = TextureNamePolicy::kRelative;
      else return UsageError("--texture-names takes keep, base or relative, not \"" + value + "\"");
    } else if (name == "--animation") {
      if (value.empty()) return UsageError("--animation needs a name or an index");
      result.options.animation = value;
    } else {
      long long bones = 0;
      if (!ParseInteger(value, 1, kMaxBonesLimit, bones))
        return UsageError("--max-bones takes a whole number from 1 to " +
                          std::to_string(kMaxBonesLimit) + ", not \"" + value + "\"");
      result.options.maxBones = static_cast<int>(bones);
    }
  }
  if (files.size() != 2)
    return UsageError(files.size() < 2 ? "an input and an output file are needed"
                                       : "only one input and one output file are taken");
  result.input = files[0];
  result.output = files[1];
  result.outcome = ImportArguments::kRun;
  return result;
}

std::string ImportUsageText() {
  return "Usage: podimport [options] INPUT OUTPUT.pod\n"
         "Reads a model (glTF, OBJ, FBX, Collada and the other formats of the Open Asset Import\n"
         "Library) and writes it as a POD scene that Korvex converts.\n"
         "\n"
         "Options:\n"
         "  --frames N          sample at most N animation frames (0: write a still scene)\n"
         "  --fps F             frames sampled per second of animation (default 30)\n"
         "  --animation NAME|I  the animation to sample, by name or index (default: the first)\n"
         "  --max-bones K       bones per bone batch, 1 to 255 (default 60)\n"
         "  --texture-names P   how texture file names are written: relative (default: the\n"
         "                      path from the model's folder when the texture lies below it,\n"
         "                      else the file name alone), base (the file name alone) or\n"
         "                      keep (as the model gives it)\n"
         "  --quiet             print nothing when all goes well\n"
         "  --help              print this text\n"
         "  --version           print the version\n"
         "\n"
         "Exit status: 0 written, 1 the input could not be read or converted (nothing is\n"
         "written), 2 wrong command line.\n";
}

std::string CommandLineText(const std::vector<std::string>& argv, size_t maxBytes) {
  std::string text;
  for (const std::string& arg : argv) {
    if (!text.empty()) text += ' ';
    if (!arg.empty() && arg.find_first_of(" \t\"'\\") == std::string::npos) {
      text += arg;
      continue;
    }
    text += '"';
    for (char c : arg) {
      if (c == '"' || c == '\\') text += '\\';
      text += c;
    }
    text += '"';
  }
  if (text.size() > maxBytes) text.resize(maxBytes);
  return text;
}

}  // namespace korvex::podimport
