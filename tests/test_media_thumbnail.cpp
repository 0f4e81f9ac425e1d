// Thumbnails of real videos made by ffmpeg: which frame, what size, which
// way up, and bad input.
#include <gtest/gtest.h>
#include <stb_image.h>

#include <cmath>

#include "media_samples.h"
#include "thumbnail.h"

namespace th = kavlen::thumbnail;

namespace {

struct Decoded {
  int width = 0, height = 0;
  std::vector<uint8_t> rgba;
};

Decoded decodeJpeg(const std::vector<uint8_t>& jpeg) {
  Decoded d;
  int n = 0;
  stbi_uc* px = stbi_load_from_memory(jpeg.data(), static_cast<int>(jpeg.size()), &d.width, &d.height, &n, 4);
  if (!px) return {};
  d.rgba.assign(px, px + size_t(d.width) * d.height * 4);
  stbi_image_free(px);
  return d;
}

// A blue picture with a red quarter in its top-left corner.
std::string markedVideo() {
  return mediatest::make("marked.mp4",
                         "-f lavfi -i \"color=c=blue:s=320x180:r=25:d=2,"
                         "drawbox=x=0:y=0:w=160:h=90:color=red:t=fill\"" +
                             std::string(mediatest::kH264));
}

bool reddish(const Decoded& d, int x, int y) {
  const uint8_t* p = &d.rgba[(size_t(y) * d.width + x) * 4];
  return p[0] > 180 && p[2] < 80;
}
bool bluish(const Decoded& d, int x, int y) {
  const uint8_t* p = &d.rgba[(size_t(y) * d.width + x) * 4];
  return p[2] > 180 && p[0] < 80;
}

}  // namespace

TEST(Thumbnail, SampleTimeIsATenthAndNeverBeforeATenthOfASecond) {
  EXPECT_DOUBLE_EQ(th::sampleTime(0.5), 0.1);
  EXPECT_DOUBLE_EQ(th::sampleTime(60), 6.0);
  EXPECT_DOUBLE_EQ(th::sampleTime(3), 0.3);
  EXPECT_DOUBLE_EQ(th::sampleTime(0), 0.1);
  EXPECT_DOUBLE_EQ(th::sampleTime(-2), 0.1);
  EXPECT_DOUBLE_EQ(th::sampleTime(NAN), 0.1);
  EXPECT_DOUBLE_EQ(th::sampleTime(INFINITY), 0.1);
}

TEST(Thumbnail, FitsTheLongerSideInTheSquareAndNeverEnlarges) {
  int w = 0, h = 0;
  th::fittedSize(1920, 1080, 320, w, h);
  EXPECT_EQ(w, 320);
  EXPECT_EQ(h, 180);
  th::fittedSize(1080, 1920, 100, w, h);
  EXPECT_EQ(w, 56);
  EXPECT_EQ(h, 100);
  th::fittedSize(128, 32, 320, w, h);
  EXPECT_EQ(w, 128);
  EXPECT_EQ(h, 32);
  th::fittedSize(4000, 2, 100, w, h);  // never below one pixel
  EXPECT_EQ(w, 100);
  EXPECT_EQ(h, 1);
  th::fittedSize(640, 360, 0, w, h);  // no bound
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 360);
}

// The frame on show a tenth into the file, read back from the JPEG's code.
TEST(Thumbnail, TakesTheFrameATenthIntoTheFile) {
  struct Case {
    int fps;
    double seconds;
    int frame;
  };
  for (const Case& c : {Case{30, 3, 9}, Case{30, 0.5, 3}, Case{25, 60, 150}}) {
    SCOPED_TRACE(std::to_string(c.seconds) + " s");
    auto t = th::thumbnail(mediatest::indexedVideo(c.fps, c.seconds, false), 320);
    ASSERT_TRUE(t.has_value());
    Decoded d = decodeJpeg(t->jpeg);
    ASSERT_EQ(d.width, 128);  // smaller than the square: kept as it is
    ASSERT_EQ(d.height, 32);
    EXPECT_EQ(t->width, 128);
    EXPECT_EQ(mediatest::readIndex(d.rgba.data(), d.width, d.height), c.frame);
  }
}

