// Audio modulation: envelopes applied to a resolved layer, the live envelope
// table (caller-fed and from a real source) and the stateless file road.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

using Engine = std::unique_ptr<kvl_engine, void (*)(kvl_engine*)>;
Engine make(const std::string& json) {
  return Engine(kvl_engine_create(json.c_str(), 8, 8, nullptr), kvl_engine_destroy);
}

// A signal file of `n` frames at 100 frames a second, every signal f(frame).
template <class F>
std::vector<uint8_t> table_of(int n, F f) {
  std::vector<uint8_t> b = {'K', 'V', 'L', 'S', 1, 0, 0, 0, 0, 0, 0xC8, 0x42, 0, 0, 0, 0, 0, 0, 0, 0};
  for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(n >> (8 * i)));
  for (int i = 0; i < n; i++) b.insert(b.end(), 5, static_cast<uint8_t>(f(i)));
  return b;
}

int32_t install(const Engine& e, const char* key, const std::vector<uint8_t>& b) {
  return kvl_engine_set_track_signals(e.get(), key, b.data(), static_cast<int32_t>(b.size()));
}

// One layer resolved at time 0, then modulated with the given envelopes.
struct Modulated {
  std::unique_ptr<kvl_scene, void (*)(kvl_scene*)> scene;
  std::vector<double> vertices;
  kvl_resolved r{};
  explicit Modulated(const std::string& mods)
      : scene(kvl_scene_parse((R"({"mappings":[{"id":"a","corners":[[0.1,0.2],[0.9,0.2],[0.9,0.8],[0.1,0.8]],
    "opacity":0.8,"content":{"x":0.05},"paint":{"type":"color"},"modulations":[)" + mods + "]}]}").c_str(),
                              nullptr, 0),
              kvl_scene_free) {}
  void run(const std::vector<double>& env) {
    const kvl_layer* l = &scene->layers[0];
    vertices.assign(2 * std::max(l->vertex_count, 1), 0.0);
    kvl_layer_resolve(scene.get(), l, vertices.data(), &r, 0.0);
    kvl_layer_modulate(l, env.data(), &r);
  }
};

TEST(LayerModulate, SetReplacesAddRidesOrderCountsAndLimits) {
  Modulated m(R"({"id":"s","source":"bass","prop":"contentX","mode":"set","min":-0.1,"max":0.1},
                 {"id":"a","source":"bass","prop":"contentX","mode":"add","min":0,"max":0.2},
                 {"id":"o","source":"level","prop":"opacity","mode":"add"})");
  ASSERT_NE(m.scene, nullptr);
  m.run({1.0, 0.5, 0.5});  // set to 0.1, then add 0.1; opacity 0.8 + 0.5 limited to 1
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.2);
  EXPECT_DOUBLE_EQ(m.r.opacity, 1.0);
  m.run({0.5, -1.0, -1.0});  // set alone replaces the keyframed 0.05; no envelope leaves opacity
  EXPECT_TRUE(m.r.content_x == 0.0 && m.r.opacity == 0.8) << m.r.content_x << " " << m.r.opacity;
  m.run({7.0, 0.25, -1.0});  // envelopes above 1 count as 1
  EXPECT_DOUBLE_EQ(m.r.content_x, 0.15);

  std::string many = R"({"source":"level","prop":"contentRotation","mode":"add","min":1,"max":1})";
  for (int i = 0; i < 6; i++) many += "," + many;  // 64 copies, then one more: only the first 64 count
  Modulated r(many + R"(,{"source":"level","prop":"contentRotation","mode":"add","min":1,"max":1})");
  ASSERT_EQ(r.scene->layers[0].modulation_count, 65);
  r.run(std::vector<double>(65, 1.0));
  EXPECT_DOUBLE_EQ(r.r.content_rotation, 64.0);
}

