// Live audio capture against a private sound server: the channel's answers,
// channel plans, tempo through the source table, device loss and restarts,
// the capture thread's allocations, the CLI, and channel calls racing the
// capture threads (the CaptureConcurrency suite runs under ThreadSanitizer).
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>

#include "audio_input.h"
#include "audio_input_plugin.h"
#include "capture_tap.h"
#include "in_process_messenger.h"
#include "kavlen/kvl_audio.h"
#include "log.h"
#include "media_samples.h"
#include "pulse_server.h"

// Counts malloc calls on the capture threads while asked to. Sanitizer
// runtimes own malloc: no hook there.
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer)
#define KAVLEN_NO_MALLOC_HOOK 1
#else
std::atomic<bool> g_watchCapture{false};
std::atomic<long> g_captureAllocs{0};
thread_local bool t_onTestThread = false;
static void countIfCapture() {
  if (!g_watchCapture.load(std::memory_order_relaxed)) return;
  char name[16] = {};
  prctl(PR_GET_NAME, name);
  if (!strcmp(name, "kavlen-capture") || t_onTestThread) g_captureAllocs++;
}
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) { return countIfCapture(), __libc_malloc(n); }
void* calloc(size_t n, size_t size) { return countIfCapture(), __libc_calloc(n, size); }
void* realloc(void* p, size_t n) { return countIfCapture(), __libc_realloc(p, n); }
}
#endif

namespace {

using kavlen::capture::AudioInput;
using kavlen::capture::AudioInputPlugin;
using kavlen::capture::CaptureTap;
using kavlen::host::InProcessMessenger;
using kavlen::host::MainLoop;
using kavlen::host::MethodResult;
using kavlen::host::Value;
using namespace std::chrono_literals;

constexpr int kRate = 48000;
constexpr double kPi = 3.14159265358979323846;

// The analyser's level for a steady sine of amplitude `a` quieter than its
// peak follower's floor (-26 dB): ((L + 62) / 36)^2 with L its mean square in dB.
double quietSineLevel(double a) {
  const double q = std::clamp((10 * std::log10(a * a / 2) + 62) / 36, 0.0, 1.0);
  return q * q;
}

std::vector<float> stereoSines(double left, double right, double freq, double seconds) {
  std::vector<float> s(static_cast<size_t>(seconds * kRate) * 2);
  for (size_t i = 0; i < s.size() / 2; i++) {
    const double v = std::sin(2 * kPi * freq * static_cast<double>(i) / kRate);
    s[2 * i] = static_cast<float>(left * v);
    s[2 * i + 1] = static_cast<float>(right * v);
  }
  return s;
}

kvl_audio_state readSource(const std::string& id) {
  kvl_audio_state st;
  kvl_audio_source_read(id.c_str(), &st);
  return st;
}

// Waits until a capture of each sink sees data: the sinks then run in short
// blocks, and every test can expect a live source within a few blocks.
void settle() {
  kavlen::capture::setLogSink([](const std::string&) {});
  {
    MainLoop loop;
    AudioInput probe;
    probe.setSources({{"settle.tone", "tone.monitor", {}}, {"settle.st", "st.monitor", {}}, {"settle.drums", "drums.monitor", {}}},
                     loop, [](AudioInput::Results) {});
    loop.runUntil(
        [] {
          for (const char* id : {"settle.tone", "settle.st", "settle.drums"})
            if (!readSource(id).live) return false;
          return true;
        },
        5s);
  }
  kavlen::capture::setLogSink({});
}

// One daemon for the whole executable: a tone on the default device
// ("tone.monitor"), a stereo sink for channel plans and one for drum loops.
// Signals are played with a short latency so the sinks run in short blocks
// from the start (a null sink only shortens its blocks at its next wake-up).
pulsetest::PulseServer& server() {
  static pulsetest::PulseServer* s = [] {
    auto* p = new pulsetest::PulseServer({
        "load-module module-null-sink sink_name=tone rate=48000 channels=1 format=float32le",
        "load-module module-null-sink sink_name=st rate=48000 channels=2 format=float32le",
        "load-module module-null-sink sink_name=drums rate=48000 channels=2 format=float32le",
        "set-default-source tone.monitor",
    });
    if (p->ok()) {
      p->use();
      const std::string tone = p->dir() + "/tone.wav";
      std::vector<float> t(static_cast<size_t>(90 * kRate));
      for (size_t i = 0; i < t.size(); i++) t[i] = static_cast<float>(0.3 * std::sin(2 * kPi * 440.0 * i / kRate));
      pulsetest::writeWav(tone, t, 1, kRate);
      p->play(tone, "tone");
      // Endless silence keeps the other sinks in short blocks too.
      for (const char* sink : {"st", "drums"})
        p->play("/dev/zero", sink, {"--raw", "--format=float32le", "--rate=48000", "--channels=2"});
      settle();
    }
    return p;
  }();
  return *s;
}

// The daemon's end is the process's: stop it then, by its pid.
struct ServerReaper {
  ~ServerReaper() { delete &server(); }
};

// Log lines of the capture, kept for the test.
class Logs {
 public:
  Logs() {
    kavlen::capture::setLogSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~Logs() { kavlen::capture::setLogSink({}); }
  int count(const std::string& text) const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(),
                                          [&](const std::string& l) { return l.find(text) != std::string::npos; }));
  }
  std::string all() const {
    std::lock_guard lock(mutex_);
    std::string out;
    for (const std::string& l : lines_) out += l + "\n";
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class CaptureTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static ServerReaper reaper;
    server();
  }
  void SetUp() override {
    ASSERT_TRUE(server().ok()) << server().error();
    kvl_audio_set_gain(1.0f);
  }

  AudioInput::Results set(std::vector<AudioInput::Source> sources) {
    std::optional<AudioInput::Results> out;
    input.setSources(std::move(sources), loop, [&](AudioInput::Results r) { out = std::move(r); });
    EXPECT_TRUE(loop.runUntil([&] { return out.has_value(); }, 10s));
    return out.value_or(AudioInput::Results{});
  }
  bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    return loop.runUntil(done, timeout);
  }
  bool waitLive(std::initializer_list<std::string> ids, std::chrono::milliseconds timeout = 3000ms) {
    return waitFor([&] { return std::all_of(ids.begin(), ids.end(), [](auto& id) { return readSource(id).live; }); },
                   timeout);
  }

  Logs logs;
  MainLoop loop;
  AudioInput input;  // after the loop: its completions post there
};

