// The draw list: command order, perspective vertices, mask references and
// their sampled hash, isolation groups, and the builder's memory.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"
#include "render_scenes.h"

namespace {

using Engine = std::unique_ptr<kvl_engine, void (*)(kvl_engine*)>;

Engine make(const std::string& json, int w = 192, int h = 108) {
  Engine e(kvl_engine_create(json.c_str(), w, h, nullptr), kvl_engine_destroy);
  if (!e) ADD_FAILURE() << "scene refused: " << kvl_last_error() << "\n" << json;
  return e;
}

// The list at time 0; an empty one for a refused scene (reported by make).
const kvl_draw_list* draw(const Engine& e) {
  static const kvl_draw_list empty = {};
  const kvl_draw_list* l = kvl_engine_draw_list(e.get(), 0);
  return l ? l : &empty;
}

std::string scene(const std::string& mappings) { return R"({"mappings": [)" + mappings + "]}"; }

std::string quad(const std::string& extra = "") {
  return R"({"corners": [[0.1,0.1],[0.9,0.1],[0.9,0.9],[0.1,0.9]], "paint": {"type": "color", "argb": 4278255360})" +
         extra + "}";
}

std::string mesh(int cols, int rows, const char* offset) {
  std::string m = R"(, "mesh": {"cols": )" + std::to_string(cols) + R"(, "rows": )" + std::to_string(rows);
  for (int i = 0; i < (cols + 1) * (rows + 1); i++) m += (i ? "," : R"(, "offsets": [)") + std::string(offset);
  return m + "]}";
}

// FNV-1a over every seventh byte, from the byte count XOR the hash start.
uint64_t sampled_hash(const uint8_t* data, uint64_t n) {
  std::vector<uint8_t> picked;
  for (uint64_t i = 0; i < n; i += 7) picked.push_back(data[i]);
  return kvl_hash(n ^ 0x14650FB0739D0383ull, picked.data(), picked.size());
}

const float* vertex(const kvl_draw_list* l, int i) { return l->vertices + 5 * i; }

// What a back end relies on: vertices consumed in order and whole quads,
// indices in range, groups nested, unused fields zero, hashes matching bytes.
void expect_well_formed(const kvl_draw_list* l) {
  ASSERT_NE(l, nullptr);
  int32_t next_vertex = 0, depth = 0;
  for (int32_t i = 0; i < l->cmd_count; i++) {
    const kvl_draw_cmd& c = l->cmds[i];
    SCOPED_TRACE("command " + std::to_string(i));
    EXPECT_TRUE(c.kind == KVL_CMD_LAYER ||
                (c.source_key == nullptr && c.first_vertex == 0 && c.layer_vertex_count == 0 && c.clip == -1));
    EXPECT_TRUE(c.kind == KVL_CMD_EFFECT || (c.fx_x == 0 && c.fx_y == 0));
    if (c.kind == KVL_CMD_LAYER) {
      EXPECT_EQ(c.first_vertex, next_vertex);
      EXPECT_EQ(c.layer_vertex_count % 4, 0);
      next_vertex += c.layer_vertex_count;
      if (c.mask != -1) {
        ASSERT_TRUE(c.mask >= 0 && c.mask < l->ref_count);
        EXPECT_TRUE(l->refs[c.mask].w == KVL_SURFACE_W && l->refs[c.mask].h == KVL_SURFACE_H);
      }
      ASSERT_TRUE(c.clip == -1 || (c.clip >= 0 && c.clip < l->ref_count));
      EXPECT_TRUE(c.clip != -1 || (c.clip_x == 0 && c.clip_y == 0));
    } else if (c.kind == KVL_CMD_EFFECT) {
      ASSERT_TRUE(c.mask >= 0 && c.mask < l->ref_count);
    } else if (c.kind == KVL_CMD_GROUP_BEGIN || c.kind == KVL_CMD_GROUP_END) {
      depth += c.kind == KVL_CMD_GROUP_BEGIN ? 1 : -1;
      EXPECT_TRUE(depth == 0 || depth == 1);
      EXPECT_TRUE(c.mask == -1 && c.argb == 0);
      EXPECT_TRUE(c.kind == KVL_CMD_GROUP_BEGIN || (c.opacity == 1.0f && c.luma == 0));
    } else {
      ADD_FAILURE() << "unknown kind " << c.kind;
    }
  }
  EXPECT_TRUE(depth == 0 && next_vertex == l->vertex_count) << depth << " " << next_vertex;
  for (int32_t i = 0; i < l->ref_count; i++) {
    const kvl_draw_ref& r = l->refs[i];
    ASSERT_TRUE(r.data != nullptr && r.w >= 1 && r.h >= 1);
    EXPECT_EQ(r.hash, sampled_hash(r.data, static_cast<uint64_t>(r.w) * r.h)) << "ref " << i;
  }
}

// Builds straight from resolved records, as the engine does, so that the
// builder, the cache and the vertices are within reach.
struct Direct {
  kvl_scene* scene = nullptr;
  std::vector<kvl_resolved> resolved;
  std::vector<double> pool;  // 64 vertex values a layer
  kvl_draw_builder builder = {};
  kvl_cache* cache;
  kvl_sources sources = {};

