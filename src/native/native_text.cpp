#include "native_text.h"

#include <cairo.h>
#include <dirent.h>
#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>
#include <pango/pangofc-fontmap.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <numbers>

#include "media_key.h"

namespace kavlen::native {

const char* const kUiFontFamily = "DejaVu Sans";

namespace {

constexpr int kSurfW = 1280, kSurfH = 720;
constexpr double kMarginX = 51.2, kWrapWidth = 1177.6;
// Glyphs are drawn as paths; far beyond the surface's size cairo's fixed-point
// coordinates overflow, and a glyph that big covers the whole surface anyway.
constexpr double kMaxPx = 20000;

std::mutex& textLock() {
  static std::mutex m;
  return m;
}

bool fontsRegistered = false;
PangoFontMap* fontMap = nullptr;

struct Rgba {
  double r, g, b, a;
};
Rgba rgba(uint32_t v) {
  return {((v >> 16) & 0xFF) / 255.0, ((v >> 8) & 0xFF) / 255.0, (v & 0xFF) / 255.0, ((v >> 24) & 0xFF) / 255.0};
}

// Registers the bundle's fonts; called with the lock held.
void registerLocked() {
  if (fontsRegistered) return;
  fontsRegistered = true;
  FcConfig* config = FcInitLoadConfigAndFonts();
  std::string folder = media::assets_folder() + "/assets/fonts";
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() < 4) continue;
      std::string ext = name.substr(name.size() - 4);
      std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
      if (ext != ".ttf") continue;
      std::string path = folder + "/" + name;
      FcConfigAppFontAddFile(config, reinterpret_cast<const FcChar8*>(path.c_str()));  // a bad file is passed over
    }
    closedir(d);
  }
  fontMap = pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT);
  if (fontMap) pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(fontMap), config);
  FcConfigDestroy(config);
}

double fontPx(const TextSpec& spec) {
  double px = spec.size * 720.0;
  // A size of 0 takes the platform's default size of 12, as font APIs do.
  if (!(px > 0)) px = 12;
  return std::min(px, kMaxPx);
}

PangoFontDescription* fontOf(const TextSpec& spec) {
  PangoFontDescription* d = pango_font_description_new();
  pango_font_description_set_family(d, spec.font && !spec.font->empty() ? spec.font->c_str() : kUiFontFamily);
  pango_font_description_set_absolute_size(d, fontPx(spec) * PANGO_SCALE);
  if (spec.bold) pango_font_description_set_weight(d, PANGO_WEIGHT_BOLD);
  if (spec.italic) pango_font_description_set_style(d, PANGO_STYLE_ITALIC);
  return d;
}

PangoContext* newContext() {
  PangoContext* ctx = pango_font_map_create_context(fontMap);
  cairo_font_options_t* o = cairo_font_options_create();
  cairo_font_options_set_hint_style(o, CAIRO_HINT_STYLE_NONE);
  cairo_font_options_set_hint_metrics(o, CAIRO_HINT_METRICS_OFF);
  cairo_font_options_set_antialias(o, CAIRO_ANTIALIAS_GRAY);
  pango_cairo_context_set_font_options(ctx, o);
  cairo_font_options_destroy(o);
  return ctx;
}

// One layout with the given text, font and no width limit.
PangoLayout* newLayout(PangoContext* ctx, const PangoFontDescription* font, const std::string& text) {
  PangoLayout* l = pango_layout_new(ctx);
  pango_layout_set_font_description(l, font);
  pango_layout_set_text(l, text.data(), static_cast<int>(text.size()));
  return l;
}

// Fills or strokes the glyph outlines of the path on the context.
void paintPath(cairo_t* cr, const TextPass& pass, const Rgba& c) {
  cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a);
  if (pass.stroke > 0) {
    cairo_set_line_width(cr, pass.stroke);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER);
    cairo_stroke(cr);
  } else {
    cairo_fill(cr);
  }
}

