// Video layers on the CPU path: each layer's media-time frame reaches the
// engine, directly and through `kavlen render`.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>

#include "image_file.h"
#include "kavlen/kavlen.h"
#include "media_key.h"
#include "media_samples.h"
#include "video_layers.h"

namespace {

// 3 s at 30 fps: red, then green, then blue, a second each; and a copy under a second name.
void makeVideos() {
  mediatest::make("rgb.mp4",
                  "-f lavfi -i \"nullsrc=s=160x90:r=30:d=3,format=rgb24,geq=r='if(lt(N\\,30)\\,255\\,0)':"
                  "g='if(between(N\\,30\\,59)\\,255\\,0)':b='if(gte(N\\,60)\\,255\\,0)'\"" +
                      std::string(mediatest::kH264));
  mediatest::writeBytes(mediatest::pathOf("rgb2.mp4"), mediatest::readBytes(mediatest::pathOf("rgb.mp4")));
}

// Left half plays `video` from the start; right half a clip of `other` trimmed 1 s in.
std::string scene(const std::string& video, const std::string& other) {
  return R"({"outputs": [{"id": "wall", "resolution": [64, 36]}], "mappings": [
      {"id": "v", "corners": [[0,0],[0.5,0],[0.5,1],[0,1]], "paint": {"type": "video", "path": ")" + video + R"("}},
      {"id": "c", "corners": [[0.5,0],[1,0],[1,1],[0.5,1]], "clips": [{"startMs": 0, "lengthMs": 10000,
       "trimStartMs": 1000, "paint": {"type": "video", "path": ")" + other + R"("}}]}]})";
}

// The dominant channel at (x, y): 0 red, 1 green, 2 blue, -1 none.
int dominant(const uint8_t* rgba, int width, int x, int y) {
  const uint8_t* p = rgba + (size_t(y) * width + x) * 4;
  for (int c = 0; c < 3; c++)
    if (p[c] > 180 && p[(c + 1) % 3] < 80 && p[(c + 2) % 3] < 80) return c;
  return -1;
}

std::vector<uint8_t> renderAt(const std::string& text, double ms, int& fed, std::vector<std::string>& warnings) {
  kvl_engine* e = kvl_engine_create(text.c_str(), 64, 36, "wall");
  EXPECT_NE(e, nullptr);
  if (!e) return {};
  int64_t us = int64_t(ms * 1000);
  fed = kavlen::feedVideoLayers(e, text, us, [](const std::string& key) { return key; }, warnings);
  std::vector<uint8_t> px(64 * 36 * 4);
  EXPECT_EQ(kvl_engine_render(e, us, px.data(), 64 * 4), 0);
  kvl_engine_destroy(e);
  return px;
}

}  // namespace

TEST(VideoLayers, EachLayerShowsTheFrameOfItsMediaTimeAndBadVideoWarns) {
  makeVideos();
  std::string text = scene(mediatest::pathOf("rgb.mp4"), mediatest::pathOf("rgb2.mp4"));
  int fed = 0;
  std::vector<std::string> warnings;
  std::vector<uint8_t> px = renderAt(text, 1500, fed, warnings);  // more times through the CLI below
  EXPECT_EQ(fed, 2);
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(dominant(px.data(), 64, 16, 18), 1);
  EXPECT_EQ(dominant(px.data(), 64, 48, 18), 2);
  std::string fake = mediatest::textFile("fake_video.mp4", "not a video");
  fed = -1;
  px = renderAt(scene(fake, fake), 500, fed, warnings);
  EXPECT_EQ(fed, 0);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("fake_video.mp4"), std::string::npos);
  EXPECT_EQ(dominant(px.data(), 64, 16, 18), -1);
}

// Through the command line, with keys relative to the scene's folder.
TEST(VideoLayers, KavlenRenderDrawsVideoLayers) {
  makeVideos();
  std::string scenePath = mediatest::pathOf("video_scene.json");
  std::ofstream(scenePath) << scene("rgb.mp4", "rgb2.mp4");
  for (auto [ms, left, right] : {std::tuple{500, 0, 1}, {1500, 1, 2}, {2900, 2, 2}}) {
    std::string png = mediatest::pathOf("video_frame.png");
    std::string cmd = std::string("timeout 120 ") + KAVLEN_EXE + " render '" + scenePath + "' --time-ms " +
                      std::to_string(ms) + " -o '" + png + "' 2>/dev/null";
    int status = system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd;
    ImageFile im;
    std::string error;
    ASSERT_TRUE(ImageFile::load(png, im, error)) << error;
    ASSERT_EQ(im.width, 64);
    EXPECT_EQ(dominant(im.rgba.data(), im.width, 16, 18), left) << ms << " ms";
    EXPECT_EQ(dominant(im.rgba.data(), im.width, 48, 18), right) << ms << " ms";
  }
}

// Both output paths find files by this one rule; a key never escapes the
// root, and "assets/" keys come from the bundle folder.
TEST(MediaKeys, KeysLieUnderTheRootOrTheBundle) {
  setenv("KAVLEN_ASSETS", "/opt/kv/assets-dir/", 1);
  const struct { const char *key, *root, *want; } cases[] = {
      {"a/b.png", "/show", "/show/a/b.png"},     {"/abs/b.png", "/show/", "/show/abs/b.png"},
      {"b.png", "", "b.png"},                    {"/abs/b.png", "", "/abs/b.png"},
      {"b.png", "/", "/b.png"},                  {"assets/x.png", "/show", "/opt/kv/assets-dir/assets/x.png"},
      {"assetsx.png", "/show", "/show/assetsx.png"}};
  for (const auto& c : cases) EXPECT_EQ(kavlen::media::key_path(c.key, c.root), c.want) << c.key << " in " << c.root;
  unsetenv("KAVLEN_ASSETS");
}
