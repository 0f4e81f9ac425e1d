// `kavlen render` on scenes written here with images that ffmpeg makes: the
// PNG holds exactly what the engine draws for the same scene and sources, the
// options change what they should, a missing or undecodable image is one
// warning line and a dark grey layer, and every refusal is one line, a
// non-zero exit and no output file, partial or whole.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "image_file.h"
#include "kavlen/kavlen.h"

namespace {

struct Result {
  int rc = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

int lines(const std::string& s) { return (int)std::count(s.begin(), s.end(), '\n'); }

// Two layers over a backdrop: an image quad and, half a second in, a colour
// quad that slides right.
const char kScene[] = R"({
  "outputs": [{"id": "wall", "resolution": [96, 54]}, {"id": "floor", "resolution": [32, 32]}],
  "mappings": [
    {"id": "bg", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 4278190335}},
    {"id": "pic", "corners": [[0.1,0.1],[0.6,0.05],[0.55,0.9],[0.05,0.8]], "paint": {"type": "image", "path": "media/bars.png"},
     "effects": {"shadow": {"dx": 20, "dy": 20, "blur": 10}}},
    {"id": "slide", "corners": [[0.6,0.5],[0.9,0.5],[0.9,0.9],[0.6,0.9]], "paint": {"type": "color", "argb": 4294901760},
     "keyframes": [{"prop": "c0x", "timeMs": 0, "value": 0.6}, {"prop": "c0x", "timeMs": 1000, "value": 0.8}]},
    {"id": "gone", "corners": [[0.7,0.05],[0.95,0.05],[0.95,0.3],[0.7,0.3]], "paint": {"type": "image", "path": "media/none.png"}},
    {"id": "junk", "corners": [[0.7,0.32],[0.95,0.32],[0.95,0.45],[0.7,0.45]], "paint": {"type": "image", "path": "media/junk.png"}},
    {"id": "low", "output": "floor", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "image", "path": "media/bars.png"}}
  ]})";

