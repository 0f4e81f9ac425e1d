// Output state without a GPU: the message parser, the pending scene and its
// hand-over to the engine, re-creation on a size change, "mediaReset".
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <atomic>
#include <string>
#include <thread>

#include "output_renderer_core.h"
#include "output_state.h"

namespace {

std::string sceneWith(int layers, const std::string& resolution = "[320,180]") {
  std::string s = R"({"outputs":[{"id":"out-1","resolution":)" + resolution + "}],\"mappings\":[";
  for (int i = 0; i < layers; i++)
    s += (i ? "," : "") + std::string(R"({"id":"l)") + std::to_string(i) +
         R"(","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":4294901760}})";
  return s + "]}";
}

std::string stateWith(const std::string& scene, const std::string& extra = "") {
  return R"({"scene":)" + scene + (extra.empty() ? "" : "," + extra) + "}";
}

bool hasSource(kvl_engine* e, const char* key) {
  const kvl_sources* s = kvl_engine_sources(e);
  for (int32_t i = 0; s && i < s->count; i++)
    if (std::string(s->entries[i].key) == key) return true;
  return false;
}

TEST(OutputStateParse, RejectsAnythingButAnObjectWithAnObjectSceneOrTheBareReset) {
  OutputState s;
  EXPECT_EQ(parseOutputState("mediaReset", s), OutputStateKind::MediaReset);
  for (const char* bad : {"mediaReset\n", "\"mediaReset\"", "mediareset", "", "[]", "42", "null", "{", "{\"scene\":[]}",
                          "{\"scene\":\"{}\"}", "{\"mode\":\"normal\"}", "{\"scene\":{}} x", "{\"scene\":{}}{}",
                          "{\"scene\":{\"a\":\"\xC3\x28\"}}" /* broken UTF-8 */,
                          R"({"scene":{"outputs":[{"resolution":[3e9,1080]}]}})",
                          R"({"scene":{},"videoPositions":{"a.mp4":1e300}})" /* past 64 bits: the whole state goes */})
    EXPECT_EQ(parseOutputState(bad, s), OutputStateKind::Rejected) << bad;
  EXPECT_EQ(parseOutputState(std::string("{\"scene\":{}}\0", 14), s), OutputStateKind::Rejected);
  EXPECT_EQ(parseOutputState(" {\"scene\":{}} \r\n", s), OutputStateKind::State);
}

TEST(OutputStateParse, SceneSizeFromTheFirstOutputOnly) {
  const struct { const char* outputs; int32_t w, h; } cases[] = {
      {R"([{"resolution":[1280,720.9]},{"resolution":[10,10]}])", 1280, 720},
      {R"([{"resolution":[0,1080]}])", 1920, 1080},
      {R"([{"resolution":[640,480,3]}])", 1920, 1080},
      {R"([{"resolution":[0.5,0.5]}])", 0, 0},  // positive, truncates to 0
      {R"([7])", 1920, 1080},
      {R"({"resolution":[640,480]})", 1920, 1080},
  };
  for (const auto& c : cases) {
    OutputState s;
    ASSERT_EQ(parseOutputState(std::string(R"({"scene":{"outputs":)") + c.outputs + "}}", s), OutputStateKind::State);
    EXPECT_EQ(std::pair(s.sceneW, s.sceneH), std::pair(c.w, c.h)) << c.outputs;
  }
}

TEST(OutputStateParse, TransportFields) {
  OutputState s, t;
  ASSERT_EQ(parseOutputState(R"({"scene":{},"mode":"blackout","playing":true,
      "videoPositions":{"a.mp4":1500.7,"b.mp4":"12","c.mov":-2.5,"a.mp4":9},
      "videoSpeeds":{"a.mp4":2,"b.mp4":null},"audioTimeMs":12.5,"audioClockOriginMs":1.7e12})", s),
            OutputStateKind::State);
  EXPECT_TRUE(s.mode == "blackout" && s.playing && s.audioTimeMs == 12.5 && s.audioClockOriginMs == 1.7e12);
  // Strings and nulls are skipped; the first of two equal keys decides.
  EXPECT_EQ(s.positions, decltype(s.positions)({{"a.mp4", 1500700}, {"c.mov", -2500}}));
  EXPECT_EQ(s.speeds, decltype(s.speeds)({{"a.mp4", 2.0}}));
  ASSERT_EQ(parseOutputState(R"({"scene":{},"mode":3,"playing":1,"audioTimeMs":"5"})", t), OutputStateKind::State);
  EXPECT_TRUE(t.mode == "normal" && !t.playing && !t.audioTimeMs.has_value());
}

class OutputState : public ::testing::Test {
 protected:
  std::string root = "/media/a";
  int rootCalls = 0;
  OutputRendererCore core{[this] { return rootCalls++, root; }};
};

