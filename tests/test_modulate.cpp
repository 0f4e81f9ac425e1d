// Audio modulation: envelope smoothing, clip ramps, how envelopes change a
// resolved layer, the live envelope table (caller-fed and from real live
// sources), the stateless file road with its signal tables on disk, and that
// both renderers see the result.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

struct EngineDeleter {
  void operator()(kvl_engine* e) const { kvl_engine_destroy(e); }
};
using Engine = std::unique_ptr<kvl_engine, EngineDeleter>;
struct SceneDeleter {
  void operator()(kvl_scene* s) const { kvl_scene_free(s); }
};
using Scene = std::unique_ptr<kvl_scene, SceneDeleter>;

Engine make(const std::string& json) { return Engine(kvl_engine_create(json.c_str(), 8, 8, nullptr)); }

// A signal file in memory: `rate` frames a second, frames given as rows of five.
std::vector<uint8_t> table_bytes(float rate, const std::vector<std::vector<uint8_t>>& rows) {
  std::vector<uint8_t> b = {'K', 'V', 'L', 'S', 1, 0, 0, 0};
  auto put = [&](uint32_t v) {
    for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  uint32_t u;
  memcpy(&u, &rate, 4);
  put(u);
  put(0);  // start 0.0f
  put(0);  // tempo 0.0f
  put(static_cast<uint32_t>(rows.size()));
  for (const auto& r : rows) b.insert(b.end(), r.begin(), r.end());
  return b;
}

// A table of `n` frames at 100 frames a second (10 ms a frame), every signal
// given by f(frame index) in 0..255.
template <class F>
std::vector<uint8_t> table_of(int n, F f) {
  std::vector<std::vector<uint8_t>> rows;
  for (int i = 0; i < n; i++) {
    uint8_t v = static_cast<uint8_t>(f(i));
    rows.push_back({v, v, v, v, v});
  }
  return table_bytes(100.0f, rows);
}

int32_t install(kvl_engine* e, const char* key, const std::vector<uint8_t>& bytes) {
  return kvl_engine_set_track_signals(e, key, bytes.data(), static_cast<int32_t>(bytes.size()));
}

kvl_modulation mod(double attack, double release) {
  kvl_modulation m{};
  m.attack_ms = attack;
  m.release_ms = release;
  m.enabled = true;
  return m;
}

TEST(EnvelopeStep, OnePoleWithAttackAndRelease) {
  kvl_modulation m = mod(100, 400);
  EXPECT_NEAR(kvl_envelope_step(&m, 0.0, 1.0, 100.0), 1.0 - std::exp(-1.0), 1e-12);
  EXPECT_NEAR(kvl_envelope_step(&m, 1.0, 0.0, 400.0), std::exp(-1.0), 1e-12);  // falling uses release
  EXPECT_NEAR(kvl_envelope_step(&m, 0.0, 7.0, 100.0), 1.0 - std::exp(-1.0), 1e-12);  // target limited to 1
  EXPECT_NEAR(kvl_envelope_step(&m, 0.5, -3.0, 400.0), 0.5 * std::exp(-1.0), 1e-12);  // and to 0
  EXPECT_EQ(kvl_envelope_step(&m, 0.3, 0.9, 0.0), 0.3);  // dt 0: no change
  EXPECT_EQ(kvl_envelope_step(&m, 0.6, 0.6, 50.0), 0.6);

  kvl_modulation jump = mod(0, 0);
  EXPECT_EQ(kvl_envelope_step(&jump, 0.0, 0.8, 16.0), 0.8);  // attack 0 jumps up
  EXPECT_EQ(kvl_envelope_step(&jump, 0.8, 0.1, 16.0), 0.1);  // release 0 drops at once
  EXPECT_EQ(kvl_envelope_step(&jump, 0.0, 0.8, 0.0), 0.8);   // even with dt 0
  kvl_modulation up_only = mod(0, 1000);
  EXPECT_EQ(kvl_envelope_step(&up_only, 0.2, 0.9, 5.0), 0.9);
  EXPECT_LT(kvl_envelope_step(&up_only, 0.9, 0.2, 5.0), 0.9);
  EXPECT_GT(kvl_envelope_step(&up_only, 0.9, 0.2, 5.0), 0.8);
}

TEST(ClipRamp, FadesInsideTheClipAndZeroOutside) {
  kvl_audio_clip c{};
  c.start_ms = 1000;
  c.length_ms = 2000;
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 999.9), 0.0);
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 1000.0), 1.0);
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 2999.9), 1.0);
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 3000.0), 0.0);  // the end is outside
  c.fade_in_ms = 500;
  c.fade_out_ms = 1000;
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 1000.0), 0.0);
  EXPECT_DOUBLE_EQ(kvl_audio_clip_ramp(&c, 1250.0), 0.5);
  EXPECT_EQ(kvl_audio_clip_ramp(&c, 1800.0), 1.0);
  EXPECT_DOUBLE_EQ(kvl_audio_clip_ramp(&c, 2750.0), 0.25);
  // Fades longer than the clip overlap: the smaller ramp wins.
  c.length_ms = 400;
  c.fade_in_ms = 400;
  c.fade_out_ms = 400;
  EXPECT_DOUBLE_EQ(kvl_audio_clip_ramp(&c, 1100.0), 0.25);
  EXPECT_DOUBLE_EQ(kvl_audio_clip_ramp(&c, 1300.0), 0.25);
  EXPECT_DOUBLE_EQ(kvl_audio_clip_ramp(&c, 1200.0), 0.5);
  EXPECT_EQ(kvl_audio_clip_ramp(nullptr, 1200.0), 0.0);
}

