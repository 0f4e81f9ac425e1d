// A GL ES 3 context with no window, and an offscreen framebuffer to draw in.
//
// HeadlessGl opens EGL on Mesa's surfaceless platform (llvmpipe where there
// is no GPU) and makes an ES 3 context current on the calling thread. It
// serves `kavlen render --gpu`, the tests and the benchmarks.
//
// Usage:
//   HeadlessGl gl;
//   std::string err;
//   if (!gl.open(err)) fail(err);
//   GlOffscreen fb;
//   fb.create(1920, 1080, err);
//   renderer->drawFrame(t, fb.target());
//   std::vector<uint8_t> rgba;
//   fb.read(rgba);  // top row first
#pragma once

#include <GLES3/gl3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "gl_target.h"

class HeadlessGl {
 public:
  HeadlessGl() = default;
  ~HeadlessGl();
  HeadlessGl(const HeadlessGl&) = delete;
  HeadlessGl& operator=(const HeadlessGl&) = delete;

  // Opens the display, creates the context and makes it current.
  bool open(std::string& error);
  void close();
  bool isOpen() const { return context_ != nullptr; }
  // Makes the context current again on the calling thread.
  bool makeCurrent();
  // "llvmpipe (...)", or the GPU's name.
  std::string rendererName() const;

  void* display() const { return display_; }
  void* context() const { return context_; }

 private:
  void* display_ = nullptr;
  void* context_ = nullptr;
};

// An RGBA8 framebuffer object of a fixed size.
class GlOffscreen {
 public:
  GlOffscreen() = default;
  ~GlOffscreen();
  GlOffscreen(const GlOffscreen&) = delete;
  GlOffscreen& operator=(const GlOffscreen&) = delete;

  bool create(int32_t width, int32_t height, std::string& error);
  GlTarget target() const;
  // Reads the pixels back as straight RGBA rows, top row first.
  bool read(std::vector<uint8_t>& rgba) const;
  GLuint framebuffer() const { return fbo_; }
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }

 private:
  GLuint fbo_ = 0, color_ = 0;
  int32_t width_ = 0, height_ = 0;
};
