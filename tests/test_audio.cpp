// The live analyser and the named audio sources: the transform against a
// direct DFT, follower, gate and silence, beats and tempo on synthetic drum
// loops and pulse trains with known truth, and the process-wide source table
// with its liveness, gain, mix-down, thread safety and allocation-free path.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kavlen/kavlen.h"

// Allocation counting: the binary interposes malloc for the whole process
// (the engine's shared library included) and counts calls made on a thread
// that asked for it. Sanitizer runtimes own malloc, so there the hook is left
// out and the test says so.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVL_AUDIO_TEST_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KVL_AUDIO_TEST_NO_MALLOC_HOOK 1
#endif
#endif

#ifndef KVL_AUDIO_TEST_NO_MALLOC_HOOK
namespace {
thread_local bool t_counting = false;
std::atomic<long> g_alloc_calls{0};
}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) {
  if (t_counting) g_alloc_calls++;
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
  if (t_counting) g_alloc_calls++;
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
  if (t_counting) g_alloc_calls++;
  return __libc_realloc(p, n);
}
}
#endif

namespace {

constexpr double kPi = 3.14159265358979323846;

// ---------------------------------------------------------------------------
// Signals with known truth

struct Loop {
  std::vector<float> samples;
  std::vector<double> kicks;  // onset times in seconds
};

// A pitch-swept kick on every beat, a noise hi-hat on every off-beat and a
// quiet three-note pad underneath.
Loop drum_loop(double bpm, int sr, double seconds, uint32_t seed = 7) {
  Loop loop;
  const size_t n = (size_t)(seconds * sr);
  loop.samples.assign(n, 0.0f);
  const double beat = 60.0 / bpm;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
  for (size_t i = 0; i < n; i++) {
    const double t = (double)i / sr;
    loop.samples[i] = (float)(0.03 * (std::sin(2 * kPi * 220.0 * t) + std::sin(2 * kPi * 277.18 * t) +
                                      std::sin(2 * kPi * 329.63 * t)));
  }
  const double kick_len = std::min(0.3, 0.9 * beat);
  for (double t0 = 0.037; t0 + kick_len < seconds; t0 += beat) {  // 37 ms: off the block grid
    loop.kicks.push_back(t0);
    const size_t i0 = (size_t)std::llround(t0 * sr);
    double phase = 0;
    for (size_t i = 0; i < (size_t)(kick_len * sr); i++) {
      const double t = (double)i / sr;
      phase += 2 * kPi * (50.0 + 90.0 * std::exp(-t / 0.03)) / sr;
      loop.samples[i0 + i] += (float)(0.8 * std::exp(-t / 0.12) * std::min(1.0, t / 0.002) * std::sin(phase));
    }
    // Differenced noise is mostly treble.
    const size_t h0 = (size_t)std::llround((t0 + beat / 2) * sr);
    float last = 0;
    for (size_t i = 0; i < (size_t)(0.08 * sr) && h0 + i < n; i++) {
      const float w = noise(rng);
      loop.samples[h0 + i] += (float)(0.25 * std::exp(-(double)i / sr / 0.02) * (w - last));
      last = w;
    }
  }
  return loop;
}

// Bass pulses (100 Hz, 80 ms, soft edges) every `period` seconds, or every
// `period` and `other` in turn, over a faint steady 1 kHz tone that keeps the
// gate open and adds nothing to the bass.
Loop pulse_train(double period, int sr, double seconds, double other = 0) {
  Loop loop;
  loop.samples.resize((size_t)(seconds * sr));
  for (size_t i = 0; i < loop.samples.size(); i++)
    loop.samples[i] = (float)(0.01 * std::sin(2 * kPi * 1000.0 * (double)i / sr));
  const double len = 0.08;
  for (double t0 = 0.2033; t0 + len < seconds; t0 += (other > 0 && loop.kicks.size() % 2 == 0) ? other : period) {
    loop.kicks.push_back(t0);
    const size_t i0 = (size_t)std::llround(t0 * sr);
    for (size_t i = 0; i < (size_t)(len * sr); i++) {
      const double t = (double)i / sr;
      const double edge = std::min(1.0, std::min(t, len - t) / 0.005);
      loop.samples[i0 + i] += (float)(0.8 * edge * std::sin(2 * kPi * 100.0 * t));
    }
  }
  return loop;
}

std::vector<float> sine(double freq, double amp, int sr, double seconds) {
  std::vector<float> s((size_t)(seconds * sr));
  for (size_t i = 0; i < s.size(); i++) s[i] = (float)(amp * std::sin(2 * kPi * freq * (double)i / sr));
  return s;
}

// Amplitude of a sine whose mean square is `db` dB.
double amp_db(double db) { return std::sqrt(2.0) * std::pow(10.0, db / 20); }

struct Analyser {
  kvl_audio* a;
  explicit Analyser(int32_t sr) : a(kvl_audio_create(sr)) {}
  ~Analyser() { kvl_audio_destroy(a); }
  Analyser(const Analyser&) = delete;
  Analyser& operator=(const Analyser&) = delete;
  kvl_audio_state state() const {
    kvl_audio_state s{};
    kvl_audio_get(a, &s);
    return s;
  }
  void feed(const std::vector<float>& s) { kvl_audio_feed(a, s.data(), (int32_t)s.size()); }
};

struct BeatLog {
  std::vector<double> beats;  // seconds of audio analysed when each beat showed
  std::vector<float> bpm_at_beat;
};

BeatLog run_blocks(Analyser& an, const std::vector<float>& s, int sr) {
  BeatLog r;
  uint32_t count = an.state().beat_count;
  for (size_t i = 0; i + 512 <= s.size(); i += 512) {
    kvl_audio_feed(an.a, s.data() + i, 512);
    const kvl_audio_state st = an.state();
    if (st.beat_count != count) {
      EXPECT_EQ(st.beat_count, count + 1);
      EXPECT_EQ(st.beat, 1.0f);
      count = st.beat_count;
      r.beats.push_back((double)(i + 512) / sr);
      r.bpm_at_beat.push_back(st.bpm);
    }
  }
  return r;
}

// Share of the times in `from` (limited to lo..hi) that lie within `tol` of
// some time in `to`.
double matched_share(const std::vector<double>& from, const std::vector<double>& to, double tol, double lo = 0,
                     double hi = 1e9) {
  int n = 0, hit = 0;
  for (double x : from) {
    if (x < lo || x > hi) continue;
    n++;
    for (double y : to)
      if (std::fabs(x - y) <= tol) {
        hit++;
        break;
      }
  }
  return n ? (double)hit / n : 0;
}

void expect_in_range(const kvl_audio_state& s) {
  for (float v : {s.level, s.bass, s.mid, s.high, s.beat}) {
    EXPECT_TRUE(v >= 0.0f && v <= 1.0f) << v;
  }
  EXPECT_TRUE(std::isfinite(s.bpm));
}

// ---------------------------------------------------------------------------
// The analyser

TEST(AudioAnalyser, CreationTablesAndBandEdges) {
  static_assert(sizeof(kvl_audio_state) == 32, "state is a 32-byte record");
  Analyser a48(48000), a44(44100), a8(8000), zero(0), negative(-5);
  ASSERT_NE(a48.a, nullptr);
  // Hann over 1024 points with 1023 in the denominator: both ends are zero
  // and the table is symmetric.
  EXPECT_NEAR(a48.a->window[1023], 0.0f, 1e-6);
  EXPECT_NEAR(a48.a->window[1], 0.5 - 0.5 * std::cos(2 * kPi / 1023), 1e-6);
  for (int i = 0; i < 512; i++) EXPECT_NEAR(a48.a->window[i], a48.a->window[1023 - i], 2e-6) << i;
  const int32_t lo48[4] = {0, 1, 4, 44}, hi48[4] = {0, 3, 43, 341};
  const int32_t lo44[4] = {0, 1, 4, 47}, hi44[4] = {0, 3, 46, 372};
  for (int b = 1; b <= 3; b++) {
    EXPECT_EQ(a48.a->band_lo[b], lo48[b]) << b;
    EXPECT_EQ(a48.a->band_hi[b], hi48[b]) << b;
    EXPECT_EQ(a44.a->band_lo[b], lo44[b]) << b;
    EXPECT_EQ(a44.a->band_hi[b], hi44[b]) << b;
  }
  // At 8 kHz the treble edge lies past the transform and stops at bin 511.
  EXPECT_EQ(a8.a->band_hi[3], 511);
  // No rate, or a negative one, means 48000.
  for (const Analyser* d : {&zero, &negative}) {
    EXPECT_EQ(d->a->sample_rate, 48000);
    EXPECT_EQ(memcmp(d->a->band_lo, a48.a->band_lo, sizeof d->a->band_lo), 0);
  }
  for (int i = 0; i < 5; i++) EXPECT_EQ(a48.a->peak_db[i], -26.0f);
  EXPECT_EQ(a48.a->last_beat, -1.0);
}

TEST(AudioAnalyser, StepsRunPerBlockOf512InAnyChunking) {
  Analyser an(48000);
  const double dt = (double)(512.0f / 48000.0f);
  const std::vector<float> s = sine(440, 0.5, 48000, 0.1);
  kvl_audio_feed(an.a, s.data(), 511);
  EXPECT_EQ(an.a->clock, 0.0);
  kvl_audio_feed(an.a, s.data() + 511, 1);
  EXPECT_DOUBLE_EQ(an.a->clock, dt);
  EXPECT_EQ(an.a->fill, 0);
  // The newer half has slid into the older one.
  EXPECT_EQ(memcmp(an.a->samples, s.data(), 512 * sizeof(float)), 0);
  kvl_audio_feed(an.a, s.data(), 1024);
  EXPECT_DOUBLE_EQ(an.a->clock, 3 * dt);
  // Bad arguments change nothing.
  kvl_audio_feed(an.a, nullptr, 512);
  kvl_audio_feed(an.a, s.data(), -512);
  kvl_audio_feed(nullptr, s.data(), 512);
  EXPECT_DOUBLE_EQ(an.a->clock, 3 * dt);
  kvl_audio_state untouched;
  memset(&untouched, 0xAB, sizeof untouched);
  kvl_audio_get(nullptr, &untouched);
  kvl_audio_get(an.a, nullptr);
  EXPECT_EQ(untouched.beat_count, 0xABABABABu);
  kvl_audio_destroy(nullptr);

  // Feeding a whole loop at once or in ragged pieces leaves the same record.
  const Loop loop = drum_loop(120, 44100, 6);
  Analyser whole(44100), pieces(44100);
  whole.feed(loop.samples);
  std::mt19937 rng(11);
  for (size_t i = 0; i < loop.samples.size();) {
    const int n = (int)std::min<size_t>(rng() % 1500 + 1, loop.samples.size() - i);
    kvl_audio_feed(pieces.a, loop.samples.data() + i, n);
    i += n;
  }
  EXPECT_GT(whole.state().beat_count, 5u);
  EXPECT_EQ(memcmp(whole.a, pieces.a, sizeof(kvl_audio)), 0);
}

TEST(AudioAnalyser, TransformMatchesDirectDft) {
  Analyser an(48000);
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-1, 1);
  std::vector<float> x(1024);
  for (size_t i = 0; i < x.size(); i++) x[i] = u(rng) * 0.3f + 0.5f * (float)std::sin(2 * kPi * 37.25 * i / 1024);
  an.feed(x);  // the second step's window is exactly these samples
  double worst = 0, largest = 0;
  for (int k = 0; k < 1024; k++) {
    double re = 0, im = 0;
    for (int n = 0; n < 1024; n++) {
      const double v = (double)x[n] * an.a->window[n];
      re += v * std::cos(2 * kPi * k * n / 1024);
      im -= v * std::sin(2 * kPi * k * n / 1024);
    }
    largest = std::max(largest, std::hypot(re, im));
    worst = std::max(worst, std::hypot(re - an.a->re[k], im - an.a->im[k]));
  }
  EXPECT_GT(largest, 100.0);
  EXPECT_LT(worst / largest, 2e-5) << "worst " << worst << " of " << largest;
}

