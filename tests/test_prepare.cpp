// Layer preparation: which road a layer takes, the maps it builds, its masks
// and their cache keys, and what it does with hostile numbers. Layers come
// from real scene text through the engine's parser and resolver.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

// One layer of a one-layer scene, resolved at time 0 and prepared.
struct Prepared {
  kvl_scene* scene = nullptr;
  std::vector<double> verts;
  kvl_resolved r{};
  kvl_prep p{};
  bool ok = false;

  Prepared(const std::string& layer_json, int32_t w, int32_t h, kvl_cache* cache = nullptr,
           const kvl_sources* sources = nullptr) {
    const std::string text = "{\"mappings\": [" + layer_json + "]}";
    scene = kvl_scene_parse(text.c_str(), nullptr, 0);
    EXPECT_NE(scene, nullptr) << text;
    if (!scene || scene->layer_count < 1) return;
    verts.assign(2 * (size_t)std::max(scene->layers[0].vertex_count, 1), 0.0);
    kvl_layer_resolve(scene, &scene->layers[0], verts.data(), &r, 0);
    ok = kvl_prepare(&p, &r, sources, w, h, cache);
  }
  ~Prepared() {
    kvl_prep_free(&p);
    kvl_scene_free(scene);
  }
  Prepared(const Prepared&) = delete;
  Prepared& operator=(const Prepared&) = delete;
};

const char kQuad[] = R"("corners": [[0.1,0.2],[0.6,0.2],[0.6,0.7],[0.1,0.7]])";

std::string layer(const std::string& geometry, const std::string& rest = "",
                  const std::string& paint = R"({"type": "color", "argb": 4294901760})") {
  std::string s = "{" + geometry + ", \"paint\": " + paint;
  if (!rest.empty()) s += ", " + rest;
  return s + "}";
}

struct CacheDeleter {
  void operator()(kvl_cache* c) const { kvl_cache_free(c); }
};
using Cache = std::unique_ptr<kvl_cache, CacheDeleter>;

size_t lit(const uint8_t* m, size_t n) {
  size_t c = 0;
  for (size_t i = 0; i < n; i++) c += m[i] != 0;
  return c;
}

// --- What draws and what does not ------------------------------------------

TEST(Prepare, LayersThatDrawNothing) {
  EXPECT_FALSE(Prepared(layer(kQuad, "", R"({"type": "none"})"), 100, 50).ok);
  EXPECT_FALSE(Prepared(layer(kQuad, R"("opacity": 0, "effects": {"glow": {}})"), 100, 50).ok);
  EXPECT_FALSE(Prepared(layer(kQuad, R"("opacity": -1)"), 100, 50).ok);
  EXPECT_FALSE(Prepared(layer(kQuad, R"("visible": false)"), 100, 50).ok);
  EXPECT_FALSE(Prepared(layer(R"("shape": {"kind": "polygon", "vertices": [[0.1,0.1],[0.5,0.5]]})"), 100, 50).ok);
  // A polygon wholly outside the frame has an empty box.
  EXPECT_FALSE(Prepared(layer(R"("shape": {"kind": "triangle", "vertices": [[1.2,0.1],[1.5,0.5],[1.3,0.9]]})"), 100,
                        50)
                   .ok);
  // A polygon of no area cannot be fitted.
  EXPECT_FALSE(Prepared(layer(R"("shape": {"kind": "triangle", "vertices": [[0.2,0.3],[0.5,0.3],[0.9,0.3]]})"), 100,
                        50)
                   .ok);
  Prepared fine(layer(kQuad, R"("opacity": 2.5)"), 100, 50);
  ASSERT_TRUE(fine.ok);
  EXPECT_EQ(fine.p.opacity, 1.0);
}

