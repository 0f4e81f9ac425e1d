// The CPU frame compositor: the optimised paths against a plain one-pixel-
// at-a-time reference on seeded random scenes, thread-count independence,
// and the hand-made cases whose right answer is known without the formulas.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"
#include "render_reference.h"
#include "render_scenes.h"

namespace {

using rscene::Rng;
using rscene::SceneBuilder;

struct Frame {
  int32_t width, height, stride;
  std::vector<uint8_t> px;
  Frame(int32_t w, int32_t h, int32_t s, uint8_t junk = 0xA5) : width(w), height(h), stride(s), px((size_t)h * s, junk) {
    embedded::fill_background(px.data(), w, h, s);
  }
  const uint8_t* at(int x, int y) const { return px.data() + (size_t)y * stride + 4 * x; }
};

// Where two frames first differ, for a readable failure.
std::string first_difference(const Frame& a, const Frame& b) {
  for (size_t i = 0; i < a.px.size(); i++)
    if (a.px[i] != b.px[i]) {
      const int y = (int)(i / a.stride), x = (int)(i % a.stride) / 4;
      return "byte " + std::to_string(i) + " (x " + std::to_string(x) + ", y " + std::to_string(y) + ", channel " +
             std::to_string(i % a.stride % 4) + "): " + std::to_string(a.px[i]) + " vs " + std::to_string(b.px[i]);
    }
  return "";
}

Frame reference(const SceneBuilder& b, int32_t stride) {
  Frame f(b.width, b.height, stride);
  refr::composite(b.layers.data(), (int32_t)b.layers.size(), f.px.data(), b.width, b.height, stride);
  return f;
}

Frame compositor(const SceneBuilder& b, int32_t stride, int32_t threads, bool simd, bool wide = true) {
  Frame f(b.width, b.height, stride);
  embedded::composite(b.layers.data(), (int32_t)b.layers.size(), f.px.data(), b.width, b.height, stride, threads,
                      simd, wide);
  return f;
}

// Random scenes on frames of the given size range; each must come out of the
// plain path and (where the processor has it) the vector path exactly as
// the reference draws it, padding bytes included.
void check_random_scenes(uint64_t first_seed, int count, int wmin, int wmax, int hmin, int hmax) {
  for (uint64_t seed = first_seed; seed < first_seed + (uint64_t)count; seed++) {
    Rng rng(seed);
    const int w = rng.range(wmin, wmax), h = rng.range(hmin, hmax);
    const int stride = w * 4 + rng.range(0, 9);
    SceneBuilder b(w, h);
    rscene::random_scene(&b, &rng);
    const Frame ref = reference(b, stride);
    const Frame plain = compositor(b, stride, 1, false);
    ASSERT_EQ(first_difference(ref, plain), "") << "plain path, seed " << seed;
    if (embedded::simd_available()) {
      const Frame simd = compositor(b, stride, 1, true);
      ASSERT_EQ(first_difference(ref, simd), "") << "vector path, seed " << seed;
    }
    // Where the eight-wide kernels took the vector path above, the four-wide
    // ones still run on processors without them: check those too.
    if (embedded::wide_available()) {
      const Frame four = compositor(b, stride, 1, true, false);
      ASSERT_EQ(first_difference(ref, four), "") << "four-wide vector path, seed " << seed;
    }
  }
}

TEST(RenderPaths, SmallRandomScenesMatchTheReference) { check_random_scenes(1, 600, 1, 64, 1, 40); }

TEST(RenderPaths, LargerRandomScenesMatchTheReference) { check_random_scenes(10000, 60, 120, 360, 60, 200); }

TEST(RenderPaths, RandomScenesDrawSomething) {
  // Guards the comparison above against scenes that never paint anything.
  int painted = 0;
  for (uint64_t seed = 1; seed <= 60; seed++) {
    Rng rng(seed);
    const int w = rng.range(1, 64), h = rng.range(1, 40);
    SceneBuilder b(w, h);
    rscene::random_scene(&b, &rng);
    const Frame f = compositor(b, w * 4, 1, true);
    const Frame empty(w, h, w * 4);
    painted += f.px != empty.px;
  }
  EXPECT_GT(painted, 40);
}

TEST(RenderThreadBands, PictureIsTheSameForEveryThreadCount) {
  for (uint64_t seed = 500; seed < 530; seed++) {
    Rng rng(seed);
    const int w = rng.range(20, 160), h = rng.range(1, 120);
    const int stride = w * 4 + rng.range(0, 5);
    SceneBuilder b(w, h);
    rscene::random_scene(&b, &rng);
    const Frame one = compositor(b, stride, 1, true);
    for (int threads : {2, 3, 7, 32, 100}) {
      const Frame many = compositor(b, stride, threads, true);
      ASSERT_EQ(first_difference(one, many), "") << threads << " threads, seed " << seed;
    }
    const Frame plain = compositor(b, stride, 7, false);
    ASSERT_EQ(first_difference(one, plain), "") << "plain path on 7 threads, seed " << seed;
  }
}

TEST(RenderThreadBands, BandsThatGetNoRowsAndOneRowFrames) {
  // 10 rows on 7 threads: rows = 2, so the last two bands are empty; 1 row on
  // 8 threads is a single band.
  for (int h : {10, 1}) {
    SceneBuilder b(33, h);
    kvl_prep p = b.base(0xFF8040C0);
    const double q[8] = {-3, -2, 40.5, 0.25, 30, (double)h + 2, 2.5, (double)h};
    b.set_cells(&p, {b.cell(q)});
    p.opacity = 0.6;
    b.layers.push_back(p);
    const Frame ref = reference(b, 33 * 4);
    for (int threads : {7, 8, 1}) EXPECT_EQ(first_difference(ref, compositor(b, 33 * 4, threads, true)), "");
  }
}

// --- The whole pipeline: scene text, preparation, cache, bands ------------------

// A random scene as JSON: every shape kind, handles, paints of colour, image
// (with alpha), declared and missing sources, masks, meshes, content
// transforms, luma, groups and all four effects, now and then with hostile
// sizes.
std::string random_scene_json(Rng* rng) {
  auto num = [&](double lo, double hi) { return std::to_string(rng->uni(lo, hi)); };
  auto pt = [&](double lo, double hi) { return "[" + num(lo, hi) + "," + num(lo, hi) + "]"; };
  std::string s = R"({"groups": [{"id": "g", "opacity": )" + num(0.2, 1) + "}], \"mappings\": [";
  const int layers = rng->range(1, 6);
  for (int i = 0; i < layers; i++) {
    if (i) s += ",";
    const double lo = rng->chance(0.05) ? -1e5 : -0.3, hi = rng->chance(0.05) ? 1e5 : 1.3;
    const int kind = rng->range(0, 3);
    static const char* const kinds[] = {"quad", "ellipse", "triangle", "polygon"};
    const int n = kind <= 1 ? (rng->chance(0.85) ? 4 : rng->range(3, 6)) : kind == 2 ? 3 : rng->range(3, 7);
    s += R"({"id": "l)" + std::to_string(i) + R"(", "shape": {"kind": ")" + kinds[kind] + R"(", "vertices": [)";
    for (int v = 0; v < n; v++) {
      if (v) s += ",";
      const std::string x = num(lo, hi), y = num(lo, hi);
      s += R"({"x": )" + x + R"(, "y": )" + y;
      if (rng->chance(0.25)) s += R"(, "out": )" + pt(-0.3, 0.3);
      if (rng->chance(0.25)) s += R"(, "in": )" + pt(-0.3, 0.3);
      s += "}";
    }
    s += "]}";
    const int paint = rng->range(0, 5);
    if (paint <= 1)
      s += R"(, "paint": {"type": "color", "argb": )" + std::to_string(rng->next() & 0xFFFFFFFFu) + "}";
    else if (paint == 2)
      s += R"(, "paint": {"type": "image", "path": "img"})";
    else if (paint == 3)
      s += R"(, "paint": {"type": "image", "path": "tall"})";
    else if (paint == 4)
      s += R"(, "paint": {"type": "video", "path": "declared"})";
    else
      s += R"(, "paint": {"type": "image", "path": "missing"})";
    s += R"(, "opacity": )" + num(0.1, 1.2);
    if (rng->chance(0.2)) s += R"(, "lumaKey": true)";
    if (rng->chance(0.2)) s += R"(, "groupId": "g")";
    if (rng->chance(0.3))
      s += R"(, "content": {"x": )" + num(-0.3, 0.3) + R"(, "y": )" + num(-0.3, 0.3) + R"(, "scale": )" +
           num(0, 2.5) + R"(, "rotation": )" + num(-180, 180) + "}";
    if (rng->chance(0.25)) {
      s += R"(, "mask": {"vertices": [)";
      const int m = rng->range(3, 5);
      for (int v = 0; v < m; v++) s += (v ? "," : "") + pt(-0.2, 1.2);
      s += R"(], "feather": )" + num(-5, 60) + R"(, "inverted": )" + (rng->chance(0.3) ? "true" : "false") + "}";
    }
    if (kind <= 1 && rng->chance(0.3)) {
      const int cols = rng->range(1, 4), rows = rng->range(1, 4);
      s += R"(, "mesh": {"cols": )" + std::to_string(cols) + R"(, "rows": )" + std::to_string(rows) +
           R"(, "offsets": [)";
      for (int v = 0; v < (cols + 1) * (rows + 1); v++) s += (v ? "," : "") + pt(-0.08, 0.08);
      s += "]}";
    }
    if (rng->chance(0.45)) {
      const double big = rng->chance(0.05) ? 1e6 : 1;
      std::string fx;
      auto add = [&](const std::string& e) { fx += (fx.empty() ? "" : ",") + e; };
      if (rng->chance(0.5))
        add(R"("shadow": {"dx": )" + num(-30, 30) + R"(, "dy": )" + num(-30, 30) + R"(, "blur": )" +
            std::to_string(rng->uni(-5, 40) * big) + R"(, "argb": )" + std::to_string(rng->next() & 0xFFFFFFFFu) +
            "}");
      if (rng->chance(0.4)) add(R"("glow": {"radius": )" + std::to_string(rng->uni(-5, 60) * big) + "}");
      if (rng->chance(0.4)) add(R"("bevel": {"depth": )" + num(-2, 30) + "}");
      if (rng->chance(0.5)) add(R"("stroke": {"width": )" + std::to_string(rng->uni(-1, 30) * big) + "}");
      s += R"(, "effects": {)" + fx + "}";
    }
    s += "}";
  }
  return s + "]}";
}

// Straight RGBA with every alpha from 0 to 255 and sharp colour changes.
std::vector<uint8_t> random_image(Rng* rng, int w, int h) {
  std::vector<uint8_t> px((size_t)w * h * 4);
  for (auto& b : px) b = (uint8_t)rng->next();
  for (size_t i = 3; i < px.size(); i += 16) px[i] = 255;
  for (size_t i = 7; i < px.size(); i += 24) px[i] = 0;
  return px;
}

TEST(RenderPipeline, RandomScenesMatchTheReferenceWithCacheAndThreads) {
  int painted = 0;
  for (uint64_t seed = 1; seed <= 150; seed++) {
    Rng rng(seed * 7919);
    const int w = rng.range(8, 120), h = rng.range(6, 90);
    const int stride = w * 4 + rng.range(0, 3) * 4;
    const std::string json = random_scene_json(&rng);
    kvl_engine* e = kvl_engine_create(json.c_str(), w, h, nullptr);
    ASSERT_NE(e, nullptr) << kvl_last_error() << "\n" << json;
    const int iw = rng.range(1, 40), ih = rng.range(1, 40);
    const std::vector<uint8_t> img = random_image(&rng, iw, ih), tall = random_image(&rng, 3, 50);
    ASSERT_EQ(kvl_engine_set_source(e, "img", img.data(), iw, ih, iw * 4), 0);
    ASSERT_EQ(kvl_engine_set_source(e, "tall", tall.data(), 3, 50, 12), 0);
    ASSERT_EQ(kvl_engine_declare_source(e, "declared", 640, 480), 0);

    // The reference: the same layers resolved by hand, prepared without a
    // cache, drawn one pixel at a time.
    kvl_scene* scene = kvl_scene_parse(json.c_str(), nullptr, 0);
    ASSERT_NE(scene, nullptr);
    std::vector<kvl_resolved> res(scene->layer_count);
    std::vector<std::vector<double>> verts(scene->layer_count);
    for (int i = 0; i < scene->layer_count; i++) {
      verts[i].assign(2 * (size_t)std::max(1, scene->layers[i].vertex_count), 0.0);
      kvl_layer_resolve(scene, &scene->layers[i], verts[i].data(), &res[i], 0);
    }
    Frame ref(w, h, stride);
    refr::render_frame(res.data(), (int32_t)res.size(), kvl_engine_sources(e), ref.px.data(), w, h, stride);
    kvl_scene_free(scene);
    painted += ref.px != Frame(w, h, stride).px;

    for (int threads : {1, 2, 3, 8}) {
      kvl_engine_set_threads(e, threads);
      for (int frame = 0; frame < (threads == 1 ? 2 : 1); frame++) {  // the second frame reads cached masks
        Frame f(w, h, stride);
        ASSERT_EQ(kvl_engine_render(e, 0, f.px.data(), stride), 0);
        ASSERT_EQ(first_difference(ref, f), "")
            << "seed " << seed << ", " << threads << " threads, frame " << frame << "\n" << json;
      }
    }
    kvl_engine_destroy(e);
  }
  EXPECT_GT(painted, 120);  // the comparison is not between empty frames
}

TEST(RenderPipeline, ZeroSizeSourceIsRefusedAndTheLayerShowsDarkGrey) {
  const char* scene = R"({"mappings": [{"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "image", "path": "pic"},
                          "effects": {"stroke": {"width": 1e9}, "glow": {"radius": 1e300}}}]})";
  kvl_engine* e = kvl_engine_create(scene, 16, 9, nullptr);
  ASSERT_NE(e, nullptr);
  const uint8_t px[4] = {255, 0, 0, 255};
  EXPECT_EQ(kvl_engine_set_source(e, "pic", px, 0, 0, 0), -1);
  EXPECT_EQ(kvl_engine_set_source(e, "pic", px, 1, 0, 4), -1);
  EXPECT_EQ(kvl_engine_declare_source(e, "pic", 0, 5), -1);
  std::vector<uint8_t> f(16 * 9 * 4);
  ASSERT_EQ(kvl_engine_render(e, 0, f.data(), 16 * 4), 0);
  // The layer fills the frame: its glow (bounded by the frame) lies under the
  // opaque dark grey body, and a stroke whose radius exceeds the frame is
  // empty, since erosion does not eat in from outside the mask.
  for (size_t i = 0; i < f.size(); i += 4) {
    ASSERT_EQ(f[i], 0x33) << i / 4;
    ASSERT_EQ(f[i + 1], 0x33);
    ASSERT_EQ(f[i + 2], 0x33);
  }
  kvl_engine_destroy(e);
}

