// qsnview: renders a .qsn scene-graph file to a PNG image, headless.
//
//   qsnview [options] FILE.qsn OUT.png
//
// Exit status: 0 when the image is written, 1 when the file cannot be read or rendered (one
// message on standard error; OUT.png is then neither created nor changed), 2 for a wrong command
// line. Nodes that cannot be drawn are named on standard error and left out.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pod/Diagnostics.h"
#include "view/PngFile.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "view/SceneRenderer.h"
#include "view/ViewScene.h"

namespace {

using namespace korvex::view;

const int kExitFailed = 1;
const int kExitUsage = 2;
// Large enough for a poster, small enough that the image fits in memory: rendering takes about
// 44 bytes a pixel (multisampled colour and depth, the resolved image, its copies), so 2^26
// pixels take some 3 GB.
const uint32_t kMaxSide = 16384;
const uint64_t kMaxPixels = uint64_t{1} << 26;
const uint32_t kMaxCells = 1024;

const char* const kUsage =
    "Usage: qsnview [options] FILE.qsn OUT.png\n"
    "\n"
    "Renders the scene-graph file FILE.qsn to the PNG image OUT.png.\n"
    "\n"
    "  --size WxH        image size (default 800x600)\n"
    "  --frame N         frame of an animated scene (default 0)\n"
    "  --sheet [CxR]     a contact sheet of C x R evenly spaced frames (default 4x4)\n"
    "  --camera NAME     view through this camera of the scene (default: the first\n"
    "                    camera, or an automatic view of the whole scene)\n"
    "  --auto-view       the automatic view even when the scene has cameras\n"
    "  --bounds          draw each mesh's bounding sphere and box\n"
    "  --uv              shade by texture coordinates with a checker pattern\n"
    "  --pod-dir DIR     re-read the mesh streams from the POD file named in the file\n"
    "                    header, looked up in DIR\n"
    "  --help            print this text\n"
    "  --version         print the version\n"
    "\n"
    "Exit status: 0 image written, 1 file unreadable or not rendered, 2 usage error.\n";

int UsageError(const std::string& what) {
  std::fprintf(stderr, "qsnview: %s\nTry 'qsnview --help'.\n", what.c_str());
  return kExitUsage;
}

int Failed(const std::string& what) {
  std::fprintf(stderr, "qsnview: %s\n", what.c_str());
  return kExitFailed;
}

bool ParseNumber(const std::string& text, uint32_t& out) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  out = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  return true;
}

// "WxH" with both parts at least 1.
bool ParsePair(const std::string& text, uint32_t& a, uint32_t& b) {
  const size_t x = text.find('x');
  return x != std::string::npos && ParseNumber(text.substr(0, x), a) && ParseNumber(text.substr(x + 1), b) && a > 0 &&
         b > 0;
}

struct Options {
  uint32_t width = 800, height = 600;
  uint32_t frame = 0;
  bool frameGiven = false;
  bool sheet = false;
  uint32_t columns = 4, rows = 4;
  bool cameraGiven = false;
  std::string camera;
  bool autoView = false;
  bool podDirGiven = false;
  std::string podDir;
  DrawOptions draw;
  std::string input, output;
};

