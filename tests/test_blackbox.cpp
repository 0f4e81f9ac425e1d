// Outside callers bind libkavlen_engine.so with dlopen/dlsym and declare the
// records themselves, field by field. This test does exactly that: it has its
// own copies of the records (namespace bb), reaches every function by name,
// and reads the results through those copies, so a reordered field, a changed
// width or a lost export breaks it even when the project's own headers still
// agree with the code.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "kavlen/kavlen.h"  // only for the offset cross-check below

namespace bb {

struct kvl_vertex { double x, y; bool has_in, has_out; double in_x, in_y, out_x, out_y; };
struct kvl_paint { int32_t kind; uint32_t argb; char* ref; };
struct kvl_keyframe { char* prop; int64_t time_ms; double value; int32_t easing; };
struct kvl_clip {
  int64_t start_ms, length_ms; kvl_paint paint; double opacity;
  int64_t fade_in_ms, fade_out_ms, trim_start_ms; double speed; bool loop; bool has_media_duration;
  int64_t media_duration_ms;
};
struct kvl_modulation {
  char* id; int32_t source; char* prop; int32_t mode; double min, max, attack_ms, release_ms;
  bool enabled; char* track;
};
struct kvl_layer {
  char* id; char* group_id; char* output; int32_t shape; int32_t vertex_count; kvl_vertex* vertices;
  kvl_paint paint; double opacity; bool visible; bool luma_key;
  double content_x, content_y, content_scale, content_rotation;
  int32_t keyframe_count; kvl_keyframe* keyframes; int32_t clip_count; kvl_clip* clips;
  bool has_mask; int32_t mask_vertex_count; kvl_vertex* mask_vertices; double mask_feather; bool mask_inverted;
  bool has_mesh; int32_t mesh_cols, mesh_rows; double* mesh_offsets;
  bool has_stroke, has_shadow, has_glow, has_bevel;
  double stroke_width; uint32_t stroke_argb; double shadow_dx, shadow_dy, shadow_blur; uint32_t shadow_argb;
  double glow_radius; uint32_t glow_argb; double bevel_depth; uint32_t bevel_highlight, bevel_shadow;
  int32_t modulation_count; kvl_modulation* modulations;
};
struct kvl_group { char* id; bool visible; double opacity; };
struct kvl_output { char* id; double width, height; };
struct kvl_audio_clip { int64_t start_ms, length_ms, trim_start_ms, fade_in_ms, fade_out_ms; char* path; };
struct kvl_audio_track { char* id; bool muted; bool is_input; int32_t clip_count; kvl_audio_clip* clips; };
struct kvl_scene {
  int32_t layer_count; kvl_layer* layers; int32_t group_count; kvl_group* groups;
  int32_t output_count; kvl_output* outputs; int32_t track_count; kvl_audio_track* tracks;
};
struct kvl_resolved {
  const kvl_layer* layer; kvl_paint paint; double opacity; bool visible; bool has_media_time;
  double media_time_ms; double media_speed; double* vertices;
  double content_x, content_y, content_scale, content_rotation;
  bool has_stroke, has_shadow, has_glow, has_bevel;
  double stroke_width; uint32_t stroke_argb; double shadow_dx, shadow_dy, shadow_blur; uint32_t shadow_argb;
  double glow_radius; uint32_t glow_argb; double bevel_depth; uint32_t bevel_highlight, bevel_shadow;
};
struct kvl_media_need { const char* key; int64_t media_us; double speed; };
struct kvl_h { double m[9]; };
struct kvl_cache_entry { uint64_t key; uint8_t* data; uint64_t size; uint64_t last_used; };
struct kvl_cache {
  kvl_cache_entry* entries; int32_t count, capacity; uint64_t bytes_used, byte_budget, frame, hits, misses;
};
struct kvl_source { char* key; uint8_t* pixels; int32_t width, height; };
struct kvl_sources { int32_t count; kvl_source* entries; };
struct kvl_draw_cmd {
  int32_t kind; const char* source_key; uint32_t argb; float inv_content[6]; float cover[3];
  int32_t mask, ellipse, luma; float opacity; int32_t first_vertex, layer_vertex_count, clip;
  float clip_x, clip_y, fx_x, fx_y;
};
struct kvl_draw_ref { const uint8_t* data; int32_t w, h; uint64_t hash; };
struct kvl_draw_list {
  kvl_draw_cmd* cmds; int32_t cmd_count; float* vertices; int32_t vertex_count; kvl_draw_ref* refs; int32_t ref_count;
};
struct kvl_audio_state { float level, bass, mid, high, beat, bpm; uint32_t beat_count, live; };
struct kvl_signals { float frame_rate, start_ms, tempo; uint32_t frame_count; uint8_t* frames; };

}  // namespace bb

