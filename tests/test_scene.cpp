// The scene document: defaults for every missing or mistyped value, number
// conversions at the edges, generated text keys, dropped modulations, mesh
// limits, the invalid-JSON message and clean failure when memory runs out.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kavlen/kavlen.h"

// ---------------------------------------------------------------------------
// Allocation fault injection. The test binary interposes malloc for the whole
// process (the engine's shared library and cJSON included) and, while armed,
// fails the n-th allocation and counts what stays allocated. Sanitizer
// runtimes own malloc themselves, so there the hook is left out. The symbols
// are weak so that another test file with the same idea cannot break the link;
// the test notices when its hook is not the one in force and skips.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVL_TEST_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KVL_TEST_NO_MALLOC_HOOK 1
#endif
#endif

namespace {
std::atomic<bool> g_armed{false};
std::atomic<long> g_allocs_left{-1};  // allocations that may still succeed while armed
std::atomic<long> g_live{0};          // allocations made while armed and not yet freed
std::atomic<long> g_seen{0};          // allocation calls seen while armed
}  // namespace

#ifndef KVL_TEST_NO_MALLOC_HOOK
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

// True when this allocation must fail.
static bool inject_failure() {
  g_seen.fetch_add(1, std::memory_order_relaxed);
  return g_allocs_left.fetch_sub(1, std::memory_order_relaxed) == 0;
}

__attribute__((weak)) void* malloc(size_t n) noexcept {
  if (!g_armed.load(std::memory_order_relaxed)) return __libc_malloc(n);
  if (inject_failure()) return nullptr;
  void* p = __libc_malloc(n);
  if (p) g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

__attribute__((weak)) void* calloc(size_t n, size_t size) noexcept {
  if (!g_armed.load(std::memory_order_relaxed)) return __libc_calloc(n, size);
  if (inject_failure()) return nullptr;
  void* p = __libc_calloc(n, size);
  if (p) g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

__attribute__((weak)) void* realloc(void* old, size_t n) noexcept {
  if (!g_armed.load(std::memory_order_relaxed)) return __libc_realloc(old, n);
  if (inject_failure()) return nullptr;
  void* p = __libc_realloc(old, n);
  if (p && !old) g_live.fetch_add(1, std::memory_order_relaxed);
  if (!p && old && n == 0) g_live.fetch_sub(1, std::memory_order_relaxed);
  return p;
}

__attribute__((weak)) void free(void* p) noexcept {
  if (p && g_armed.load(std::memory_order_relaxed)) g_live.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(p);
}
}
#endif

namespace {

struct SceneDeleter {
  void operator()(kvl_scene* s) const { kvl_scene_free(s); }
};
using Scene = std::unique_ptr<kvl_scene, SceneDeleter>;

Scene parse(const std::string& json) {
  char err[256] = "";
  Scene s(kvl_scene_parse(json.c_str(), err, sizeof err));
  EXPECT_TRUE(s) << err;
  return s;
}

// One layer from a mapping object.
Scene parse_layer(const std::string& mapping) {
  Scene s = parse("{\"mappings\":[" + mapping + "]}");
  if (s) {
    EXPECT_EQ(s->layer_count, 1);
  }
  return s;
}

const char kPrefix[] = "JSON inválido perto de: ";

// Uses every part of the document, for the out-of-memory sweep.
const char kFullScene[] = R"({
  "outputs": [{"id": "left", "resolution": [1280, 720]}, {"id": "right"}],
  "groups": [{"id": "g", "visible": true, "opacity": 0.5}],
  "audioTracks": [{"id": "t", "input": {}, "clips": [{"startMs": 1, "path": "a.wav"}]}],
  "mappings": [
    {"id": "a", "groupId": "g", "output": "left",
     "shape": {"kind": "polygon", "vertices": [[0, 0], {"x": 1, "y": 0, "in": [0.1, 0.2]}, [1, 1]]},
     "paint": {"type": "text"},
     "keyframes": [{"prop": "c0x", "timeMs": 0, "value": 0.5}, {"prop": "opacity", "timeMs": 10}],
     "clips": [{"startMs": 0, "lengthMs": 10, "paint": {"type": "video", "path": "v.mp4"}},
               {"startMs": 0, "lengthMs": 10, "paint": {"type": "text"}}],
     "mask": {"vertices": [[0, 0], [1, 1], [0, 1]], "feather": 3},
     "effects": {"stroke": {}, "shadow": {}, "glow": {}, "bevel": {}},
     "modulations": [{"id": "m", "source": "bass", "prop": "opacity", "track": "t"}],
     "mesh": {"cols": 1, "rows": 1, "offsets": [[0, 0], [0, 0], [0, 0], [0.1, 0.1]]}},
    {"id": "b", "corners": [[0, 0], [1, 0], [1, 1]], "paint": {"type": "asset_video", "asset": "x"}}
  ]})";

// ---------------------------------------------------------------------------
// Top level, outputs and resolution.

