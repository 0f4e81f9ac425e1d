// The CPU frame compositor: every kernel set against a plain one-pixel-at-a-
// time reference on seeded random scenes, thread-count independence, and a
// few hand-made cases whose answer is known without the formulas.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"
#include "render_reference.h"
#include "render_scenes.h"

namespace {

using rscene::Rng;
using rscene::SceneBuilder;

// The compositor's kernel sets this processor runs, plain first.
std::vector<std::string> kernel_sets() {
  std::vector<std::string> sets;
  for (const char* name : {"plain", "avx2", "avx512"})
    if (kvl_cpu_use(name)) sets.push_back(name);
  kvl_cpu_use(nullptr);
  return sets;
}

struct Frame {
  int32_t width, height, stride;
  std::vector<uint8_t> px;
  Frame(int32_t w, int32_t h, int32_t s) : width(w), height(h), stride(s), px((size_t)h * s, 0xA5) {
    for (int32_t y = 0; y < h; y++)
      for (int32_t x = 0; x < w; x++) {
        uint8_t* p = px.data() + (size_t)y * s + 4 * x;
        p[0] = p[1] = p[2] = 0;
        p[3] = 255;
      }
  }
  const uint8_t* at(int x, int y) const { return px.data() + (size_t)y * stride + 4 * x; }
};

std::string first_difference(const Frame& a, const Frame& b) {
  for (size_t i = 0; i < a.px.size(); i++)
    if (a.px[i] != b.px[i])
      return "x " + std::to_string(i % a.stride / 4) + ", y " + std::to_string(i / a.stride) + ", channel " +
             std::to_string(i % a.stride % 4) + ": " + std::to_string(a.px[i]) + " vs " + std::to_string(b.px[i]);
  return "";
}

Frame reference(const SceneBuilder& b, int32_t stride) {
  Frame f(b.width, b.height, stride);
  refr::composite(b.layers.data(), (int32_t)b.layers.size(), f.px.data(), b.width, b.height, stride);
  return f;
}

// The library's compositor with kernel set `set` ("" for the automatic one).
Frame compositor(const SceneBuilder& b, int32_t stride, int32_t threads, const std::string& set = "",
                 int64_t* settled = nullptr) {
  Frame f(b.width, b.height, stride);
  EXPECT_TRUE(kvl_cpu_use(set.c_str())) << set;
  kvl_composite(b.layers.data(), (int32_t)b.layers.size(), f.px.data(), b.width, b.height, stride, threads, settled);
  kvl_cpu_use(nullptr);
  return f;
}

// The set named by KAVLEN_CPU is the one the library starts with (ctest runs
// this case with KAVLEN_CPU=plain); without it, the fastest the processor
// runs. A build without vector kernels has the plain set only.
TEST(RenderKernels, TheEnvironmentOrTheProcessorChoosesTheSet) {
  const char* env = getenv("KAVLEN_CPU");
  const std::vector<std::string> sets = kernel_sets();
  EXPECT_EQ(sets.front(), "plain");
  const bool forced = env && *env && kvl_cpu_use(env);
  kvl_cpu_use(nullptr);
  EXPECT_STREQ(kvl_cpu_kernels(), forced ? env : sets.back().c_str());
  EXPECT_FALSE(kvl_cpu_use("sse9"));
  EXPECT_STREQ(kvl_cpu_kernels(), forced ? env : sets.back().c_str());
}

// Every kernel set must match the reference exactly, padding bytes included.
TEST(RenderPaths, RandomScenesMatchTheReference) {
  struct Range { uint64_t seed; int count, wmin, wmax, hmin, hmax; };
  const std::vector<std::string> sets = kernel_sets();
  int painted = 0;
  for (const Range& r : {Range{1, 600, 1, 64, 1, 40}, Range{10000, 60, 120, 360, 60, 200}})
    for (uint64_t seed = r.seed; seed < r.seed + (uint64_t)r.count; seed++) {
      Rng rng(seed);
      const int w = rng.range(r.wmin, r.wmax), h = rng.range(r.hmin, r.hmax), stride = w * 4 + rng.range(0, 9);
      SceneBuilder b(w, h);
      rscene::random_scene(&b, &rng);
      const Frame ref = reference(b, stride);
      painted += ref.px != Frame(w, h, stride).px;
      for (const std::string& set : sets)
        ASSERT_EQ(first_difference(ref, compositor(b, stride, 1, set)), "") << set << ", seed " << seed;
    }
  EXPECT_GT(painted, 400);  // the comparison is not between empty frames
}

// Stacks of mostly opaque layers: the pixels they settle skip the layers
// beneath, in every kernel set, across chunk boundaries, and the picture must
// not change for it.
TEST(RenderPaths, HiddenPixelsAreSkippedWithoutChangingThePicture) {
  int64_t settled_total = 0;
  const std::vector<std::string> sets = kernel_sets();
  for (uint64_t seed = 2000; seed < 2120; seed++) {
    Rng rng(seed);
    const int w = rng.range(8, 200), h = rng.range(20, 150), stride = w * 4 + rng.range(0, 5);
    SceneBuilder b(w, h);
    rscene::random_scene(&b, &rng, 0.7, 9);
    const Frame ref = reference(b, stride);
    for (const std::string& set : sets) {
      int64_t settled = 0;
      ASSERT_EQ(first_difference(ref, compositor(b, stride, 1, set, &settled)), "") << set << ", seed " << seed;
      settled_total += settled;
    }
  }
  EXPECT_GT(settled_total, 100000 * (int64_t)sets.size());  // the skipping really happened
}

// Every test with threads is in a suite whose name says so: the emulated
// arm64 leg of CI runs the others only.
TEST(RenderThreadBands, PictureIsTheSameForEveryThreadCount) {
  const std::vector<std::string> sets = kernel_sets();
  for (uint64_t seed = 500; seed < 540; seed++) {
    Rng rng(seed);
    const int w = rng.range(20, 160), h = rng.range(1, 150), stride = w * 4 + rng.range(0, 5);
    SceneBuilder b(w, h);
    // Every other scene a stack of mostly opaque layers, which hide pixels.
    if (seed % 2)
      rscene::random_scene(&b, &rng, 0.7, 9);
    else
      rscene::random_scene(&b, &rng);
    const Frame one = compositor(b, stride, 1);
    for (const std::string& set : sets)
      for (int threads : {2, 3, 7, 32, 100})
        ASSERT_EQ(first_difference(one, compositor(b, stride, threads, set)), "")
            << set << ", " << threads << " threads, seed " << seed;
  }
  // Fewer rows than a chunk, a chunk and a row, and more threads than chunks.
  for (int h : {10, 1, 33, 65}) {
    SceneBuilder b(33, h);
    kvl_prep p = b.base(0xFF8040C0);
    const double q[8] = {-3, -2, 40.5, 0.25, 30, (double)h + 2, 2.5, (double)h};
    b.set_cells(&p, {b.cell(q)});
    p.opacity = 0.6;
    b.layers.push_back(p);
    const Frame ref = reference(b, 33 * 4);
    for (int threads : {7, 8, 1}) EXPECT_EQ(first_difference(ref, compositor(b, 33 * 4, threads)), "");
  }
}

// A random scene as JSON: every shape kind, handles, colour/image/declared/
// missing paints, masks, meshes, content transforms, luma, groups and all
// four effects, now and then with hostile sizes.
std::string random_scene_json(Rng* rng) {
  auto num = [&](double lo, double hi) { return std::to_string(rng->uni(lo, hi)); };
  auto pt = [&](double lo, double hi) { return "[" + num(lo, hi) + "," + num(lo, hi) + "]"; };
  static const char* const kinds[] = {"quad", "ellipse", "triangle", "polygon"};
  static const char* const paths[] = {"img", "tall", "declared", "missing"};
  std::string s = R"({"groups": [{"id": "g", "opacity": )" + num(0.2, 1) + "}], \"mappings\": [";
  const int layers = rng->range(1, 6);
  for (int i = 0; i < layers; i++) {
    const double lo = rng->chance(0.05) ? -1e5 : -0.3, hi = rng->chance(0.05) ? 1e5 : 1.3;
    const int kind = rng->range(0, 3);
    const int n = kind <= 1 ? (rng->chance(0.85) ? 4 : rng->range(3, 6)) : kind == 2 ? 3 : rng->range(3, 7);
    s += (i ? "," : "") + std::string(R"({"shape": {"kind": ")") + kinds[kind] + R"(", "vertices": [)";
    for (int v = 0; v < n; v++) {
      s += (v ? "," : "") + std::string(R"({"x": )") + num(lo, hi) + R"(, "y": )" + num(lo, hi);
      if (rng->chance(0.25)) s += R"(, "out": )" + pt(-0.3, 0.3);
      if (rng->chance(0.25)) s += R"(, "in": )" + pt(-0.3, 0.3);
      s += "}";
    }
    const int paint = rng->range(0, 5);
    if (paint <= 1)
      s += R"(]}, "paint": {"type": "color", "argb": )" + std::to_string(rng->next() & 0xFFFFFFFFu) + "}";
    else
      s += std::string(R"(]}, "paint": {"type": ")") + (paint == 4 ? "video" : "image") + R"(", "path": ")" +
           paths[paint - 2] + "\"}";
    s += R"(, "opacity": )" + num(0.1, 1.2);
    if (rng->chance(0.2)) s += R"(, "lumaKey": true)";
    if (rng->chance(0.2)) s += R"(, "groupId": "g")";
    if (rng->chance(0.3))
      s += R"(, "content": {"x": )" + num(-0.3, 0.3) + R"(, "y": )" + num(-0.3, 0.3) + R"(, "scale": )" +
           num(0, 2.5) + R"(, "rotation": )" + num(-180, 180) + "}";
    if (rng->chance(0.25)) {
      s += R"(, "mask": {"vertices": [)";
      for (int v = 0, m = rng->range(3, 5); v < m; v++) s += (v ? "," : "") + pt(-0.2, 1.2);
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

// The whole pipeline (parse, resolve, prepare, cache, threads) against the
// same layers resolved by hand and drawn by the reference. With one thread
// a second frame reads the cached masks.
void pipeline_matches_reference(std::initializer_list<int> thread_counts) {
  int painted = 0;
  for (uint64_t seed = 1; seed <= 150; seed++) {
    Rng rng(seed * 7919);
    const int w = rng.range(8, 120), h = rng.range(6, 90), stride = w * 4 + rng.range(0, 3) * 4;
    const std::string json = random_scene_json(&rng);
    kvl_engine* e = kvl_engine_create(json.c_str(), w, h, nullptr);
    ASSERT_NE(e, nullptr) << kvl_last_error() << "\n" << json;
    const int iw = rng.range(1, 40), ih = rng.range(1, 40);
    const std::vector<uint8_t> img = random_image(&rng, iw, ih), tall = random_image(&rng, 3, 50);
    ASSERT_EQ(kvl_engine_set_source(e, "img", img.data(), iw, ih, iw * 4), 0);
    ASSERT_EQ(kvl_engine_set_source(e, "tall", tall.data(), 3, 50, 12), 0);
    ASSERT_EQ(kvl_engine_declare_source(e, "declared", 640, 480), 0);

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

    for (int threads : thread_counts) {
      kvl_engine_set_threads(e, threads);
      for (int frame = 0; frame < (threads == 1 ? 2 : 1); frame++) {  // the second frame reads cached masks
        Frame f(w, h, stride);
        ASSERT_EQ(kvl_engine_render(e, 0, f.px.data(), stride), 0);
        ASSERT_EQ(first_difference(ref, f), "") << "seed " << seed << ", " << threads << " threads, frame " << frame
                                                << "\n" << json;
      }
    }
    kvl_engine_destroy(e);
  }
  EXPECT_GT(painted, 120);
}

TEST(RenderPipeline, RandomScenesMatchTheReferenceWithCache) { pipeline_matches_reference({1}); }

TEST(RenderThreadBands, RandomScenesMatchTheReferenceThroughTheEngine) { pipeline_matches_reference({2, 3, 8}); }

TEST(RenderPipeline, ZeroSizeSourceIsRefusedAndTheLayerShowsDarkGrey) {
  const char* scene = R"({"mappings": [{"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "image", "path": "pic"},
                          "effects": {"stroke": {"width": 1e9}, "glow": {"radius": 1e300}}}]})";
  kvl_engine* e = kvl_engine_create(scene, 16, 9, nullptr);
  ASSERT_NE(e, nullptr);
  const uint8_t px[4] = {255, 0, 0, 255};
  EXPECT_EQ(kvl_engine_set_source(e, "pic", px, 0, 0, 0), -1);
  EXPECT_EQ(kvl_engine_set_source(e, "pic", px, 1, 0, 4), -1);
  EXPECT_EQ(kvl_engine_declare_source(e, "pic", 0, 5), -1);
  kvl_engine_set_threads(e, 1);
  std::vector<uint8_t> f(16 * 9 * 4);
  ASSERT_EQ(kvl_engine_render(e, 0, f.data(), 16 * 4), 0);
  // Glow lies under the opaque grey body; a stroke wider than the frame is empty.
  for (size_t i = 0; i < f.size(); i += 4)
    ASSERT_TRUE(f[i] == 0x33 && f[i + 1] == 0x33 && f[i + 2] == 0x33) << i / 4;
  kvl_engine_destroy(e);
}