TEST(AudioAnalyser, FollowerMappingAndGate) {
  // At 51200 Hz a block is exactly 10 ms and an 800 Hz tone repeats 16 times
  // in a window, so every window's level is exact.
  const int sr = 51200;
  Analyser an(sr);
  an.feed(sine(800, 1.0, sr, 1.0));
  EXPECT_FLOAT_EQ(an.state().level, 1.0f);  // the loudest recent sound reads 1
  // 18 dB down reads ((36 - 18) / 36)^2 at once: the peak releases only
  // 3 dB a second, and after six seconds it has come down to the new level.
  an.feed(sine(800, 0.125, sr, 0.02));
  EXPECT_NEAR(an.state().level, 0.25, 0.01);
  an.feed(sine(800, 0.125, sr, 3.0));
  EXPECT_NEAR(an.state().level, std::pow(27.0 / 36, 2), 0.01);  // 9 dB released
  an.feed(sine(800, 0.125, sr, 4.0));
  EXPECT_NEAR(an.state().level, 1.0, 1e-6);

  // The peak never falls under -26 dB: a tone at -43 dB stays at
  // ((-43 + 36 + 26) / 36)^2.
  Analyser quiet(sr);
  quiet.feed(sine(800, amp_db(-43), sr, 10.0));
  EXPECT_EQ(quiet.a->peak_db[0], -26.0f);
  EXPECT_NEAR(quiet.state().level, std::pow(19.0 / 36, 2), 2e-3);

  // The gate is at -62 dB. The mapping alone already reads 0 there, so the
  // gate shows in the bass history it keeps empty.
  Analyser open(sr), shut(sr);
  open.feed(sine(800, amp_db(-61), sr, 0.5));
  shut.feed(sine(800, amp_db(-63), sr, 0.5));
  EXPECT_GT(open.state().level, 0.0f);
  EXPECT_EQ(open.a->bass_count, 10);
  const kvl_audio_state s = shut.state();
  EXPECT_EQ(s.level + s.bass + s.mid + s.high, 0.0f);
  EXPECT_EQ(shut.a->bass_count, 0);

  // A full-scale 100 Hz tone fills the bass and leaves the treble empty.
  Analyser bass(48000);
  bass.feed(sine(100, 1.0, 48000, 1.0));
  EXPECT_GT(bass.state().bass, 0.95f);
  EXPECT_LT(bass.state().high, 0.01f);
}

