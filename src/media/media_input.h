// Opening media for demuxing with FFmpeg, from a file or from bytes in memory,
// and the few facts about a stream that every media service needs (its
// duration, its display rotation, its decoder).
//
// Usage:
//   std::string error;
//   auto in = kavlen::MediaInput::openFile("show.mp4", error);
//   if (!in) report(error);
//   int v = in->firstStream(AVMEDIA_TYPE_VIDEO);
//
// Internal to src/media; the public services (audio_decode.h, waveform.h,
// thumbnail.h, sequential_video_source.h) are built on it. The memory form
// exists so that the demuxing path can be fuzzed without touching the disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

struct SwsContext;

namespace kavlen {

// A demuxer on a file or on a shared byte buffer. Not copyable; closing is
// the destructor's job.
class MediaInput {
 public:
  static std::unique_ptr<MediaInput> openFile(const std::string& path, std::string& error);
  static std::unique_ptr<MediaInput> openMemory(std::shared_ptr<const std::vector<uint8_t>> bytes,
                                                std::string& error);
  ~MediaInput();
  MediaInput(const MediaInput&) = delete;
  MediaInput& operator=(const MediaInput&) = delete;

  AVFormatContext* format() const { return fmt_; }
  const std::string& name() const { return name_; }

  // Index of the first stream of `type`, or -1. For video, attached pictures
  // (cover art of music files) are not counted as a video track.
  int firstStream(AVMediaType type) const;

  // Duration of the whole file in seconds; NaN when the container does not
  // say. This is the file's duration, not one stream's.
  double durationSeconds() const;

  // Seconds to subtract from presentation times so that the file's timeline
  // starts at 0 (transport streams start at an arbitrary clock value).
  double timelineOrigin() const;

 private:
  MediaInput() = default;
  bool open(std::string& error);

  AVFormatContext* fmt_ = nullptr;
  AVIOContext* io_ = nullptr;  // only for memory input
  std::shared_ptr<const std::vector<uint8_t>> bytes_;
  size_t pos_ = 0;
  std::string name_;

  static int readPacket(void* opaque, uint8_t* buf, int size);
  static int64_t seek(void* opaque, int64_t offset, int whence);
};

// Opens a decoder for stream `index`; nullptr with a message on failure.
// `threads` 0 lets FFmpeg pick one per core.
AVCodecContext* openDecoder(const MediaInput& in, int index, int threads, std::string& error);

// The rotation of a video stream's display matrix as a 2x2 matrix of -1, 0 and
// 1 in row-major order (a, b, c, d): a coded pixel (x, y) is shown at
// (a*x + c*y, b*x + d*y), shifted so the picture starts at (0, 0). Identity
// when the stream has no matrix or one that is not a quarter turn or mirror.
struct DisplayTurn {
  int a = 1, b = 0, c = 0, d = 1;
  bool identity() const { return a == 1 && b == 0 && c == 0 && d == 1; }
  bool swapsAxes() const { return a == 0; }
};
DisplayTurn displayTurn(const AVStream* stream);

// Applies `turn` to a packed picture of `bpp` bytes per pixel: `src` is w x h
// with rows `srcStride` bytes apart; `dst` receives the turned picture, tightly
// packed, and its size goes to `outW`, `outH`.
void applyTurn(const DisplayTurn& turn, const uint8_t* src, int w, int h, int srcStride, int bpp,
               std::vector<uint8_t>& dst, int& outW, int& outH);

// Tells `sws` the colour matrix and range of frames like `f`: what the stream
// says, else the usual guess by size (HD material is BT.709, smaller BT.601).
// The output is full-range RGB.
void setFrameColors(SwsContext* sws, const AVFrame* f);

// One line of text for an FFmpeg error code.
std::string avErrorText(int code);

}  // namespace kavlen
