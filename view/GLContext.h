#pragma once
// A headless OpenGL 3.3 core context through EGL's surfaceless platform (no display needed: with
// no GPU, Mesa's software rasteriser draws), and an offscreen multisampled target read back as
// RGBA rows.

#include <cstdint>
#include <string>
#include <vector>

#include "view/Image.h"

namespace korvex::view {

class GLContext {
 public:
  GLContext() = default;
  ~GLContext();
  GLContext(const GLContext&) = delete;
  GLContext& operator=(const GLContext&) = delete;

  // Makes the context current; false with `error` set when the platform cannot give one.
  bool Create(std::string& error);

 private:
  void* m_display = nullptr;  // EGLDisplay
  void* m_context = nullptr;  // EGLContext
};

// A framebuffer with colour and depth at 4 samples a pixel, resolved when read.
class OffscreenTarget {
 public:
  OffscreenTarget() = default;
  ~OffscreenTarget();
  OffscreenTarget(const OffscreenTarget&) = delete;
  OffscreenTarget& operator=(const OffscreenTarget&) = delete;

  // Needs a current context; false with `error` set when the size is beyond the implementation.
  bool Create(uint32_t width, uint32_t height, std::string& error);
  // Binds the multisampled framebuffer for drawing.
  void Bind() const;
  Image Read() const;

 private:
  uint32_t m_width = 0, m_height = 0;
  unsigned m_msFramebuffer = 0, m_msColour = 0, m_msDepth = 0;
  unsigned m_framebuffer = 0, m_colour = 0;
};

}  // namespace korvex::view