// --- Known answers -----------------------------------------------------------

TEST(Render, OpaqueQuadOnPixelBoundariesIsExactColourToItsEdges) {
  SceneBuilder b(40, 30);
  kvl_prep p = b.base(0xFF123456);
  const double q[8] = {10, 5, 30, 5, 30, 25, 10, 25};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  for (bool simd : {false, true}) {
    const Frame f = compositor(b, 40 * 4, 1, simd);
    for (int y = 0; y < 30; y++)
      for (int x = 0; x < 40; x++) {
        const bool in = x >= 10 && x < 30 && y >= 5 && y < 25;
        const uint8_t* px = f.at(x, y);
        ASSERT_EQ(px[0], in ? 0x12 : 0) << x << "," << y;
        ASSERT_EQ(px[1], in ? 0x34 : 0) << x << "," << y;
        ASSERT_EQ(px[2], in ? 0x56 : 0) << x << "," << y;
        ASSERT_EQ(px[3], 255);
      }
  }
}

TEST(Render, HalfCoveredEdgePixelGetsHalfTheColour) {
  // The left edge at x = 2.5 covers the samples at 2.625 and 2.875 of pixel
  // 2: coverage 8/16, so the pixel gets round(255 * 0.5) = 128. Its centre
  // maps to u = 0, the first column of the surface. (A right edge through a
  // pixel centre maps that centre to u = 1280, just outside the surface, so
  // that pixel stays empty.)
  SceneBuilder b(30, 10);
  kvl_prep p = b.base(0xFFFFFFFF);
  const double q[8] = {2.5, 0, 20.5, 0, 20.5, 10, 2.5, 10};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  for (bool simd : {false, true}) {
    const Frame f = compositor(b, 30 * 4, 1, simd);
    EXPECT_EQ(f.at(1, 5)[0], 0);
    EXPECT_EQ(f.at(2, 5)[0], 128);
    EXPECT_EQ(f.at(3, 5)[0], 255);
    EXPECT_EQ(f.at(19, 5)[0], 255);
    EXPECT_EQ(f.at(20, 5)[0], 0);
    EXPECT_EQ(first_difference(reference(b, 30 * 4), f), "");
  }
}