  explicit Direct(const std::string& json, uint64_t cache_budget = 0) : cache(kvl_cache_create(cache_budget)) {
    char err[256];
    scene = kvl_scene_parse(json.c_str(), err, sizeof err);
    EXPECT_NE(scene, nullptr) << err;
    resolved.resize(scene->layer_count + 1);
    pool.resize(64 * resolved.size());
    for (int i = 0; i < scene->layer_count; i++)
      kvl_layer_resolve(scene, &scene->layers[i], pool.data() + 64 * i, &resolved[i], 0);
  }
  ~Direct() {
    kvl_draw_builder_free(&builder);
    kvl_cache_free(cache);
    kvl_scene_free(scene);
  }
  const kvl_draw_list* build() {
    kvl_cache_begin_frame(cache);
    return kvl_draw_build(&builder, resolved.data(), scene->layer_count, &sources, 64, 36, cache);
  }
};

TEST(DrawListLayers, SkippedLayersLeaveNoTraceAndSourcesAreBorrowed) {
  Engine e = make(scene(R"(
    {"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 2164260863}, "opacity": 3},
    {"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color"}, "visible": false},
    {"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "video", "path": "clip.mp4"}, "opacity": 0.25},
    {"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "image", "path": "missing.png"}})"));
  ASSERT_EQ(kvl_engine_declare_source(e.get(), "clip.mp4", 100, 100), 0);  // no pixels: lives on the GPU
  const kvl_draw_list* l = draw(e);
  expect_well_formed(l);
  ASSERT_TRUE(l->cmd_count == 3 && l->vertex_count == 12 && l->ref_count == 0);
  const kvl_draw_cmd &color = l->cmds[0], &video = l->cmds[1], &missing = l->cmds[2];
  EXPECT_TRUE(color.source_key == nullptr && color.argb == 0x80FFFFFFu && color.opacity == 1.0f);  // limited to 1
  EXPECT_TRUE(video.source_key == kvl_engine_sources(e.get())->entries[0].key && video.first_vertex == 4);
  EXPECT_FLOAT_EQ(video.opacity, 0.25f);
  EXPECT_FLOAT_EQ(video.cover[0], 12.8f);  // max(1280 / 100, 720 / 100), centred
  EXPECT_FLOAT_EQ(video.cover[2], -280.0f);
  EXPECT_TRUE(missing.source_key == nullptr && missing.argb == 0xFF333333u);
}

TEST(DrawListVertices, PerspectiveWeightsPutTheSurfaceCentreOnTheDiagonals) {
  // A quad seen in perspective, tilted both ways.
  const double q[8] = {60, 15, 140, 25, 185, 92, 12, 80};
  char buf[256];
  snprintf(buf, sizeof buf, R"({"corners": [[%g,%g],[%g,%g],[%g,%g],[%g,%g]], "paint": {"type": "color"}})",
           q[0] / 200, q[1] / 100, q[2] / 200, q[3] / 100, q[4] / 200, q[5] / 100, q[6] / 200, q[7] / 100);
  Engine e = make(scene(buf), 200, 100);
  const kvl_draw_list* l = draw(e);
  expect_well_formed(l);
  ASSERT_EQ(l->vertex_count, 4);
  double xw[4], yw[4], w[4];
  for (int k = 0; k < 4; k++) {
    const float* v = vertex(l, k);
    // Position and surface coordinates as they are; only the weight carries perspective.
    EXPECT_TRUE(std::fabs(v[0] - q[2 * k]) < 1e-4 && std::fabs(v[1] - q[2 * k + 1]) < 1e-4) << k;
    EXPECT_TRUE(v[2] == (k == 1 || k == 2 ? 1280 : 0) && v[3] == (k >= 2 ? 720 : 0)) << k;
    ASSERT_TRUE(std::isfinite(v[4]) && v[4] > 0);
    w[k] = v[4], xw[k] = v[0] * v[4], yw[k] = v[1] * v[4];
  }
  // Homogeneous coordinates are affine in (u, v): opposite corners sum alike.
  EXPECT_NEAR(w[0] + w[2], w[1] + w[3], 1e-5);
  EXPECT_NEAR(xw[0] + xw[2], xw[1] + xw[3], 1e-3);
  EXPECT_NEAR(yw[0] + yw[2], yw[1] + yw[3], 1e-3);
  // Interpolated with perspective, the surface centre lands where the
  // quad's diagonals cross.
  const double cw = (w[0] + w[2]) / 2, cx = (xw[0] + xw[2]) / 2 / cw, cy = (yw[0] + yw[2]) / 2 / cw;
  const double d1x = q[4] - q[0], d1y = q[5] - q[1], d2x = q[6] - q[2], d2y = q[7] - q[3];
  const double t = ((q[2] - q[0]) * d2y - (q[3] - q[1]) * d2x) / (d1x * d2y - d1y * d2x);
  EXPECT_NEAR(cx, q[0] + t * d1x, 1e-3);
  EXPECT_NEAR(cy, q[1] + t * d1y, 1e-3);
}

TEST(DrawListVertices, MeshCellsComeRowByRowAndShareCorners) {
  for (const std::string& m : {mesh(3, 3, "[0.002,-0.001]"), mesh(12, 12, "[0.001,0.002]")}) {
    Engine e = make(scene(quad(m)));
    const kvl_draw_list* l = draw(e);
    expect_well_formed(l);
    ASSERT_EQ(l->cmd_count, 1);
    ASSERT_EQ(l->vertex_count, 576);  // 3 by 3 with 4 subdivisions, or 12 by 12 with 1: 144 cells
    for (int c = 0; c < 144; c++) {
      const int i = c % 12, j = c / 12;
      EXPECT_NEAR(vertex(l, 4 * c)[2], i * 1280.0 / 12, 1e-3);
      EXPECT_NEAR(vertex(l, 4 * c + 2)[3], (j + 1) * 720.0 / 12, 1e-3);
      // Top right here is top left of the right neighbour; bottom left is
      // top left of the cell below.
      EXPECT_TRUE(i == 11 || memcmp(vertex(l, 4 * c + 1), vertex(l, 4 * (c + 1)), 8) == 0) << c;
      EXPECT_TRUE(j == 11 || memcmp(vertex(l, 4 * c + 3), vertex(l, 4 * (c + 12)), 8) == 0) << c;
    }
  }
  // A mesh whose offsets are all zero is no warp: one quad.
  Engine flat = make(scene(quad(mesh(5, 2, "[0,0]"))));
  EXPECT_EQ(draw(flat)->vertex_count, 4);
}

TEST(DrawListEffects, GroupsIsolateEffectsOnlyWhenOpacityOrLumaNeedsIt) {
  // Per case, each command's kind, opacity and luma flag.
  struct Case { const char* extra; std::vector<int32_t> kinds; std::vector<float> opacity; std::vector<int32_t> luma; };
  const Case cases[] = {
      {R"(, "opacity": 0.5, "effects": {"stroke": {}})", {3, 1, 2, 4}, {0.5f, 1, 1, 1}, {0, 0, 0, 0}},
      {R"(, "effects": {"stroke": {}})", {1, 2}, {1, 1}, {0, 0}},
      {R"(, "lumaKey": true, "effects": {"glow": {}})", {3, 2, 1, 4}, {1, 1, 1, 1}, {1, 0, 0, 0}},
      {R"(, "lumaKey": true, "opacity": 0.5)", {1}, {0.5f}, {1}},
      {R"(, "opacity": 0.5, "effects": {"glow": {"radius": 0}})", {1}, {0.5f}, {0}},  // no effect drawn, no group
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.extra);
    Engine e = make(scene(quad(c.extra)));
    const kvl_draw_list* l = draw(e);
    expect_well_formed(l);
    ASSERT_EQ(l->cmd_count, static_cast<int32_t>(c.kinds.size()));
    for (int32_t i = 0; i < l->cmd_count; i++)
      EXPECT_TRUE(l->cmds[i].kind == c.kinds[i] && l->cmds[i].opacity == c.opacity[i] && l->cmds[i].luma == c.luma[i])
          << i;
  }
}

TEST(DrawListEffects, EffectsCarryTheirColourAndShareOneBoxAroundTheOutline) {
  Engine e = make(scene(quad(R"(, "effects": {"shadow": {"argb": 1}, "glow": {"argb": 2},
      "bevel": {"depth": 40, "highlight": 3, "shadow": 4}, "stroke": {"width": 10, "argb": 5}})")));
  const kvl_draw_list* l = draw(e);
  expect_well_formed(l);
  const int fx_at[5] = {0, 1, 3, 4, 5};  // shadow, glow, body, light, dark, stroke
  ASSERT_TRUE(l->cmd_count == 6 && l->ref_count == 5 && l->cmds[2].kind == KVL_CMD_LAYER);
  for (int k = 0; k < 5; k++) {
    const kvl_draw_cmd& c = l->cmds[fx_at[k]];
    EXPECT_TRUE(c.argb == static_cast<uint32_t>(k + 1) && c.mask == k && c.fx_x == l->cmds[0].fx_x &&
                c.fx_y == l->cmds[0].fx_y && l->refs[k].w == l->refs[0].w && l->refs[k].h == l->refs[0].h)
        << k;
    for (int b = 0; b < k; b++) EXPECT_NE(l->refs[k].hash, l->refs[b].hash) << k << " " << b;
  }
}

TEST(DrawListMasks, PolygonRoadClipsAWholeSurfaceRectangle) {
  Engine e = make(scene(R"(
    {"shape": {"kind": "triangle", "vertices": [[0.2,0.1],[0.8,0.3],[0.4,0.9]]}, "paint": {"type": "color"},
     "mask": {"vertices": [[0.08,0.14],[0.94,0.11],[0.5,0.97]], "feather": 6}})"),
                  200, 100);
  const kvl_draw_list* l = draw(e);
  expect_well_formed(l);
  ASSERT_TRUE(l->cmd_count == 1 && l->ref_count == 2);
  const kvl_draw_cmd& c = l->cmds[0];
  // The outline spans x 40..160, y 10..90 pixels.
  EXPECT_TRUE(c.mask == 0 && c.clip == 1 && c.clip_x == 40 && c.clip_y == 10);
  EXPECT_TRUE(l->refs[1].w == 120 && l->refs[1].h == 80);
  // One axis-aligned 16:9 rectangle of the whole surface, centred on the box.
  const float *v0 = vertex(l, 0), *v1 = vertex(l, 1), *v2 = vertex(l, 2), *v3 = vertex(l, 3);
  EXPECT_TRUE(v0[1] == v1[1] && v1[0] == v2[0] && v2[1] == v3[1] && v3[0] == v0[0]);
  EXPECT_NEAR((v1[0] - v0[0]) / (v3[1] - v0[1]), 16.0 / 9.0, 1e-4);
  EXPECT_NEAR((v0[0] + v1[0]) / 2, 100.0, 1e-3);
  EXPECT_NEAR((v0[1] + v3[1]) / 2, 50.0, 1e-3);
  const float uvw[4][3] = {{0, 0, 1}, {1280, 0, 1}, {1280, 720, 1}, {0, 720, 1}};
  for (int k = 0; k < 4; k++) EXPECT_EQ(memcmp(vertex(l, k) + 2, uvw[k], sizeof uvw[k]), 0) << k;
}

TEST(DrawListMasks, RememberedHashesFollowTheCacheKeyNotTheSlot) {
  // Room for one surface mask: each change of the mask evicts the last one,
  // and the reference slot stays the same, so a hash remembered by slot or
  // by buffer address would go stale.
  Direct d(scene(quad(R"(, "mask": {"vertices": [[0.1,0.1],[0.9,0.2],[0.4,0.9]]})")), 921600);
  std::vector<uint64_t> seen;
  for (int frame = 0; frame < 12; frame++) {
    d.scene->layers[0].mask_feather = (frame / 2) % 3 * 5.0;  // 0, 0, 5, 5, 10, 10, 0, 0, ...
    const kvl_draw_list* l = d.build();
    expect_well_formed(l);  // every hash against the bytes it names
    ASSERT_EQ(l->ref_count, 1);
    seen.push_back(l->refs[0].hash);
  }
  EXPECT_EQ(d.cache->count, 1);
  EXPECT_TRUE(seen[0] != seen[2] && seen[2] != seen[4] && seen[0] == seen[6] && seen[2] == seen[3]);
}

TEST(DrawListRobustness, DegenerateHugeAndNonFiniteInputIsHarmless) {
  const char* cases[] = {
      R"({"corners": [[0.5,0.5],[0.5,0.5],[0.5,0.5],[0.5,0.5]], "paint": {"type": "color"},
          "effects": {"stroke": {}}})",
      R"({"corners": [[0,0],[1,0],[2,0],[3,0]], "paint": {"type": "color"}})",
      R"({"corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color"}, "mask": {"vertices": [[0,0],[0,0],[0,0]]},
          "effects": {"shadow": {"dx": 1e12, "blur": 1e9}, "bevel": {"depth": 1e9}, "stroke": {"width": 1e9}}})",
  };
  for (const char* c : cases) {
    SCOPED_TRACE(c);
    Engine e = make(scene(c), 64, 36);
    for (int k = 0; k < 2; k++) expect_well_formed(draw(e));
  }
  // Values that JSON cannot carry, put straight into the resolved vertices.
  Direct d(scene(quad(R"(, "effects": {"stroke": {}}, "mask": {"vertices": [[0,0],[0.9,0],[0,0.9]]})") + "," +
                 R"({"shape": {"kind": "polygon", "vertices": [[0.1,0.1],[0.9,0.1],[0.5,0.9],[0.2,0.5]]},
                     "paint": {"type": "color"}, "effects": {"glow": {}}})" +
                 "," + quad(mesh(2, 2, "[0.1,0]"))));
  for (double v : {double(NAN), double(INFINITY), -double(INFINITY), 1e308})
    for (int layer = 0; layer < 3; layer++) {
      SCOPED_TRACE(std::to_string(v) + " layer " + std::to_string(layer));
      const double saved = d.resolved[layer].vertices[1];
      d.resolved[layer].vertices[1] = v;
      expect_well_formed(d.build());
      d.resolved[layer].vertices[1] = saved;
    }
  expect_well_formed(d.build());
  EXPECT_EQ(d.builder.prep_count, 3);
}

