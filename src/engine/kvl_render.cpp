// CPU frame compositor.
//
// kvl_render_frame prepares every resolved layer on the calling thread, then
// cuts the frame into bands of rows and draws all layers into each band on
// its own thread. Every pixel's layers are drawn in order by one thread, so
// the picture does not depend on the thread count.
//
// The per-pixel arithmetic is fixed, down to the order of the operations:
// the same picture has to come out of every build and of the GPU path. The
// fast paths below (per-row spans of fully covered pixels, 4-wide AVX2 and
// 8-wide AVX-512 kernels picked at run time, batches shaded in passes)
// therefore compute exactly the same doubles as the plain per-pixel code
// beside them, and only skip work whose outcome they can prove:
//   - the edge distance of a pixel centre is monotone along a row, so the run
//     of inside-and-not-near pixels is one interval, found with the exact
//     per-pixel test at its ends;
//   - doubles in SIMD lanes give the same bits as scalar doubles as long as
//     each operation and its order are the same, and nothing is fused
//     (contraction is switched off, so no FMA is emitted even where the
//     AVX-512 target would allow one);
//   - rounding halves away from zero is done as trunc plus an exact
//     fractional test, identical for the scalar and the vector code;
//   - a division by a power of two is the product by its exact reciprocal,
//     and a product by 1 is the number itself;
//   - texels are fetched by whichever loads are cheapest, but always the
//     same texels.
// The order in which the pixels of one layer are visited is free: a pixel's
// result depends only on its own earlier value.
//
// Hidden pixels are not drawn. Over an opaque pixel, blend() gives
// round((1 - t) D + t c) for each channel, which grows with D; where it gives
// the same byte for D = 0 and D = 255, it gives that byte whatever lies
// beneath (with t = 1, always). A band is drawn in chunks of rows, and each
// chunk first probes the opaque-looking layers from the top down: every
// pixel remembers the topmost drawing step (a cell or a polygon) whose result
// there is settled, and that result. Drawing then runs bottom up as usual,
// skipping the steps below a pixel's settled step and putting the remembered
// bytes back at it. The bytes are the ones the full drawing would give; only
// work whose outcome is overwritten is left out.
#include <math.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "engine_internal.h"

#if defined(__x86_64__) || defined(__i386__)
// GCC 12's AVX-512 headers leave the unused pass-through operand of unmasked
// intrinsics uninitialised on purpose, and its warning about that fires at
// every inlined use.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif
#define KVL_X86 1
#define KVL_AVX2 __attribute__((target("avx2")))
#define KVL_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline
#else
#define KVL_X86 0
#endif

#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

namespace {

// 1/255 as one constant: every "divide by 255" of the pixel code multiplies
// by it, so that all paths agree bit for bit.
constexpr double kInv255 = 0.00392156862745098;
constexpr double kSurfW = 1280.0, kSurfH = 720.0;
constexpr int32_t kMaxJobs = 32;

struct kvl_color {
  double r, g, b, a;
};

// The work of one thread: rows y0 (inclusive) to y1 (exclusive).
struct kvl_job {
  const kvl_prep* layers;
  int32_t count;
  uint8_t* pixels;
  int32_t width;
  int32_t stride;
  int32_t y0, y1;
  bool simd;  // AVX2 kernels
  bool wide;  // AVX-512 kernels where the processor has them
  int64_t settled;  // out: pixels whose lower layers were skipped
};

// Where a layer draws: `base` holds row `row0`, rows are `stride` bytes
// apart. A private band buffer is a canvas whose row0 is the band's first row.
struct canvas {
  uint8_t* base;
  ptrdiff_t stride;
  int32_t row0;
  int32_t width;
  bool opaque;  // the frame, whose pixels are all opaque
  uint8_t* row(int32_t y) const { return base + static_cast<ptrdiff_t>(y - row0) * stride; }
};

enum { FILL_SOLID = 0, FILL_PIXELS = 1, FILL_DECLARED = 2 };

// What the per-pixel code reads of a layer, taken from its record once.
struct shade {
  double opacity;
  bool luma;
  bool ellipse;
  const uint8_t* mask;
  double ic[6];
  int kind;
  double cr, cg, cb, ca;  // solid colour, straight, 0..255
  const uint8_t* src;
  int32_t sw, sh;
  double dsw, dsh;
  double cover_ox, cover_oy, cover_scale;
  bool cover_mul;     // cover_scale is a power of two with an exact reciprocal
  double cover_inv;   // 1 / cover_scale, exact when cover_mul
  // The content transform or the cover fit changes nothing: 1 u + 0 v + 0 and
  // (u - 0) / 1 give back u, up to the sign of a zero, which no later step
  // tells apart; and where v is not finite the point fails its range test
  // either way. The vector kernels skip the arithmetic then.
  bool ic_identity, cover_identity;
  bool simd;  // the AVX2 kernels may run for this layer
  bool wide;  // and the AVX-512 ones too
  bool frame;  // drawing onto the frame, whose pixels are all opaque
  // Hidden pixels of the chunk (see run_job): `hid` holds, for each pixel, the
  // id of the topmost step whose result there is settled (0: none), and `keep`
  // that result, 4 bytes a pixel; rows of `hid_w` pixels from row `hid_y0`.
  // Null `hid`: every pixel is drawn.
  uint16_t* hid;
  uint8_t* keep;
  int32_t hid_y0, hid_w;
  int32_t op;      // probing: the step's id; drawing: pixels with hid >= op are skipped
  bool probe;      // settle pixels into hid/keep instead of drawing
  int64_t* tally;  // probing: pixels probed, pixels settled
};

// Below this product of blend alpha, mask and ellipse a pixel cannot settle:
// t stays under 0.996 (1 + 1e-14), so blending over 0 and over 255 lies more
// than one apart and rounds apart. Probing drops such pixels before sampling.
constexpr double kSettles = 0.996;

// The chunk's hidden-pixel rows for frame row y; both null without culling.
struct hid_rows {
  uint16_t* h;
  uint8_t* k;
};

inline hid_rows hid_at(const shade& s, int32_t y) {
  if (!s.hid) return {nullptr, nullptr};
  const ptrdiff_t off = static_cast<ptrdiff_t>(y - s.hid_y0) * s.hid_w;
  return {s.hid + off, s.keep + 4 * off};
}

// Whether a pixel with hidden-map entry h takes part in the current pass.
inline bool hid_open(const shade& s, uint16_t h) { return s.probe ? h == 0 : h < s.op; }

inline kvl_color argb_color(uint32_t c) {
  kvl_color out;
  out.r = static_cast<double>((c >> 16) & 255u);
  out.g = static_cast<double>((c >> 8) & 255u);
  out.b = static_cast<double>(c & 255u);
  out.a = static_cast<double>(c >> 24);
  return out;
}

// Round to nearest, halves away from zero, for finite x >= 0 below 2^52:
// x - trunc(x) is exact there, so the test on the fraction is too.
inline uint8_t round_byte(double x) {
  double t = trunc(x);
  if (x - t >= 0.5) t += 1.0;
  return static_cast<uint8_t>(static_cast<int32_t>(t));
}

inline double clamp01(double x) { return x < 0.0 ? 0.0 : (x > 1.0 ? 1.0 : x); }

// Column or row of the surface mask for a surface coordinate. NaN lands on 0;
// such a point fails the content test of surface_color anyway.
inline int32_t mask_index(double u, double last) {
  double t = trunc(u);
  t = t > 0.0 ? t : 0.0;
  t = t < last ? t : last;
  return static_cast<int32_t>(t);
}

shade make_shade(const kvl_prep* p, double opacity, bool luma, bool simd, bool wide) {
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
  s.ic_identity = s.ic[0] == 1.0 && s.ic[1] == 0.0 && s.ic[2] == 0.0 && s.ic[3] == 0.0 && s.ic[4] == 1.0 &&
                  s.ic[5] == 0.0;
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
  // The vector sampler indexes texels with 32-bit offsets.
  s.simd = simd && (s.kind != FILL_PIXELS || static_cast<int64_t>(s.sw) * s.sh < (int64_t{1} << 31));
  s.wide = s.simd && wide;
  return s;
}

// ---------------------------------------------------------------------------
// Plain per-pixel code

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

// One pixel of a quad cell: (u, v) is kvl_h_apply of the cell's inverse at
// the pixel's centre, written out here with the same operation order.
inline void cell_pixel(const shade& s, const double* m, int32_t x, double cy, double alpha, uint8_t* row,
                       hid_rows hr) {
  if (hr.h && !hid_open(s, hr.h[x])) return;
  const double cx = x + 0.5;
  const double w = (m[6] * cx + m[7] * cy) + m[8];
  const double u = ((m[0] * cx + m[1] * cy) + m[2]) / w;
  const double v = ((m[3] * cx + m[4] * cy) + m[5]) / w;
  kvl_color c;
  if (surface_color(s, &c, u, v)) put(s, c, alpha, x, row, hr);
}

void cell_span_plain(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
  const double cy = y + 0.5;
  const hid_rows hr = hid_at(s, y);
  for (int32_t x = xa; x < xb; x++) cell_pixel(s, m, x, cy, s.opacity, row, hr);
}

void poly_span_plain(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb,
                     const uint8_t* cov, uint8_t* row) {
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

void fx_span_plain(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row) {
  for (int32_t i = 0; i < n; i++)
    if (cov[i]) blend(row + 4 * static_cast<ptrdiff_t>(i), col, luma, cov[i] * k);
}

// Puts the non-empty pixels of a band row back on the frame.
void reblend_span_plain(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  for (int32_t i = 0; i < n; i++) {
    const uint8_t* b = band + 4 * static_cast<ptrdiff_t>(i);
    if (!b[3]) continue;
    const kvl_color c = {static_cast<double>(b[0]), static_cast<double>(b[1]), static_cast<double>(b[2]),
                         static_cast<double>(b[3])};
    blend(row + 4 * static_cast<ptrdiff_t>(i), c, luma, opacity);
  }
}

// ---------------------------------------------------------------------------
// AVX2 kernels: four pixels at a time, the same doubles as the code above.

#if KVL_X86

KVL_AVX2_INLINE __m256d v_round(__m256d x) {
  const __m256d t = _mm256_round_pd(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m256d up = _mm256_cmp_pd(_mm256_sub_pd(x, t), _mm256_set1_pd(0.5), _CMP_GE_OQ);
  return _mm256_add_pd(t, _mm256_and_pd(up, _mm256_set1_pd(1.0)));
}

KVL_AVX2_INLINE __m256d v_channel(__m128i px, int shift) {
  return _mm256_cvtepi32_pd(_mm_and_si128(_mm_srli_epi32(px, shift), _mm_set1_epi32(255)));
}

KVL_AVX2_INLINE __m256d v_alpha(__m128i px) { return _mm256_cvtepi32_pd(_mm_srli_epi32(px, 24)); }

KVL_AVX2_INLINE __m128i v_lane_mask(int bits) {
  return _mm_set_epi32((bits & 8) ? -1 : 0, (bits & 4) ? -1 : 0, (bits & 2) ? -1 : 0, (bits & 1) ? -1 : 0);
}

// blend() for four pixels at px, with per-lane colour, alpha * 1/255 (aK) and
// the lanes to touch.
// blend_weight() for four pixels.
KVL_AVX2_INLINE __m256d v_weight(__m256d cr, __m256d cg, __m256d cb, __m256d ca, __m256d aK, bool luma) {
  __m256d t = _mm256_mul_pd(aK, ca);
  if (luma) {
    __m256d y = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(0.598), cr), _mm256_mul_pd(_mm256_set1_pd(1.174), cg));
    y = _mm256_add_pd(y, _mm256_mul_pd(_mm256_set1_pd(0.228), cb));
    y = _mm256_sub_pd(_mm256_mul_pd(y, _mm256_set1_pd(kInv255)), _mm256_set1_pd(0.04));
    y = _mm256_min_pd(_mm256_max_pd(y, _mm256_setzero_pd()), _mm256_set1_pd(1.0));
    t = _mm256_mul_pd(t, y);
  }
  return t;
}

KVL_AVX2_INLINE void v_blend(uint8_t* px, __m256d cr, __m256d cg, __m256d cb, __m256d ca, __m256d aK, bool luma,
                             __m256d act) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  __m256d t = v_weight(cr, cg, cb, ca, aK, luma);
  act = _mm256_and_pd(act, _mm256_cmp_pd(t, zero, _CMP_GT_OQ));
  int bits = _mm256_movemask_pd(act);
  if (!bits) return;
  t = _mm256_min_pd(t, one);
  const __m128i old = _mm_loadu_si128(reinterpret_cast<const __m128i*>(px));
  const __m256d dr = v_channel(old, 0), dg = v_channel(old, 8), db = v_channel(old, 16);
  const __m128i olda = _mm_srli_epi32(old, 24);
  const __m256d da = _mm256_mul_pd(_mm256_cvtepi32_pd(olda), _mm256_set1_pd(kInv255));
  const __m256d opaque = _mm256_cmp_pd(da, one, _CMP_GE_OQ);
  const __m256d omt = _mm256_sub_pd(one, t);
  __m256d r = v_round(_mm256_add_pd(_mm256_mul_pd(omt, dr), _mm256_mul_pd(t, cr)));
  __m256d g = v_round(_mm256_add_pd(_mm256_mul_pd(omt, dg), _mm256_mul_pd(t, cg)));
  __m256d b = v_round(_mm256_add_pd(_mm256_mul_pd(omt, db), _mm256_mul_pd(t, cb)));
  __m128i a = olda;
  if ((_mm256_movemask_pd(opaque) & bits) != bits) {
    const __m256d oa = _mm256_add_pd(t, _mm256_mul_pd(da, omt));
    act = _mm256_and_pd(act, _mm256_or_pd(opaque, _mm256_cmp_pd(oa, zero, _CMP_GT_OQ)));
    bits = _mm256_movemask_pd(act);
    if (!bits) return;
    const __m256d ws = _mm256_div_pd(t, oa), wd = _mm256_div_pd(_mm256_mul_pd(da, omt), oa);
    const __m256d r2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, dr), _mm256_mul_pd(ws, cr)));
    const __m256d g2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, dg), _mm256_mul_pd(ws, cg)));
    const __m256d b2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, db), _mm256_mul_pd(ws, cb)));
    const __m256d a2 = v_round(_mm256_mul_pd(_mm256_set1_pd(255.0), oa));
    r = _mm256_blendv_pd(r2, r, opaque);
    g = _mm256_blendv_pd(g2, g, opaque);
    b = _mm256_blendv_pd(b2, b, opaque);
    const __m128i op32 = _mm256_cvtpd_epi32(_mm256_and_pd(opaque, one));
    a = _mm_blendv_epi8(_mm256_cvttpd_epi32(a2), olda, _mm_cmpgt_epi32(op32, _mm_setzero_si128()));
  }
  __m128i outv = _mm256_cvttpd_epi32(r);
  outv = _mm_or_si128(outv, _mm_slli_epi32(_mm256_cvttpd_epi32(g), 8));
  outv = _mm_or_si128(outv, _mm_slli_epi32(_mm256_cvttpd_epi32(b), 16));
  outv = _mm_or_si128(outv, _mm_slli_epi32(a, 24));
  if (bits != 15) outv = _mm_blendv_epi8(old, outv, v_lane_mask(bits));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(px), outv);
}

