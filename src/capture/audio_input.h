// Live audio capture: opens input devices and feeds their channels into the
// named audio sources that layers react to.
//
// The interface says which logical sources it wants (an id, a device, a set
// of the device's channels). Sources on one device share one capture; each
// source reads the mean of its channels. All state changes run on one serial
// queue ("app.kavlen.audio-input"); the capture threads only run the taps;
// completions come back on the main loop.
//
// A capture survives device changes by restarting: a server event that
// concerns an open capture (its source or stream removed, a new default
// source, the server gone) schedules one rebuild of all captures 0.5 s later,
// unless one is pending or the last rebuild is under a second old; 0.4 s
// after every rebuild, captures that are not running get one more try.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "main_loop.h"
#include "pulse.h"
#include "workers.h"

namespace kavlen::capture {

class CaptureTap;

class AudioInput {
 public:
  struct Device {
    std::string id;
    std::string name;
    int channels = 0;
    bool operator==(const Device&) const = default;
  };

  struct Source {
    std::string id;                     // the audio source name
    std::optional<std::string> device;  // absent: the default input device
    std::vector<int> channels;          // zero-based; empty: all
    bool operator==(const Source&) const = default;
  };

  // Source id to "ok", "unavailable" or "denied".
  using Results = std::map<std::string, std::string>;
  using Completion = std::function<void(Results)>;

  AudioInput();
  ~AudioInput();
  AudioInput(const AudioInput&) = delete;
  AudioInput& operator=(const AudioInput&) = delete;

  // The process-wide instance; it lives as long as the process.
  static AudioInput& shared();

  // The input devices in the server's order; empty when no server answers.
  static std::vector<Device> devices();
  // The same with the default device's id and the reason of a failure.
  static bool listDevices(std::vector<Device>& out, std::optional<std::string>* defaultId, std::string& error);

  // Captures exactly `sources` from now on; `completion` gets the result of
  // each on `main`'s thread. An empty list stops everything.
  void setSources(std::vector<Source> sources, host::MainLoop& main, Completion completion);
  // Stops everything, asynchronously.
  void stopAll();
  // The gain of all sources (0 or below: 1).
  static void setGain(float gain);
  // True if any capture runs. Waits for the queue.
  bool isRunning();

  // Runs `task` on the audio-input queue (the plug-in's device listing).
  void async(std::function<void()> task) { queue_->async(std::move(task)); }

 private:
  struct Capture {
    std::optional<std::string> device;
    std::vector<Source> sources;
    std::unique_ptr<pulse::RecordEngine> engine;
    std::unique_ptr<CaptureTap> tap;
  };

  // All on the queue.
  Results apply(const std::vector<Source>& sources);
  void stopAllNow();
  void stopCaptures();
  bool start(Capture& capture, const std::optional<std::string>& defaultId, CaptureError& error);
  void restartStopped();
  void configurationChanged(const pulse::ServerEvent& event);
  bool concernsCaptures(const pulse::ServerEvent& event) const;
  void watch();

  std::vector<std::unique_ptr<Capture>> captures_;
  std::vector<Source> wanted_;
  std::chrono::steady_clock::time_point lastApply_{};  // the distant past
  bool restartPending_ = false;
  std::unique_ptr<pulse::Watcher> watcher_;
  // Last member: destroyed first, so no task outlives what it touches.
  std::unique_ptr<host::SerialQueue> queue_;
};

}  // namespace kavlen::capture
