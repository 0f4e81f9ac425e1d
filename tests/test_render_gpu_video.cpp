// `kavlen render` with video layers on both paths: the GPU path must show the
// frame of each layer's media time, the same frame the CPU path decodes, not
// whatever a live player would have reached by then.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <string>

#include "gpu_test_util.h"
#include "image_file.h"
#include "media_samples.h"

namespace {

// Each half of the output is 16:9, as the layer's surface is, so a 16:9
// movie covers it exactly, with no overhang: coded block i of the movie is a
// known rectangle of the frame.
constexpr int kHalf = 256, kW = 2 * kHalf, kH = 144;
constexpr int kScaleX = kHalf / mediatest::kCodeWidth;  // 2
constexpr double kScaleY = double(kH) / mediatest::kCodeHeight;  // 4.5

// Three seconds at 30 fps, no sound, 256x144: the frame-index code of
// media_samples.h stretched to 16:9 (8 x 2 blocks of 32x72 pixels).
std::string indexVideo169() {
  return mediatest::make("index30_169.mp4",
                         "-f lavfi -i \"nullsrc=s=256x144:r=30:d=3,"
                         "geq=lum='if(bitand(N\\,pow(2\\,floor(X/32)+8*floor(Y/72)))\\,235\\,16)':cb=128:cr=128\"" +
                             std::string(mediatest::kH264));
}

// The left half plays `video` from the scene's start, pixel for pixel; the
// right half is a clip of `other` that starts 1 s into that file, so its
// media time is not the scene's time. (One key has one source per frame, so
// the two halves name two files.)
std::string scene(const std::string& video, const std::string& other) {
  return R"({"outputs": [{"id": "wall", "resolution": [)" + std::to_string(kW) + "," + std::to_string(kH) +
         R"(]}],
    "mappings": [
      {"id": "v", "corners": [[0,0],[0.5,0],[0.5,1],[0,1]], "paint": {"type": "video", "path": ")" +
         video + R"("}},
      {"id": "c", "corners": [[0.5,0],[1,0],[1,1],[0.5,1]],
       "clips": [{"startMs": 0, "lengthMs": 10000, "trimStartMs": 1000,
                  "paint": {"type": "video", "path": ")" +
         other + R"("}}]}
    ]})";
}

struct Rendered {
  bool ok = false;
  gputest::Picture picture;
  std::string errors;  // what the command wrote to stderr
};

Rendered render(const std::string& scenePath, int ms, bool gpu) {
  Rendered r;
  const std::string png = mediatest::pathOf(std::string("gpu_video_") + (gpu ? "gpu" : "cpu") + ".png");
  const std::string log = png + ".log";
  std::remove(png.c_str());
  // Leaks at the command's exit are not this check's business (Mesa's
  // driver, unloaded then, would read as one under a sanitizer).
  const std::string cmd = "EGL_PLATFORM=surfaceless ASAN_OPTIONS=detect_leaks=0 timeout 120 '" +
                          std::string(KAVLEN_EXE) + "' render " + (gpu ? "--gpu " : "") + "'" + scenePath +
                          "' --time-ms " + std::to_string(ms) + " -o '" + png + "' 2>'" + log + "'";
  int status = system(cmd.c_str());
  std::stringstream text;
  text << std::ifstream(log).rdbuf();
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
int leftIndex(const gputest::Picture& p) { return indexAt(p, 0); }
int rightIndex(const gputest::Picture& p) { return indexAt(p, kHalf); }

}  // namespace

// Frame n of a 30 fps file is on screen over [n/30, (n+1)/30) s; the times
// below fall inside their frames, so only an off-by-one in the media time or
// a frame from the wrong moment can change the answer.
TEST(RenderGpuVideo, BothPathsShowTheFrameOfTheMediaTime) {
  const std::string video = indexVideo169();
  ASSERT_FALSE(video.empty());
  mediatest::writeBytes(mediatest::pathOf("gpu_video_copy.mp4"), mediatest::readBytes(video));
  const std::string scenePath = mediatest::pathOf("gpu_video_scene.json");
  std::ofstream(scenePath) << scene(video.substr(video.find_last_of('/') + 1), "gpu_video_copy.mp4");

  struct Case {
    int ms, left, right;
  };
  for (Case c : {Case{0, 0, 30}, Case{350, 10, 40}, Case{1685, 50, 80}, Case{1985, 59, 89}}) {
    SCOPED_TRACE(std::to_string(c.ms) + " ms");
    Rendered cpu = render(scenePath, c.ms, false);
    Rendered gpu = render(scenePath, c.ms, true);
    ASSERT_TRUE(cpu.ok && gpu.ok);
    EXPECT_EQ(leftIndex(cpu.picture), c.left);
    EXPECT_EQ(rightIndex(cpu.picture), c.right);
    EXPECT_EQ(leftIndex(gpu.picture), c.left);
    EXPECT_EQ(rightIndex(gpu.picture), c.right);
    EXPECT_EQ(gpu.errors.find("warning"), std::string::npos) << gpu.errors;

    gputest::Comparison cmp = gputest::compare(gpu.picture, cpu.picture);
    EXPECT_GE(cmp.within, 0.995);
    EXPECT_EQ(cmp.offEdge, 0) << cmp.firstOffEdge;
  }
}

// A file that is no movie: both paths still write the frame, name the file in
// a warning, and agree on what stands in for the picture.
TEST(RenderGpuVideo, UnreadableVideoWarnsAndBothPathsAgree) {
  mediatest::textFile("not_a_movie.mp4", "this is text, not a video");
  const std::string scenePath = mediatest::pathOf("gpu_bad_video_scene.json");
  std::ofstream(scenePath) << scene("not_a_movie.mp4", "not_a_movie.mp4");
  Rendered cpu = render(scenePath, 500, false);
  Rendered gpu = render(scenePath, 500, true);
  ASSERT_TRUE(cpu.ok && gpu.ok);
  for (const Rendered* r : {&cpu, &gpu}) {
    EXPECT_NE(r->errors.find("video not_a_movie.mp4 cannot be read"), std::string::npos) << r->errors;
    // The missing-source fill, dark grey, in place of the movie.
    for (int x : {kHalf / 2, kHalf + kHalf / 2}) {
      const uint8_t* p = r->picture.at(x, kH / 2);
      for (int c = 0; c < 3; c++) EXPECT_NEAR(p[c], 0x33, 2) << "x " << x;
    }
  }
  gputest::Comparison cmp = gputest::compare(gpu.picture, cpu.picture);
  EXPECT_GE(cmp.within, 0.995);
  EXPECT_EQ(cmp.offEdge, 0) << cmp.firstOffEdge;
}