// settle() for the four pixels from x on of a probed row.
KVL_AVX2_INLINE void v_settle(const shade& s, hid_rows hr, int32_t x, __m256d cr, __m256d cg, __m256d cb, __m256d ca,
                              __m256d aK, __m256d act) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0), full = _mm256_set1_pd(255.0);
  __m256d t = v_weight(cr, cg, cb, ca, aK, s.luma);
  act = _mm256_and_pd(act, _mm256_cmp_pd(t, zero, _CMP_GT_OQ));
  int bits = _mm256_movemask_pd(act);
  if (!bits) return;
  s.tally[0] += __builtin_popcount(static_cast<unsigned>(bits));
  t = _mm256_min_pd(t, one);
  const __m256d omt = _mm256_sub_pd(one, t);
  __m128i out = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m256d ch[3] = {cr, cg, cb};
  for (int i = 0; i < 3; i++) {
    const __m256d tc = _mm256_mul_pd(t, ch[i]);
    const __m256d lo = v_round(_mm256_add_pd(_mm256_mul_pd(omt, zero), tc));
    const __m256d hi = v_round(_mm256_add_pd(_mm256_mul_pd(omt, full), tc));
    bits &= _mm256_movemask_pd(_mm256_cmp_pd(lo, hi, _CMP_EQ_OQ));
    out = _mm_or_si128(out, _mm_slli_epi32(_mm256_cvttpd_epi32(lo), 8 * i));
  }
  if (!bits) return;
  alignas(16) uint32_t px[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(px), out);
  for (unsigned m = static_cast<unsigned>(bits); m; m &= m - 1) {
    const int l = __builtin_ctz(m);
    memcpy(hr.k + 4 * static_cast<ptrdiff_t>(x + l), &px[l], 4);
    hr.h[x + l] = static_cast<uint16_t>(s.op);
  }
  s.tally[1] += __builtin_popcount(static_cast<unsigned>(bits));
}

// The lanes of the four pixels from x on that take part in this pass.
KVL_AVX2_INLINE __m256d v_open(const shade& s, const uint16_t* h, int32_t x) {
  int64_t four;
  memcpy(&four, h + x, 8);
  const __m128i e = _mm_cvtepu16_epi32(_mm_cvtsi64_si128(four));
  const __m128i open = s.probe ? _mm_cmpeq_epi32(e, _mm_setzero_si128()) : _mm_cmplt_epi32(e, _mm_set1_epi32(s.op));
  return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(open));
}

// sample_src() for four lanes; lanes outside `act` may hold anything, their
// texel indices are clamped into the image all the same.
KVL_AVX2_INLINE void v_sample(const shade& s, __m256d x, __m256d y, __m256d* r, __m256d* g, __m256d* b,
                              __m256d* a) {
  const __m256d one = _mm256_set1_pd(1.0), half = _mm256_set1_pd(0.5);
  const __m256d fx = _mm256_sub_pd(x, half), fy = _mm256_sub_pd(y, half);
  const __m256d flx = _mm256_floor_pd(fx), fly = _mm256_floor_pd(fy);
  const __m256d tx = _mm256_sub_pd(fx, flx), ty = _mm256_sub_pd(fy, fly);
  const __m128i ix = _mm256_cvttpd_epi32(flx), iy = _mm256_cvttpd_epi32(fly);
  const __m128i zero = _mm_setzero_si128(), i1 = _mm_set1_epi32(1);
  const __m128i wl = _mm_set1_epi32(s.sw - 1), hl = _mm_set1_epi32(s.sh - 1);
  const __m128i x0 = _mm_min_epi32(_mm_max_epi32(ix, zero), wl);
  const __m128i x1 = _mm_min_epi32(_mm_max_epi32(_mm_add_epi32(ix, i1), zero), wl);
  const __m128i y0 = _mm_min_epi32(_mm_max_epi32(iy, zero), hl);
  const __m128i y1 = _mm_min_epi32(_mm_max_epi32(_mm_add_epi32(iy, i1), zero), hl);
  const __m128i w = _mm_set1_epi32(s.sw);
  const __m128i r0 = _mm_mullo_epi32(y0, w), r1 = _mm_mullo_epi32(y1, w);
  const int* base = reinterpret_cast<const int*>(s.src);
  __m128i t00, t10, t01, t11;
  // Away from the image's border no clamp changed anything, and the two
  // texels of a row are neighbours in memory: two 8-byte loads a lane are
  // cheaper than four gathers. The texels are the same either way.
  const __m128i unclamped = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi32(ix, x0), _mm_cmpeq_epi32(iy, y0)),
                                          _mm_and_si128(_mm_cmpeq_epi32(_mm_add_epi32(ix, i1), x1),
                                                        _mm_cmpeq_epi32(_mm_add_epi32(iy, i1), y1)));
  const bool inner = _mm_movemask_ps(_mm_castsi128_ps(unclamped)) == 15;
  // Often the four lanes read the same two rows within a run of 8 texels:
  // then one 32-byte load a row and a permutation fetch them all. The run
  // is read whole only where it lies within the image's buffer.
  const int32_t lx = _mm_cvtsi128_si32(x0), hx = _mm_extract_epi32(x0, 3);
  const int32_t run = lx < hx ? lx : hx, row0 = _mm_cvtsi128_si32(y0);
  const __m128i rel = _mm_sub_epi32(x0, _mm_set1_epi32(run));
  const bool flat = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(y0, _mm_set1_epi32(row0)))) == 15;
  // rel <= 6 for every lane, as unsigned: min(rel, 6) == rel.
  const __m128i capped = _mm_min_epu32(rel, _mm_set1_epi32(6));
  const bool narrow_run = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(capped, rel))) == 15;
  if (inner && flat && narrow_run &&
      (static_cast<int64_t>(row0) + 1) * s.sw + run + 8 <= static_cast<int64_t>(s.sw) * s.sh) {
    const int* p0 = base + (static_cast<ptrdiff_t>(row0) * s.sw + run);
    const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0));
    const __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0 + s.sw));
    const __m256i n0 = _mm256_castsi128_si256(rel), n1 = _mm256_castsi128_si256(_mm_add_epi32(rel, i1));
    t00 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b0, n0));
    t10 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b0, n1));
    t01 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b1, n0));
    t11 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b1, n1));
  } else if (inner) {
    alignas(16) int32_t o0[4], o1[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(o0), _mm_add_epi32(r0, x0));
    _mm_store_si128(reinterpret_cast<__m128i*>(o1), _mm_add_epi32(r1, x0));
    auto pair = [&](int32_t lo, int32_t hi) {
      return _mm_castpd_si128(
          _mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + lo))),
                       reinterpret_cast<const double*>(base + hi)));
    };
    const __m128 a01 = _mm_castsi128_ps(pair(o0[0], o0[1])), a23 = _mm_castsi128_ps(pair(o0[2], o0[3]));
    const __m128 b01 = _mm_castsi128_ps(pair(o1[0], o1[1])), b23 = _mm_castsi128_ps(pair(o1[2], o1[3]));
    t00 = _mm_castps_si128(_mm_shuffle_ps(a01, a23, _MM_SHUFFLE(2, 0, 2, 0)));
    t10 = _mm_castps_si128(_mm_shuffle_ps(a01, a23, _MM_SHUFFLE(3, 1, 3, 1)));
    t01 = _mm_castps_si128(_mm_shuffle_ps(b01, b23, _MM_SHUFFLE(2, 0, 2, 0)));
    t11 = _mm_castps_si128(_mm_shuffle_ps(b01, b23, _MM_SHUFFLE(3, 1, 3, 1)));
  } else {
    t00 = _mm_i32gather_epi32(base, _mm_add_epi32(r0, x0), 4);
    t10 = _mm_i32gather_epi32(base, _mm_add_epi32(r0, x1), 4);
    t01 = _mm_i32gather_epi32(base, _mm_add_epi32(r1, x0), 4);
    t11 = _mm_i32gather_epi32(base, _mm_add_epi32(r1, x1), 4);
  }
  const __m256d omtx = _mm256_sub_pd(one, tx), omty = _mm256_sub_pd(one, ty);
  const __m256d w00 = _mm256_mul_pd(omtx, omty), w10 = _mm256_mul_pd(tx, omty);
  const __m256d w01 = _mm256_mul_pd(omtx, ty), w11 = _mm256_mul_pd(tx, ty);
  const __m256d a00 = v_alpha(t00), a10 = v_alpha(t10), a01 = v_alpha(t01), a11 = v_alpha(t11);
  __m256d sa = _mm256_add_pd(_mm256_mul_pd(w00, a00), _mm256_mul_pd(w10, a10));
  sa = _mm256_add_pd(sa, _mm256_mul_pd(w01, a01));
  sa = _mm256_add_pd(sa, _mm256_mul_pd(w11, a11));
  *a = sa;
  const __m256d q00 = _mm256_div_pd(w00, sa), q10 = _mm256_div_pd(w10, sa);
  const __m256d q01 = _mm256_div_pd(w01, sa), q11 = _mm256_div_pd(w11, sa);
  __m256d out[3];
  for (int c = 0; c < 3; c++) {
    const int sh = 8 * c;
    __m256d acc = _mm256_add_pd(_mm256_mul_pd(_mm256_mul_pd(q00, v_channel(t00, sh)), a00),
                                _mm256_mul_pd(_mm256_mul_pd(q10, v_channel(t10, sh)), a10));
    acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_mul_pd(q01, v_channel(t01, sh)), a01));
    acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_mul_pd(q11, v_channel(t11, sh)), a11));
    out[c] = acc;
  }
  *r = out[0];
  *g = out[1];
  *b = out[2];
}