TEST(Render, InnerMeshEdgesLeaveNoSeam) {
  // Two cells sharing the edge x = 10.5 with that edge inner: both halves of
  // pixel 10 are drawn with full coverage, one after the other.
  SceneBuilder b(20, 6);
  kvl_prep p = b.base(0xFFFFFFFF);
  const double left[8] = {0, 0, 10.5, 0, 10.5, 6, 0, 6}, right[8] = {10.5, 0, 20, 0, 20, 6, 10.5, 6};
  kvl_cell a = b.cell(left, 0, 0, 640, 720), c = b.cell(right, 640, 0, 1280, 720);
  a.edge[1] = 0;
  c.edge[3] = 0;
  b.set_cells(&p, {a, c});
  b.layers.push_back(p);
  const Frame f = compositor(b, 20 * 4, 1, true);
  for (int x = 0; x < 20; x++) EXPECT_EQ(f.at(x, 3)[0], 255) << x;
}

TEST(Render, HalfOpaqueLayerDoesNotShowItsShadowThroughTheBody) {
  SceneBuilder b(40, 40);
  kvl_prep p = b.base(0xFFFF0000);
  const double q[8] = {10, 10, 30, 10, 30, 30, 10, 30};
  b.set_cells(&p, {b.cell(q)});
  p.behind[0] = b.fx(4, 4, 32, 32, 0xFF00FF00, 255);  // a green shadow larger than the body
  p.behind_count = 1;
  p.opacity = 0.5;
  p.isolate = true;
  b.layers.push_back(p);
  for (bool simd : {false, true}) {
    const Frame f = compositor(b, 40 * 4, 2, simd);
    for (int y = 10; y < 30; y++)
      for (int x = 10; x < 30; x++) {
        ASSERT_EQ(f.at(x, y)[0], 128) << x << "," << y;
        ASSERT_EQ(f.at(x, y)[1], 0) << x << "," << y;
      }
    EXPECT_EQ(f.at(5, 5)[1], 128);  // the shadow itself, faded with the layer
    EXPECT_EQ(f.at(5, 5)[0], 0);
  }
}

