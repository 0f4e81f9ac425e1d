#include "audio_input.h"

#include <algorithm>
#include <cstdio>

#include "capture_tap.h"
#include "kavlen/kvl_audio.h"
#include "log.h"

namespace kavlen::capture {
namespace {

using Clock = std::chrono::steady_clock;

// A configuration change this soon after a rebuild is the rebuild's own echo.
constexpr auto kQuietAfterApply = std::chrono::seconds(1);
// Changes come in bursts (a device's source, its stream, the default): one
// rebuild after the burst.
constexpr auto kRestartDelay = std::chrono::milliseconds(500);
// A device that was busy or still settling when we opened it often works a
// moment later.
constexpr auto kRestartCheckDelay = std::chrono::milliseconds(400);

std::string deviceLabel(const std::optional<std::string>& device) { return device ? *device : "padrão"; }

std::string describePlan(const CaptureTap& tap) {
  std::string out;
  for (const CaptureTap::Entry& e : tap.plan()) {
    if (!out.empty()) out += ' ';
    out += (e.id.empty() ? std::string("padrão") : e.id) + "=[";
    for (size_t i = 0; i < e.channels.size(); i++) out += (i ? ", " : "") + std::to_string(e.channels[i]);
    out += ']';
  }
  return out;
}

}  // namespace

AudioInput::AudioInput() : queue_(std::make_unique<host::SerialQueue>("app.kavlen.audio-input")) {}

AudioInput::~AudioInput() {
  queue_->sync([this] { stopAllNow(); });
  queue_.reset();
}

AudioInput& AudioInput::shared() {
  static AudioInput* instance = new AudioInput;  // never destroyed, like the process's queue
  return *instance;
}

bool AudioInput::listDevices(std::vector<Device>& out, std::optional<std::string>* defaultId, std::string& error) {
  out.clear();
  std::vector<pulse::SourceInfo> sources;
  if (!pulse::querySources(&sources, defaultId, error)) return false;
  for (const pulse::SourceInfo& s : sources)
    if (s.channels > 0 && !s.name.empty()) out.push_back({s.name, s.description, s.channels});
  return true;
}

std::vector<AudioInput::Device> AudioInput::devices() {
  std::vector<Device> out;
  std::string error;
  listDevices(out, nullptr, error);
  return out;
}

void AudioInput::setSources(std::vector<Source> sources, host::MainLoop& main, Completion completion) {
  // Linux asks no permission for capture: every request is authorized. A
  // server that cannot be reached makes each device fail to open instead.
  queue_->async([this, sources = std::move(sources), &main, completion = std::move(completion)] {
    Results results;
    if (sources.empty())
      stopAllNow();
    else
      results = apply(sources);
    main.post([completion, results = std::move(results)] {
      if (completion) completion(results);
    });
  });
}

void AudioInput::stopAll() {
  queue_->async([this] { stopAllNow(); });
}

void AudioInput::setGain(float gain) { kvl_audio_set_gain(gain); }

bool AudioInput::isRunning() {
  bool running = false;
  queue_->sync([&] {
    for (const auto& c : captures_) running = running || c->engine->isRunning();
  });
  return running;
}

void AudioInput::stopCaptures() {
  // The engine goes first: once it is closed no tap runs, and the tap can go.
  for (auto& c : captures_) c->engine.reset();
  captures_.clear();
}

void AudioInput::stopAllNow() {
  watcher_.reset();
  stopCaptures();
  for (const Source& s : wanted_) kvl_audio_source_stop(s.id.c_str());
  wanted_.clear();
}

AudioInput::Results AudioInput::apply(const std::vector<Source>& sources) {
  stopCaptures();
  for (const Source& old : wanted_) {
    const bool stays = std::any_of(sources.begin(), sources.end(), [&](const Source& s) { return s.id == old.id; });
    if (!stays) kvl_audio_source_stop(old.id.c_str());
  }
  wanted_ = sources;
  Results results;

  std::optional<std::string> defaultId;
  std::string why;
  pulse::querySources(nullptr, &defaultId, why);  // absent when the server is away; opening says why

  // One capture per device; a source naming the default device and one
  // naming none share it.
  std::vector<std::pair<std::optional<std::string>, std::vector<Source>>> groups;
  for (const Source& s : sources) {
    const std::optional<std::string> key = s.device ? s.device : defaultId;
    auto it = std::find_if(groups.begin(), groups.end(), [&](const auto& g) { return g.first == key; });
    if (it == groups.end()) {
      groups.push_back({key, {}});
      it = groups.end() - 1;
    }
    it->second.push_back(s);
  }
  for (auto& [device, members] : groups) {
    auto capture = std::make_unique<Capture>();
    capture->device = device;
    capture->sources = members;
    CaptureError error;
    const bool ok = start(*capture, defaultId, error);
    if (!ok) logLine("entrada de áudio (" + deviceLabel(device) + "): " + error.description);
    for (const Source& s : members) results[s.id] = ok ? "ok" : "unavailable";
    if (ok) captures_.push_back(std::move(capture));
  }
  lastApply_ = Clock::now();
  if (!captures_.empty()) watch();
  queue_->asyncAfter(kRestartCheckDelay, [this] { restartStopped(); });
  return results;
}

bool AudioInput::start(Capture& capture, const std::optional<std::string>& defaultId, CaptureError& error) {
  const bool isDefault = !capture.device || capture.device == defaultId;
  capture.engine = std::make_unique<pulse::RecordEngine>();
  if (!capture.engine->open(isDefault ? defaultId : capture.device, isDefault, error)) return false;
  const int channels = capture.engine->channels(), rate = capture.engine->rate();
  // A fresh analyser per source: a restart also resets peaks and tempo.
  std::vector<CaptureTap::Entry> plan;
  for (const Source& s : capture.sources) {
    kvl_audio_source_start(s.id.c_str(), rate);
    plan.push_back({s.id, s.channels});
  }
  capture.tap = std::make_unique<CaptureTap>(std::move(plan), channels);
  if (!capture.engine->start(&CaptureTap::tap, capture.tap.get(), error)) return false;
  char head[64];
  snprintf(head, sizeof head, ": %d Hz, %d canais, fontes ", rate, channels);
  logLine("entrada de áudio " + deviceLabel(capture.device) + head + describePlan(*capture.tap));
  return true;
}

void AudioInput::restartStopped() {
  for (auto& c : captures_) {
    if (c->engine->isRunning()) continue;
    CaptureError error;
    if (c->engine->start(&CaptureTap::tap, c->tap.get(), error))
      logLine("entrada de áudio " + deviceLabel(c->device) + ": religada depois da troca de aparelho");
    else
      logLine("entrada de áudio " + deviceLabel(c->device) + ": não religou: " + error.description);
  }
}

void AudioInput::watch() {
  if (watcher_ && watcher_->alive()) return;
  watcher_ = std::make_unique<pulse::Watcher>([this](const pulse::ServerEvent& e) {
    queue_->async([this, e] { configurationChanged(e); });
  });
  std::string error;
  if (!watcher_->start(error)) {
    watcher_.reset();
    logLine("entrada de áudio: sem avisos de troca de aparelho: " + error);
  }
}

bool AudioInput::concernsCaptures(const pulse::ServerEvent& e) const {
  using Kind = pulse::ServerEvent::Kind;
  return std::any_of(captures_.begin(), captures_.end(), [&](const auto& c) {
    switch (e.kind) {
      case Kind::SourceRemoved: return c->engine->sourceIndex() == e.index;
      case Kind::StreamRemoved: return c->engine->streamIndex() == e.index;
      case Kind::DefaultChanged:
      case Kind::ConnectionLost: return true;
    }
    return false;
  });
}

void AudioInput::configurationChanged(const pulse::ServerEvent& event) {
  if (!concernsCaptures(event)) return;
  if (Clock::now() - lastApply_ < kQuietAfterApply) return;
  if (restartPending_) return;
  restartPending_ = true;
  queue_->asyncAfter(kRestartDelay, [this] {
    restartPending_ = false;
    logLine("entrada de áudio: configuração mudou, reiniciando");
    const std::vector<Source> again = wanted_;
    apply(again);
  });
}

}  // namespace kavlen::capture