TEST(Prepare, ColourMissingAndDeclaredSources) {
  Prepared colour(layer(kQuad), 100, 50);
  ASSERT_TRUE(colour.ok);
  EXPECT_TRUE(colour.p.solid);
  EXPECT_EQ(colour.p.argb, 0xFFFF0000u);
  EXPECT_EQ(colour.p.source, nullptr);

  kvl_sources sources{};
  ASSERT_EQ(kvl_sources_declare(&sources, "wide.png", 64, 48), 0);
  Prepared missing(layer(kQuad, "", R"({"type": "image", "path": "nope.png"})"), 100, 50, nullptr, &sources);
  ASSERT_TRUE(missing.ok);
  EXPECT_TRUE(missing.p.solid);
  EXPECT_EQ(missing.p.argb, 0xFF333333u);

  // Declared only: the cover fit comes from the size alone. 64x48 on the
  // surface: scale max(20, 15) = 20, 1280x960, centred, overhanging by 120
  // units above and below.
  Prepared declared(layer(kQuad, "", R"({"type": "image", "path": "wide.png"})"), 100, 50, nullptr, &sources);
  ASSERT_TRUE(declared.ok);
  EXPECT_FALSE(declared.p.solid);
  ASSERT_NE(declared.p.source, nullptr);
  EXPECT_EQ(declared.p.source->pixels, nullptr);
  EXPECT_EQ(declared.p.cover_scale, 20.0);
  EXPECT_EQ(declared.p.cover_ox, 0.0);
  EXPECT_EQ(declared.p.cover_oy, -120.0);
  kvl_sources_free(&sources);
}

TEST(Prepare, ContentTransformPutsTheContentCentreWhereAsked) {
  Prepared p(layer(kQuad, R"("content": {"x": 0.25, "y": -0.1, "scale": 2, "rotation": 90})"), 100, 50);
  ASSERT_TRUE(p.ok);
  const double* ic = p.p.inv_content;
  auto map = [&](double u, double v, double* cu, double* cv) {
    *cu = ic[0] * u + ic[1] * v + ic[2];
    *cv = ic[3] * u + ic[4] * v + ic[5];
  };
  double cu, cv;
  // The content's centre is seen at (1280 * 0.25 + 640, 720 * -0.1 + 360).
  map(960, 288, &cu, &cv);
  EXPECT_NEAR(cu, 640, 1e-9);
  EXPECT_NEAR(cv, 360, 1e-9);
  // One surface unit to the right is half a content unit along the content's
  // turned axis: rotation 90 clockwise on screen means content y decreases.
  map(961, 288, &cu, &cv);
  EXPECT_NEAR(cu, 640, 1e-9);
  EXPECT_NEAR(cv, 359.5, 1e-9);

  Prepared zero(layer(kQuad, R"("content": {"scale": 0})"), 100, 50);
  ASSERT_TRUE(zero.ok);
  EXPECT_EQ(zero.p.inv_content[0], 0.0);
  EXPECT_EQ(zero.p.inv_content[4], 0.0);
  EXPECT_EQ(zero.p.inv_content[2], 640.0);
  EXPECT_EQ(zero.p.inv_content[5], 360.0);
}

// --- Cell road ----------------------------------------------------------------

TEST(PrepareCells, OneCellMapsTheQuadOntoTheSurface) {
  Prepared p(layer(R"("corners": [[0.1,0.2],[0.6,0.1],[0.7,0.8],[0.05,0.9]])"), 200, 100);
  ASSERT_TRUE(p.ok);
  ASSERT_FALSE(p.p.polygon);
  ASSERT_EQ(p.p.cell_count, 1);
  const kvl_cell& c = p.p.cells[0];
  const double want[8] = {20, 20, 120, 10, 140, 80, 10, 90};
  const double uv[8] = {0, 0, 1280, 0, 1280, 720, 0, 720};
  for (int k = 0; k < 4; k++) {
    EXPECT_DOUBLE_EQ(c.quad[2 * k], want[2 * k]);
    EXPECT_DOUBLE_EQ(c.quad[2 * k + 1], want[2 * k + 1]);
    double u, v;
    kvl_h_apply(&c.inv, want[2 * k], want[2 * k + 1], &u, &v);
    EXPECT_NEAR(u, uv[2 * k], 1e-6) << k;
    EXPECT_NEAR(v, uv[2 * k + 1], 1e-6) << k;
    EXPECT_EQ(c.uv[2 * k], uv[2 * k]);
    EXPECT_EQ(c.edge[k], 1);
  }
  // One pixel of margin around the corners' bounds.
  EXPECT_EQ(c.x0, 9);
  EXPECT_EQ(c.y0, 9);
  EXPECT_EQ(c.x1, 141);
  EXPECT_EQ(c.y1, 91);
}