TEST(SceneParseTop, EmptyObjectGivesOneMainOutputAndNothingElse) {
  Scene s = parse("{}");
  ASSERT_TRUE(s);
  EXPECT_EQ(s->layer_count, 0);
  EXPECT_EQ(s->layers, nullptr);
  EXPECT_EQ(s->group_count, 0);
  EXPECT_EQ(s->groups, nullptr);
  EXPECT_EQ(s->track_count, 0);
  EXPECT_EQ(s->tracks, nullptr);
  ASSERT_EQ(s->output_count, 1);
  EXPECT_STREQ(s->outputs[0].id, "main");
  EXPECT_EQ(s->outputs[0].width, 1920.0);
  EXPECT_EQ(s->outputs[0].height, 1080.0);
}

TEST(SceneParseTop, ValidJsonThatIsNotAnObjectIsAnEmptyScene) {
  for (const char* text : {"[]", "5", "null", "\"mappings\"", "[{\"mappings\":[{}]}]"}) {
    Scene s = parse(text);
    ASSERT_TRUE(s) << text;
    EXPECT_EQ(s->layer_count, 0) << text;
    ASSERT_EQ(s->output_count, 1) << text;
    EXPECT_STREQ(s->outputs[0].id, "main");
  }
}

TEST(SceneParseTop, TopLevelResolutionFallsBackPerDimension) {
  struct Case {
    const char* json;
    double w, h;
  } cases[] = {
      {R"({"resolution":[800,0]})", 800, 1080},
      {R"({"resolution":[-3,600]})", 1920, 600},
      {R"({"resolution":["wide",720.5]})", 1920, 720.5},
      {R"({"resolution":[1280]})", 1920, 1080},  // fewer than two: [0, 0]
      {R"({"resolution":[1280,720,3]})", 1280, 720},
      {R"({"resolution":{"w":5}})", 1920, 1080},
      {R"({"outputs":[],"resolution":[640,480]})", 640, 480},
      {R"({"outputs":{"id":"x"},"resolution":[640,480]})", 640, 480},
  };
  for (const Case& c : cases) {
    Scene s = parse(c.json);
    ASSERT_TRUE(s);
    ASSERT_EQ(s->output_count, 1) << c.json;
    EXPECT_STREQ(s->outputs[0].id, "main") << c.json;
    EXPECT_EQ(s->outputs[0].width, c.w) << c.json;
    EXPECT_EQ(s->outputs[0].height, c.h) << c.json;
  }
}

TEST(SceneParseTop, OutputsKeepOrderAndTakeDefaultsPerElement) {
  Scene s = parse(R"({"resolution":[10,10],
    "outputs":[{"id":"left","resolution":[0,720]}, {}, 7, {"id":3,"resolution":[1024,768]}]})");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->output_count, 4);
  EXPECT_STREQ(s->outputs[0].id, "left");
  EXPECT_EQ(s->outputs[0].width, 1920.0);
  EXPECT_EQ(s->outputs[0].height, 720.0);
  // The top-level resolution only serves a scene without usable outputs.
  EXPECT_STREQ(s->outputs[1].id, "main");
  EXPECT_EQ(s->outputs[1].width, 1920.0);
  EXPECT_EQ(s->outputs[1].height, 1080.0);
  EXPECT_STREQ(s->outputs[2].id, "main");
  EXPECT_STREQ(s->outputs[3].id, "main");
  EXPECT_EQ(s->outputs[3].width, 1024.0);
}

TEST(SceneParseTop, GroupsAndAudioTracks) {
  Scene s = parse(R"({
    "groups":[{"id":"g1","visible":false,"opacity":0.25}, {}, "x"],
    "audioTracks":[
      {"id":"music","muted":true,"clips":[{"startMs":100.7,"lengthMs":2000,"trimStartMs":5,
        "fadeInMs":10,"fadeOutMs":20,"path":"a.wav"}, 3]},
      {"id":"mic","input":{"device":"x"}},
      {"id":"music","input":true},
      {}]})");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->group_count, 3);
  EXPECT_STREQ(s->groups[0].id, "g1");
  EXPECT_FALSE(s->groups[0].visible);
  EXPECT_EQ(s->groups[0].opacity, 0.25);
  for (int i : {1, 2}) {
    EXPECT_STREQ(s->groups[i].id, "");
    EXPECT_TRUE(s->groups[i].visible);
    EXPECT_EQ(s->groups[i].opacity, 1.0);
  }

  ASSERT_EQ(s->track_count, 4);
  const kvl_audio_track& music = s->tracks[0];
  EXPECT_TRUE(music.muted);
  EXPECT_FALSE(music.is_input);
  ASSERT_EQ(music.clip_count, 2);
  EXPECT_EQ(music.clips[0].start_ms, 100);
  EXPECT_EQ(music.clips[0].length_ms, 2000);
  EXPECT_EQ(music.clips[0].trim_start_ms, 5);
  EXPECT_EQ(music.clips[0].fade_in_ms, 10);
  EXPECT_EQ(music.clips[0].fade_out_ms, 20);
  EXPECT_STREQ(music.clips[0].path, "a.wav");
  EXPECT_EQ(music.clips[1].start_ms, 0);
  EXPECT_STREQ(music.clips[1].path, "");
  EXPECT_TRUE(s->tracks[1].is_input);
  EXPECT_EQ(s->tracks[1].clips, nullptr);
  EXPECT_FALSE(s->tracks[2].is_input);  // "input" must be an object
  EXPECT_STREQ(s->tracks[3].id, "");
  EXPECT_FALSE(s->tracks[3].muted);

  // Lookup by id: the first match wins; null arguments find nothing.
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "music"), &s->tracks[0]);
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "mic"), &s->tracks[1]);
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "Music"), nullptr);
  EXPECT_EQ(kvl_scene_audio_track(s.get(), nullptr), nullptr);
  EXPECT_EQ(kvl_scene_audio_track(nullptr, "music"), nullptr);
}

