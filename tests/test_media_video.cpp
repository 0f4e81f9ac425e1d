// SequentialVideoSource on real files made by ffmpeg: frame-exact answers at
// the usual frame rates, the rules for opening and stepping back, rotation,
// and damaged or foreign input.
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
  EXPECT_FALSE(path.empty());
  auto src = SequentialVideoSource::create(path);
  EXPECT_NE(src, nullptr) << path;
  return src;
}

}  // namespace

// Half-frame steps from before the first frame to past the last: each frame
// comes exactly twice, boundaries included, and a rising run never reopens.
TEST(SequentialVideoSource, FrameExactAtHalfFrameStepsForEveryRate) {
  for (int fps : {24, 25, 30, 60}) {
    SCOPED_TRACE("fps " + std::to_string(fps));
    auto src = open(mediatest::indexedVideo(fps));
    ASSERT_NE(src, nullptr);
    const int frames = 3 * fps;
    for (int i = 0; i < 2 * frames + 8; i++) {
      double t = i / (2.0 * fps);
      int want = std::min(i / 2, frames - 1);
      ASSERT_EQ(indexOf(src->frame(t)), want) << "t = " << t;
      ASSERT_DOUBLE_EQ(src->currentTime(), want / double(fps));
    }
    EXPECT_EQ(src->openCount(), 1);
  }
}

// Just before a boundary still shows the earlier frame.
TEST(SequentialVideoSource, TimeJustBeforeAFrameShowsThePreviousOne) {
  auto src = open(mediatest::indexedVideo(25));
  ASSERT_NE(src, nullptr);
  for (int k = 1; k < 75; k += 7) {
    EXPECT_EQ(indexOf(src->frame(k / 25.0 - 1e-6)), k - 1);
    EXPECT_EQ(indexOf(src->frame(k / 25.0)), k);
  }
  EXPECT_EQ(src->openCount(), 1);
}

TEST(SequentialVideoSource, FirstCallOpensFiftyMillisecondsAhead) {
  const std::string video = mediatest::indexedVideo(30);
  auto late = open(video);
  ASSERT_NE(late, nullptr);
  EXPECT_EQ(indexOf(late->frame(2.0)), 60);
  EXPECT_EQ(late->openCount(), 1);
  EXPECT_NEAR(late->lastOpenStart(), 1.95, 1e-9);

  auto early = open(video);
  ASSERT_NE(early, nullptr);
  EXPECT_EQ(indexOf(early->frame(0.02)), 0);
  EXPECT_EQ(early->lastOpenStart(), 0.0);
  EXPECT_EQ(indexOf(early->frame(0.05)), 1);

  // Times before the file's start, or not numbers at all, show its first frame.
  auto odd = open(video);
  ASSERT_NE(odd, nullptr);
  EXPECT_EQ(indexOf(odd->frame(-3)), 0);
  EXPECT_EQ(odd->lastOpenStart(), 0.0);
  EXPECT_EQ(indexOf(odd->frame(NAN)), 0);
  EXPECT_EQ(odd->openCount(), 1);
}

// At 10 fps frames lie 100 ms apart, more than the 50 ms lead: the run must
// still begin with the frame on show at the start, not the one after it.
TEST(SequentialVideoSource, OpenBetweenSparseFramesAnswersTheFrameOnShow) {
  const std::string video = mediatest::indexedVideo(10, 4);
  for (double t : {1.07, 2.01, 2.099, 0.99}) {
    auto src = open(video);
    ASSERT_NE(src, nullptr);
    EXPECT_EQ(indexOf(src->frame(t)), int(std::floor(t * 10 + 1e-9))) << "t = " << t;
  }
}

TEST(SequentialVideoSource, StepBackOfHalfASecondKeepsTheFrameAndMoreReopens) {
  auto src = open(mediatest::indexedVideo(30));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(indexOf(src->frame(2.0)), 60);
  EXPECT_EQ(indexOf(src->frame(1.6)), 60);  // 0.4 s back: no seek, same frame
  EXPECT_EQ(indexOf(src->frame(1.5)), 60);  // exactly 0.5 s back: still no seek
  EXPECT_EQ(src->openCount(), 1);
  EXPECT_EQ(indexOf(src->frame(1.4)), 42);  // more than 0.5 s back: a new run at 1.35
  EXPECT_EQ(src->openCount(), 2);
  EXPECT_NEAR(src->lastOpenStart(), 1.35, 1e-9);
  EXPECT_EQ(indexOf(src->frame(1.45)), 43);
  EXPECT_EQ(src->openCount(), 2);
}

