// The movie writer of the export: RGBA frames and stereo float audio in, one
// movie file out, on FFmpeg's encoders and muxers.
//
//   MovieSettings s; s.path = "show.mp4"; s.width = 1920; s.height = 1080; s.fps = 30;
//   std::string error;
//   auto w = MovieWriter::create(s, error);          // file made, header written
//   auto frame = w->frameBuffer();                    // RGBA, rows from the top
//   render(frame->data(), frame->stride);
//   w->waitUntilReady(deadline);                      // back-pressure
//   w->appendFrame(frame, timeMs, error);
//   w->markVideoFinished();
//   w->appendAudio(samples, startFrame, error) ...    // after all video
//   w->markAudioFinished();
//   w->finishWriting(error);                          // blocks until the file is complete
//
// Codecs: "h264" (libx264, High profile) and "hevc" (libx265, tagged hvc1)
// into MPEG-4; "prores" (prores_ks 422) into QuickTime. Any other name is
// H.264. Audio is AAC, stereo, 44100 Hz.
//
// Threads: a writer owns one encoding thread; frames and audio chunks queue
// up for it, and `isReadyForMoreMediaData` is false while the queue is full.
// All methods may be called from any thread. A writer that fails (a full disk,
// an encoder error) keeps its first error; later appends fail with it and the
// partial file stays for the caller to deal with. `cancel` stops at once and
// removes the file; a writer dropped before `finishWriting` is cancelled.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kavlen::exporter {

struct MovieSettings {
  std::string path;
  int width = 0, height = 0;
  int fps = 30;
  std::string codec = "h264";
  int64_t bitrate = 0;            // below 1: the size rule of videoBitRate
  bool audio = false;             // add an AAC track
  int64_t audioBitrate = 192000;  // bits per second
};

// The video bit rate for a requested rate and a frame size: the request when
// it is at least 1, else 6 bits per pixel of one frame, and never below 4 Mbit/s.
// The frame rate plays no part.
int64_t videoBitRate(int64_t requested, int64_t width, int64_t height);

// An RGBA picture of the writer's size: 8 bits a channel, rows from the top,
// `stride` bytes apart. Handed back to the writer's pool when released.
struct FrameBuffer {
  std::vector<uint8_t> pixels;
  int width = 0, height = 0;
  int64_t stride = 0;
  uint8_t* data() { return pixels.data(); }
  const uint8_t* data() const { return pixels.data(); }
};

class MovieWriter {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Status { Writing, Finishing, Completed, Failed, Cancelled };
  static constexpr int kAudioRate = 44100;

  // Makes the file and writes its header. Null with the reason in `error`
  // (an unknown size, a folder that can't be written, an encoder that won't open).
  static std::shared_ptr<MovieWriter> create(const MovieSettings& settings, std::string& error);
  ~MovieWriter();
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  const MovieSettings& settings() const { return settings_; }
  int64_t videoBitRateUsed() const;
  bool hasAudio() const { return settings_.audio; }

  // A frame buffer from the pool, null when none can be had (out of memory,
  // or the writer was cancelled or has ended).
  std::shared_ptr<FrameBuffer> frameBuffer();

  // True when a video frame can be appended without waiting; also true when
  // the writer has failed, so that the append reports the failure.
  bool isReadyForMoreMediaData() const;
  // Waits until ready or `deadline`; false at the deadline, or at once when the
  // writer was cancelled, completed or no longer takes video.
  bool waitUntilReady(Clock::time_point deadline) const;
  bool waitUntilReady() const { return waitUntilReady(Clock::time_point::max()); }

  // Queues a frame at `timeMs` on the movie's timeline. False with the
  // writer's error when it has failed, was cancelled or is past its video.
  bool appendFrame(std::shared_ptr<FrameBuffer> frame, int64_t timeMs, std::string& error);
  void markVideoFinished();

  // Audio: interleaved stereo float frames, starting at `startFrame` (44100 Hz).
  // Chunks must follow each other without gaps. Same back-pressure as video.
  bool isReadyForMoreAudio() const;
  bool waitUntilAudioReady() const;
  bool appendAudio(std::vector<float> interleaved, int64_t startFrame, std::string& error);
  void markAudioFinished();

  // Ends the video and audio if not done yet, drains the queue, flushes the
  // encoders and writes the trailer. Blocks. False with the writer's error.
  bool finishWriting(std::string& error);
  // While paused the encoding thread takes nothing from the queue, so appends
  // wait through the back-pressure; resume goes on where it stopped.
  void pause();
  void resume();

  // Stops encoding, discards what is queued, closes and removes the file.
  // Returns once the encoding thread has stopped. Does nothing after completion.
  void cancel();

  Status status() const;
  std::string errorText() const;

  // Seconds the encoding thread spent converting RGBA to the encoder's format
  // and encoding and writing, over the whole export so far.
  struct Timing {
    double convertSeconds = 0, encodeSeconds = 0;
    int64_t frames = 0;
  };
  Timing timing() const;

  struct Impl;

 private:
  explicit MovieWriter(MovieSettings settings);
  MovieSettings settings_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kavlen::exporter
