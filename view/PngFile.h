#pragma once
// PNG files of RGBA images, written so that the target never holds a partial file.

#include <string>

#include "view/Image.h"

namespace korvex::view {

// False with `error` set when the file cannot be written; the target is then as it was.
bool WritePng(const std::string& path, const Image& image, std::string& error);

// The image of a PNG file as RGBA; false with `error` set when it cannot be read.
bool ReadPng(const std::string& path, Image& image, std::string& error);

}  // namespace korvex::view
