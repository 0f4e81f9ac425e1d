// `kavlen render` with video layers on both paths: the GPU path must show the
// frame of each layer's media time, the same one the CPU path decodes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <string>

#include "gpu_test_util.h"
#include "image_file.h"
#include "media_samples.h"

namespace {

// Each half of the output is 16:9 like the movie, so coded block i is a known
// rectangle of the frame.
constexpr int kHalf = 256, kW = 2 * kHalf, kH = 144;
constexpr int kScaleX = kHalf / mediatest::kCodeWidth;
constexpr double kScaleY = double(kH) / mediatest::kCodeHeight;

// The left half plays `video` from the scene's start; the right half is a
// clip of `other` trimmed to start 1 s into it.
std::string scene(const std::string& video, const std::string& other) {
  return R"({"outputs":[{"id":"wall","resolution":[)" + std::to_string(kW) + "," + std::to_string(kH) +
         R"(]}],"mappings":[{"id":"v","corners":[[0,0],[0.5,0],[0.5,1],[0,1]],"paint":{"type":"video","path":")" + video +
         R"("}},{"id":"c","corners":[[0.5,0],[1,0],[1,1],[0.5,1]],"clips":[{"startMs":0,"lengthMs":10000,
         "trimStartMs":1000,"paint":{"type":"video","path":")" + other + R"("}}]}]})";
}

struct Rendered {
  bool ok = false;
  gputest::Picture picture;
  std::string errors;
};

Rendered render(const std::string& scenePath, int ms, bool gpu) {
  Rendered r;
  const std::string png = mediatest::pathOf(std::string("gpu_video_") + (gpu ? "gpu" : "cpu") + ".png");
  std::remove(png.c_str());
  // Leaks at exit (Mesa unloading) are not this check's business.
  const std::string cmd = "EGL_PLATFORM=surfaceless ASAN_OPTIONS=detect_leaks=0 timeout 120 '" +
                          std::string(KAVLEN_EXE) + "' render " + (gpu ? "--gpu " : "") + "'" + scenePath +
                          "' --time-ms " + std::to_string(ms) + " -o '" + png + "' 2>'" + png + ".log'";
  int status = system(cmd.c_str());
  std::stringstream text;
  text << std::ifstream(png + ".log").rdbuf();
  r.errors = text.str();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd << "\n" << r.errors;
  ImageFile im;
  std::string error;
  if (!ImageFile::load(png, im, error)) {
    ADD_FAILURE() << cmd << ": " << error;
    return r;
  }
  r.picture = gputest::Picture{im.width, im.height, im.rgba};
  r.ok = im.width == kW && im.height == kH;
  EXPECT_TRUE(r.ok) << im.width << "x" << im.height;
  return r;
}

int indexAt(const gputest::Picture& p, int left) {
  return mediatest::readIndex(p.px.data(), p.w, p.h, [left](int x, int y) {
    return std::pair<int, int>(left + x * kScaleX, static_cast<int>(y * kScaleY));
  });
}

void expectAgree(const Rendered& gpu, const Rendered& cpu) {
  gputest::Comparison cmp = gputest::compare(gpu.picture, cpu.picture);
  EXPECT_GE(cmp.within, 0.995);
  EXPECT_EQ(cmp.offEdge, 0) << cmp.firstOffEdge;
}

}  // namespace

// Frame n of a 30 fps file shows over [n/30, (n+1)/30) s; the times fall
// inside their frames, so only an off-by-one or a wrong moment can differ.
TEST(RenderGpuVideo, BothPathsShowTheFrameOfTheMediaTime) {
  const std::string video = mediatest::make(
      "index30_169.mp4",
      "-f lavfi -i \"nullsrc=s=256x144:r=30:d=3,"
      "geq=lum='if(bitand(N\\,pow(2\\,floor(X/32)+8*floor(Y/72)))\\,235\\,16)':cb=128:cr=128\"" +
          std::string(mediatest::kH264));
  ASSERT_FALSE(video.empty());
  mediatest::writeBytes(mediatest::pathOf("gpu_video_copy.mp4"), mediatest::readBytes(video));
  const std::string scenePath = mediatest::pathOf("gpu_video_scene.json");
  std::ofstream(scenePath) << scene(video.substr(video.find_last_of('/') + 1), "gpu_video_copy.mp4");
  struct Case {
    int ms, left, right;
  };
  for (Case c : {Case{0, 0, 30}, Case{350, 10, 40}, Case{1685, 50, 80}, Case{1985, 59, 89}}) {
    SCOPED_TRACE(std::to_string(c.ms) + " ms");
    Rendered cpu = render(scenePath, c.ms, false), gpu = render(scenePath, c.ms, true);
    ASSERT_TRUE(cpu.ok && gpu.ok);
    for (const Rendered* r : {&cpu, &gpu}) {
      EXPECT_EQ(indexAt(r->picture, 0), c.left);
      EXPECT_EQ(indexAt(r->picture, kHalf), c.right);
    }
    EXPECT_EQ(gpu.errors.find("warning"), std::string::npos) << gpu.errors;
    expectAgree(gpu, cpu);
  }
}

// A file that is no movie: both paths write the frame, warn, and agree on the
// dark grey missing-source fill.
TEST(RenderGpuVideo, UnreadableVideoWarnsAndBothPathsAgree) {
  mediatest::textFile("not_a_movie.mp4", "this is text, not a video");
  const std::string scenePath = mediatest::pathOf("gpu_bad_video_scene.json");
  std::ofstream(scenePath) << scene("not_a_movie.mp4", "not_a_movie.mp4");
  Rendered cpu = render(scenePath, 500, false), gpu = render(scenePath, 500, true);
  ASSERT_TRUE(cpu.ok && gpu.ok);
  for (const Rendered* r : {&cpu, &gpu}) {
    EXPECT_NE(r->errors.find("video not_a_movie.mp4 cannot be read"), std::string::npos) << r->errors;
    for (int x : {kHalf / 2, kHalf + kHalf / 2})
      for (int c = 0; c < 3; c++) EXPECT_NEAR(r->picture.at(x, kH / 2)[c], 0x33, 2) << "x " << x;
  }
  expectAgree(gpu, cpu);
}
