// Signal files and file envelopes.
//
//   BM_AnalyzeFile/<seconds>: kvl_signals_analyze_file over a raw sample file
//     of a drum loop at 44.1 kHz, on one core, file in the page cache. The
//     counter "x_realtime" is seconds of audio per second of wall time
//     (target: at least 1000, i.e. an hour in under 3.6 s).
//   BM_FileEnvelopes16: the file envelopes of 16 modulations at one moment,
//     each replaying up to 800 steps of 10 ms over a track of two clips
//     (target: at most 1 ms per iteration).
//   BM_SignalsAt: one lookup in a table.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

constexpr int kRate = 44100;

// A drum loop at 128 beats a minute: a kick on every beat, an off-beat
// hi-hat and a quiet pad, so every path of the analyser is busy.
void write_loop(const std::string& path, int seconds) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) abort();
  const double beat = 60.0 / 128.0;
  std::vector<float> block(kRate);
  uint32_t noise = 1;
  for (int sec = 0; sec < seconds; sec++) {
    for (int i = 0; i < kRate; i++) {
      double t = sec + static_cast<double>(i) / kRate;
      double in_beat = std::fmod(t, beat);
      double kick = 0.8 * std::sin(2 * M_PI * 55.0 * in_beat) * std::exp(-in_beat * 18.0);
      double off = std::fmod(t + beat / 2, beat);
      noise = noise * 1664525u + 1013904223u;
      double white = static_cast<double>(noise >> 8) / 8388608.0 - 1.0;
      double hat = 0.25 * white * std::exp(-off * 60.0);
      double pad = 0.05 * std::sin(2 * M_PI * 220.0 * t) + 0.03 * std::sin(2 * M_PI * 330.0 * t);
      block[i] = static_cast<float>(kick + hat + pad);
    }
    if (fwrite(block.data(), sizeof(float), block.size(), f) != block.size()) abort();
  }
  fclose(f);
}

std::string temp_base() {
  const char* d = getenv("TMPDIR");
  return std::string(d && d[0] ? d : "/tmp") + "/kavlen-bench-signals-" + std::to_string(getpid());
}

void BM_AnalyzeFile(benchmark::State& state) {
  const int seconds = static_cast<int>(state.range(0));
  const std::string raw = temp_base() + ".f32", out = temp_base() + ".signals";
  write_loop(raw, seconds);
  int32_t frames = 0;
  for (auto _ : state) {
    frames = kvl_signals_analyze_file(raw.c_str(), kRate, out.c_str());
    if (frames < 0) state.SkipWithError("analysis failed");
  }
  kvl_signals* s = kvl_signals_load(out.c_str());
  state.counters["tempo"] = s ? s->tempo : 0;
  kvl_signals_free(s);
  state.counters["frames"] = frames;
  state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsIterationInvariantRate);
  remove(raw.c_str());
  remove(out.c_str());
}
BENCHMARK(BM_AnalyzeFile)->Arg(300)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AnalyzeFile)->Arg(3600)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// Ten minutes of table at the writer's frame rate, changing every frame.
std::vector<uint8_t> busy_table() {
  const uint32_t n = static_cast<uint32_t>(600 * 86.1328125);
  std::vector<uint8_t> b = {'K', 'V', 'L', 'S', 1, 0, 0, 0};
  auto put = [&](const void* p) {
    const size_t at = b.size();
    b.resize(at + 4);
    memcpy(b.data() + at, p, 4);
  };
  float rate = 86.1328125f, zero = 0.0f, tempo = 128.0f;
  put(&rate);
  put(&zero);
  put(&tempo);
  put(&n);
  for (uint32_t i = 0; i < n; i++)
    for (int k = 0; k < 5; k++) b.push_back(static_cast<uint8_t>((i * 37 + k * 53) & 0xff));
  return b;
}

void BM_FileEnvelopes16(benchmark::State& state) {
  // 16 modulations, all with the longest warm-up (release 1600 ms gives the
  // full 8000 ms, 800 steps), over two overlapping faded clips.
  std::string mods;
  for (int i = 0; i < 16; i++) {
    static const char* sources[] = {"level", "bass", "mid", "high", "beat"};
    char m[256];
    snprintf(m, sizeof m,
             R"(%s{"id":"m%d","source":"%s","prop":"contentRotation","mode":"add","track":"song",)"
             R"("attackMs":%d,"releaseMs":1600})",
             i ? "," : "", i, sources[i % 5], 5 + i);
    mods += m;
  }
  std::string scene = R"({"audioTracks":[{"id":"song","clips":[
      {"startMs":0,"lengthMs":300000,"fadeInMs":500,"fadeOutMs":500,"path":"a.wav"},
      {"startMs":60000,"lengthMs":240000,"trimStartMs":1000,"fadeInMs":2000,"path":"b.wav"}]}],
    "mappings":[{"id":"l","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},"modulations":[)" +
                      mods + "]}]}";
  kvl_engine* e = kvl_engine_create(scene.c_str(), 64, 36, nullptr);
  std::vector<uint8_t> table = busy_table();
  if (!e || kvl_engine_set_track_signals(e, "a.wav", table.data(), static_cast<int32_t>(table.size())) != 0 ||
      kvl_engine_set_track_signals(e, "b.wav", table.data(), static_cast<int32_t>(table.size())) != 0) {
    state.SkipWithError("setup failed");
    kvl_engine_destroy(e);
    return;
  }
  char ids[16][8];
  for (int i = 0; i < 16; i++) snprintf(ids[i], sizeof ids[i], "m%d", i);
  int64_t t_us = 90000000;  // inside both clips
  double sum = 0;
  for (auto _ : state) {
    for (int i = 0; i < 16; i++) sum += kvl_engine_envelope_at(e, ids[i], t_us);
    t_us += 16667;  // one frame on
  }
  benchmark::DoNotOptimize(sum);
  kvl_engine_destroy(e);
}
BENCHMARK(BM_FileEnvelopes16)->Unit(benchmark::kMicrosecond);

void BM_SignalsAt(benchmark::State& state) {
  std::vector<uint8_t> table = busy_table();
  kvl_signals* s = kvl_signals_parse(table.data(), static_cast<int32_t>(table.size()));
  float out[5];
  double t = 0;
  for (auto _ : state) {
    kvl_signals_at(s, out, t);
    benchmark::DoNotOptimize(out);
    t = t > 590000 ? 0 : t + 7.3;
  }
  kvl_signals_free(s);
}
BENCHMARK(BM_SignalsAt);

}  // namespace