// 0 when the options are read, otherwise the exit status.
int ParseCommandLine(int argc, char** argv, Options& o, bool& help, bool& version) {
  int files = 0;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool option = !optionsEnded && arg.size() > 1 && arg[0] == '-';
    // The option's value, or null (after the usage message) when the command line ends first.
    auto value = [&](const char* what) -> const char* {
      if (i + 1 < argc) return argv[++i];
      UsageError(arg + " needs " + what);
      return nullptr;
    };
    if (!option) {
      if (files == 0) o.input = arg;
      else if (files == 1) o.output = arg;
      else return UsageError("one input file and one image only");
      ++files;
    } else if (arg == "--") {
      optionsEnded = true;
    } else if (arg == "--help") {
      help = true;
      return 0;
    } else if (arg == "--version") {
      version = true;
      return 0;
    } else if (arg == "--size") {
      const char* v = value("a size WxH");
      if (v == nullptr) return kExitUsage;
      if (!ParsePair(v, o.width, o.height) || o.width > kMaxSide || o.height > kMaxSide ||
          uint64_t{o.width} * o.height > kMaxPixels)
        return UsageError("--size takes WxH, each from 1 to " + std::to_string(kMaxSide) + ", " +
                          std::to_string(kMaxPixels) + " pixels at most");
    } else if (arg == "--frame") {
      const char* v = value("a frame number");
      if (v == nullptr) return kExitUsage;
      if (!ParseNumber(v, o.frame)) return UsageError("--frame takes a frame number from 0");
      o.frameGiven = true;
    } else if (arg == "--sheet") {
      o.sheet = true;
      // The layout is optional: taken when the next argument has its form.
      if (i + 1 < argc && ParsePair(argv[i + 1], o.columns, o.rows)) ++i;
      else if (i + 1 < argc && std::strchr(argv[i + 1], 'x') != nullptr && argv[i + 1][0] >= '0' && argv[i + 1][0] <= '9')
        return UsageError("--sheet takes CxR, each at least 1");
      if (uint64_t{o.columns} * o.rows > kMaxCells) return UsageError("--sheet has at most " + std::to_string(kMaxCells) + " cells");
    } else if (arg == "--camera") {
      const char* v = value("a camera name");
      if (v == nullptr) return kExitUsage;
      o.camera = v;
      o.cameraGiven = true;
    } else if (arg == "--auto-view") {
      o.autoView = true;
    } else if (arg == "--bounds") {
      o.draw.bounds = true;
    } else if (arg == "--uv") {
      o.draw.uvChecker = true;
    } else if (arg == "--pod-dir") {
      const char* v = value("a directory");
      if (v == nullptr) return kExitUsage;
      o.podDir = v;
      o.podDirGiven = true;
    } else {
      return UsageError("unknown option '" + arg + "'");
    }
  }
  if (files < 2) return UsageError(files == 0 ? "no file given" : "no output image given");
  if (o.sheet && o.frameGiven) return UsageError("--frame and --sheet exclude each other");
  if (o.autoView && o.cameraGiven) return UsageError("--camera and --auto-view exclude each other");
  if (o.sheet && (o.width < o.columns || o.height < o.rows))
    return UsageError("the image is smaller than one pixel a cell of the sheet");
  return 0;
}

// Re-reads the mesh streams from the POD file named in the header, as qsndump does.
bool LoadPODStreams(QelSceneGraphModel& model, std::string dir, const std::string& file) {
  if (!dir.empty() && dir.back() != '/') dir += '/';
  model.PODDirectory = dir;
  const std::string podPath =
      dir + std::string(model.header.PODFilename, strnlen(model.header.PODFilename, sizeof model.header.PODFilename));
  struct stat st;
  if (::stat(podPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !model.openPODFile(podPath)) {
    Failed("\"" + podPath + "\": cannot open the POD file named in \"" + file + "\"");
    return false;
  }
  model.closePODFile();
  model.loadAllNodeDataFromPOD();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  korvex::EndRunOnFailedNew("qsnview");
  Options o;
  bool help = false, version = false;
  if (const int status = ParseCommandLine(argc, argv, o, help, version)) return status;
  if (help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (version) {
    std::puts("qsnview " KORVEX_VERSION);
    return 0;
  }

  QelSceneGraphModel model;
  SceneGraphLoader loader;
  if (!loader.readFromFile(o.input, &model)) return Failed(loader.lastError());
  if (o.podDirGiven && !LoadPODStreams(model, o.podDir, o.input)) return kExitFailed;

  const ViewScene scene = BuildViewScene(model, o.podDirGiven);
  for (const std::string& why : scene.skipped) std::fprintf(stderr, "qsnview: %s: %s; not drawn\n", o.input.c_str(), why.c_str());

  const DrawCamera* camera = scene.cameras.empty() || o.autoView ? nullptr : &scene.cameras.front();
  if (o.cameraGiven) {
    camera = nullptr;
    for (const DrawCamera& c : scene.cameras)
      if (c.name == o.camera) {
        camera = &c;
        break;
      }
    if (camera == nullptr) return Failed(o.input + ": no camera named \"" + o.camera + "\"");
  }
  const uint32_t frames = std::max(scene.frameCount, 1u);
  if (o.frame >= frames)
    return Failed(o.input + ": frame " + std::to_string(o.frame) + " is beyond the scene's " + std::to_string(frames) +
                  (frames == 1 ? " frame" : " frames"));

  RenderRequest request;
  request.width = o.width;
  request.height = o.height;
  request.columns = o.sheet ? o.columns : 1;
  request.rows = o.sheet ? o.rows : 1;
  request.camera = camera;
  request.options = o.draw;
  const uint32_t cells = request.columns * request.rows;
  request.frames.clear();
  for (uint32_t cell = 0; cell < cells; ++cell) {
    // Evenly spaced from the first frame to the last (rounded to the nearest).
    request.frames.push_back(!o.sheet   ? o.frame
                             : cells == 1 ? 0
                                          : static_cast<uint32_t>((uint64_t{cell} * (frames - 1) * 2 + (cells - 1)) /
                                                                  (2 * uint64_t{cells - 1})));
  }
  Image image;
  std::string error;
  if (!RenderScene(scene, request, image, error)) return Failed("cannot render " + o.input + ": " + error);
  if (!WritePng(o.output, image, error)) return Failed(error);
  return 0;
}