SceneBuilder one_quad(int w, int h, uint32_t argb, const double (&q)[8]) {
  SceneBuilder b(w, h);
  kvl_prep p = b.base(argb);
  b.set_cells(&p, {b.cell(q)});
  b.layers.push_back(p);
  return b;
}

TEST(Render, QuadEdgesOnAndBetweenPixelBoundaries) {
  const SceneBuilder b = one_quad(40, 30, 0xFF123456, {10, 5, 30, 5, 30, 25, 10, 25});
  // x = 2.5 covers half of pixel 2's samples; the right edge through pixel
  // 20's centre maps it to u = 1280, just outside the surface.
  const SceneBuilder half = one_quad(30, 10, 0xFFFFFFFF, {2.5, 0, 20.5, 0, 20.5, 10, 2.5, 10});
  for (const std::string& set : kernel_sets()) {
    const Frame f = compositor(b, 40 * 4, 1, set);
    for (int y = 0; y < 30; y++)
      for (int x = 0; x < 40; x++) {
        const bool in = x >= 10 && x < 30 && y >= 5 && y < 25;
        const uint8_t* px = f.at(x, y);
        ASSERT_TRUE(px[0] == (in ? 0x12 : 0) && px[1] == (in ? 0x34 : 0) && px[2] == (in ? 0x56 : 0) &&
                    px[3] == 255) << x << "," << y;
      }
    const Frame g = compositor(half, 30 * 4, 1, set);
    const int want[][2] = {{1, 0}, {2, 128}, {3, 255}, {19, 255}, {20, 0}};
    for (const auto& xw : want) EXPECT_EQ(g.at(xw[0], 5)[0], xw[1]) << xw[0];
  }
}

