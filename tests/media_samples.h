// Media files for the media tests, made by the ffmpeg program on the spot
// (nothing is downloaded): videos whose frames carry their index as a code of
// black and white blocks, rotated variants, audio with known peaks, and
// damaged copies. Each file is made once per test process, in a temporary
// folder removed at exit.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace mediatest {

class Folder {
 public:
  Folder() {
    char tmpl[] = "/tmp/kavlen-media-XXXXXX";
    if (mkdtemp(tmpl)) path_ = tmpl;
  }
  ~Folder() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline const std::string& folder() {
  static Folder f;
  return f.path();
}

inline std::string pathOf(const std::string& name) { return folder() + "/" + name; }

// Runs ffmpeg with `args` writing `name` in the folder; the path, or "" after
// reporting a test failure. Cached by name.
inline std::string make(const std::string& name, const std::string& args) {
  static std::map<std::string, std::string> made;
  if (auto it = made.find(name); it != made.end()) return it->second;
  std::string out = pathOf(name);
  std::string cmd = "timeout 120 ffmpeg -nostdin -v error -y " + args + " '" + out + "' 2>&1";
  int rc = system(cmd.c_str());
  if (rc != 0 || !std::filesystem::exists(out)) {
    ADD_FAILURE() << "ffmpeg could not make " << name << ": " << cmd;
    return "";
  }
  made[name] = out;
  return out;
}

// The frame-index code: a 128x32 picture of 8 x 2 blocks of 16 pixels, block
// i (left to right, then the second row) white when bit i of the index is set.
constexpr int kCodeWidth = 128, kCodeHeight = 32;

inline std::string indexSource(int fps, double seconds) {
  return "-f lavfi -i \"nullsrc=s=128x32:r=" + std::to_string(fps) + ":d=" + std::to_string(seconds) +
         ",geq=lum='if(bitand(N\\,pow(2\\,floor(X/16)+8*floor(Y/16)))\\,235\\,16)':cb=128:cr=128\"";
}

// H.264 with B-frames and a key frame every 12 frames, so that seeks land
// before the time asked and frames come out of the decoder reordered.
inline const char* kH264 = " -c:v libx264 -preset veryfast -g 12 -bf 2 -pix_fmt yuv420p ";

// An index-coded video of `seconds` at `fps`, with a sine audio track unless
// `audio` is false. `noisy` adds grain kept by a fine quantiser, so that the
// frames are large and a cut or damage falls inside the pictures, not the
// file's header.
inline std::string indexedVideo(int fps, double seconds = 3, bool audio = true, const std::string& ext = "mp4",
                                bool noisy = false) {
  std::string name = "index" + std::to_string(fps) + "_" + std::to_string(int(seconds * 1000)) +
                     (audio ? "_a" : "_v") + (noisy ? "_n." : ".") + ext;
  std::string args = indexSource(fps, seconds);
  if (noisy) args.insert(args.size() - 1, ",noise=alls=12:allf=t+u");
  if (audio) args += " -f lavfi -i \"sine=frequency=440:duration=" + std::to_string(seconds) + "\" -c:a aac -shortest";
  args += kH264;
  if (noisy) args += " -qp 8 ";
  if (ext == "mp4") args += " -movflags +faststart";
  return make(name, args);
}

// A copy of `src` whose display matrix turns it by `degrees` (as ffmpeg's
// "rotate" tag means it).
inline std::string rotatedCopy(const std::string& src, int degrees, const std::string& name) {
  if (src.empty()) return "";
  return make(name, "-i '" + src + "' -c copy -metadata:s:v:0 rotate=" + std::to_string(degrees));
}

inline std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The first `fraction` of `src`, as a new file.
inline std::string truncatedCopy(const std::string& src, double fraction, const std::string& name) {
  std::vector<uint8_t> bytes = readBytes(src);
  bytes.resize(static_cast<size_t>(bytes.size() * fraction));
  std::string out = pathOf(name);
  writeBytes(out, bytes);
  return out;
}

// `src` with `count` bytes from `fraction` of the way in overwritten by noise.
inline std::string corruptedCopy(const std::string& src, double fraction, size_t count, const std::string& name) {
  std::vector<uint8_t> bytes = readBytes(src);
  size_t at = static_cast<size_t>(bytes.size() * fraction);
  uint32_t x = 12345;
  for (size_t i = at; i < at + count && i < bytes.size(); i++) {
    x = x * 1664525u + 1013904223u;
    bytes[i] = static_cast<uint8_t>(x >> 24);
  }
  std::string out = pathOf(name);
  writeBytes(out, bytes);
  return out;
}

inline std::string textFile(const std::string& name, const std::string& text) {
  std::string out = pathOf(name);
  std::ofstream(out) << text;
  return out;
}

// Reads the index code of a picture; `map` turns a point of the coded 128x32
// picture into the point of `rgba` where it is shown. -1 when a block is
// neither clearly black nor clearly white.
template <typename Map>
int readIndex(const uint8_t* rgba, int width, int height, Map map) {
  int index = 0;
  for (int bit = 0; bit < 16; bit++) {
    int x = (bit % 8) * 16 + 8, y = (bit / 8) * 16 + 8;
    auto [px, py] = map(x, y);
    if (px < 0 || py < 0 || px >= width || py >= height) return -1;
    const uint8_t* p = rgba + (static_cast<size_t>(py) * width + px) * 4;
    int level = (p[0] + p[1] + p[2]) / 3;
    if (level > 180)
      index |= 1 << bit;
    else if (level > 70)
      return -1;
  }
  return index;
}

inline int readIndex(const uint8_t* rgba, int width, int height) {
  return readIndex(rgba, width, height, [](int x, int y) { return std::pair<int, int>(x, y); });
}

}  // namespace mediatest
