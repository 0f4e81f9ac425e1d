// SequentialVideoSource on ffmpeg-made files: frame-exact answers at the usual
// rates, the open/step-back rules, rotation, and damaged or foreign input.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "media_samples.h"
#include "sequential_video_source.h"

using kavlen::SequentialVideoSource;
using kavlen::VideoImage;

namespace {

int indexOf(const VideoImage* im) {
  if (!im) return -2;
  if (im->width != mediatest::kCodeWidth || im->height != mediatest::kCodeHeight) return -3;
  return mediatest::readIndex(im->rgba.data(), im->width, im->height);
}

std::unique_ptr<SequentialVideoSource> open(const std::string& path) {
  auto src = SequentialVideoSource::create(path);
  EXPECT_NE(src, nullptr) << path;
  return src;
}

}  // namespace

// Half-frame steps from 0 to past the end: each frame comes exactly twice, a
// microsecond before a boundary is still the earlier frame, and no reopen.
TEST(SequentialVideoSource, FrameExactAtHalfFrameStepsForEveryRate) {
  for (int fps : {24, 30, 60}) {
    SCOPED_TRACE("fps " + std::to_string(fps));
    auto src = open(mediatest::indexedVideo(fps));
    ASSERT_NE(src, nullptr);
    const int frames = 3 * fps;
    for (int i = 0; i < 2 * frames + 8; i++) {
      double t = i / (2.0 * fps);
      int want = std::min(i / 2, frames - 1);
      if (i % 2 == 0 && i > 0 && i / 2 < frames) {
        ASSERT_EQ(indexOf(src->frame(t - 1e-6)), want - 1) << t;
      }
      ASSERT_EQ(indexOf(src->frame(t)), want) << "t = " << t;
      ASSERT_DOUBLE_EQ(src->currentTime(), want / double(fps));
    }
    EXPECT_EQ(src->openCount(), 1);
  }
}

TEST(SequentialVideoSource, OpenStepBackAndEndRules) {
  const std::string video = mediatest::indexedVideo(30);
  // {time asked, index, runs opened, where the last run began}: the first call
  // opens 50 ms ahead; exactly 0.5 s back is the same frame, more starts a new
  // run; past the end stays on the last frame.
  auto late = open(video);
  for (auto [t, index, opens, start] :
       {std::tuple{2.0, 60, 1, 1.95}, {1.5, 60, 1, 1.95}, {1.4, 42, 2, 1.35}, {100.0, 89, 2, 1.35}}) {
    EXPECT_EQ(indexOf(late->frame(t)), index) << t;
    EXPECT_EQ(late->openCount(), opens) << t;
    EXPECT_NEAR(late->lastOpenStart(), start, 1e-9) << t;
  }
  auto odd = open(video);  // before the start, or not a number: the first frame
  for (auto [t, index] : {std::pair{-3.0, 0}, {double(NAN), 0}, {0.05, 1}}) EXPECT_EQ(indexOf(odd->frame(t)), index) << t;
  EXPECT_TRUE(odd->openCount() == 1 && odd->lastOpenStart() == 0.0) << odd->lastOpenStart();

  // 10 fps: frames 100 ms apart, more than the lead; the frame on show still comes.
  for (double t : {1.07, 2.01, 2.099, 0.99})
    EXPECT_EQ(indexOf(open(mediatest::indexedVideo(10, 4))->frame(t)), int(std::floor(t * 10 + 1e-9))) << t;

  // A transport stream's clock starts far from zero; a raw stream has no times.
  EXPECT_EQ(indexOf(open(mediatest::indexedVideo(25, 3, false, "ts"))->frame(2.02)), 50);
  auto raw = open(mediatest::make("svs30.h264", mediatest::indexSource(30, 2) + mediatest::kH264 + " -f h264"));
  EXPECT_EQ(indexOf(raw->frame(1.0)), 30);
  EXPECT_EQ(indexOf(raw->frame(0.1)), 3);
  EXPECT_EQ(indexOf(raw->frame(5)), 59);

  auto mem = SequentialVideoSource::createFromMemory(
      std::make_shared<const std::vector<uint8_t>>(mediatest::readBytes(video)));
  ASSERT_NE(mem, nullptr);
  EXPECT_EQ(indexOf(mem->frame(1.5)), 45);
  EXPECT_EQ(indexOf(mem->frame(0.2)), 6);
  EXPECT_EQ(mem->openCount(), 2);
}