// One layer resolved at time 0, then modulated with the given envelopes.
struct Modulated {
  Scene scene;
  std::vector<double> vertices;
  kvl_resolved r{};
  explicit Modulated(const std::string& json) : scene(kvl_scene_parse(json.c_str(), nullptr, 0)) {}
  void run(const std::vector<double>& env) {
    const kvl_layer* l = &scene->layers[0];
    vertices.assign(2 * (l->vertex_count > 0 ? l->vertex_count : 1), 0.0);
    kvl_layer_resolve(scene.get(), l, vertices.data(), &r, 0.0);
    kvl_layer_modulate(l, env.data(), &r);
  }
};

std::string layer_with(const std::string& extra, const std::string& mods) {
  return R"({"mappings":[{"id":"a","corners":[[0.1,0.2],[0.9,0.2],[0.9,0.8],[0.1,0.8]],
    "opacity":0.8,"content":{"x":0.05},"paint":{"type":"color"})" +
         extra + R"(,"modulations":[)" + mods + "]}]}";
}

TEST(LayerModulate, OpacitySetScalesAndAddIsLimited) {
  Modulated set(layer_with("", R"({"id":"m","source":"level","prop":"opacity","mode":"set"})"));
  ASSERT_NE(set.scene, nullptr);
  set.run({0.5});
  EXPECT_DOUBLE_EQ(set.r.opacity, 0.4);
  Modulated add(layer_with("", R"({"id":"m","source":"level","prop":"opacity","mode":"add"})"));
  add.run({0.5});
  EXPECT_DOUBLE_EQ(add.r.opacity, 1.0);
  add.run({-1.0});  // no envelope: the timeline value stands
  EXPECT_DOUBLE_EQ(add.r.opacity, 0.8);
  Modulated neg(layer_with("", R"({"id":"m","source":"level","prop":"opacity","mode":"add","min":-2,"max":-2})"));
  neg.run({0.3});
  EXPECT_DOUBLE_EQ(neg.r.opacity, 0.0);
}