TEST(AudioAnalyser, SilenceGatesAndKeepsTempo) {
  const int sr = 44100;
  Analyser an(sr);
  an.feed(drum_loop(120, sr, 10).samples);
  const float bpm = an.state().bpm;
  ASSERT_NEAR(bpm, 120, 2.4);
  // Go on to a fresh beat, then watch its pulse decay in silence.
  const std::vector<float> more = drum_loop(120, sr, 2, 9).samples;
  for (size_t i = 0; i + 512 <= more.size() && an.state().beat != 1.0f; i += 512)
    kvl_audio_feed(an.a, more.data() + i, 512);
  ASSERT_EQ(an.state().beat, 1.0f);
  const uint32_t count = an.state().beat_count;
  const std::vector<float> zeros(512, 0.0f);
  const double dt = 512.0 / sr;
  // Two blocks empty the window; from then on every step is gated.
  an.feed(zeros);
  an.feed(zeros);
  float peaks[5];
  memcpy(peaks, an.a->peak_db, sizeof peaks);
  int steps = 2;
  for (; steps * dt < 0.100; steps++) an.feed(zeros);
  EXPECT_GT(an.state().beat, 0.0f);  // on its way down at 100 ms
  EXPECT_LT(an.state().beat, 0.4f);
  for (; steps * dt < 0.150 + dt; steps++) an.feed(zeros);
  const kvl_audio_state s = an.state();
  EXPECT_EQ(s.level + s.bass + s.mid + s.high + s.beat, 0.0f);
  EXPECT_EQ(s.bpm, bpm);
  EXPECT_EQ(s.beat_count, count);
  EXPECT_EQ(memcmp(peaks, an.a->peak_db, sizeof peaks), 0);  // followers untouched
  EXPECT_EQ(an.a->bass_count, 0);
  EXPECT_FALSE(an.a->pending || an.a->above);

  // After silence ten blocks must refill the bass history before a rise can
  // count: a pulse that comes and goes within them is no beat, a later one is.
  const int sr2 = 51200;  // 10 ms blocks
  Analyser cold(sr2);
  cold.feed(std::vector<float>(sr2, 0.0f));
  EXPECT_EQ(cold.state().level, 0.0f);
  // One pulse at 203 ms; fed from 198 ms on, it lies 5 to 85 ms into the sound.
  const std::vector<float> one = pulse_train(10.0, sr2, 1.0).samples;
  cold.feed(std::vector<float>(one.begin() + (size_t)(0.198 * sr2), one.end()));
  EXPECT_EQ(cold.state().beat_count, 0u);
  cold.feed(one);
  EXPECT_EQ(cold.state().beat_count, 1u);
}

