// Layer preparation: which road a layer takes, its masks and their cache
// keys, and what it does with hostile numbers. Layers come from real scene
// text through the engine's parser and resolver.
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
  Prepared(const std::string& layer_json, int32_t w, int32_t h, kvl_cache* cache = nullptr) {
    const std::string text = "{\"mappings\": [" + layer_json + "]}";
    scene = kvl_scene_parse(text.c_str(), nullptr, 0);
    EXPECT_NE(scene, nullptr) << text;
    if (!scene || scene->layer_count < 1) return;
    verts.assign(2 * (size_t)std::max(scene->layers[0].vertex_count, 1), 0.0);
    kvl_layer_resolve(scene, &scene->layers[0], verts.data(), &r, 0);
    ok = kvl_prepare(&p, &r, nullptr, w, h, cache);
  }
  ~Prepared() {
    kvl_prep_free(&p);
    kvl_scene_free(scene);
  }
};

const char kQuad[] = R"("corners": [[0.1,0.2],[0.6,0.2],[0.6,0.7],[0.1,0.7]])";
const char kTriangle[] = R"("shape": {"kind": "triangle", "vertices": [[0.2,0.2],[0.8,0.2],[0.5,0.8]]})";
const char kHalfMask[] = R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1],[0,1]])";
const char kAllEffects[] =
    R"("effects": {"shadow": {"dx": 10, "dy": 20, "blur": 8}, "glow": {"radius": 30}, "bevel": {"depth": 12}, )";

std::string layer(const std::string& geometry, const std::string& rest = "",
                  const std::string& paint = R"({"type": "color", "argb": 4294901760})") {
  return "{" + geometry + ", \"paint\": " + paint + (rest.empty() ? "" : ", " + rest) + "}";
}
std::string all_effects(const char* stroke = "6") {
  return kAllEffects + std::string(R"("stroke": {"width": )") + stroke + "}}";
}

using Cache = std::unique_ptr<kvl_cache, void (*)(kvl_cache*)>;
Cache make_cache(uint64_t budget) { return Cache(kvl_cache_create(budget), kvl_cache_free); }

size_t lit(const uint8_t* m, size_t n) {
  size_t c = 0;
  for (size_t i = 0; i < n; i++) c += m[i] != 0;
  return c;
}

TEST(Prepare, LayersThatDrawNothing) {
  for (const std::string& l :
       {layer(kQuad, "", R"({"type": "none"})"), layer(kQuad, R"("opacity": 0, "effects": {"glow": {}})"),
        layer(kQuad, R"("opacity": -1)"), layer(kQuad, R"("visible": false)"),
        layer(R"("shape": {"kind": "polygon", "vertices": [[0.1,0.1],[0.5,0.5]]})"),
        layer(R"("shape": {"kind": "triangle", "vertices": [[1.2,0.1],[1.5,0.5],[1.3,0.9]]})"),   // off frame
        layer(R"("shape": {"kind": "triangle", "vertices": [[0.2,0.3],[0.5,0.3],[0.9,0.3]]})")})  // no area
    EXPECT_FALSE(Prepared(l, 100, 50).ok) << l;
}

TEST(PrepareCells, MeshEdgesAndEllipseRoads) {
  std::string offs;
  for (int i = 0; i < 16; i++) offs += std::string(i ? "," : "") + (i == 5 ? "[0.02,-0.01]" : "[0,0]");
  Prepared mesh(layer(kQuad, R"("mesh": {"cols": 3, "rows": 3, "offsets": [)" + offs + "]}"), 100, 50);
  ASSERT_TRUE(mesh.ok && mesh.p.cell_count == 144);
  // Only cells on the border of the grid carry outline edges.
  for (int j = 0; j < 12; j++)
    for (int i = 0; i < 12; i++) {
      const kvl_cell& c = mesh.p.cells[j * 12 + i];
      EXPECT_TRUE(c.edge[0] == (j == 0) && c.edge[1] == (i == 11) && c.edge[2] == (j == 11) && c.edge[3] == (i == 0))
          << i << "," << j;
    }
  // Four points make one ellipse cell; more take the polygon road.
  const struct { const char* vertices; bool polygon; } ellipses[] = {
      {"[[0.1,0.1],[0.5,0.1],[0.5,0.5],[0.1,0.5]]", false},
      {"[[0.1,0.1],[0.5,0.1],[0.6,0.4],[0.3,0.6],[0.05,0.4]]", true}};
  for (const auto& e : ellipses) {
    Prepared p(layer(std::string(R"("shape": {"kind": "ellipse", "vertices": )") + e.vertices + "}"), 100, 50);
    ASSERT_TRUE(p.ok && p.p.ellipse);
    EXPECT_TRUE(p.p.polygon == e.polygon && (e.polygon ? p.p.cells == nullptr : p.p.cell_count == 1)) << e.vertices;
  }
  Prepared clipped(
      layer(R"("shape": {"kind": "polygon", "vertices": [[-0.5,-0.5],[0.5,-0.2],[0.4,0.5],[-0.2,0.6]]})"), 100, 50);
  ASSERT_TRUE(clipped.ok);
  EXPECT_TRUE(clipped.p.box_x == 0 && clipped.p.box_y == 0 && clipped.p.box_w == 50 && clipped.p.box_h == 30);
}

