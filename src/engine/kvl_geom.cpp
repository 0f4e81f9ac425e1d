// Projective geometry, mesh warp, polygon rasteriser and mask filters.
//
// Everything here is pure computation on caller-owned buffers: no state, no
// locks. The homography routines are mirrored by the GPU shader, so their
// operation order is fixed and must not be "simplified" by hand or by the
// compiler (the core is built without fast-math or FP contraction).
#include "engine_internal.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

// The mask filters use 16-byte vectors where the target has them; the plain
// loops next to each vector loop give the same results elsewhere.
#if defined(__SSE2__) && !defined(KAVLEN_NO_SIMD)
#include <emmintrin.h>
#define KVL_SSE2 1
#else
#define KVL_SSE2 0
#endif

// ---------------------------------------------------------------------------
// Homographies

kvl_h kvl_h_unit_to_quad(const double* c) {
  kvl_h out = {};
  if (!c) return out;
  const double x0 = c[0], y0 = c[1], x1 = c[2], y1 = c[3];
  const double x2 = c[4], y2 = c[5], x3 = c[6], y3 = c[7];
  const double sx = (x0 + x2) - (x1 + x3);
  const double sy = (y0 + y2) - (y1 + y3);
  double g = 0.0, h = 0.0;
  // A parallelogram needs both sums to vanish; either one being large makes
  // the map projective. den is deliberately not tested: collinear corners
  // give non-finite g/h, and the inversion then refuses the matrix.
  if (!(fabs(sx) < 1e-12 && fabs(sy) < 1e-12)) {
    const double dx1 = x1 - x2, dx2 = x3 - x2, dy1 = y1 - y2, dy2 = y3 - y2;
    const double den = dx1 * dy2 - dx2 * dy1;
    g = (sx * dy2 - sy * dx2) / den;
    h = (sy * dx1 - sx * dy1) / den;
  }
  out.m[0] = x1 - x0 + g * x1;
  out.m[1] = x3 - x0 + h * x3;
  out.m[2] = x0;
  out.m[3] = y1 - y0 + g * y1;
  out.m[4] = y3 - y0 + h * y3;
  out.m[5] = y0;
  out.m[6] = g;
  out.m[7] = h;
  out.m[8] = 1.0;
  return out;
}

// Runs once per covered pixel: no allocation, no branch, and exactly this
// grouping, which the shader repeats.
void kvl_h_apply(const kvl_h* h, double u, double v, double* x, double* y) {
  const double* m = h->m;
  const double w = (m[6] * u + m[7] * v) + m[8];
  *x = ((m[0] * u + m[1] * v) + m[2]) / w;
  *y = ((m[3] * u + m[4] * v) + m[5]) / w;
}

bool kvl_h_invert(const kvl_h* h, kvl_h* out) {
  if (!h || !out) return false;
  const double* m = h->m;
  const double c0 = m[4] * m[8] - m[5] * m[7];
  const double c1 = m[5] * m[6] - m[3] * m[8];
  const double c2 = m[3] * m[7] - m[4] * m[6];
  const double det = m[0] * c0 + m[1] * c1 + m[2] * c2;
  // Written so that a NaN determinant fails too. The threshold is tiny on
  // purpose: entries are device pixels and surface units.
  if (!(fabs(det) >= 1e-18)) return false;
  const double inv = 1.0 / det;
  kvl_h r;
  r.m[0] = c0 * inv;
  r.m[1] = (m[2] * m[7] - m[1] * m[8]) * inv;
  r.m[2] = (m[1] * m[5] - m[2] * m[4]) * inv;
  r.m[3] = c1 * inv;
  r.m[4] = (m[0] * m[8] - m[2] * m[6]) * inv;
  r.m[5] = (m[2] * m[3] - m[0] * m[5]) * inv;
  r.m[6] = c2 * inv;
  r.m[7] = (m[1] * m[6] - m[0] * m[7]) * inv;
  r.m[8] = (m[0] * m[4] - m[1] * m[3]) * inv;
  *out = r;  // h and out may be the same record
  return true;
}

#if KVL_SSE2
// Inclusive running sums over 16 16-bit lanes held in two registers,
// continuing from `carry` (the previous total in every lane), which then
// holds the new total.
static inline void prefix_sum16(__m128i* lo, __m128i* hi, __m128i* carry) {
  __m128i a = *lo, b = *hi;
  a = _mm_add_epi16(a, _mm_slli_si128(a, 2));
  b = _mm_add_epi16(b, _mm_slli_si128(b, 2));
  a = _mm_add_epi16(a, _mm_slli_si128(a, 4));
  b = _mm_add_epi16(b, _mm_slli_si128(b, 4));
  a = _mm_add_epi16(a, _mm_slli_si128(a, 8));
  b = _mm_add_epi16(b, _mm_slli_si128(b, 8));
  a = _mm_add_epi16(a, *carry);
  // Broadcast the last total of a, then of b, as the next carry.
  b = _mm_add_epi16(b, _mm_shuffle_epi32(_mm_shufflehi_epi16(a, 0xFF), 0xFF));
  *carry = _mm_shuffle_epi32(_mm_shufflehi_epi16(b, 0xFF), 0xFF);
  *lo = a;
  *hi = b;
}
#endif