TEST(Render, InnerMeshEdgesLeaveNoSeam) {
  SceneBuilder b(20, 6);
  kvl_prep p = b.base(0xFFFFFFFF);
  const double left[8] = {0, 0, 10.5, 0, 10.5, 6, 0, 6}, right[8] = {10.5, 0, 20, 0, 20, 6, 10.5, 6};
  kvl_cell a = b.cell(left, 0, 0, 640, 720), c = b.cell(right, 640, 0, 1280, 720);
  a.edge[1] = c.edge[3] = 0;
  b.set_cells(&p, {a, c});
  b.layers.push_back(p);
  const Frame f = compositor(b, 20 * 4, 1);
  for (int x = 0; x < 20; x++) EXPECT_EQ(f.at(x, 3)[0], 255) << x;
}

// Hidden-pixel steps are numbered in 16 bits: a layer with more steps than
// are left draws everything, and the layers after it still hide what they
// cover. Stacked half-covering cells make the order of the steps visible.
TEST(Render, LayersPastTheStepNumbersStillDrawInOrder) {
  SceneBuilder b(9, 5);
  kvl_prep under = b.base(0xFF336699), many = b.base(0xFF00FF00), top = b.base(0xFFFF0000);
  const double whole[8] = {0, 0, 9, 0, 9, 5, 0, 5}, left[8] = {0, 0, 4.5, 0, 4.5, 5, 0, 5};
  b.set_cells(&under, {b.cell(whole)});
  std::vector<kvl_cell> cells(70000, b.cell(whole));
  cells.back() = b.cell(left);  // the last of them is on top
  for (kvl_cell& c : cells) c.inv.m[2] += 1;  // distinct cells, same colour
  b.set_cells(&many, cells);
  b.set_cells(&top, {b.cell(left)});
  top.opacity = 1;
  for (const kvl_prep& p : {under, many, top}) b.layers.push_back(p);
  const Frame ref = reference(b, 9 * 4);
  int64_t settled = 0;
  for (const std::string& set : kernel_sets()) {
    EXPECT_EQ(first_difference(ref, compositor(b, 9 * 4, 1, set, &settled)), "") << set;
    // Only the last layer's left part settles, less the pixels within 0.75
    // of its outer edges (left to the drawing): columns 1-3 of rows 1-3.
    EXPECT_EQ(settled, 3 * 3);
  }
  EXPECT_EQ(ref.at(0, 0)[0], 255);
  EXPECT_EQ(ref.at(8, 0)[1], 255);
}