TEST(Render, LumaKeyDropsBlackAndKeepsWhiteWhole) {
  for (uint32_t colour : {0xFF000000u, 0xFFFFFFFFu, 0xFF808080u}) {
    SceneBuilder b(8, 8);
    kvl_prep p = b.base(colour);
    const double q[8] = {0, 0, 8, 0, 8, 8, 0, 8};
    b.set_cells(&p, {b.cell(q)});
    p.luma = true;
    b.layers.push_back(p);
    const Frame f = compositor(b, 8 * 4, 1, true);
    // Grey 128: key = (0.598 + 1.174 + 0.228) * 128 / 255 - 0.04 = 0.9639...
    const double key = std::fmin(2.0 * ((colour & 255) / 255.0) - 0.04, 1.0);
    const int want = colour == 0xFF000000u ? 0 : (int)std::lround(key * (colour & 255));
    EXPECT_EQ(f.at(4, 4)[0], want) << std::hex << colour;
  }
}

// A 2x2 source: red, green / blue, white, all opaque.
const uint8_t kFour[16] = {255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255, 255, 255, 255};

TEST(Render, ContentScaleZeroShowsOneSourcePointEverywhere) {
  SceneBuilder b(24, 16);
  kvl_prep p = b.base(0);
  b.cover(&p, b.source(2, 2, kFour));
  // s = 0: cu = 640, cv = 360 everywhere, the centre of the source, where
  // all four texels weigh a quarter.
  double* ic = p.inv_content;
  ic[0] = ic[1] = ic[3] = ic[4] = 0;
  ic[2] = 640;
  ic[5] = 360;
  const double q[8] = {0, 0, 24, 0, 24, 16, 0, 16};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  const Frame f = compositor(b, 24 * 4, 1, true);
  EXPECT_EQ(first_difference(reference(b, 24 * 4), f), "");
  // Red and white, green and white, blue and white mixed half and half.
  for (int c = 0; c < 3; c++) EXPECT_NEAR(f.at(0, 0)[c], 128, 1);
  for (int y = 0; y < 16; y++)
    for (int x = 0; x < 24; x++) ASSERT_EQ(memcmp(f.at(x, y), f.at(0, 0), 4), 0) << x << "," << y;
}