TEST(DrawListRobustness, RandomScenesGiveWellFormedRepeatableLists) {
  rscene::Rng rng(11);
  const char* kinds[] = {"quad", "ellipse", "triangle", "polygon"};
  int seen[5] = {}, clips = 0, masks = 0;  // the mix does reach every case
  for (int round = 0; round < 6; round++) {
    std::string layers;
    for (int i = 0; i < 12; i++) {
      const int kind = static_cast<int>(rng.uni(0, 4));
      const int n = kind == 2 ? 3 : kind == 3 ? static_cast<int>(rng.uni(3, 7)) : 4;
      std::string m = R"({"shape": {"kind": ")" + std::string(kinds[kind]) + R"(", "vertices": [)";
      for (int k = 0; k < n; k++) {
        char b[96];
        snprintf(b, sizeof b, R"(%s{"x": %.3f, "y": %.3f%s})", k ? "," : "", rng.uni(-0.3, 1.3), rng.uni(-0.3, 1.3),
                 rng.chance(0.2) ? R"(, "out": [0.1,-0.05])" : "");
        m += b;
      }
      m += rng.chance(0.5) ? R"(]}, "paint": {"type": "color"})" : R"(]}, "paint": {"type": "image", "path": "a.png"})";
      m += ", \"opacity\": " + std::to_string(rng.uni(-0.2, 1.2)) + (rng.chance(0.3) ? R"(, "lumaKey": true)" : "");
      if (rng.chance(0.3)) m += mesh(static_cast<int>(rng.uni(1, 5)), static_cast<int>(rng.uni(1, 5)), "[0.01,-0.02]");
      if (rng.chance(0.3)) m += R"(, "mask": {"vertices": [[0.1,0.2],[0.9,0.1],[0.6,0.8]], "feather": 3})";
      if (rng.chance(0.4))
        m += R"(, "effects": {"shadow": {"dx": 5, "blur": 2}, "stroke": {"width": 3}, "bevel": {"depth": 30}})";
      layers += (i ? "," : "") + m + "}";
    }
    SCOPED_TRACE(layers);
    Engine e = make(scene(layers), 96, 54);
    std::vector<uint8_t> px(16 * 16 * 4, 90);
    kvl_engine_set_source(e.get(), "a.png", px.data(), 16, 16, 64);
    const kvl_draw_list* l = draw(e);
    expect_well_formed(l);
    const std::vector<kvl_draw_cmd> cmds(l->cmds, l->cmds + l->cmd_count);
    for (const kvl_draw_cmd& c : cmds)
      seen[c.kind]++, clips += c.clip >= 0, masks += c.kind == KVL_CMD_LAYER && c.mask >= 0;
    const std::vector<float> verts(l->vertices, l->vertices + 5 * l->vertex_count);
    l = draw(e);
    ASSERT_EQ(l->cmd_count, static_cast<int32_t>(cmds.size()));
    EXPECT_EQ(memcmp(l->cmds, cmds.data(), cmds.size() * sizeof(kvl_draw_cmd)), 0);
    EXPECT_EQ(std::vector<float>(l->vertices, l->vertices + 5 * l->vertex_count), verts);
  }
  EXPECT_TRUE(seen[1] > 20 && seen[2] > 0 && seen[3] > 0 && clips > 0 && masks > 0)
      << seen[1] << " " << seen[2] << " " << seen[3] << " " << clips << " " << masks;
}