TEST(Render, HalfOpaqueLayerDoesNotShowItsShadowThroughTheBody) {
  SceneBuilder b = one_quad(40, 40, 0xFFFF0000, {10, 10, 30, 10, 30, 30, 10, 30});
  kvl_prep& p = b.layers[0];
  p.behind[0] = b.fx(4, 4, 32, 32, 0xFF00FF00, 255);  // a green shadow larger than the body
  p.behind_count = 1;
  p.opacity = 0.5;
  p.isolate = true;
  for (const std::string& set : kernel_sets()) {
    const Frame f = compositor(b, 40 * 4, 1, set);
    for (int y = 10; y < 30; y++)
      for (int x = 10; x < 30; x++) ASSERT_TRUE(f.at(x, y)[0] == 128 && f.at(x, y)[1] == 0) << x << "," << y;
    EXPECT_TRUE(f.at(5, 5)[1] == 128 && f.at(5, 5)[0] == 0);  // the shadow, faded with the layer
  }
}

TEST(Render, TransparentTexelDoesNotBleedItsColour) {
  const uint8_t img[8] = {255, 0, 0, 0, 0, 0, 255, 255};  // red at alpha 0, opaque blue
  SceneBuilder b = one_quad(48, 8, 0, {0, 0, 48, 0, 48, 8, 0, 8});
  b.cover(&b.layers[0], b.source(2, 1, img));
  const Frame f = compositor(b, 48 * 4, 1);
  int partly_blue = 0;
  for (int x = 0; x < 48; x++) {
    EXPECT_EQ(f.at(x, 4)[0], 0) << x;
    partly_blue += f.at(x, 4)[2] > 0 && f.at(x, 4)[2] < 255;
  }
  EXPECT_GT(partly_blue, 0);
}