// ---------------------------------------------------------------------------
// Mappings.

TEST(SceneParseLayer, MissingOrMistypedValuesTakeDefaults) {
  for (const char* mapping :
       {"{}", "7", "[1,2]",
        R"({"id":5,"groupId":1,"output":[],"shape":"ellipse","corners":{},"paint":"color","opacity":"0.5",
            "visible":1,"lumaKey":"yes","content":[1,2],"keyframes":{},"clips":3,"mask":true,"effects":[],
            "modulations":"bass","mesh":[3,3]})"}) {
    Scene s = parse_layer(mapping);
    ASSERT_TRUE(s);
    const kvl_layer& l = s->layers[0];
    EXPECT_STREQ(l.id, "") << mapping;
    EXPECT_EQ(l.group_id, nullptr);
    EXPECT_EQ(l.output, nullptr);
    EXPECT_EQ(l.shape, KVL_SHAPE_QUAD);
    EXPECT_EQ(l.vertex_count, 0);
    EXPECT_EQ(l.vertices, nullptr);
    EXPECT_EQ(l.paint.kind, KVL_PAINT_NONE);
    EXPECT_EQ(l.paint.ref, nullptr);
    EXPECT_EQ(l.opacity, 1.0);
    EXPECT_TRUE(l.visible);
    EXPECT_FALSE(l.luma_key);
    EXPECT_EQ(l.content_x, 0.0);
    EXPECT_EQ(l.content_y, 0.0);
    EXPECT_EQ(l.content_scale, 1.0);
    EXPECT_EQ(l.content_rotation, 0.0);
    EXPECT_EQ(l.keyframe_count, 0);
    EXPECT_EQ(l.clip_count, 0);
    EXPECT_FALSE(l.has_mask);
    EXPECT_FALSE(l.has_mesh);
    EXPECT_FALSE(l.has_stroke || l.has_shadow || l.has_glow || l.has_bevel);
    EXPECT_EQ(l.modulation_count, 0);
    EXPECT_EQ(l.modulations, nullptr);
  }
}

TEST(SceneParseLayer, PlainValuesAreReadAndOpacityIsNotLimited) {
  Scene s = parse_layer(R"({"id":"wall","groupId":"g","output":"out-2","opacity":7,"visible":false,
    "lumaKey":true,"content":{"x":0.25,"y":-0.5,"scale":2,"rotation":45}})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  EXPECT_STREQ(l.id, "wall");
  EXPECT_STREQ(l.group_id, "g");
  EXPECT_STREQ(l.output, "out-2");
  EXPECT_EQ(l.opacity, 7.0);
  EXPECT_FALSE(l.visible);
  EXPECT_TRUE(l.luma_key);
  EXPECT_EQ(l.content_x, 0.25);
  EXPECT_EQ(l.content_y, -0.5);
  EXPECT_EQ(l.content_scale, 2.0);
  EXPECT_EQ(l.content_rotation, 45.0);
}

TEST(SceneParseLayer, ShapeKindsAndTheCornersFallback) {
  struct Case {
    const char* mapping;
    kvl_shape_kind kind;
    int32_t vertices;
  } cases[] = {
      {R"({"shape":{"kind":"ellipse","vertices":[[0,0],[1,0],[1,1],[0,1]]}})", KVL_SHAPE_ELLIPSE, 4},
      {R"({"shape":{"kind":"triangle","vertices":[[0,0],[1,0],[1,1]]}})", KVL_SHAPE_TRIANGLE, 3},
      {R"({"shape":{"kind":"polygon","vertices":[[0,0],[1,0],[1,1],[0,1],[0.5,2]]}})", KVL_SHAPE_POLYGON, 5},
      {R"({"shape":{"kind":"star","vertices":[[0,0]]}})", KVL_SHAPE_QUAD, 1},
      {R"({"shape":{"kind":"Ellipse"}})", KVL_SHAPE_QUAD, 0},
      // A shape object without vertices does not fall back to the corners.
      {R"({"shape":{"kind":"ellipse"},"corners":[[0,0],[1,0],[1,1]]})", KVL_SHAPE_ELLIPSE, 0},
      // A shape that is no object: a quad from the corners.
      {R"({"shape":"ellipse","corners":[[0,0],[1,0],[1,1]]})", KVL_SHAPE_QUAD, 3},
      {R"({"corners":[]})", KVL_SHAPE_QUAD, 0},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(c.mapping);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->layers[0].shape, c.kind) << c.mapping;
    EXPECT_EQ(s->layers[0].vertex_count, c.vertices) << c.mapping;
    EXPECT_EQ(s->layers[0].vertices == nullptr, c.vertices == 0) << c.mapping;
  }
}