void flatLayout(cairo_t* cr, PangoContext* ctx, const TextSpec& spec, const PangoFontDescription* font,
                const TextPass& pass, const Rgba& c) {
  double px = fontPx(spec), lineH = px * 1.2;
  PangoLayout* l = newLayout(ctx, font, spec.text);
  pango_layout_set_width(l, static_cast<int>(kWrapWidth * PANGO_SCALE));
  pango_layout_set_wrap(l, PANGO_WRAP_WORD_CHAR);
  pango_layout_set_alignment(l, spec.align == "left"    ? PANGO_ALIGN_LEFT
                                : spec.align == "right" ? PANGO_ALIGN_RIGHT
                                                        : PANGO_ALIGN_CENTER);
  int lines = spec.text.empty() ? 0 : pango_layout_get_line_count(l);
  double h = std::min(lines * lineH, static_cast<double>(kSurfH));
  // Only whole lines that fit the block are drawn.
  int shown = static_cast<int>(std::floor(h / lineH + 1e-9));
  PangoFontMetrics* m = pango_context_get_metrics(ctx, font, nullptr);
  double descent = pango_font_metrics_get_descent(m) / static_cast<double>(PANGO_SCALE);
  pango_font_metrics_unref(m);
  double top = (kSurfH - h) * 0.5 + pass.dy;  // y down
  double left = pass.dx + kMarginX;
  PangoLayoutIter* it = pango_layout_get_iter(l);
  int i = 0;
  do {
    if (i >= shown) break;
    PangoRectangle logical;
    pango_layout_iter_get_line_extents(it, nullptr, &logical);
    PangoLayoutLine* line = pango_layout_iter_get_line_readonly(it);
    double x = left + logical.x / static_cast<double>(PANGO_SCALE);
    double baseline = top + (i + 1) * lineH - descent;
    cairo_move_to(cr, x, baseline);
    pango_cairo_layout_line_path(cr, line);
    i++;
  } while (pango_layout_iter_next_line(it));
  pango_layout_iter_free(it);
  g_object_unref(l);
  paintPath(cr, pass, c);
}

// False when there is nothing to draw (empty text).
bool arcLayout(cairo_t* cr, PangoContext* ctx, const TextSpec& spec, const PangoFontDescription* font,
               const TextPass& pass, const Rgba& c) {
  std::string text = spec.text;
  std::replace(text.begin(), text.end(), '\n', ' ');
  if (text.empty()) return false;
  // Grapheme clusters: the cursor positions of the text.
  int n = g_utf8_strlen(text.c_str(), static_cast<gssize>(text.size()));
  std::vector<PangoLogAttr> attrs(static_cast<size_t>(n) + 1);
  pango_get_log_attrs(text.c_str(), static_cast<int>(text.size()), -1, pango_language_get_default(), attrs.data(), n + 1);
  std::vector<std::string> clusters;
  const char* p = text.c_str();
  const char* start = p;
  for (int k = 1; k <= n; k++) {
    p = g_utf8_next_char(p);
    if (attrs[static_cast<size_t>(k)].is_cursor_position || k == n) {
      clusters.emplace_back(start, p);
      start = p;
    }
  }
  std::vector<PangoLayout*> layouts;
  std::vector<double> w;
  double total = 0;
  for (const std::string& g : clusters) {
    PangoLayout* l = newLayout(ctx, font, g);
    PangoRectangle logical;
    pango_layout_get_extents(l, nullptr, &logical);
    layouts.push_back(l);
    w.push_back(logical.width / static_cast<double>(PANGO_SCALE));
    total += w.back();
  }
  double deg = std::clamp(spec.arc, -350.0, 350.0);
  double rad = deg * std::numbers::pi / 180.0;
  double R = total / std::fabs(rad);
  double sign = rad > 0 ? 1 : -1;
  // Only zero-width graphemes: no circle to lay them on, an empty picture.
  if (total > 0 && std::isfinite(R)) {
    double s = 0;
    for (size_t i = 0; i < layouts.size(); i++) {
      double mid = s + w[i] * 0.5;
      s += w[i];
      double a = (mid - total * 0.5) / R;
      if (rad <= 0) a = -a;
      double x = pass.dx + 640 + sign * R * std::sin(a);
      double y = pass.dy + 360 + sign * R - sign * R * std::cos(a);
      cairo_save(cr);
      cairo_translate(cr, x, y);
      cairo_rotate(cr, a);
      cairo_move_to(cr, -w[i] * 0.5, 0);
      pango_cairo_layout_line_path(cr, pango_layout_get_line_readonly(layouts[i], 0));
      cairo_restore(cr);
    }
    paintPath(cr, pass, c);
  }
  for (PangoLayout* l : layouts) g_object_unref(l);
  return true;
}