TEST(Render, HostileGeometryMatchesTheReferenceAndDoesNotCrash) {
  const double nan = std::nan(""), inf = INFINITY;
  const double quads[][8] = {{nan, 0, 10, 0, 10, 10, 0, 10},
                             {0, 0, inf, 0, 10, 10, 0, 10},
                             {5, 5, 5, 5, 5, 5, 5, 5},
                             {0, 0, 10, 10, 20, 20, 30, 30},
                             {-1e300, -1e300, 1e300, -1e300, 1e300, 1e300, -1e300, 1e300},
                             {0, 0, 1e-300, 0, 1e-300, 1e-300, 0, 1e-300},
                             {-1e9, -1e9, 1e9, -1e9, 1e9, 1e9, -1e9, 1e9}};
  for (const auto& q : quads) {
    const SceneBuilder b = one_quad(32, 20, 0xFF00FF00, q);
    const Frame ref = reference(b, 32 * 4);
    for (const std::string& set : kernel_sets())
      EXPECT_EQ(first_difference(ref, compositor(b, 32 * 4, 1, set)), "") << set;
  }
  const Frame huge = compositor(one_quad(32, 20, 0xFF00FF00, quads[6]), 32 * 4, 1);
  EXPECT_TRUE(huge.at(0, 0)[1] == 255 && huge.at(31, 19)[1] == 255);
}

}  // namespace
