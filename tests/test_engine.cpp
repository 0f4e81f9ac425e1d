// The engine handle: creation, output selection, scene changes, media needs,
// error text and the null-handle rules of the interface.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

struct EngineDeleter {
  void operator()(kvl_engine* e) const { kvl_engine_destroy(e); }
};
using Engine = std::unique_ptr<kvl_engine, EngineDeleter>;

Engine make(const char* json, int w = 64, int h = 36, const char* out = nullptr) {
  return Engine(kvl_engine_create(json, w, h, out));
}

const char kBadJson[] = "JSON inválido perto de: ";

const char* kTwoOutputs = R"({
  "outputs": [{"id": "left", "resolution": [640, 360]}, {"id": "right", "resolution": [800, 600]}],
  "mappings": [
    {"id": "a", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 4294901760}},
    {"id": "b", "output": "right", "corners": [[0,0],[1,0],[1,1]], "paint": {"type": "color"}},
    {"id": "c", "output": "left", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color"}}]})";

TEST(EngineCreate, RejectsBadArgumentsAndInvalidJsonWithMessage) {
  for (auto [json, w, h] : {std::tuple{(const char*)nullptr, 10, 10}, {"{}", 0, 10}, {"{}", 10, -1}}) {
    EXPECT_EQ(kvl_engine_create(json, w, h, nullptr), nullptr) << w << "x" << h;
    EXPECT_STREQ(kvl_last_error(), "argumentos inválidos");
  }
  // Invalid JSON leaves the parser's message; a successful create clears it.
  EXPECT_EQ(kvl_engine_create("{\"mappings\": [", 10, 10, nullptr), nullptr);
  EXPECT_EQ(std::string(kvl_last_error()).rfind(kBadJson, 0), 0u) << kvl_last_error();
  ASSERT_TRUE(make("{}"));
  EXPECT_STREQ(kvl_last_error(), "");
}

TEST(EngineSelect, LayersGoToTheirOutputOrTheFirst) {
  // A null or empty id means the scene's first output, "left"; an unknown one
  // gives a valid handle that shows nothing.
  const struct { const char* out; int32_t layers; } cases[] = {{nullptr, 2}, {"", 2}, {"right", 1}, {"nowhere", 0}};
  for (const auto& c : cases) {
    Engine e = make(kTwoOutputs, 64, 36, c.out);
    EXPECT_EQ(kvl_engine_layer_count(e.get()), c.layers) << (c.out ? c.out : "null");
    const kvl_draw_list* list = kvl_engine_draw_list(e.get(), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->cmd_count, c.layers);
  }
}

TEST(EngineSelect, SceneWithoutOutputsBindsToMain) {
  const char* json = R"({"mappings": [{"id": "a", "corners": [[0,0],[1,0],[1,1],[0,1]]},
                                      {"id": "b", "output": "main", "corners": [[0,0],[1,0],[1,1],[0,1]]},
                                      {"id": "c", "output": "other", "corners": [[0,0],[1,0],[1,1],[0,1]]}]})";
  EXPECT_EQ(kvl_engine_layer_count(make(json).get()), 2);
  EXPECT_EQ(kvl_engine_layer_count(make(json, 8, 8, "other").get()), 1);
}

TEST(EngineScene, FailedChangeKeepsTheOldSceneAndSourcesSurviveChanges) {
  Engine e = make(R"({"mappings": [{"id": "a", "paint": {"type": "image", "path": "p.png"}}]})", 8, 8);
  ASSERT_TRUE(e);
  uint8_t px[4 * 4 * 4] = {};
  ASSERT_EQ(kvl_engine_set_source(e.get(), "img", px, 4, 4, 16), 0);
  EXPECT_EQ(kvl_engine_set_scene(e.get(), "not json"), -2);
  EXPECT_EQ(std::string(kvl_last_error()).rfind(kBadJson, 0), 0u);
  // The old scene is still the one shown: same media.
  kvl_media_need need{};
  ASSERT_EQ(kvl_engine_media_at(e.get(), 0, &need, 1), 1);
  EXPECT_STREQ(need.key, "p.png");
  EXPECT_EQ(kvl_engine_set_scene(e.get(), "{}"), 0);
  EXPECT_EQ(kvl_engine_layer_count(e.get()), 0);
  ASSERT_EQ(kvl_engine_sources(e.get())->count, 1);
  EXPECT_STREQ(kvl_engine_sources(e.get())->entries[0].key, "img");
  // A later success does not clear an earlier message.
  EXPECT_EQ(std::string(kvl_last_error()).rfind(kBadJson, 0), 0u);
}

