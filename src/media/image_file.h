// Still images from files: decoding to straight RGBA with stb_image.
//
// Usage:
//   ImageFile img;
//   std::string err;
//   if (!ImageFile::load("wall.png", img, err)) warn(err);
//
// The first image of a file is decoded, with no orientation applied.
// PNG, JPEG, BMP, GIF, TGA and PSD are understood.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ImageFile {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> rgba;  // width * height * 4 bytes, straight alpha

  static bool load(const std::string& path, ImageFile& out, std::string& error);
  // Writes straight RGBA rows (stride bytes apart) as a PNG.
  static bool write_png(const std::string& path, const uint8_t* rgba, int32_t width, int32_t height,
                        int32_t stride, std::string& error);
};