// The copies above must also agree with the headers that the library is built
// from; a mismatch here points at the header, a runtime failure below at the code.
#define SAME_AT(T, f) static_assert(offsetof(bb::T, f) == offsetof(::T, f), #T "." #f)
#define SAME_SIZE(T) static_assert(sizeof(bb::T) == sizeof(::T), #T)
SAME_SIZE(kvl_vertex); SAME_AT(kvl_vertex, has_in); SAME_AT(kvl_vertex, out_y);
SAME_SIZE(kvl_paint); SAME_AT(kvl_paint, ref);
SAME_SIZE(kvl_keyframe); SAME_AT(kvl_keyframe, easing);
SAME_SIZE(kvl_clip); SAME_AT(kvl_clip, paint); SAME_AT(kvl_clip, speed); SAME_AT(kvl_clip, media_duration_ms);
SAME_SIZE(kvl_modulation); SAME_AT(kvl_modulation, mode); SAME_AT(kvl_modulation, enabled); SAME_AT(kvl_modulation, track);
SAME_SIZE(kvl_layer); SAME_AT(kvl_layer, paint); SAME_AT(kvl_layer, luma_key); SAME_AT(kvl_layer, keyframes);
SAME_AT(kvl_layer, mask_inverted); SAME_AT(kvl_layer, mesh_offsets); SAME_AT(kvl_layer, has_bevel);
SAME_AT(kvl_layer, shadow_argb); SAME_AT(kvl_layer, bevel_shadow); SAME_AT(kvl_layer, modulations);
SAME_SIZE(kvl_group); SAME_SIZE(kvl_output); SAME_SIZE(kvl_audio_clip); SAME_SIZE(kvl_audio_track);
SAME_AT(kvl_audio_track, clip_count); SAME_SIZE(kvl_scene); SAME_AT(kvl_scene, tracks);
SAME_SIZE(kvl_resolved); SAME_AT(kvl_resolved, visible); SAME_AT(kvl_resolved, vertices);
SAME_AT(kvl_resolved, stroke_argb); SAME_AT(kvl_resolved, bevel_shadow);
SAME_SIZE(kvl_media_need); SAME_SIZE(kvl_h); SAME_SIZE(kvl_cache_entry); SAME_SIZE(kvl_cache);
SAME_AT(kvl_cache, bytes_used); SAME_AT(kvl_cache, misses); SAME_SIZE(kvl_source); SAME_SIZE(kvl_sources);
SAME_SIZE(kvl_draw_cmd); SAME_AT(kvl_draw_cmd, mask); SAME_AT(kvl_draw_cmd, clip); SAME_AT(kvl_draw_cmd, fx_y);
SAME_SIZE(kvl_draw_ref); SAME_SIZE(kvl_draw_list); SAME_AT(kvl_draw_list, ref_count);
SAME_SIZE(kvl_audio_state); SAME_SIZE(kvl_signals);
static_assert(sizeof(bb::kvl_audio_state) == 32, "the analyser's result is 32 bytes");

