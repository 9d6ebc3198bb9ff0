#include "view/PngFile.h"

#include <png.h>

#include <cstring>

#include "pod/AtomicFile.h"

namespace korvex::view {

bool WritePng(const std::string& path, const Image& image, std::string& error) {
  korvex::AtomicFile out(path);
  if (!out.Open()) {
    error = out.error();
    return false;
  }
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  png.width = image.width;
  png.height = image.height;
  png.format = PNG_FORMAT_RGBA;
  const bool encoded =
      png_image_write_to_stdio(&png, out.file(), 0, image.rgba.data(), static_cast<png_int_32>(image.width * 4), nullptr) != 0;
  const std::string pngMessage = png.message;
  png_image_free(&png);
  if (!out.Commit(!encoded)) {
    error = encoded ? out.error() : "cannot write " + path + ": " + pngMessage;
    return false;
  }
  return true;
}

bool ReadPng(const std::string& path, Image& image, std::string& error) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&png, path.c_str()) == 0) {
    error = path + ": " + png.message;
    return false;
  }
  png.format = PNG_FORMAT_RGBA;
  image.width = png.width;
  image.height = png.height;
  image.rgba.assign(PNG_IMAGE_SIZE(png), 0);
  if (png_image_finish_read(&png, nullptr, image.rgba.data(), 0, nullptr) == 0) {
    error = path + ": " + png.message;
    png_image_free(&png);
    return false;
  }
  return true;
}

}  // namespace korvex::view
