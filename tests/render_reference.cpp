// The plain compositor of render_reference.h. Each function follows the
// written rules of the frame compositor step by step; (u, v) of a cell comes
// from the engine's own kvl_h_apply.
#include "render_reference.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace refr {
namespace {

const double K = 0.00392156862745098;  // 1/255

struct color {
  double r, g, b, a;
};

color from_argb(uint32_t c) {
  return {double((c >> 16) & 255), double((c >> 8) & 255), double(c & 255), double(c >> 24)};
}

uint8_t rnd(double x) { return static_cast<uint8_t>(std::lround(x)); }

void blend(uint8_t* px, color c, bool luma, double alpha) {
  double t = alpha * K * c.a;
  if (luma) {
    double y = (0.598 * c.r + 1.174 * c.g + 0.228 * c.b) * K - 0.04;
    y = std::clamp(y, 0.0, 1.0);
    t = t * y;
  }
  if (!(t > 0)) return;
  t = std::min(t, 1.0);
  double da = px[3] * K;
  if (da >= 1) {
    for (int i = 0; i < 3; i++) {
      double cc = i == 0 ? c.r : i == 1 ? c.g : c.b;
      px[i] = rnd((1 - t) * px[i] + t * cc);
    }
    return;
  }
  double oa = t + da * (1 - t);
  if (!(oa > 0)) return;
  double ws = t / oa, wd = da * (1 - t) / oa;
  for (int i = 0; i < 3; i++) {
    double cc = i == 0 ? c.r : i == 1 ? c.g : c.b;
    px[i] = rnd(wd * px[i] + ws * cc);
  }
  px[3] = rnd(255 * oa);
}

void sample_src(const kvl_source* src, color* out, double x, double y) {
  double fx = x - 0.5, fy = y - 0.5;
  int ix = (int)std::floor(fx), iy = (int)std::floor(fy);
  double tx = fx - ix, ty = fy - iy;
  auto texel = [&](int cx, int cy) {
    cx = std::clamp(cx, 0, src->width - 1);
    cy = std::clamp(cy, 0, src->height - 1);
    return src->pixels + ((size_t)cy * src->width + cx) * 4;
  };
  const uint8_t* t[4] = {texel(ix, iy), texel(ix + 1, iy), texel(ix, iy + 1), texel(ix + 1, iy + 1)};
  double w[4] = {(1 - tx) * (1 - ty), tx * (1 - ty), (1 - tx) * ty, tx * ty};
  double a = 0;
  for (int k = 0; k < 4; k++) a = a + w[k] * t[k][3];
  if (!(a > 0)) {
    *out = {0, 0, 0, a};
    return;
  }
  double ch[3] = {0, 0, 0};
  for (int i = 0; i < 3; i++)
    for (int k = 0; k < 4; k++) ch[i] = ch[i] + (w[k] / a) * t[k][i] * t[k][3];
  *out = {ch[0], ch[1], ch[2], a};
}

// min(max(trunc(u), 0), last); a NaN coordinate reads index 0.
int mask_at(double u, int last) {
  double t = std::trunc(u);
  if (!(t >= 0)) t = 0;
  return (int)std::min(t, (double)last);
}

bool surface_color(const kvl_prep* p, color* out, double u, double v) {
  double m = 1, e = 1;
  if (p->ellipse) {
    double du = u / 1280 - 0.5, dv = v / 720 - 0.5;
    double r = std::sqrt(du * du + dv * dv);
    e = std::clamp(360.5 - 720 * r, 0.0, 1.0);
    if (e == 0) return false;
  }
  if (p->mask) {
    m = p->mask[mask_at(v, 719) * 1280 + mask_at(u, 1279)] * K;
    if (m == 0) return false;
  }
  const double* ic = p->inv_content;
  double cu = ic[0] * u + ic[1] * v + ic[2];
  double cv = ic[3] * u + ic[4] * v + ic[5];
  if (!(0 <= cu && cu < 1280 && 0 <= cv && cv < 720)) return false;
  if (p->solid) {
    color c = from_argb(p->argb);
    *out = {c.r, c.g, c.b, m * e * c.a};
  } else if (p->source && p->source->pixels) {
    double sx = (cu - p->cover_ox) / p->cover_scale;
    double sy = (cv - p->cover_oy) / p->cover_scale;
    if (!(0 <= sx && sx < p->source->width && 0 <= sy && sy < p->source->height)) return false;
    sample_src(p->source, out, sx, sy);
    out->a = m * e * out->a;
  } else {
    *out = {51, 51, 51, 255 * m * e};
  }
  return out->a > 0;
}

uint8_t* pixel(uint8_t* pixels, int32_t stride, int x, int y) { return pixels + (ptrdiff_t)y * stride + 4 * x; }

void raster_fx(const kvl_prep* p, const kvl_fx& fx, uint8_t* pixels, int32_t stride, int y0, int y1) {
  color c = from_argb(fx.argb);
  for (int y = std::max(fx.y, y0); y < std::min(fx.y + fx.h, y1); y++)
    for (int col = 0; col < fx.w; col++) {
      uint8_t m = fx.mask[(size_t)(y - fx.y) * fx.w + col];
      if (m) blend(pixel(pixels, stride, fx.x + col, y), c, p->luma, m * (1.0 / 255 * p->opacity));
    }
}

void draw_polygon(const kvl_prep* p, uint8_t* pixels, int32_t stride, int y0, int y1) {
  for (int y = std::max(p->box_y, y0); y < std::min(p->box_y + p->box_h, y1); y++)
    for (int x = p->box_x; x < p->box_x + p->box_w; x++) {
      uint8_t c = p->poly_mask[(size_t)(y - p->box_y) * p->box_w + (x - p->box_x)];
      if (c == 0) continue;
      double u = (x + 0.5 - p->poly_ox) / p->poly_scale;
      double v = (y + 0.5 - p->poly_oy) / p->poly_scale;
      if (!(0 <= u && u < 1280 && 0 <= v && v < 720)) continue;
      color col;
      if (!surface_color(p, &col, u, v)) continue;
      blend(pixel(pixels, stride, x, y), col, p->luma, c * (1.0 / 255 * p->opacity));
    }
}

void draw_cell(const kvl_prep* p, const kvl_cell& cell, uint8_t* pixels, int32_t stride, int y0, int y1) {
  const double* q = cell.quad;
  double cross = (q[2] - q[0]) * (q[5] - q[1]) - (q[3] - q[1]) * (q[4] - q[0]);
  double o = cross >= 0 ? 1 : -1;
  // d of point (px, py) against edge k.
  auto d_of = [&](int k, double px, double py) {
    int n = (k + 1) % 4;
    double ex = q[2 * n] - q[2 * k], ey = q[2 * n + 1] - q[2 * k + 1];
    return o * (ex * (py - q[2 * k + 1]) - ey * (px - q[2 * k]));
  };
  auto len_of = [&](int k) {
    int n = (k + 1) % 4;
    double ex = q[2 * n] - q[2 * k], ey = q[2 * n + 1] - q[2 * k + 1];
    return std::sqrt(ex * ex + ey * ey);
  };
  for (int y = std::max(cell.y0, y0); y < std::min(cell.y1, y1); y++)
    for (int x = cell.x0; x < cell.x1; x++) {
      double cx = x + 0.5, cy = y + 0.5;
      bool inside = true, near = false;
      for (int k = 0; k < 4; k++) {
        double d = d_of(k, cx, cy);
        if (d < 0) inside = false;
        if (cell.edge[k] == 1 && len_of(k) > 0 && std::fabs(d) / len_of(k) < 0.75) near = true;
      }
      if (!inside && !near) continue;
      double coverage = 1;
      if (near) {
        int count = 0;
        for (int i = 0; i < 4; i++)
          for (int j = 0; j < 4; j++) {
            double sx = x + 0.125 + 0.25 * i, sy = y + 0.125 + 0.25 * j;
            bool ok = true;
            for (int k = 0; k < 4; k++) {
              double d = d_of(k, sx, sy);
              if (!(d > 0 || (d == 0 && cell.edge[k] == 1))) ok = false;
            }
            if (ok) count++;
          }
        if (count == 0) continue;
        coverage = count / 16.0;
      }
      double u, v;
      kvl_h_apply(&cell.inv, cx, cy, &u, &v);
      color col;
      if (!surface_color(p, &col, u, v)) continue;
      blend(pixel(pixels, stride, x, y), col, p->luma, p->opacity * coverage);
    }
}

void draw_layer(const kvl_prep* p, uint8_t* pixels, int32_t stride, int y0, int y1) {
  for (int i = 0; i < p->behind_count; i++) raster_fx(p, p->behind[i], pixels, stride, y0, y1);
  if (p->polygon) {
    draw_polygon(p, pixels, stride, y0, y1);
  } else {
    for (int i = 0; i < p->cell_count; i++) draw_cell(p, p->cells[i], pixels, stride, y0, y1);
  }
  for (int i = 0; i < p->front_count; i++) raster_fx(p, p->front[i], pixels, stride, y0, y1);
}

}  // namespace

