// GlTarget: where a GPU frame goes, shared by the output renderer and the
// offscreen context that tests and benchmarks draw into.
#pragma once

#include <GLES3/gl3.h>

#include <cstdint>

// The framebuffer a frame goes to. `clear` stands for the load action of the
// first pass: clear to `clearColor`, or keep what is there.
struct GlTarget {
  GLuint framebuffer = 0;
  int32_t width = 0, height = 0;
  bool clear = true;
  float clearColor[4] = {0, 0, 0, 1};
};