TEST(PrepareMasks, CacheKeysAndOwnership) {
  Cache cache = make_cache(0);
  const std::string mask = std::string(kHalfMask) + "}";
  const size_t mid = 360 * 1280 + 639;  // the last lit pixel of a row
  Prepared a(layer(kQuad, mask), 100, 50, cache.get());
  ASSERT_TRUE(a.ok && a.p.mask != nullptr && a.p.mask_cached);
  EXPECT_TRUE(a.p.mask[mid] == 255 && a.p.mask[mid + 1] == 0 && lit(a.p.mask, 1280 * 720) == 640u * 720u);
  // Another quad, frame size and paint: the same buffer from the cache.
  const uint64_t misses = cache->misses, hits = cache->hits;
  Prepared b(layer(R"("corners": [[0,0],[1,0],[1,1],[0,1]])", mask, R"({"type": "image", "path": "x"})"), 300, 70,
             cache.get());
  ASSERT_TRUE(b.ok);
  EXPECT_TRUE(b.p.mask == a.p.mask && b.p.mask_cached && cache->misses == misses && cache->hits == hits + 1);
  Prepared c(layer(kQuad, std::string(kHalfMask) + R"(, "feather": 20})"), 100, 50, cache.get());
  ASSERT_TRUE(c.ok && c.p.mask != a.p.mask);
  EXPECT_TRUE(c.p.mask[mid] > 0 && c.p.mask[mid] < 255 && c.p.mask[mid + 6] > 0);

  Prepared inv(layer(kQuad, std::string(kHalfMask) + R"(, "inverted": true})"), 100, 50);
  ASSERT_TRUE(inv.ok && !inv.p.mask_cached);  // no cache: the record owns it
  EXPECT_TRUE(inv.p.mask[mid] == 0 && inv.p.mask[mid + 1] == 255);
  // No area: an empty mask; fewer than 3 vertices: no mask.
  Prepared flat(layer(kQuad, R"("mask": {"vertices": [[0.5,0.5],[0.5,0.5],[0.5,0.5]], "feather": 1e9})"), 100, 50);
  ASSERT_TRUE(flat.ok && flat.p.mask != nullptr);
  EXPECT_EQ(lit(flat.p.mask, 1280 * 720), 0u);
  EXPECT_EQ(Prepared(layer(kQuad, R"("mask": {"vertices": [[0,0],[1,1]]})"), 100, 50).p.mask, nullptr);

  // A cache too small for some buffers: those stay with the record and are
  // freed by kvl_prep_free (the sanitizer build checks leaks and double frees).
  Cache small = make_cache(4000);
  Prepared p(layer(kTriangle, R"("mask": {"vertices": [[0,0],[0.5,0],[0.5,1]]}, "effects": {"glow": {}, "stroke": {}})"),
             100, 50, small.get());
  ASSERT_TRUE(p.ok && p.p.behind_count == 1 && p.p.front_count == 1);
  EXPECT_TRUE(!p.p.mask_cached && p.p.poly_mask_cached && !p.p.behind[0].cached && !p.p.front[0].cached);
}

TEST(PrepareEffects, CacheSharingAndEdgeCases) {
  Cache cache = make_cache(0);
  Prepared a(layer(kQuad, all_effects()), 200, 108, cache.get());
  ASSERT_TRUE(a.ok && a.p.behind_count == 2 && a.p.front_count == 3);
  // Another paint, opacity and content transform share the masks; another
  // frame height does not; one changed parameter makes new entries.
  Prepared b(layer(kQuad, all_effects() + R"(, "opacity": 0.3, "content": {"scale": 3})",
                   R"({"type": "image", "path": "x"})"), 200, 108, cache.get());
  Prepared c(layer(kQuad, all_effects()), 200, 109, cache.get());
  Prepared d(layer(kQuad, all_effects("7")), 200, 108, cache.get());
  ASSERT_TRUE(b.ok && c.ok && d.ok);
  for (int i = 0; i < 2; i++)
    EXPECT_TRUE(b.p.behind[i].cached && a.p.behind[i].mask == b.p.behind[i].mask &&
                a.p.behind[i].mask != c.p.behind[i].mask);
  for (int i = 0; i < 3; i++)
    EXPECT_TRUE(a.p.front[i].mask == b.p.front[i].mask && a.p.front[i].mask != c.p.front[i].mask);
  EXPECT_NE(a.p.behind[0].mask, d.p.behind[0].mask);
  EXPECT_EQ(0, memcmp(a.p.behind[0].mask, d.p.behind[0].mask, (size_t)a.p.behind[0].w * a.p.behind[0].h));

  Prepared text(layer(kQuad, all_effects(), R"({"type": "text", "text": "hi"})"), 100, 50);
  ASSERT_TRUE(text.ok);
  EXPECT_EQ(text.p.behind_count + text.p.front_count, 0);
  // A stroke that rounds to radius 0 keeps r = 1: two pixels at each edge.
  Prepared thin(layer(kQuad, R"("effects": {"stroke": {"width": 0.5}})"), 100, 50);
  ASSERT_TRUE(thin.ok && thin.p.front_count == 1);
  const kvl_fx& s = thin.p.front[0];
  EXPECT_EQ(lit(s.mask + (25 - s.y) * s.w, s.w), 4u);
}