TEST(PrepareCells, AllZeroMeshIsOneCellAndA3By3MeshIs144) {
  const std::string zero = R"("mesh": {"cols": 1, "rows": 1, "offsets": [[0,0],[0,0],[0,0],[0,0]]})";
  Prepared flat(layer(kQuad, zero), 100, 50);
  ASSERT_TRUE(flat.ok);
  ASSERT_EQ(flat.p.cell_count, 1);
  for (int k = 0; k < 4; k++) EXPECT_EQ(flat.p.cells[0].edge[k], 1);

  std::string offs;
  for (int i = 0; i < 16; i++) offs += std::string(i ? "," : "") + (i == 5 ? "[0.02,-0.01]" : "[0,0]");
  Prepared mesh(layer(kQuad, R"("mesh": {"cols": 3, "rows": 3, "offsets": [)" + offs + "]}"), 100, 50);
  ASSERT_TRUE(mesh.ok);
  ASSERT_EQ(mesh.p.cell_count, 144);
  int outer_edges = 0;
  for (int j = 0; j < 12; j++)
    for (int i = 0; i < 12; i++) {
      const kvl_cell& c = mesh.p.cells[j * 12 + i];
      EXPECT_EQ(c.edge[0], j == 0);
      EXPECT_EQ(c.edge[1], i == 11);
      EXPECT_EQ(c.edge[2], j == 11);
      EXPECT_EQ(c.edge[3], i == 0);
      outer_edges += c.edge[0] + c.edge[1] + c.edge[2] + c.edge[3];
      // Each cell's surface rectangle is its share of the surface.
      EXPECT_DOUBLE_EQ(c.uv[0], i * 1280.0 / 12);
      EXPECT_DOUBLE_EQ(c.uv[5], (j + 1) * 720.0 / 12);
    }
  EXPECT_EQ(outer_edges, 48);
  // Neighbouring cells share their corners exactly: no cracks.
  EXPECT_EQ(mesh.p.cells[0].quad[2], mesh.p.cells[1].quad[0]);
  EXPECT_EQ(mesh.p.cells[0].quad[4], mesh.p.cells[12].quad[2]);
  EXPECT_EQ(mesh.p.cells[0].quad[5], mesh.p.cells[12].quad[3]);
  // The outer corners are the quad's (the offsets there are 0).
  EXPECT_DOUBLE_EQ(mesh.p.cells[0].quad[0], 10);
  EXPECT_DOUBLE_EQ(mesh.p.cells[143].quad[5], 35);
}

TEST(PrepareCells, EllipseOfFourIsACellAndOfFiveAPolygon) {
  Prepared four(layer(R"("shape": {"kind": "ellipse", "vertices": [[0.1,0.1],[0.5,0.1],[0.5,0.5],[0.1,0.5]]})"), 100,
                50);
  ASSERT_TRUE(four.ok);
  EXPECT_TRUE(four.p.ellipse);
  EXPECT_FALSE(four.p.polygon);
  EXPECT_EQ(four.p.cell_count, 1);
  Prepared five(
      layer(R"("shape": {"kind": "ellipse", "vertices": [[0.1,0.1],[0.5,0.1],[0.6,0.4],[0.3,0.6],[0.05,0.4]]})"), 100,
      50);
  ASSERT_TRUE(five.ok);
  EXPECT_TRUE(five.p.ellipse);
  EXPECT_TRUE(five.p.polygon);
  EXPECT_EQ(five.p.cells, nullptr);
}

TEST(PrepareCells, DegenerateQuadHasAZeroInverse) {
  Prepared p(layer(R"("corners": [[0.2,0.2],[0.4,0.4],[0.6,0.6],[0.8,0.8]])"), 100, 50);
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.p.cell_count, 1);
  for (double m : p.p.cells[0].inv.m) EXPECT_EQ(m, 0.0);
}

// --- Polygon road -------------------------------------------------------------