TEST(LayerModulate, SetReplacesAddRidesAndOrderCounts) {
  const char* both = R"({"id":"s","source":"bass","prop":"contentX","mode":"set","min":-0.1,"max":0.1},
                        {"id":"a","source":"bass","prop":"contentX","mode":"add","min":0,"max":0.2})";
  Modulated m(layer_with("", both));
  m.run({1.0, 0.5});  // set to 0.1, then add 0.1
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.2);
  m.run({0.5, -1.0});  // set alone replaces the keyframed 0.05 entirely
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.0);
  m.run({-1.0, 0.25});  // add alone rides on it
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.1);
  m.run({7.0, -1.0});  // envelopes above 1 count as 1
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.1);

  const char* two_sets = R"({"id":"1","source":"mid","prop":"contentScale","min":2,"max":2},
                            {"id":"2","source":"mid","prop":"contentScale","min":3,"max":3})";
  Modulated s(layer_with("", two_sets));
  s.run({1.0, 1.0});
  EXPECT_DOUBLE_EQ(s.r.content_scale, 3.0);
  const char* two_adds = R"({"id":"1","source":"mid","prop":"contentRotation","mode":"add","min":10,"max":10},
                            {"id":"2","source":"mid","prop":"contentRotation","mode":"add","min":5,"max":5})";
  Modulated a(layer_with("", two_adds));
  a.run({0.0, 0.0});
  EXPECT_DOUBLE_EQ(a.r.content_rotation, 15.0);
}

TEST(LayerModulate, EffectPropsNeedTheirEffect) {
  const char* mods = R"({"id":"1","source":"high","prop":"shadowBlur","min":30,"max":30},
                        {"id":"2","source":"high","prop":"strokeWidth","min":9,"max":9},
                        {"id":"3","source":"high","prop":"glowRadius","min":4,"max":4},
                        {"id":"4","source":"high","prop":"bevelDepth","min":5,"max":5},
                        {"id":"5","source":"high","prop":"shadowX","mode":"add","min":1,"max":1})";
  Modulated off(layer_with("", mods));
  off.run({1, 1, 1, 1, 1});
  EXPECT_FALSE(off.r.has_shadow);
  EXPECT_EQ(off.r.shadow_blur, 0.0);
  EXPECT_EQ(off.r.shadow_dx, 0.0);
  EXPECT_NE(off.r.stroke_width, 9.0);
  Modulated on(layer_with(R"(,"effects":{"shadow":{"dx":2},"stroke":{}})", mods));
  on.run({1, 1, 1, 1, 1});
  EXPECT_DOUBLE_EQ(on.r.shadow_blur, 30.0);
  EXPECT_DOUBLE_EQ(on.r.stroke_width, 9.0);
  EXPECT_NE(on.r.glow_radius, 4.0);
  EXPECT_NE(on.r.bevel_depth, 5.0);
  Modulated shadow_x(layer_with(R"(,"effects":{"shadow":{}})", mods));
  shadow_x.run({-1, -1, -1, -1, -1});
  double base = shadow_x.r.shadow_dx;
  shadow_x.run({-1, -1, -1, -1, 1});
  EXPECT_DOUBLE_EQ(shadow_x.r.shadow_dx, base + 1.0);
}

TEST(LayerModulate, VertexFormAndUnknownNames) {
  const char* mods = R"({"id":"1","source":"beat","prop":"c2x","min":0.5,"max":0.5},
                        {"id":"2","source":"beat","prop":"c1yzz","min":0.7,"max":0.7},
                        {"id":"3","source":"beat","prop":"c4x","min":0.3,"max":0.3},
                        {"id":"4","source":"beat","prop":"c0z","min":0.3,"max":0.3},
                        {"id":"5","source":"beat","prop":"c-1x","min":0.3,"max":0.3},
                        {"id":"6","source":"beat","prop":"sparkle","min":0.3,"max":0.3},
                        {"id":"7","source":"beat","prop":"c3y","min":0.0,"max":0.0,"enabled":false},
                        {"id":"8","source":"beat","prop":"c 3x","min":0.6,"max":0.6},
                        {"id":"9","source":"beat","prop":"c99999999999999999999x","min":0.3,"max":0.3})";
  Modulated m(layer_with("", mods));
  m.run({1, 1, 1, 1, 1, 1, 1, 1, 1});
  std::vector<double> expect = {0.1, 0.2, 0.9, 0.7, 0.5, 0.8, 0.6, 0.8};
  for (size_t i = 0; i < expect.size(); i++) EXPECT_DOUBLE_EQ(m.vertices[i], expect[i]) << "coordinate " << i;
  EXPECT_DOUBLE_EQ(m.r.opacity, 0.8);
}

