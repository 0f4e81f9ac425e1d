// Video layers on the CPU path: the frame of each layer's media time reaches
// the engine, directly and through `kavlen render`.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>

#include "image_file.h"
#include "kavlen/kavlen.h"
#include "media_samples.h"
#include "video_layers.h"

namespace {

// Three seconds at 30 fps: red in the first second, green in the second,
// blue in the third.
std::string rgbVideo() {
  return mediatest::make("rgb.mp4",
                         "-f lavfi -i \"nullsrc=s=160x90:r=30:d=3,format=rgb24,"
                         "geq=r='if(lt(N\\,30)\\,255\\,0)':g='if(between(N\\,30\\,59)\\,255\\,0)':"
                         "b='if(gte(N\\,60)\\,255\\,0)'\"" +
                             std::string(mediatest::kH264));
}

// The same video under a second name.
std::string rgbCopy() {
  std::string copy = mediatest::pathOf("rgb2.mp4");
  mediatest::writeBytes(copy, mediatest::readBytes(rgbVideo()));
  return copy;
}

// The left half plays `video` from the scene's start; the right half is a
// clip of `other` that starts 1 s into it.
std::string scene(const std::string& video, const std::string& other) {
  return R"({"outputs": [{"id": "wall", "resolution": [64, 36]}],
    "mappings": [
      {"id": "v", "corners": [[0,0],[0.5,0],[0.5,1],[0,1]], "paint": {"type": "video", "path": ")" +
         video + R"("}},
      {"id": "c", "corners": [[0.5,0],[1,0],[1,1],[0.5,1]],
       "clips": [{"startMs": 0, "lengthMs": 10000, "trimStartMs": 1000,
                  "paint": {"type": "video", "path": ")" +
         other + R"("}}]}
    ]})";
}

// The dominant channel of the pixel at (x, y): 0 red, 1 green, 2 blue, -1 none.
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

TEST(VideoLayers, EachLayerShowsTheFrameOfItsMediaTime) {
  std::string text = scene(rgbVideo(), rgbCopy());
  struct Case {
    double ms;
    int left, right;
  };
  for (Case c : {Case{500, 0, 1}, Case{1500, 1, 2}, Case{2500, 2, 2}}) {
    int fed = 0;
    std::vector<std::string> warnings;
    std::vector<uint8_t> px = renderAt(text, c.ms, fed, warnings);
    EXPECT_EQ(fed, 2) << c.ms;
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(dominant(px.data(), 64, 16, 18), c.left) << c.ms << " ms";
    EXPECT_EQ(dominant(px.data(), 64, 48, 18), c.right) << c.ms << " ms";
  }
}

TEST(VideoLayers, UnreadableVideoIsAWarningAndNoSource) {
  std::string fake = mediatest::textFile("fake_video.mp4", "not a video");
  std::string text = scene(fake, fake);
  int fed = -1;
  std::vector<std::string> warnings;
  std::vector<uint8_t> px = renderAt(text, 500, fed, warnings);
  EXPECT_EQ(fed, 0);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("fake_video.mp4"), std::string::npos);
  EXPECT_EQ(dominant(px.data(), 64, 16, 18), -1);
}

// Through the command line, on the CPU path, with keys relative to the
// scene's folder.
TEST(VideoLayers, KavlenRenderDrawsVideoLayers) {
  rgbVideo();
  rgbCopy();
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