// The tests live inside bb so that the design's record names mean the copies
// above, not the project's own declarations.
namespace bb {
namespace {

template <typename F>
F sym(const char* name) {
  static void* so = dlopen(KAVLEN_ENGINE_SO, RTLD_NOW | RTLD_LOCAL);
  void* p = so ? dlsym(so, name) : nullptr;
  if (!p) {  // calling through a null pointer would only crash later, without a name
    fprintf(stderr, "libkavlen_engine.so does not export %s\n", name);
    abort();
  }
  return reinterpret_cast<F>(p);
}

using parse_fn = kvl_scene* (*)(const char*, char*, int32_t);
using free_fn = void (*)(kvl_scene*);
using resolve_fn = void (*)(const kvl_scene*, const kvl_layer*, double*, kvl_resolved*, double);

struct Engine {
  void* h;
  explicit Engine(const char* json) : h(sym<void* (*)(const char*, int32_t, int32_t, const char*)>("kvl_engine_create")(json, 64, 36, nullptr)) {}
  ~Engine() { sym<void (*)(void*)>("kvl_engine_destroy")(h); }
};

// Table-driven field checks: {read through the copies, expected}. Every
// expected value differs from the field's default, so a field read at the
// wrong offset shows up as a wrong number rather than a lucky default.
void expect_all(const std::vector<std::pair<double, double>>& nums,
                const std::vector<std::pair<const char*, const char*>>& strs = {}) {
  for (size_t i = 0; i < nums.size(); i++) EXPECT_EQ(nums[i].first, nums[i].second) << "number " << i;
  for (size_t i = 0; i < strs.size(); i++) EXPECT_STREQ(strs[i].first, strs[i].second) << "text " << i;
}

TEST(BlackBoxLayout, ParsedSceneReadsBackThroughTheDesignRecords) {
  const char* doc = R"({"outputs": [{"id": "o1", "resolution": [640, 0]}], "groups": [{"id": "g", "opacity": 0.25}],
    "audioTracks": [{"id": "t", "muted": true, "input": {}, "clips": [{"fadeOutMs": 5, "path": "a.wav"}]}],
    "mappings": [{"id": "L", "groupId": "g", "output": "o1", "opacity": 7, "visible": false, "lumaKey": true,
      "shape": {"kind": "triangle", "vertices": [[0.1, 0.2], {"x": 0.3, "y": 0.4, "in": [0.5], "out": [0.6, 0.7]}, 5]},
      "paint": {"type": "asset_video", "asset": "clip.mov"}, "content": {"y": -0.2, "rotation": 45},
      "keyframes": [{"prop": "c1y", "timeMs": -2.7, "value": 9, "easing": "hold"}],
      "clips": [{"lengthMs": 20, "paint": {"type": "text"}, "trimStartMs": 3, "speed": -1.5, "loop": true,
                 "mediaDurationMs": 99.9}],
      "mask": {"vertices": [[0, 0], [1, 0], [0, 1]], "feather": 2.5, "inverted": true},
      "mesh": {"cols": 1.9, "rows": 2, "offsets": [[1,2],[3,4],[5,6],[7,8],[9,10],[11,12]]},
      "effects": {"shadow": {"blur": 3, "argb": 4294967296}, "bevel": {"highlight": -1}},
      "modulations": [{"source": "x"}, {"id": "m", "source": "beat", "mode": "add", "max": 0.9, "releaseMs": 2.5,
                       "enabled": false, "track": "t"}]}]})";
  char err[64] = "untouched";
  kvl_scene* s = sym<parse_fn>("kvl_scene_parse")(doc, err, sizeof err);
  ASSERT_NE(s, nullptr) << err;
  for (int32_t n : {s->output_count, s->group_count, s->track_count, s->layer_count}) ASSERT_EQ(n, 1);
  const kvl_audio_track& t = s->tracks[0];
  const kvl_layer& l = s->layers[0];
  ASSERT_EQ(l.vertex_count, 3);
  // The unknown modulation source takes no slot.
  for (int32_t n : {t.clip_count, l.keyframe_count, l.clip_count, l.modulation_count}) ASSERT_EQ(n, 1);
  const kvl_clip& c = l.clips[0];
  const kvl_modulation& m = l.modulations[0];
  expect_all({{s->outputs[0].width, 640}, {s->outputs[0].height, 1080}, {s->groups[0].opacity, 0.25}, {t.muted, 1},
              {t.is_input, 1}, {t.clips[0].fade_out_ms, 5}, {l.shape, 2}, {l.vertices[0].y, 0.2},
              {l.vertices[0].has_in, 0}, {l.vertices[1].has_in, 1}, {l.vertices[1].in_x, 0},  // a short handle array counts
              {l.vertices[1].out_y, 0.7}, {l.vertices[2].x, 0},  // neither array nor object: (0, 0)
              {l.paint.kind, 4}, {l.opacity, 7}, {l.visible, 0}, {l.luma_key, 1}, {l.content_y, -0.2},
              {l.content_rotation, 45}, {l.keyframes[0].time_ms, -2} /* toward zero */, {l.keyframes[0].easing, 4},
              {c.length_ms, 20}, {c.paint.kind, 5}, {c.trim_start_ms, 3}, {c.speed, -1.5}, {c.loop, 1},
              {c.has_media_duration, 1}, {c.media_duration_ms, 99}, {l.mask_vertex_count, 3}, {l.mask_feather, 2.5},
              {l.mask_inverted, 1}, {l.mesh_cols, 1}, {l.mesh_rows, 2}, {l.mesh_offsets[11], 12}, {l.has_stroke, 0},
              {l.has_shadow, 1}, {l.has_bevel, 1}, {l.shadow_blur, 3}, {l.shadow_argb, 0xFFFFFFFFu} /* saturates */,
              {l.bevel_highlight, 0} /* -1 reads as 0 */, {l.bevel_shadow, 0xB3000000u}, {m.source, 4}, {m.mode, 1},
              {m.max, 0.9}, {m.release_ms, 2.5}, {m.enabled, 0}},
             {{s->outputs[0].id, "o1"}, {t.clips[0].path, "a.wav"}, {l.id, "L"}, {l.group_id, "g"}, {l.output, "o1"},
              {l.paint.ref, "clip.mov"}, {l.keyframes[0].prop, "c1y"}, {c.paint.ref, "text:L#0"}, {m.track, "t"}});
  sym<free_fn>("kvl_scene_free")(s);
}