TEST(SceneParseLayer, VertexFormsAndHandles) {
  Scene s = parse_layer(R"({"corners":[
    [0.25, 0.75], [0.5], ["a", 0.5], 7, "x", {},
    {"x":0.1,"y":0.2,"in":[0.01,-0.02],"out":[0.03]},
    {"x":"1","y":0.4,"in":"no","out":[]},
    [0.1, 0.2, 0.3]]})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  ASSERT_EQ(l.vertex_count, 9);
  const kvl_vertex* v = l.vertices;
  EXPECT_EQ(v[0].x, 0.25);
  EXPECT_EQ(v[0].y, 0.75);
  EXPECT_FALSE(v[0].has_in || v[0].has_out);
  EXPECT_EQ(v[1].x, 0.0);  // fewer than two elements: (0, 0)
  EXPECT_EQ(v[1].y, 0.0);
  EXPECT_EQ(v[2].x, 0.0);  // a non-number element reads as 0
  EXPECT_EQ(v[2].y, 0.5);
  for (int i : {3, 4, 5}) {
    EXPECT_EQ(v[i].x, 0.0);
    EXPECT_EQ(v[i].y, 0.0);
    EXPECT_FALSE(v[i].has_in || v[i].has_out);
  }
  EXPECT_EQ(v[6].x, 0.1);
  EXPECT_EQ(v[6].y, 0.2);
  EXPECT_TRUE(v[6].has_in);
  EXPECT_EQ(v[6].in_x, 0.01);
  EXPECT_EQ(v[6].in_y, -0.02);
  EXPECT_TRUE(v[6].has_out);  // an array sets the flag even when too short
  EXPECT_EQ(v[6].out_x, 0.0);
  EXPECT_EQ(v[6].out_y, 0.0);
  EXPECT_EQ(v[7].x, 0.0);
  EXPECT_EQ(v[7].y, 0.4);
  EXPECT_FALSE(v[7].has_in);
  EXPECT_TRUE(v[7].has_out);
  EXPECT_EQ(v[8].x, 0.1);
  EXPECT_EQ(v[8].y, 0.2);
}

TEST(SceneParseLayer, PaintKinds) {
  struct Case {
    const char* paint;
    kvl_paint_kind kind;
    uint32_t argb;
    const char* ref;
  } cases[] = {
      {R"({"type":"color"})", KVL_PAINT_COLOR, 0xFF000000u, nullptr},
      {R"({"type":"color","argb":4294944000})", KVL_PAINT_COLOR, 4294944000u, nullptr},
      {R"({"type":"color","argb":"red"})", KVL_PAINT_COLOR, 0xFF000000u, nullptr},
      {R"({"type":"image","path":"media/a.png"})", KVL_PAINT_IMAGE, 0, "media/a.png"},
      {R"({"type":"image"})", KVL_PAINT_IMAGE, 0, ""},
      {R"({"type":"video","path":"v.mp4","asset":"no"})", KVL_PAINT_VIDEO, 0, "v.mp4"},
      {R"({"type":"asset_video","asset":"assets/loop.mp4","path":"no"})", KVL_PAINT_ASSET_VIDEO, 0,
       "assets/loop.mp4"},
      {R"({"type":"asset_video"})", KVL_PAINT_ASSET_VIDEO, 0, ""},
      {R"({"type":"text","path":"ignored"})", KVL_PAINT_TEXT, 0, "text:lyr"},
      {R"({"type":"gradient","path":"x"})", KVL_PAINT_NONE, 0, nullptr},
      {R"({"type":"Color"})", KVL_PAINT_NONE, 0, nullptr},
      {R"({"argb":5})", KVL_PAINT_NONE, 0, nullptr},
      {R"("color")", KVL_PAINT_NONE, 0, nullptr},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(std::string(R"({"id":"lyr","paint":)") + c.paint + "}");
    ASSERT_TRUE(s);
    const kvl_paint& p = s->layers[0].paint;
    EXPECT_EQ(p.kind, c.kind) << c.paint;
    EXPECT_EQ(p.argb, c.argb) << c.paint;
    if (c.ref) {
      EXPECT_STREQ(p.ref, c.ref) << c.paint;
    } else {
      EXPECT_EQ(p.ref, nullptr) << c.paint;
    }
  }
}

