// The scene document: defaults for missing or mistyped values, dropped
// modulations, mesh limits, the invalid-JSON message and out-of-memory.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kavlen/kavlen.h"

// Allocation fault injection: while armed, malloc fails the n-th allocation and
// counts live blocks. Left out under sanitizers, which own malloc; weak so that
// another file's hook cannot break the link (the test then skips).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVL_TEST_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KVL_TEST_NO_MALLOC_HOOK 1
#endif
#endif

namespace {
std::atomic<bool> g_armed{false};
std::atomic<long> g_allocs_left{-1}, g_live{0}, g_seen{0};
}  // namespace

#ifndef KVL_TEST_NO_MALLOC_HOOK
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

// True when this allocation is the one to fail.
static bool inject_failure() {
  g_seen.fetch_add(1, std::memory_order_relaxed);
  return g_allocs_left.fetch_sub(1, std::memory_order_relaxed) == 0;
}
static void* counted(void* p) {
  if (p) g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}
__attribute__((weak)) void* malloc(size_t n) noexcept {
  return !g_armed ? __libc_malloc(n) : inject_failure() ? nullptr : counted(__libc_malloc(n));
}
__attribute__((weak)) void* calloc(size_t n, size_t size) noexcept {
  return !g_armed ? __libc_calloc(n, size) : inject_failure() ? nullptr : counted(__libc_calloc(n, size));
}
__attribute__((weak)) void* realloc(void* old, size_t n) noexcept {
  if (!g_armed) return __libc_realloc(old, n);
  if (inject_failure()) return nullptr;
  void* p = __libc_realloc(old, n);
  g_live.fetch_add((p && !old) - (!p && old && n == 0), std::memory_order_relaxed);
  return p;
}
__attribute__((weak)) void free(void* p) noexcept {
  if (p && g_armed) g_live.fetch_sub(1, std::memory_order_relaxed);
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
  EXPECT_TRUE(!s || s->layer_count == 1) << mapping;
  return s;
}

const char kPrefix[] = "JSON inválido perto de: ";

// Uses every part of the document, for the out-of-memory sweep.
const char kFullScene[] = R"({"outputs": [{"id": "left", "resolution": [1280, 720]}, {"id": "right"}],
  "groups": [{"id": "g", "visible": true, "opacity": 0.5}],
  "audioTracks": [{"id": "t", "input": {}, "clips": [{"startMs": 1, "path": "a.wav"}]}],
  "mappings": [{"id": "a", "groupId": "g", "output": "left", "paint": {"type": "text"},
    "shape": {"kind": "polygon", "vertices": [[0, 0], {"x": 1, "y": 0, "in": [0.1, 0.2]}, [1, 1]]},
    "keyframes": [{"prop": "c0x", "timeMs": 0, "value": 0.5}, {"prop": "opacity", "timeMs": 10}],
    "clips": [{"startMs": 0, "lengthMs": 10, "paint": {"type": "video", "path": "v.mp4"}},
              {"startMs": 0, "lengthMs": 10, "paint": {"type": "text"}}],
    "mask": {"vertices": [[0, 0], [1, 1], [0, 1]], "feather": 3}, "effects": {"stroke": {}, "shadow": {}, "glow": {}, "bevel": {}},
    "modulations": [{"id": "m", "source": "bass", "prop": "opacity", "track": "t"}],
    "mesh": {"cols": 1, "rows": 1, "offsets": [[0, 0], [0, 0], [0, 0], [0.1, 0.1]]}},
   {"id": "b", "corners": [[0, 0], [1, 0], [1, 1]], "paint": {"type": "asset_video", "asset": "x"}}]})";

TEST(SceneParseTop, NonObjectsAreEmptyScenesAndResolutionFallsBackPerDimension) {
  struct Case { const char* json; double w, h; } cases[] = {
      {"[]", 1920, 1080}, {"\"mappings\"", 1920, 1080}, {"[{\"mappings\":[{}]}]", 1920, 1080},
      {R"({"resolution":[800,0]})", 800, 1080},
      {R"({"resolution":[-3,600]})", 1920, 600},
      {R"({"resolution":["wide",720.5]})", 1920, 720.5},
      {R"({"resolution":[1280]})", 1920, 1080},  // fewer than two: [0, 0]
      {R"({"resolution":[1280,720,3]})", 1280, 720},
      {R"({"outputs":[],"resolution":[640,480]})", 640, 480},
      {R"({"outputs":{"id":"x"},"resolution":[640,480]})", 640, 480},
  };
  for (const Case& c : cases) {
    Scene s = parse(c.json);
    ASSERT_TRUE(s);
    ASSERT_TRUE(s->output_count == 1 && s->layer_count == 0) << c.json;
    EXPECT_STREQ(s->outputs[0].id, "main") << c.json;
    EXPECT_TRUE(s->outputs[0].width == c.w && s->outputs[0].height == c.h) << c.json;
  }
}