TEST(AudioAnalyser, OnsetNeedsTheBassToLast) {
  // A bass click of 2.5 ms lands in the newer half of one window. Early in
  // that half it is at full window weight at the onset and nearly gone from
  // the next window (more than 6 dB down): no beat. Late in the half it
  // grows in the next window: a beat.
  const int sr = 51200;  // 10 ms blocks
  for (int at : {128, 384}) {
    std::vector<float> s = sine(1000, 0.01, sr, 0.6);  // the floor of the pulse trains
    for (int i = 0; i < 128; i++) s[50 * 512 + at + i] += 0.5f;
    Analyser an(sr);
    an.feed(s);
    EXPECT_EQ(an.state().beat_count, at == 128 ? 0u : 1u) << "click at " << at;
  }
}

TEST(AudioAnalyser, OnsetThresholdAdaptsToRecentFlux) {
  // At 51200 Hz a 100 Hz tone repeats every block, so its bass level Bb is
  // the same in each. Planting a bass history 8 dB under it makes the next
  // block's flux exactly 8; the planted flux history decides whether 8 is an
  // onset: median 5 and deviation 3 put the threshold at 11, an empty one at
  // the floor of 6.
  const int sr = 51200;
  const std::vector<float> tone = sine(100, 0.5, sr, 1.0);
  for (bool busy : {true, false}) {
    Analyser an(sr);
    an.feed(tone);
    const float bb = an.a->bass_history[0];
    for (int i = 0; i < 10; i++) ASSERT_EQ(an.a->bass_history[i], bb);
    for (int i = 0; i < 10; i++) an.a->bass_history[i] = bb - 8.0f;
    for (int i = 0; i < 160; i++) an.a->flux_history[i] = busy ? (i < 53 ? 2.0f : i < 107 ? 5.0f : 8.0f) : 0.0f;
    an.a->flux_count = 160;
    ASSERT_FALSE(an.a->above || an.a->pending);
    kvl_audio_feed(an.a, tone.data(), 512);
    EXPECT_FLOAT_EQ(an.a->flux_history[an.a->flux_index == 0 ? 159 : an.a->flux_index - 1], 8.0f);
    EXPECT_EQ(an.a->pending, !busy);
  }
}

TEST(AudioAnalyser, HostileInputStaysFiniteAndRecovers) {
  std::vector<float> bad(4096);
  for (size_t i = 0; i < bad.size(); i++) bad[i] = i % 3 == 0 ? NAN : (i % 3 == 1 ? INFINITY : -INFINITY);
  Analyser an(48000);
  an.feed(bad);
  expect_in_range(an.state());
  const BeatLog r = run_blocks(an, drum_loop(120, 48000, 12).samples, 48000);
  expect_in_range(an.state());
  EXPECT_GT(an.state().level, 0.0f);
  EXPECT_GT(r.beats.size(), 15u);
  EXPECT_NEAR(an.state().bpm, 120, 2.4);

  // Rates from 1 Hz to the largest int: empty bands, huge or tiny blocks.
  std::mt19937 rng(2);
  std::uniform_real_distribution<float> u(-0.5f, 0.5f);
  std::vector<float> noise(20000);
  for (auto& v : noise) v = u(rng);
  for (int32_t sr : {1, 100, 8000, 192000, 2147483647}) {
    Analyser odd(sr);
    odd.feed(noise);
    expect_in_range(odd.state());
  }
}

