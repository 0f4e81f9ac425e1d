// Homographies, mesh warp, outline flattening, the polygon rasteriser and the
// mask filters. The optimised rasteriser, blur and morphology are checked
// bit for bit against plain, obviously-correct versions kept here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "kavlen/kavlen_engine.h"

namespace {

using Mask = std::vector<uint8_t>;

// Plain reference versions of the mask routines.

void ref_raster(const double* pts, int n, uint8_t* mask, int w, int h, int invert) {
  const bool inv = invert & 1;
  std::fill(mask, mask + (size_t)w * h, inv ? 255 : 0);
  if (n < 3) return;
  double ymin = INFINITY, ymax = -INFINITY;
  for (int i = 0; i < n; i++) ymin = std::min(ymin, pts[2 * i + 1]), ymax = std::max(ymax, pts[2 * i + 1]);
  const int r0 = (int)std::clamp(std::floor(ymin), 0.0, (double)h);
  const int r1 = (int)std::clamp(std::ceil(ymax), 0.0, (double)h);
  std::vector<uint16_t> acc(w);
  for (int row = r0; row < r1; row++) {
    std::fill(acc.begin(), acc.end(), 0);
    for (int k = 0; k < 4; k++) {
      const double s = row + 0.125 + 0.25 * k;
      std::vector<double> xs;
      for (int i = 0; i < n; i++) {
        const int j = (i + 1) % n;
        const double a = pts[2 * i + 1], b = pts[2 * j + 1];
        if ((a > s) != (b > s)) xs.push_back((pts[2 * j] - pts[2 * i]) * (s - a) / (b - a) + pts[2 * i]);
      }
      if (xs.size() < 2) continue;
      std::sort(xs.begin(), xs.end());
      for (size_t p = 0; p + 1 < xs.size(); p += 2) {
        const double l = xs[p], r = xs[p + 1];
        if (r <= 0 || l >= w) continue;
        const int a = std::clamp((int)std::floor(l), 0, w - 1);
        const int b = std::clamp((int)std::ceil(r) - 1, 0, w - 1);
        for (int x = a; x <= b; x++) {
          const double lo = std::max(l, (double)x), hi = std::min(r, x + 1.0);
          if (hi > lo) acc[x] = (uint16_t)(acc[x] + (int)std::round((hi - lo) * 4));
        }
      }
    }
    for (int x = 0; x < w; x++)
      if (acc[x]) mask[(size_t)row * w + x] = (uint8_t)(std::min(acc[x] * 255 >> 4, 255) ^ (inv ? 255 : 0));
  }
}

// One pass of a window of radius r along every row (step 1) or column
// (step w), with each line read before it is written.
template <class F>
void ref_lines(uint8_t* m, int w, int h, bool columns, F window) {
  const int n = columns ? h : w, lines = columns ? w : h;
  const size_t step = columns ? w : 1, next = columns ? 1 : w;
  Mask line(n);
  for (int l = 0; l < lines; l++) {
    uint8_t* p = m + l * next;
    for (int i = 0; i < n; i++) line[i] = p[i * step];
    for (int i = 0; i < n; i++) p[i * step] = window(line, n, i);
  }
}

// Box blur straight from the definition, edges repeated: every output sums its window.
void ref_blur_r(uint8_t* m, int w, int h, long r) {
  auto box = [r](const Mask& line, int n, int i) {
    long sum = 0;
    for (long q = i - r; q <= i + r; q++) sum += line[std::clamp<long>(q, 0, n - 1)];
    return (uint8_t)(sum / (2 * r + 1));
  };
  for (int pass = 0; pass < 3; pass++) {
    ref_lines(m, w, h, false, box);
    ref_lines(m, w, h, true, box);
  }
}

long blur_radius(double sigma) { return std::max(1L, std::lround(0.5 * std::sqrt(1 + 4 * sigma * sigma) - 0.5)); }

void ref_morph(uint8_t* m, int w, int h, int r, bool dilate) {
  if (r < 1) return;
  auto pick = [r, dilate](const Mask& line, int n, int i) {
    uint8_t v = line[i];
    for (int q = std::max(0, i - r); q <= std::min(n - 1, i + r); q++)
      v = dilate ? std::max(v, line[q]) : std::min(v, line[q]);
    return v;
  };
  ref_lines(m, w, h, false, pick);
  ref_lines(m, w, h, true, pick);
}

// Masks that are neither smooth nor uniform: noise, sparse spikes and flat runs.
Mask random_mask(std::mt19937& rng, int w, int h) {
  Mask m((size_t)w * h);
  const int style = (int)(rng() % 3);
  for (auto& v : m)
    v = style == 0 ? (uint8_t)rng() : style == 1 ? (rng() % 7 ? 0 : 255) : (rng() % 4 ? 0 : (uint8_t)rng());
  return m;
}

// Single rows and columns as often as squares.
std::pair<int, int> random_size(std::mt19937& rng) {
  const int kind = (int)(rng() % 5), a = 1 + (int)(rng() % 70), b = 1 + (int)(rng() % 60), c = 1 + (int)(rng() % 60);
  return kind == 0 ? std::pair{1, a} : kind == 1 ? std::pair{a, 1} : std::pair{b, c};
}

int count_value(const Mask& m, uint8_t v) { return (int)std::count(m.begin(), m.end(), v); }

TEST(Geom, CornersMapInOutlineOrderAndInverseRoundTrips) {
  // Projective quads, including one where only sy is off (sx == 0 exactly).
  const std::vector<std::vector<double>> quads = {
      {100, 80, 1200, 40, 1100, 700, 60, 650}, {0.1, 0.2, 0.9, 0.1, 0.8, 0.95, 0.05, 0.7}, {0, 0, 4, 0, 3, 2, 1, 2}};
  for (const auto& q : quads) {
    kvl_h h = kvl_h_unit_to_quad(q.data()), inv;
    EXPECT_TRUE(h.m[6] != 0.0 || h.m[7] != 0.0);
    const double tol = 1e-12 * std::max(1.0, std::fabs(q[0]) + std::fabs(q[2]));
    double x, y, u, v;
    for (int c = 0; c < 4; c++) {
      kvl_h_apply(&h, c == 1 || c == 2, c >= 2, &x, &y);
      EXPECT_TRUE(std::fabs(x - q[2 * c]) <= tol && std::fabs(y - q[2 * c + 1]) <= tol) << q[0] << " corner " << c;
    }
    ASSERT_TRUE(kvl_h_invert(&h, &inv));
    kvl_h_apply(&h, 0.3, 0.7, &x, &y);
    kvl_h_apply(&inv, x, y, &u, &v);
    EXPECT_TRUE(std::fabs(u - 0.3) < 1e-9 && std::fabs(v - 0.7) < 1e-9) << q[0];
  }
}

TEST(Geom, ApplyKeepsItsOperationOrder) {
  // (1e16 + 1) + 1 rounds back to 1e16 at each step; 1e16 + (1 + 1) would
  // not. The shader sums in the same order, so this order is part of the
  // contract between the two renderers.
  const kvl_h h = {{1, 1, 1, 1, 1, 1, 0, 0, 1}}, hw = {{1, 0, 0, 0, 1, 0, 1, 1, 1}};
  double x, y, xw, yw;
  kvl_h_apply(&h, 1e16, 1, &x, &y);
  kvl_h_apply(&hw, 1e16, 1, &xw, &yw);
  EXPECT_TRUE(x == 1e16 && y == 1e16 && xw == 1.0);  // w = (1e16 + 1) + 1 == 1e16
}

TEST(Geom, InvertRefusesSingularAndLeavesOutAlone) {
  // Zero; three collinear corners (g and h go non-finite, the determinant
  // NaN); NaN; and a determinant of 1e-19, under the 1e-18 threshold.
  const double line[8] = {0, 5, 1, 1, 2, 2, 3, 3};
  const kvl_h bad[] = {kvl_h{}, kvl_h_unit_to_quad(line), {{NAN, 0, 0, 0, 1, 0, 0, 0, 1}},
                       {{1e-7, 0, 0, 0, 1e-7, 0, 0, 0, 1e-5}}};
  for (const kvl_h& h : bad) {
    kvl_h out, before;
    for (double& v : out.m) v = 42.0;
    before = out;
    EXPECT_FALSE(kvl_h_invert(&h, &out)) << &h - bad;
    EXPECT_EQ(memcmp(&out, &before, sizeof out), 0) << &h - bad;
  }
  kvl_h small = {{1e-7, 0, 0, 0, 1e-7, 0, 0, 0, 1e-3}}, out;  // det 1e-17: tiny but regular
  ASSERT_TRUE(kvl_h_invert(&small, &out));
  EXPECT_DOUBLE_EQ(out.m[0], 1e7);
}

kvl_layer mesh_layer(int cols, int rows, double* offsets) {
  kvl_layer l{};
  l.has_mesh = true, l.mesh_cols = cols, l.mesh_rows = rows, l.mesh_offsets = offsets;
  return l;
}

TEST(GeomMesh, PassesThroughEveryControlPoint) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> d(-0.2, 0.2);
  std::vector<double> o(4 * 3 * 2);
  for (double& v : o) v = d(rng);
  const kvl_layer m = mesh_layer(3, 2, o.data());
  for (int r = 0; r <= 2; r++)
    for (int c = 0; c <= 3; c++) {
      double dx, dy;
      kvl_mesh_offset_at(&m, c, r, &dx, &dy);
      // Inner points are hit with t = 0, exactly; the far edges with t = 1
      // in the last cell, equal up to rounding.
      const double* want = &o[(r * 4 + c) * 2];
      const double tol = c < 3 && r < 2 ? 0 : 1e-15;
      EXPECT_TRUE(std::fabs(dx - want[0]) <= tol && std::fabs(dy - want[1]) <= tol) << c << "," << r;
    }
}

