// Media made by ffmpeg on the spot for the media tests: videos whose frames
// carry their index as black/white blocks, and damaged copies. Each file is
// made once per process in a temporary folder removed at exit.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace mediatest {

inline const std::string& folder() {
  static const struct Folder {
    std::string path;
    Folder() {
      char tmpl[] = "/tmp/kavlen-media-XXXXXX";
      if (mkdtemp(tmpl)) path = tmpl;
    }
    ~Folder() {
      std::error_code ec;
      if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
  } f;
  return f.path;
}

inline std::string pathOf(const std::string& name) { return folder() + "/" + name; }

// Runs ffmpeg `args` writing `name`; its path, or "" after a test failure. Cached by name.
inline std::string make(const std::string& name, const std::string& args) {
  static std::map<std::string, std::string> made;
  if (auto it = made.find(name); it != made.end()) return it->second;
  std::string out = pathOf(name);
  std::string cmd = "timeout 120 ffmpeg -nostdin -v error -y " + args + " '" + out + "' 2>&1";
  if (system(cmd.c_str()) != 0 || !std::filesystem::exists(out)) {
    ADD_FAILURE() << "ffmpeg could not make " << name << ": " << cmd;
    return "";
  }
  return made[name] = out;
}

// 128x32 picture of 8 x 2 blocks of 16 px; block i white when bit i of the index is set.
constexpr int kCodeWidth = 128, kCodeHeight = 32;

inline std::string indexSource(int fps, double seconds) {
  return "-f lavfi -i \"nullsrc=s=128x32:r=" + std::to_string(fps) + ":d=" + std::to_string(seconds) +
         ",geq=lum='if(bitand(N\\,pow(2\\,floor(X/16)+8*floor(Y/16)))\\,235\\,16)':cb=128:cr=128\"";
}

// B-frames and a key frame every 12: seeks land early and frames come reordered.
inline const char* kH264 = " -c:v libx264 -preset veryfast -g 12 -bf 2 -pix_fmt yuv420p ";

// `noisy` adds fine-quantised grain so frames are large and damage hits pictures, not the header.
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

// A copy whose display matrix turns it by `degrees` (ffmpeg's "rotate" tag).
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

// The first `fraction` of `src`.
inline std::string truncatedCopy(const std::string& src, double fraction, const std::string& name) {
  std::vector<uint8_t> bytes = readBytes(src);
  bytes.resize(static_cast<size_t>(bytes.size() * fraction));
  writeBytes(pathOf(name), bytes);
  return pathOf(name);
}

// `src` with `count` bytes from `fraction` of the way in overwritten by noise.
inline std::string corruptedCopy(const std::string& src, double fraction, size_t count, const std::string& name) {
  std::vector<uint8_t> bytes = readBytes(src);
  uint32_t x = 12345;
  for (size_t i = static_cast<size_t>(bytes.size() * fraction); count-- && i < bytes.size(); i++) {
    x = x * 1664525u + 1013904223u;
    bytes[i] = static_cast<uint8_t>(x >> 24);
  }
  writeBytes(pathOf(name), bytes);
  return pathOf(name);
}

inline std::string readText(const std::string& path) {
  std::vector<uint8_t> bytes = readBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

inline std::string q(const std::string& path) { return "'" + path + "'"; }

struct CliRun {
  int code = -1;
  std::string out, err;
};

// Runs `kavlen args` (paths quoted by the caller) with `env` settings before it.
inline CliRun kavlen(const std::string& args, const std::string& env = "") {
  const std::string out = pathOf("cli.stdout"), err = pathOf("cli.stderr");
  int status = system((env + " timeout 120 " + q(KAVLEN_EXE) + " " + args + " >" + q(out) + " 2>" + q(err)).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out), readText(err)};
}

// An empty folder of its own for the running test.
inline std::string testFolder() {
  std::string path = pathOf(::testing::UnitTest::GetInstance()->current_test_info()->name());
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  return path;
}

inline std::string textFile(const std::string& name, const std::string& text) {
  std::ofstream(pathOf(name)) << text;
  return pathOf(name);
}

// Reads the index code; `map` takes a point of the coded 128x32 picture to
// where `rgba` shows it. -1 when a block is neither clearly black nor white.
template <typename Map>
int readIndex(const uint8_t* rgba, int width, int height, Map map) {
  int index = 0;
  for (int bit = 0; bit < 16; bit++) {
    auto [px, py] = map((bit % 8) * 16 + 8, (bit / 8) * 16 + 8);
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