TEST(EngineRender, StrideRules) {
  Engine e = make("{}", 10, 3);
  std::vector<uint8_t> px(10 * 4 * 3 + 64, 0xAB);
  EXPECT_EQ(kvl_engine_render(e.get(), 0, px.data(), 39), -2);
  EXPECT_STREQ(kvl_last_error(), "stride menor que width*4");
  EXPECT_EQ(px[0], 0xAB);  // untouched on refusal
  EXPECT_EQ(kvl_engine_render(e.get(), 0, nullptr, 40), -1);
  // A wider stride leaves the bytes past width * 4 alone.
  ASSERT_EQ(kvl_engine_render(e.get(), 0, px.data(), 44), 0);
  EXPECT_TRUE(px[3] == 255 && px[40] == 0xAB && px[43] == 0xAB && px[44 + 3] == 255);
}

TEST(EngineMedia, FirstLayerDecidesPositionAndSpeed) {
  // Two layers need a.mp4; the first, with its clip, sets where it plays. A
  // hidden layer needs nothing.
  Engine e = make(R"({"mappings": [
    {"id": "v1", "paint": {"type": "video", "path": "a.mp4"},
     "clips": [{"startMs": 1000, "lengthMs": 4000, "paint": {"type": "video", "path": "a.mp4"},
                "trimStartMs": 500, "speed": 2.0}]},
    {"id": "v2", "paint": {"type": "video", "path": "a.mp4"}},
    {"id": "off", "visible": false, "paint": {"type": "video", "path": "h.mp4"}},
    {"id": "img", "paint": {"type": "image", "path": "p.png"}}]})");
  kvl_media_need needs[4] = {};
  ASSERT_EQ(kvl_engine_media_at(e.get(), 2000000, needs, 4), 2);  // 2 s: clip active on v1
  EXPECT_STREQ(needs[0].key, "a.mp4");
  EXPECT_TRUE(needs[0].media_us == 2500000 && needs[0].speed == 2.0);  // trim 500 + 1000 ms * 2
  EXPECT_STREQ(needs[1].key, "p.png");
  EXPECT_TRUE(needs[1].media_us == 0 && needs[1].speed == 1.0);
  // Outside the clip, v1's own video plays at the frame time.
  ASSERT_EQ(kvl_engine_media_at(e.get(), 123456, needs, 4), 2);
  EXPECT_TRUE(needs[0].media_us == 123456 && needs[0].speed == 1.0);
}

TEST(EngineNull, EveryFunctionAcceptsANullHandle) {
  kvl_media_need need{};
  EXPECT_EQ(kvl_engine_set_scene(nullptr, "{}"), -1);
  EXPECT_EQ(kvl_engine_set_source(nullptr, "k", nullptr, 1, 1, 4), -1);
  EXPECT_EQ(kvl_engine_declare_source(nullptr, "k", 1, 1), -1);
  EXPECT_EQ(kvl_engine_sources(nullptr), nullptr);
  EXPECT_EQ(kvl_engine_layer_count(nullptr), 0);
  uint8_t px[4];
  EXPECT_EQ(kvl_engine_render(nullptr, 0, px, 4), -1);
  EXPECT_EQ(kvl_engine_draw_list(nullptr, 0), nullptr);
  EXPECT_EQ(kvl_engine_media_at(nullptr, 0, &need, 1), 0);
  EXPECT_EQ(kvl_engine_envelope_at(nullptr, "m", 0), -1.0);
  EXPECT_EQ(kvl_engine_set_track_signals(nullptr, "k", "", 0), -1);
  kvl_engine_set_media_root(nullptr, "/tmp");
  kvl_engine_set_threads(nullptr, 3);
  kvl_engine_set_signals(nullptr, nullptr, 1);
  kvl_engine_set_audio_time(nullptr, 5);
  kvl_engine_step_audio(nullptr, 5);
  kvl_engine_destroy(nullptr);
  Engine e = make("{}");
  EXPECT_EQ(kvl_engine_set_scene(e.get(), nullptr), -1);
}

}  // namespace