TEST(GeomMesh, OneByOneUsesRepeatedCornersAndClampsOutside) {
  double o[8] = {0, 0, 1, 0, 0, 0, 0, 1};
  const kvl_layer m = mesh_layer(1, 1, o);
  // With both end points repeated the curve between A and B weighs B by
  // t/2 + 3t^2/2 - t^3, which is 1/2 in the middle and 0.203125 at 1/4.
  // Outside the grid the position clamps to the border; NaN gives no offset.
  const double cases[][4] = {{0.5, 0.5, 0.25, 0.25}, {0.25, 0, 0.203125, 0}, {7, -3, 1, 0}, {NAN, NAN, 0, 0}};
  for (const auto& c : cases) {
    double dx, dy;
    kvl_mesh_offset_at(&m, c[0], c[1], &dx, &dy);
    EXPECT_TRUE(std::fabs(dx - c[2]) <= 1e-15 && std::fabs(dy - c[3]) <= 1e-15) << c[0] << "," << c[1];
  }
}

TEST(GeomFlatten, OneHandleCurvesOneEdge) {
  kvl_vertex v[4] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  v[0].has_out = true, v[0].out_x = 0, v[0].out_y = 1;
  double* pts = nullptr;
  ASSERT_EQ(kvl_flatten(v, 4, &pts), 19);
  // Inner point k = 8 is t = 1/2: P0/8 + 3 C1/8 + 3 C2/8 + P3/8 with
  // C1 = (0, 1) and C2 = P3 = (1, 0). The straight edges then contribute
  // only their start vertices.
  const double want[][3] = {{0, 0, 0}, {8, 0.5, 0.375}, {16, 1, 0}, {17, 1, 1}, {18, 0, 1}};
  for (const auto& w : want) EXPECT_TRUE(pts[2 * (int)w[0]] == w[1] && pts[2 * (int)w[0] + 1] == w[2]) << w[0];
  free(pts);
  pts = nullptr;  // an empty outline still returns a freeable block
  EXPECT_EQ(kvl_flatten(nullptr, 0, &pts), 0);
  EXPECT_NE(pts, nullptr);
  free(pts);
}