TEST(CaptureTap, MixesTheMeanOfPlannedChannelsWithoutAllocating) {
  EXPECT_EQ(CaptureTap::planChannels({7}, 2), (std::vector<int>{0, 1}));
  EXPECT_EQ(CaptureTap::planChannels({0, 7}, 2), (std::vector<int>{0}));
  EXPECT_EQ(CaptureTap::planChannels({-1, 2, 1}, 3), (std::vector<int>{2, 1}));
  EXPECT_EQ(CaptureTap::planChannels({}, 3), (std::vector<int>{0, 1, 2}));

  // Equal quiet sines on both channels: the mean reads like one channel, a
  // sum would read 6 dB louder. 10000 frames at once go in pieces.
  const std::vector<std::string> ids = {"tap.left", "tap.both", "tap.clip"};
  for (const std::string& id : ids) kvl_audio_source_start(id.c_str(), kRate);
  CaptureTap tap({{"tap.left", {0}}, {"tap.both", {0, 1}}, {"tap.clip", {0, 9}}}, 2);
  const std::vector<float> frames = stereoSines(0.02, 0.02, 1000, 10000.0 / kRate);
#ifndef KAVLEN_NO_MALLOC_HOOK
  t_onTestThread = true;
  g_captureAllocs = 0;
  g_watchCapture = true;
#endif
  CaptureTap::tap(&tap, frames.data(), frames.size() / 2);
#ifndef KAVLEN_NO_MALLOC_HOOK
  g_watchCapture = false;
  t_onTestThread = false;
  EXPECT_EQ(g_captureAllocs.load(), 0);
#endif
  for (const std::string& id : ids) {
    EXPECT_NEAR(readSource(id).level, quietSineLevel(0.02), 0.02) << id;
    kvl_audio_source_stop(id.c_str());
  }
}

