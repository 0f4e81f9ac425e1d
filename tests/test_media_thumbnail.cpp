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

}  // namespace

// The frame on show a tenth in (0.1 s for a raw stream without a duration).
TEST(Thumbnail, TakesTheFrameATenthIntoTheFile) {
  for (auto [path, frame] : {std::pair{mediatest::indexedVideo(30, 3, false), 9}, {mediatest::indexedVideo(30, 0.5, false), 3},
                             {mediatest::make("index30.h264", mediatest::indexSource(30, 2) + mediatest::kH264 + " -f h264"), 3}}) {
    SCOPED_TRACE(path);
    auto t = th::thumbnail(path, 320);
    ASSERT_TRUE(t.has_value());
    Decoded d = decodeJpeg(t->jpeg);
    ASSERT_TRUE(d.width == 128 && d.height == 32 && t->width == 128);  // smaller than the square: kept
    EXPECT_EQ(mediatest::readIndex(d.rgba.data(), d.width, d.height), frame);
  }
}

TEST(Thumbnail, SizeFollowsTheSideAndRotationComesUpright) {
  // Blue with a red top-left quarter; a quarter turn makes it portrait, the red quarter bottom-left.
  std::string video = mediatest::make(
      "marked.mp4", "-f lavfi -i \"color=c=blue:s=320x180:r=25:d=2,drawbox=x=0:y=0:w=160:h=90:color=red:t=fill\"" +
                        std::string(mediatest::kH264));
  std::string turned = mediatest::rotatedCopy(video, 90, "marked90.mp4");
  for (auto [path, side, w, h, corners] :
       {std::tuple{video, 100.0, 100, 56, "rbbb"}, {video, 1000.0, 320, 180, "rbbb"}, {video, 0.0, 320, 180, "rbbb"},
        {turned, 100.0, 56, 100, "brbb"}}) {
    SCOPED_TRACE(path + " " + std::to_string(side));
    auto t = th::thumbnail(path, side);
    ASSERT_TRUE(t.has_value());
    Decoded d = decodeJpeg(t->jpeg);
    ASSERT_EQ(std::pair(d.width, d.height), std::pair(w, h));
    // Top-left, bottom-left, top-right, bottom-right quarters.
    EXPECT_EQ(std::string() + d.at(w / 4, h / 4) + d.at(w / 4, 3 * h / 4) + d.at(3 * w / 4, h / 4) +
                  d.at(3 * w / 4, 3 * h / 4),
              corners);
  }
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