TEST(PreparePolygon, SurfaceCoversTheOutlineBoxCentred) {
  // Box 20..80 by 10..40 on a 100x50 frame: 60x30 device pixels. The surface
  // (16:9) covers it: scale max(60/1280, 30/720) = 0.046875, 60x33.75,
  // centred, so 1.875 pixels hang over at top and bottom.
  Prepared p(layer(R"("shape": {"kind": "triangle", "vertices": [[0.2,0.2],[0.8,0.2],[0.5,0.8]]})"), 100, 50);
  ASSERT_TRUE(p.ok);
  ASSERT_TRUE(p.p.polygon);
  EXPECT_DOUBLE_EQ(p.p.poly_scale, 0.046875);
  EXPECT_DOUBLE_EQ(p.p.poly_ox, 20);
  EXPECT_DOUBLE_EQ(p.p.poly_oy, 10 - 1.875);
  EXPECT_EQ(p.p.box_x, 20);
  EXPECT_EQ(p.p.box_y, 10);
  EXPECT_EQ(p.p.box_w, 60);
  EXPECT_EQ(p.p.box_h, 30);
  ASSERT_NE(p.p.poly_mask, nullptr);
  // The base row is full across its middle and partly covered at the
  // slanted ends; the apex row is nearly empty.
  const uint8_t* m = p.p.poly_mask;
  EXPECT_EQ(m[30], 255);
  EXPECT_GT(m[0], 0);
  EXPECT_LT(m[0], 255);
  EXPECT_EQ(m[29 * 60 + 0], 0);
  EXPECT_GT(m[29 * 60 + 30], 0);
}

TEST(PreparePolygon, BoxIsClippedToTheFrame) {
  Prepared p(layer(R"("shape": {"kind": "polygon", "vertices": [[-0.5,-0.5],[0.5,-0.2],[0.4,0.5],[-0.2,0.6]]})"), 100,
             50);
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.p.box_x, 0);
  EXPECT_EQ(p.p.box_y, 0);
  EXPECT_EQ(p.p.box_w, 50);
  EXPECT_EQ(p.p.box_h, 30);
}

// --- Masks and the cache --------------------------------------------------------

TEST(PrepareMasks, DrawnMaskLivesOnTheSurfaceAndIsCached) {
  Cache cache(kvl_cache_create(0));
  const std::string mask = R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1],[0,1]]})";
  Prepared a(layer(kQuad, mask), 100, 50, cache.get());
  ASSERT_TRUE(a.ok);
  ASSERT_NE(a.p.mask, nullptr);
  EXPECT_TRUE(a.p.mask_cached);
  // Left half of the 1280x720 surface.
  EXPECT_EQ(a.p.mask[360 * 1280 + 639], 255);
  EXPECT_EQ(a.p.mask[360 * 1280 + 640], 0);
  EXPECT_EQ(lit(a.p.mask, 1280 * 720), 640u * 720u);
  // The same mask on another quad, another frame size and another paint:
  // the same buffer from the cache.
  const uint64_t misses = cache->misses, hits = cache->hits;
  Prepared b(layer(R"("corners": [[0,0],[1,0],[1,1],[0,1]])", mask, R"({"type": "image", "path": "x"})"), 300, 70,
             cache.get());
  ASSERT_TRUE(b.ok);
  EXPECT_EQ(b.p.mask, a.p.mask);
  EXPECT_TRUE(b.p.mask_cached);
  EXPECT_EQ(cache->misses, misses);
  EXPECT_EQ(cache->hits, hits + 1);
  // A different feather is a different mask.
  Prepared c(layer(kQuad, R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1],[0,1]], "feather": 20})"), 100, 50,
             cache.get());
  ASSERT_TRUE(c.ok);
  EXPECT_NE(c.p.mask, a.p.mask);
  EXPECT_GT(c.p.mask[360 * 1280 + 639], 0);
  EXPECT_LT(c.p.mask[360 * 1280 + 639], 255);
  EXPECT_GT(c.p.mask[360 * 1280 + 645], 0);
}

TEST(PrepareMasks, InvertedAndEmptyMasks) {
  Prepared inv(layer(kQuad, R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1],[0,1]], "inverted": true})"), 100, 50);
  ASSERT_TRUE(inv.ok);
  EXPECT_FALSE(inv.p.mask_cached);  // no cache: the record owns it
  EXPECT_EQ(inv.p.mask[360 * 1280 + 639], 0);
  EXPECT_EQ(inv.p.mask[360 * 1280 + 640], 255);
  // A mask outline of no area leaves an empty mask (the layer shows nothing);
  // fewer than 3 mask vertices is no mask at all.
  Prepared flat(layer(kQuad, R"("mask": {"vertices": [[0.5,0.5],[0.5,0.5],[0.5,0.5]], "feather": 1e9})"), 100, 50);
  ASSERT_TRUE(flat.ok);
  ASSERT_NE(flat.p.mask, nullptr);
  EXPECT_EQ(lit(flat.p.mask, 1280 * 720), 0u);
  Prepared two(layer(kQuad, R"("mask": {"vertices": [[0,0],[1,1]]})"), 100, 50);
  ASSERT_TRUE(two.ok);
  EXPECT_EQ(two.p.mask, nullptr);
}