// A looping clip wraps to its start, reopening once per wrap.
TEST(SequentialVideoSource, LoopingBackToTheStartReopensAtZero) {
  auto src = open(mediatest::indexedVideo(24));
  ASSERT_NE(src, nullptr);
  for (int wrap = 0; wrap < 3; wrap++) {
    for (int k = 0; k < 24; k += 5) ASSERT_EQ(indexOf(src->frame(k / 24.0)), k);
  }
  EXPECT_EQ(src->openCount(), 3);
  EXPECT_EQ(src->lastOpenStart(), 0.0);
}

TEST(SequentialVideoSource, PastTheEndStaysOnTheLastFrame) {
  auto src = open(mediatest::indexedVideo(30));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(indexOf(src->frame(100)), 89);
  EXPECT_EQ(indexOf(src->frame(200)), 89);
  EXPECT_EQ(indexOf(src->frame(100)), 89);
  EXPECT_EQ(src->openCount(), 1);
  // A forward jump within the file from a late first call also ends there.
  auto other = open(mediatest::indexedVideo(30));
  EXPECT_EQ(indexOf(other->frame(1.0)), 30);
  EXPECT_EQ(indexOf(other->frame(2.99)), 89);
  EXPECT_EQ(indexOf(other->frame(3.5)), 89);
  EXPECT_EQ(other->openCount(), 1);
}

// Transport streams start their clock far from zero; media time 0 is the
// file's first picture.
TEST(SequentialVideoSource, TimelineStartsAtTheFirstPictureOfATransportStream) {
  auto src = open(mediatest::indexedVideo(25, 3, false, "ts"));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(indexOf(src->frame(0)), 0);
  EXPECT_EQ(indexOf(src->frame(1.0)), 25);
  EXPECT_EQ(indexOf(src->frame(2.02)), 50);
}

// A raw H.264 stream: no container times and no seeking by time.
TEST(SequentialVideoSource, RawStreamWithoutContainerTimes) {
  auto src = open(mediatest::make("svs30.h264", mediatest::indexSource(30, 2) + mediatest::kH264 + " -f h264"));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(indexOf(src->frame(0.5)), 15);
  EXPECT_EQ(indexOf(src->frame(1.0)), 30);
  EXPECT_EQ(indexOf(src->frame(0.1)), 3);  // a step back: reopens
  EXPECT_EQ(indexOf(src->frame(5)), 59);
}