TEST(AudioAnalyser, SteadySineGivesNoBeats) {
  for (double f : {50.0, 100.0, 440.0, 3000.0}) {
    Analyser an(44100);
    an.feed(sine(f, 0.7, 44100, 20));
    EXPECT_EQ(an.state().beat_count, 0u) << f << " Hz";
  }
}

struct LoopCase {
  double bpm;
  int sr;
};

class DrumLoops : public ::testing::TestWithParam<LoopCase> {};

TEST_P(DrumLoops, TempoAndBeatsMatchTheKicks) {
  const LoopCase c = GetParam();
  const double seconds = 24;
  const Loop loop = drum_loop(c.bpm, c.sr, seconds);
  Analyser an(c.sr);
  const BeatLog r = run_blocks(an, loop.samples, c.sr);
  // All four tempos lie inside the folding range of 80 to 180, so the
  // reading must be the true tempo, and stay so after a few seconds.
  EXPECT_NEAR(an.state().bpm, c.bpm, c.bpm * 0.02);
  for (size_t i = 0; i < r.beats.size(); i++) {
    if (r.beats[i] > 5.0) {
      EXPECT_NEAR(r.bpm_at_beat[i], c.bpm, c.bpm * 0.02) << "beat at " << r.beats[i];
    }
  }
  // After a warm-up of 3 s: beats land on kicks, and kicks get beats.
  ASSERT_GT(loop.kicks.size(), 30u);
  EXPECT_GE(matched_share(r.beats, loop.kicks, 0.070, 3.0, seconds - 0.5), 0.9);
  EXPECT_GE(matched_share(loop.kicks, r.beats, 0.070, 3.0, seconds - 0.5), 0.9);
}

INSTANTIATE_TEST_SUITE_P(Tempos, DrumLoops,
                         ::testing::Values(LoopCase{90, 44100}, LoopCase{120, 44100}, LoopCase{128, 44100},
                                           LoopCase{174, 44100}, LoopCase{90, 48000}, LoopCase{128, 48000},
                                           LoopCase{174, 48000}),
                         [](const ::testing::TestParamInfo<LoopCase>& p) {
                           return std::to_string((int)p.param.bpm) + "bpm_" + std::to_string(p.param.sr);
                         });

struct PulseCase {
  double period;
  double bpm;            // what the tempo must read
  double beat_interval;  // seconds between accepted beats
};

class PulseTrains : public ::testing::TestWithParam<PulseCase> {};

TEST_P(PulseTrains, FoldAndRefractoryTime) {
  const PulseCase c = GetParam();
  const int sr = 51200;  // 10 ms blocks: intervals are exact
  const Loop loop = pulse_train(c.period, sr, 14);
  Analyser an(sr);
  const BeatLog r = run_blocks(an, loop.samples, sr);
  ASSERT_GE(r.beats.size(), 6u);
  // No tempo until four intervals exist, that is until the fifth beat.
  for (size_t i = 0; i < 4; i++) EXPECT_EQ(r.bpm_at_beat[i], 0.0f) << i;
  for (size_t i = 4; i < r.beats.size(); i++) EXPECT_NEAR(r.bpm_at_beat[i], c.bpm, 0.05) << i;
  for (size_t i = 1; i < r.beats.size(); i++) EXPECT_NEAR(r.beats[i] - r.beats[i - 1], c.beat_interval, 1e-6) << i;
  EXPECT_EQ(matched_share(r.beats, loop.kicks, 0.0201), 1.0);  // two blocks after the pulse at most
  EXPECT_NEAR((double)r.beats.size(), std::floor((14 - 0.2833) / c.beat_interval) + 1, 1.0);
}

INSTANTIATE_TEST_SUITE_P(EdgeCases, PulseTrains,
                         ::testing::Values(PulseCase{0.5, 120, 0.5},   // plain
                                           PulseCase{0.3, 100, 0.3},   // 200 folds to 100
                                           PulseCase{0.25, 120, 0.5},  // every second pulse refractory
                                           PulseCase{1.2, 100, 1.2}),  // 50 folds to 100
                         [](const ::testing::TestParamInfo<PulseCase>& p) {
                           return std::to_string((int)(p.param.period * 1000)) + "ms";
                         });

