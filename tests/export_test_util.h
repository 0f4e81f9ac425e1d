// Helpers of the export tests: solid and quartered RGBA frames, and what
// FFmpeg's own tools read back from a written movie.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "media_samples.h"
#include "movie_writer.h"

namespace exporttest {

// The output of a shell command (stdout only).
inline std::string run(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

// "key=value" lines of ffprobe about the streams and the container.
inline std::string probe(const std::string& path) {
  return run("ffprobe -v error -show_entries stream=codec_type,codec_name,profile,codec_tag_string,nb_frames,"
             "sample_rate,channels:format=format_name:format_tags=major_brand -of default=nw=1 " + mediatest::q(path));
}

// Presentation times of the video frames, in milliseconds.
inline std::vector<long> frameTimesMs(const std::string& path) {
  std::istringstream in(run("ffprobe -v error -select_streams v -show_entries frame=pts_time -of csv=p=0 " +
                            mediatest::q(path)));
  std::vector<long> ms;
  for (std::string line; std::getline(in, line);)  // "0.033000" or "0.000000," with side data
    if (!line.empty()) ms.push_back(std::lround(std::stod(line) * 1000));
  return ms;
}

// The decoded video as RGBA frames of w x h.
inline std::vector<std::vector<uint8_t>> decodeRgba(const std::string& path, int w, int h) {
  std::string raw = run("ffmpeg -v error -nostdin -i " + mediatest::q(path) + " -f rawvideo -pix_fmt rgba -");
  std::vector<std::vector<uint8_t>> frames;
  const size_t size = static_cast<size_t>(w) * h * 4;
  for (size_t off = 0; off + size <= raw.size(); off += size) frames.emplace_back(raw.begin() + off, raw.begin() + off + size);
  return frames;
}

// The decoded audio as interleaved stereo float at 44100 Hz.
inline std::vector<float> decodeAudio(const std::string& path) {
  std::string raw =
      run("ffmpeg -v error -nostdin -i " + mediatest::q(path) + " -vn -f f32le -ac 2 -ar 44100 -");
  std::vector<float> s(raw.size() / 4);
  std::memcpy(s.data(), raw.data(), s.size() * 4);
  return s;
}

// Four quadrants: red, green, blue, grey.
inline void paintQuadrants(uint8_t* rgba, int w, int h, int64_t stride) {
  const uint8_t colours[4][3] = {{220, 30, 40}, {30, 200, 60}, {40, 50, 210}, {128, 128, 128}};
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const uint8_t* c = colours[(y >= h / 2) * 2 + (x >= w / 2)];
      uint8_t* p = rgba + y * stride + x * 4;
      p[0] = c[0], p[1] = c[1], p[2] = c[2], p[3] = 255;
    }
}

inline bool quadrantsMatch(const std::vector<uint8_t>& rgba, int w, int h, int tolerance) {
  std::vector<uint8_t> want(static_cast<size_t>(w) * h * 4);
  paintQuadrants(want.data(), w, h, w * 4);
  for (int q = 0; q < 4; q++) {
    int x = (q % 2) * w / 2 + w / 4, y = (q / 2) * h / 2 + h / 4;
    for (int c = 0; c < 3; c++) {
      size_t i = (static_cast<size_t>(y) * w + x) * 4 + c;
      if (std::abs(rgba[i] - want[i]) > tolerance) {
        ADD_FAILURE() << "quadrant " << q << " channel " << c << ": " << int(rgba[i]) << " vs " << int(want[i]);
        return false;
      }
    }
  }
  return true;
}

// Writes `count` quartered frames at 1000 / fps steps; the writer stays open.
inline void pushQuadrants(kavlen::exporter::MovieWriter& w, int count) {
  const auto& s = w.settings();
  for (int i = 0; i < count; i++) {
    auto f = w.frameBuffer();
    ASSERT_TRUE(f);
    paintQuadrants(f->data(), s.width, s.height, f->stride);
    std::string error;
    ASSERT_TRUE(w.waitUntilReady());
    ASSERT_TRUE(w.appendFrame(f, static_cast<int64_t>(i * 1000.0 / s.fps), error)) << error;
  }
}

}  // namespace exporttest