TEST(SceneParseLayer, ColourNumbersTruncateAndSaturate) {
  struct Case {
    const char* number;
    uint32_t argb;
  } cases[] = {
      {"-1", 0u}, {"-0.9", 0u}, {"-1e300", 0u}, {"3.99", 3u},
      {"4294967295", 0xFFFFFFFFu}, {"4294967295.9", 0xFFFFFFFFu}, {"4294967296", 0xFFFFFFFFu},
      {"1e20", 0xFFFFFFFFu}, {"1e999", 0xFFFFFFFFu}, {"-1e999", 0u}, {"2566914048", 0x99000000u},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(std::string(R"({"paint":{"type":"color","argb":)") + c.number +
                          R"(},"effects":{"stroke":{"argb":)" + c.number + "}}}");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->layers[0].paint.argb, c.argb) << c.number;
    EXPECT_EQ(s->layers[0].stroke_argb, c.argb) << c.number;
  }
}

TEST(SceneParseLayer, KeyframesTimesTruncateTowardZeroAndEasingsMapByName) {
  Scene s = parse_layer(R"({"keyframes":[
    {"prop":"opacity","timeMs":1500.9,"value":0.5,"easing":"easeIn"},
    {"prop":"c0x","timeMs":-1500.9,"value":-2,"easing":"easeOut"},
    {"timeMs":1e999,"easing":"easeInOut"},
    {"timeMs":-1e999,"easing":"hold"},
    {"timeMs":"5","value":"1","easing":"bounce"},
    {"easing":"EaseIn"},
    {"timeMs":9007199254740993},
    42]})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  ASSERT_EQ(l.keyframe_count, 8);
  const kvl_keyframe* k = l.keyframes;
  EXPECT_STREQ(k[0].prop, "opacity");
  EXPECT_EQ(k[0].time_ms, 1500);
  EXPECT_EQ(k[0].value, 0.5);
  EXPECT_EQ(k[0].easing, KVL_EASE_IN);
  EXPECT_EQ(k[1].time_ms, -1500);
  EXPECT_EQ(k[1].easing, KVL_EASE_OUT);
  EXPECT_STREQ(k[2].prop, "");
  EXPECT_EQ(k[2].time_ms, INT64_MAX);
  EXPECT_EQ(k[2].easing, KVL_EASE_IN_OUT);
  EXPECT_EQ(k[3].time_ms, INT64_MIN);
  EXPECT_EQ(k[3].easing, KVL_EASE_HOLD);
  EXPECT_EQ(k[4].time_ms, 0);
  EXPECT_EQ(k[4].value, 0.0);
  EXPECT_EQ(k[4].easing, KVL_EASE_LINEAR);
  EXPECT_EQ(k[5].easing, KVL_EASE_LINEAR);
  EXPECT_EQ(k[6].time_ms, 9007199254740992);  // the nearest double
  EXPECT_STREQ(k[7].prop, "");
}

TEST(SceneParseLayer, ClipsDefaultsAndGeneratedTextKeys) {
  Scene s = parse_layer(R"({"id":"a","paint":{"type":"text"},"clips":[
    {"startMs":1000.5,"lengthMs":2000,"paint":{"type":"video","path":"v.mp4"},"opacity":0.5,
     "fadeInMs":100,"fadeOutMs":200,"trimStartMs":300,"speed":-2,"loop":true,"mediaDurationMs":5000.7},
    {},
    {"paint":{"type":"text"},"mediaDurationMs":"5000","loop":1},
    {"paint":{"type":"text"}}]})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  EXPECT_STREQ(l.paint.ref, "text:a");
  ASSERT_EQ(l.clip_count, 4);
  const kvl_clip* c = l.clips;
  EXPECT_EQ(c[0].start_ms, 1000);
  EXPECT_EQ(c[0].length_ms, 2000);
  EXPECT_EQ(c[0].paint.kind, KVL_PAINT_VIDEO);
  EXPECT_STREQ(c[0].paint.ref, "v.mp4");
  EXPECT_EQ(c[0].opacity, 0.5);
  EXPECT_EQ(c[0].fade_in_ms, 100);
  EXPECT_EQ(c[0].fade_out_ms, 200);
  EXPECT_EQ(c[0].trim_start_ms, 300);
  EXPECT_EQ(c[0].speed, -2.0);
  EXPECT_TRUE(c[0].loop);
  EXPECT_TRUE(c[0].has_media_duration);
  EXPECT_EQ(c[0].media_duration_ms, 5000);

  EXPECT_EQ(c[1].start_ms, 0);
  EXPECT_EQ(c[1].length_ms, 0);
  EXPECT_EQ(c[1].paint.kind, KVL_PAINT_NONE);
  EXPECT_EQ(c[1].opacity, 1.0);
  EXPECT_EQ(c[1].speed, 1.0);
  EXPECT_FALSE(c[1].loop);
  EXPECT_FALSE(c[1].has_media_duration);
  EXPECT_EQ(c[1].media_duration_ms, 0);

  // The key names the clip by its index in the array.
  EXPECT_STREQ(c[2].paint.ref, "text:a#2");
  EXPECT_FALSE(c[2].has_media_duration);
  EXPECT_FALSE(c[2].loop);
  EXPECT_STREQ(c[3].paint.ref, "text:a#3");
}