TEST(Render, DeclaredSourceShowsGrey51ThroughMaskAndEllipse) {
  SceneBuilder b(64, 36);
  kvl_prep p = b.base(0);
  b.cover(&p, b.source(100, 50, nullptr));
  p.ellipse = true;
  std::vector<uint8_t> mask(1280 * 720, 0);
  for (int y = 0; y < 720; y++)
    for (int x = 0; x < 640; x++) mask[(size_t)y * 1280 + x] = 255;  // left half only
  p.mask = b.keep(mask);
  const double q[8] = {0, 0, 64, 0, 64, 36, 0, 36};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  const Frame f = compositor(b, 64 * 4, 1, true);
  EXPECT_EQ(f.at(20, 18)[0], 51);  // inside the ellipse, left half
  EXPECT_EQ(f.at(20, 18)[3], 255);
  EXPECT_EQ(f.at(44, 18)[0], 0);  // masked out
  EXPECT_EQ(f.at(0, 0)[0], 0);    // outside the ellipse
  EXPECT_EQ(f.at(31, 18)[0], 51);
}

TEST(Render, TransparentTexelDoesNotBleedItsColour) {
  // Left texel red with alpha 0, right texel blue and opaque: every mix
  // between them is pure blue at some alpha.
  const uint8_t img[8] = {255, 0, 0, 0, 0, 0, 255, 255};
  SceneBuilder b(48, 8);
  kvl_prep p = b.base(0);
  b.cover(&p, b.source(2, 1, img));
  const double q[8] = {0, 0, 48, 0, 48, 8, 0, 8};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  const Frame f = compositor(b, 48 * 4, 1, true);
  int partly_blue = 0;
  for (int x = 0; x < 48; x++) {
    EXPECT_EQ(f.at(x, 4)[0], 0) << x;
    partly_blue += f.at(x, 4)[2] > 0 && f.at(x, 4)[2] < 255;
  }
  EXPECT_GT(partly_blue, 0);
}

