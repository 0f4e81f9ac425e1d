// The engine's compositor source compiled once more into the test binary.
// Its internal entry point takes prepared layers, which the exported
// interface does not, and it lets a test pick the plain or the vector path.
// The exported name is renamed so that this copy cannot stand in for the
// library's own.
#define kvl_render_frame kvl_render_frame_test_copy
#include "../src/engine/kvl_render.cpp"
#undef kvl_render_frame

#include "render_reference.h"

namespace embedded {

bool simd_available() { return cpu_has_avx2(); }

bool wide_available() { return cpu_has_avx2() && cpu_has_avx512(); }

void fill_background(uint8_t* pixels, int32_t width, int32_t height, int32_t stride) {
  ::fill_background(pixels, width, height, stride);
}

void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
               int32_t stride, int32_t threads, bool simd, bool wide, int64_t* settled) {
  ::composite(layers, count, pixels, width, height, stride, threads, simd && cpu_has_avx2(), wide, settled);
}

}  // namespace embedded
