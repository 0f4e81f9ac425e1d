// The sound-server side of audio capture, on the PulseAudio client library
// (also served by PipeWire's pulse server).
//
// A server source is an input device: its `name` is the device id, its
// description the device name, its sample spec the channel count and rate.
// Monitors of sinks are sources too, which is how an operator routes a
// playback into the show.
//
// Every connection runs on its own threaded main loop. A `RecordEngine` is one
// open device: its loop's thread is the capture thread, and the only code of
// ours that runs there is the tap. A `Watcher` is a separate connection that
// reports the server events that concern open captures, so that nothing but
// the tap ever runs on a capture thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavlen::capture {

// Why a device could not be opened. `domain` is "kavlen" (code 1: no such
// device, code 2: no input) or "pulseaudio" (code: the library's error).
struct CaptureError {
  std::string domain;
  int code = 0;
  std::string description;
};

namespace pulse {

struct SourceInfo {
  std::string name;         // device id
  std::string description;  // device name
  int channels = 0;
  int rate = 0;
};

// The server's sources in its own order and its default source, read over a
// short-lived connection. False with `error` when no server answers.
bool querySources(std::vector<SourceInfo>* sources, std::optional<std::string>* defaultSource, std::string& error);

class Connection;

// One open input device with a record stream of interleaved float frames at
// the device's own rate and channel count. All calls come from one thread
// (the audio-input queue); the tap runs on the engine's capture thread.
class RecordEngine {
 public:
  using Tap = void (*)(void* user, const float* interleaved, size_t frames);

  RecordEngine();
  ~RecordEngine();
  RecordEngine(const RecordEngine&) = delete;
  RecordEngine& operator=(const RecordEngine&) = delete;

  // Connects and reads the format of `source`; absent means the server has no
  // default input. `isDefault` makes a missing source "no input" rather than
  // "no such device".
  bool open(const std::optional<std::string>& source, bool isDefault, CaptureError& error);
  int channels() const { return channels_; }
  int rate() const { return rate_; }

  // Starts recording into `tap` (open() first). Calling it again after the
  // stream died reconnects, with the same format, to the same source.
  bool start(Tap tap, void* user, CaptureError& error);
  void stop();
  bool isRunning() const;

  // Server indexes of the open source and of our stream on it, to tell which
  // server events concern this capture. Valid after a successful start.
  uint32_t sourceIndex() const { return sourceIndex_; }
  uint32_t streamIndex() const { return streamIndex_; }

 private:
  bool connect(CaptureError& error);
  void closeStream();

  std::unique_ptr<Connection> conn_;
  struct StreamState;
  std::unique_ptr<StreamState> stream_;
  std::string source_;
  int channels_ = 0;
  int rate_ = 0;
  uint32_t sourceIndex_ = UINT32_MAX;
  uint32_t streamIndex_ = UINT32_MAX;
};

// A server event that may mean a capture's configuration changed.
struct ServerEvent {
  enum class Kind { SourceRemoved, StreamRemoved, DefaultChanged, ConnectionLost };
  Kind kind;
  uint32_t index = UINT32_MAX;  // the source or stream, where there is one
};

// Listens to source removals, record-stream removals, changes of the default
// source and the loss of the server. The handler runs on the watcher's own
// thread and must only hand the event on.
class Watcher {
 public:
  using Handler = std::function<void(const ServerEvent&)>;
  explicit Watcher(Handler handler);
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  bool start(std::string& error);
  bool alive() const { return alive_.load(); }

 private:
  static void onEvent(void* context, int facilityAndType, uint32_t index, void* self);
  void emit(const ServerEvent& e);

  Handler handler_;
  std::unique_ptr<Connection> conn_;
  std::string defaultSource_;  // on the watcher's thread only, after start
  std::atomic<bool> alive_{false};
};

}  // namespace pulse
}  // namespace kavlen::capture
