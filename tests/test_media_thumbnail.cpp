// Thumbnails of ffmpeg-made videos: which frame, what size, which way up, and bad input.
#include <gtest/gtest.h>
#include <stb_image.h>

#include "media_samples.h"
#include "thumbnail.h"

namespace th = kavlen::thumbnail;

namespace {

struct Decoded {
  int width = 0, height = 0;
  std::vector<uint8_t> rgba;
  // 'r' red, 'b' blue, '?' neither, at (x, y).
  char at(int x, int y) const {
    const uint8_t* p = &rgba[(size_t(y) * width + x) * 4];
    return p[0] > 180 && p[2] < 80 ? 'r' : p[2] > 180 && p[0] < 80 ? 'b' : '?';
  }
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

// Blue with a red top-left quarter.
std::string markedVideo() {
  return mediatest::make("marked.mp4",
                         "-f lavfi -i \"color=c=blue:s=320x180:r=25:d=2,drawbox=x=0:y=0:w=160:h=90:color=red:t=fill\"" +
                             std::string(mediatest::kH264));
}

}  // namespace

// The frame on show a tenth in (0.1 s for a raw stream without a duration).
TEST(Thumbnail, TakesTheFrameATenthIntoTheFile) {
  struct Case {
    std::string path;
    int frame;
  };
  for (const Case& c : {Case{mediatest::indexedVideo(30, 3, false), 9}, Case{mediatest::indexedVideo(30, 0.5, false), 3},
                        Case{mediatest::indexedVideo(25, 60, false), 150},
                        Case{mediatest::make("index30.h264", mediatest::indexSource(30, 2) + mediatest::kH264 + " -f h264"), 3}}) {
    SCOPED_TRACE(c.path);
    auto t = th::thumbnail(c.path, 320);
    ASSERT_TRUE(t.has_value());
    Decoded d = decodeJpeg(t->jpeg);
    ASSERT_EQ(d.width, 128);  // smaller than the square: kept
    ASSERT_EQ(d.height, 32);
    EXPECT_EQ(t->width, 128);
    EXPECT_EQ(mediatest::readIndex(d.rgba.data(), d.width, d.height), c.frame);
  }
}

TEST(Thumbnail, SizeFollowsTheSideAndRotationComesUpright) {
  std::string video = markedVideo();
  for (auto [side, w, h] : {std::tuple{320.0, 320, 180}, {100.0, 100, 56}, {1000.0, 320, 180}, {0.0, 320, 180}}) {
    auto t = th::thumbnail(video, side);
    ASSERT_TRUE(t.has_value()) << side;
    Decoded d = decodeJpeg(t->jpeg);
    EXPECT_EQ(d.width, w) << side;
    EXPECT_EQ(d.height, h) << side;
    ASSERT_FALSE(d.rgba.empty());
    EXPECT_EQ(d.at(w / 4, h / 4), 'r');
    EXPECT_EQ(d.at(3 * w / 4, 3 * h / 4), 'b');
  }
  EXPECT_EQ(th::thumbnail(video)->width, 320);
  // A quarter turn: portrait, the red quarter now bottom-left.
  auto t = th::thumbnail(mediatest::rotatedCopy(video, 90, "marked90.mp4"), 100);
  ASSERT_TRUE(t.has_value());
  Decoded d = decodeJpeg(t->jpeg);
  ASSERT_EQ(d.width, 56);
  ASSERT_EQ(d.height, 100);
  EXPECT_EQ(std::string() + d.at(14, 75) + d.at(14, 25) + d.at(42, 75) + d.at(42, 25), "rbbb");
}

TEST(Thumbnail, BadInputGivesNothingOrAPictureNeverACrash) {
  for (std::string bad : {mediatest::make("song.m4a", "-f lavfi -i sine=duration=2 -c:a aac"),
                          mediatest::textFile("readme.mov", "plain text"), mediatest::pathOf("nowhere.mp4")})
    EXPECT_FALSE(th::thumbnail(bad).has_value()) << bad;
  std::string full = mediatest::indexedVideo(30, 3, false, "mp4", true);
  auto t = th::thumbnail(mediatest::truncatedCopy(full, 0.5, "thumb_cut.mp4"));
  ASSERT_TRUE(t.has_value());  // 0.3 s in lies in the first half
  EXPECT_EQ(mediatest::readIndex(decodeJpeg(t->jpeg).rgba.data(), 128, 32), 9);
  if (auto stub = th::thumbnail(mediatest::truncatedCopy(full, 0.02, "thumb_stub.mp4"))) {
    EXPECT_GT(decodeJpeg(stub->jpeg).width, 0);
  }
}