// ---------------------------------------------------------------------------
// Mesh warp

namespace {

// floor(v) clamped to lo..hi without ever casting NaN or a huge double.
int clamp_floor(double v, int lo, int hi) {
  const double f = floor(v);
  if (!(f >= lo)) return lo;  // also NaN
  if (f >= hi) return hi;
  return (int)f;
}

double clamp01(double t) {
  if (!(t >= 0.0)) return 0.0;
  return t > 1.0 ? 1.0 : t;
}

int clampi(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

}  // namespace

void kvl_mesh_offset_at(const kvl_layer* mesh, double x, double y, double* dx, double* dy) {
  double rx = 0.0, ry = 0.0;
  if (mesh && mesh->mesh_offsets && mesh->mesh_cols >= 1 && mesh->mesh_rows >= 1) {
    const int cols = mesh->mesh_cols, rows = mesh->mesh_rows;
    const int stride = cols + 1;
    const double* off = mesh->mesh_offsets;
    const int i = clamp_floor(x, 0, cols - 1);
    const int j = clamp_floor(y, 0, rows - 1);
    const double tx = clamp01(x - i), ty = clamp01(y - j);
    const double tx2 = tx * tx, tx3 = tx2 * tx;
    const double ty2 = ty * ty, ty3 = ty2 * ty;
    int ci[4], rj[4];
    for (int k = 0; k < 4; k++) {
      ci[k] = clampi(i - 1 + k, 0, cols);  // borders repeat their edge point
      rj[k] = clampi(j - 1 + k, 0, rows);
    }
    for (int comp = 0; comp < 2; comp++) {
      double r[4];
      for (int k = 0; k < 4; k++) {
        const double* row = off + (size_t)rj[k] * stride * 2 + comp;
        const double p0 = row[ci[0] * 2], p1 = row[ci[1] * 2];
        const double p2 = row[ci[2] * 2], p3 = row[ci[3] * 2];
        r[k] = p1 + (p2 - p0) * tx / 2 + (2 * p0 - 5 * p1 + 4 * p2 - p3) * tx2 / 2 +
               (p3 - p0 + 3 * (p1 - p2)) * tx3 / 2;
      }
      const double v = (2 * r[1] + (r[2] - r[0]) * ty + (2 * r[0] - 5 * r[1] + 4 * r[2] - r[3]) * ty2 +
                        (r[3] - r[0] + 3 * (r[1] - r[2])) * ty3) /
                       2;
      if (comp == 0)
        rx = v;
      else
        ry = v;
    }
  }
  if (dx) *dx = rx;
  if (dy) *dy = ry;
}

int32_t kvl_mesh_subdivisions(const kvl_layer* mesh) {
  if (!mesh) return 1;
  const int32_t m = mesh->mesh_cols > mesh->mesh_rows ? mesh->mesh_cols : mesh->mesh_rows;
  if (m < 1) return 1;  // not a valid mesh; keep the divisor away from zero
  return clampi(12 / m, 1, 4);
}

// ---------------------------------------------------------------------------
// Outline flattening

int32_t kvl_flatten(const kvl_vertex* v, int32_t n, double** out_points) {
  if (!out_points) return 0;
  *out_points = nullptr;
  if (n < 1 || !v) {
    // Callers free the block unconditionally, so hand one back even here.
    *out_points = (double*)malloc(2 * sizeof(double));
    return n < 1 ? n : 0;
  }
  bool curved = false;
  for (int32_t i = 0; i < n && !curved; i++) curved = v[i].has_in || v[i].has_out;
  if (!curved) {
    double* pts = (double*)malloc((size_t)n * 2 * sizeof(double));
    if (!pts) return 0;
    for (int32_t i = 0; i < n; i++) {
      pts[2 * i] = v[i].x;
      pts[2 * i + 1] = v[i].y;
    }
    *out_points = pts;
    return n;
  }
  if (n > (INT32_MAX - 1) / 16) return 0;  // the count would not fit the result
  double* pts = (double*)malloc(((size_t)16 * n + 1) * 2 * sizeof(double));
  if (!pts) return 0;
  int32_t count = 0;
  for (int32_t i = 0; i < n; i++) {
    const kvl_vertex& a = v[i];
    const kvl_vertex& b = v[(i + 1) % n];
    pts[2 * count] = a.x;
    pts[2 * count + 1] = a.y;
    count++;
    if (!a.has_out && !b.has_in) continue;
    const double c1x = a.has_out ? a.x + a.out_x : a.x;
    const double c1y = a.has_out ? a.y + a.out_y : a.y;
    const double c2x = b.has_in ? b.x + b.in_x : b.x;
    const double c2y = b.has_in ? b.y + b.in_y : b.y;
    // A fixed step count: every curved edge gives exactly 15 inner points.
    for (int k = 1; k <= 15; k++) {
      const double t = k / 16.0, s = 1.0 - t;
      const double w0 = s * s * s, w1 = 3 * t * s * s, w2 = 3 * t * t * s, w3 = t * t * t;
      pts[2 * count] = w0 * a.x + w1 * c1x + w2 * c2x + w3 * b.x;
      pts[2 * count + 1] = w0 * a.y + w1 * c1y + w2 * c2y + w3 * b.y;
      count++;
    }
  }
  *out_points = pts;
  return count;
}

// ---------------------------------------------------------------------------
// Polygon rasteriser

namespace {

// Round half away from zero of a value in (0, 4]: the per-sample-line
// coverage of one pixel in quarter units. v - floor(v) is exact here, so
// this is round() without the library call.
inline uint16_t quarter_units(double covered) {
  const double v = covered * 4.0;
  const int i = (int)v;
  return (uint16_t)(i + (v - i >= 0.5 ? 1 : 0));
}

// Turns one row's difference array back into coverage: a running 16-bit sum
// over diff[lo..hi] (cleared on the way), written to out where it is not 0.
void write_row(uint16_t* diff, int lo, int hi, uint8_t* out, bool inv) {
  uint16_t acc = 0;
  int x = lo;
#if KVL_SSE2
  const __m128i zero = _mm_setzero_si128(), cap = _mm_set1_epi16(17), k255 = _mm_set1_epi16(255);
  const __m128i flip = inv ? _mm_set1_epi8((char)0xFF) : zero;
  const __m128i fill = flip;  // the value of untouched pixels
  __m128i carry = zero;
  for (; x + 16 <= hi + 1; x += 16) {
    __m128i a = _mm_loadu_si128((const __m128i*)(diff + x));
    __m128i b = _mm_loadu_si128((const __m128i*)(diff + x + 8));
    _mm_storeu_si128((__m128i*)(diff + x), zero);
    _mm_storeu_si128((__m128i*)(diff + x + 8), zero);
    prefix_sum16(&a, &b, &carry);
    // min(acc * 255 >> 4, 255): any acc of 17 or more saturates, so clamp
    // to 17 first and let the pack saturate 270 to 255.
    const __m128i ta = _mm_sub_epi16(a, _mm_subs_epu16(a, cap));
    const __m128i tb = _mm_sub_epi16(b, _mm_subs_epu16(b, cap));
    const __m128i ca = _mm_srli_epi16(_mm_mullo_epi16(ta, k255), 4);
    const __m128i cb = _mm_srli_epi16(_mm_mullo_epi16(tb, k255), 4);
    const __m128i c = _mm_xor_si128(_mm_packus_epi16(ca, cb), flip);
    const __m128i z = _mm_packs_epi16(_mm_cmpeq_epi16(a, zero), _mm_cmpeq_epi16(b, zero));
    _mm_storeu_si128((__m128i*)(out + x), _mm_or_si128(_mm_and_si128(z, fill), _mm_andnot_si128(z, c)));
  }
  acc = (uint16_t)_mm_cvtsi128_si32(carry);
#endif
  for (; x <= hi; x++) {
    acc = (uint16_t)(acc + diff[x]);
    diff[x] = 0;
    if (acc == 0) continue;  // untouched pixels keep the fill
    unsigned c = ((unsigned)acc * 255u) >> 4;
    if (c > 255) c = 255;
    out[x] = (uint8_t)(inv ? c ^ 255u : c);
  }
  diff[hi + 1] = 0;
}

struct edge_top {
  double top;
  int32_t index;
};

int compare_top(const void* a, const void* b) {
  const double x = ((const edge_top*)a)->top, y = ((const edge_top*)b)->top;
  return (x > y) - (x < y);
}

}  // namespace

// Coverage is gathered per row in a difference array (16-bit, wrapping like
// the accumulator it stands for): a span costs O(1) however wide it is, and
// one prefix sum per row turns it back into per-pixel units. Edges come from
// an active list sorted by their top, so a row only looks at the edges that
// reach it. The crossings of a sample line are the same set as with a plain
// scan of all edges, and sorting makes their order irrelevant.
void kvl_raster_polygon(const double* points, int32_t n, uint8_t* mask, int32_t width, int32_t height,
                        int32_t invert) {
  if (!mask || width < 1 || height < 1) return;
  const bool inv = (invert & 1) != 0;
  const uint8_t fill = inv ? 255 : 0;
  memset(mask, fill, (size_t)width * (size_t)height);
  if (!points || n < 3) return;

  // Row range from the vertical extent; NaN coordinates are ignored here and
  // infinities are clamped before any conversion to int.
  double ymin = INFINITY, ymax = -INFINITY;
  bool finite = true;
  for (int32_t i = 0; i < n; i++) {
    const double y = points[2 * i + 1];
    if (y < ymin) ymin = y;
    if (y > ymax) ymax = y;
    finite = finite && isfinite(y) && isfinite(points[2 * i]);
  }
  if (!(ymin <= ymax)) return;
  const double fy0 = floor(ymin), fy1 = ceil(ymax);
  const int row0 = fy0 <= 0 ? 0 : (fy0 >= height ? height : (int)fy0);
  const int row1 = fy1 <= 0 ? 0 : (fy1 >= height ? height : (int)fy1);
  if (row0 >= row1) return;

  double* xs = (double*)malloc((size_t)n * sizeof(double));
  uint16_t* diff = (uint16_t*)calloc((size_t)width + 2, sizeof(uint16_t));
  // Non-finite input yields NaN crossings, whose sorted order depends on the
  // order found; such outlines keep the plain scan over all edges.
  edge_top* sorted = finite ? (edge_top*)malloc((size_t)n * sizeof(edge_top)) : nullptr;
  int32_t* active = finite ? (int32_t*)malloc((size_t)n * sizeof(int32_t)) : nullptr;
  if (!xs || !diff || (finite && (!sorted || !active))) {
    free(xs);
    free(diff);
    free(sorted);
    free(active);
    return;
  }
  int32_t edges = 0, next = 0, nactive = 0;
  if (finite) {
    for (int32_t i = 0; i < n; i++) {
      const int32_t j = i + 1 == n ? 0 : i + 1;
      const double a = points[2 * i + 1], b = points[2 * j + 1];
      if (a == b) continue;  // horizontal edges never cross a sample line
      sorted[edges++] = {a < b ? a : b, i};
    }
    qsort(sorted, (size_t)edges, sizeof(edge_top), compare_top);
  }
  const double wd = (double)width;

  for (int row = row0; row < row1; row++) {
    if (finite) {
      // Edges whose top lies below this row join; those ending above leave.
      while (next < edges && sorted[next].top < row + 1.0) active[nactive++] = sorted[next++].index;
      int32_t kept = 0;
      for (int32_t q = 0; q < nactive; q++) {
        const int32_t i = active[q], j = i + 1 == n ? 0 : i + 1;
        const double a = points[2 * i + 1], b = points[2 * j + 1];
        if ((a > b ? a : b) > row) active[kept++] = i;
      }
      nactive = kept;
      if (nactive == 0 && next >= edges) break;
    }
    int touched_lo = width, touched_hi = -1;
    for (int k = 0; k < 4; k++) {
      const double s = row + 0.125 + 0.25 * k;
      int nx = 0;
      const int32_t count = finite ? nactive : n;
      for (int32_t q = 0; q < count; q++) {
        const int32_t i = finite ? active[q] : q;
        const int32_t j = i + 1 == n ? 0 : i + 1;
        const double a = points[2 * i + 1], b = points[2 * j + 1];
        // A vertex on the line belongs to the edge leading to greater y;
        // horizontal edges never count.
        if ((a > s) == (b > s)) continue;
        const double xi = points[2 * i], xn = points[2 * j];
        xs[nx++] = (xn - xi) * (s - a) / (b - a) + xi;
      }
      if (nx < 2) continue;
      for (int p = 1; p < nx; p++) {  // insertion sort: few crossings per line
        const double key = xs[p];
        int q = p - 1;
        while (q >= 0 && xs[q] > key) {
          xs[q + 1] = xs[q];
          q--;
        }
        xs[q + 1] = key;
      }
      for (int p = 0; p + 1 < nx; p += 2) {
        const double l = xs[p], r = xs[p + 1];
        // Also drops spans with a NaN end (from non-finite input).
        if (!(r > 0) || !(l < wd)) continue;
        const int p0 = l <= 0 ? 0 : (int)floor(l);             // l < width here
        const int p1 = r >= wd ? width - 1 : (int)ceil(r) - 1;  // r > 0 here
        if (p0 > p1) continue;
        if (p0 < touched_lo) touched_lo = p0;
        if (p1 > touched_hi) touched_hi = p1;
        // End pixels are partly covered; every pixel strictly between them
        // lies wholly inside the span and gets the full four units.
        auto end_pixel = [&](int px) {
          const double lo = l > px ? l : (double)px;
          const double hi = r < px + 1.0 ? r : px + 1.0;
          if (!(hi > lo)) return;
          const uint16_t u = quarter_units(hi - lo);
          diff[px] = (uint16_t)(diff[px] + u);
          diff[px + 1] = (uint16_t)(diff[px + 1] - u);
        };
        end_pixel(p0);
        if (p1 > p0) {
          if (p1 > p0 + 1) {
            diff[p0 + 1] = (uint16_t)(diff[p0 + 1] + 4);
            diff[p1] = (uint16_t)(diff[p1] - 4);
          }
          end_pixel(p1);
        }
      }
    }
    if (touched_hi < touched_lo) continue;
    write_row(diff, touched_lo, touched_hi, mask + (size_t)row * width, inv);
  }
  free(xs);
  free(diff);
  free(sorted);
  free(active);
}

// ---------------------------------------------------------------------------
// Vector helpers for the mask filters
//
// Both filters work on "lines": runs of n bytes that are processed as whole
// vectors, one line after the other. A vertical pass takes the mask's rows
// as lines. A horizontal pass first turns a strip of 16 rows into a sequence
// of 16-byte lines (pixel x of each of the 16 rows), runs the same vertical
// code on it and turns it back, so no per-pixel sequential loop remains.

namespace {

template <bool kMax>
inline uint8_t pickt(uint8_t a, uint8_t b) {
  if (kMax) return a > b ? a : b;
  return a < b ? a : b;
}

// dst = max or min of a and b, n bytes.
template <bool kMax>
inline void pick_line(uint8_t* dst, const uint8_t* a, const uint8_t* b, int n) {
  int x = 0;
#if KVL_SSE2
  for (; x + 16 <= n; x += 16) {
    const __m128i va = _mm_loadu_si128((const __m128i*)(a + x));
    const __m128i vb = _mm_loadu_si128((const __m128i*)(b + x));
    _mm_storeu_si128((__m128i*)(dst + x), kMax ? _mm_max_epu8(va, vb) : _mm_min_epu8(va, vb));
  }
#endif
  for (; x < n; x++) dst[x] = pickt<kMax>(a[x], b[x]);
}

#if KVL_SSE2
// In-register transpose of a 16x16 byte block: four rounds of interleaving
// row i with row i + 8 rotate the row and column index bits into each other.
inline void transpose16(__m128i r[16]) {
  for (int round = 0; round < 4; round++) {
    __m128i t[16];
    for (int i = 0; i < 8; i++) {
      t[2 * i] = _mm_unpacklo_epi8(r[i], r[i + 8]);
      t[2 * i + 1] = _mm_unpackhi_epi8(r[i], r[i + 8]);
    }
    for (int i = 0; i < 16; i++) r[i] = t[i];
  }
}
#endif

// Reads `rows` (1..16) rows of w pixels into t, where t + 16 x holds pixel x
// of each row; lanes of missing rows take `fill`.
void strip_in(const uint8_t* src, ptrdiff_t stride, int rows, int w, uint8_t fill, uint8_t* t) {
  int x = 0;
#if KVL_SSE2
  const __m128i vfill = _mm_set1_epi8((char)fill);
  for (; x + 16 <= w; x += 16) {
    __m128i r[16];
    for (int i = 0; i < 16; i++)
      r[i] = i < rows ? _mm_loadu_si128((const __m128i*)(src + i * stride + x)) : vfill;
    transpose16(r);
    for (int i = 0; i < 16; i++) _mm_storeu_si128((__m128i*)(t + 16 * (x + i)), r[i]);
  }
#endif
  for (; x < w; x++)
    for (int i = 0; i < 16; i++) t[16 * x + i] = i < rows ? src[i * stride + x] : fill;
}

// The inverse of strip_in: writes the first `rows` lanes back as rows.
void strip_out(const uint8_t* t, int w, uint8_t* dst, ptrdiff_t stride, int rows) {
  int x = 0;
#if KVL_SSE2
  for (; x + 16 <= w; x += 16) {
    __m128i r[16];
    for (int i = 0; i < 16; i++) r[i] = _mm_loadu_si128((const __m128i*)(t + 16 * (x + i)));
    transpose16(r);
    for (int i = 0; i < rows; i++) _mm_storeu_si128((__m128i*)(dst + i * stride + x), r[i]);
  }
#endif
  for (; x < w; x++)
    for (int i = 0; i < rows; i++) dst[i * stride + x] = t[16 * x + i];
}

}  // namespace

// ---------------------------------------------------------------------------
// Box blur
//
// Three box passes of radius r stand for a Gaussian. Each pass keeps running
// sums over a window of 2r + 1 positions clamped to the image, so the cost
// per pixel does not depend on sigma.

namespace {

// How a window total becomes an average: floor(sum / d), d = 2r + 1.
//
// Up to d = 127 every total fits 16 bits (255 d < 2^15) and the quotient is
// mulhi(sum, m) >> s with s = floor(log2 d), m = floor(2^(16+s) / d) + 1:
// the error term sum (m d - 2^(16+s)) / 2^(16+s) stays below 1 because
// 255 d^2 < 2^(15+s) for such d, and m fits 16 bits because d is odd.
// Wider windows use 64-bit totals and a 32-bit reciprocal (exact while
// 255 d^2 < 2^32) or, past that, a plain division.
struct box_plan {
  int64_t r;
  uint64_t d;
  bool narrow;  // 16-bit totals and the mulhi quotient
  uint16_t m16;
  int s16;
  uint64_t m32;
  bool recip32;
};

box_plan make_plan(int64_t r) {
  box_plan p = {};
  p.r = r;
  p.d = (uint64_t)(2 * r + 1);
  p.narrow = p.d <= 127;
  if (p.narrow) {
    int s = 0;
    while ((2ull << s) <= p.d) s++;
    p.s16 = s;
    p.m16 = (uint16_t)(((uint64_t)1 << (16 + s)) / p.d + 1);
  }
  p.recip32 = p.d < 4096;
  p.m32 = ((uint64_t)1 << 32) / p.d + 1;
  return p;
}

// Box filter along a sequence of `len` lines of n bytes: line i is read at
// src + i * ss and its average written at dst + i * ds. Positions outside
// 0..len-1 repeat the end lines. `scratch` holds n 64-bit totals.
void box_lines(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int n, int64_t len,
               const box_plan& p, void* scratch) {
  const int64_t r = p.r, last = len - 1;
  const int64_t inner = r < last ? r : last;
  auto line = [&](int64_t i) { return src + (ptrdiff_t)i * ss; };
  if (p.narrow) {
    uint16_t* sums = (uint16_t*)scratch;
    const uint16_t first = (uint16_t)(r + 1);
    for (int x = 0; x < n; x++) sums[x] = (uint16_t)(first * src[x]);
    for (int64_t q = 1; q <= inner; q++) {
      const uint8_t* l = line(q);
      for (int x = 0; x < n; x++) sums[x] = (uint16_t)(sums[x] + l[x]);
    }
    if (r > last) {
      const uint8_t* l = line(last);
      const uint16_t extra = (uint16_t)(r - last);
      for (int x = 0; x < n; x++) sums[x] = (uint16_t)(sums[x] + extra * l[x]);
    }
    const uint16_t m = p.m16;
    const int s = p.s16;
#if KVL_SSE2
    const __m128i vm = _mm_set1_epi16((short)m), zero = _mm_setzero_si128();
    const __m128i vs = _mm_cvtsi32_si128(s);
#endif
    for (int64_t i = 0; i < len; i++) {
      uint8_t* out = dst + (ptrdiff_t)i * ds;
      const uint8_t* add = line(i + r + 1 > last ? last : i + r + 1);
      const uint8_t* sub = line(i - r < 0 ? 0 : i - r);
      int x = 0;
#if KVL_SSE2
      for (; x + 16 <= n; x += 16) {
        __m128i lo = _mm_loadu_si128((const __m128i*)(sums + x));
        __m128i hi = _mm_loadu_si128((const __m128i*)(sums + x + 8));
        const __m128i qlo = _mm_srl_epi16(_mm_mulhi_epu16(lo, vm), vs);
        const __m128i qhi = _mm_srl_epi16(_mm_mulhi_epu16(hi, vm), vs);
        _mm_storeu_si128((__m128i*)(out + x), _mm_packus_epi16(qlo, qhi));
        const __m128i a = _mm_loadu_si128((const __m128i*)(add + x));
        const __m128i b = _mm_loadu_si128((const __m128i*)(sub + x));
        lo = _mm_sub_epi16(_mm_add_epi16(lo, _mm_unpacklo_epi8(a, zero)), _mm_unpacklo_epi8(b, zero));
        hi = _mm_sub_epi16(_mm_add_epi16(hi, _mm_unpackhi_epi8(a, zero)), _mm_unpackhi_epi8(b, zero));
        _mm_storeu_si128((__m128i*)(sums + x), lo);
        _mm_storeu_si128((__m128i*)(sums + x + 8), hi);
      }
#endif
      for (; x < n; x++) {
        out[x] = (uint8_t)((((uint32_t)sums[x] * m) >> 16) >> s);
        sums[x] = (uint16_t)(sums[x] + add[x] - sub[x]);
      }
    }
    return;
  }
  uint64_t* sums = (uint64_t*)scratch;
  for (int x = 0; x < n; x++) sums[x] = (uint64_t)(r + 1) * src[x];
  for (int64_t q = 1; q <= inner; q++) {
    const uint8_t* l = line(q);
    for (int x = 0; x < n; x++) sums[x] += l[x];
  }
  if (r > last) {
    const uint8_t* l = line(last);
    for (int x = 0; x < n; x++) sums[x] += (uint64_t)(r - last) * l[x];
  }
  for (int64_t i = 0; i < len; i++) {
    uint8_t* out = dst + (ptrdiff_t)i * ds;
    const uint8_t* add = line(i + r + 1 > last ? last : i + r + 1);
    const uint8_t* sub = line(i - r < 0 ? 0 : i - r);
    for (int x = 0; x < n; x++) {
      out[x] = (uint8_t)(p.recip32 ? (sums[x] * p.m32) >> 32 : sums[x] / p.d);
      sums[x] = sums[x] + add[x] - sub[x];
    }
  }
}

// Horizontal pass of one row for narrow windows, without transposing: the
// window total is a difference of prefix sums of the edge-extended row. The
// prefix sums wrap at 16 bits, which leaves every difference exact because a
// window total itself stays below 2^15. b holds w + 2r + 16 bytes, ps
// w + 2r + 18 totals.
void box_row_prefix(const uint8_t* src, uint8_t* dst, int w, const box_plan& p, uint8_t* b, uint16_t* ps) {
  const int r = (int)p.r, d = (int)p.d;
  const int len = w + 2 * r;  // b[j] is src[clamp(j - r)]
  memset(b, src[0], (size_t)r);
  memcpy(b + r, src, (size_t)w);
  memset(b + r + w, src[w - 1], (size_t)r);
  ps[0] = 0;
  int j = 0;
#if KVL_SSE2
  const __m128i zero = _mm_setzero_si128();
  __m128i carry = zero;
  for (; j + 16 <= len; j += 16) {
    const __m128i v = _mm_loadu_si128((const __m128i*)(b + j));
    __m128i lo = _mm_unpacklo_epi8(v, zero), hi = _mm_unpackhi_epi8(v, zero);
    prefix_sum16(&lo, &hi, &carry);
    _mm_storeu_si128((__m128i*)(ps + j + 1), lo);
    _mm_storeu_si128((__m128i*)(ps + j + 9), hi);
  }
#endif
  for (; j < len; j++) ps[j + 1] = (uint16_t)(ps[j] + b[j]);
  // Output x sums b[x .. x + 2r] = ps[x + d] - ps[x].
  const uint16_t m = p.m16;
  const int sh = p.s16;
  int x = 0;
#if KVL_SSE2
  const __m128i vm = _mm_set1_epi16((short)m), vs = _mm_cvtsi32_si128(sh);
  for (; x + 16 <= w; x += 16) {
    const __m128i lo = _mm_sub_epi16(_mm_loadu_si128((const __m128i*)(ps + x + d)),
                                     _mm_loadu_si128((const __m128i*)(ps + x)));
    const __m128i hi = _mm_sub_epi16(_mm_loadu_si128((const __m128i*)(ps + x + d + 8)),
                                     _mm_loadu_si128((const __m128i*)(ps + x + 8)));
    const __m128i qlo = _mm_srl_epi16(_mm_mulhi_epu16(lo, vm), vs);
    const __m128i qhi = _mm_srl_epi16(_mm_mulhi_epu16(hi, vm), vs);
    _mm_storeu_si128((__m128i*)(dst + x), _mm_packus_epi16(qlo, qhi));
  }
#endif
  for (; x < w; x++) {
    const uint16_t sum = (uint16_t)(ps[x + d] - ps[x]);
    dst[x] = (uint8_t)((((uint32_t)sum * m) >> 16) >> sh);
  }
}

}  // namespace

void kvl_blur8(uint8_t* mask, int32_t width, int32_t height, double sigma) {
  if (!(sigma > 0.3)) return;  // 0.3 itself and NaN do nothing
  if (!mask || width < 1 || height < 1) return;
  double rd = round(0.5 * sqrt(1.0 + 4.0 * sigma * sigma) - 0.5);
  // Beyond this the window is thousands of times the largest mask; the cap
  // only keeps the arithmetic finite for absurd sigmas.
  const double kMaxRadius = 1 << 28;
  if (!(rd <= kMaxRadius)) rd = kMaxRadius;
  const box_plan plan = make_plan(rd < 1 ? 1 : (int64_t)rd);

  const size_t total = (size_t)width * (size_t)height;
  // Narrow windows: an extended row and its prefix sums. Wide ones: two
  // transposed strips of 16 rows.
  const size_t row_room = plan.narrow ? (size_t)width + 2 * (size_t)plan.r + 32 : (size_t)width * 16;
  const size_t widest = (size_t)(width > 16 ? width : 16);
  uint8_t* tmp = (uint8_t*)malloc(total + 2 * row_room);
  uint64_t* scratch = (uint64_t*)malloc((widest > row_room ? widest : row_room) * sizeof(uint64_t));
  if (!tmp || !scratch) {
    free(tmp);
    free(scratch);
    return;
  }
  uint8_t* t0 = tmp + total;
  uint8_t* t1 = t0 + row_room;
  for (int pass = 0; pass < 3; pass++) {
    // Horizontal: mask -> tmp.
    if (plan.narrow) {
      for (int y = 0; y < height; y++)
        box_row_prefix(mask + (size_t)y * width, tmp + (size_t)y * width, width, plan, t0, (uint16_t*)scratch);
    } else {
      for (int y = 0; y < height; y += 16) {
        const int rows = height - y < 16 ? height - y : 16;
        strip_in(mask + (size_t)y * width, width, rows, width, 0, t0);
        box_lines(t0, 16, t1, 16, 16, width, plan, scratch);
        strip_out(t1, width, tmp + (size_t)y * width, width, rows);
      }
    }
    // Vertical: tmp -> mask, whole rows as lines.
    box_lines(tmp, width, mask, width, width, height, plan, scratch);
  }
  free(tmp);
  free(scratch);
}

// ---------------------------------------------------------------------------
// Dilation and erosion
//
// A square element of side 2 radius + 1, separable into a row pass and a
// column pass. Windows clip at the image edge, which is the same as padding
// with the neutral value (0 for max, 255 for min). Each pass uses the
// van Herk / Gil-Werman scheme: the padded sequence is cut into blocks of the
// window length; a window then spans at most two blocks and equals the
// extreme of a suffix of the first and a prefix of the second, so every pixel
// costs a constant number of operations whatever the radius.

namespace {

// Lines of the padded sequence a window of radius r needs, rounded up to
// whole blocks.
size_t padded_lines(int len, int r) {
  const size_t k = 2 * (size_t)r + 1, total = (size_t)len + 2 * (size_t)r;
  return (total + k - 1) / k * k;
}

// Copies one line of n bytes, or fills it with `v` when src is null.
template <int kN>
inline void copy_line(uint8_t* dst, const uint8_t* src, int n, uint8_t v) {
  if (kN) n = kN;
  if (src) memcpy(dst, src, (size_t)n);
  else memset(dst, v, (size_t)n);
}

// In place over `len` lines of n bytes (line i at data + i * stride), radius
// r < len - 1. g and h hold padded_lines(len, r) * n bytes each. kN fixes n
// at compile time for the 16-byte lines of a row strip.
template <bool kMax, int kN>
void morph_lines(uint8_t* data, ptrdiff_t stride, int n, int len, int r, uint8_t* g, uint8_t* h) {
  if (kN) n = kN;
  const uint8_t neutral = kMax ? 0 : 255;
  const int k = 2 * r + 1;
  const int full = (int)padded_lines(len, r);
  auto src = [&](int i) -> const uint8_t* {  // padded line i, null outside
    const int y = i - r;
    return (y >= 0 && y < len) ? data + (ptrdiff_t)y * stride : nullptr;
  };
  for (int s = 0; s < full; s += k) {
    const int e = s + k - 1;
    // Prefix extremes, running forward through the block.
    copy_line<kN>(g + (size_t)s * n, src(s), n, neutral);
    for (int i = s + 1; i <= e; i++) {
      const uint8_t* p = src(i);
      uint8_t* cur = g + (size_t)i * n;
      if (p) pick_line<kMax>(cur, cur - n, p, n);
      else copy_line<kN>(cur, cur - n, n, 0);  // the neutral value changes nothing
    }
    // Suffix extremes, running backward.
    copy_line<kN>(h + (size_t)e * n, src(e), n, neutral);
    for (int i = e - 1; i >= s; i--) {
      const uint8_t* p = src(i);
      uint8_t* cur = h + (size_t)i * n;
      if (p) pick_line<kMax>(cur, cur + n, p, n);
      else copy_line<kN>(cur, cur + n, n, 0);
    }
  }
  // Output y covers padded lines y .. y + 2r.
  for (int y = 0; y < len; y++)
    pick_line<kMax>(data + (ptrdiff_t)y * stride, h + (size_t)y * n, g + (size_t)(y + 2 * r) * n, n);
}

template <bool kMax>
void morph_impl(uint8_t* mask, int w, int hgt, int radius) {
  const uint8_t neutral = kMax ? 0 : 255;
  // Rows. A window reaching past both ends of the row covers all of it.
  if (w > 1) {
    if (radius >= w - 1) {
      for (int y = 0; y < hgt; y++) {
        uint8_t* row = mask + (size_t)y * w;
        uint8_t v = row[0];
        for (int x = 1; x < w; x++) v = pickt<kMax>(v, row[x]);
        memset(row, v, (size_t)w);
      }
    } else {
      const size_t lines = padded_lines(w, radius);
      uint8_t* buf = (uint8_t*)malloc((size_t)w * 16 + lines * 16 * 2);
      if (!buf) return;
      uint8_t* t = buf;
      uint8_t* g = t + (size_t)w * 16;
      uint8_t* h = g + lines * 16;
      for (int y = 0; y < hgt; y += 16) {
        const int rows = hgt - y < 16 ? hgt - y : 16;
        strip_in(mask + (size_t)y * w, w, rows, w, neutral, t);
        morph_lines<kMax, 16>(t, 16, 16, w, radius, g, h);
        strip_out(t, w, mask + (size_t)y * w, w, rows);
      }
      free(buf);
    }
  }
  // Columns.
  if (hgt > 1) {
    if (radius >= hgt - 1) {
      uint8_t* acc = (uint8_t*)malloc((size_t)w);
      if (!acc) return;
      memcpy(acc, mask, (size_t)w);
      for (int y = 1; y < hgt; y++) pick_line<kMax>(acc, acc, mask + (size_t)y * w, w);
      for (int y = 0; y < hgt; y++) memcpy(mask + (size_t)y * w, acc, (size_t)w);
      free(acc);
    } else {
      // Strips of columns keep the two block buffers in cache.
      const size_t lines = padded_lines(hgt, radius);
      const int strip = w < 128 ? w : 128;
      uint8_t* buf = (uint8_t*)malloc(lines * (size_t)strip * 2);
      if (!buf) return;
      for (int x0 = 0; x0 < w; x0 += strip) {
        const int sw = w - x0 < strip ? w - x0 : strip;
        morph_lines<kMax, 0>(mask + x0, w, sw, hgt, radius, buf, buf + lines * (size_t)sw);
      }
      free(buf);
    }
  }
}

void morph_pass(uint8_t* mask, int32_t width, int32_t height, int32_t radius, bool dilate) {
  if (radius < 1 || !mask || width < 1 || height < 1) return;
  if (dilate)
    morph_impl<true>(mask, width, height, radius);
  else
    morph_impl<false>(mask, width, height, radius);
}

}  // namespace

void kvl_dilate8(uint8_t* mask, int32_t width, int32_t height, int32_t radius) {
  morph_pass(mask, width, height, radius, true);
}

void kvl_erode8(uint8_t* mask, int32_t width, int32_t height, int32_t radius) {
  morph_pass(mask, width, height, radius, false);
}
