// Still pictures read for detection: upright, grey, and no larger than the
// detector can use.
//
//   auto pic = kavlen::vision::readUprightGrey("stage.jpg", 960);
//   if (pic) detectRectangles(pic->grey);
//
// The EXIF orientation of the file (1 to 8; anything else counts as 1) is
// applied, so coordinates found in `grey` are those of the upright picture.
// JPEG files are decoded by libjpeg-turbo, scaled down in the DCT (far
// cheaper than decoding all of a 12-megapixel photo and shrinking it after);
// other formats go through stb_image. A file that cannot be read, is no
// picture, or decodes with errors (a truncated JPEG, say) gives nothing.
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavlen::vision {

struct UprightPicture {
  cv::Mat grey;        // CV_8UC1, upright, at most about the asked size
  int width = 0;       // the upright picture's full size in pixels
  int height = 0;
  int orientation = 1; // the EXIF orientation that was applied
};

// `minLongSide`: JPEGs are scaled down in the decoder by the largest factor
// that keeps the long side at least this long (0: full size). Other formats
// are decoded whole.
std::optional<UprightPicture> readUprightGrey(const std::string& path, int minLongSide = 960);
std::optional<UprightPicture> decodeUprightGrey(const uint8_t* data, size_t size, int minLongSide = 960);

// The orientation tag of a file's EXIF block; 1 when there is none or it is
// outside 1 to 8.
int exifOrientation(const uint8_t* data, size_t size);

// The stored picture turned as `orientation` says, and the reverse (which
// makes a stored picture from an upright one).
cv::Mat toUpright(const cv::Mat& stored, int orientation);
cv::Mat fromUpright(const cv::Mat& upright, int orientation);

// Whole files up to this size are read; larger ones count as unreadable.
constexpr size_t kMaxFileBytes = size_t{512} << 20;
// Pictures with more pixels than this (after DCT scaling) are refused.
constexpr int64_t kMaxPixels = int64_t{1} << 28;

bool readFile(const std::string& path, std::vector<uint8_t>& out);

}  // namespace kavlen::vision