// The display matrix turns pictures as ffmpeg shows them: frame 5 against
// ffmpeg's own rendering, which also tells a wrong frame from the right one.
TEST(SequentialVideoSource, DisplayMatrixTurnsThePicture) {
  const std::string plain = mediatest::indexedVideo(30, 3, false);
  for (int degrees : {90, 180, 270}) {
    SCOPED_TRACE("rotate " + std::to_string(degrees));
    std::string name = "rot" + std::to_string(degrees);
    auto src = open(mediatest::rotatedCopy(plain, degrees, name + ".mp4"));
    ASSERT_NE(src, nullptr);
    EXPECT_TRUE(src->rotated() && src->naturalWidth() == 128 && src->naturalHeight() == 32);
    const VideoImage* im = src->frame(5 / 30.0);
    ASSERT_NE(im, nullptr);
    ASSERT_EQ(std::pair(im->width, im->height), degrees == 180 ? std::pair(128, 32) : std::pair(32, 128));
    std::string cmd = "timeout 60 ffmpeg -nostdin -v error -y -i '" + mediatest::pathOf(name + ".mp4") +
                      "' -vf \"select=eq(n\\,5)\" -frames:v 1 -f rawvideo -pix_fmt gray '" +
                      mediatest::pathOf(name + ".gray") + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
    std::vector<uint8_t> ref = mediatest::readBytes(mediatest::pathOf(name + ".gray"));
    ASSERT_EQ(ref.size(), im->rgba.size() / 4);
    int differing = 0;
    for (size_t i = 0; i < ref.size(); i++) differing += (im->rgba[i * 4 + 1] > 128) != (ref[i] > 128);
    EXPECT_LT(differing, int(ref.size()) / 50);
  }
}

TEST(SequentialVideoSource, ForeignAndDamagedInput) {
  for (std::string bad : {mediatest::make("tone.m4a", "-f lavfi -i sine=duration=1 -c:a aac"),
                          mediatest::textFile("notes.mp4", "not a movie at all\n"), mediatest::textFile("empty.mp4", ""),
                          mediatest::pathOf("missing.mp4")})
    EXPECT_EQ(SequentialVideoSource::create(bad), nullptr) << bad;
  EXPECT_EQ(SequentialVideoSource::createFromMemory(nullptr), nullptr);

  // Cut short: the frames there come in order; past the cut the last one stays.
  const std::string noisy = mediatest::indexedVideo(30, 3, false, "mp4", true);
  auto src = open(mediatest::truncatedCopy(noisy, 0.5, "cut.mp4"));
  ASSERT_NE(src, nullptr);
  auto started = std::chrono::steady_clock::now();
  int last = -1;
  for (int i = 0; i < 100; i++) {
    int index = indexOf(src->frame(i / 30.0));
    ASSERT_GE(index, std::max(last, 0)) << "t = " << i / 30.0;
    ASSERT_LE(index, i);
    last = index;
  }
  EXPECT_TRUE(last > 10 && last < 89) << last;
  EXPECT_EQ(src->openCount(), 1);  // the cut is no reason to start again
  EXPECT_EQ(indexOf(src->frame(0.2)), 6);
  EXPECT_EQ(indexOf(src->frame(50)), last);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));

  // Noise in the middle neither crashes nor stops the run.
  std::string damaged = mediatest::corruptedCopy(noisy, 0.45, 3000, "noisy.mp4");
  src = open(damaged);
  ASSERT_NE(src, nullptr);
  double lastTime = -1;
  int answered = 0;
  for (int i = 0; i < 95; i++) {
    if (!src->frame(i / 30.0)) continue;
    answered++;
    EXPECT_GE(src->currentTime(), lastTime);
    lastTime = src->currentTime();
  }
  EXPECT_GT(answered, 80);
  EXPECT_EQ(indexOf(open(damaged)->frame(0.3)), 9);
}