TEST(DrawBuilder, ArraysGrowStayPutAcrossBuildsAndSurviveResetAndFree) {
  std::string layers = R"({"corners": [[0,0],[1,0],[1,1],[0,1]]})";  // paint none: its slot is reused
  for (int i = 0; i < 70; i++) layers += "," + quad();
  layers += "," + quad(mesh(12, 12, "[0.001,0]")) +
            "," + quad(R"(, "mask": {"vertices": [[0,0],[0.8,0],[0,0.8]]}, "effects": {"stroke": {}})");
  Direct d(scene(layers));
  const kvl_draw_list* l = d.build();
  expect_well_formed(l);
  ASSERT_TRUE(l->cmd_count == 73 && l->vertex_count == 71 * 4 + 576 && l->ref_count == 2);
  ASSERT_EQ(d.builder.prep_count, 72);
  EXPECT_TRUE(d.builder.preps[0].resolved == &d.resolved[1] && l == &d.builder.list);

  // Rebuilding the same frame keeps every array where it was.
  const void *cmds = l->cmds, *verts = l->vertices, *refs = l->refs;
  const std::vector<float> before(l->vertices, l->vertices + 5 * l->vertex_count);
  l = d.build();
  EXPECT_TRUE(l->cmds == cmds && l->vertices == verts && l->refs == refs);
  EXPECT_EQ(std::vector<float>(l->vertices, l->vertices + 5 * l->vertex_count), before);

  kvl_draw_builder_reset(&d.builder);
  expect_well_formed(d.build());
  kvl_draw_builder_free(&d.builder);
  const kvl_draw_builder zero = {};
  EXPECT_EQ(memcmp(&d.builder, &zero, sizeof zero), 0);
  kvl_draw_builder_free(&d.builder);  // twice is harmless
  expect_well_formed(d.build());
  EXPECT_EQ(d.builder.cmd_count, 73);

  EXPECT_EQ(kvl_draw_build(nullptr, nullptr, 0, nullptr, 10, 10, nullptr), nullptr);
  kvl_draw_builder_reset(nullptr);
  kvl_draw_builder_free(nullptr);
  kvl_draw_builder b = {};
  EXPECT_EQ(kvl_draw_build(&b, nullptr, 5, nullptr, 10, 10, nullptr)->cmd_count, 0);
  EXPECT_EQ(kvl_draw_build(&b, d.resolved.data(), -3, &d.sources, 64, 36, nullptr)->cmd_count, 0);
  // Without a cache every mask stays with its prepared layer, and the list
  // still refers to it.
  l = kvl_draw_build(&b, d.resolved.data(), d.scene->layer_count, &d.sources, 64, 36, nullptr);
  expect_well_formed(l);
  EXPECT_EQ(l->ref_count, 2);
  kvl_draw_builder_free(&b);
}

}  // namespace