TEST(SceneParseLayer, TextKeysOfALayerWithoutId) {
  Scene s = parse_layer(R"({"paint":{"type":"text"},"clips":[{"paint":{"type":"text"}}]})");
  ASSERT_TRUE(s);
  EXPECT_STREQ(s->layers[0].paint.ref, "text:");
  EXPECT_STREQ(s->layers[0].clips[0].paint.ref, "text:#0");
}

TEST(SceneParseLayer, MaskIsOnWheneverItsObjectExists) {
  Scene s = parse(R"({"mappings":[
    {"mask":{}},
    {"mask":{"vertices":[[0.1,0.1],[0.9,0.2],{"x":0.5,"y":0.9}],"feather":60,"inverted":true}},
    {"mask":[[0,0],[1,1],[0,1]]}]})");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->layer_count, 3);
  EXPECT_TRUE(s->layers[0].has_mask);
  EXPECT_EQ(s->layers[0].mask_vertex_count, 0);
  EXPECT_EQ(s->layers[0].mask_feather, 0.0);
  EXPECT_FALSE(s->layers[0].mask_inverted);
  const kvl_layer& m = s->layers[1];
  EXPECT_TRUE(m.has_mask);
  ASSERT_EQ(m.mask_vertex_count, 3);
  EXPECT_EQ(m.mask_vertices[1].x, 0.9);
  EXPECT_EQ(m.mask_vertices[2].y, 0.9);
  EXPECT_EQ(m.mask_feather, 60.0);
  EXPECT_TRUE(m.mask_inverted);
  EXPECT_FALSE(s->layers[2].has_mask);
}

TEST(SceneParseLayer, EffectsAreOnExactlyWhenTheirObjectIsPresent) {
  Scene s = parse(R"({"mappings":[
    {"effects":{"stroke":{}}},
    {"effects":{"stroke":{"width":2,"argb":4278190335},"shadow":{"dx":14,"dy":-18,"blur":16,"argb":1},
                "glow":{"radius":30,"argb":2},"bevel":{"depth":10,"highlight":3,"shadow":4}}},
    {"effects":{"stroke":true,"shadow":[],"glow":null,"bevel":"on"}},
    {"effects":{"shadow":{},"glow":{},"bevel":{}}}]})");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->layer_count, 4);
  const kvl_layer& a = s->layers[0];
  EXPECT_TRUE(a.has_stroke);
  EXPECT_EQ(a.stroke_width, 6.0);
  EXPECT_EQ(a.stroke_argb, 0xFFFFFFFFu);
  EXPECT_FALSE(a.has_shadow || a.has_glow || a.has_bevel);

  const kvl_layer& b = s->layers[1];
  EXPECT_TRUE(b.has_stroke && b.has_shadow && b.has_glow && b.has_bevel);
  EXPECT_EQ(b.stroke_width, 2.0);
  EXPECT_EQ(b.stroke_argb, 0xFF0000FFu);
  EXPECT_EQ(b.shadow_dx, 14.0);
  EXPECT_EQ(b.shadow_dy, -18.0);
  EXPECT_EQ(b.shadow_blur, 16.0);
  EXPECT_EQ(b.shadow_argb, 1u);
  EXPECT_EQ(b.glow_radius, 30.0);
  EXPECT_EQ(b.glow_argb, 2u);
  EXPECT_EQ(b.bevel_depth, 10.0);
  EXPECT_EQ(b.bevel_highlight, 3u);
  EXPECT_EQ(b.bevel_shadow, 4u);

  const kvl_layer& c = s->layers[2];
  EXPECT_FALSE(c.has_stroke || c.has_shadow || c.has_glow || c.has_bevel);

  const kvl_layer& d = s->layers[3];
  EXPECT_FALSE(d.has_stroke);
  EXPECT_TRUE(d.has_shadow && d.has_glow && d.has_bevel);
  EXPECT_EQ(d.shadow_dx, 0.0);
  EXPECT_EQ(d.shadow_blur, 0.0);
  EXPECT_EQ(d.shadow_argb, 0x99000000u);
  EXPECT_EQ(d.glow_radius, 24.0);
  EXPECT_EQ(d.glow_argb, 0xFF42C8F5u);
  EXPECT_EQ(d.bevel_depth, 8.0);
  EXPECT_EQ(d.bevel_highlight, 0xB3FFFFFFu);
  EXPECT_EQ(d.bevel_shadow, 0xB3000000u);
}