TEST(Raster, PartialCoverageAndInvert) {
  // Left edge at 2.5: that column is half covered on every sample line,
  // 8 of 16 units, which maps to 127 (no rounding) and to 128 inverted.
  const int w = 8, h = 4;
  const double rect[] = {2.5, 0, 6, 0, 6, 4, 2.5, 4};
  Mask m(w * h), mi(w * h);
  kvl_raster_polygon(rect, 4, m.data(), w, h, 0);
  kvl_raster_polygon(rect, 4, mi.data(), w, h, 3);  // only bit 0 counts
  for (int y = 0; y < h; y++)
    for (auto [x, plain, inverted] : {std::tuple{2, 127, 128}, {4, 255, 0}, {7, 0, 255}})
      EXPECT_TRUE(m[y * w + x] == plain && mi[y * w + x] == inverted) << x << "," << y;
}

TEST(Raster, DegenerateAndOutsidePolygonsLeaveTheFill) {
  const int w = 10, h = 10;
  // Two points, off to the side, above, and flat on one line.
  const std::vector<std::vector<double>> polys = {
      {1, 1, 8, 8}, {20, 20, 30, 20, 30, 30, 20, 30}, {1, -9, 8, -9, 8, -1, 1, -1}, {1, 5, 8, 5, 4, 5}};
  for (int invert : {0, 1})
    for (const auto& p : polys) {
      Mask m(w * h, 9);
      kvl_raster_polygon(p.data(), (int)p.size() / 2, m.data(), w, h, invert);
      EXPECT_EQ(count_value(m, invert ? 255 : 0), w * h) << p.size() << " " << p[1] << " " << invert;
    }
}

