// The compositor's formulas, one pixel at a time: the plain kernel set, which
// runs everywhere, and the reference that the vector kernels must match bit
// for bit.
#include "render_internal.h"

namespace kvl_px {

namespace {

// Column or row of the surface mask for a surface coordinate. NaN lands on 0;
// such a point fails the content test of surface_color anyway.
inline int32_t mask_index(double u, double last) {
  double t = trunc(u);
  t = t > 0.0 ? t : 0.0;
  t = t < last ? t : last;
  return static_cast<int32_t>(t);
}

// Bilinear sample of a source, weighted by alpha, clamped to the edge. The
// caller guarantees 0 <= x < W and 0 <= y < H.
void sample_src(const shade& s, kvl_color* out, double x, double y) {
  const double fx = x - 0.5, fy = y - 0.5;
  const double flx = floor(fx), fly = floor(fy);
  const double tx = fx - flx, ty = fy - fly;
  const int32_t ix = static_cast<int32_t>(flx), iy = static_cast<int32_t>(fly);
  const int32_t wl = s.sw - 1, hl = s.sh - 1;
  const int32_t x0 = ix < 0 ? 0 : (ix > wl ? wl : ix);
  const int32_t x1 = ix + 1 < 0 ? 0 : (ix + 1 > wl ? wl : ix + 1);
  const int32_t y0 = iy < 0 ? 0 : (iy > hl ? hl : iy);
  const int32_t y1 = iy + 1 < 0 ? 0 : (iy + 1 > hl ? hl : iy + 1);
  const size_t w = static_cast<size_t>(s.sw);
  const uint8_t* p00 = s.src + (static_cast<size_t>(y0) * w + static_cast<size_t>(x0)) * 4;
  const uint8_t* p10 = s.src + (static_cast<size_t>(y0) * w + static_cast<size_t>(x1)) * 4;
  const uint8_t* p01 = s.src + (static_cast<size_t>(y1) * w + static_cast<size_t>(x0)) * 4;
  const uint8_t* p11 = s.src + (static_cast<size_t>(y1) * w + static_cast<size_t>(x1)) * 4;
  const double w00 = (1.0 - tx) * (1.0 - ty), w10 = tx * (1.0 - ty);
  const double w01 = (1.0 - tx) * ty, w11 = tx * ty;
  const double a00 = p00[3], a10 = p10[3], a01 = p01[3], a11 = p11[3];
  const double a = w00 * a00 + w10 * a10 + w01 * a01 + w11 * a11;
  if (!(a > 0.0)) {
    out->r = out->g = out->b = 0.0;
    out->a = a;
    return;
  }
  // Premultiplied filtering with a straight result: a transparent texel adds
  // no colour of its own.
  const double q00 = w00 / a, q10 = w10 / a, q01 = w01 / a, q11 = w11 / a;
  out->r = q00 * p00[0] * a00 + q10 * p10[0] * a10 + q01 * p01[0] * a01 + q11 * p11[0] * a11;
  out->g = q00 * p00[1] * a00 + q10 * p10[1] * a10 + q01 * p01[1] * a01 + q11 * p11[1] * a11;
  out->b = q00 * p00[2] * a00 + q10 * p10[2] * a10 + q01 * p01[2] * a01 + q11 * p11[2] * a11;
  out->a = a;
}

// The colour of a layer at surface point (u, v); false means nothing there.
bool surface_color(const shade& s, kvl_color* out, double u, double v) {
  double m = 1.0, e = 1.0;
  if (s.ellipse) {
    const double du = u / kSurfW - 0.5, dv = v / kSurfH - 0.5;
    const double r = sqrt(du * du + dv * dv);
    e = clamp01(360.5 - 720.0 * r);
    if (e == 0.0) return false;
  }
  if (s.mask) {
    const int32_t col = mask_index(u, 1279.0), row = mask_index(v, 719.0);
    m = static_cast<double>(s.mask[static_cast<size_t>(row) * 1280 + static_cast<size_t>(col)]) * kInv255;
    if (m == 0.0) return false;
  }
  const double cu = s.ic[0] * u + s.ic[1] * v + s.ic[2];
  const double cv = s.ic[3] * u + s.ic[4] * v + s.ic[5];
  if (!(cu >= 0.0 && cu < kSurfW && cv >= 0.0 && cv < kSurfH)) return false;
  if (s.kind == FILL_SOLID) {
    out->r = s.cr;
    out->g = s.cg;
    out->b = s.cb;
    out->a = m * e * s.ca;
  } else if (s.kind == FILL_PIXELS) {
    const double sx = (cu - s.cover_ox) / s.cover_scale;
    const double sy = (cv - s.cover_oy) / s.cover_scale;
    if (!(sx >= 0.0 && sx < s.dsw && sy >= 0.0 && sy < s.dsh)) return false;
    sample_src(s, out, sx, sy);
    out->a = m * e * out->a;
  } else {
    out->r = out->g = out->b = 51.0;
    out->a = 255.0 * m * e;
  }
  return out->a > 0.0;
}

// Puts one colour on one pixel: over an opaque pixel the plain mix, over a
// transparent one (only private band buffers have those) straight-alpha over.
inline double blend_weight(const kvl_color& c, bool luma, double alpha) {
  double t = alpha * kInv255 * c.a;
  if (luma) {
    const double y = clamp01((0.598 * c.r + 1.174 * c.g + 0.228 * c.b) * kInv255 - 0.04);
    t = t * y;
  }
  return t;
}

void blend(uint8_t* px, const kvl_color& c, bool luma, double alpha) {
  double t = blend_weight(c, luma, alpha);
  if (!(t > 0.0)) return;
  if (t > 1.0) t = 1.0;
  const double da = static_cast<double>(px[3]) * kInv255;
  if (da >= 1.0) {
    px[0] = round_byte((1.0 - t) * px[0] + t * c.r);
    px[1] = round_byte((1.0 - t) * px[1] + t * c.g);
    px[2] = round_byte((1.0 - t) * px[2] + t * c.b);
    return;
  }
  const double oa = t + da * (1.0 - t);
  if (!(oa > 0.0)) return;
  const double ws = t / oa, wd = da * (1.0 - t) / oa;
  px[0] = round_byte(wd * px[0] + ws * c.r);
  px[1] = round_byte(wd * px[1] + ws * c.g);
  px[2] = round_byte(wd * px[2] + ws * c.b);
  px[3] = round_byte(255.0 * oa);
}

// Probing: blend() over an opaque pixel, for D = 0 and D = 255. Where both
// give the same bytes, every D between does too, and the pixel is settled by
// this step.
void settle(const shade& s, const kvl_color& c, double alpha, int32_t x, hid_rows hr) {
  double t = blend_weight(c, s.luma, alpha);
  if (!(t > 0.0)) return;
  if (t > 1.0) t = 1.0;
  s.tally[0]++;
  const double ch[3] = {c.r, c.g, c.b};
  uint8_t* k = hr.k + 4 * static_cast<ptrdiff_t>(x);
  for (int i = 0; i < 3; i++) {
    const uint8_t lo = round_byte((1.0 - t) * 0.0 + t * ch[i]);
    if (round_byte((1.0 - t) * 255.0 + t * ch[i]) != lo) return;
    k[i] = lo;
  }
  k[3] = 255;
  hr.h[x] = static_cast<uint16_t>(s.op);
  s.tally[1]++;
}

// Blends or, when probing, settles one colour at pixel x of a row.
inline void put(const shade& s, const kvl_color& c, double alpha, int32_t x, uint8_t* row, hid_rows hr) {
  if (s.probe)
    settle(s, c, alpha, x, hr);
  else
    blend(row + 4 * static_cast<ptrdiff_t>(x), c, s.luma, alpha);
}

}  // namespace

shade make_shade(const kvl_prep* p, double opacity, bool luma, const kernels* k) {
  shade s;
  memset(&s, 0, sizeof s);
  s.opacity = opacity;
  s.luma = luma;
  s.ellipse = p->ellipse;
  s.mask = p->mask;
  memcpy(s.ic, p->inv_content, sizeof s.ic);
  s.cover_ox = p->cover_ox;
  s.cover_oy = p->cover_oy;
  s.cover_scale = p->cover_scale;
  s.ic_identity =
      s.ic[0] == 1.0 && s.ic[1] == 0.0 && s.ic[2] == 0.0 && s.ic[3] == 0.0 && s.ic[4] == 1.0 && s.ic[5] == 0.0;
  s.cover_identity = s.cover_ox == 0.0 && s.cover_oy == 0.0 && s.cover_scale == 1.0;
  // x / 2^k and x * 2^-k are the same correctly rounded number whenever 2^-k
  // is itself a double, so the vector sampler may multiply instead. The
  // exponent range keeps the reciprocal a normal double.
  int exponent = 0;
  if (isfinite(s.cover_scale) && frexp(s.cover_scale, &exponent) == 0.5 && exponent > -1000 && exponent < 1000) {
    s.cover_mul = true;
    s.cover_inv = ldexp(1.0, 1 - exponent);
  }
  if (p->solid || !p->source) {
    s.kind = FILL_SOLID;
    const kvl_color c = argb_color(p->argb);
    s.cr = c.r;
    s.cg = c.g;
    s.cb = c.b;
    s.ca = c.a;
  } else if (p->source->pixels) {
    s.kind = FILL_PIXELS;
    s.src = p->source->pixels;
    s.sw = p->source->width;
    s.sh = p->source->height;
    s.dsw = static_cast<double>(s.sw);
    s.dsh = static_cast<double>(s.sh);
  } else {
    s.kind = FILL_DECLARED;
  }
  // The vector samplers index texels with 32-bit offsets.
  const bool big = s.kind == FILL_PIXELS && static_cast<int64_t>(s.sw) * s.sh >= (int64_t{1} << 31);
  s.k = big && k->small_sources_only ? &kPlainKernels : k;
  return s;
}

// (u, v) is kvl_h_apply of the cell's inverse at the pixel's centre, written
// out here with the same operation order.
void cell_pixel(const shade& s, const double* m, int32_t x, double cy, double alpha, uint8_t* row, hid_rows hr) {
  if (hr.h && !hid_open(s, hr.h[x])) return;
  const double cx = x + 0.5;
  const double w = (m[6] * cx + m[7] * cy) + m[8];
  const double u = ((m[0] * cx + m[1] * cy) + m[2]) / w;
  const double v = ((m[3] * cx + m[4] * cy) + m[5]) / w;
  kvl_color c;
  if (surface_color(s, &c, u, v)) put(s, c, alpha, x, row, hr);
}

static void cell_span_plain(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
  const double cy = y + 0.5;
  const hid_rows hr = hid_at(s, y);
  for (int32_t x = xa; x < xb; x++) cell_pixel(s, m, x, cy, s.opacity, row, hr);
}

void poly_span_plain(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb, const uint8_t* cov,
                     uint8_t* row) {
  const double k = kInv255 * s.opacity;
  const hid_rows hr = hid_at(s, y);
  for (int32_t x = xa; x < xb; x++) {
    const uint8_t c = cov[x - xa];
    if (!c || (hr.h && !hid_open(s, hr.h[x]))) continue;
    const double u = (x + 0.5 - p->poly_ox) / p->poly_scale;
    if (!(u >= 0.0 && u < kSurfW)) continue;
    kvl_color col;
    if (surface_color(s, &col, u, v)) put(s, col, c * k, x, row, hr);
  }
}

void fx_span_plain(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row,
                   bool /*frame*/) {
  for (int32_t i = 0; i < n; i++)
    if (cov[i]) blend(row + 4 * static_cast<ptrdiff_t>(i), col, luma, cov[i] * k);
}

void reblend_span_plain(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  for (int32_t i = 0; i < n; i++) {
    const uint8_t* b = band + 4 * static_cast<ptrdiff_t>(i);
    if (!b[3]) continue;
    const kvl_color c = {static_cast<double>(b[0]), static_cast<double>(b[1]), static_cast<double>(b[2]),
                         static_cast<double>(b[3])};
    blend(row + 4 * static_cast<ptrdiff_t>(i), c, luma, opacity);
  }
}

const kernels kPlainKernels = {"plain",       cell_span_plain,    nullptr, poly_span_plain,
                               fx_span_plain, reblend_span_plain, false};

}  // namespace kvl_px
