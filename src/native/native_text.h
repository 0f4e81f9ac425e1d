// Text of the offline renderer: every text of Kavlen becomes a picture of
// the whole 1280x720 surface here, effects included, on Pango and Cairo.
//
// Usage:
//   kavlen::native::registerFonts();          // once; the compositor does it
//   img::Image im = renderText(spec, 0xFFFFFFFF, effects);
//   if (im.isNull()) { /* nothing could be drawn */ }
//
// A text is drawn once per effect pass (shadow, glow, bevel shadow, bevel
// highlight, stroke, fill; lowest first), each pass with its own offset,
// outline width and blur. Sizes are surface units: the font's pixel size is
// spec.size * 720, and effect sizes, stated for 1080 lines, are scaled by
// 2/3. Flat text wraps inside side margins of 51.2 with an exact line height
// of 1.2 times the font size and sits centred in height; text with an arc of
// half a degree or more is laid on a circle one grapheme at a time.
//
// Fonts: the ".ttf" files of the bundle's "assets/fonts" folder are added
// to the process's font set; a spec without a family gets the bundled UI
// font ("DejaVu Sans"), so renders are alike on every machine. A family
// that doesn't exist is matched to the nearest one, silently.
//
// Thread-safe: text drawing is serialised by one process-wide lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image.h"
#include "native_scene.h"

namespace kavlen::native {

struct TextPass {
  double dx = 0, dy = 0;  // surface units, right and down
  bool ownColor = true;   // false: `argb` below
  uint32_t argb = 0;
  double stroke = 0;      // outline width; 0 fills the glyphs
  double blur = 0;
};

// The family used when a spec names none.
extern const char* const kUiFontFamily;

void registerFonts();
std::vector<TextPass> textPasses(const Effects& effects);
// The identity of one rendered text: its cache key and change marker.
std::string textSpecString(const TextSpec& spec, uint32_t argb, const Effects& effects);
// The whole surface (extent 0,0,1280,720) with the text, or a null image.
img::Image renderText(const TextSpec& spec, uint32_t argb, const Effects& effects);

}  // namespace kavlen::native
