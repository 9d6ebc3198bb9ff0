#include "view/GLContext.h"

#define GL_GLEXT_PROTOTYPES 1
#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GL/gl.h>
#include <GL/glext.h>

#include <algorithm>
#include <cstring>

namespace korvex::view {

namespace {

std::string EGLErrorText(const char* step) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%04x", static_cast<unsigned>(eglGetError()));
  return std::string(step) + " failed (EGL error " + code + ")";
}

}  // namespace

GLContext::~GLContext() {
  if (m_display == nullptr) return;
  eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  if (m_context != nullptr) eglDestroyContext(m_display, m_context);
  // The display is one per process and stays initialised: terminating it unloads the driver,
  // which strands allocations it still holds (the leak checker then reports them).
}

bool GLContext::Create(std::string& error) {
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (getPlatformDisplay == nullptr) {
    error = "EGL cannot choose a platform (no EGL_EXT_platform_base)";
    return false;
  }
  EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  if (display == EGL_NO_DISPLAY) {
    error = EGLErrorText("opening the surfaceless EGL platform");
    return false;
  }
  if (!eglInitialize(display, nullptr, nullptr)) {
    error = EGLErrorText("initialising EGL");
    return false;
  }
  m_display = display;
  if (!eglBindAPI(EGL_OPENGL_API)) {
    error = EGLErrorText("choosing OpenGL");
    return false;
  }
  const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_NONE};
  EGLConfig config = nullptr;
  EGLint configs = 0;
  // Nothing is drawn to an EGL surface, so a context without a configuration does as well.
  if (!eglChooseConfig(display, configAttributes, &config, 1, &configs) || configs == 0) config = nullptr;
  const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 3,
                                      EGL_CONTEXT_OPENGL_PROFILE_MASK, EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT,
                                      EGL_NONE};
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
  if (context == EGL_NO_CONTEXT) {
    error = EGLErrorText("creating an OpenGL 3.3 core context");
    return false;
  }
  m_context = context;
  if (!eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context)) {
    error = EGLErrorText("making the OpenGL context current");
    return false;
  }
  return true;
}

OffscreenTarget::~OffscreenTarget() {
  const GLuint framebuffers[] = {m_msFramebuffer, m_framebuffer};
  const GLuint renderbuffers[] = {m_msColour, m_msDepth, m_colour};
  glDeleteFramebuffers(2, framebuffers);
  glDeleteRenderbuffers(3, renderbuffers);
}

bool OffscreenTarget::Create(uint32_t width, uint32_t height, std::string& error) {
  GLint largest = 0;
  glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &largest);
  if (width == 0 || height == 0 || width > static_cast<uint32_t>(largest) || height > static_cast<uint32_t>(largest)) {
    error = "an image of " + std::to_string(width) + "x" + std::to_string(height) +
            " is beyond this OpenGL implementation (at most " + std::to_string(largest) + " a side)";
    return false;
  }
  m_width = width;
  m_height = height;
  GLint samples = 0;
  glGetIntegerv(GL_MAX_SAMPLES, &samples);
  samples = std::min(samples, 4);

  glGenRenderbuffers(1, &m_msColour);
  glBindRenderbuffer(GL_RENDERBUFFER, m_msColour);
  glRenderbufferStorageMultisample(GL_RENDERBUFFER, samples, GL_RGBA8, width, height);
  glGenRenderbuffers(1, &m_msDepth);
  glBindRenderbuffer(GL_RENDERBUFFER, m_msDepth);
  glRenderbufferStorageMultisample(GL_RENDERBUFFER, samples, GL_DEPTH_COMPONENT24, width, height);
  glGenFramebuffers(1, &m_msFramebuffer);
  glBindFramebuffer(GL_FRAMEBUFFER, m_msFramebuffer);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, m_msColour);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, m_msDepth);
  const bool multisampledComplete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;

  glGenRenderbuffers(1, &m_colour);
  glBindRenderbuffer(GL_RENDERBUFFER, m_colour);
  glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, width, height);
  glGenFramebuffers(1, &m_framebuffer);
  glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, m_colour);
  const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
  if (!multisampledComplete || !complete || glGetError() != GL_NO_ERROR) {
    error = "cannot make an offscreen image of " + std::to_string(width) + "x" + std::to_string(height);
    return false;
  }
  return true;
}

void OffscreenTarget::Bind() const {
  glBindFramebuffer(GL_FRAMEBUFFER, m_msFramebuffer);
  glViewport(0, 0, m_width, m_height);
}

Image OffscreenTarget::Read() const {
  glDisable(GL_SCISSOR_TEST);  // the blit would keep to the scissor box
  glBindFramebuffer(GL_READ_FRAMEBUFFER, m_msFramebuffer);
  glBindFramebuffer(GL_DRAW_FRAMEBUFFER, m_framebuffer);
  glBlitFramebuffer(0, 0, m_width, m_height, 0, 0, m_width, m_height, GL_COLOR_BUFFER_BIT, GL_NEAREST);
  glBindFramebuffer(GL_READ_FRAMEBUFFER, m_framebuffer);
  Image image;
  image.width = m_width;
  image.height = m_height;
  const size_t row = size_t{m_width} * 4;
  std::vector<uint8_t> bottomUp(row * m_height);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, m_width, m_height, GL_RGBA, GL_UNSIGNED_BYTE, bottomUp.data());
  image.rgba.resize(bottomUp.size());
  for (uint32_t y = 0; y < m_height; ++y)
    std::memcpy(image.rgba.data() + row * y, bottomUp.data() + row * (m_height - 1 - y), row);
  return image;
}

}  // namespace korvex::view