TEST(PrepareMasks, CacheTooSmallLeavesMasksWithTheRecord) {
  Cache cache(kvl_cache_create(4000));
  Prepared p(layer(R"("shape": {"kind": "triangle", "vertices": [[0.2,0.2],[0.8,0.2],[0.5,0.8]]})",
                   R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1]]}, "effects": {"glow": {}, "stroke": {}})"),
             100, 50, cache.get());
  ASSERT_TRUE(p.ok);
  EXPECT_FALSE(p.p.mask_cached);        // 921600 bytes never fit
  EXPECT_TRUE(p.p.poly_mask_cached);    // 60 * 30 bytes do
  EXPECT_EQ(p.p.behind_count, 1);
  EXPECT_EQ(p.p.front_count, 1);
  EXPECT_FALSE(p.p.behind[0].cached);   // the effect box is larger than what is left
  EXPECT_FALSE(p.p.front[0].cached);
  // kvl_prep_free (in the destructor) frees what the cache refused; the
  // sanitizer build checks that nothing leaks and nothing is freed twice.
}

// --- Effects --------------------------------------------------------------------

const char kAllEffects[] =
    R"("effects": {"shadow": {"dx": 10, "dy": 20, "blur": 8}, "glow": {"radius": 30},
                   "bevel": {"depth": 12}, "stroke": {"width": 6}})";

TEST(PrepareEffects, OrderBoxesAndColours) {
  Prepared p(layer(kQuad, kAllEffects), 200, 108);  // k = 0.1
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.p.behind_count, 2);
  ASSERT_EQ(p.p.front_count, 3);
  EXPECT_EQ(p.p.behind[0].argb, 0x99000000u);  // shadow, then glow
  EXPECT_EQ(p.p.behind[1].argb, 0xFF42C8F5u);
  EXPECT_EQ(p.p.front[2].argb, 0xFFFFFFFFu);  // stroke last
  // Outline 20..120 by 21.6..75.6; margin max((10 + 20 + 16) 0.1, 6, 3.6,
  // 0.6, 2) = 6: box 14..126 by 15..82, shared by all.
  for (const kvl_fx* f : {&p.p.behind[0], &p.p.behind[1], &p.p.front[0], &p.p.front[1], &p.p.front[2]}) {
    EXPECT_EQ(f->x, 14);
    EXPECT_EQ(f->y, 15);
    EXPECT_EQ(f->w, 112);
    EXPECT_EQ(f->h, 67);
    ASSERT_NE(f->mask, nullptr);
    EXPECT_GT(lit(f->mask, 112 * 67), 0u);
  }
  // The shadow is the silhouette moved by (1, 2) and lightly blurred: its
  // centre of mass sits right of and below the outline's.
  double sx = 0, sy = 0, sw = 0;
  for (int y = 0; y < 67; y++)
    for (int x = 0; x < 112; x++) {
      const double m = p.p.behind[0].mask[y * 112 + x];
      sx += m * (x + 14.5);
      sy += m * (y + 15.5);
      sw += m;
    }
  EXPECT_NEAR(sx / sw, 70 + 1, 0.05);
  // Vertically the rasteriser's four sample lines make the rows at 21.6
  // and 75.6 half covered: the silhouette's centre is at 48.5.
  EXPECT_NEAR(sy / sw, 48.5 + 2, 0.05);
  // Bevel sides stay inside the shape; the stroke straddles the outline.
  const kvl_fx& light = p.p.front[0];
  EXPECT_EQ(light.mask[2 * 112 + 2], 0);  // (16, 17) lies outside the quad
  const kvl_fx& stroke = p.p.front[2];
  EXPECT_EQ(stroke.mask[(48 - 15) * 112 + (20 - 14)], 255);   // on the left edge
  EXPECT_EQ(stroke.mask[(48 - 15) * 112 + (70 - 14)], 0);     // the middle
}