TEST(AudioAnalyser, UnevenIntervalsTakeTheUpperMedian) {
  // Pulses 0.5 and 0.6 s apart in turn: with an even count of intervals the
  // upper of the two middle values decides, 0.6 s, so 100 rather than 120.
  const int sr = 51200;
  Analyser an(sr);
  const BeatLog r = run_blocks(an, pulse_train(0.5, sr, 14, 0.6).samples, sr);
  ASSERT_GE(r.beats.size(), 17u);
  EXPECT_NEAR(r.bpm_at_beat[4], 100, 0.05);   // four intervals
  EXPECT_NEAR(r.bpm_at_beat[16], 100, 0.05);  // sixteen
  EXPECT_NEAR(r.bpm_at_beat[5], 120, 0.05);   // five, three of them 0.5 s
}

// ---------------------------------------------------------------------------
// Named sources. The table is process-wide: every test stops what it starts.

kvl_audio_state read_source(const char* name) {
  kvl_audio_state s;
  memset(&s, 0x5A, sizeof s);
  kvl_audio_source_read(name, &s);
  return s;
}

void push_all(const char* name, const std::vector<float>& s) {
  kvl_audio_source_push(name, s.data(), (int32_t)s.size());
}

// Reads right after the push: a read 250 ms later would see a silent source,
// which a slow sanitizer build can reach.
kvl_audio_state push_and_read(const char* name, const std::vector<float>& s) {
  push_all(name, s);
  const kvl_audio_state st = read_source(name);
  EXPECT_EQ(st.live, 1u) << (name ? name : "(null)");
  return st;
}

bool same_analysis(const kvl_audio_state& a, const kvl_audio_state& b) {
  return memcmp(&a, &b, offsetof(kvl_audio_state, live)) == 0;
}

bool all_zero(const kvl_audio_state& s) {
  const kvl_audio_state z{};
  return memcmp(&s, &z, sizeof s) == 0;
}

TEST(AudioSources, LifecycleSlotsAndNames) {
  const std::vector<float> s = sine(100, 0.5, 48000, 0.1);
  // Unknown names read zero and drop pushes; stop is harmless.
  push_all("src-never", s);
  EXPECT_TRUE(all_zero(read_source("src-never")));
  kvl_audio_source_stop("src-never");
  kvl_audio_source_read("src-never", nullptr);

  // Started but never pushed (bad pushes do not count) is not live.
  kvl_audio_source_start("src-idle", 48000);
  kvl_audio_source_push("src-idle", nullptr, 512);
  kvl_audio_source_push("src-idle", s.data(), 0);
  EXPECT_TRUE(all_zero(read_source("src-idle")));
  EXPECT_GT(push_and_read("src-idle", s).bass, 0.5f);

  // Restarting a name gives a fresh analyser: count, tempo and peak
  // followers start over.
  const std::vector<float> loop = drum_loop(120, 48000, 6).samples;
  const kvl_audio_state before = push_and_read("src-idle", loop);
  ASSERT_GT(before.beat_count, 5u);
  ASSERT_GT(before.bpm, 0.0f);
  kvl_audio_source_start("src-idle", 44100);
  EXPECT_TRUE(all_zero(read_source("src-idle")));
  const std::vector<float> quiet = sine(100, 0.05, 44100, 0.5);
  Analyser fresh(44100);
  fresh.feed(quiet);
  EXPECT_TRUE(same_analysis(push_and_read("src-idle", quiet), fresh.state()));
  kvl_audio_source_stop("src-idle");
  EXPECT_TRUE(all_zero(read_source("src-idle")));

  // Sixteen slots; the 17th start is dropped until a slot is freed.
  std::vector<std::string> names;
  for (int i = 0; i < 16; i++) names.push_back("slot-" + std::to_string(i));
  for (auto& n : names) kvl_audio_source_start(n.c_str(), 48000);
  kvl_audio_source_start("slot-17th", 48000);
  push_all("slot-17th", s);
  EXPECT_TRUE(all_zero(read_source("slot-17th")));
  for (auto& n : names) push_and_read(n.c_str(), s);
  kvl_audio_source_stop("slot-7");
  kvl_audio_source_start("slot-17th", 48000);
  push_and_read("slot-17th", s);
  kvl_audio_source_stop("slot-17th");
  for (auto& n : names) kvl_audio_source_stop(n.c_str());

  // A name of 64 bytes or more is kept cut to 63 and then matches nothing
  // under its full spelling.
  const std::string long_name(70, 'n'), cut(63, 'n');
  kvl_audio_source_start(long_name.c_str(), 48000);
  push_all(long_name.c_str(), s);
  EXPECT_TRUE(all_zero(read_source(long_name.c_str())));
  push_and_read(cut.c_str(), s);
  kvl_audio_source_stop(cut.c_str());
  EXPECT_TRUE(all_zero(read_source(cut.c_str())));

  // Null is the default source "".
  kvl_audio_start(48000);
  push_and_read(nullptr, s);
  kvl_audio_state d{};
  kvl_audio_read(&d);
  EXPECT_EQ(d.live, 1u);
  kvl_audio_stop();
  EXPECT_TRUE(all_zero(read_source("")));
}