TEST(LayerModulate, OnlyTheFirst64Count) {
  std::string mods;
  for (int i = 0; i < 65; i++) {
    if (i) mods += ",";
    mods += R"({"id":"m)" + std::to_string(i) + R"(","source":"level","prop":"contentRotation","mode":"add","min":1,"max":1})";
  }
  Modulated m(layer_with("", mods));
  ASSERT_EQ(m.scene->layers[0].modulation_count, 65);
  std::vector<double> env(65, 1.0);
  m.run(env);
  EXPECT_DOUBLE_EQ(m.r.content_rotation, 64.0);
}

const char* kLiveScene = R"({
  "audioTracks":[{"id":"mic","input":{}},{"id":"song","clips":[]}],
  "mappings":[
   {"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
     {"id":"lvl","source":"level","prop":"opacity","attackMs":0,"releaseMs":0},
     {"id":"hi","source":"high","prop":"contentX","track":"mic","attackMs":100,"releaseMs":100},
     {"id":"file","source":"bass","prop":"contentY","track":"song"},
     {"id":"ghost","source":"bass","prop":"contentY","track":"nowhere"}]},
   {"id":"b","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
     {"id":"lvl","source":"beat","prop":"opacity","attackMs":0,"releaseMs":0}]},
   {"id":"c","output":"elsewhere","corners":[[0,0],[1,0],[1,1],[0,1]],"modulations":[
     {"id":"far","source":"level","prop":"opacity"}]}]})";

TEST(EngineSignals, CallerFedStepDrivesLiveEnvelopesOnly) {
  Engine e = make(kLiveScene);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "lvl", 0), -1.0);
  const float sig[5] = {0.6f, 0.2f, 0.3f, 0.9f, 1.0f};
  kvl_engine_set_signals(e.get(), sig, 100.0);
  // Shared id: the first layer's modulation decides, with its own source.
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "lvl", 0), 0.6, 1e-6);
  // Input track: live road, one-pole from 0.
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), 0.9 * (1 - std::exp(-1.0)), 1e-6);
  // A file track with no clips is silent (0), a missing track has none (-1).
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "file", 0), 0.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "ghost", 0), -1.0);
  // Other outputs are not stepped, and unknown ids have no envelope.
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "far", 0), -1.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "nobody", 0), -1.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), nullptr, 0), -1.0);

  kvl_engine_set_signals(e.get(), sig, 100.0);  // continues from the stored value
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), 0.9 * (1 - std::exp(-2.0)), 1e-6);
  kvl_engine_set_signals(e.get(), nullptr, 100.0);  // nothing happens
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), 0.9 * (1 - std::exp(-2.0)), 1e-6);

  // A scene change keeps envelopes by id; a step then drops ids that left.
  ASSERT_EQ(kvl_engine_set_scene(e.get(), R"({"audioTracks":[{"id":"mic","input":{}}],"mappings":[
     {"id":"z","corners":[[0,0],[1,0],[1,1]],"modulations":[
       {"id":"hi","source":"high","prop":"contentX","track":"mic","attackMs":100,"releaseMs":100}]}]})"),
            0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), 0.9 * (1 - std::exp(-2.0)), 1e-6);
  kvl_engine_set_signals(e.get(), sig, 0.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "lvl", 0), -1.0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), 0.9 * (1 - std::exp(-2.0)), 1e-6);

  // Null handles are harmless.
  kvl_engine_set_signals(nullptr, sig, 1.0);
  kvl_engine_step_audio(nullptr, 1.0);
  kvl_engine_set_audio_time(nullptr, 1.0);
  EXPECT_EQ(kvl_engine_envelope_at(nullptr, "hi", 0), -1.0);
  EXPECT_EQ(kvl_engine_set_track_signals(nullptr, "k", sig, 4), -1);
}