TEST(SceneParseLayer, ModulationsWithoutAKnownSourceAreDroppedAndTheRestMoveUp) {
  Scene s = parse_layer(R"({"modulations":[
    {"id":"m0","source":"treble","prop":"opacity"},
    {"id":"m1","source":"bass","prop":"contentScale","mode":"add","min":0.5,"max":2,
     "attackMs":5.5,"releaseMs":100.25,"enabled":false,"track":"music"},
    {"id":"m2","prop":"opacity"},
    "beat",
    {"source":"beat"},
    {"id":"m3","source":"Level"},
    {"id":"m4","source":"high","mode":"ADD","track":7},
    {"id":"m5","source":"mid"},
    {"id":"m6","source":"level"}]})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  ASSERT_EQ(l.modulation_count, 5);
  const kvl_modulation* m = l.modulations;
  EXPECT_STREQ(m[0].id, "m1");
  EXPECT_EQ(m[0].source, KVL_SIG_BASS);
  EXPECT_STREQ(m[0].prop, "contentScale");
  EXPECT_EQ(m[0].mode, KVL_MOD_ADD);
  EXPECT_EQ(m[0].min, 0.5);
  EXPECT_EQ(m[0].max, 2.0);
  EXPECT_EQ(m[0].attack_ms, 5.5);
  EXPECT_EQ(m[0].release_ms, 100.25);
  EXPECT_FALSE(m[0].enabled);
  EXPECT_STREQ(m[0].track, "music");

  EXPECT_STREQ(m[1].id, "");
  EXPECT_EQ(m[1].source, KVL_SIG_BEAT);
  EXPECT_STREQ(m[1].prop, "");
  EXPECT_EQ(m[1].mode, KVL_MOD_SET);
  EXPECT_EQ(m[1].min, 0.0);
  EXPECT_EQ(m[1].max, 1.0);
  EXPECT_EQ(m[1].attack_ms, 10.0);
  EXPECT_EQ(m[1].release_ms, 250.0);
  EXPECT_TRUE(m[1].enabled);
  EXPECT_EQ(m[1].track, nullptr);

  EXPECT_STREQ(m[2].id, "m4");
  EXPECT_EQ(m[2].source, KVL_SIG_HIGH);
  EXPECT_EQ(m[2].mode, KVL_MOD_SET);
  EXPECT_EQ(m[2].track, nullptr);
  EXPECT_STREQ(m[3].id, "m5");
  EXPECT_EQ(m[3].source, KVL_SIG_MID);
  EXPECT_STREQ(m[4].id, "m6");
  EXPECT_EQ(m[4].source, KVL_SIG_LEVEL);
}

TEST(SceneParseLayer, AllModulationsDroppedLeavesNone) {
  Scene s = parse_layer(R"({"modulations":[{"source":"treble"},{},3]})");
  ASSERT_TRUE(s);
  EXPECT_EQ(s->layers[0].modulation_count, 0);
  EXPECT_EQ(s->layers[0].modulations, nullptr);
}

TEST(SceneParseLayer, MeshCellsAreLimitedAndOffsetsNeedTheExactCount) {
  auto mesh = [](const std::string& json) { return parse_layer("{\"mesh\":" + json + "}"); };
  {
    Scene s = mesh(R"({"cols":0,"rows":99})");
    ASSERT_TRUE(s);
    const kvl_layer& l = s->layers[0];
    EXPECT_TRUE(l.has_mesh);
    EXPECT_EQ(l.mesh_cols, 1);
    EXPECT_EQ(l.mesh_rows, 12);
    ASSERT_NE(l.mesh_offsets, nullptr);
    for (int i = 0; i < 26 * 2; i++) EXPECT_EQ(l.mesh_offsets[i], 0.0);
  }
  {
    // 2 x 13 grid points = 26 entries: read row by row; a bad entry is (0, 0).
    std::string offsets = "[";
    for (int i = 0; i < 26; i++) {
      if (i) offsets += ",";
      offsets += i == 5 ? "[0.5]" : i == 6 ? "7" : "[" + std::to_string(i) + ",-" + std::to_string(i) + "]";
    }
    offsets += "]";
    Scene s = mesh(R"({"cols":0,"rows":99,"offsets":)" + offsets + "}");
    ASSERT_TRUE(s);
    const double* o = s->layers[0].mesh_offsets;
    EXPECT_EQ(o[2 * 25], 25.0);
    EXPECT_EQ(o[2 * 25 + 1], -25.0);
    EXPECT_EQ(o[2 * 4], 4.0);
    EXPECT_EQ(o[2 * 5], 0.0);
    EXPECT_EQ(o[2 * 6 + 1], 0.0);
  }
  {
    // One entry short: ignored whole.
    Scene s = mesh(R"({"cols":1,"rows":1,"offsets":[[1,1],[1,1],[1,1]]})");
    ASSERT_TRUE(s);
    for (int i = 0; i < 8; i++) EXPECT_EQ(s->layers[0].mesh_offsets[i], 0.0);
  }
  struct Case {
    const char* json;
    int32_t cols, rows;
  } cases[] = {
      {"{}", 3, 3},
      {R"({"cols":2.9,"rows":-0.5})", 2, 1},
      {R"({"cols":1e300,"rows":-1e300})", 12, 1},
      {R"({"cols":1e999,"rows":-1e999})", 12, 1},
      {R"({"cols":"4","rows":null})", 3, 3},
      {R"({"cols":12,"rows":13})", 12, 12},
  };
  for (const Case& c : cases) {
    Scene s = mesh(c.json);
    ASSERT_TRUE(s);
    EXPECT_TRUE(s->layers[0].has_mesh);
    EXPECT_EQ(s->layers[0].mesh_cols, c.cols) << c.json;
    EXPECT_EQ(s->layers[0].mesh_rows, c.rows) << c.json;
    EXPECT_NE(s->layers[0].mesh_offsets, nullptr);
  }
}