TEST_F(OutputState, PendingSceneHandOverSizeChangesAndMediaReset) {
  ASSERT_TRUE(core.setState(stateWith(sceneWith(1))).has_value());
  ASSERT_TRUE(core.setState(stateWith(sceneWith(3))).has_value());
  EXPECT_EQ(core.engine(), nullptr);  // nothing happens before a frame
  EXPECT_EQ(core.shared().sceneGeneration, 2);
  core.applyPendingScene();
  kvl_engine* e = core.engine();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(kvl_engine_layer_count(e), 3);  // only the latest counts
  EXPECT_EQ(std::pair(core.engineW(), core.engineH()), std::pair(320, 180));
  EXPECT_FALSE(core.shared().pendingScene.has_value());
  EXPECT_EQ(core.engineMediaRoot(), std::optional<std::string>("/media/a"));
  core.applyPendingScene();  // a frame without a new state touches nothing
  EXPECT_EQ(core.engine(), e);

  ASSERT_EQ(kvl_engine_declare_source(e, "wall.png", 64, 32), 0);
  const_cast<KeySet&>(core.declared()).insert("wall.png");
  const int callsBefore = rootCalls;
  core.setState(stateWith(sceneWith(2)));  // same size: same handle, same source table
  core.applyPendingScene();
  EXPECT_EQ(core.engine(), e);
  EXPECT_EQ(kvl_engine_layer_count(e), 2);
  EXPECT_TRUE(hasSource(e, "wall.png") && core.declared().count("wall.png") == 1);
  EXPECT_EQ(rootCalls, callsBefore + 1);  // asked after each hand-over

  // mediaReset forgets the declarations, keeps the engine, and is no state.
  const int64_t generation = core.shared().sceneGeneration;
  EXPECT_FALSE(core.setState("mediaReset").has_value());
  EXPECT_EQ(core.declared().size(), 1u);  // carried out at the head of the next frame
  core.applyPendingReset();
  EXPECT_TRUE(core.declared().empty() && core.engine() == e && core.shared().sceneGeneration == generation);
  const_cast<KeySet&>(core.declared()).insert("wall.png");

  root = "/media/b";  // a new root reaches the engine with the next scene only
  core.setState(stateWith(sceneWith(2, "[640,360]")));
  core.applyPendingScene();
  ASSERT_NE(core.engine(), nullptr);
  EXPECT_EQ(std::pair(core.engineW(), core.engineH()), std::pair(640, 360));
  EXPECT_FALSE(hasSource(core.engine(), "wall.png") || !core.declared().empty());
  EXPECT_EQ(core.engineMediaRoot(), std::optional<std::string>("/media/b"));
}

TEST_F(OutputState, RejectedTextChangesNothingAndAFailedSceneKeepsTheOld) {
  core.setState(stateWith(sceneWith(1), R"("mode":"testPattern","playing":true)"));
  const int64_t generation = core.shared().sceneGeneration;
  EXPECT_FALSE(core.setState("{\"scene\": 5}").has_value());
  EXPECT_FALSE(core.setState("not json").has_value());
  EXPECT_TRUE(core.shared().sceneGeneration == generation && core.shared().mode == "testPattern" &&
              core.shared().playing);

  core.setState(stateWith(sceneWith(2)));
  core.applyPendingScene();
  kvl_engine* e = core.engine();
  ::testing::internal::CaptureStderr();
  core.setState("{\"mappings\": [", 320, 180, "normal", false, {}, {});  // taken as is; the engine refuses it
  core.applyPendingScene();
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(core.engine() == e && kvl_engine_layer_count(e) == 2);
  EXPECT_NE(err.find("[kavlen] saída Metal: JSON inválido perto de: "), std::string::npos) << err;
}

// States arrive from the host's thread while the drawing thread applies
// them: the lock must keep each state whole (size paired with its scene).
TEST(OutputStateThread, StatesFromAnotherThreadArriveWhole) {
  OutputRendererCore core([] { return std::string(); });
  ::testing::internal::CaptureStderr();
  std::atomic<bool> done{false};
  const int kStates = 300;
  std::thread host([&] {
    for (int i = 1; i <= kStates; i++) core.setState(stateWith(sceneWith(i % 4, "[" + std::to_string(100 + i % 3) + ",50]")));
    done = true;
  });
  while (!done) {
    core.applyPendingScene();
    core.stepAudio();
  }
  host.join();
  core.applyPendingScene();
  ::testing::internal::GetCapturedStderr();
  ASSERT_NE(core.engine(), nullptr);
  EXPECT_EQ(std::pair(core.engineW(), kvl_engine_layer_count(core.engine())),
            std::pair(100 + kStates % 3, kStates % 4));
  EXPECT_EQ(core.shared().sceneGeneration, kStates);
}

}  // namespace