TEST(Render, StraightOverInPrivateBufferMatchesTheFormula) {
  // An isolated layer: a half-transparent effect, then an opaque-free body
  // drawn over it in the zeroed buffer, then the whole put on the frame.
  SceneBuilder b(6, 1);
  kvl_prep p = b.base(0x800000FF);  // blue at alpha 128
  const double q[8] = {0, -1, 6, -1, 6, 2, 0, 2};
  b.set_cells(&p, {b.cell(q)});
  p.behind[0] = b.fx(0, 0, 6, 1, 0x80FF0000, 255);  // red at alpha 128
  p.behind_count = 1;
  p.isolate = true;
  p.opacity = 0.999;
  b.layers.push_back(p);
  // In the buffer: red gives t = 128/255, oa = t. Blue over it: t2 = 128/255,
  // oa2 = t2 + oa (1 - t2), weights ws = t2 / oa2, wd = oa (1 - t2) / oa2.
  const double t = 128 * 0.00392156862745098, oa2 = t + t * (1 - t);
  const int r = (int)std::lround(t * (1 - t) / oa2 * 255), bl = (int)std::lround(t / oa2 * 255);
  const int a = (int)std::lround(255 * oa2);
  const double tt = 0.999 * 0.00392156862745098 * a;
  const Frame f = compositor(b, 6 * 4, 1, true);
  EXPECT_EQ(f.at(3, 0)[0], (int)std::lround(tt * r));
  EXPECT_EQ(f.at(3, 0)[2], (int)std::lround(tt * bl));
  EXPECT_EQ(f.at(3, 0)[3], 255);
}