// Both roads to a frame show the modulation: resolve_all runs it.
TEST(EngineSignals, RenderAndDrawListShowModulatedOpacity) {
  Engine e = make(R"({"mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],
      "paint":{"type":"color","argb":4294967295},
      "modulations":[{"id":"o","source":"level","prop":"opacity","attackMs":0,"releaseMs":0}]}]})");
  ASSERT_NE(e, nullptr);
  std::vector<uint8_t> full(8 * 8 * 4), dim(8 * 8 * 4);
  ASSERT_EQ(kvl_engine_render(e.get(), 0, full.data(), 32), 0);
  const kvl_draw_list* list = kvl_engine_draw_list(e.get(), 0);
  ASSERT_NE(list, nullptr);
  ASSERT_GE(list->cmd_count, 1);
  EXPECT_FLOAT_EQ(list->cmds[0].opacity, 1.0f);

  const float sig[5] = {0.25f, 0, 0, 0, 0};
  kvl_engine_set_signals(e.get(), sig, 16.0);
  ASSERT_EQ(kvl_engine_render(e.get(), 0, dim.data(), 32), 0);
  size_t centre = (4 * 8 + 4) * 4;
  EXPECT_EQ(full[centre], 255);
  EXPECT_LT(dim[centre], 120);  // a quarter of white over the background
  list = kvl_engine_draw_list(e.get(), 0);
  ASSERT_GE(list->cmd_count, 1);
  EXPECT_FLOAT_EQ(list->cmds[0].opacity, 0.25f);
}

// File road: a track with clips whose tables come from memory or from disk.
std::string file_scene(const std::string& clips, const std::string& times = R"("attackMs":0,"releaseMs":0)",
                       bool muted = false) {
  return std::string(R"({"audioTracks":[{"id":"t","muted":)") + (muted ? "true" : "false") +
         R"(,"clips":[)" + clips + R"(]}],
    "mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
      {"id":"m","source":"bass","prop":"opacity","track":"t",)" + times +
         "}]}]}";
}