// surface_color() and blend() for up to kBatch groups of four pixels, each
// pixel with its own blend alpha. The work goes in passes over the whole
// batch: coordinates and tests first, then the source samples, then the
// blends. One pixel's chain of dependent steps is long (the homography's
// division, then the cover division, the texel loads, the weight divisions,
// the blend), and fused into one loop body it is too long for the processor
// to overlap one group with the next; in passes, the groups of a pass are
// independent and their latencies hide behind each other. Every lane goes
// through exactly the operations of the scalar code, in the same order.
constexpr int kBatch = 16;

struct v_batch {
  __m256d u[kBatch], v[kBatch], alpha[kBatch], act[kBatch];
  uint8_t* px[kBatch];
  int32_t x[kBatch];  // the group's first pixel, for probing
  hid_rows hr;
  int n;
};

KVL_AVX2_INLINE void v_shade_batch(const shade& s, v_batch* b) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  __m256d me[kBatch], ca[kBatch];
  const int n = b->n;
  // Pass 1: ellipse, mask, content and cover tests. For a source with
  // pixels, u and v are replaced by the source coordinates.
  for (int i = 0; i < n; i++) {
    const __m256d u = b->u[i], v = b->v[i];
    __m256d act = b->act[i];
    __m256d m = one, e = one;
    if (s.ellipse) {
      const __m256d du = _mm256_sub_pd(_mm256_div_pd(u, _mm256_set1_pd(kSurfW)), _mm256_set1_pd(0.5));
      const __m256d dv = _mm256_sub_pd(_mm256_div_pd(v, _mm256_set1_pd(kSurfH)), _mm256_set1_pd(0.5));
      const __m256d r = _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(du, du), _mm256_mul_pd(dv, dv)));
      // NaN comes out as 0 here and as NaN in clamp01; either way the content
      // test below refuses such a point.
      e = _mm256_min_pd(
          _mm256_max_pd(_mm256_sub_pd(_mm256_set1_pd(360.5), _mm256_mul_pd(_mm256_set1_pd(720.0), r)), zero), one);
      act = _mm256_and_pd(act, _mm256_cmp_pd(e, zero, _CMP_NEQ_UQ));
    }
    if (s.mask && _mm256_movemask_pd(act)) {
      const __m256d col = _mm256_min_pd(
          _mm256_max_pd(_mm256_round_pd(u, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero), _mm256_set1_pd(1279.0));
      const __m256d row = _mm256_min_pd(
          _mm256_max_pd(_mm256_round_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero), _mm256_set1_pd(719.0));
      const __m128i idx =
          _mm_add_epi32(_mm_mullo_epi32(_mm256_cvttpd_epi32(row), _mm_set1_epi32(1280)), _mm256_cvttpd_epi32(col));
      alignas(16) int32_t ix[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(ix), idx);
      const __m128i bytes = _mm_set_epi32(s.mask[ix[3]], s.mask[ix[2]], s.mask[ix[1]], s.mask[ix[0]]);
      m = _mm256_mul_pd(_mm256_cvtepi32_pd(bytes), _mm256_set1_pd(kInv255));
      act = _mm256_and_pd(act, _mm256_cmp_pd(m, zero, _CMP_NEQ_UQ));
    }
    __m256d cu = u, cv = v;
    if (!s.ic_identity) {
      cu = _mm256_add_pd(
          _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(s.ic[0]), u), _mm256_mul_pd(_mm256_set1_pd(s.ic[1]), v)),
          _mm256_set1_pd(s.ic[2]));
      cv = _mm256_add_pd(
          _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(s.ic[3]), u), _mm256_mul_pd(_mm256_set1_pd(s.ic[4]), v)),
          _mm256_set1_pd(s.ic[5]));
    }
    act = _mm256_and_pd(act, _mm256_cmp_pd(cu, zero, _CMP_GE_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cu, _mm256_set1_pd(kSurfW), _CMP_LT_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cv, zero, _CMP_GE_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cv, _mm256_set1_pd(kSurfH), _CMP_LT_OQ));
    me[i] = _mm256_mul_pd(m, e);
    if (s.probe)
      act = _mm256_and_pd(act, _mm256_cmp_pd(_mm256_mul_pd(b->alpha[i], me[i]), _mm256_set1_pd(kSettles), _CMP_GE_OQ));
    if (s.kind == FILL_SOLID) {
      ca[i] = _mm256_mul_pd(me[i], _mm256_set1_pd(s.ca));
    } else if (s.kind == FILL_PIXELS) {
      __m256d sx = cu, sy = cv;
      if (s.cover_identity) {
      } else if (s.cover_mul) {
        // The scale is a power of two: the product by its exact reciprocal
        // is the same correctly rounded number as the quotient.
        const __m256d ci = _mm256_set1_pd(s.cover_inv);
        sx = _mm256_mul_pd(_mm256_sub_pd(cu, _mm256_set1_pd(s.cover_ox)), ci);
        sy = _mm256_mul_pd(_mm256_sub_pd(cv, _mm256_set1_pd(s.cover_oy)), ci);
      } else {
        const __m256d cs = _mm256_set1_pd(s.cover_scale);
        sx = _mm256_div_pd(_mm256_sub_pd(cu, _mm256_set1_pd(s.cover_ox)), cs);
        sy = _mm256_div_pd(_mm256_sub_pd(cv, _mm256_set1_pd(s.cover_oy)), cs);
      }
      act = _mm256_and_pd(act, _mm256_cmp_pd(sx, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sx, _mm256_set1_pd(s.dsw), _CMP_LT_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sy, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sy, _mm256_set1_pd(s.dsh), _CMP_LT_OQ));
      b->u[i] = sx;
      b->v[i] = sy;
    } else {
      ca[i] = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(255.0), m), e);
    }
    b->act[i] = act;
  }
  // Pass 2: the colours. Without ellipse and mask, m e is 1 and m e a is a
  // itself.
  const bool plain_me = !s.ellipse && !s.mask;
  __m256d cr[kBatch], cg[kBatch], cb[kBatch];
  if (s.kind == FILL_PIXELS) {
    for (int i = 0; i < n; i++) {
      if (!_mm256_movemask_pd(b->act[i])) continue;
      __m256d sa;
      v_sample(s, b->u[i], b->v[i], &cr[i], &cg[i], &cb[i], &sa);
      ca[i] = plain_me ? sa : _mm256_mul_pd(me[i], sa);
    }
  } else {
    const __m256d r = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cr : 51.0);
    const __m256d g = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cg : 51.0);
    const __m256d bl = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cb : 51.0);
    for (int i = 0; i < n; i++) {
      cr[i] = r;
      cg[i] = g;
      cb[i] = bl;
    }
  }
  // Pass 3: the blends. Apart, the samples of pass 2 overlap better.
  for (int i = 0; i < n; i++) {
    if (!_mm256_movemask_pd(b->act[i])) continue;
    const __m256d aK = _mm256_mul_pd(b->alpha[i], _mm256_set1_pd(kInv255));
    const __m256d act = _mm256_and_pd(b->act[i], _mm256_cmp_pd(ca[i], zero, _CMP_GT_OQ));
    if (s.probe)
      v_settle(s, b->hr, b->x[i], cr[i], cg[i], cb[i], ca[i], aK, act);
    else
      v_blend(b->px[i], cr[i], cg[i], cb[i], ca[i], aK, s.luma, act);
  }
}

KVL_AVX2 void cell_span_avx2(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
  const double cy = y + 0.5;
  const __m256d m0 = _mm256_set1_pd(m[0]), m3 = _mm256_set1_pd(m[3]), m6 = _mm256_set1_pd(m[6]);
  const __m256d m1cy = _mm256_set1_pd(m[1] * cy), m4cy = _mm256_set1_pd(m[4] * cy), m7cy = _mm256_set1_pd(m[7] * cy);
  const __m256d m2 = _mm256_set1_pd(m[2]), m5 = _mm256_set1_pd(m[5]), m8 = _mm256_set1_pd(m[8]);
  const __m256d alpha = _mm256_set1_pd(s.opacity);
  const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  const __m128i lane = _mm_set_epi32(3, 2, 1, 0);
  v_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x + 4 <= xb) {
    int n = 0;
    for (; n < kBatch && x + 4 <= xb; x += 4) {
      const __m256d act = b.hr.h ? v_open(s, b.hr.h, x) : all;
      if (!_mm256_movemask_pd(act)) continue;
      const __m256d cx =
          _mm256_add_pd(_mm256_cvtepi32_pd(_mm_add_epi32(_mm_set1_epi32(x), lane)), _mm256_set1_pd(0.5));
      const __m256d w = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m6, cx), m7cy), m8);
      b.u[n] = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m0, cx), m1cy), m2), w);
      b.v[n] = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m3, cx), m4cy), m5), w);
      b.alpha[n] = alpha;
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) v_shade_batch(s, &b);
  }
  for (; x < xb; x++) cell_pixel(s, m, x, cy, s.opacity, row, b.hr);
}

KVL_AVX2 void poly_span_avx2(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb,
                             const uint8_t* cov, uint8_t* row) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d ox = _mm256_set1_pd(p->poly_ox), sc = _mm256_set1_pd(p->poly_scale);
  const __m256d k = _mm256_set1_pd(kInv255 * s.opacity);
  const __m256d vv = _mm256_set1_pd(v);
  const __m128i lane = _mm_set_epi32(3, 2, 1, 0);
  v_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x + 4 <= xb) {
    int n = 0;
    for (; n < kBatch && x + 4 <= xb; x += 4) {
      int32_t c4;
      memcpy(&c4, cov + (x - xa), 4);
      if (!c4) continue;
      const __m256d c = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(c4)));
      const __m256d cx =
          _mm256_add_pd(_mm256_cvtepi32_pd(_mm_add_epi32(_mm_set1_epi32(x), lane)), _mm256_set1_pd(0.5));
      const __m256d u = _mm256_div_pd(_mm256_sub_pd(cx, ox), sc);
      __m256d act = _mm256_cmp_pd(c, zero, _CMP_NEQ_OQ);
      if (b.hr.h) act = _mm256_and_pd(act, v_open(s, b.hr.h, x));
      act = _mm256_and_pd(act, _mm256_cmp_pd(u, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(u, _mm256_set1_pd(kSurfW), _CMP_LT_OQ));
      if (!_mm256_movemask_pd(act)) continue;
      b.u[n] = u;
      b.v[n] = vv;
      b.alpha[n] = _mm256_mul_pd(c, k);
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) v_shade_batch(s, &b);
  }
  if (x < xb) poly_span_plain(s, p, y, v, x, xb, cov + (x - xa), row);
}

KVL_AVX2 void fx_span_avx2(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d cr = _mm256_set1_pd(col.r), cg = _mm256_set1_pd(col.g), cb = _mm256_set1_pd(col.b);
  const __m256d ca = _mm256_set1_pd(col.a), kk = _mm256_set1_pd(k), inv = _mm256_set1_pd(kInv255);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    int32_t c4;
    memcpy(&c4, cov + i, 4);
    if (!c4) continue;
    const __m256d c = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(c4)));
    const __m256d act = _mm256_cmp_pd(c, zero, _CMP_NEQ_OQ);
    v_blend(row + 4 * static_cast<ptrdiff_t>(i), cr, cg, cb, ca, _mm256_mul_pd(_mm256_mul_pd(c, kk), inv), luma, act);
  }
  if (i < n) fx_span_plain(col, luma, k, cov + i, n - i, row + 4 * static_cast<ptrdiff_t>(i));
}