TEST(PrepareEffects, SameOutlineSharesTheCacheButAnotherHeightDoesNot) {
  Cache cache(kvl_cache_create(0));
  Prepared a(layer(kQuad, kAllEffects), 200, 108, cache.get());
  // Another paint, opacity and content transform: still the same masks.
  Prepared b(layer(kQuad, std::string(kAllEffects) + R"(, "opacity": 0.3, "content": {"scale": 3})",
                   R"({"type": "image", "path": "x"})"),
             200, 108, cache.get());
  Prepared c(layer(kQuad, kAllEffects), 200, 109, cache.get());
  ASSERT_TRUE(a.ok && b.ok && c.ok);
  for (int i = 0; i < 2; i++) {
    EXPECT_TRUE(b.p.behind[i].cached);
    EXPECT_EQ(a.p.behind[i].mask, b.p.behind[i].mask);
    EXPECT_NE(a.p.behind[i].mask, c.p.behind[i].mask);
  }
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(a.p.front[i].mask, b.p.front[i].mask);
    EXPECT_NE(a.p.front[i].mask, c.p.front[i].mask);
  }
  // Changing one parameter rebuilds them all.
  Prepared d(layer(kQuad, R"("effects": {"shadow": {"dx": 10, "dy": 20, "blur": 8}, "glow": {"radius": 30},
                   "bevel": {"depth": 12}, "stroke": {"width": 7}})"),
             200, 108, cache.get());
  ASSERT_TRUE(d.ok);
  EXPECT_NE(a.p.behind[0].mask, d.p.behind[0].mask);
  EXPECT_EQ(0, memcmp(a.p.behind[0].mask, d.p.behind[0].mask, 112 * 67));  // same shadow, new entry
}

TEST(PrepareEffects, IsolationOnlyForFadedOrKeyedLayersWithEffects) {
  EXPECT_FALSE(Prepared(layer(kQuad, R"("opacity": 0.5)"), 100, 50).p.isolate);
  EXPECT_FALSE(Prepared(layer(kQuad, R"("effects": {"glow": {}})"), 100, 50).p.isolate);
  EXPECT_TRUE(Prepared(layer(kQuad, R"("opacity": 0.5, "effects": {"glow": {}})"), 100, 50).p.isolate);
  EXPECT_TRUE(Prepared(layer(kQuad, R"("lumaKey": true, "effects": {"stroke": {}})"), 100, 50).p.isolate);
  // Effects that make no entry do not isolate.
  EXPECT_FALSE(Prepared(layer(kQuad, R"("opacity": 0.5, "effects": {"glow": {"radius": 0}})"), 100, 50).p.isolate);
}

TEST(PrepareEffects, TextHasNoEffectsAndAThinStrokeIsStillOnePixel) {
  Prepared text(layer(kQuad, kAllEffects, R"({"type": "text", "text": "hi"})"), 100, 50);
  ASSERT_TRUE(text.ok);
  EXPECT_EQ(text.p.behind_count + text.p.front_count, 0);
  // k width / 2 = 50/1080 * 0.5 / 2 rounds to 0; the stroke keeps r = 1: a
  // band two pixels wide around a vertical edge.
  Prepared thin(layer(kQuad, R"("effects": {"stroke": {"width": 0.5}})"), 100, 50);
  ASSERT_TRUE(thin.ok);
  ASSERT_EQ(thin.p.front_count, 1);
  const kvl_fx& s = thin.p.front[0];
  const int row = 25 - s.y;
  int run = 0;
  for (int x = 0; x < s.w; x++) run += s.mask[row * s.w + x] != 0;
  EXPECT_EQ(run, 4);  // left edge and right edge, two each
}

TEST(PrepareEffects, EllipseEffectsFollowItsRoundOutline) {
  Prepared e(layer(R"("shape": {"kind": "ellipse", "vertices": [[0.2,0.2],[0.8,0.2],[0.8,0.8],[0.2,0.8]]})",
                   R"("effects": {"stroke": {"width": 20}})"),
             200, 108);
  ASSERT_TRUE(e.ok);
  ASSERT_EQ(e.p.front_count, 1);
  const kvl_fx& s = e.p.front[0];
  // The quad's corner (40, 21.6) is far from the round outline.
  EXPECT_EQ(s.mask[(22 - s.y) * s.w + (40 - s.x)], 0);
  // The rightmost point of the ellipse (160, 54) is on it.
  EXPECT_EQ(s.mask[(54 - s.y) * s.w + (159 - s.x)], 255);
}

