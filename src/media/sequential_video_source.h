// Pictures of a video file at given media times, for offline rendering.
//
// Usage:
//   auto src = kavlen::SequentialVideoSource::create("clip.mp4");
//   if (!src) return;                     // no video track
//   for (double t = 0; t < 10; t += 1 / 30.0)
//     if (const kavlen::VideoImage* im = src->frame(t)) use(im->rgba, im->width, im->height);
//
// There is no clock: for a time t the answer is always the same frame, the
// last one whose presentation time is not after t (before the first frame of
// the file it is that first frame; past the end, the last one). Built for
// rising times: forward it only decodes on, dropping frames on the way; it
// seeks only when t falls more than 0.5 s behind the frame it holds. The first
// call, and every seek, starts decoding 50 ms ahead of t. The track's display
// rotation is applied to the pictures.
//
// One thread at a time; not copyable.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kavlen {

// A decoded picture: straight RGBA, rows packed (width * 4 bytes).
struct VideoImage {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;
};

class SequentialVideoSource {
 public:
  // Nothing when the file cannot be opened or holds no video track.
  static std::unique_ptr<SequentialVideoSource> create(const std::string& path);
  // The same on a file held in memory (for the fuzz target of the demuxer).
  static std::unique_ptr<SequentialVideoSource> createFromMemory(
      std::shared_ptr<const std::vector<uint8_t>> bytes);
  ~SequentialVideoSource();
  SequentialVideoSource(const SequentialVideoSource&) = delete;
  SequentialVideoSource& operator=(const SequentialVideoSource&) = delete;

  // The picture at `seconds` of media time, or null when the file gave no
  // frame at all. The pointer stays valid until the next call.
  const VideoImage* frame(double seconds);

  // The coded size of the track, before rotation.
  int naturalWidth() const;
  int naturalHeight() const;
  // True when the track's display matrix turns or mirrors the picture.
  bool rotated() const;

  // Inspection, mostly for tests: how many decoding runs were started, where
  // the last one started, and the time of the frame on show (NaN if none).
  int openCount() const;
  double lastOpenStart() const;
  double currentTime() const;

  struct State;

 private:
  explicit SequentialVideoSource(std::unique_ptr<State> state);
  void open(double t);
  std::unique_ptr<State> s_;
};

}  // namespace kavlen
