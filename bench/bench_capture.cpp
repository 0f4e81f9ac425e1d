// Capture latency, click in, level out: the time from a click entering the
// sound server to the moment kvl_audio_source_read shows it as level.
//
// A private daemon runs a null sink; a playback stream with a short buffer
// writes silence into it and, on cue, one click; the capture reads the sink's
// monitor into the source "click". Each iteration's time is one click's
// latency, from the call that hands the click to the server until a reader
// polling every 100 us sees level above 0. The figure includes the wait of
// the click behind the silence still queued in the playback buffer (reported
// as playback_queue_ms), the sink's and the record stream's blocks, and the
// analyser's block of 512 samples (10.7 ms at 48 kHz).
#include <benchmark/benchmark.h>
#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include "audio_input.h"
#include "kavlen/kvl_audio.h"
#include "log.h"
#include "main_loop.h"
#include "pulse_server.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 48000;
constexpr size_t kWriteFrames = 64;  // 1.3 ms per write

struct Writer {
  std::atomic<bool> stop{false};
  std::atomic<bool> armed{false};
  std::atomic<int64_t> clickAt{0};  // steady_clock ns of the last click's write
  std::atomic<double> queueMs{0};
  std::thread thread;

  bool start(std::string& error) {
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, kRate, 1};
    pa_buffer_attr attr;
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = 256 * sizeof(float);  // 5.3 ms queued at most
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(-1);
    int err = 0;
    pa_simple* s = pa_simple_new(nullptr, "kavlen-bench", PA_STREAM_PLAYBACK, "bench", "click", &spec, nullptr, &attr,
                                 &err);
    if (!s) {
      error = pa_strerror(err);
      return false;
    }
    thread = std::thread([this, s] {
      std::vector<float> silence(kWriteFrames, 0.0f), click(kWriteFrames);
      for (size_t i = 0; i < kWriteFrames; i++) click[i] = (i % 2 ? 0.8f : -0.8f);
      int err2 = 0;
      while (!stop) {
        if (armed.exchange(false)) {
          pa_usec_t queued = pa_simple_get_latency(s, &err2);
          queueMs = static_cast<double>(queued) / 1000.0;
          clickAt = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
          pa_simple_write(s, click.data(), click.size() * sizeof(float), &err2);
        } else {
          pa_simple_write(s, silence.data(), silence.size() * sizeof(float), &err2);
        }
      }
      pa_simple_free(s);
    });
    return true;
  }
  ~Writer() {
    stop = true;
    if (thread.joinable()) thread.join();
  }
};

void BM_ClickToLevel(benchmark::State& state) {
  pulsetest::PulseServer server({"load-module module-null-sink sink_name=bench rate=48000 channels=1 format=float32le"});
  if (!server.ok()) {
    state.SkipWithError(server.error().c_str());
    return;
  }
  server.use();
  kavlen::capture::setLogSink([](const std::string&) {});
  Writer writer;
  std::string error;
  if (!writer.start(error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  kavlen::host::MainLoop loop;
  kavlen::capture::AudioInput input;
  bool answered = false;
  kavlen::capture::AudioInput::Results results;
  input.setSources({{"click", "bench.monitor", {}}}, loop, [&](auto r) {
    results = std::move(r);
    answered = true;
  });
  loop.runUntil([&] { return answered; }, std::chrono::seconds(10));
  if (results["click"] != "ok") {
    state.SkipWithError("capture of bench.monitor failed");
    return;
  }
  auto read = [] {
    kvl_audio_state st;
    kvl_audio_source_read("click", &st);
    return st;
  };
  // The sink settles into short blocks at its first wake-up.
  for (auto until = Clock::now() + std::chrono::seconds(3); Clock::now() < until && !read().live;)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));

  std::vector<double> ms;
  double queueSum = 0;
  for (auto _ : state) {
    // Quiet first: the window has forgotten the last click.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    while (read().level > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int64_t before = writer.clickAt;
    writer.armed = true;
    while (writer.clickAt == before) std::this_thread::yield();
    const auto t0 = Clock::time_point(std::chrono::nanoseconds(writer.clickAt.load()));
    bool seen = false;
    while (Clock::now() - t0 < std::chrono::seconds(1)) {
      if (read().level > 0) {
        seen = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    const double latency = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!seen) {
      state.SkipWithError("a click never showed as level");
      break;
    }
    state.SetIterationTime(latency);
    ms.push_back(latency * 1000);
    queueSum += writer.queueMs;
  }
  if (ms.empty()) return;
  std::sort(ms.begin(), ms.end());
  state.counters["median_ms"] = ms[ms.size() / 2];
  state.counters["p90_ms"] = ms[ms.size() * 9 / 10];
  state.counters["min_ms"] = ms.front();
  state.counters["max_ms"] = ms.back();
  state.counters["playback_queue_ms"] = queueSum / static_cast<double>(ms.size());
  kavlen::capture::setLogSink({});
}
BENCHMARK(BM_ClickToLevel)->UseManualTime()->Iterations(60)->Unit(benchmark::kMillisecond);

}  // namespace