KVL_AVX2 void reblend_span_avx2(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d aK = _mm256_set1_pd(opacity * kInv255);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(band + 4 * static_cast<ptrdiff_t>(i)));
    if (_mm_testz_si128(b, _mm_set1_epi32(static_cast<int32_t>(0xFF000000u)))) continue;
    const __m256d a = v_alpha(b);
    v_blend(row + 4 * static_cast<ptrdiff_t>(i), v_channel(b, 0), v_channel(b, 8), v_channel(b, 16), a, aK, luma,
            _mm256_cmp_pd(a, zero, _CMP_NEQ_OQ));
  }
  if (i < n) reblend_span_plain(band + 4 * static_cast<ptrdiff_t>(i), row + 4 * static_cast<ptrdiff_t>(i), n - i,
                                luma, opacity);
}

// ---------------------------------------------------------------------------
// AVX-512 kernels: the same passes over eight pixels at a time, for processors
// that have it. The lanes compute exactly what the four-wide code computes;
// only the lane count and the way masks are held differ. The last group of a
// span may be partial: its missing lanes are masked off, loads and stores
// included.

#define KVL_AVX512 __attribute__((target("avx2,avx512f,avx512vl,avx512dq")))
#define KVL_AVX512_INLINE __attribute__((target("avx2,avx512f,avx512vl,avx512dq"), always_inline)) inline

KVL_AVX512_INLINE __m512d w_round(__m512d x) {
  const __m512d t = _mm512_roundscale_pd(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __mmask8 up = _mm512_cmp_pd_mask(_mm512_sub_pd(x, t), _mm512_set1_pd(0.5), _CMP_GE_OQ);
  return _mm512_mask_add_pd(t, up, t, _mm512_set1_pd(1.0));
}

KVL_AVX512_INLINE __m512d w_channel(__m256i px, int shift) {
  return _mm512_cvtepi32_pd(_mm256_and_si256(_mm256_srli_epi32(px, shift), _mm256_set1_epi32(255)));
}

KVL_AVX512_INLINE __m512d w_alpha(__m256i px) { return _mm512_cvtepi32_pd(_mm256_srli_epi32(px, 24)); }

// v_blend() for eight pixels; only the lanes of `act` are read and stored.
// blend_weight() for eight pixels.
KVL_AVX512_INLINE __m512d w_weight(__m512d cr, __m512d cg, __m512d cb, __m512d ca, __m512d aK, bool luma) {
  __m512d t = _mm512_mul_pd(aK, ca);
  if (luma) {
    __m512d y = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(0.598), cr), _mm512_mul_pd(_mm512_set1_pd(1.174), cg));
    y = _mm512_add_pd(y, _mm512_mul_pd(_mm512_set1_pd(0.228), cb));
    y = _mm512_sub_pd(_mm512_mul_pd(y, _mm512_set1_pd(kInv255)), _mm512_set1_pd(0.04));
    y = _mm512_min_pd(_mm512_max_pd(y, _mm512_setzero_pd()), _mm512_set1_pd(1.0));
    t = _mm512_mul_pd(t, y);
  }
  return t;
}

// With `frame` the pixels are known to be opaque (the frame's always are) and
// their alpha is not looked at.
KVL_AVX512_INLINE void w_blend(uint8_t* px, __m512d cr, __m512d cg, __m512d cb, __m512d ca, __m512d aK, bool luma,
                               __mmask8 act, bool frame) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0);
  __m512d t = w_weight(cr, cg, cb, ca, aK, luma);
  act &= _mm512_cmp_pd_mask(t, zero, _CMP_GT_OQ);
  if (!act) return;
  t = _mm512_min_pd(t, one);
  // Masked: the last group of a span may reach past the frame's last pixel.
  const __m256i old = _mm256_maskz_loadu_epi32(act, px);
  const __m512d dr = w_channel(old, 0), dg = w_channel(old, 8), db = w_channel(old, 16);
  const __m512d omt = _mm512_sub_pd(one, t);
  __m512d r = w_round(_mm512_add_pd(_mm512_mul_pd(omt, dr), _mm512_mul_pd(t, cr)));
  __m512d g = w_round(_mm512_add_pd(_mm512_mul_pd(omt, dg), _mm512_mul_pd(t, cg)));
  __m512d b = w_round(_mm512_add_pd(_mm512_mul_pd(omt, db), _mm512_mul_pd(t, cb)));
  __m256i outa = _mm256_and_si256(old, _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u)));
  const __m256i olda = _mm256_srli_epi32(old, 24);
  const __m512d da = frame ? one : _mm512_mul_pd(_mm512_cvtepi32_pd(olda), _mm512_set1_pd(kInv255));
  const __mmask8 opaque = frame ? act : _mm512_cmp_pd_mask(da, one, _CMP_GE_OQ);
  if ((opaque & act) != act) {
    const __m512d oa = _mm512_add_pd(t, _mm512_mul_pd(da, omt));
    act &= static_cast<__mmask8>(opaque | _mm512_cmp_pd_mask(oa, zero, _CMP_GT_OQ));
    if (!act) return;
    const __m512d ws = _mm512_div_pd(t, oa), wd = _mm512_div_pd(_mm512_mul_pd(da, omt), oa);
    const __m512d r2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, dr), _mm512_mul_pd(ws, cr)));
    const __m512d g2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, dg), _mm512_mul_pd(ws, cg)));
    const __m512d b2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, db), _mm512_mul_pd(ws, cb)));
    const __m512d a2 = w_round(_mm512_mul_pd(_mm512_set1_pd(255.0), oa));
    r = _mm512_mask_blend_pd(opaque, r2, r);
    g = _mm512_mask_blend_pd(opaque, g2, g);
    b = _mm512_mask_blend_pd(opaque, b2, b);
    outa = _mm256_slli_epi32(_mm256_mask_blend_epi32(opaque, _mm512_cvttpd_epi32(a2), olda), 24);
  }
  __m256i outv = _mm512_cvttpd_epi32(r);
  outv = _mm256_or_si256(outv, _mm256_slli_epi32(_mm512_cvttpd_epi32(g), 8));
  outv = _mm256_or_si256(outv, _mm256_slli_epi32(_mm512_cvttpd_epi32(b), 16));
  outv = _mm256_or_si256(outv, outa);
  _mm256_mask_storeu_epi32(px, act, outv);
}

// settle() for the eight pixels from x on of a probed row.
KVL_AVX512_INLINE void w_settle(const shade& s, hid_rows hr, int32_t x, __m512d cr, __m512d cg, __m512d cb, __m512d ca,
                                __m512d aK, __mmask8 act) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0), full = _mm512_set1_pd(255.0);
  __m512d t = w_weight(cr, cg, cb, ca, aK, s.luma);
  act &= _mm512_cmp_pd_mask(t, zero, _CMP_GT_OQ);
  if (!act) return;
  s.tally[0] += __builtin_popcount(act);
  t = _mm512_min_pd(t, one);
  const __m512d omt = _mm512_sub_pd(one, t);
  __m256i out = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m512d ch[3] = {cr, cg, cb};
  for (int i = 0; i < 3; i++) {
    const __m512d tc = _mm512_mul_pd(t, ch[i]);
    const __m512d lo = w_round(_mm512_add_pd(_mm512_mul_pd(omt, zero), tc));
    const __m512d hi = w_round(_mm512_add_pd(_mm512_mul_pd(omt, full), tc));
    act &= _mm512_cmp_pd_mask(lo, hi, _CMP_EQ_OQ);
    out = _mm256_or_si256(out, _mm256_slli_epi32(_mm512_cvttpd_epi32(lo), 8 * i));
  }
  if (!act) return;
  _mm256_mask_storeu_epi32(hr.k + 4 * static_cast<ptrdiff_t>(x), act, out);
  for (unsigned m = act; m; m &= m - 1) hr.h[x + __builtin_ctz(m)] = static_cast<uint16_t>(s.op);
  s.tally[1] += __builtin_popcount(act);
}

// The lanes among `lanes` of the eight pixels from x on that take part in
// this pass.
KVL_AVX512_INLINE __mmask8 w_open(const shade& s, const uint16_t* h, int32_t x, __mmask8 lanes) {
  __m128i e16;
  if (lanes == 0xFF) {
    e16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h + x));
  } else {  // the row may end before the group does
    alignas(16) uint16_t part[8] = {};
    memcpy(part, h + x, 2 * static_cast<size_t>(32 - __builtin_clz(static_cast<unsigned>(lanes))));
    e16 = _mm_load_si128(reinterpret_cast<const __m128i*>(part));
  }
  const __m256i e = _mm256_cvtepu16_epi32(e16);
  const __mmask8 open = s.probe ? _mm256_cmpeq_epi32_mask(e, _mm256_setzero_si256())
                                : _mm256_cmplt_epi32_mask(e, _mm256_set1_epi32(s.op));
  return lanes & open;
}

// v_sample() for eight lanes comes in two steps, w_fetch() and w_mix(), run
// as two passes over a batch: the texel loads of one group then hide behind
// those of the others. w_texels holds what passes between them: the four
// texels of each lane and their bilinear weights.
struct w_texels {
  __m512d w00, w10, w01, w11;
  __m256i t00, t10, t01, t11;
};

