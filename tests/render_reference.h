// A plain compositor for checking the real one: every formula of the frame
// compositor written out one pixel at a time, with no hoisting, no spans and
// no vector code. Slow on purpose; only for small frames in tests.
#pragma once

#include <cstdint>

#include "kavlen/kavlen.h"

namespace refr {

// Draws prepared layers, bottom first, into a frame whose background is
// already set (rows `stride` bytes apart).
void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
               int32_t stride);

// The whole frame: background, kvl_prepare of every layer (no cache), the
// layers, kvl_prep_free.
void render_frame(const kvl_resolved* resolved, int32_t count, const kvl_sources* sources, uint8_t* pixels,
                  int32_t width, int32_t height, int32_t stride);

}  // namespace refr

// The compositor of the engine compiled into the test binary, so that its
// inner entry point (prepared layers in, frame out) and both of its code
// paths can be reached with hand-built records.
namespace embedded {

bool simd_available();
// Whether the eight-wide AVX-512 kernels run here; with `wide` false the
// vector path keeps to the four-wide AVX2 kernels.
bool wide_available();
void fill_background(uint8_t* pixels, int32_t width, int32_t height, int32_t stride);
// `settled`, where given, receives how many pixels hid the layers beneath.
void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
               int32_t stride, int32_t threads, bool simd, bool wide = true, int64_t* settled = nullptr);

}  // namespace embedded