TEST(FileEnvelope, ReadsClipTablesThroughTrimRampAndMaximum) {
  // Clip at 1000 ms, trimmed by 500 ms: timeline 1500 is media 1000 (frame 100).
  Engine e = make(file_scene(
      R"({"startMs":1000,"lengthMs":2000,"trimStartMs":500,"fadeOutMs":1000,"path":"x.wav"},
         {"startMs":2600,"lengthMs":1000,"path":"y.wav"})"));
  ASSERT_NE(e, nullptr);
  ASSERT_EQ(install(e.get(), "x.wav", table_of(400, [](int i) { return i; })), 0);
  ASSERT_EQ(install(e.get(), "y.wav", table_of(400, [](int) { return 51; })), 0);
  auto at = [&](double ms) { return kvl_engine_envelope_at(e.get(), "m", static_cast<int64_t>(ms * 1000)); };
  EXPECT_EQ(at(500), 0.0);                           // before every clip: silent, not absent
  EXPECT_NEAR(at(1500), 100.0 / 255.0, 1e-6);        // media time 1000 ms
  EXPECT_NEAR(at(2500), 200.0 / 255.0 * 0.5, 1e-6);  // half-way through the fade out
  // At 2900 x gives 240/255 * 0.1 = 0.094, y gives 0.2: the larger wins.
  EXPECT_NEAR(at(2900), 0.2, 1e-6);
  EXPECT_NEAR(at(3200), 0.2, 1e-6);  // x is over

  // The audio clock, when set, is the time of file envelopes.
  kvl_engine_set_audio_time(e.get(), 1500.0);
  EXPECT_NEAR(at(500), 100.0 / 255.0, 1e-6);
  kvl_engine_set_audio_time(e.get(), -1.0);
  EXPECT_EQ(at(500), 0.0);

  // A new table under the same key replaces the old one.
  ASSERT_EQ(install(e.get(), "x.wav", table_of(400, [](int) { return 255; })), 0);
  EXPECT_NEAR(at(1500), 1.0, 1e-6);
  std::vector<uint8_t> junk = {1, 2, 3};
  EXPECT_EQ(install(e.get(), "x.wav", junk), -2);
  EXPECT_EQ(kvl_engine_set_track_signals(e.get(), nullptr, junk.data(), 3), -1);
  EXPECT_NEAR(at(1500), 1.0, 1e-6);  // a refused table leaves the old one
}

TEST(FileEnvelope, MutedTrackDrivesToZeroAndMissingTableToNone) {
  Engine muted = make(file_scene(R"({"startMs":0,"lengthMs":5000,"path":"x.wav"})", R"("attackMs":0)", true));
  ASSERT_EQ(install(muted.get(), "x.wav", table_of(400, [](int) { return 255; })), 0);
  EXPECT_EQ(kvl_engine_envelope_at(muted.get(), "m", 1000000), 0.0);

  Engine partial = make(file_scene(R"({"startMs":0,"lengthMs":5000,"path":"x.wav"},
                                      {"startMs":9000,"lengthMs":100,"path":"/nonexistent/gone.wav"})"));
  ASSERT_EQ(install(partial.get(), "x.wav", table_of(400, [](int) { return 255; })), 0);
  // One clip without a table silences the whole track, even where it plays no part.
  EXPECT_EQ(kvl_engine_envelope_at(partial.get(), "m", 1000000), -1.0);
}

TEST(FileEnvelope, TracksWithManyClipsReadEveryClip) {
  std::string clips;
  for (int i = 0; i < 40; i++)
    clips += (i ? "," : "") + std::string(R"({"startMs":)") + std::to_string(i * 100) +
             R"(,"lengthMs":100,"path":"c)" + std::to_string(i) + R"("})";
  Engine e = make(file_scene(clips));
  for (int i = 0; i < 40; i++)
    ASSERT_EQ(install(e.get(), ("c" + std::to_string(i)).c_str(), table_of(20, [i](int) { return 5 * i; })), 0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "m", 350000), 15.0 / 255.0, 1e-6);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "m", 3950000), 195.0 / 255.0, 1e-6);
}

// After a jump, the stateless envelope equals the running one: a burst of
// 300 ms at full level, then silence, with attack 50 and release 200.
TEST(FileEnvelope, SameValueAfterAnyJumpAsAfterPlaying) {
  Engine e = make(file_scene(R"({"startMs":2000,"lengthMs":3000,"path":"burst.wav"})",
                             R"("attackMs":50,"releaseMs":200)"));
  ASSERT_EQ(install(e.get(), "burst.wav", table_of(300, [](int i) { return i < 30 ? 255 : 0; })), 0);
  // Steps of 10 ms that end at 2000 .. 2290 read the burst (30 of them: the
  // clip's first moment is inside it), the steps after it decay.
  double peak = 1.0 - std::exp(-300.0 / 50.0);
  double want = peak * std::exp(-(2700.0 - 2290.0) / 200.0);
  double forward = kvl_engine_envelope_at(e.get(), "m", 2700000);
  EXPECT_NEAR(forward, want, 1e-9);
  EXPECT_GT(kvl_engine_envelope_at(e.get(), "m", 4000000), -1.0);  // jump ahead...
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "m", 2700000), forward);  // ...and back
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "m", 2290000), peak, 1e-9);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "m", 4500000), 0.0);  // long after: fully released
}

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/kavlen-modulate-XXXXXX";
    if (mkdtemp(tmpl)) path_ = tmpl;
  }
  ~TempDir() {
    if (!path_.empty() && system(("rm -rf '" + path_ + "'").c_str()) != 0) fprintf(stderr, "cleanup failed\n");
  }
  std::string path_;
};

void write_bytes(const std::string& path, const std::vector<uint8_t>& b) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite(b.data(), 1, b.size(), f), b.size());
  fclose(f);
}