TEST_F(CaptureTest, ChannelAnswersEachSourceAndAnEmptyListStopsAll) {
  InProcessMessenger m(loop);
  AudioInputPlugin::registerWith(m, loop, input);

  auto devices = m.callAndWait("app.kavlen/audio", "devices");
  ASSERT_TRUE(devices && devices->kind == MethodResult::Kind::Success);
  const Value* list = &devices->value;
  ASSERT_TRUE(list->isList());
  EXPECT_EQ(list->asList()->size(), 3u);
  EXPECT_EQ(list->asList()->at(1), Value::map({{"id", "st.monitor"}, {"name", "Monitor of Null Output"}, {"channels", 2}}));

  // The default device named and unnamed (and a device of another type,
  // which counts as none) share one capture; an unknown device fails alone.
  Value args(kavlen::host::ValueList{
      Value::map({{"id", "ch.def"}}),
      Value::map({{"id", "ch.named"}, {"device", "tone.monitor"}, {"channels", kavlen::host::ValueList{7}}}),
      Value::map({{"id", "ch.bad"}, {"device", "nope"}}),
      Value::map({{"id", "ch.odd"}, {"device", 5}}),
  });
  auto r = m.callAndWait("app.kavlen/audio", "setSources", args);
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(*r, MethodResult::success(Value(kavlen::host::ValueMap{{"ch.bad", "unavailable"},
                                                                    {"ch.def", "ok"},
                                                                    {"ch.named", "ok"},
                                                                    {"ch.odd", "ok"}})));
  EXPECT_EQ(logs.count("[kavlen] entrada de áudio (nope): aparelho não encontrado: nope"), 1) << logs.all();
  EXPECT_EQ(logs.count("[kavlen] entrada de áudio tone.monitor: 48000 Hz, 1 canais, fontes ch.def=[0] ch.named=[0] "
                       "ch.odd=[0]"),
            1)
      << logs.all();
  EXPECT_TRUE(waitLive({"ch.def", "ch.named", "ch.odd"}));
  EXPECT_FALSE(readSource("ch.bad").live);

  // The gain as the analyser hears it: a quiet sine pushed straight in.
  auto levelAfterGain = [&](const Value& gain) {
    EXPECT_EQ(m.callAndWait("app.kavlen/audio", "setGain", gain), MethodResult::success());
    kvl_audio_source_start("gain.probe", kRate);
    const std::vector<float> tone = stereoSines(0.02, 0.02, 1000, 4096.0 / kRate);
    std::vector<float> mono(tone.size() / 2);
    for (size_t i = 0; i < mono.size(); i++) mono[i] = tone[2 * i];
    kvl_audio_source_push("gain.probe", mono.data(), static_cast<int32_t>(mono.size()));
    const float level = readSource("gain.probe").level;
    kvl_audio_source_stop("gain.probe");
    return level;
  };
  EXPECT_NEAR(levelAfterGain(0.5), quietSineLevel(0.01), 0.02);
  EXPECT_NEAR(levelAfterGain(Value::map({{"gain", 0.5}})), quietSineLevel(0.02), 0.02);  // not a number: 1
  EXPECT_NEAR(levelAfterGain(2), quietSineLevel(0.04), 0.02);
  EXPECT_NEAR(levelAfterGain("0.5"), quietSineLevel(0.02), 0.02);
  EXPECT_EQ(m.callAndWait("app.kavlen/audio", "start"), MethodResult::notImplemented());

  // A list holding something other than maps counts as an empty list.
  r = m.callAndWait("app.kavlen/audio", "setSources", Value(kavlen::host::ValueList{Value::map({{"id", "x"}}), 3}));
  EXPECT_EQ(*r, MethodResult::success(Value(kavlen::host::ValueMap{})));
  EXPECT_FALSE(input.isRunning());
  EXPECT_FALSE(readSource("ch.def").live);
}

TEST_F(CaptureTest, SourcesOnOneDeviceReadTheirOwnChannels) {
  const std::string wav = server().dir() + "/lr.wav";
  ASSERT_TRUE(pulsetest::writeWav(wav, stereoSines(0.02, 0.002, 1000, 8), 2, kRate));
  const pid_t player = server().play(wav, "st");
  const auto r = set({{"left", "st.monitor", {0}},
                      {"right", "st.monitor", {1}},
                      {"mean", "st.monitor", {0, 1}},
                      {"clip", "st.monitor", {0, 7}}});
  EXPECT_EQ(r, (AudioInput::Results{{"clip", "ok"}, {"left", "ok"}, {"mean", "ok"}, {"right", "ok"}}));
  ASSERT_TRUE(waitLive({"left", "right", "mean", "clip"}));
  // Let the window fill with the tone, then compare with the analyser's law.
  waitFor([] { return false; }, 200ms);
  EXPECT_NEAR(readSource("left").level, quietSineLevel(0.02), 0.03);
  EXPECT_NEAR(readSource("right").level, quietSineLevel(0.002), 0.03);
  EXPECT_NEAR(readSource("mean").level, quietSineLevel(0.011), 0.03);
  EXPECT_NEAR(readSource("clip").level, quietSineLevel(0.02), 0.03);
  EXPECT_GT(readSource("left").level, readSource("right").level + 0.3);
  pulsetest::PulseServer::stopChild(player);
}