TEST(AudioSources, PushMatchesAPrivateAnalyser) {
  const Loop loop = drum_loop(128, 48000, 5);
  kvl_audio_source_start("src-ref", 48000);
  Analyser ref(48000);
  // 2000 samples go in as chunks of 512, 512, 512 and 464.
  const std::vector<float> first(loop.samples.begin(), loop.samples.begin() + 2000);
  ref.feed(first);
  EXPECT_TRUE(same_analysis(push_and_read("src-ref", first), ref.state()));
  EXPECT_EQ(ref.a->fill, 464);
  for (size_t i = 2000; i < loop.samples.size(); i += 777) {
    const int32_t n = (int32_t)std::min<size_t>(777, loop.samples.size() - i);
    kvl_audio_feed(ref.a, loop.samples.data() + i, n);
    kvl_audio_source_push("src-ref", loop.samples.data() + i, n);
  }
  const kvl_audio_state got = read_source("src-ref");
  EXPECT_EQ(got.live, 1u);
  EXPECT_GT(got.beat_count, 5u);
  EXPECT_TRUE(same_analysis(got, ref.state()));

  // 250 ms after the last push the source reads silent and not live; tempo
  // and count stay readable, and one push brings it back.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const kvl_audio_state later = read_source("src-ref");
  EXPECT_EQ(later.live, 0u);
  EXPECT_EQ(later.level + later.bass + later.mid + later.high + later.beat, 0.0f);
  EXPECT_EQ(later.bpm, got.bpm);
  EXPECT_EQ(later.beat_count, got.beat_count);
  EXPECT_GT(push_and_read("src-ref", first).level, 0.0f);
  kvl_audio_source_stop("src-ref");
}

TEST(AudioSources, GainScalesInputAndCannotMute) {
  const std::vector<float> s = drum_loop(120, 48000, 3).samples;
  std::vector<float> doubled(s);
  for (auto& v : doubled) v *= 2.0f;
  kvl_audio_source_start("gain-a", 48000);
  kvl_audio_source_start("gain-b", 48000);
  kvl_audio_set_gain(2.0f);
  const kvl_audio_state scaled = push_and_read("gain-a", s);
  kvl_audio_set_gain(1.0f);
  EXPECT_TRUE(same_analysis(scaled, push_and_read("gain-b", doubled)));
  EXPECT_GT(scaled.beat_count, 2u);

  // Zero, negative and NaN gains restore unity rather than muting.
  Analyser ref(48000);
  ref.feed(s);
  for (float g : {0.0f, -3.0f, NAN}) {
    kvl_audio_set_gain(5.0f);
    kvl_audio_set_gain(g);
    kvl_audio_source_start("gain-a", 48000);
    EXPECT_TRUE(same_analysis(push_and_read("gain-a", s), ref.state())) << g;
  }

  // The gate applies to the scaled input: a tone at -65 dB is gated at unity
  // and passes at a gain of 2 (+6 dB).
  const std::vector<float> faint = sine(800, amp_db(-65), 48000, 0.3);
  kvl_audio_source_start("gain-a", 48000);
  EXPECT_EQ(push_and_read("gain-a", faint).level, 0.0f);
  kvl_audio_set_gain(2.0f);
  kvl_audio_source_start("gain-a", 48000);
  EXPECT_GT(push_and_read("gain-a", faint).level, 0.0f);
  kvl_audio_set_gain(1.0f);
  kvl_audio_source_stop("gain-a");
  kvl_audio_source_stop("gain-b");
}

TEST(AudioSources, InterleavedPushMixesToTheDefaultSource) {
  kvl_audio_start(48000);
  // Opposite channels cancel: the mix is the plain mean, here silence.
  std::vector<float> opposite(2 * 4800);
  for (size_t i = 0; i < opposite.size(); i++) opposite[i] = i % 2 ? -1.0f : 1.0f;
  kvl_audio_push(opposite.data(), 4800, 2);
  kvl_audio_state s{};
  kvl_audio_read(&s);
  EXPECT_EQ(s.live, 1u);
  EXPECT_EQ(s.level + s.bass + s.mid + s.high, 0.0f);

  // A signal on the left only arrives at half amplitude, as a mono push of
  // the halved signal does.
  const std::vector<float> mono = drum_loop(120, 48000, 4).samples;
  std::vector<float> stereo(2 * mono.size(), 0.0f), half(mono.size());
  for (size_t i = 0; i < mono.size(); i++) {
    stereo[2 * i] = mono[i];
    half[i] = mono[i] * 0.5f;
  }
  kvl_audio_start(48000);
  kvl_audio_source_start("mix-ref", 48000);
  kvl_audio_push(stereo.data(), 2000, 2);
  kvl_audio_push(stereo.data() + 4000, (int32_t)mono.size() - 2000, 2);
  kvl_audio_read(&s);
  EXPECT_EQ(s.live, 1u);
  EXPECT_GT(s.beat_count, 2u);
  EXPECT_TRUE(same_analysis(s, push_and_read("mix-ref", half)));
  // Bad arguments push nothing.
  kvl_audio_start(48000);
  kvl_audio_push(nullptr, 100, 2);
  kvl_audio_push(stereo.data(), 0, 2);
  kvl_audio_push(stereo.data(), 100, 0);
  kvl_audio_read(&s);
  EXPECT_EQ(s.live, 0u);
  kvl_audio_read(nullptr);
  kvl_audio_stop();
  kvl_audio_source_stop("mix-ref");
}