TEST(Raster, ManyThinSpansInOnePixelSaturate) {
  // Seven teeth 1/8 wide in pixel 20: each rounds to one unit per sample
  // line, 28 in all, which must clamp to 255 (not wrap to 28 * 255 >> 4).
  // A wide bar on the same rows puts the pixel inside a run of 16.
  std::vector<double> pts;
  for (int i = 0; i < 7; i++) {
    const double x0 = 20 + i * 0.140625, x1 = x0 + 0.125;
    for (double v : {x0, 10.0, x0, 0.0, x1, 0.0, x1, 10.0}) pts.push_back(v);
  }
  for (double v : {30.0, 10.0, 30.0, 0.0, 46.0, 0.0, 46.0, 10.0}) pts.push_back(v);
  const int n = (int)pts.size() / 2, w = 48, h = 12;
  for (int invert : {0, 1}) {
    Mask m(w * h), want(w * h);
    kvl_raster_polygon(pts.data(), n, m.data(), w, h, invert);
    ref_raster(pts.data(), n, want.data(), w, h, invert);
    EXPECT_EQ(m, want);
    const uint8_t on = invert ? 0 : 255, off = invert ? 255 : 0;
    EXPECT_TRUE(m[5 * w + 20] == on && m[5 * w + 25] == off && m[5 * w + 30] == on && m[5 * w + 46] == off);
  }
}

TEST(Raster, MatchesPlainScanConversion) {
  std::mt19937 rng(1234);
  for (int iter = 0; iter < 400; iter++) {
    const int w = 1 + (int)(rng() % 48), h = 1 + (int)(rng() % 48), n = 3 + (int)(rng() % 12);
    std::vector<double> pts(2 * n);
    std::uniform_real_distribution<double> dx(-10, w + 10), dy(-10, h + 10);
    // Mix free positions with eighth-pixel ones, which hit the half-way
    // rounding of the coverage and vertices lying on sample lines.
    for (int i = 0; i < n; i++) {
      const bool free_pos = rng() % 2;
      pts[2 * i] = free_pos ? dx(rng) : std::floor(dx(rng) * 8) / 8;
      pts[2 * i + 1] = free_pos ? dy(rng) : std::floor(dy(rng) * 8) / 8;
    }
    const int invert = (int)(rng() % 2);
    Mask got(w * h), want(w * h);
    kvl_raster_polygon(pts.data(), n, got.data(), w, h, invert);
    ref_raster(pts.data(), n, want.data(), w, h, invert);
    ASSERT_EQ(got, want) << "iteration " << iter;
  }
}