TEST(SceneParseLayer, DuplicateKeysTakeTheFirst) {
  Scene s = parse_layer(R"({"id":"first","id":"second","opacity":"x","opacity":0.3})");
  ASSERT_TRUE(s);
  EXPECT_STREQ(s->layers[0].id, "first");
  EXPECT_EQ(s->layers[0].opacity, 1.0);  // the first is mistyped: default, not the second
}

// ---------------------------------------------------------------------------
// Failures.

TEST(SceneParseError, TextCutInsideAStringShowsAtMost40BytesOfTheTail) {
  const std::string text =
      R"({"mappings":[{"id":"a","paint":{"type":"image","path":"media/a-very-long-file-name-that-goes-on-and-on.png)";
  char err[256];
  memset(err, 'z', sizeof err);
  EXPECT_EQ(kvl_scene_parse(text.c_str(), err, sizeof err), nullptr);
  std::string msg(err);
  ASSERT_EQ(msg.rfind(kPrefix, 0), 0u) << msg;
  std::string tail = msg.substr(strlen(kPrefix));
  EXPECT_FALSE(tail.empty());
  EXPECT_LE(tail.size(), 40u);
  EXPECT_NE(text.find(tail), std::string::npos) << tail;
}

TEST(SceneParseError, MessageFitsTheBufferAndTheBufferIsOptional) {
  const char* bad = "{\"mappings\": [1, 2,, 3]}";
  char full[256];
  ASSERT_EQ(kvl_scene_parse(bad, full, sizeof full), nullptr);
  std::string msg(full);
  EXPECT_EQ(msg, std::string(kPrefix) + ", 3]}");

  char small[12];
  memset(small, 'z', sizeof small);
  EXPECT_EQ(kvl_scene_parse(bad, small, 10), nullptr);
  EXPECT_EQ(std::string(small), msg.substr(0, 9));
  EXPECT_EQ(small[10], 'z');  // nothing written past error_size

  char untouched[4] = {'a', 'b', 'c', '\0'};
  EXPECT_EQ(kvl_scene_parse(bad, untouched, 0), nullptr);
  EXPECT_EQ(kvl_scene_parse(bad, untouched, -5), nullptr);
  EXPECT_STREQ(untouched, "abc");
  EXPECT_EQ(kvl_scene_parse(bad, nullptr, 100), nullptr);
  EXPECT_EQ(kvl_scene_parse("", nullptr, 0), nullptr);

  char err[64];
  EXPECT_EQ(kvl_scene_parse(nullptr, err, sizeof err), nullptr);
  EXPECT_STREQ(err, kPrefix);
  kvl_scene_free(nullptr);
}

TEST(SceneParseError, LongTailIsCutAt40Bytes) {
  std::string text = "{\"a\": tru";
  text += std::string(100, 'x');
  char err[256];
  ASSERT_EQ(kvl_scene_parse(text.c_str(), err, sizeof err), nullptr);
  std::string tail = std::string(err).substr(strlen(kPrefix));
  EXPECT_EQ(tail.size(), 40u) << err;
  EXPECT_NE(text.find(tail), std::string::npos);
}

TEST(SceneParseError, OutOfMemoryAtAnyAllocationLeavesNothingBehind) {
#ifdef KVL_TEST_NO_MALLOC_HOOK
  GTEST_SKIP() << "the sanitizer runtime owns malloc in this build";
#else
  // Is this file's hook the one in force?
  g_seen = 0;
  g_allocs_left = -1;
  g_armed = true;
  void* volatile probe = malloc(16);
  free(probe);
  g_armed = false;
  if (g_seen.load() == 0) GTEST_SKIP() << "another malloc hook is in force";

  // Count the allocations of one successful parse.
  g_seen = 0;
  g_live = 0;
  g_allocs_left = -1;
  g_armed = true;
  kvl_scene* whole = kvl_scene_parse(kFullScene, nullptr, 0);
  kvl_scene_free(whole);
  g_armed = false;
  ASSERT_NE(whole, nullptr);
  const long total = g_seen.load();
  EXPECT_EQ(g_live.load(), 0) << "a successful parse and free leak";
  ASSERT_GT(total, 40);

  for (long n = 0; n < total; n++) {
    char err[128] = "";
    g_live = 0;
    g_allocs_left = n;
    g_armed = true;
    kvl_scene* s = kvl_scene_parse(kFullScene, err, sizeof err);
    g_armed = false;
    long live = g_live.load();
    EXPECT_EQ(s, nullptr) << "allocation " << n << " failed unnoticed";
    kvl_scene_free(s);
    EXPECT_EQ(live, 0) << "allocation " << n << " failed and left " << live << " blocks";
    // cJSON cannot tell running out of memory from bad text; past the tree, it is our message.
    std::string msg(err);
    EXPECT_TRUE(msg == "sem memória" || msg.rfind(kPrefix, 0) == 0) << msg;
  }
#endif
}

}  // namespace