// Capture threads push to their own sources while the render side reads all
// of them, another thread starts and stops a source, and the gain is set
// without the lock. Also run under ThreadSanitizer.
TEST(AudioSources, ConcurrentPushesAndReads) {
  constexpr int kPushers = 4;
  const int sr = 48000;
  std::vector<Loop> loops;
  std::vector<std::string> names;
  for (int i = 0; i < kPushers; i++) {
    loops.push_back(drum_loop(90 + 25 * i, sr, 4, 20 + i));
    names.push_back("conc-" + std::to_string(i));
    kvl_audio_source_start(names.back().c_str(), sr);
  }
  std::atomic<int> running{kPushers};
  std::atomic<bool> reader_ok{true};
  std::vector<std::thread> threads;
  for (int p = 0; p < kPushers; p++)
    threads.emplace_back([&, p] {
      std::mt19937 rng(p);
      const std::vector<float>& s = loops[p].samples;
      for (size_t i = 0; i < s.size();) {
        const int32_t n = (int32_t)std::min<size_t>(rng() % 1500 + 1, s.size() - i);
        kvl_audio_source_push(names[p].c_str(), s.data() + i, n);
        i += n;
      }
      running--;
    });
  threads.emplace_back([&] {
    uint32_t last_count[kPushers] = {};
    for (int rounds = 0; running.load() > 0 || rounds < 10; rounds++) {
      for (int p = 0; p < kPushers; p++) {
        kvl_audio_state s{};
        kvl_audio_source_read(names[p].c_str(), &s);
        bool ok = s.beat_count >= last_count[p] && std::isfinite(s.bpm);
        for (float v : {s.level, s.bass, s.mid, s.high, s.beat}) ok = ok && v >= 0 && v <= 1;
        if (!ok) reader_ok = false;
        last_count[p] = s.beat_count;
      }
      kvl_audio_state missing{};
      kvl_audio_source_read("conc-missing", &missing);
      if (!all_zero(missing)) reader_ok = false;
    }
  });
  threads.emplace_back([&] {
    const std::vector<float> s = sine(100, 0.5, sr, 0.05);
    while (running.load() > 0) {
      kvl_audio_source_start("conc-churn", sr);
      push_all("conc-churn", s);
      kvl_audio_source_stop("conc-churn");
    }
  });
  threads.emplace_back([&] {
    // Both stores leave the gain at unity, so the results stay comparable.
    for (int i = 0; running.load() > 0; i++) kvl_audio_set_gain(i % 2 ? 1.0f : 0.0f);
  });
  for (auto& t : threads) t.join();
  EXPECT_TRUE(reader_ok.load());
  // Each source saw exactly its own samples in order: no cross-talk.
  for (int p = 0; p < kPushers; p++) {
    Analyser ref(sr);
    ref.feed(loops[p].samples);
    const std::vector<float> last(loops[p].samples.end() - 512, loops[p].samples.end());
    ref.feed(last);
    const kvl_audio_state got = push_and_read(names[p].c_str(), last);  // live again, however slow the run
    EXPECT_GT(got.beat_count, 3u) << p;
    EXPECT_TRUE(same_analysis(got, ref.state())) << p;
    kvl_audio_source_stop(names[p].c_str());
  }
}

TEST(AudioSources, AnalysisPathDoesNotAllocate) {
#ifdef KVL_AUDIO_TEST_NO_MALLOC_HOOK
  GTEST_SKIP() << "malloc belongs to the sanitizer runtime in this build";
#else
  const Loop loop = drum_loop(120, 48000, 3);
  std::vector<float> stereo(2 * 4096, 0.25f);
  kvl_audio_source_start("alloc-src", 48000);
  kvl_audio_start(48000);
  Analyser an(48000);
  // The counter itself must see allocations.
  t_counting = true;
  void* volatile probe = malloc(32);
  t_counting = false;
  free(probe);
  ASSERT_EQ(g_alloc_calls.load(), 1);
  g_alloc_calls = 0;

  t_counting = true;
  for (size_t i = 0; i + 700 <= loop.samples.size(); i += 700) {
    kvl_audio_source_push("alloc-src", loop.samples.data() + i, 700);
    kvl_audio_feed(an.a, loop.samples.data() + i, 700);
    kvl_audio_state s;
    kvl_audio_source_read("alloc-src", &s);
    kvl_audio_read(&s);
  }
  kvl_audio_push(stereo.data(), 4096, 2);
  kvl_audio_set_gain(1.0f);
  t_counting = false;
  EXPECT_EQ(g_alloc_calls.load(), 0);
  EXPECT_GT(an.state().beat_count, 2u);
  kvl_audio_source_stop("alloc-src");
  kvl_audio_stop();
#endif
}

}  // namespace
