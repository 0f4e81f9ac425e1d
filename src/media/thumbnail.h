// The thumbnail service's work: a small JPEG picture of a video file, taken a
// tenth of the way in, upright, fitted in a square.
//
// Usage:
//   if (auto t = kavlen::thumbnail::thumbnail("clip.mp4", 320)) save(t->jpeg);
//
// Decodes on the calling thread; run it off the main loop. Failures give an
// empty answer and no message, as the channel wants.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavlen::thumbnail {

constexpr double kDefaultWidth = 320;
constexpr int kJpegQuality = 80;  // 0.8 on a 0-to-1 scale
constexpr double kTolerance = 0.5;  // seconds the frame may lie after the time asked

struct Picture {
  std::vector<uint8_t> jpeg;
  int width = 0, height = 0;  // of the encoded picture
};

// The moment a thumbnail is taken at, for a file of `duration` seconds: a
// tenth of it, never before 0.1 s; 0.1 s when the duration is 0 or unknown.
double sampleTime(double duration);

// The picture's size for a video shown at displayWidth x displayHeight, fitted
// in a square of side `side` (only ever made smaller; `side` <= 0 sets no bound).
void fittedSize(int displayWidth, int displayHeight, double side, int& width, int& height);

// The frame on show at sampleTime(duration), with the track's rotation
// applied, fitted in a square of side `width`, as a JPEG of quality 0.8.
// Nothing when the file cannot be read, holds no video track or no frame near
// that time, or the encoding fails.
std::optional<Picture> thumbnail(const std::string& path, double width = kDefaultWidth);

}  // namespace kavlen::thumbnail