// The first half of sample_src() for eight lanes: texels and weights. Lanes
// outside the caller's mask may hold anything; their texel indices are
// clamped into the image all the same.
KVL_AVX512_INLINE void w_fetch(const shade& s, __m512d x, __m512d y, w_texels* out) {
  const __m512d one = _mm512_set1_pd(1.0), half = _mm512_set1_pd(0.5);
  const __m512d fx = _mm512_sub_pd(x, half), fy = _mm512_sub_pd(y, half);
  const __m512d flx = _mm512_roundscale_pd(fx, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
  const __m512d fly = _mm512_roundscale_pd(fy, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
  const __m512d tx = _mm512_sub_pd(fx, flx), ty = _mm512_sub_pd(fy, fly);
  const __m256i ix = _mm512_cvttpd_epi32(flx), iy = _mm512_cvttpd_epi32(fly);
  const __m256i zero = _mm256_setzero_si256(), i1 = _mm256_set1_epi32(1);
  const int* base = reinterpret_cast<const int*>(s.src);
  __m256i t00, t10, t01, t11;
  // Lanes whose four texels all lie inside the image, 0 <= ix <= W - 2 and
  // 0 <= iy <= H - 2 (as unsigned compares): there no clamp changes anything,
  // and the two texels of a row are neighbours in memory.
  const __mmask8 inside = s.sw >= 2 && s.sh >= 2 ? _mm256_cmple_epu32_mask(ix, _mm256_set1_epi32(s.sw - 2)) &
                                                       _mm256_cmple_epu32_mask(iy, _mm256_set1_epi32(s.sh - 2))
                                                 : 0;
  // Often all eight lanes read within a run of 16 texels of the same two or
  // three rows (the image is not shrunk much): then one 64-byte load a row
  // and a permutation across two rows fetch all texels. A run is read whole
  // only where it lies within the image's buffer.
  bool run_fits = false;
  int32_t run = 0, row0 = 0;
  __m256i rel = zero, dy = zero;
  bool flat = false;
  if (inside == 0xFF) {
    const int32_t lx = _mm256_cvtsi256_si32(ix), hx = _mm256_extract_epi32(ix, 7);
    const int32_t ly = _mm256_cvtsi256_si32(iy), hy = _mm256_extract_epi32(iy, 7);
    run = lx < hx ? lx : hx;
    row0 = ly < hy ? ly : hy;
    rel = _mm256_sub_epi32(ix, _mm256_set1_epi32(run));
    dy = _mm256_sub_epi32(iy, _mm256_set1_epi32(row0));
    flat = _mm256_cmpeq_epi32_mask(dy, zero) == 0xFF;
    const int64_t end = (static_cast<int64_t>(row0) + (flat ? 1 : 2)) * s.sw + run + 16;
    run_fits = _mm256_cmple_epu32_mask(rel, _mm256_set1_epi32(14)) == 0xFF &&
               _mm256_cmple_epu32_mask(dy, i1) == 0xFF && end <= static_cast<int64_t>(s.sw) * s.sh;
  }
  if (run_fits) {
    const int* p0 = base + (static_cast<ptrdiff_t>(row0) * s.sw + run);
    const __m512i b0 = _mm512_loadu_si512(p0), b1 = _mm512_loadu_si512(p0 + s.sw);
    const __m512i b2 = flat ? b1 : _mm512_loadu_si512(p0 + 2 * static_cast<ptrdiff_t>(s.sw));
    // Index bit 4 picks the second of the two rows for lanes one row down.
    const __m256i n0 = _mm256_add_epi32(rel, _mm256_slli_epi32(dy, 4));
    const __m512i w0 = _mm512_castsi256_si512(n0), w1 = _mm512_castsi256_si512(_mm256_add_epi32(n0, i1));
    t00 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b0, w0, b1));
    t10 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b0, w1, b1));
    t01 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b1, w0, b2));
    t11 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b1, w1, b2));
  } else if (inside == 0xFF) {
    // One 8-byte load a lane and row fetches both texels of the row, which
    // is cheaper than a gather.
    const __m256i w = _mm256_set1_epi32(s.sw);
    const __m256i o0 = _mm256_add_epi32(_mm256_mullo_epi32(iy, w), ix);
    alignas(32) int32_t off[2][8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(off[0]), o0);
    _mm256_store_si256(reinterpret_cast<__m256i*>(off[1]), _mm256_add_epi32(o0, w));
    auto pair = [&](int32_t lo, int32_t hi) {
      return _mm_castpd_ps(_mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + lo))),
                                        reinterpret_cast<const double*>(base + hi)));
    };
    __m256i t[2][2];
    for (int rr = 0; rr < 2; rr++) {
      const int32_t* o = off[rr];
      // Lanes 0, 1, 4, 5 in one register and 2, 3, 6, 7 in the other, so
      // that the in-lane shuffles below put the texels back in lane order.
      const __m256 lo = _mm256_insertf128_ps(_mm256_castps128_ps256(pair(o[0], o[1])), pair(o[4], o[5]), 1);
      const __m256 hi = _mm256_insertf128_ps(_mm256_castps128_ps256(pair(o[2], o[3])), pair(o[6], o[7]), 1);
      t[rr][0] = _mm256_castps_si256(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0)));
      t[rr][1] = _mm256_castps_si256(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1)));
    }
    t00 = t[0][0];
    t10 = t[0][1];
    t01 = t[1][0];
    t11 = t[1][1];
  } else {
    // Near the border (or in lanes that take no part): clamped indices.
    const __m256i wl = _mm256_set1_epi32(s.sw - 1), hl = _mm256_set1_epi32(s.sh - 1);
    const __m256i x0 = _mm256_min_epi32(_mm256_max_epi32(ix, zero), wl);
    const __m256i x1 = _mm256_min_epi32(_mm256_max_epi32(_mm256_add_epi32(ix, i1), zero), wl);
    const __m256i y0 = _mm256_min_epi32(_mm256_max_epi32(iy, zero), hl);
    const __m256i y1 = _mm256_min_epi32(_mm256_max_epi32(_mm256_add_epi32(iy, i1), zero), hl);
    const __m256i w = _mm256_set1_epi32(s.sw);
    const __m256i o0 = _mm256_add_epi32(_mm256_mullo_epi32(y0, w), x0);
    const __m256i o1 = _mm256_add_epi32(_mm256_mullo_epi32(y1, w), x0);
    const __m256i d = _mm256_sub_epi32(x1, x0);
    t00 = _mm256_i32gather_epi32(base, o0, 4);
    t10 = _mm256_i32gather_epi32(base, _mm256_add_epi32(o0, d), 4);
    t01 = _mm256_i32gather_epi32(base, o1, 4);
    t11 = _mm256_i32gather_epi32(base, _mm256_add_epi32(o1, d), 4);
  }
  const __m512d omtx = _mm512_sub_pd(one, tx), omty = _mm512_sub_pd(one, ty);
  out->w00 = _mm512_mul_pd(omtx, omty);
  out->w10 = _mm512_mul_pd(tx, omty);
  out->w01 = _mm512_mul_pd(omtx, ty);
  out->w11 = _mm512_mul_pd(tx, ty);
  out->t00 = t00;
  out->t10 = t10;
  out->t01 = t01;
  out->t11 = t11;
}

// The rest of sample_src() for eight lanes, from their texels and weights.
KVL_AVX512_INLINE void w_mix(const w_texels& tx, __m512d* r, __m512d* g, __m512d* b, __m512d* a) {
  const __m512d w00 = tx.w00, w10 = tx.w10, w01 = tx.w01, w11 = tx.w11;
  const __m256i t00 = tx.t00, t10 = tx.t10, t01 = tx.t01, t11 = tx.t11;
  const __m512d a00 = w_alpha(t00), a10 = w_alpha(t10), a01 = w_alpha(t01), a11 = w_alpha(t11);
  __m512d sa = _mm512_add_pd(_mm512_mul_pd(w00, a00), _mm512_mul_pd(w10, a10));
  sa = _mm512_add_pd(sa, _mm512_mul_pd(w01, a01));
  sa = _mm512_add_pd(sa, _mm512_mul_pd(w11, a11));
  *a = sa;
  const __m512d q00 = _mm512_div_pd(w00, sa), q10 = _mm512_div_pd(w10, sa);
  const __m512d q01 = _mm512_div_pd(w01, sa), q11 = _mm512_div_pd(w11, sa);
  __m512d out[3];
  for (int c = 0; c < 3; c++) {
    const int sh = 8 * c;
    __m512d acc = _mm512_add_pd(_mm512_mul_pd(_mm512_mul_pd(q00, w_channel(t00, sh)), a00),
                                _mm512_mul_pd(_mm512_mul_pd(q10, w_channel(t10, sh)), a10));
    acc = _mm512_add_pd(acc, _mm512_mul_pd(_mm512_mul_pd(q01, w_channel(t01, sh)), a01));
    acc = _mm512_add_pd(acc, _mm512_mul_pd(_mm512_mul_pd(q11, w_channel(t11, sh)), a11));
    out[c] = acc;
  }
  *r = out[0];
  *g = out[1];
  *b = out[2];
}

constexpr int kWideBatch = 8;

struct w_batch {
  __m512d u[kWideBatch], v[kWideBatch], alpha[kWideBatch];
  __mmask8 act[kWideBatch];
  uint8_t* px[kWideBatch];
  int32_t x[kWideBatch];  // the group's first pixel, for probing
  hid_rows hr;
  int n;
};

// v_shade_batch() for groups of eight pixels.
KVL_AVX512_INLINE void w_shade_batch(const shade& s, w_batch* b) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0);
  __m512d me[kWideBatch], ca[kWideBatch];
  const int n = b->n;
  for (int i = 0; i < n; i++) {
    const __m512d u = b->u[i], v = b->v[i];
    __mmask8 act = b->act[i];
    __m512d m = one, e = one;
    if (s.ellipse) {
      const __m512d du = _mm512_sub_pd(_mm512_div_pd(u, _mm512_set1_pd(kSurfW)), _mm512_set1_pd(0.5));
      const __m512d dv = _mm512_sub_pd(_mm512_div_pd(v, _mm512_set1_pd(kSurfH)), _mm512_set1_pd(0.5));
      const __m512d r = _mm512_sqrt_pd(_mm512_add_pd(_mm512_mul_pd(du, du), _mm512_mul_pd(dv, dv)));
      e = _mm512_min_pd(
          _mm512_max_pd(_mm512_sub_pd(_mm512_set1_pd(360.5), _mm512_mul_pd(_mm512_set1_pd(720.0), r)), zero), one);
      act &= _mm512_cmp_pd_mask(e, zero, _CMP_NEQ_UQ);
    }
    if (s.mask && act) {
      const __m512d col = _mm512_min_pd(
          _mm512_max_pd(_mm512_roundscale_pd(u, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero),
          _mm512_set1_pd(1279.0));
      const __m512d row = _mm512_min_pd(
          _mm512_max_pd(_mm512_roundscale_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero),
          _mm512_set1_pd(719.0));
      const __m256i idx = _mm256_add_epi32(_mm256_mullo_epi32(_mm512_cvttpd_epi32(row), _mm256_set1_epi32(1280)),
                                           _mm512_cvttpd_epi32(col));
      alignas(32) int32_t ix[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(ix), idx);
      const __m256i bytes = _mm256_setr_epi32(s.mask[ix[0]], s.mask[ix[1]], s.mask[ix[2]], s.mask[ix[3]],
                                              s.mask[ix[4]], s.mask[ix[5]], s.mask[ix[6]], s.mask[ix[7]]);
      m = _mm512_mul_pd(_mm512_cvtepi32_pd(bytes), _mm512_set1_pd(kInv255));
      act &= _mm512_cmp_pd_mask(m, zero, _CMP_NEQ_UQ);
    }
    __m512d cu = u, cv = v;
    if (!s.ic_identity) {
      cu = _mm512_add_pd(
          _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(s.ic[0]), u), _mm512_mul_pd(_mm512_set1_pd(s.ic[1]), v)),
          _mm512_set1_pd(s.ic[2]));
      cv = _mm512_add_pd(
          _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(s.ic[3]), u), _mm512_mul_pd(_mm512_set1_pd(s.ic[4]), v)),
          _mm512_set1_pd(s.ic[5]));
    }
    act &= _mm512_cmp_pd_mask(cu, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(cu, _mm512_set1_pd(kSurfW), _CMP_LT_OQ) &
           _mm512_cmp_pd_mask(cv, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(cv, _mm512_set1_pd(kSurfH), _CMP_LT_OQ);
    me[i] = _mm512_mul_pd(m, e);
    if (s.probe) act &= _mm512_cmp_pd_mask(_mm512_mul_pd(b->alpha[i], me[i]), _mm512_set1_pd(kSettles), _CMP_GE_OQ);
    if (s.kind == FILL_SOLID) {
      ca[i] = _mm512_mul_pd(me[i], _mm512_set1_pd(s.ca));
    } else if (s.kind == FILL_PIXELS) {
      __m512d sx = cu, sy = cv;
      if (s.cover_identity) {
      } else if (s.cover_mul) {
        const __m512d ci = _mm512_set1_pd(s.cover_inv);
        sx = _mm512_mul_pd(_mm512_sub_pd(cu, _mm512_set1_pd(s.cover_ox)), ci);
        sy = _mm512_mul_pd(_mm512_sub_pd(cv, _mm512_set1_pd(s.cover_oy)), ci);
      } else {
        const __m512d cs = _mm512_set1_pd(s.cover_scale);
        sx = _mm512_div_pd(_mm512_sub_pd(cu, _mm512_set1_pd(s.cover_ox)), cs);
        sy = _mm512_div_pd(_mm512_sub_pd(cv, _mm512_set1_pd(s.cover_oy)), cs);
      }
      act &= _mm512_cmp_pd_mask(sx, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(sx, _mm512_set1_pd(s.dsw), _CMP_LT_OQ) &
             _mm512_cmp_pd_mask(sy, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(sy, _mm512_set1_pd(s.dsh), _CMP_LT_OQ);
      b->u[i] = sx;
      b->v[i] = sy;
    } else {
      ca[i] = _mm512_mul_pd(_mm512_mul_pd(_mm512_set1_pd(255.0), m), e);
    }
    b->act[i] = act;
  }
  const bool plain_me = !s.ellipse && !s.mask;
  __m512d cr[kWideBatch], cg[kWideBatch], cb[kWideBatch];
  if (s.kind == FILL_PIXELS) {
    // Fetches first, then the arithmetic: the loads of one group hide
    // behind the others'.
    w_texels tex[kWideBatch];
    for (int i = 0; i < n; i++)
      if (b->act[i]) w_fetch(s, b->u[i], b->v[i], &tex[i]);
    for (int i = 0; i < n; i++) {
      if (!b->act[i]) continue;
      __m512d sa;
      w_mix(tex[i], &cr[i], &cg[i], &cb[i], &sa);
      ca[i] = plain_me ? sa : _mm512_mul_pd(me[i], sa);
    }
  } else {
    const __m512d r = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cr : 51.0);
    const __m512d g = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cg : 51.0);
    const __m512d bl = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cb : 51.0);
    for (int i = 0; i < n; i++) {
      cr[i] = r;
      cg[i] = g;
      cb[i] = bl;
    }
  }
  for (int i = 0; i < n; i++) {
    if (!b->act[i]) continue;
    const __m512d aK = _mm512_mul_pd(b->alpha[i], _mm512_set1_pd(kInv255));
    const __mmask8 act = b->act[i] & _mm512_cmp_pd_mask(ca[i], zero, _CMP_GT_OQ);
    if (s.probe)
      w_settle(s, b->hr, b->x[i], cr[i], cg[i], cb[i], ca[i], aK, act);
    else
      w_blend(b->px[i], cr[i], cg[i], cb[i], ca[i], aK, s.luma, act, s.frame);
  }
}

