// `kavlen render` on a scene with images that ffmpeg makes: the PNG holds
// exactly what the engine draws, the options change what they should, a bad
// image is one warning and a dark grey layer, and every refusal is one line,
// a non-zero exit and no output file.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "image_file.h"
#include "kavlen/kavlen.h"
#include "media_samples.h"

namespace {

namespace fs = std::filesystem;

const char kScene[] = R"({
  "outputs": [{"id": "wall", "resolution": [96, 54]}, {"id": "floor", "resolution": [32, 32]}],
  "mappings": [
    {"id": "bg", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 4278190335}},
    {"id": "pic", "corners": [[0.1,0.1],[0.6,0.05],[0.55,0.9],[0.05,0.8]], "paint": {"type": "image", "path": "media/bars.png"},
     "effects": {"shadow": {"dx": 20, "dy": 20, "blur": 10}}},
    {"id": "slide", "corners": [[0.6,0.5],[0.9,0.5],[0.9,0.9],[0.6,0.9]], "paint": {"type": "color", "argb": 4294901760},
     "keyframes": [{"prop": "c0x", "timeMs": 0, "value": 0.6}, {"prop": "c0x", "timeMs": 1000, "value": 0.8}]},
    {"id": "junk", "corners": [[0.7,0.32],[0.95,0.32],[0.95,0.45],[0.7,0.45]], "paint": {"type": "image", "path": "media/junk.png"}},
    {"id": "low", "output": "floor", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "image", "path": "media/bars.png"}}
  ]})";

int lines(const std::string& s) { return (int)std::count(s.begin(), s.end(), '\n'); }

class CliRender : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = mediatest::testFolder();
    fs::create_directories(path("media"));
    fs::create_directories(path("out"));
    mediatest::make("cli_bars.png", "-f lavfi -i smptebars=size=80x60 -frames:v 1");
    fs::copy_file(mediatest::pathOf("cli_bars.png"), path("media/bars.png"));
    std::ofstream(path("media/junk.png")) << "this is no picture";
    std::ofstream(path("scene.json")) << kScene;
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs the command; its exit status, and stderr in err.
  int render(const std::string& args, std::string* err) {
    mediatest::CliRun r = mediatest::kavlen("render " + args);
    *err = r.err;
    return r.code;
  }

  // What the engine itself draws with the bars image loaded as the command does.
  std::vector<uint8_t> engine_frame(const char* output, int w, int h, double time_ms) {
    kvl_engine* e = kvl_engine_create(kScene, w, h, output);
    EXPECT_NE(e, nullptr);
    if (!e) return {};
    const ImageFile bars = load("media/bars.png");
    EXPECT_EQ(kvl_engine_set_source(e, "media/bars.png", bars.rgba.data(), bars.width, bars.height, bars.width * 4), 0);
    std::vector<uint8_t> px((size_t)w * h * 4);
    EXPECT_EQ(kvl_engine_render(e, (int64_t)(time_ms * 1000), px.data(), w * 4), 0);
    kvl_engine_destroy(e);
    return px;
  }

  ImageFile load(const std::string& name) const {
    ImageFile im;
    std::string error;
    EXPECT_TRUE(ImageFile::load(path(name), im, error)) << error;
    return im;
  }

  std::string dir_;
};

TEST_F(CliRender, WritesWhatTheEngineDrawsWithEveryOption) {
  const std::string scene = "'" + path("scene.json") + "' -o '" + path("out/");
  std::string err;
  ASSERT_EQ(render(scene + "f.png'", &err), 0) << err;
  // One warning for the bad image (a missing one below), then the line that says what was written.
  EXPECT_EQ(lines(err), 2) << err;
  for (const char* word : {"junk.png", "wrote"}) EXPECT_NE(err.find(word), std::string::npos) << err;
  const ImageFile f = load("out/f.png");
  ASSERT_TRUE(f.width == 96 && f.height == 54);  // the first output's size
  EXPECT_EQ(f.rgba, engine_frame(nullptr, 96, 54, 0));
  const uint8_t* failed = &f.rgba[((size_t)20 * 96 + 85) * 4];  // the layer whose image failed: dark grey
  EXPECT_TRUE(failed[0] == 0x33 && failed[2] == 0x33);
  EXPECT_EQ(std::distance(fs::directory_iterator(path("out")), fs::directory_iterator()), 1);  // no leftovers

  // The keyframes move something by 500 ms; one thread draws what three do.
  for (const char* threads : {"3", "1"}) {
    ASSERT_EQ(render(scene + threads + ".png' --time-ms 500 --size 120x40 --threads " + threads, &err), 0) << err;
    const ImageFile a = load("out/" + std::string(threads) + ".png");
    ASSERT_TRUE(a.width == 120 && a.height == 40);
    EXPECT_EQ(a.rgba, engine_frame(nullptr, 120, 40, 500));
  }
  EXPECT_NE(load("out/1.png").rgba, engine_frame(nullptr, 120, 40, 0));

  ASSERT_EQ(render(scene + "c.png' --output floor", &err), 0);
  EXPECT_EQ(load("out/c.png").rgba, engine_frame("floor", 32, 32, 0));
  // A media root without the image: a warning and a grey layer.
  ASSERT_EQ(render(scene + "d.png' --output floor --media-root '" + path("out") + "'", &err), 0);
  EXPECT_NE(err.find("bars.png"), std::string::npos);
  EXPECT_EQ(load("out/d.png").rgba[0], 0x33);
}

TEST_F(CliRender, RefusalsAreOneLineAndLeaveNoFile) {
  std::ofstream(path("bad.json")) << "{\"mappings\": [";
  const std::string scene = "'" + path("scene.json") + "'", out = " -o '" + path("out/x.png") + "'";
  const struct { std::string args; const char* words; } cases[] = {
      {scene, "-o"},
      {out, "no scene"},
      {scene + out + " --size 0x10", "--size"},
      {scene + out + " --size 10", "--size"},
      {scene + out + " --size 99999x10", "--size"},
      {scene + out + " --time-ms soon", "--time-ms"},
      {scene + out + " --time-ms nan", "--time-ms"},
      {scene + out + " --threads -2", "--threads"},
      {scene + out + " --threads 1.5", "--threads"},
      {scene + out + " --frobnicate", "unknown option"},
      {scene + out + " --output ceiling", "ceiling"},
      {"'" + path("nope.json") + "'" + out, "nope.json"},
      {"'" + path("bad.json") + "'" + out, "bad.json"}};
  std::string err;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(render(c.args, &err), 0);
    EXPECT_TRUE(lines(err) == 1 && err.rfind("kavlen: render: ", 0) == 0 && err.find(c.words) != std::string::npos)
        << err;
    EXPECT_TRUE(fs::is_empty(path("out")));
  }
  // Nowhere to write: refused, and no partial file in its place.
  EXPECT_NE(render(scene + " -o '" + path("out/missing/x.png") + "'", &err), 0);
  EXPECT_EQ(lines(err), 2) << err;  // the image warning and the failure
  EXPECT_NE(err.find("kavlen: render: cannot write"), std::string::npos) << err;
  EXPECT_TRUE(fs::is_empty(path("out")));
}

}  // namespace
