#pragma once
// An image as the viewer makes and writes it.

#include <cstdint>
#include <vector>

namespace korvex::view {

// RGBA, 8 bits a channel, top row first.
struct Image {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> rgba;

  const uint8_t* pixel(uint32_t x, uint32_t y) const { return rgba.data() + (size_t{y} * width + x) * 4; }
};

}  // namespace korvex::view
