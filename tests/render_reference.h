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
