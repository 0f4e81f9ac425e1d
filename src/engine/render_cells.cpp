// Where a layer's pixels are: the edge tests and coverage of quad cells (with
// the run of fully covered pixels of each row found by search, not pixel by
// pixel), the rows of a polygon's coverage mask, and the rows of an effect's
// mask. The pixels themselves go to the spans of the layer's kernel set.
#include "render_internal.h"

namespace kvl_px {

namespace {

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
// each with its own coverage. Long runs (along a nearly level edge) go to a
// kernel that takes per-pixel alphas, where the set has one.
void edge_run(const shade& s, const cell_edges& ce, const row_edges& re, const double* m, int32_t y, int32_t xa,
              int32_t xb, uint8_t* row) {
  if (s.k->cell_cover_span && xb - xa >= 8) {
    double alpha[64];
    for (int32_t a = xa; a < xb; a += 64) {
      const int32_t n = xb - a < 64 ? xb - a : 64;
      for (int32_t k = 0; k < n; k++) {
        const double c = pixel_coverage(ce, re, a + k);
        alpha[k] = c > 0.0 ? s.opacity * c : -1.0;
      }
      s.k->cell_cover_span(s, m, y, a, a + n, row, alpha);
    }
    return;
  }
  const double cy = y + 0.5;
  const hid_rows hr = hid_at(s, y);
  for (int32_t x = xa; x < xb; x++) {
    const double c = pixel_coverage(ce, re, x);
    if (c > 0.0) cell_pixel(s, m, x, cy, s.opacity * c, row, hr);
  }
}

}  // namespace

void draw_cell(const shade& s, const kvl_cell& cell, const canvas& cv, int32_t y0, int32_t y1) {
  const int32_t ya = cell.y0 > y0 ? cell.y0 : y0, yb = cell.y1 < y1 ? cell.y1 : y1;
  const int32_t xa = cell.x0 > 0 ? cell.x0 : 0, xb = cell.x1 < cv.width ? cell.x1 : cv.width;
  if (ya >= yb || xa >= xb) return;
  cell_edges ce;
  setup_edges(cell, &ce);
  const double* m = cell.inv.m;
  for (int32_t y = ya; y < yb; y++) {
    uint8_t* row = canvas_row(cv.base, cv.stride, cv.row0, y);
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
    if (ga < gb) s.k->cell_span(s, m, y, ga, gb, row);
    if (!s.probe) edge_run(s, ce, re, m, y, gb > sa ? gb : sa, sb, row);
  }
}

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
    uint8_t* row = canvas_row(cv.base, cv.stride, cv.row0, y);
    s.k->poly_span(s, p, y, v, xa, xb, cov, row);
  }
}

void raster_fx(const kvl_fx& fx, const canvas& cv, int32_t y0, int32_t y1, double opacity, bool luma,
               const kernels* kern) {
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
    uint8_t* row = canvas_row(cv.base, cv.stride, cv.row0, y) + 4 * (static_cast<ptrdiff_t>(fx.x) + ca);
    kern->fx_span(col, luma, k, cov, cb - ca, row, cv.opaque);
  }
}

}  // namespace kvl_px