TEST(SceneParseTop, ElementsKeepOrderAndTakeDefaultsEachAndTracksAreFoundById) {
  Scene s = parse(R"({"resolution":[10,10], "groups":[{}, "x"],
    "outputs":[{"id":"left","resolution":[0,720]}, 7, {"id":3,"resolution":[1024,768]}],
    "audioTracks":[{"id":"music","clips":[3]}, {"id":"mic","input":{}}, {"id":"music","input":true}]})");
  ASSERT_TRUE(s);
  ASSERT_TRUE(s->output_count == 3 && s->group_count == 2 && s->track_count == 3);
  // The top-level resolution only serves a scene without usable outputs.
  const struct { const char* id; double w, h; } want[] = {{"left", 1920, 720}, {"main", 1920, 1080}, {"main", 1024, 768}};
  for (int i = 0; i < 3; i++) {
    EXPECT_STREQ(s->outputs[i].id, want[i].id) << i;
    EXPECT_TRUE(s->outputs[i].width == want[i].w && s->outputs[i].height == want[i].h) << i;
  }
  ASSERT_EQ(s->tracks[0].clip_count, 1);
  EXPECT_STREQ(s->tracks[0].clips[0].path, "");
  EXPECT_TRUE(s->tracks[1].is_input && !s->tracks[2].is_input);  // "input" must be an object
  // The first match wins; null arguments find nothing.
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "music"), &s->tracks[0]);
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "mic"), &s->tracks[1]);
  EXPECT_EQ(kvl_scene_audio_track(s.get(), "Music"), nullptr);
  EXPECT_TRUE(!kvl_scene_audio_track(s.get(), nullptr) && !kvl_scene_audio_track(nullptr, "music"));
}

TEST(SceneParseLayer, MissingOrMistypedValuesTakeDefaults) {
  for (const char* mapping :
       {"7", R"({"id":5,"groupId":1,"output":[],"shape":"ellipse","corners":{},"paint":"color","opacity":"0.5",
            "visible":1,"lumaKey":"yes","content":[1,2],"keyframes":{},"clips":3,"mask":true,"effects":[],
            "modulations":"bass","mesh":[3,3]})"}) {
    Scene s = parse_layer(mapping);
    ASSERT_TRUE(s);
    const kvl_layer& l = s->layers[0];
    SCOPED_TRACE(mapping);
    EXPECT_STREQ(l.id, "");
    EXPECT_TRUE(l.group_id == nullptr && l.output == nullptr && l.vertices == nullptr && l.modulations == nullptr);
    EXPECT_TRUE(l.shape == KVL_SHAPE_QUAD && l.paint.kind == KVL_PAINT_NONE && l.paint.ref == nullptr);
    EXPECT_TRUE(l.opacity == 1.0 && l.visible && !l.luma_key && l.content_x == 0.0 && l.content_scale == 1.0);
    EXPECT_TRUE(l.vertex_count == 0 && l.keyframe_count == 0 && l.clip_count == 0 && l.modulation_count == 0);
    EXPECT_FALSE(l.has_mask || l.has_mesh || l.has_stroke || l.has_shadow || l.has_glow || l.has_bevel);
  }
}

TEST(SceneParseLayer, ShapeKindsAndTheCornersFallback) {
  struct Case { const char* mapping; kvl_shape_kind kind; int32_t vertices; } cases[] = {
      {R"({"shape":{"kind":"ellipse","vertices":[[0,0],[1,0],[1,1],[0,1]]}})", KVL_SHAPE_ELLIPSE, 4},
      {R"({"shape":{"kind":"triangle","vertices":[[0,0],[1,0],[1,1]]}})", KVL_SHAPE_TRIANGLE, 3},
      {R"({"shape":{"kind":"polygon","vertices":[[0,0],[1,0],[1,1],[0,1],[0.5,2]]}})", KVL_SHAPE_POLYGON, 5},
      {R"({"shape":{"kind":"star","vertices":[[0,0]]}})", KVL_SHAPE_QUAD, 1},
      {R"({"shape":{"kind":"Ellipse"}})", KVL_SHAPE_QUAD, 0},
      // A shape object without vertices does not fall back to the corners.
      {R"({"shape":{"kind":"ellipse"},"corners":[[0,0],[1,0],[1,1]]})", KVL_SHAPE_ELLIPSE, 0},
      // A shape that is no object: a quad from the corners.
      {R"({"shape":"ellipse","corners":[[0,0],[1,0],[1,1]]})", KVL_SHAPE_QUAD, 3},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(c.mapping);
    ASSERT_TRUE(s);
    const kvl_layer& l = s->layers[0];
    EXPECT_TRUE(l.shape == c.kind && l.vertex_count == c.vertices && (l.vertices == nullptr) == (c.vertices == 0))
        << c.mapping;
  }
}