TEST_F(CaptureTest, DrumLoopTempoAfterTenSeconds) {
  const std::string wav = server().dir() + "/drums.wav";
  ASSERT_TRUE(pulsetest::writeWav(wav, pulsetest::drumLoop(125, kRate, 12), 1, kRate));
  const pid_t player = server().play(wav, "drums");
  ASSERT_EQ(set({{"drums", "drums.monitor", {}}}), (AudioInput::Results{{"drums", "ok"}}));
  waitFor([] { return false; }, 10s);
  const kvl_audio_state st = readSource("drums");
  EXPECT_TRUE(st.live);
  EXPECT_NEAR(st.bpm, 125.0, 125.0 * 0.02);
  EXPECT_GE(st.beat_count, 12u);
  pulsetest::PulseServer::stopChild(player);
}

TEST_F(CaptureTest, UnknownDeviceDroppedSourceAndEmptyList) {
  const std::string wav = server().dir() + "/st.wav";
  ASSERT_TRUE(pulsetest::writeWav(wav, stereoSines(0.3, 0.3, 200, 6), 2, kRate));
  const pid_t player = server().play(wav, "st");
  EXPECT_EQ(set({{"a", std::nullopt, {}}, {"b", "st.monitor", {}}, {"x", "missing", {}}}),
            (AudioInput::Results{{"a", "ok"}, {"b", "ok"}, {"x", "unavailable"}}));
  EXPECT_TRUE(waitLive({"a", "b"}));
  EXPECT_FALSE(readSource("x").live);

  // Dropped from the list: stopped before the answer comes.
  EXPECT_EQ(set({{"a", std::nullopt, {}}}), (AudioInput::Results{{"a", "ok"}}));
  EXPECT_FALSE(readSource("b").live);
  EXPECT_TRUE(waitLive({"a"}));

  EXPECT_EQ(set({}), AudioInput::Results{});
  EXPECT_FALSE(input.isRunning());
  EXPECT_FALSE(readSource("a").live);
  pulsetest::PulseServer::stopChild(player);
}

TEST_F(CaptureTest, LossRightAfterApplyIsLeftToTheRestartCheck) {
  const int module = server().load("module-null-sink sink_name=brief rate=48000 channels=2");
  ASSERT_GE(module, 0);
  EXPECT_EQ(set({{"g", "brief.monitor", {}}, {"s", std::nullopt, {}}}),
            (AudioInput::Results{{"g", "ok"}, {"s", "ok"}}));
  ASSERT_TRUE(server().unload(module));
  // Under a second after the apply: no rebuild; the check at 0.4 s tries
  // the stopped capture once and says so.
  waitFor([&] { return logs.count("brief.monitor: não religou: ") > 0; }, 2000ms);
  waitFor([] { return false; }, 600ms);
  EXPECT_EQ(logs.count("[kavlen] entrada de áudio brief.monitor: não religou: "), 1) << logs.all();
  EXPECT_EQ(logs.count("configuração mudou"), 0) << logs.all();
  EXPECT_TRUE(readSource("s").live);
}

TEST_F(CaptureTest, SinkUnloadedDuringCaptureRestartsOnce) {
  const int module = server().load("module-null-sink sink_name=gone rate=48000 channels=2");
  ASSERT_GE(module, 0);
  EXPECT_EQ(set({{"g", "gone.monitor", {}}, {"s", std::nullopt, {}}}),
            (AudioInput::Results{{"g", "ok"}, {"s", "ok"}}));
  waitFor([] { return false; }, 1100ms);
  ASSERT_TRUE(server().unload(module));
  // The source and our stream on it go in one burst: one rebuild 0.5 s later.
  waitFor([&] { return logs.count("aparelho não encontrado: gone.monitor") > 0; }, 2000ms);
  waitFor([] { return false; }, 1000ms);
  EXPECT_EQ(logs.count("[kavlen] entrada de áudio: configuração mudou, reiniciando"), 1) << logs.all();
  EXPECT_EQ(logs.count("[kavlen] entrada de áudio (gone.monitor): aparelho não encontrado: gone.monitor"), 1)
      << logs.all();
  EXPECT_TRUE(input.isRunning());
  EXPECT_TRUE(waitLive({"s"}));
  EXPECT_FALSE(readSource("g").live);
}

#ifndef KAVLEN_NO_MALLOC_HOOK
TEST_F(CaptureTest, CaptureThreadsDoNotAllocateWhileRunning) {
  ASSERT_EQ(set({{"m1", std::nullopt, {}}, {"m2", std::nullopt, {0}}}),
            (AudioInput::Results{{"m1", "ok"}, {"m2", "ok"}}));
  ASSERT_TRUE(waitLive({"m1", "m2"}));
  g_captureAllocs = 0;
  g_watchCapture = true;
  waitFor([] { return false; }, 500ms);
  g_watchCapture = false;
  EXPECT_EQ(g_captureAllocs.load(), 0);
  EXPECT_TRUE(readSource("m1").live);
}
#endif