TEST(FileEnvelope, LoadsBesideMediaAndRemembersFailuresUntilSceneChange) {
  TempDir dir;
  ASSERT_FALSE(dir.path_.empty());
  ASSERT_EQ(system(("mkdir -p '" + dir.path_ + "/music'").c_str()), 0);
  std::string scene = file_scene(R"({"startMs":0,"lengthMs":5000,"path":"music/a.wav"})");
  Engine e = make(scene);
  kvl_engine_set_media_root(e.get(), dir.path_.c_str());
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "m", 1000000), -1.0);  // no file yet
  write_bytes(dir.path_ + "/music/a.wav.signals", table_of(400, [](int) { return 102; }));
  // The failure is remembered: no new disk access until the scene changes.
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "m", 1000000), -1.0);
  ASSERT_EQ(kvl_engine_set_scene(e.get(), scene.c_str()), 0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "m", 1000000), 0.4, 1e-6);
  // A loaded table stays, also when the file goes away.
  ASSERT_EQ(remove((dir.path_ + "/music/a.wav.signals").c_str()), 0);
  ASSERT_EQ(kvl_engine_set_scene(e.get(), scene.c_str()), 0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "m", 1000000), 0.4, 1e-6);

  // An absolute key ignores the media root.
  std::string abs_key = dir.path_ + "/b.wav";
  write_bytes(abs_key + ".signals", table_of(400, [](int) { return 204; }));
  Engine f = make(file_scene(R"({"startMs":0,"lengthMs":5000,"path":")" + abs_key + R"("})"));
  kvl_engine_set_media_root(f.get(), "/somewhere/else");
  EXPECT_NEAR(kvl_engine_envelope_at(f.get(), "m", 1000000), 0.8, 1e-6);

  // Without a root, a relative key is taken as it stands; a root change
  // sweeps the failure out.
  Engine g = make(scene);
  EXPECT_EQ(kvl_engine_envelope_at(g.get(), "m", 1000000), -1.0);
  write_bytes(dir.path_ + "/music/a.wav.signals", table_of(400, [](int) { return 51; }));
  kvl_engine_set_media_root(g.get(), dir.path_.c_str());
  EXPECT_NEAR(kvl_engine_envelope_at(g.get(), "m", 1000000), 0.2, 1e-6);
}

// The live road with real sources: pushes on one thread's source, steps on
// the render side. Names are unique to this test to keep the process-wide
// table to ourselves.
TEST(LiveEnvelope, FollowsLiveSourcesAndForgetsSilentOnes) {
  Engine e = make(R"({"audioTracks":[{"id":"mod-test-mic","input":{}}],
    "mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
      {"id":"mic-level","source":"level","prop":"opacity","track":"mod-test-mic","attackMs":0,"releaseMs":0},
      {"id":"default-level","source":"level","prop":"opacity","attackMs":0,"releaseMs":0}]}]})");
  ASSERT_NE(e, nullptr);
  kvl_engine_step_audio(e.get(), 0.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "mic-level", 0), -1.0);  // never started

  kvl_audio_source_start("mod-test-mic", 48000);
  kvl_engine_step_audio(e.get(), 16.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "mic-level", 0), -1.0);  // started, never pushed

  std::vector<float> tone(48000 / 2);
  for (size_t i = 0; i < tone.size(); i++) tone[i] = 0.5f * std::sin(2 * M_PI * 440.0 * i / 48000.0);
  kvl_audio_source_push("mod-test-mic", tone.data(), static_cast<int32_t>(tone.size()));
  kvl_engine_step_audio(e.get(), 16.0);
  double lvl = kvl_engine_envelope_at(e.get(), "mic-level", 0);
  EXPECT_GT(lvl, 0.5);  // a steady tone reads near the top of its own follower
  EXPECT_LE(lvl, 1.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "default-level", 0), -1.0);  // "" is not running

  kvl_audio_source_stop("mod-test-mic");
  kvl_engine_step_audio(e.get(), 16.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "mic-level", 0), -1.0);
}

}  // namespace