TEST(SceneParseLayer, PaintKinds) {
  struct Case { const char* paint; kvl_paint_kind kind; uint32_t argb; const char* ref; } cases[] = {
      {R"({"type":"color","argb":4294944000})", KVL_PAINT_COLOR, 4294944000u, nullptr},
      {R"({"type":"color","argb":"red"})", KVL_PAINT_COLOR, 0xFF000000u, nullptr},
      {R"({"type":"image","path":"media/a.png"})", KVL_PAINT_IMAGE, 0, "media/a.png"},
      {R"({"type":"image"})", KVL_PAINT_IMAGE, 0, ""},
      {R"({"type":"video","path":"v.mp4","asset":"no"})", KVL_PAINT_VIDEO, 0, "v.mp4"},
      {R"({"type":"asset_video","asset":"assets/loop.mp4","path":"no"})", KVL_PAINT_ASSET_VIDEO, 0,
       "assets/loop.mp4"},
      {R"({"type":"text","path":"ignored"})", KVL_PAINT_TEXT, 0, "text:lyr"},
      {R"({"type":"Color"})", KVL_PAINT_NONE, 0, nullptr},
      {R"("color")", KVL_PAINT_NONE, 0, nullptr},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(std::string(R"({"id":"lyr","paint":)") + c.paint + "}");
    ASSERT_TRUE(s);
    const kvl_paint& p = s->layers[0].paint;
    EXPECT_TRUE(p.kind == c.kind && p.argb == c.argb) << c.paint;
    EXPECT_STREQ(p.ref, c.ref) << c.paint;  // a null ref must stay null
  }
}

TEST(SceneParseLayer, ModulationsWithoutAKnownSourceAreDroppedAndTheRestMoveUp) {
  Scene s = parse_layer(R"({"modulations":[
    {"id":"m1","source":"bass","prop":"contentScale","mode":"add","min":0.5,"max":2,
     "attackMs":5.5,"releaseMs":100.25,"enabled":false,"track":"music"},
    {"id":"m2","prop":"opacity"}, "beat", {"source":"beat"}, {"id":"m3","source":"Level"},
    {"id":"m4","source":"high","mode":"ADD","track":7}, {"id":"m5","source":"mid"}, {"id":"m6","source":"level"}]})");
  ASSERT_TRUE(s);
  const kvl_layer& l = s->layers[0];
  ASSERT_EQ(l.modulation_count, 5);
  const struct { const char* id; kvl_signal_source source; } want[] = {
      {"m1", KVL_SIG_BASS}, {"", KVL_SIG_BEAT}, {"m4", KVL_SIG_HIGH}, {"m5", KVL_SIG_MID}, {"m6", KVL_SIG_LEVEL}};
  for (int i = 0; i < 5; i++) {
    EXPECT_STREQ(l.modulations[i].id, want[i].id) << i;
    EXPECT_EQ(l.modulations[i].source, want[i].source) << i;
  }
  const kvl_modulation &m1 = l.modulations[0], &m4 = l.modulations[2];
  EXPECT_STREQ(m1.prop, "contentScale");
  EXPECT_STREQ(m1.track, "music");
  EXPECT_TRUE(m1.mode == KVL_MOD_ADD && m1.min == 0.5 && m1.max == 2 && m1.attack_ms == 5.5 &&
              m1.release_ms == 100.25 && !m1.enabled);
  EXPECT_STREQ(m4.prop, "");
  EXPECT_EQ(m4.track, nullptr);  // a track that is no string stays null
  EXPECT_TRUE(m4.mode == KVL_MOD_SET && m4.enabled);  // mode names are case-sensitive
}

