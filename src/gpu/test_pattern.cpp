// The calibration chart, on Cairo and Pango.
//
// The chart is laid out in coordinates with the origin at the bottom left and
// y growing upward, the way an operator reads "above" and "below" on the
// projected picture; `Y` turns such a y into Cairo's rows, which run down.
#include "test_pattern.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>

namespace {

struct Rgba {
  double r, g, b, a;
};
const Rgba kWhite{1, 1, 1, 1};
const Rgba kAccent{66.0 / 255.0, 200.0 / 255.0, 245.0 / 255.0, 1};
const Rgba kBlack{0, 0, 0, 1};
const Rgba kGrid{1, 1, 1, 0.35};

// A bold sans-serif that Debian ships (fonts-dejavu-core); fontconfig falls
// back to any bold sans when it is missing.
const char kFontFamily[] = "DejaVu Sans, Sans";

void setColor(cairo_t* cr, const Rgba& c) { cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a); }

}  // namespace

std::vector<std::string> testChartLabels(int32_t sceneW, int32_t sceneH, int32_t targetW, int32_t targetH) {
  std::vector<std::string> labels;
  labels.push_back(std::to_string(sceneW) + " \u00d7 " + std::to_string(sceneH));
  if (sceneW != targetW || sceneH != targetH)
    labels.push_back("\u2192 " + std::to_string(targetW) + " \u00d7 " + std::to_string(targetH));
  return labels;
}

bool drawTestChart(int32_t width, int32_t height, const std::vector<std::string>& labels, std::vector<uint8_t>& rgba) {
  rgba.clear();
  if (width <= 0 || height <= 0) return false;
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surface);
    return false;
  }
  cairo_t* cr = cairo_create(surface);
  const double W = width, H = height, m = std::min(W, H);
  auto Y = [H](double y) { return H - y; };
  auto line = [&](double x0, double y0, double x1, double y1) {
    cairo_move_to(cr, x0, Y(y0));
    cairo_line_to(cr, x1, Y(y1));
    cairo_stroke(cr);
  };

  setColor(cr, kBlack);
  cairo_paint(cr);

  setColor(cr, kGrid);
  cairo_set_line_width(cr, 1);
  for (int i = 1; i <= 9; i++) {
    line(W * i / 10, 0, W * i / 10, H);
    line(0, H * i / 10, W, H * i / 10);
  }

  setColor(cr, kWhite);
  cairo_set_line_width(cr, 2);
  cairo_rectangle(cr, 1, Y(1) - (H - 2), W - 2, H - 2);
  cairo_stroke(cr);
  line(W / 2, 0, W / 2, H);
  line(0, H / 2, W, H / 2);

  const double r = m * 0.4;
  setColor(cr, kAccent);
  cairo_new_sub_path(cr);
  cairo_arc(cr, W / 2, Y(H / 2), r, 0, 2 * M_PI);
  cairo_stroke(cr);
  setColor(cr, kWhite);
  cairo_new_sub_path(cr);
  cairo_arc(cr, W / 2, Y(H / 2), r * 0.5, 0, 2 * M_PI);
  cairo_stroke(cr);

  setColor(cr, kAccent);
  cairo_set_line_width(cr, 4);
  const double a = m * 0.06;
  const double corners[4][2] = {{0, 0}, {W, 0}, {W, H}, {0, H}};
  for (const auto& c : corners) {
    double dx = c[0] == 0 ? a : -a, dy = c[1] == 0 ? a : -a;
    line(c[0], c[1], c[0] + dx, c[1]);  // the horizontal arm first
    line(c[0], c[1], c[0], c[1] + dy);
  }

  double y = H / 2 - m * 0.05;  // top edge of the first label
  PangoLayout* layout = pango_cairo_create_layout(cr);
  for (size_t k = 0; k < labels.size(); k++) {
    PangoFontDescription* font = pango_font_description_from_string(kFontFamily);
    pango_font_description_set_weight(font, PANGO_WEIGHT_BOLD);
    pango_font_description_set_absolute_size(font, (k == 0 ? m * 0.06 : m * 0.035) * PANGO_SCALE);
    pango_layout_set_font_description(layout, font);
    pango_layout_set_text(layout, labels[k].c_str(), -1);

    PangoContext* pc = pango_layout_get_context(layout);
    PangoFontMetrics* metrics = pango_context_get_metrics(pc, font, nullptr);
    double ascent = static_cast<double>(pango_font_metrics_get_ascent(metrics)) / PANGO_SCALE;
    double descent = static_cast<double>(pango_font_metrics_get_descent(metrics)) / PANGO_SCALE;
    pango_font_metrics_unref(metrics);
    pango_font_description_free(font);

    PangoRectangle logical{};
    pango_layout_get_extents(layout, nullptr, &logical);
    double b = static_cast<double>(logical.width) / PANGO_SCALE;
    double x = (W - b) * 0.5;

    setColor(cr, kBlack);
    cairo_rectangle(cr, x - 4, Y(y), b + 8, ascent + descent);
    cairo_fill(cr);
    // The text's baseline sits one ascent below the label's top edge.
    double baseline = Y(y - ascent);
    double layoutBaseline = static_cast<double>(pango_layout_get_baseline(layout)) / PANGO_SCALE;
    setColor(cr, k == 0 ? kWhite : kAccent);
    cairo_move_to(cr, x, baseline - layoutBaseline);
    pango_cairo_show_layout(cr, layout);
    y -= ascent + descent;
  }
  g_object_unref(layout);
  cairo_destroy(cr);
  cairo_surface_flush(surface);

  // Cairo's ARGB32 is premultiplied, in native byte order: B, G, R, A here.
  const unsigned char* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  if (!data) {
    cairo_surface_destroy(surface);
    return false;
  }
  rgba.resize(static_cast<size_t>(width) * height * 4);
  for (int32_t row = 0; row < height; row++) {
    const uint32_t* src = reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(row) * stride);
    uint8_t* dst = &rgba[static_cast<size_t>(row) * width * 4];
    for (int32_t col = 0; col < width; col++) {
      uint32_t p = src[col];
      dst[4 * col + 0] = static_cast<uint8_t>(p >> 16);
      dst[4 * col + 1] = static_cast<uint8_t>(p >> 8);
      dst[4 * col + 2] = static_cast<uint8_t>(p);
      dst[4 * col + 3] = static_cast<uint8_t>(p >> 24);
    }
  }
  cairo_surface_destroy(surface);
  return true;
}
