// Output state, scene hand-over and audio clock of an output window.
#include "output_renderer_core.h"

#include <time.h>

#include <cstdio>

void kavlenLog(const char* fmt, ...) {
  char line[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  // One write per line, so lines of several outputs do not interleave.
  fprintf(stderr, "[kavlen] %s\n", line);
}

namespace {

double monotonicNow() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double wallNowMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return (static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9) * 1000.0;
}

}  // namespace

OutputRendererCore::OutputRendererCore(std::function<std::string()> mediaRoot)
    : mediaRoot_(std::move(mediaRoot)), monotonicSeconds_(monotonicNow), wallClockMs_(wallNowMs) {}

OutputRendererCore::~OutputRendererCore() {
  // Derived classes run their own release first; this one only drops the
  // handle if it is still there.
  kvl_engine_destroy(engine_);
  engine_ = nullptr;
}

void OutputRendererCore::setClocks(std::function<double()> monotonicSeconds, std::function<double()> wallClockMs) {
  monotonicSeconds_ = std::move(monotonicSeconds);
  wallClockMs_ = std::move(wallClockMs);
}

OutputRendererCore::Shared OutputRendererCore::shared() const {
  std::lock_guard<std::mutex> g(lock_);
  return s_;
}

bool OutputRendererCore::takeLogBudget(int32_t below) {
  if (logCount_ >= below) return false;
  logCount_++;
  return true;
}

std::optional<OutputRendererCore::Accepted> OutputRendererCore::setState(std::string_view outputStateJson) {
  OutputState st;
  switch (parseOutputState(outputStateJson, st)) {
    case OutputStateKind::MediaReset:
      // Players and GL objects belong to the drawing thread: the reset waits
      // for the head of its next frame.
      {
        std::lock_guard<std::mutex> g(lock_);
        resetPending_ = true;
      }
      return std::nullopt;
    case OutputStateKind::Rejected:
      return std::nullopt;
    case OutputStateKind::State:
      break;
  }
  setState(st.sceneJson, st.sceneW, st.sceneH, st.mode, st.playing, st.positions, st.speeds);
  {
    // A second critical section, after the inner step's log line.
    std::lock_guard<std::mutex> g(lock_);
    s_.audioTimeMs = st.audioTimeMs;
    s_.audioClockOriginMs = st.audioClockOriginMs;
  }
  Accepted a;
  a.scene = std::move(st.scene);
  a.width = st.sceneW;
  a.height = st.sceneH;
  return a;
}

void OutputRendererCore::setState(const std::string& sceneJson, int32_t sceneW, int32_t sceneH,
                                  const std::string& mode, bool playing,
                                  const std::map<std::string, int64_t>& positions,
                                  const std::map<std::string, double>& speeds) {
  {
    std::lock_guard<std::mutex> g(lock_);
    s_.sceneW = sceneW < 1 ? 1 : sceneW;
    s_.sceneH = sceneH < 1 ? 1 : sceneH;
    s_.mode = mode;
    s_.playing = playing;
    s_.positions = positions;
    s_.speeds = speeds;
    // Only the latest text counts: an untaken one is replaced.
    s_.pendingScene = sceneJson;
    s_.sceneGeneration++;
  }
  if (takeLogBudget(5))
    kavlenLog("saída Metal: cena %d bytes, %dx%d, modo=%s play=%d vídeos=%d", static_cast<int>(sceneJson.size()),
              sceneW, sceneH, mode.c_str(), playing ? 1 : 0, static_cast<int>(positions.size()));
}

void OutputRendererCore::mediaReset() {
  // Images, texts, masks and the engine stay; every source is declared
  // afresh on the next frames.
  declared_.clear();
}

void OutputRendererCore::release() {
  if (engine_) {
    kvl_engine_destroy(engine_);
    engine_ = nullptr;
  }
}

void OutputRendererCore::applyPendingReset() {
  bool reset = false;
  {
    std::lock_guard<std::mutex> g(lock_);
    reset = resetPending_;
    resetPending_ = false;
  }
  if (reset) mediaReset();
}

void OutputRendererCore::applyPendingScene() {
  applyPendingReset();
  std::optional<std::string> scene;
  int32_t w = 0, h = 0;
  {
    std::lock_guard<std::mutex> g(lock_);
    scene = std::move(s_.pendingScene);
    s_.pendingScene.reset();
    w = s_.sceneW;
    h = s_.sceneH;
  }
  if (!scene) return;

  if (engine_ && engineW_ == w && engineH_ == h) {
    // The source table survives a scene change, so `declared` stays true.
    if (kvl_engine_set_scene(engine_, scene->c_str()) != 0) kavlenLog("saída Metal: %s", kvl_last_error());
  } else {
    if (engine_) {
      kvl_engine_destroy(engine_);
      engine_ = nullptr;
    }
    engine_ = kvl_engine_create(scene->c_str(), w, h, outputId_.empty() ? nullptr : outputId_.c_str());
    engineW_ = w;
    engineH_ = h;
    if (!engine_) kavlenLog("saída Metal: %s", kvl_last_error());
    // A new handle knows no source and no root.
    declared_.clear();
    engineMediaRoot_.reset();
  }

  std::string root = currentMediaRoot();
  if (engine_ && (!engineMediaRoot_ || *engineMediaRoot_ != root)) {
    kvl_engine_set_media_root(engine_, root.c_str());
    engineMediaRoot_ = root;
  }
}

OutputRendererCore::AudioStep OutputRendererCore::stepAudio() {
  std::optional<double> origin, timeMs;
  bool playing = false;
  {
    std::lock_guard<std::mutex> g(lock_);
    origin = s_.audioClockOriginMs;
    timeMs = s_.audioTimeMs;
    playing = s_.playing;
  }
  AudioStep step;
  // While playing, the clock runs by itself between two states.
  if (origin && playing)
    step.timeMs = wallClockMs_() - *origin;
  else
    step.timeMs = timeMs ? *timeMs : -1.0;  // negative: the engine follows the frame time
  kvl_engine_set_audio_time(engine_, step.timeMs);

  double now = monotonicSeconds_();
  if (lastAudioStep_ != 0) {
    step.stepMs = (now - lastAudioStep_) * 1000.0;
    if (step.stepMs > 100.0) step.stepMs = 100.0;
  }
  lastAudioStep_ = now;
  kvl_engine_step_audio(engine_, step.stepMs);
  return step;
}