TEST(BlackBoxLayout, ResolvedRecordOfALoopingClipInAHiddenGroup) {
  const char* doc = R"({"groups": [{"id": "g", "visible": false, "opacity": 0.5}],
    "mappings": [{"id": "v", "groupId": "g", "corners": [[0,0],[1,0],[1,1],[0,1]], "effects": {"glow": {"argb": 16}},
      "keyframes": [{"prop": "glowRadius", "timeMs": 0, "value": 10}, {"prop": "glowRadius", "timeMs": 4000, "value": 50},
                    {"prop": "c2x", "timeMs": 0, "value": 0.75}],
      "clips": [{"startMs": 1000, "lengthMs": 10000, "paint": {"type": "video", "path": "m.mp4"}, "opacity": 0.8,
                 "trimStartMs": 1000, "speed": 2, "loop": true, "mediaDurationMs": 5000}]}]})";
  kvl_scene* s = sym<parse_fn>("kvl_scene_parse")(doc, nullptr, 0);
  ASSERT_NE(s, nullptr);
  double verts[8] = {};
  kvl_resolved r;
  memset(&r, 0xAB, sizeof r);
  sym<resolve_fn>("kvl_layer_resolve")(s, &s->layers[0], verts, &r, 4000.0);
  EXPECT_EQ(r.layer, &s->layers[0]);
  EXPECT_EQ(r.paint.ref, s->layers[0].clips[0].paint.ref);  // borrowed, not copied
  EXPECT_EQ(r.vertices, verts);
  // The hidden group's opacity still multiplies; the media time wraps in the loop after the trim.
  expect_all({{r.paint.kind, 3}, {r.visible, 0}, {r.opacity, 0.8 * 0.5}, {r.has_media_time, 1}, {r.media_time_ms, 3000},
              {r.media_speed, 2}, {verts[4], 0.75}, {verts[5], 1}, {r.content_scale, 1}, {r.has_stroke, 0},
              {r.has_glow, 1}, {r.glow_radius, 50}, {r.glow_argb, 16}, {r.bevel_highlight, s->layers[0].bevel_highlight}});
  sym<free_fn>("kvl_scene_free")(s);
}

