// YUV 4:2:0 <-> RGBA conversions, BT.601 limited range in integer arithmetic.
//
// Chroma planes are addressed with a row stride and a pixel stride, so the
// same code reads planar (pixel stride 1) and interleaved (pixel stride 2)
// chroma. Odd sizes round the chroma plane up: pixel x uses chroma x / 2.
#include "engine_internal.h"

namespace {

inline uint8_t clamp_byte(int v) { return (uint8_t)(v < 0 ? 0 : (v > 255 ? 255 : v)); }

}  // namespace

void kvl_yuv420_to_rgba(const uint8_t* y, int32_t y_stride, const uint8_t* u, int32_t u_stride,
                        int32_t u_pixel_stride, const uint8_t* v, int32_t v_stride, int32_t v_pixel_stride,
                        int32_t width, int32_t height, uint8_t* rgba, int32_t rgba_stride) {
  if (!y || !u || !v || !rgba || width < 1 || height < 1) return;
  for (int32_t row = 0; row < height; row++) {
    const uint8_t* yr = y + (ptrdiff_t)row * y_stride;
    const uint8_t* ur = u + (ptrdiff_t)(row / 2) * u_stride;
    const uint8_t* vr = v + (ptrdiff_t)(row / 2) * v_stride;
    uint8_t* out = rgba + (ptrdiff_t)row * rgba_stride;
    for (int32_t x = 0; x < width; x++) {
      const int d = ur[(ptrdiff_t)(x / 2) * u_pixel_stride] - 128;
      const int e = vr[(ptrdiff_t)(x / 2) * v_pixel_stride] - 128;
      // 4640 = 298 * 16 - 128: the offset of Y and the rounding term in one.
      const int c = 298 * yr[x] - 4640;
      out[4 * x + 0] = clamp_byte((c + 409 * e) >> 8);
      out[4 * x + 1] = clamp_byte((c - 100 * d - 208 * e) >> 8);
      out[4 * x + 2] = clamp_byte((c + 516 * d) >> 8);
      out[4 * x + 3] = 255;
    }
  }
}

void kvl_rgba_to_yuv420(const uint8_t* rgba, int32_t rgba_stride, int32_t width, int32_t height, uint8_t* y,
                        int32_t y_stride, uint8_t* u, int32_t u_stride, int32_t u_pixel_stride, uint8_t* v,
                        int32_t v_stride, int32_t v_pixel_stride) {
  if (!rgba || !y || !u || !v || width < 1 || height < 1) return;
  for (int32_t row = 0; row < height; row++) {
    const uint8_t* in = rgba + (ptrdiff_t)row * rgba_stride;
    uint8_t* yr = y + (ptrdiff_t)row * y_stride;
    for (int32_t x = 0; x < width; x++) {
      const int r = in[4 * x], g = in[4 * x + 1], b = in[4 * x + 2];
      yr[x] = (uint8_t)(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
    }
    if (row & 1) continue;
    // Chroma comes from the top-left pixel of each 2x2 block alone.
    uint8_t* ur = u + (ptrdiff_t)(row / 2) * u_stride;
    uint8_t* vr = v + (ptrdiff_t)(row / 2) * v_stride;
    for (int32_t x = 0; x < width; x += 2) {
      const int r = in[4 * x], g = in[4 * x + 1], b = in[4 * x + 2];
      ur[(ptrdiff_t)(x / 2) * u_pixel_stride] = (uint8_t)(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
      vr[(ptrdiff_t)(x / 2) * v_pixel_stride] = (uint8_t)(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
    }
  }
}