// A run of cell pixels [xa, xb) of row y. Without `cover`, every pixel blends
// with the layer's opacity; with it, pixel xa + k blends with cover[k] as its
// alpha, and a negative cover[k] skips the pixel.
KVL_AVX512 void cell_span_avx512(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row,
                                 const double* cover = nullptr) {
  const double cy = y + 0.5;
  const __m512d m0 = _mm512_set1_pd(m[0]), m3 = _mm512_set1_pd(m[3]), m6 = _mm512_set1_pd(m[6]);
  const __m512d m1cy = _mm512_set1_pd(m[1] * cy), m4cy = _mm512_set1_pd(m[4] * cy), m7cy = _mm512_set1_pd(m[7] * cy);
  const __m512d m2 = _mm512_set1_pd(m[2]), m5 = _mm512_set1_pd(m[5]), m8 = _mm512_set1_pd(m[8]);
  const __m512d alpha = _mm512_set1_pd(s.opacity);
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  w_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  // The last group may be partial: its lanes past xb start inactive and are
  // neither read nor written.
  while (x < xb) {
    int n = 0;
    for (; n < kWideBatch && x < xb; x += 8) {
      __mmask8 lanes = xb - x >= 8 ? 0xFF : static_cast<__mmask8>((1u << (xb - x)) - 1);
      if (b.hr.h && !(lanes = w_open(s, b.hr.h, x, lanes))) continue;
      const __m512d cx =
          _mm512_add_pd(_mm512_cvtepi32_pd(_mm256_add_epi32(_mm256_set1_epi32(x), lane)), _mm512_set1_pd(0.5));
      const __m512d w = _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m6, cx), m7cy), m8);
      b.u[n] = _mm512_div_pd(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m0, cx), m1cy), m2), w);
      b.v[n] = _mm512_div_pd(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m3, cx), m4cy), m5), w);
      if (cover) {
        b.alpha[n] = _mm512_maskz_loadu_pd(lanes, cover + (x - xa));
        b.act[n] = _mm512_mask_cmp_pd_mask(lanes, b.alpha[n], _mm512_setzero_pd(), _CMP_GE_OQ);
      } else {
        b.alpha[n] = alpha;
        b.act[n] = lanes;
      }
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) w_shade_batch(s, &b);
  }
}

KVL_AVX512 void poly_span_avx512(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb,
                                 const uint8_t* cov, uint8_t* row) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d ox = _mm512_set1_pd(p->poly_ox), sc = _mm512_set1_pd(p->poly_scale);
  const __m512d k = _mm512_set1_pd(kInv255 * s.opacity);
  const __m512d vv = _mm512_set1_pd(v);
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  w_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x < xb) {
    int n = 0;
    for (; n < kWideBatch && x < xb; x += 8) {
      int64_t c8 = 0;
      memcpy(&c8, cov + (x - xa), xb - x >= 8 ? 8 : static_cast<size_t>(xb - x));
      if (!c8) continue;
      const __m512d c = _mm512_cvtepi32_pd(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(c8)));
      __mmask8 act = _mm512_cmp_pd_mask(c, zero, _CMP_NEQ_OQ);
      if (b.hr.h && !(act = w_open(s, b.hr.h, x, act))) continue;
      const __m512d cx =
          _mm512_add_pd(_mm512_cvtepi32_pd(_mm256_add_epi32(_mm256_set1_epi32(x), lane)), _mm512_set1_pd(0.5));
      const __m512d u = _mm512_div_pd(_mm512_sub_pd(cx, ox), sc);
      act &= _mm512_cmp_pd_mask(u, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(u, _mm512_set1_pd(kSurfW), _CMP_LT_OQ);
      if (!act) continue;
      b.u[n] = u;
      b.v[n] = vv;
      b.alpha[n] = _mm512_mul_pd(c, k);
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) w_shade_batch(s, &b);
  }
}

KVL_AVX512 void fx_span_avx512(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n,
                               uint8_t* row, bool frame) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d cr = _mm512_set1_pd(col.r), cg = _mm512_set1_pd(col.g), cb = _mm512_set1_pd(col.b);
  const __m512d ca = _mm512_set1_pd(col.a), kk = _mm512_set1_pd(k), inv = _mm512_set1_pd(kInv255);
  for (int32_t i = 0; i < n; i += 8) {
    int64_t c8 = 0;
    memcpy(&c8, cov + i, n - i >= 8 ? 8 : static_cast<size_t>(n - i));
    if (!c8) continue;
    const __m512d c = _mm512_cvtepi32_pd(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(c8)));
    w_blend(row + 4 * static_cast<ptrdiff_t>(i), cr, cg, cb, ca, _mm512_mul_pd(_mm512_mul_pd(c, kk), inv), luma,
            _mm512_cmp_pd_mask(c, zero, _CMP_NEQ_OQ), frame);
  }
}

KVL_AVX512 void reblend_span_avx512(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d aK = _mm512_set1_pd(opacity * kInv255);
  for (int32_t i = 0; i < n; i += 8) {
    const __mmask8 lanes = n - i >= 8 ? 0xFF : static_cast<__mmask8>((1u << (n - i)) - 1);
    const __m256i b = _mm256_maskz_loadu_epi32(lanes, band + 4 * static_cast<ptrdiff_t>(i));
    if (_mm256_testz_si256(b, _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u)))) continue;
    const __m512d a = w_alpha(b);
    w_blend(row + 4 * static_cast<ptrdiff_t>(i), w_channel(b, 0), w_channel(b, 8), w_channel(b, 16), a, aK, luma,
            _mm512_cmp_pd_mask(a, zero, _CMP_NEQ_OQ), true);
  }
}

bool cpu_has_avx512() {
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512f") &&
                          __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq");
  return has;
}

bool cpu_has_avx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

#else
bool cpu_has_avx2() { return false; }
bool cpu_has_avx512() { return false; }
#endif

void cell_span(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
#if KVL_X86
  if (s.wide) return cell_span_avx512(s, m, y, xa, xb, row);
  if (s.simd) return cell_span_avx2(s, m, y, xa, xb, row);
#endif
  cell_span_plain(s, m, y, xa, xb, row);
}

// ---------------------------------------------------------------------------
// Cell road

// The edges of one cell, ready for the per-pixel tests.
struct cell_edges {
  double qx[4], qy[4], ex[4], ey[4];
  double len[4];    // |e|
  double reach[4];  // a sample 0.375 px from the centre cannot move d by this much
  bool outer[4];
  double o;
  bool spans;  // the row interval search may be used
};

void setup_edges(const kvl_cell& cell, cell_edges* ce) {
  const double* q = cell.quad;
  const double cross = (q[2] - q[0]) * (q[5] - q[1]) - (q[3] - q[1]) * (q[4] - q[0]);
  ce->o = cross >= 0.0 ? 1.0 : -1.0;
  bool ok = true;
  for (int k = 0; k < 4; k++) {
    const int n = (k + 1) & 3;
    ce->qx[k] = q[2 * k];
    ce->qy[k] = q[2 * k + 1];
    ce->ex[k] = q[2 * n] - q[2 * k];
    ce->ey[k] = q[2 * n + 1] - q[2 * k + 1];
    ce->len[k] = sqrt(ce->ex[k] * ce->ex[k] + ce->ey[k] * ce->ey[k]);
    ce->reach[k] = 0.5 * (fabs(ce->ex[k]) + fabs(ce->ey[k]));
    ce->outer[k] = cell.edge[k] == 1;
    // Finite, moderate coordinates keep the rounding error of d far below
    // the slack of `reach`; anything else takes the full test everywhere.
    const double lim = 1099511627776.0, tiny = 3.054936363499605e-151;  // 2^40, 2^-500
    if (!(fabs(ce->qx[k]) <= lim && fabs(ce->qy[k]) <= lim)) ok = false;
    if (ce->ex[k] != 0.0 && !(fabs(ce->ex[k]) >= tiny)) ok = false;
    if (ce->ey[k] != 0.0 && !(fabs(ce->ey[k]) >= tiny)) ok = false;
  }
  ce->spans = ok;
}

// Per-row values of the edge tests: ex (cy - qy) for the centre and for the
// four sample rows.
struct row_edges {
  double a[4];
  double as[4][4];  // [edge][sample row]
};

inline double edge_d(const cell_edges& ce, const row_edges& re, int k, int32_t x) {
  return ce.o * (re.a[k] - ce.ey[k] * ((x + 0.5) - ce.qx[k]));
}

inline bool good_at(const cell_edges& ce, const row_edges& re, int k, int32_t x) {
  const double d = edge_d(ce, re, k, x);
  if (d < 0.0) return false;
  return !(ce.outer[k] && ce.len[k] > 0.0 && fabs(d) / ce.len[k] < 0.75);
}

inline bool cand_at(const cell_edges& ce, const row_edges& re, int k, int32_t x) {
  return edge_d(ce, re, k, x) >= -ce.reach[k];
}

// Coverage of a pixel by the full test: 1 inside and not near an outer edge,
// 4x4 samples near one, 0 when the pixel is skipped.
double pixel_coverage(const cell_edges& ce, const row_edges& re, int32_t x) {
  bool inside = true, near = false;
  for (int k = 0; k < 4; k++) {
    const double d = edge_d(ce, re, k, x);
    if (d < 0.0) inside = false;
    if (ce.outer[k] && ce.len[k] > 0.0 && fabs(d) / ce.len[k] < 0.75) near = true;
  }
  if (!near) return inside ? 1.0 : 0.0;
  int count = 0;
  for (int i = 0; i < 4; i++) {
    const double sx = (x + 0.125) + 0.25 * i;
    double bs[4];
    for (int k = 0; k < 4; k++) bs[k] = ce.ey[k] * (sx - ce.qx[k]);
    for (int j = 0; j < 4; j++) {
      bool in = true;
      for (int k = 0; k < 4 && in; k++) {
        const double d = ce.o * (re.as[k][j] - bs[k]);
        in = d > 0.0 || (d == 0.0 && ce.outer[k]);
      }
      count += in;
    }
  }
  return count / 16.0;
}

// Where a monotone test changes along a row: f is false on [.., r) and true on
// [r, ..). The caller knows f(lo - 1) is false and f(hi) is true; the answer
// is in [lo, hi]. The guess only saves steps.
template <class F>
int32_t first_true(int32_t lo, int32_t hi, double guess, F f) {
  int64_t a = lo, b = hi;
  int64_t g = (guess >= static_cast<double>(lo) && guess <= static_cast<double>(hi)) ? static_cast<int64_t>(guess) : lo;
  int64_t step = 1;
  if (f(static_cast<int32_t>(g))) {
    b = g;
    while (b - step >= a) {
      const int64_t x = b - step;
      if (!f(static_cast<int32_t>(x))) {
        a = x + 1;
        break;
      }
      b = x;
      step *= 2;
    }
  } else {
    a = g + 1;
    while (a - 1 + step < b) {
      const int64_t x = a - 1 + step;
      if (f(static_cast<int32_t>(x))) {
        b = x;
        break;
      }
      a = x + 1;
      step *= 2;
    }
  }
  while (a < b) {
    const int64_t mid = a + (b - a) / 2;
    if (f(static_cast<int32_t>(mid)))
      b = mid;
    else
      a = mid + 1;
  }
  return static_cast<int32_t>(a);
}