class CliRender : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kavlen-cli-render-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ASSERT_EQ(system(("mkdir '" + path("media") + "' '" + path("out") + "'").c_str()), 0);
    std::string cmd = "ffmpeg -nostdin -v error -y -f lavfi -i smptebars=size=80x60 -frames:v 1 '" +
                      path("media/bars.png") + "'";
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
    std::ofstream(path("media/junk.png")) << "this is no picture";
    std::ofstream(path("scene.json")) << kScene;
  }
  void TearDown() override {
    if (!dir_.empty() && system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "cleanup";
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  Result render(const std::string& args) {
    Result r;
    const std::string out = path(".stdout"), err = path(".stderr");
    const std::string cmd =
        "timeout 120 '" + std::string(KAVLEN_EXE) + "' render " + args + " >'" + out + "' 2>'" + err + "'";
    const int status = system(cmd.c_str());
    r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    remove(out.c_str());
    remove(err.c_str());
    return r;
  }

  // What the engine itself draws for the scene with the bars image loaded
  // the way the command loads it.
  std::vector<uint8_t> engine_frame(const char* output, int w, int h, double time_ms) {
    kvl_engine* e = kvl_engine_create(kScene, w, h, output);
    EXPECT_NE(e, nullptr);
    if (!e) return {};
    ImageFile bars;
    std::string error;
    EXPECT_TRUE(ImageFile::load(path("media/bars.png"), bars, error)) << error;
    EXPECT_EQ(kvl_engine_set_source(e, "media/bars.png", bars.rgba.data(), bars.width, bars.height, bars.width * 4), 0);
    std::vector<uint8_t> px((size_t)w * h * 4);
    EXPECT_EQ(kvl_engine_render(e, (int64_t)(time_ms * 1000), px.data(), w * 4), 0);
    kvl_engine_destroy(e);
    return px;
  }

  ImageFile load(const std::string& name) {
    ImageFile im;
    std::string error;
    EXPECT_TRUE(ImageFile::load(path(name), im, error)) << error;
    return im;
  }

  void expect_refusal(const std::string& args, const std::string& words) {
    SCOPED_TRACE(args);
    const Result r = render(args);
    EXPECT_NE(r.rc, 0);
    EXPECT_EQ(lines(r.err), 1) << r.err;
    EXPECT_EQ(r.err.rfind("kavlen: render: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
    EXPECT_EQ(names_in(path("out")), std::vector<std::string>{});
  }

  std::string dir_;
};

TEST_F(CliRender, WritesWhatTheEngineDrawsAndWarnsOncePerBadImage) {
  const Result r = render("'" + path("scene.json") + "' -o '" + path("out/f.png") + "'");
  ASSERT_EQ(r.rc, 0) << r.err;
  // One warning for the missing file, one for the undecodable one, then the
  // line that says what was written.
  EXPECT_EQ(lines(r.err), 3) << r.err;
  EXPECT_NE(r.err.find("none.png"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("junk.png"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("wrote"), std::string::npos) << r.err;
  const ImageFile im = load("out/f.png");
  ASSERT_EQ(im.width, 96);  // the first output's size
  ASSERT_EQ(im.height, 54);
  EXPECT_EQ(im.rgba, engine_frame(nullptr, 96, 54, 0));
  // The layers whose images failed show dark grey.
  for (int x : {80, 85}) {
    const uint8_t* px = &im.rgba[((size_t)20 * 96 + x) * 4];
    EXPECT_EQ(px[0], 0x33);
    EXPECT_EQ(px[2], 0x33);
  }
  EXPECT_EQ(names_in(path("out")), std::vector<std::string>{"f.png"});
}

TEST_F(CliRender, TimeSizeOutputThreadsAndMediaRoot) {
  ASSERT_EQ(render("'" + path("scene.json") + "' --time-ms 500 --size 120x40 --threads 3 -o '" + path("out/a.png") +
                   "'")
                .rc,
            0);
  const ImageFile a = load("out/a.png");
  ASSERT_EQ(a.width, 120);
  ASSERT_EQ(a.height, 40);
  EXPECT_EQ(a.rgba, engine_frame(nullptr, 120, 40, 500));
  EXPECT_NE(a.rgba, engine_frame(nullptr, 120, 40, 0));  // the keyframes moved something
  ASSERT_EQ(render("'" + path("scene.json") + "' --time-ms 500 --size 120x40 --threads 1 -o '" + path("out/b.png") +
                   "'")
                .rc,
            0);
  EXPECT_EQ(load("out/b.png").rgba, a.rgba);

  ASSERT_EQ(render("'" + path("scene.json") + "' --output floor -o '" + path("out/c.png") + "'").rc, 0);
  const ImageFile c = load("out/c.png");
  ASSERT_EQ(c.width, 32);
  EXPECT_EQ(c.rgba, engine_frame("floor", 32, 32, 0));

  // A media root elsewhere: the image is not found there and the layer goes
  // grey, with a warning.
  const Result r =
      render("'" + path("scene.json") + "' --output floor --media-root '" + path("out") + "' -o '" + path("out/d.png") + "'");
  ASSERT_EQ(r.rc, 0);
  EXPECT_NE(r.err.find("bars.png"), std::string::npos);
  const ImageFile d = load("out/d.png");
  EXPECT_EQ(d.rgba[0], 0x33);
}

TEST_F(CliRender, RefusalsAreOneLineAndLeaveNoFile) {
  const std::string scene = "'" + path("scene.json") + "'", out = " -o '" + path("out/x.png") + "'";
  expect_refusal(scene, "-o");
  expect_refusal(out, "no scene");
  expect_refusal(scene + out + " --size 0x10", "--size");
  expect_refusal(scene + out + " --size 10", "--size");
  expect_refusal(scene + out + " --size 99999x10", "--size");
  expect_refusal(scene + out + " --time-ms soon", "--time-ms");
  expect_refusal(scene + out + " --time-ms nan", "--time-ms");
  expect_refusal(scene + out + " --threads -2", "--threads");
  expect_refusal(scene + out + " --threads 1.5", "--threads");
  expect_refusal(scene + out + " --frobnicate", "unknown option");
  expect_refusal(scene + out + " --output ceiling", "ceiling");
  expect_refusal("'" + path("nope.json") + "'" + out, "nope.json");
  std::ofstream(path("bad.json")) << "{\"mappings\": [";
  expect_refusal("'" + path("bad.json") + "'" + out, "bad.json");
  // Nowhere to write: refused, and no partial file in its place.
  const Result r = render(scene + " -o '" + path("out/missing/x.png") + "'");
  EXPECT_NE(r.rc, 0);
  EXPECT_EQ(lines(r.err), 3) << r.err;  // the two image warnings and the failure
  EXPECT_NE(r.err.find("kavlen: render: cannot write"), std::string::npos) << r.err;
  EXPECT_EQ(names_in(path("out")), std::vector<std::string>{});
}

}  // namespace