TEST(BlackBoxEngine, OutputChosenAtCreationOutlivesSceneChanges) {
  // Created without an id, the handle binds to the first output of the scene it
  // starts with; a later scene whose first output is another one does not move it.
  Engine e(R"({"outputs": [{"id": "left"}], "mappings": [{"id": "a"}]})");
  ASSERT_NE(e.h, nullptr);
  auto count = sym<int32_t (*)(const void*)>("kvl_engine_layer_count");
  auto set_scene = sym<int32_t (*)(void*, const char*)>("kvl_engine_set_scene");
  EXPECT_EQ(count(e.h), 1);
  ASSERT_EQ(set_scene(e.h, R"({"outputs": [{"id": "right"}, {"id": "left"}], "mappings": [{"id": "a"}]})"), 0);
  EXPECT_EQ(count(e.h), 0);
  ASSERT_EQ(set_scene(e.h, R"({"outputs": [{"id": "right"}], "mappings": [{"id": "a", "output": "left"}]})"), 0);
  EXPECT_EQ(count(e.h), 1);
}

TEST(BlackBoxEngine, MediaNeedsFollowVisibilityRoundAwayFromZeroAndSaturate) {
  // Speeds of 0.0009 put the position between whole microseconds, so truncation
  // and rounding differ; beyond the int64 range positions saturate, keeping the sign.
  const char* doc = R"({"groups": [{"id": "off", "visible": false}],
    "mappings": [
      {"id": "hidden", "groupId": "off", "paint": {"type": "video", "path": "a.mp4"}},
      {"id": "c", "paint": {"type": "color"}},
      {"id": "up", "opacity": 0, "clips": [{"lengthMs": 100, "speed": 0.0009, "paint": {"type": "video", "path": "a.mp4"}}]},
      {"id": "down", "clips": [{"lengthMs": 100, "speed": -0.0009, "paint": {"type": "asset_video", "asset": "b"}}]},
      {"id": "t", "paint": {"type": "text"}},
      {"id": "again", "paint": {"type": "video", "path": "a.mp4"}},
      {"id": "f", "clips": [{"lengthMs": 100, "speed": 1e300, "paint": {"type": "video", "path": "f"}}]},
      {"id": "g", "clips": [{"lengthMs": 100, "speed": -1e300, "paint": {"type": "video", "path": "g"}}]},
      {"id": "n", "clips": [{"lengthMs": 100, "speed": 1e999, "paint": {"type": "video", "path": "n"}}]}
    ]})";
  Engine e(doc);
  ASSERT_NE(e.h, nullptr);
  auto media_at = sym<int32_t (*)(void*, int64_t, kvl_media_need*, int32_t)>("kvl_engine_media_at");
  kvl_media_need need[8] = {};
  ASSERT_EQ(media_at(e.h, 1000, need, 8), 6);
  const struct { const char* key; int64_t us; } want[] = {
      {"a.mp4", 1}, {"b", -1}, {"text:t", 0}, {"f", INT64_MAX}, {"g", INT64_MIN}, {"n", INT64_MAX}};
  for (int i = 0; i < 6; i++) {  // an infinite speed runs to the end as well
    EXPECT_STREQ(need[i].key, want[i].key) << i;
    EXPECT_EQ(need[i].media_us, want[i].us) << i;
  }
  EXPECT_TRUE(need[0].speed == 0.0009 && need[2].speed == 1.0);
  // With no room nothing is compared: every visible layer with a key counts.
  EXPECT_EQ(media_at(e.h, 1000, nullptr, 0), 7);
}