// Narrows [*lo, *hi) to the pixels where the monotone test f holds. `cross`
// is where d reaches the test's threshold, a guess for the change.
template <class F>
void narrow(int32_t* lo, int32_t* hi, double cross, F f) {
  if (*lo >= *hi) return;
  const bool fl = f(*lo), fh = f(*hi - 1);
  if (fl && fh) return;  // monotone: true all along
  if (!fl && !fh) {
    *hi = *lo;
    return;
  }
  if (!fl) {
    *lo = first_true(*lo + 1, *hi - 1, cross, f);
  } else {
    *hi = first_true(*lo + 1, *hi - 1, cross, [&](int32_t x) { return !f(x); });
  }
}

// Pixels [xa, xb) of row y near an outer edge or outside the fast test:
// each with its own coverage. Long runs (along a nearly level edge) go to
// the eight-wide kernel with the coverage-times-opacity alphas computed here.
void edge_run(const shade& s, const cell_edges& ce, const row_edges& re, const double* m, int32_t y, int32_t xa,
              int32_t xb, uint8_t* row) {
  const double cy = y + 0.5;
#if KVL_X86
  if (s.wide && xb - xa >= 8) {
    double alpha[64];
    for (int32_t a = xa; a < xb; a += 64) {
      const int32_t n = xb - a < 64 ? xb - a : 64;
      for (int32_t k = 0; k < n; k++) {
        const double c = pixel_coverage(ce, re, a + k);
        alpha[k] = c > 0.0 ? s.opacity * c : -1.0;
      }
      cell_span_avx512(s, m, y, a, a + n, row, alpha);
    }
    return;
  }
#endif
  const hid_rows hr = hid_at(s, y);
  for (int32_t x = xa; x < xb; x++) {
    const double c = pixel_coverage(ce, re, x);
    if (c > 0.0) cell_pixel(s, m, x, cy, s.opacity * c, row, hr);
  }
}

void draw_cell(const shade& s, const kvl_cell& cell, const canvas& cv, int32_t y0, int32_t y1) {
  const int32_t ya = cell.y0 > y0 ? cell.y0 : y0, yb = cell.y1 < y1 ? cell.y1 : y1;
  const int32_t xa = cell.x0 > 0 ? cell.x0 : 0, xb = cell.x1 < cv.width ? cell.x1 : cv.width;
  if (ya >= yb || xa >= xb) return;
  cell_edges ce;
  setup_edges(cell, &ce);
  const double* m = cell.inv.m;
  for (int32_t y = ya; y < yb; y++) {
    uint8_t* row = cv.row(y);
    const double cy = y + 0.5;
    row_edges re;
    for (int k = 0; k < 4; k++) {
      re.a[k] = ce.ex[k] * (cy - ce.qy[k]);
      for (int j = 0; j < 4; j++) re.as[k][j] = ce.ex[k] * (((y + 0.125) + 0.25 * j) - ce.qy[k]);
    }
    // [sa, sb): pixels that can have any coverage; [ga, gb): inside and
    // not near, coverage 1 without samples. The rest of the box draws nothing.
    int32_t sa = xa, sb = xb, ga = xa, gb = xb;
    if (ce.spans) {
      for (int k = 0; k < 4; k++) {
        // x where o (A - ey (x + 0.5 - qx)) equals a threshold t.
        auto at = [&](double t) { return ce.qx[k] - 0.5 + (re.a[k] - ce.o * t) / ce.ey[k]; };
        narrow(&sa, &sb, at(-ce.reach[k]), [&](int32_t x) { return cand_at(ce, re, k, x); });
        narrow(&ga, &gb, at(ce.outer[k] ? 0.75 * ce.len[k] : 0.0), [&](int32_t x) { return good_at(ce, re, k, x); });
      }
    } else {
      ga = gb = xb;
    }
    if (ga >= gb) ga = gb = sb;
    // Pixels near an outer edge have a coverage below 1 and cannot settle,
    // or are fully covered but rare: probing leaves them to the drawing.
    if (!s.probe) edge_run(s, ce, re, m, y, sa, ga, row);
    if (ga < gb) cell_span(s, m, y, ga, gb, row);
    if (!s.probe) edge_run(s, ce, re, m, y, gb > sa ? gb : sa, sb, row);
  }
}

// ---------------------------------------------------------------------------
// Polygon road, effects, layers

void draw_polygon(const shade& s, const kvl_prep* p, const canvas& cv, int32_t y0, int32_t y1) {
  if (!p->poly_mask || p->box_w < 1 || p->box_h < 1) return;
  int32_t ya = p->box_y > y0 ? p->box_y : y0;
  const int64_t bend = static_cast<int64_t>(p->box_y) + p->box_h;
  const int32_t yb = bend < y1 ? static_cast<int32_t>(bend) : y1;
  if (ya < 0) ya = 0;
  const int64_t xend = static_cast<int64_t>(p->box_x) + p->box_w;
  const int32_t xa = p->box_x > 0 ? p->box_x : 0;
  const int32_t xb = xend < cv.width ? static_cast<int32_t>(xend) : cv.width;
  if (xa >= xb) return;
  for (int32_t y = ya; y < yb; y++) {
    const double v = (y + 0.5 - p->poly_oy) / p->poly_scale;
    if (!(v >= 0.0 && v < kSurfH)) continue;
    const uint8_t* cov =
        p->poly_mask + static_cast<size_t>(y - p->box_y) * static_cast<size_t>(p->box_w) + (xa - p->box_x);
    uint8_t* row = cv.row(y);
#if KVL_X86
    if (s.wide) {
      poly_span_avx512(s, p, y, v, xa, xb, cov, row);
      continue;
    }
    if (s.simd) {
      poly_span_avx2(s, p, y, v, xa, xb, cov, row);
      continue;
    }
#endif
    poly_span_plain(s, p, y, v, xa, xb, cov, row);
  }
}

void raster_fx(const kvl_prep* p, const kvl_fx& fx, const canvas& cv, int32_t y0, int32_t y1, double opacity,
               bool luma, bool simd, bool wide) {
  (void)p;
  if (!fx.mask || fx.w < 1 || fx.h < 1) return;
  const kvl_color col = argb_color(fx.argb);
  const double k = kInv255 * opacity;
  int32_t ya = fx.y > y0 ? fx.y : y0;
  if (ya < 0) ya = 0;
  const int64_t fend = static_cast<int64_t>(fx.y) + fx.h;
  const int32_t yb = fend < y1 ? static_cast<int32_t>(fend) : y1;
  const int32_t ca = fx.x < 0 ? -fx.x : 0;
  const int64_t cend = static_cast<int64_t>(cv.width) - fx.x;
  const int32_t cb = cend < fx.w ? static_cast<int32_t>(cend) : fx.w;
  if (ca >= cb) return;
  for (int32_t y = ya; y < yb; y++) {
    const uint8_t* cov = fx.mask + static_cast<size_t>(y - fx.y) * static_cast<size_t>(fx.w) + ca;
    uint8_t* row = cv.row(y) + 4 * (static_cast<ptrdiff_t>(fx.x) + ca);
#if KVL_X86
    if (wide) {
      fx_span_avx512(col, luma, k, cov, cb - ca, row, cv.opaque);
      continue;
    }
    if (simd) {
      fx_span_avx2(col, luma, k, cov, cb - ca, row);
      continue;
    }
#endif
    fx_span_plain(col, luma, k, cov, cb - ca, row);
  }
}

// ---------------------------------------------------------------------------
// Hidden pixels

constexpr int32_t kChunkRows = 32;

// The hidden-pixel state of one job. Each body step (a cell, or a polygon) of
// a layer that may hide what lies beneath has an id, in drawing order from 1;
// `first` gives a layer's first id, or for other layers the next free one.
struct hidden {
  uint16_t* hid;  // kChunkRows rows of `width`; null: no culling
  uint8_t* keep;
  int32_t width, y0, y1;  // the chunk's rows: y0 up to y1
  int32_t* first;
  uint8_t* can;     // the layer has ids
  uint8_t* probes;  // its steps were probed in this chunk
  int64_t* tally;   // two a layer: pixels probed, pixels settled
};

// Whether a layer can settle pixels at all: it must be drawn straight onto
// the frame at full opacity, without a key, and with a paint that can be
// opaque. The bottom layer has nothing beneath worth skipping.
bool may_hide(const kvl_prep* p, int32_t index) {
  if (index == 0 || p->isolate || p->luma || !(p->opacity >= 1.0)) return false;
  if (p->solid || !p->source) return (p->argb >> 24) == 255u;
  return true;
}

int32_t body_steps(const kvl_prep* p) {
  if (p->polygon) return p->poly_mask ? 1 : 0;
  return p->cells && p->cell_count > 0 ? p->cell_count : 0;
}

void hidden_free(hidden* h) {
  free(h->hid);
  free(h->keep);
  free(h->first);
  free(h->can);
  free(h->probes);
  free(h->tally);
  memset(h, 0, sizeof *h);
}

// Numbers the steps; leaves `hid` null where no layer can hide anything or
// memory is short, and every pixel is then drawn.
void hidden_plan(hidden* h, const kvl_prep* layers, int32_t count, int32_t width) {
  memset(h, 0, sizeof *h);
  if (count < 2 || width < 1) return;
  const size_t n = static_cast<size_t>(count);
  h->first = static_cast<int32_t*>(malloc(n * sizeof(int32_t)));
  h->can = static_cast<uint8_t*>(calloc(n, 1));
  h->probes = static_cast<uint8_t*>(calloc(n, 1));
  h->tally = static_cast<int64_t*>(calloc(2 * n, sizeof(int64_t)));
  if (!h->first || !h->can || !h->probes || !h->tally) return hidden_free(h);
  int32_t next = 1;
  for (int32_t i = 0; i < count; i++) {
    const int32_t steps = body_steps(&layers[i]);
    h->first[i] = next;
    if (steps > 0 && steps <= 65536 - next && may_hide(&layers[i], i)) {
      h->can[i] = 1;
      next += steps;
    }
  }
  h->width = width;
  const size_t px = static_cast<size_t>(kChunkRows) * static_cast<size_t>(width);
  if (next > 1) {
    h->hid = static_cast<uint16_t*>(malloc(px * sizeof(uint16_t)));
    h->keep = static_cast<uint8_t*>(malloc(px * 4));
  }
  if (!h->hid || !h->keep) hidden_free(h);
}

void hook(shade* s, const hidden* h) {
  s->hid = h->hid;
  s->keep = h->keep;
  s->hid_y0 = h->y0;
  s->hid_w = h->width;
}

// Probes the steps of the layers that may hide others, top down, over rows
// y0..y1. A layer that settles few of the pixels it probes (a source with
// transparent parts) is left alone for the rest of the job: its pixels would
// be computed twice for little gain.
void probe_chunk(hidden* h, const kvl_prep* layers, int32_t count, const canvas& frame, int32_t y0, int32_t y1,
                 bool simd, bool wide) {
  h->y0 = y0;
  h->y1 = y1;
  memset(h->hid, 0, static_cast<size_t>(y1 - y0) * static_cast<size_t>(h->width) * sizeof(uint16_t));
  for (int32_t i = count - 1; i >= 0; i--) {
    int64_t* t = h->tally + 2 * i;
    h->probes[i] = h->can[i] && !(t[0] >= 4096 && t[1] * 8 < t[0]);
    if (!h->probes[i]) continue;
    const kvl_prep* p = &layers[i];
    shade s = make_shade(p, p->opacity, p->luma, simd, wide);
    hook(&s, h);
    s.probe = true;
    s.tally = t;
    if (p->polygon) {
      s.op = h->first[i];
      draw_polygon(s, p, frame, y0, y1);
    } else {
      for (int32_t c = p->cell_count - 1; c >= 0; c--) {
        s.op = h->first[i] + c;
        draw_cell(s, p->cells[c], frame, y0, y1);
      }
    }
  }
}

