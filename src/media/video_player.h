// VideoPlayer: a muted player of one movie file on FFmpeg.
//
// The file is opened and decoded on a thread of the player's own; the caller
// sees a clock (the item's time, advancing at `rate` from the moment of the
// last seek or rate change), a seek that freezes the clock until the frame at
// the target has been decoded and then calls its completion, and the newest
// decoded frame for a given host time. Audio is never decoded.
//
// At the item's end the clock stops there with its rate unchanged (the player
// neither pauses nor advances), and `takeEnded` reports the end once; the
// owner decides whether to loop. A negative rate runs the clock backwards
// down to 0; frames are then found by seeking back and decoding forward in
// short runs, which is slow but keeps the picture in step with the clock.
//
// Hardware decoding through VA-API is used when the machine offers it and the
// codec supports it; frames are then downloaded to memory as NV12. Without
// it, or when it fails to start, the software decoder runs.
//
// Usage:
//   VideoPlayer p("/shows/loop.mp4");
//   p.seek(2'000'000, [](bool finished) { /* frame at 2 s is ready */ });
//   p.setRate(1.0f);
//   if (auto f = p.frameForHostTime(p.hostTime())) upload(f->frame);
//
// Threading: every method may be called from any thread. Seek completions run
// on the decode thread (or on the caller's when the seek is refused at once),
// with no lock of the player held, so they may call back into it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

struct AVFrame;

class VideoPlayer {
 public:
  // One decoded picture, in the decoder's software pixel format (NV12 when
  // it came from the hardware). Shared, so a frame stays valid while its user
  // holds it even after the player has dropped it.
  struct Frame {
    AVFrame* frame = nullptr;  // owned
    int64_t ptsUs = 0;         // presentation time on the item's clock
    int64_t durationUs = 0;
    Frame() = default;
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    ~Frame();
  };
  using FramePtr = std::shared_ptr<const Frame>;
  using Completion = std::function<void(bool finished)>;

  struct Options {
    bool allowHardware = true;
    // Host time in seconds, monotonic. Empty: CLOCK_MONOTONIC.
    std::function<double()> hostClock;
    // Frames decoded ahead of the clock.
    int32_t aheadFrames = 6;
  };

  enum class Status { Opening, Ready, Failed };

  explicit VideoPlayer(std::string path);
  VideoPlayer(std::string path, Options options);
  ~VideoPlayer();
  VideoPlayer(const VideoPlayer&) = delete;
  VideoPlayer& operator=(const VideoPlayer&) = delete;

  Status status() const;
  // Blocks until the file has opened or failed, at most `seconds`.
  Status waitOpened(double seconds) const;
  // The decoder's one-line message once the status is Failed.
  std::string error() const;
  bool hardwareDecoding() const { return hardware_.load(); }
  int32_t width() const;
  int32_t height() const;
  // Length of the item; 0 while unknown.
  int64_t durationUs() const;

  double hostTime() const;
  // The item's time now, or nothing while the file is opening or has failed.
  std::optional<int64_t> currentTimeUs();
  std::optional<int64_t> itemTimeForHostTime(double hostSeconds);

  float rate() const;
  void setRate(float rate);

  // Moves the clock to `targetUs` and holds it there until the frame shown at
  // that time has been decoded; then the clock runs on at the current rate
  // and `done(true)` is called. A seek replaced by a later one, or one on a
  // file that cannot be played, completes with false.
  void seek(int64_t targetUs, Completion done = {});

  // True once each time the clock has run forwards into the item's end.
  bool takeEnded();

  // The frame that shows at the item time of `hostSeconds`, or none while no
  // such frame is decoded yet. The same pointer comes back until the picture
  // changes, so a caller uploads only when it differs from the last one.
  FramePtr frameForHostTime(double hostSeconds);

  // Counters for checks and benchmarks.
  int64_t framesDecoded() const { return framesDecoded_.load(); }
  int64_t repositions() const { return repositions_.load(); }

 private:
  struct Request {
    int64_t targetUs = 0;
    uint64_t serial = 0;
    bool reverse = false;
  };
  class Decoder;

  void run();
  int64_t positionLocked(double host);
  void reanchorLocked(double host);
  void requestLocked(int64_t targetUs, bool reverse);
  void finishSeekLocked(uint64_t serial, std::optional<Completion>& out);
  bool pushLocked(uint64_t serial, FramePtr f);

  const std::string path_;
  const Options options_;

  mutable std::mutex m_;
  mutable std::condition_variable cv_;
  Status status_ = Status::Opening;
  std::string error_;
  int32_t width_ = 0, height_ = 0;
  int64_t durationUs_ = 0;
  int64_t frameUs_ = 40000;  // nominal frame length

  // Clock: media = anchorMediaUs_ + (host - anchorHost_) * rate_, unless held.
  double anchorHost_ = 0;
  double anchorMediaUs_ = 0;
  float rate_ = 0;
  bool holding_ = false;  // a seek is waiting for its frame
  bool atEnd_ = false;
  bool ended_ = false;

  // Decode requests: each one bumps the serial; frames of older serials are
  // dropped. `seekSerial_` is the serial of the seek that holds the clock.
  std::optional<Request> request_;
  uint64_t serial_ = 0;
  uint64_t seekSerial_ = 0;
  Completion pendingDone_;
  bool reverse_ = false;
  int64_t decodedFromUs_ = 0;  // where the last reposition started looking
  bool eof_ = false;
  bool stop_ = false;
  std::deque<FramePtr> queue_;  // in presentation order
  FramePtr last_;

  std::atomic<bool> hardware_{false};
  std::atomic<int64_t> framesDecoded_{0};
  std::atomic<int64_t> repositions_{0};
  std::thread thread_;
};
