#include "image_file.h"

#include <stb_image.h>
#include <stb_image_write.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

bool ImageFile::load(const std::string& path, ImageFile& out, std::string& error) {
  int w = 0, h = 0, n = 0;
  stbi_uc* data = stbi_load(path.c_str(), &w, &h, &n, 4);
  if (!data) {
    const char* why = stbi_failure_reason();
    error = "cannot decode image " + path + ": " + (why ? why : "unknown error");
    return false;
  }
  out.width = w;
  out.height = h;
  out.rgba.assign(data, data + static_cast<size_t>(w) * h * 4);
  stbi_image_free(data);
  return true;
}

bool ImageFile::write_png(const std::string& path, const uint8_t* rgba, int32_t width, int32_t height,
                          int32_t stride, std::string& error) {
  // Write to a temporary name and rename, so a failed write never leaves a
  // partial file that looks whole.
  std::string tmp = path + ".part";
  if (!stbi_write_png(tmp.c_str(), width, height, 4, rgba, stride)) {
    error = "cannot write " + path;
    std::remove(tmp.c_str());
    return false;
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
  }
  return true;
}
