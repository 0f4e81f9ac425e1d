#include "picture.h"

#include <libexif/exif-data.h>
#include <stb_image.h>
#include <turbojpeg.h>

#include <cstdio>
#include <memory>
#include <opencv2/core.hpp>

namespace kavlen::vision {

bool readFile(const std::string& path, std::vector<uint8_t>& out) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!f) return false;
  if (std::fseek(f.get(), 0, SEEK_END) != 0) return false;
  long size = std::ftell(f.get());
  if (size < 0 || static_cast<size_t>(size) > kMaxFileBytes || std::fseek(f.get(), 0, SEEK_SET) != 0) return false;
  out.resize(static_cast<size_t>(size));
  return std::fread(out.data(), 1, out.size(), f.get()) == out.size();
}

int exifOrientation(const uint8_t* data, size_t size) {
  if (size < 4 || size > 0xffffffffu) return 1;
  std::unique_ptr<ExifData, void (*)(ExifData*)> exif(exif_data_new(), exif_data_unref);
  if (!exif) return 1;
  // Only the orientation is wanted: leave the maker notes unparsed.
  exif_data_set_option(exif.get(), EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
  exif_data_unset_option(exif.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  exif_data_load_data(exif.get(), data, static_cast<unsigned>(size));
  ExifEntry* entry = exif_content_get_entry(exif->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
  if (!entry || entry->components != 1 || !entry->data) return 1;
  ExifByteOrder order = exif_data_get_byte_order(exif.get());
  uint32_t value = 0;
  if (entry->format == EXIF_FORMAT_SHORT && entry->size >= 2)
    value = exif_get_short(entry->data, order);
  else if (entry->format == EXIF_FORMAT_LONG && entry->size >= 4)
    value = exif_get_long(entry->data, order);
  else
    return 1;
  return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
}

cv::Mat toUpright(const cv::Mat& stored, int orientation) {
  cv::Mat out;
  switch (orientation) {
    case 2: cv::flip(stored, out, 1); break;
    case 3: cv::rotate(stored, out, cv::ROTATE_180); break;
    case 4: cv::flip(stored, out, 0); break;
    case 5: cv::transpose(stored, out); break;
    case 6: cv::rotate(stored, out, cv::ROTATE_90_CLOCKWISE); break;
    case 7: cv::transpose(stored, out); cv::rotate(out, out, cv::ROTATE_180); break;
    case 8: cv::rotate(stored, out, cv::ROTATE_90_COUNTERCLOCKWISE); break;
    default: out = stored; break;
  }
  return out;
}

cv::Mat fromUpright(const cv::Mat& upright, int orientation) {
  // Mirrors and the two transposes undo themselves; the quarter turns swap.
  if (orientation == 6) return toUpright(upright, 8);
  if (orientation == 8) return toUpright(upright, 6);
  return toUpright(upright, orientation);
}

namespace {

bool isJpeg(const uint8_t* data, size_t size) { return size >= 3 && data[0] == 0xff && data[1] == 0xd8 && data[2] == 0xff; }

std::optional<cv::Mat> decodeJpegGrey(const uint8_t* data, size_t size, int minLongSide, int& w, int& h) {
  std::unique_ptr<void, int (*)(tjhandle)> tj(tjInitDecompress(), tjDestroy);
  if (!tj) return std::nullopt;
  int subsamp = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.get(), data, static_cast<unsigned long>(size), &w, &h, &subsamp, &colorspace) != 0 ||
      w <= 0 || h <= 0)
    return std::nullopt;
  // The factors come largest first; keep the smallest one that is still big enough.
  int count = 0;
  const tjscalingfactor* factors = tjGetScalingFactors(&count);
  tjscalingfactor pick{1, 1};
  for (int i = 0; factors && i < count; i++) {
    const tjscalingfactor& f = factors[i];
    if (f.num > f.denom) continue;
    int longSide = std::max(TJSCALED(w, f), TJSCALED(h, f));
    if (longSide >= minLongSide && f.num * pick.denom < pick.num * f.denom) pick = f;
  }
  int sw = TJSCALED(w, pick), sh = TJSCALED(h, pick);
  if (sw <= 0 || sh <= 0 || int64_t{sw} * sh > kMaxPixels) return std::nullopt;
  cv::Mat grey(sh, sw, CV_8UC1);
  // Any warning counts: a truncated or damaged file must not pass as whole.
  if (tjDecompress2(tj.get(), data, static_cast<unsigned long>(size), grey.data, sw, static_cast<int>(grey.step), sh,
                    TJPF_GRAY, TJFLAG_FASTDCT | TJFLAG_STOPONWARNING) != 0)
    return std::nullopt;
  return grey;
}

std::optional<cv::Mat> decodeOtherGrey(const uint8_t* data, size_t size) {
  if (size > 0x7fffffff) return std::nullopt;
  int w = 0, h = 0, n = 0;
  const int len = static_cast<int>(size);
  if (!stbi_info_from_memory(data, len, &w, &h, &n) || w <= 0 || h <= 0 || int64_t{w} * h > kMaxPixels)
    return std::nullopt;
  std::unique_ptr<stbi_uc, void (*)(void*)> pixels(stbi_load_from_memory(data, len, &w, &h, &n, 1), stbi_image_free);
  if (!pixels) return std::nullopt;
  return cv::Mat(h, w, CV_8UC1, pixels.get()).clone();
}

}  // namespace

std::optional<UprightPicture> decodeUprightGrey(const uint8_t* data, size_t size, int minLongSide) {
  if (!data || size == 0) return std::nullopt;
  UprightPicture pic;
  std::optional<cv::Mat> stored;
  int fullW = 0, fullH = 0;
  if (isJpeg(data, size)) {
    stored = decodeJpegGrey(data, size, minLongSide, fullW, fullH);
  } else {
    stored = decodeOtherGrey(data, size);
    if (stored) fullW = stored->cols, fullH = stored->rows;
  }
  if (!stored || stored->empty()) return std::nullopt;
  pic.orientation = exifOrientation(data, size);
  pic.grey = toUpright(*stored, pic.orientation);
  bool turned = pic.orientation >= 5;
  pic.width = turned ? fullH : fullW;
  pic.height = turned ? fullW : fullH;
  return pic;
}

std::optional<UprightPicture> readUprightGrey(const std::string& path, int minLongSide) {
  std::vector<uint8_t> bytes;
  if (!readFile(path, bytes)) return std::nullopt;
  return decodeUprightGrey(bytes.data(), bytes.size(), minLongSide);
}

}  // namespace kavlen::vision