void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
               int32_t stride) {
  (void)width;
  for (int i = 0; i < count; i++) {
    const kvl_prep* p = &layers[i];
    if (!p->isolate) {
      draw_layer(p, pixels, stride, 0, height);
      continue;
    }
    std::vector<uint8_t> band((size_t)height * stride, 0);
    kvl_prep copy = *p;
    copy.opacity = 1;
    copy.luma = false;
    draw_layer(&copy, band.data(), stride, 0, height);
    for (int y = 0; y < height; y++)
      for (int x = 0; x < stride / 4; x++) {
        const uint8_t* b = pixel(band.data(), stride, x, y);
        if (b[3] == 0) continue;
        blend(pixel(pixels, stride, x, y), {double(b[0]), double(b[1]), double(b[2]), double(b[3])}, p->luma,
              p->opacity);
      }
  }
}

void render_frame(const kvl_resolved* resolved, int32_t count, const kvl_sources* sources, uint8_t* pixels,
                  int32_t width, int32_t height, int32_t stride) {
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      uint8_t* px = pixel(pixels, stride, x, y);
      px[0] = px[1] = px[2] = 0;
      px[3] = 255;
    }
  std::vector<kvl_prep> preps(std::max(count, 1));
  int n = 0;
  for (int i = 0; i < count; i++) {
    memset(&preps[n], 0, sizeof(kvl_prep));
    if (kvl_prepare(&preps[n], &resolved[i], sources, width, height, nullptr))
      n++;
    else
      kvl_prep_free(&preps[n]);
  }
  composite(preps.data(), n, pixels, width, height, stride);
  for (int i = 0; i < n; i++) kvl_prep_free(&preps[i]);
}

}  // namespace refr