TEST(SceneParseLayer, MeshCellsAreLimitedAndOffsetsNeedTheExactCount) {
  // Offsets one entry short are ignored whole; every case's offsets start at zero.
  struct Case { const char* json; int32_t cols, rows; } cases[] = {
      {R"({"cols":0,"rows":99})", 1, 12},
      {R"({"cols":1,"rows":1,"offsets":[[1,1],[1,1],[1,1]]})", 1, 1},
      {R"({"cols":2.9,"rows":-0.5})", 2, 1},
      {R"({"cols":1e300,"rows":-1e300})", 12, 1},
      {R"({"cols":1e999,"rows":-1e999})", 12, 1},
      {R"({"cols":"4","rows":null})", 3, 3},
  };
  for (const Case& c : cases) {
    Scene s = parse_layer(std::string("{\"mesh\":") + c.json + "}");
    ASSERT_TRUE(s);
    const kvl_layer& l = s->layers[0];
    EXPECT_TRUE(l.has_mesh && l.mesh_cols == c.cols && l.mesh_rows == c.rows) << c.json;
    ASSERT_NE(l.mesh_offsets, nullptr);
    for (int i = 0; i < (c.cols + 1) * (c.rows + 1) * 2; i++) ASSERT_EQ(l.mesh_offsets[i], 0.0) << c.json << " " << i;
  }
}

TEST(SceneParseError, MessageShowsAtMost40BytesOfTheTailAndFitsTheBuffer) {
  // Cut inside a string, and a long tail cut at exactly 40 bytes.
  for (const std::string& text :
       {std::string(R"({"mappings":[{"id":"a","paint":{"type":"image","path":"media/a-very-long-file-name.png)"),
        "{\"a\": tru" + std::string(100, 'x')}) {
    char err[256];
    memset(err, 'z', sizeof err);
    ASSERT_EQ(kvl_scene_parse(text.c_str(), err, sizeof err), nullptr);
    const std::string msg(err);
    ASSERT_EQ(msg.rfind(kPrefix, 0), 0u) << msg;
    const std::string tail = msg.substr(strlen(kPrefix));
    EXPECT_TRUE(!tail.empty() && tail.size() <= 40u && (text.back() != 'x' || tail.size() == 40u)) << tail;
    EXPECT_NE(text.find(tail), std::string::npos) << tail;
  }
  const char* bad = "{\"mappings\": [1, 2,, 3]}";
  char full[256], small[12];
  ASSERT_EQ(kvl_scene_parse(bad, full, sizeof full), nullptr);
  EXPECT_EQ(std::string(full), std::string(kPrefix) + ", 3]}");
  memset(small, 'z', sizeof small);
  EXPECT_EQ(kvl_scene_parse(bad, small, 10), nullptr);
  EXPECT_EQ(std::string(small), std::string(full).substr(0, 9));
  EXPECT_EQ(small[10], 'z');  // nothing written past error_size
  // The buffer is optional, and a size of zero or less leaves it alone.
  char untouched[4] = {'a', 'b', 'c', '\0'};
  EXPECT_EQ(kvl_scene_parse(bad, untouched, 0), nullptr);
  EXPECT_EQ(kvl_scene_parse(bad, untouched, -5), nullptr);
  EXPECT_STREQ(untouched, "abc");
  EXPECT_EQ(kvl_scene_parse(bad, nullptr, 100), nullptr);
  EXPECT_EQ(kvl_scene_parse(nullptr, full, sizeof full), nullptr);
  EXPECT_STREQ(full, kPrefix);
  kvl_scene_free(nullptr);
}

TEST(SceneParseError, OutOfMemoryAtAnyAllocationLeavesNothingBehind) {
#ifdef KVL_TEST_NO_MALLOC_HOOK
  GTEST_SKIP() << "the sanitizer runtime owns malloc in this build";
#else
  auto arm = [](long fail_at) { g_seen = g_live = 0, g_allocs_left = fail_at, g_armed = true; };
  arm(-1);  // is this file's hook the one in force?
  void* volatile probe = malloc(16);
  free(probe);
  g_armed = false;
  if (g_seen.load() == 0) GTEST_SKIP() << "another malloc hook is in force";
  arm(-1);  // count the allocations of one successful parse
  kvl_scene* whole = kvl_scene_parse(kFullScene, nullptr, 0);
  kvl_scene_free(whole);
  g_armed = false;
  ASSERT_NE(whole, nullptr);
  const long total = g_seen.load();
  EXPECT_EQ(g_live.load(), 0) << "a successful parse and free leak";
  ASSERT_GT(total, 40);
  for (long n = 0; n < total; n++) {
    char err[128] = "";
    arm(n);
    kvl_scene* s = kvl_scene_parse(kFullScene, err, sizeof err);
    g_armed = false;
    const long live = g_live.load();
    EXPECT_EQ(s, nullptr) << "allocation " << n << " failed unnoticed";
    kvl_scene_free(s);
    EXPECT_EQ(live, 0) << "allocation " << n << " failed and left " << live << " blocks";
    // cJSON cannot tell running out of memory from bad text; past the tree, it is our message.
    EXPECT_TRUE(std::string(err) == "sem memória" || std::string(err).rfind(kPrefix, 0) == 0) << err;
  }
#endif
}

}  // namespace