TEST(LayerModulate, VertexFormAndUnknownNames) {
  // Corner props are cN then x or y; out-of-range, unknown and disabled ones change nothing.
  const char* props[][3] = {{"c2x", "0.5", ""}, {"c1yzz", "0.7", ""}, {"c4x", "0.3", ""},
                            {"c0z", "0.3", ""}, {"c-1x", "0.3", ""}, {"sparkle", "0.3", ""},
                            {"c3y", "0.0", R"(,"enabled":false)"}, {"c 3x", "0.6", ""},
                            {"c99999999999999999999x", "0.3", ""}};
  std::string mods;
  for (auto& p : props)
    mods += (mods.empty() ? "" : ",") + std::string(R"({"id":")") + p[0] + R"(","source":"beat","prop":")" + p[0] +
            R"(","min":)" + p[1] + R"(,"max":)" + p[1] + p[2] + "}";
  Modulated m(mods);
  ASSERT_TRUE(m.scene && m.scene->layers[0].modulation_count == 9);
  m.run(std::vector<double>(9, 1.0));
  EXPECT_EQ(m.vertices, std::vector<double>({0.1, 0.2, 0.9, 0.7, 0.5, 0.8, 0.6, 0.8}));
}

TEST(EngineSignals, CallerFedStepDrivesLiveEnvelopesAndTheRender) {
  Engine e = make(R"({"audioTracks":[{"id":"mic","input":{}},{"id":"song","clips":[]}],"mappings":[
   {"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":4294967295},"modulations":[
     {"id":"lvl","source":"level","prop":"opacity","attackMs":0,"releaseMs":0},
     {"id":"hi","source":"high","prop":"contentX","track":"mic","attackMs":100,"releaseMs":100},
     {"id":"file","source":"bass","prop":"contentY","track":"song"},
     {"id":"ghost","source":"bass","prop":"contentY","track":"nowhere"}]},
   {"id":"c","output":"elsewhere","corners":[[0,0],[1,0],[1,1],[0,1]],"modulations":[
     {"id":"far","source":"level","prop":"opacity"}]}]})");
  ASSERT_NE(e, nullptr);
  std::vector<uint8_t> full(8 * 8 * 4), dim(8 * 8 * 4);
  ASSERT_EQ(kvl_engine_render(e.get(), 0, full.data(), 32), 0);
  const float sig[5] = {0.25f, 0.2f, 0.3f, 0.9f, 1.0f};
  kvl_engine_set_signals(e.get(), sig, 100.0);
  const double hi = 0.9 * (1 - std::exp(-1.0));
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), hi, 1e-6);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "file", 0), 0.0);    // file track with no clips: silent
  for (const char* none : {"ghost", "far", "nobody", (const char*)nullptr})  // missing track, other output, unknown
    EXPECT_EQ(kvl_engine_envelope_at(e.get(), none, 0), -1.0) << (none ? none : "null");
  // Both roads to a frame show the modulated opacity.
  ASSERT_EQ(kvl_engine_render(e.get(), 0, dim.data(), 32), 0);
  const size_t centre = (4 * 8 + 4) * 4;
  EXPECT_TRUE(full[centre] == 255 && dim[centre] < 120) << int(full[centre]) << " then " << int(dim[centre]);
  const kvl_draw_list* list = kvl_engine_draw_list(e.get(), 0);
  ASSERT_TRUE(list && list->cmd_count >= 1);
  EXPECT_FLOAT_EQ(list->cmds[0].opacity, 0.25f);
  kvl_engine_set_signals(e.get(), nullptr, 100.0);  // nothing happens
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), hi, 1e-6);

  // A scene change keeps envelopes by id; a step then drops ids that left.
  ASSERT_EQ(kvl_engine_set_scene(e.get(), R"({"audioTracks":[{"id":"mic","input":{}}],"mappings":[
     {"id":"z","corners":[[0,0],[1,0],[1,1]],"modulations":[
       {"id":"hi","source":"high","prop":"contentX","track":"mic","attackMs":100,"releaseMs":100}]}]})"), 0);
  kvl_engine_set_signals(e.get(), sig, 0.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "lvl", 0), -1.0);
  EXPECT_NEAR(kvl_engine_envelope_at(e.get(), "hi", 0), hi, 1e-6);
  kvl_engine_set_signals(nullptr, sig, 1.0);  // null handles are harmless
  kvl_engine_step_audio(nullptr, 1.0);
  kvl_engine_set_audio_time(nullptr, 1.0);
  EXPECT_EQ(kvl_engine_envelope_at(nullptr, "hi", 0), -1.0);
  EXPECT_EQ(kvl_engine_set_track_signals(nullptr, "k", sig, 4), -1);
}