TEST(BlackBoxEngine, DrawListAndSourceTableThroughTheDesignRecords) {
  Engine e(R"({"mappings": [
    {"id": "a", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 4278255360}},
    {"id": "b", "opacity": 0.5, "corners": [[0,0],[0.5,0],[0.5,0.5],[0,0.5]], "paint": {"type": "image", "path": "img"}}]})");
  ASSERT_NE(e.h, nullptr);
  const uint8_t px[2 * 4] = {1, 2, 3, 4, 5, 6, 7, 8};
  using set_source_fn = int32_t (*)(void*, const char*, const uint8_t*, int32_t, int32_t, int32_t);
  ASSERT_EQ(sym<set_source_fn>("kvl_engine_set_source")(e.h, "img", px, 2, 1, 8), 0);
  ASSERT_EQ(sym<int32_t (*)(void*, const char*, int32_t, int32_t)>("kvl_engine_declare_source")(e.h, "later", 3, 5), 0);
  const kvl_sources* src = sym<kvl_sources* (*)(void*)>("kvl_engine_sources")(e.h);
  ASSERT_TRUE(src && src->count == 2 && src->entries[0].pixels && !src->entries[1].pixels);
  EXPECT_STREQ(src->entries[0].key, "img");
  const kvl_draw_list* list = sym<const kvl_draw_list* (*)(void*, int64_t)>("kvl_engine_draw_list")(e.h, 0);
  ASSERT_TRUE(list && list->cmd_count == 2);
  const kvl_draw_cmd &solid = list->cmds[0], &image = list->cmds[1];
  EXPECT_EQ(solid.source_key, nullptr);
  EXPECT_EQ(image.source_key, src->entries[0].key);  // borrowed from the source table
  // Vertex 2 of the second quad: bottom right, in pixels, surface units and weight.
  const float* v = list->vertices + (4 + 2) * 5;
  expect_all({{src->entries[0].pixels[7], 8}, {src->entries[1].width, 3}, {src->entries[1].height, 5},
              {list->vertex_count, 8}, {list->ref_count, 0}, {solid.kind, 1}, {solid.argb, 0xFF00FF00u},
              {solid.mask, -1}, {solid.clip, -1}, {solid.opacity, 1}, {solid.first_vertex, 0},
              {solid.layer_vertex_count, 4}, {solid.inv_content[0], 1} /* unscaled, unturned content */,
              {image.opacity, 0.5}, {image.first_vertex, 4}, {image.cover[0], 720} /* max(1280 / 2, 720 / 1) */,
              {v[0], 32}, {v[1], 18}, {v[2], 1280}, {v[3], 720}, {v[4], 1}});
}

TEST(BlackBoxGeom, HomographyByValueAndMeshThroughALayerRecord) {
  const double trapezoid[8] = {0.1, 0.1, 0.9, 0.2, 0.7, 0.8, 0.2, 0.9};
  kvl_h h = sym<kvl_h (*)(const double*)>("kvl_h_unit_to_quad")(trapezoid);
  double x = 0, y = 0;
  sym<void (*)(const kvl_h*, double, double, double*, double*)>("kvl_h_apply")(&h, 1, 1, &x, &y);
  EXPECT_TRUE(std::fabs(x - 0.7) < 1e-12 && std::fabs(y - 0.8) < 1e-12) << x << " " << y;
  // The mesh routines read a layer record: only the mesh fields matter.
  double offsets[8] = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8};
  kvl_layer mesh{};
  mesh.has_mesh = true;
  mesh.mesh_cols = mesh.mesh_rows = 1;
  mesh.mesh_offsets = offsets;
  double dx = 0, dy = 0;
  sym<void (*)(const kvl_layer*, double, double, double*, double*)>("kvl_mesh_offset_at")(&mesh, 1, 1, &dx, &dy);
  EXPECT_TRUE(std::fabs(dx - 0.7) < 1e-12 && std::fabs(dy - 0.8) < 1e-12) << dx << " " << dy;
  mesh.mesh_cols = 12;
  EXPECT_EQ(sym<int32_t (*)(const kvl_layer*)>("kvl_mesh_subdivisions")(&mesh), 1);
}

}  // namespace
}  // namespace bb