// Puts back the bytes settled by step `op` within a box of the chunk.
void restore(const hidden& h, const canvas& cv, int32_t op, int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
  const int64_t ya = y0 > h.y0 ? y0 : h.y0, yb = y1 < h.y1 ? y1 : h.y1;
  const int64_t xa = x0 > 0 ? x0 : 0, xb = x1 < h.width ? x1 : h.width;
  for (int64_t y = ya; y < yb; y++) {
    const ptrdiff_t off = static_cast<ptrdiff_t>(y - h.y0) * h.width;
    const uint16_t* hr = h.hid + off;
    const uint8_t* kr = h.keep + 4 * off;
    uint8_t* row = cv.row(static_cast<int32_t>(y));
    for (int64_t x = xa; x < xb; x++)
      if (hr[x] == op) memcpy(row + 4 * x, kr + 4 * x, 4);
  }
}

// One layer over rows y0..y1, with the given opacity and luma flag (a private
// band buffer gets 1 and false). With `h`, layer `index` of the job is drawn
// onto the frame, skipping its hidden pixels.
void draw_layer(const kvl_prep* p, const canvas& cv, int32_t y0, int32_t y1, double opacity, bool luma, bool simd,
                bool wide, const hidden* h = nullptr, int32_t index = 0) {
  shade s = make_shade(p, opacity, luma, simd, wide);
  s.frame = cv.opaque;
  if (h) {
    hook(&s, h);
    s.op = h->first[index];
  }
  const bool own = h && h->can[index], restores = h && h->probes[index];
  const int32_t nb = p->behind_count < 0 ? 0 : (p->behind_count > 2 ? 2 : p->behind_count);
  const int32_t nf = p->front_count < 0 ? 0 : (p->front_count > 3 ? 3 : p->front_count);
  for (int32_t i = 0; i < nb; i++) raster_fx(p, p->behind[i], cv, y0, y1, opacity, luma, simd, wide);
  if (p->polygon) {
    draw_polygon(s, p, cv, y0, y1);
    if (restores)
      restore(*h, cv, s.op, p->box_x, p->box_y, static_cast<int64_t>(p->box_x) + p->box_w,
              static_cast<int64_t>(p->box_y) + p->box_h);
  } else if (p->cells) {
    for (int32_t i = 0; i < p->cell_count; i++) {
      const kvl_cell& c = p->cells[i];
      if (own) s.op = h->first[index] + i;
      draw_cell(s, c, cv, y0, y1);
      if (restores) restore(*h, cv, s.op, c.x0, c.y0, c.x1, c.y1);
    }
  }
  for (int32_t i = 0; i < nf; i++) raster_fx(p, p->front[i], cv, y0, y1, opacity, luma, simd, wide);
}

// The rectangle a layer can touch within a band: the union of its cell, body
// and effect boxes. Nothing outside it is written.
struct rect {
  int32_t x0, y0, x1, y1;
};

void grow(rect* r, int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
  if (x0 >= x1 || y0 >= y1) return;
  if (r->x0 >= r->x1) {
    r->x0 = static_cast<int32_t>(x0 < INT32_MIN ? INT32_MIN : x0);
    r->y0 = static_cast<int32_t>(y0 < INT32_MIN ? INT32_MIN : y0);
    r->x1 = static_cast<int32_t>(x1 > INT32_MAX ? INT32_MAX : x1);
    r->y1 = static_cast<int32_t>(y1 > INT32_MAX ? INT32_MAX : y1);
    return;
  }
  if (x0 < r->x0) r->x0 = static_cast<int32_t>(x0 < INT32_MIN ? INT32_MIN : x0);
  if (y0 < r->y0) r->y0 = static_cast<int32_t>(y0 < INT32_MIN ? INT32_MIN : y0);
  if (x1 > r->x1) r->x1 = static_cast<int32_t>(x1 > INT32_MAX ? INT32_MAX : x1);
  if (y1 > r->y1) r->y1 = static_cast<int32_t>(y1 > INT32_MAX ? INT32_MAX : y1);
}

rect layer_bounds(const kvl_prep* p, int32_t width, int32_t y0, int32_t y1) {
  rect r = {0, 0, 0, 0};
  auto fx_box = [&](const kvl_fx& f) {
    if (f.mask) grow(&r, f.x, f.y, static_cast<int64_t>(f.x) + f.w, static_cast<int64_t>(f.y) + f.h);
  };
  const int32_t nb = p->behind_count < 0 ? 0 : (p->behind_count > 2 ? 2 : p->behind_count);
  const int32_t nf = p->front_count < 0 ? 0 : (p->front_count > 3 ? 3 : p->front_count);
  for (int32_t i = 0; i < nb; i++) fx_box(p->behind[i]);
  for (int32_t i = 0; i < nf; i++) fx_box(p->front[i]);
  if (p->polygon) {
    if (p->poly_mask)
      grow(&r, p->box_x, p->box_y, static_cast<int64_t>(p->box_x) + p->box_w,
           static_cast<int64_t>(p->box_y) + p->box_h);
  } else if (p->cells) {
    for (int32_t i = 0; i < p->cell_count; i++) {
      const kvl_cell& c = p->cells[i];
      grow(&r, c.x0, c.y0, c.x1, c.y1);
    }
  }
  if (r.x0 < 0) r.x0 = 0;
  if (r.x1 > width) r.x1 = width;
  if (r.y0 < y0) r.y0 = y0;
  if (r.y1 > y1) r.y1 = y1;
  return r;
}

// Layer i over the chunk of rows y0..y1. `band` is the job's private buffer
// of kChunkRows rows, allocated at the first need.
void draw_in_chunk(const kvl_job* job, const canvas& frame, const hidden* h, int32_t i, int32_t y0, int32_t y1,
                   uint8_t** band) {
  const kvl_prep* p = &job->layers[i];
  if (!p->isolate) {
    draw_layer(p, frame, y0, y1, p->opacity, p->luma, job->simd, job->wide, h, i);
    return;
  }
  // The layer and its effects are drawn into a zeroed private buffer and
  // then faded or keyed as one whole, so a shadow does not show through
  // the body. Only the layer's bounds are cleared and read back: nothing
  // outside them is ever written.
  const rect r = layer_bounds(p, job->width, y0, y1);
  if (r.x0 >= r.x1 || r.y0 >= r.y1) return;
  if (!*band) {
    *band = static_cast<uint8_t*>(malloc(static_cast<size_t>(kChunkRows) * static_cast<size_t>(job->stride)));
    if (!*band) return;
  }
  const canvas priv = {*band, job->stride, y0, job->width, false};
  for (int32_t y = r.y0; y < r.y1; y++)
    memset(priv.row(y) + 4 * static_cast<ptrdiff_t>(r.x0), 0, 4 * static_cast<size_t>(r.x1 - r.x0));
  draw_layer(p, priv, r.y0, r.y1, 1.0, false, job->simd, job->wide);
  for (int32_t y = r.y0; y < r.y1; y++) {
    const uint8_t* src = priv.row(y) + 4 * static_cast<ptrdiff_t>(r.x0);
    uint8_t* dst = frame.row(y) + 4 * static_cast<ptrdiff_t>(r.x0);
#if KVL_X86
    if (job->wide) {
      reblend_span_avx512(src, dst, r.x1 - r.x0, p->luma, p->opacity);
      continue;
    }
    if (job->simd) {
      reblend_span_avx2(src, dst, r.x1 - r.x0, p->luma, p->opacity);
      continue;
    }
#endif
    reblend_span_plain(src, dst, r.x1 - r.x0, p->luma, p->opacity);
  }
}

// The band is drawn in chunks of rows, each with its hidden pixels probed
// first; chunks keep the hidden-pixel maps and the private buffer small.
void run_job(kvl_job* job) {
  if (job->y0 >= job->y1) return;
  const canvas frame = {job->pixels + static_cast<ptrdiff_t>(job->y0) * job->stride, job->stride, job->y0, job->width,
                        true};
  hidden h;
  hidden_plan(&h, job->layers, job->count, job->width);
  uint8_t* band = nullptr;
  for (int32_t ya = job->y0; ya < job->y1; ya += kChunkRows) {
    const int32_t yb = job->y1 - ya > kChunkRows ? ya + kChunkRows : job->y1;
    if (h.hid) probe_chunk(&h, job->layers, job->count, frame, ya, yb, job->simd, job->wide);
    for (int32_t i = 0; i < job->count; i++) draw_in_chunk(job, frame, h.hid ? &h : nullptr, i, ya, yb, &band);
  }
  free(band);
  job->settled = 0;
  for (int32_t i = 0; h.hid && i < job->count; i++) job->settled += h.tally[2 * i + 1];
  hidden_free(&h);
}

void* job_thread(void* arg) {
  run_job(static_cast<kvl_job*>(arg));
  return nullptr;
}

// Draws prepared layers into a frame whose background is already set.
// `settled`, where given, receives the number of pixels that hid what lay
// beneath them (for tests).
void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height, int32_t stride,
               int32_t threads, bool simd, bool wide = true, int64_t* settled = nullptr) {
  if (height < 1) return;
  int32_t jobs = threads < 1 ? 1 : threads;
  if (jobs > height) jobs = height;
  if (jobs > kMaxJobs) jobs = kMaxJobs;
  const int32_t rows = (height + jobs - 1) / jobs;
  kvl_job job[kMaxJobs];
  for (int32_t i = 0; i < jobs; i++) {
    const int64_t a = static_cast<int64_t>(i) * rows, b = a + rows;
    job[i].layers = layers;
    job[i].count = count;
    job[i].pixels = pixels;
    job[i].width = width;
    job[i].stride = stride;
    job[i].y0 = static_cast<int32_t>(a < height ? a : height);
    job[i].y1 = static_cast<int32_t>(b < height ? b : height);
    job[i].simd = simd;
    job[i].wide = simd && wide && cpu_has_avx512();
    job[i].settled = 0;
  }
  if (jobs == 1) {
    run_job(&job[0]);
  } else {
    pthread_t tid[kMaxJobs];
    bool started[kMaxJobs];
    for (int32_t i = 0; i < jobs; i++) started[i] = pthread_create(&tid[i], nullptr, job_thread, &job[i]) == 0;
    for (int32_t i = 0; i < jobs; i++)
      if (started[i]) pthread_join(tid[i], nullptr);
    // A band whose thread could not be created is drawn here, so that the
    // picture stays whole.
    for (int32_t i = 0; i < jobs; i++)
      if (!started[i]) run_job(&job[i]);
  }
  if (settled) {
    *settled = 0;
    for (int32_t i = 0; i < jobs; i++) *settled += job[i].settled;
  }
}

void fill_background(uint8_t* pixels, int32_t width, int32_t height, int32_t stride) {
  if (width < 1) return;
  static const uint8_t opaque_black[4] = {0, 0, 0, 255};
  if (height < 1) return;
  // The first row pixel by pixel, the others as copies of it.
  for (int32_t x = 0; x < width; x++) memcpy(pixels + 4 * static_cast<ptrdiff_t>(x), opaque_black, 4);
  for (int32_t y = 1; y < height; y++)
    memcpy(pixels + static_cast<ptrdiff_t>(y) * stride, pixels, 4 * static_cast<size_t>(width));
}

}  // namespace

void kvl_render_frame(const kvl_resolved* resolved, int32_t count, const kvl_sources* sources, uint8_t* pixels,
                      int32_t width, int32_t height, int32_t stride, int32_t threads, kvl_cache* cache) {
  if (!pixels) return;
  fill_background(pixels, width, height, stride);
  if (!resolved || count < 0) count = 0;
  auto* preps = static_cast<kvl_prep*>(calloc(count > 0 ? static_cast<size_t>(count) : 1, sizeof(kvl_prep)));
  if (!preps) return;
  int32_t n = 0;
  for (int32_t i = 0; i < count; i++) {
    if (kvl_prepare(&preps[n], &resolved[i], sources, width, height, cache))
      n++;
    else
      kvl_prep_free(&preps[n]);
  }
  composite(preps, n, pixels, width, height, stride, threads, cpu_has_avx2());
  for (int32_t i = 0; i < n; i++) kvl_prep_free(&preps[i]);
  free(preps);
}