// --- Bad records never crash --------------------------------------------------

TEST(Render, HostileGeometryDrawsNothingAndDoesNotCrash) {
  const double nan = std::nan(""), inf = INFINITY;
  const double quads[][8] = {
      {nan, 0, 10, 0, 10, 10, 0, 10},   {0, 0, inf, 0, 10, 10, 0, 10},     {5, 5, 5, 5, 5, 5, 5, 5},
      {0, 0, 10, 10, 20, 20, 30, 30},   {-1e300, -1e300, 1e300, -1e300, 1e300, 1e300, -1e300, 1e300},
      {0, 0, 1e-300, 0, 1e-300, 1e-300, 0, 1e-300}};
  for (const auto& q : quads) {
    SceneBuilder b(32, 20);
    kvl_prep p = b.base(0xFFFFFFFF);
    b.set_cells(&p, {b.cell(q)});
    b.layers.push_back(p);
    const Frame ref = reference(b, 32 * 4);
    EXPECT_EQ(first_difference(ref, compositor(b, 32 * 4, 3, true)), "");
    EXPECT_EQ(first_difference(ref, compositor(b, 32 * 4, 1, false)), "");
  }
}

TEST(Render, HugeButFiniteQuadFillsTheFrame) {
  SceneBuilder b(32, 20);
  kvl_prep p = b.base(0xFF00FF00);
  const double q[8] = {-1e9, -1e9, 1e9, -1e9, 1e9, 1e9, -1e9, 1e9};
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  const Frame f = compositor(b, 32 * 4, 2, true);
  EXPECT_EQ(first_difference(reference(b, 32 * 4), f), "");
  EXPECT_EQ(f.at(0, 0)[1], 255);
  EXPECT_EQ(f.at(31, 19)[1], 255);
}

}  // namespace