TEST(Raster, SurvivesNonFiniteAndHugeCoordinates) {
  const int w = 20, h = 20;
  Mask m(w * h);
  const double big = 1e300, nan = std::numeric_limits<double>::quiet_NaN(), inf = INFINITY;
  const double huge[] = {-big, -big, big, -big, big, big, -big, big};
  kvl_raster_polygon(huge, 4, m.data(), w, h, 0);
  EXPECT_EQ(count_value(m, 255), w * h);
  const double all_nan[] = {nan, nan, nan, nan, nan, nan};
  kvl_raster_polygon(all_nan, 3, m.data(), w, h, 1);
  EXPECT_EQ(count_value(m, 255), w * h);
  // Garbage x values on rows 5..8: whatever lands there, nothing outside the
  // rows of the polygon's extent may change, and nothing may crash.
  const double garbage[] = {nan, 5, inf, 6, -inf, 7.5, big, 8, -big, 5.5, 3e9, 6.5, -3e9, 7};
  for (int invert : {0, 1}) {
    kvl_raster_polygon(garbage, 7, m.data(), w, h, invert);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w && (y < 5 || y >= 8); x++) ASSERT_EQ(m[y * w + x], invert ? 255 : 0) << x << "," << y;
  }
  // Edges running to infinity have no finite crossing (0 * inf): they draw
  // nothing rather than something arbitrary.
  const double inf_rows[] = {2, -inf, 9, -inf, 9, inf, 2, inf};
  kvl_raster_polygon(inf_rows, 4, m.data(), w, h, 0);
  EXPECT_EQ(count_value(m, 0), w * h);
}

TEST(MaskFilter, BlurThresholdAndSmallestRadius) {
  std::mt19937 rng(5);
  const Mask base = random_mask(rng, 23, 17);
  for (double sigma : {0.0, 0.3, -4.0, std::nan("")}) {
    Mask m = base;
    kvl_blur8(m.data(), 23, 17, sigma);
    EXPECT_EQ(m, base) << sigma;
  }
  Mask m = base, want = base;
  kvl_blur8(m.data(), 23, 17, 0.31);
  ref_blur_r(want.data(), 23, 17, 1);
  EXPECT_TRUE(m != base && m == want);
}

TEST(MaskFilter, BlurMatchesPlainBoxFilter) {
  std::mt19937 rng(99);
  for (int iter = 0; iter < 150; iter++) {
    auto [w, h] = random_size(rng);
    // Small sigmas, the usual range, r past the mask size, and 2r + 1 past 4096.
    const double sigmas[] = {0.31 + (rng() % 100) / 40.0, 1 + (rng() % 400) / 10.0, 50.0 + rng() % 400,
                             2100.0 + rng() % 900};
    const double sigma = sigmas[rng() % 4];
    // The plain filter costs (2r + 1) per pixel: keep wide windows on small masks.
    while ((long)w * h * (2 * blur_radius(sigma) + 1) > 600000) w = std::max(1, w / 2), h = std::max(1, h / 2);
    Mask m = random_mask(rng, w, h), want = m;
    kvl_blur8(m.data(), w, h, sigma);
    ref_blur_r(want.data(), w, h, blur_radius(sigma));
    ASSERT_EQ(m, want) << "iteration " << iter << " " << w << "x" << h << " sigma " << sigma;
  }
}

TEST(MaskFilter, MorphologyMatchesPlainWindows) {
  std::mt19937 rng(2024);
  auto check = [](const Mask& base, int w, int h, int r, bool dilate) {
    Mask m = base, want = base;
    (dilate ? kvl_dilate8 : kvl_erode8)(m.data(), w, h, r);
    ref_morph(want.data(), w, h, r, dilate);
    return m == want;
  };
  for (int iter = 0; iter < 300; iter++) {
    auto [w, h] = random_size(rng);
    const bool dilate = rng() % 2;
    // Small radii, larger ones, and anything up to 89, including 0 and r >= size.
    const int radii[] = {1 + (int)(rng() % 4), 1 + (int)(rng() % 40), (int)(rng() % 90)};
    const int r = radii[rng() % 3];
    ASSERT_TRUE(check(random_mask(rng, w, h), w, h, r, dilate))
        << "iteration " << iter << " " << w << "x" << h << " r " << r << " dilate " << dilate;
  }
  // Wider than one column strip of the column pass.
  const Mask wide = random_mask(rng, 600, 40);
  for (int r : {2, 17})
    for (bool dilate : {false, true}) EXPECT_TRUE(check(wide, 600, 40, r, dilate)) << r << " " << dilate;
}

}  // namespace