// One pass's picture: a surface-sized image, or null.
img::Image drawPass(PangoContext* ctx, const TextSpec& spec, const PangoFontDescription* font, const TextPass& pass,
                    uint32_t argb) {
  cairo_surface_t* surf = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kSurfW, kSurfH);
  if (cairo_surface_status(surf) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surf);
    return {};
  }
  cairo_t* cr = cairo_create(surf);
  Rgba c = rgba(pass.ownColor ? argb : pass.argb);
  bool ok = true;
  if (std::fabs(spec.arc) >= 0.5)
    ok = arcLayout(cr, ctx, spec, font, pass, c);
  else
    flatLayout(cr, ctx, spec, font, pass, c);
  cairo_destroy(cr);
  cairo_surface_flush(surf);
  img::Image out;
  if (ok) {
    // Cairo's pixels are premultiplied B, G, R, A words, top row first.
    const uint8_t* data = cairo_image_surface_get_data(surf);
    int stride = cairo_image_surface_get_stride(surf);
    cv::Mat m(kSurfH, kSurfW, CV_32FC4);
    for (int y = 0; y < kSurfH; y++) {
      const uint32_t* s = reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(kSurfH - 1 - y) * stride);
      float* d = m.ptr<float>(y);
      for (int x = 0; x < kSurfW; x++, d += 4) {
        uint32_t v = s[x];
        d[0] = ((v >> 16) & 0xFF) / 255.0f;
        d[1] = ((v >> 8) & 0xFF) / 255.0f;
        d[2] = (v & 0xFF) / 255.0f;
        d[3] = (v >> 24) / 255.0f;
      }
    }
    out = img::Image::fromMat(std::move(m));
  }
  cairo_surface_destroy(surf);
  return out;
}

}  // namespace

void registerFonts() {
  std::lock_guard<std::mutex> g(textLock());
  registerLocked();
}

std::vector<TextPass> textPasses(const Effects& e) {
  const double q = 2.0 / 3.0;
  std::vector<TextPass> passes;
  if (e.hasShadow)
    passes.push_back({e.shadowDx * q, e.shadowDy * q, false, e.shadowArgb, 0, e.shadowBlur * q * 0.5});
  if (e.glowRadius > 0) {
    double g = e.glowRadius * q;
    passes.push_back({0, 0, false, e.glowArgb, g, g * 0.5});
  }
  if (e.bevelDepth > 0) {
    double d = e.bevelDepth * q;
    passes.push_back({d, d, false, e.bevelLo, 0, d / 3});
    passes.push_back({-d, -d, false, e.bevelHi, 0, d / 3});
  }
  if (e.strokeWidth > 0) passes.push_back({0, 0, false, e.strokeArgb, 2 * e.strokeWidth * q, 0});
  passes.push_back({0, 0, true, 0, 0, 0});
  return passes;
}

std::string textSpecString(const TextSpec& s, uint32_t argb, const Effects& e) {
  char nums[160];
  snprintf(nums, sizeof nums, "%.17g", s.size);
  std::string out = s.text + "|" + nums + "|" + s.align + "|" + (s.bold ? "true" : "false") + "|" +
                    (s.italic ? "true" : "false") + "|" + s.font.value_or("") + "|";
  snprintf(nums, sizeof nums, "%.17g|%u|", s.arc, argb);
  return out + nums + e.dump();
}

img::Image renderText(const TextSpec& spec, uint32_t argb, const Effects& effects) {
  std::lock_guard<std::mutex> g(textLock());
  registerLocked();
  if (!fontMap) return {};
  PangoContext* ctx = newContext();
  PangoFontDescription* font = fontOf(spec);
  img::Image result;
  for (const TextPass& pass : textPasses(effects)) {
    img::Image pic = drawPass(ctx, spec, font, pass, argb);
    if (pic.isNull()) continue;
    if (pass.blur > 0) pic = pic.clampedToExtent().blurred(pass.blur).cropped(pic.extent());
    result = pic.over(result);
  }
  pango_font_description_free(font);
  g_object_unref(ctx);
  return result;
}

}  // namespace kavlen::native