// A raw H.264 stream has no duration at all: it is tried at 0.1 s.
TEST(Thumbnail, FileWithoutADurationIsTriedAtATenthOfASecond) {
  std::string raw = mediatest::make("index30.h264", mediatest::indexSource(30, 2) + mediatest::kH264 + " -f h264");
  auto t = th::thumbnail(raw);
  ASSERT_TRUE(t.has_value());
  Decoded d = decodeJpeg(t->jpeg);
  EXPECT_EQ(mediatest::readIndex(d.rgba.data(), d.width, d.height), 3);
}

TEST(Thumbnail, SizeFollowsTheRequestedSide) {
  std::string video = markedVideo();
  for (auto [side, w, h] : {std::tuple{320.0, 320, 180}, {100.0, 100, 56}, {1000.0, 320, 180}, {0.0, 320, 180}}) {
    auto t = th::thumbnail(video, side);
    ASSERT_TRUE(t.has_value()) << side;
    Decoded d = decodeJpeg(t->jpeg);
    EXPECT_EQ(d.width, w) << side;
    EXPECT_EQ(d.height, h) << side;
    ASSERT_FALSE(d.rgba.empty());
    EXPECT_TRUE(reddish(d, w / 4, h / 4));
    EXPECT_TRUE(bluish(d, 3 * w / 4, 3 * h / 4));
  }
  auto byDefault = th::thumbnail(video);
  ASSERT_TRUE(byDefault.has_value());
  EXPECT_EQ(byDefault->width, 320);
}

// A quarter turn in the display matrix: the picture comes upright and
// portrait, 100 high for a side of 100, with the marked corner where the turn
// puts it (as in SequentialVideoSource, checked there against ffmpeg).
TEST(Thumbnail, RotatedVideoComesUpright) {
  std::string turned = mediatest::rotatedCopy(markedVideo(), 90, "marked90.mp4");
  auto t = th::thumbnail(turned, 100);
  ASSERT_TRUE(t.has_value());
  Decoded d = decodeJpeg(t->jpeg);
  ASSERT_EQ(d.width, 56);
  ASSERT_EQ(d.height, 100);
  EXPECT_TRUE(reddish(d, 14, 75));  // the coded top-left quarter, now bottom-left
  EXPECT_TRUE(bluish(d, 14, 25));
  EXPECT_TRUE(bluish(d, 42, 75));
  EXPECT_TRUE(bluish(d, 42, 25));
}

TEST(Thumbnail, NothingForFilesWithoutPictures) {
  EXPECT_FALSE(th::thumbnail(mediatest::make("song.m4a", "-f lavfi -i sine=duration=2 -c:a aac")).has_value());
  EXPECT_FALSE(th::thumbnail(mediatest::textFile("readme.mov", "plain text")).has_value());
  EXPECT_FALSE(th::thumbnail(mediatest::pathOf("nowhere.mp4")).has_value());
}

// A cut-off file: a picture if the frame a tenth in survived, else nothing;
// never a crash or a broken JPEG.
TEST(Thumbnail, DamagedFilesGiveAPictureOrNothing) {
  std::string full = mediatest::indexedVideo(30, 3, false, "mp4", true);
  std::string early = mediatest::truncatedCopy(full, 0.5, "thumb_cut.mp4");
  auto t = th::thumbnail(early);
  ASSERT_TRUE(t.has_value());  // 0.3 s in lies in the first half
  EXPECT_EQ(mediatest::readIndex(decodeJpeg(t->jpeg).rgba.data(), 128, 32), 9);
  std::string stub = mediatest::truncatedCopy(full, 0.02, "thumb_stub.mp4");
  auto none = th::thumbnail(stub);
  if (none) {
    EXPECT_GT(decodeJpeg(none->jpeg).width, 0);
  }
}
