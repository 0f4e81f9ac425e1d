// The output state and frame-loop logic of one output window, without GL.
//
// OutputRendererCore keeps the state that the host sends (scene, mode,
// transport, video positions, audio clock) behind a lock that is held only
// for copies, hands a pending scene to its engine handle at the head of a
// frame, re-creates the handle when the scene size changes, and runs the
// audio clock. GlOutputRenderer derives from it and does the drawing; the
// split lets the state machine run where no GL context exists.
//
// Threading: setState may be called from any thread; everything else
// (applyPendingScene, stepAudio, mediaReset, release, the engine) belongs to
// the drawing thread. A "mediaReset" text is therefore only noted by
// setState and carried out at the head of the next frame.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "kavlen/kavlen.h"
#include "output_state.h"

// Hashing that lets string-keyed tables be searched with a string_view (or a
// key borrowed from the draw list) without building a std::string.
struct TransparentStringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
using KeySet = std::unordered_set<std::string, TransparentStringHash, std::equal_to<>>;

// Writes "[kavlen] ..." on standard error, one line.
void kavlenLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

class OutputRendererCore {
 public:
  // The values that a frame sees, copied under the lock.
  struct Shared {
    std::optional<std::string> pendingScene;
    int32_t sceneW = 1920, sceneH = 1080;
    std::string mode = "normal";
    bool playing = false;
    std::map<std::string, int64_t> positions;
    std::map<std::string, double> speeds;
    int64_t sceneGeneration = 0;
    std::optional<double> audioTimeMs;
    std::optional<double> audioClockOriginMs;
  };
  // What one audio step handed to the engine.
  struct AudioStep {
    double timeMs = -1.0;
    double stepMs = 0.0;
  };
  // The answer of setState(outputStateJson) for an accepted state.
  struct Accepted {
    JsonPtr scene;
    int32_t width = 0, height = 0;  // before the lower bound of 1
  };

  explicit OutputRendererCore(std::function<std::string()> mediaRoot);
  virtual ~OutputRendererCore();
  OutputRendererCore(const OutputRendererCore&) = delete;
  OutputRendererCore& operator=(const OutputRendererCore&) = delete;

  // Accepts one output state text. Nothing for "mediaReset" (which runs
  // mediaReset at the head of the next frame) and for a text that is ignored.
  std::optional<Accepted> setState(std::string_view outputStateJson);
  // The inner step: stores a state under the lock and logs it.
  void setState(const std::string& sceneJson, int32_t sceneW, int32_t sceneH, const std::string& mode,
                bool playing, const std::map<std::string, int64_t>& positions,
                const std::map<std::string, double>& speeds);
  virtual void mediaReset();
  virtual void release();

  // Head of a frame: runs a mediaReset that setState noted.
  void applyPendingReset();
  // Head of a scene frame: runs a noted reset, then hands the latest pending
  // scene to the engine.
  void applyPendingScene();
  // Sets the engine's audio clock and steps its envelopes.
  AudioStep stepAudio();

  // Offscreen use only: the output that a new handle shows. Empty (the
  // default) binds the handle to the scene's first output, as windows do.
  void setOutputId(std::string id) { outputId_ = std::move(id); }
  // Replaces the two clocks (monotonic seconds, wall clock in milliseconds
  // since 1970), for callers that drive time themselves.
  void setClocks(std::function<double()> monotonicSeconds, std::function<double()> wallClockMs);

  Shared shared() const;  // a copy taken under the lock
  kvl_engine* engine() const { return engine_; }
  int32_t engineW() const { return engineW_; }
  int32_t engineH() const { return engineH_; }
  const KeySet& declared() const { return declared_; }
  const std::optional<std::string>& engineMediaRoot() const { return engineMediaRoot_; }
  int32_t logCount() const { return logCount_; }

 protected:
  // Log of the frame loop's lines: one budget of eight per renderer.
  bool takeLogBudget(int32_t below);
  std::string currentMediaRoot() const { return mediaRoot_ ? mediaRoot_() : std::string(); }

  std::function<std::string()> mediaRoot_;
  mutable std::mutex lock_;
  Shared s_;  // guarded by lock_
  bool resetPending_ = false;  // guarded by lock_

  std::optional<std::string> engineMediaRoot_;
  kvl_engine* engine_ = nullptr;
  int32_t engineW_ = 0, engineH_ = 0;
  KeySet declared_;
  int32_t logCount_ = 0;
  double lastAudioStep_ = 0;
  std::string outputId_;
  std::function<double()> monotonicSeconds_;
  std::function<double()> wallClockMs_;
};