std::string file_scene(const std::string& clips, const std::string& times = R"("attackMs":0,"releaseMs":0)") {
  return R"({"audioTracks":[{"id":"t","clips":[)" + clips + R"(]}],
    "mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
      {"id":"m","source":"bass","prop":"opacity","track":"t",)" + times + "}]}]}";
}

TEST(FileEnvelope, ReadsClipTablesThroughTrimRampAndMaximum) {
  // Clip at 1000 ms, trimmed by 500 ms: timeline 1500 is media 1000 (frame 100).
  Engine e = make(file_scene(R"({"startMs":1000,"lengthMs":2000,"trimStartMs":500,"fadeOutMs":1000,"path":"x.wav"},
                                {"startMs":2600,"lengthMs":1000,"path":"y.wav"})"));
  ASSERT_NE(e, nullptr);
  ASSERT_EQ(install(e, "x.wav", table_of(400, [](int i) { return i; })), 0);
  ASSERT_EQ(install(e, "y.wav", table_of(400, [](int) { return 51; })), 0);
  auto at = [&](int64_t ms) { return kvl_engine_envelope_at(e.get(), "m", ms * 1000); };
  EXPECT_EQ(at(500), 0.0);                           // before every clip: silent, not absent
  EXPECT_NEAR(at(1500), 100.0 / 255.0, 1e-6);        // media time 1000 ms
  EXPECT_NEAR(at(2500), 200.0 / 255.0 * 0.5, 1e-6);  // half-way through the fade out
  EXPECT_NEAR(at(2900), 0.2, 1e-6);                  // x gives 0.094, y 0.2: the larger wins
  kvl_engine_set_audio_time(e.get(), 1500.0);        // the audio clock, when set, rules
  EXPECT_NEAR(at(500), 100.0 / 255.0, 1e-6);
  kvl_engine_set_audio_time(e.get(), -1.0);
  EXPECT_EQ(at(500), 0.0);
  ASSERT_EQ(install(e, "x.wav", table_of(400, [](int) { return 255; })), 0);  // replaces
  EXPECT_NEAR(at(1500), 1.0, 1e-6);
  EXPECT_EQ(install(e, "x.wav", {1, 2, 3}), -2);
  EXPECT_NEAR(at(1500), 1.0, 1e-6);  // a refused table leaves the old one

  // One clip without a table silences the whole track, even where it plays no part.
  Engine partial = make(file_scene(R"({"startMs":0,"lengthMs":5000,"path":"x.wav"},
                                      {"startMs":9000,"lengthMs":100,"path":"/nonexistent/gone.wav"})"));
  ASSERT_EQ(install(partial, "x.wav", table_of(400, [](int) { return 255; })), 0);
  EXPECT_EQ(kvl_engine_envelope_at(partial.get(), "m", 1000000), -1.0);
}

// After a jump the stateless envelope equals the running one: a 300 ms burst
// at full level, then silence, with attack 50 and release 200.
TEST(FileEnvelope, SameValueAfterAnyJumpAsAfterPlaying) {
  Engine e = make(
      file_scene(R"({"startMs":2000,"lengthMs":3000,"path":"burst.wav"})", R"("attackMs":50,"releaseMs":200)"));
  ASSERT_EQ(install(e, "burst.wav", table_of(300, [](int i) { return i < 30 ? 255 : 0; })), 0);
  const double peak = 1.0 - std::exp(-300.0 / 50.0);
  auto at = [&](int64_t ms) { return kvl_engine_envelope_at(e.get(), "m", ms * 1000); };
  const double forward = at(2700);
  EXPECT_NEAR(forward, peak * std::exp(-(2700.0 - 2290.0) / 200.0), 1e-9);
  EXPECT_EQ(at(4500), 0.0);      // jump ahead...
  EXPECT_EQ(at(2700), forward);  // ...and back
}

TEST(FileEnvelope, LoadsBesideMediaAndRemembersFailuresUntilSceneChange) {
  char tmpl[] = "/tmp/kavlen-modulate-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl, table = dir + "/music/a.wav.signals";
  std::filesystem::create_directories(dir + "/music");
  auto write = [](const std::string& path, const std::vector<uint8_t>& b) {
    ASSERT_TRUE(std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size()).good());
  };
  const std::string scene = file_scene(R"({"startMs":0,"lengthMs":5000,"path":"music/a.wav"})");
  Engine e = make(scene);
  kvl_engine_set_media_root(e.get(), dir.c_str());
  auto at1s = [](const Engine& x) { return kvl_engine_envelope_at(x.get(), "m", 1000000); };
  EXPECT_EQ(at1s(e), -1.0);  // no file yet
  write(table, table_of(400, [](int) { return 102; }));
  EXPECT_EQ(at1s(e), -1.0);  // the failure is remembered
  ASSERT_EQ(kvl_engine_set_scene(e.get(), scene.c_str()), 0);
  EXPECT_NEAR(at1s(e), 0.4, 1e-6);
  ASSERT_TRUE(std::filesystem::remove(table));  // a loaded table stays
  ASSERT_EQ(kvl_engine_set_scene(e.get(), scene.c_str()), 0);
  EXPECT_NEAR(at1s(e), 0.4, 1e-6);
  // An absolute key ignores the media root.
  write(dir + "/b.wav.signals", table_of(400, [](int) { return 204; }));
  Engine f = make(file_scene(R"({"startMs":0,"lengthMs":5000,"path":")" + dir + R"(/b.wav"})"));
  kvl_engine_set_media_root(f.get(), "/somewhere/else");
  EXPECT_NEAR(at1s(f), 0.8, 1e-6);
  std::filesystem::remove_all(dir);
}

// Live road with a real source; names are unique to this test.
TEST(LiveEnvelope, FollowsLiveSourcesAndForgetsSilentOnes) {
  Engine e = make(R"({"audioTracks":[{"id":"mod-test-mic","input":{}}],
    "mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[
      {"id":"mic","source":"level","prop":"opacity","track":"mod-test-mic","attackMs":0,"releaseMs":0}]}]})");
  kvl_audio_source_start("mod-test-mic", 48000);
  kvl_engine_step_audio(e.get(), 16.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "mic", 0), -1.0);  // started, never pushed
  std::vector<float> tone(24000);
  for (size_t i = 0; i < tone.size(); i++) tone[i] = 0.5f * std::sin(2 * M_PI * 440.0 * i / 48000.0);
  kvl_audio_source_push("mod-test-mic", tone.data(), static_cast<int32_t>(tone.size()));
  kvl_engine_step_audio(e.get(), 16.0);
  const double lvl = kvl_engine_envelope_at(e.get(), "mic", 0);
  EXPECT_TRUE(lvl > 0.5 && lvl <= 1.0) << lvl;
  kvl_audio_source_stop("mod-test-mic");
  kvl_engine_step_audio(e.get(), 16.0);
  EXPECT_EQ(kvl_engine_envelope_at(e.get(), "mic", 0), -1.0);
}

}  // namespace