// --- Hostile numbers ------------------------------------------------------------

TEST(PrepareHostile, HugeRadiiAreBoundedByTheFrame) {
  Prepared p(layer(kQuad, R"("effects": {"shadow": {"dx": 1e300, "dy": -1e300, "blur": 1e300},
                             "glow": {"radius": 1e308}, "bevel": {"depth": 1e308}, "stroke": {"width": 1e308}})"),
             64, 36);
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.p.behind_count, 2);
  ASSERT_EQ(p.p.front_count, 3);
  EXPECT_EQ(p.p.behind[0].x, 0);
  EXPECT_EQ(p.p.behind[0].w, 64);
  EXPECT_EQ(p.p.behind[0].h, 36);
  EXPECT_EQ(lit(p.p.behind[0].mask, 64 * 36), 0u);           // shifted out of the box
  EXPECT_EQ(lit(p.p.behind[1].mask, 64 * 36), 64u * 36u);    // glow everywhere
}

TEST(PrepareHostile, NanAndHugeVerticesNeverCrash) {
  // NaN cannot come from JSON, but keyframes can make huge values, and NaN
  // reaches preparation through records built by hand.
  for (const char* geo : {R"("corners": [[1e300,0],[-1e300,0],[1e300,1e300],[0,-1e300]])",
                          R"("shape": {"kind": "polygon", "vertices": [[1e300,0],[-1e300,0],[1e300,1e300],[0,1]]})",
                          R"("shape": {"kind": "ellipse", "vertices": [[-1e9,-1e9],[1e9,-1e9],[1e9,1e9],[-1e9,1e9]]})"}) {
    Prepared p(layer(geo, kAllEffects), 64, 36);
    if (!p.ok) continue;
    for (int i = 0; i < p.p.cell_count; i++) {
      const kvl_cell& c = p.p.cells[i];
      EXPECT_TRUE(c.x0 >= 0 && c.x1 <= 64 && c.y0 >= 0 && c.y1 <= 36);
    }
    if (p.p.polygon) {
      EXPECT_TRUE(p.p.box_x >= 0 && p.p.box_x + p.p.box_w <= 64);
    }
  }
  Prepared base(layer(R"("shape": {"kind": "polygon", "vertices": [[0.1,0.1],[0.9,0.1],[0.5,0.9]]})", kAllEffects),
                64, 36);
  ASSERT_TRUE(base.ok);
  kvl_prep_free(&base.p);
  const double nan = std::nan("");
  base.verts[2] = nan;
  EXPECT_FALSE(kvl_prepare(&base.p, &base.r, nullptr, 64, 36, nullptr));  // no extent to fit
  kvl_prep_free(&base.p);

  Prepared quad(layer(kQuad, kAllEffects), 64, 36);
  kvl_prep_free(&quad.p);
  quad.verts[0] = nan;
  ASSERT_TRUE(kvl_prepare(&quad.p, &quad.r, nullptr, 64, 36, nullptr));
  EXPECT_EQ(quad.p.cells[0].x1, 0);  // no box, draws nothing
  EXPECT_EQ(quad.p.behind_count + quad.p.front_count, 0);
}

TEST(PrepareHostile, TwelveByTwelveMeshAndNullArguments) {
  std::string offs;
  for (int i = 0; i < 169; i++) offs += std::string(i ? "," : "") + (i % 5 ? "[0.01,0.02]" : "[-5,7]");
  Prepared p(layer(kQuad, R"("mesh": {"cols": 12, "rows": 12, "offsets": [)" + offs + "]}"), 64, 36);
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.p.cell_count, 144);  // 12 / 12 gives one subdivision
  for (int i = 0; i < 144; i++) EXPECT_LE(p.p.cells[i].x1, 64);
  EXPECT_FALSE(kvl_prepare(nullptr, &p.r, nullptr, 64, 36, nullptr));
  kvl_prep q;
  EXPECT_FALSE(kvl_prepare(&q, nullptr, nullptr, 64, 36, nullptr));
  kvl_prep_free(&q);
  EXPECT_FALSE(kvl_prepare(&q, &p.r, nullptr, 0, 36, nullptr));
  kvl_prep_free(&q);
  kvl_prep_free(nullptr);
}

}  // namespace