TEST(PrepareHostile, HugeNanAndNullInputsNeverCrash) {
  Prepared huge(layer(kQuad, R"("effects": {"shadow": {"dx": 1e300, "dy": -1e300, "blur": 1e300},
                             "glow": {"radius": 1e308}, "bevel": {"depth": 1e308}, "stroke": {"width": 1e308}})"),
                64, 36);
  ASSERT_TRUE(huge.ok && huge.p.behind_count == 2 && huge.p.front_count == 3);
  EXPECT_TRUE(huge.p.behind[0].x == 0 && huge.p.behind[0].w == 64 && huge.p.behind[0].h == 36);
  EXPECT_EQ(lit(huge.p.behind[0].mask, 64 * 36), 0u);         // shifted out of the box
  EXPECT_EQ(lit(huge.p.behind[1].mask, 64 * 36), 64u * 36u);  // glow everywhere

  // Whatever the geometry, cells and boxes stay inside the frame.
  std::string offs;
  for (int i = 0; i < 169; i++) offs += std::string(i ? "," : "") + (i % 5 ? "[0.01,0.02]" : "[-5,7]");
  const std::string geos[] = {
      R"("corners": [[1e300,0],[-1e300,0],[1e300,1e300],[0,-1e300]])",
      R"("shape": {"kind": "polygon", "vertices": [[1e300,0],[-1e300,0],[1e300,1e300],[0,1]]})",
      R"("shape": {"kind": "ellipse", "vertices": [[-1e9,-1e9],[1e9,-1e9],[1e9,1e9],[-1e9,1e9]]})",
      kQuad + std::string(R"(, "mesh": {"cols": 12, "rows": 12, "offsets": [)") + offs + "]}"};
  for (const std::string& geo : geos) {
    Prepared p(layer(geo, all_effects()), 64, 36);
    const bool mesh = &geo == &geos[3];  // a wild warp still draws, the others may be refused
    ASSERT_TRUE(p.ok || !mesh);
    EXPECT_TRUE(!mesh || p.p.cell_count == 144);
    if (!p.ok) continue;
    for (int i = 0; i < p.p.cell_count; i++) {
      const kvl_cell& c = p.p.cells[i];
      EXPECT_TRUE(c.x0 >= 0 && c.x1 <= 64 && c.y0 >= 0 && c.y1 <= 36) << i;
    }
    EXPECT_TRUE(!p.p.polygon || (p.p.box_x >= 0 && p.p.box_x + p.p.box_w <= 64));
  }
  // NaN reaches preparation only through records built by hand.
  Prepared poly(layer(R"("shape": {"kind": "polygon", "vertices": [[0.1,0.1],[0.9,0.1],[0.5,0.9]]})", all_effects()),
                64, 36);
  ASSERT_TRUE(poly.ok);
  kvl_prep_free(&poly.p);
  poly.verts[2] = std::nan("");
  EXPECT_FALSE(kvl_prepare(&poly.p, &poly.r, nullptr, 64, 36, nullptr));  // no extent to fit
  Prepared quad(layer(kQuad, all_effects()), 64, 36);
  kvl_prep_free(&quad.p);
  quad.verts[0] = std::nan("");
  ASSERT_TRUE(kvl_prepare(&quad.p, &quad.r, nullptr, 64, 36, nullptr));
  EXPECT_TRUE(quad.p.cells[0].x1 == 0 && quad.p.behind_count + quad.p.front_count == 0);  // no box, draws nothing

  kvl_prep q;
  EXPECT_FALSE(kvl_prepare(nullptr, &quad.r, nullptr, 64, 36, nullptr));
  EXPECT_FALSE(kvl_prepare(&q, nullptr, nullptr, 64, 36, nullptr));
  kvl_prep_free(&q);
  EXPECT_FALSE(kvl_prepare(&q, &quad.r, nullptr, 0, 36, nullptr));
  kvl_prep_free(&q);
  kvl_prep_free(nullptr);
}

}  // namespace