// ffmpeg's "rotate" tag writes a display matrix; the pictures come turned the
// way ffmpeg itself shows them, checked against ffmpeg's own rendering.
TEST(SequentialVideoSource, DisplayMatrixTurnsThePicture) {
  const std::string plain = mediatest::indexedVideo(30, 3, false);
  struct Case {
    int degrees;
    int width, height;
    // Where the coded point (x, y) of a 128x32 picture is shown.
    std::pair<int, int> (*map)(int x, int y);
  };
  const Case cases[] = {
      {90, 32, 128, [](int x, int y) { return std::pair<int, int>(y, 127 - x); }},
      {180, 128, 32, [](int x, int y) { return std::pair<int, int>(127 - x, 31 - y); }},
      {270, 32, 128, [](int x, int y) { return std::pair<int, int>(31 - y, x); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("rotate " + std::to_string(c.degrees));
    std::string path = mediatest::rotatedCopy(plain, c.degrees, "rot" + std::to_string(c.degrees) + ".mp4");
    auto src = open(path);
    ASSERT_NE(src, nullptr);
    EXPECT_TRUE(src->rotated());
    EXPECT_EQ(src->naturalWidth(), 128);
    EXPECT_EQ(src->naturalHeight(), 32);
    for (int k : {1, 5, 77}) {
      const VideoImage* im = src->frame(k / 30.0 + 0.001);
      ASSERT_NE(im, nullptr);
      ASSERT_EQ(im->width, c.width);
      ASSERT_EQ(im->height, c.height);
      EXPECT_EQ(mediatest::readIndex(im->rgba.data(), im->width, im->height, c.map), k);
    }
    // ffmpeg's own upright picture of frame 5, as gray levels.
    std::string gray = mediatest::pathOf("rot" + std::to_string(c.degrees) + ".gray");
    std::string cmd = "timeout 60 ffmpeg -nostdin -v error -y -i '" + path +
                      "' -vf \"select=eq(n\\,5)\" -frames:v 1 -f rawvideo -pix_fmt gray '" + gray + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
    std::vector<uint8_t> ref = mediatest::readBytes(gray);
    ASSERT_EQ(ref.size(), size_t(c.width * c.height));
    const VideoImage* im = src->frame(5 / 30.0);
    ASSERT_NE(im, nullptr);
    int differing = 0;
    for (int y = 0; y < c.height; y++)
      for (int x = 0; x < c.width; x++) {
        bool white = im->rgba[(size_t(y) * c.width + x) * 4 + 1] > 128;
        if (white != (ref[size_t(y) * c.width + x] > 128)) differing++;
      }
    EXPECT_LT(differing, c.width * c.height / 50);
  }
}

TEST(SequentialVideoSource, NoSourceWithoutAVideoTrack) {
  std::string audio = mediatest::make("tone.m4a", "-f lavfi -i sine=duration=1 -c:a aac");
  EXPECT_EQ(SequentialVideoSource::create(audio), nullptr);
  EXPECT_EQ(SequentialVideoSource::create(mediatest::textFile("notes.mp4", "not a movie at all\n")), nullptr);
  EXPECT_EQ(SequentialVideoSource::create(mediatest::textFile("empty.mp4", "")), nullptr);
  EXPECT_EQ(SequentialVideoSource::create(mediatest::pathOf("missing.mp4")), nullptr);
  EXPECT_EQ(SequentialVideoSource::createFromMemory(nullptr), nullptr);
}

// A file cut short: the frames that are there come in order, and past the
// cut the last decodable frame stays on show.
TEST(SequentialVideoSource, TruncatedFileShowsWhatItHasAndKeepsTheLastFrame) {
  std::string cut = mediatest::truncatedCopy(mediatest::indexedVideo(30, 3, false, "mp4", true), 0.5, "cut.mp4");
  auto src = open(cut);
  ASSERT_NE(src, nullptr);
  auto started = std::chrono::steady_clock::now();
  int last = -1;
  for (int i = 0; i < 100; i++) {
    int index = indexOf(src->frame(i / 30.0));
    ASSERT_GE(index, 0) << "t = " << i / 30.0;
    ASSERT_GE(index, last);
    ASSERT_LE(index, i);
    last = index;
  }
  EXPECT_GT(last, 10);
  EXPECT_LT(last, 89);
  EXPECT_EQ(indexOf(src->frame(50)), last);
  EXPECT_EQ(src->openCount(), 1);
  // Far back and far forward again on the damaged file.
  EXPECT_EQ(indexOf(src->frame(0.2)), 6);
  EXPECT_EQ(indexOf(src->frame(50)), last);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
}

TEST(SequentialVideoSource, NoiseInTheMiddleNeitherCrashesNorStopsTheRun) {
  std::string bad =
      mediatest::corruptedCopy(mediatest::indexedVideo(30, 3, false, "mp4", true), 0.45, 3000, "noisy.mp4");
  auto src = open(bad);
  ASSERT_NE(src, nullptr);
  double lastTime = -1;
  int answered = 0;
  for (int i = 0; i < 95; i++) {
    const VideoImage* im = src->frame(i / 30.0);
    if (!im) continue;
    answered++;
    EXPECT_GE(src->currentTime(), lastTime);
    lastTime = src->currentTime();
  }
  EXPECT_GT(answered, 80);
  // The frames of the intact start are exact.
  auto again = open(bad);
  EXPECT_EQ(indexOf(again->frame(0.3)), 9);
}

TEST(SequentialVideoSource, MemoryInputGivesTheSameFrames) {
  auto bytes = std::make_shared<const std::vector<uint8_t>>(mediatest::readBytes(mediatest::indexedVideo(30)));
  auto src = SequentialVideoSource::createFromMemory(bytes);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(indexOf(src->frame(1.5)), 45);
  EXPECT_EQ(indexOf(src->frame(0.2)), 6);
  EXPECT_EQ(src->openCount(), 2);
}