TEST_F(CaptureTest, DevicesAndListenCommands) {
  const std::string env = server().env();
  auto devices = mediatest::kavlen("devices --json", env);
  EXPECT_EQ(devices.code, 0) << devices.err;
  EXPECT_NE(devices.out.find("{\"id\":\"tone.monitor\",\"name\":\"Monitor of Null Output\",\"channels\":1,"
                             "\"default\":true}"),
            std::string::npos)
      << devices.out;

  auto listen = mediatest::kavlen("listen --json --seconds 0.6 --channels 0", env);
  EXPECT_EQ(listen.code, 0) << listen.err;
  int lines = 0, live = 0;
  for (size_t at = 0, end; (end = listen.out.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = listen.out.substr(at, end - at);
    lines++;
    for (const char* key : {"\"t\":", "\"level\":", "\"bass\":", "\"mid\":", "\"high\":", "\"beat\":", "\"bpm\":"})
      EXPECT_NE(line.find(key), std::string::npos) << line;
    live += line.find("\"live\":true") != std::string::npos;
  }
  EXPECT_EQ(lines, 6) << listen.out;
  EXPECT_GE(live, 1) << listen.out;

  auto away = mediatest::kavlen("devices", "PULSE_SERVER=unix:/nonexistent/socket ");
  EXPECT_EQ(away.code, 1);
  EXPECT_EQ(away.err, "kavlen: devices: servidor de som inacessível: Connection refused\n");
  auto missing = mediatest::kavlen("listen --device nope --seconds 1", env);
  EXPECT_EQ(missing.code, 1);
  EXPECT_EQ(missing.err, "kavlen: listen: cannot capture: entrada de áudio (nope): aparelho não encontrado: nope\n");
  EXPECT_EQ(mediatest::kavlen("listen --channels 0,x", env).code, 1);
}

using CaptureConcurrency = CaptureTest;

// Channel calls, gain changes, readers and server events all at once, with
// the capture threads pushing throughout.
TEST_F(CaptureConcurrency, ChannelCallsRaceCaptureThreadsAndReaders) {
  InProcessMessenger m(loop);
  AudioInputPlugin::registerWith(m, loop, input);
  std::atomic<bool> stop{false};
  std::atomic<int> liveReads{0};
  std::thread reader([&] {
    while (!stop) {
      for (const char* id : {"c1", "c2", "c3"}) liveReads += readSource(id).live ? 1 : 0;
      std::this_thread::sleep_for(1ms);
    }
  });
  std::thread gain([&] {
    for (int i = 0; !stop; i++) {
      kvl_audio_set_gain(i % 2 ? 1.0f : 0.9f);
      std::this_thread::sleep_for(3ms);
    }
  });
  const Value plans[] = {
      Value(kavlen::host::ValueList{Value::map({{"id", "c1"}}), Value::map({{"id", "c2"}, {"device", "st.monitor"}})}),
      Value(kavlen::host::ValueList{Value::map({{"id", "c2"}}), Value::map({{"id", "c3"}, {"device", "drums.monitor"}}),
                                    Value::map({{"id", "c1"}, {"device", "st.monitor"}})}),
  };
  int module = -1;
  for (int round = 0; round < 8; round++) {
    auto r = m.callAndWait("app.kavlen/audio", "setSources", plans[round % 2]);
    ASSERT_TRUE(r.has_value());
    for (const auto& [id, result] : *r->value.asMap()) EXPECT_EQ(result, Value("ok")) << *id.asString();
    if (round % 3 == 0) module = server().load("module-null-sink sink_name=churn");
    if (round % 3 == 1 && module >= 0) server().unload(module), module = -1;
    m.call("app.kavlen/audio", "devices", {}, [](MethodResult) {});
    waitFor([] { return false; }, 120ms);
  }
  if (module >= 0) server().unload(module);
  auto r = m.callAndWait("app.kavlen/audio", "setSources", Value(kavlen::host::ValueList{}));
  EXPECT_EQ(*r, MethodResult::success(Value(kavlen::host::ValueMap{})));
  stop = true;
  reader.join();
  gain.join();
  kvl_audio_set_gain(1.0f);
  EXPECT_GT(liveReads.load(), 0);
  EXPECT_FALSE(input.isRunning());
  for (const char* id : {"c1", "c2", "c3"}) EXPECT_FALSE(readSource(id).live) << id;
}

}  // namespace
