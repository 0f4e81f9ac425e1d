// The live audio path: one push of 512 samples to a named source (lock,
// gain, one full analysis step), the analysis step alone on a private
// analyser, and the render side's read of a source.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "kavlen/kavlen_engine.h"

namespace {

// Ten seconds of a 120 bpm loop: kick, off-beat noise hat and a pad, so the
// onset and tempo code runs as it does on music.
std::vector<float> music(int sr) {
  const double pi = 3.14159265358979323846;
  std::vector<float> s((size_t)sr * 10);
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> noise(-1, 1);
  for (size_t i = 0; i < s.size(); i++) {
    const double t = (double)i / sr;
    const double in_beat = std::fmod(t, 0.5);
    double v = 0.03 * std::sin(2 * pi * 220 * t) + 0.03 * std::sin(2 * pi * 330 * t);
    v += 0.8 * std::exp(-in_beat / 0.12) * std::sin(2 * pi * (50 + 90 * std::exp(-in_beat / 0.03)) * in_beat);
    if (in_beat >= 0.25) v += 0.2 * std::exp(-(in_beat - 0.25) / 0.02) * noise(rng);
    s[i] = (float)v;
  }
  return s;
}

void BM_LivePush512(benchmark::State& state) {
  const int sr = 48000;
  const std::vector<float> s = music(sr);
  kvl_audio_source_start("bench", sr);
  size_t at = 0;
  for (auto _ : state) {
    kvl_audio_source_push("bench", s.data() + at, 512);
    at += 512;
    if (at + 512 > s.size()) at = 0;
  }
  kvl_audio_state out;
  kvl_audio_source_read("bench", &out);
  benchmark::DoNotOptimize(out);
  state.counters["beats"] = out.beat_count;
  kvl_audio_source_stop("bench");
}
BENCHMARK(BM_LivePush512);

void BM_AnalysisStep(benchmark::State& state) {
  const int sr = 44100;
  const std::vector<float> s = music(sr);
  kvl_audio* a = kvl_audio_create(sr);
  size_t at = 0;
  for (auto _ : state) {
    kvl_audio_feed(a, s.data() + at, 512);
    at += 512;
    if (at + 512 > s.size()) at = 0;
  }
  kvl_audio_state out;
  kvl_audio_get(a, &out);
  benchmark::DoNotOptimize(out);
  // Audio seconds analysed per second of work.
  state.counters["realtime_x"] = benchmark::Counter((double)state.iterations() * 512 / sr, benchmark::Counter::kIsRate);
  kvl_audio_destroy(a);
}
BENCHMARK(BM_AnalysisStep);

void BM_SourceRead(benchmark::State& state) {
  const std::vector<float> s = music(48000);
  kvl_audio_source_start("bench-read", 48000);
  kvl_audio_source_push("bench-read", s.data(), 48000);
  kvl_audio_state out;
  for (auto _ : state) {
    kvl_audio_source_read("bench-read", &out);
    benchmark::DoNotOptimize(out);
  }
  kvl_audio_source_stop("bench-read");
}
BENCHMARK(BM_SourceRead);

}  // namespace
