// The live analyser and the named audio sources: transform against a direct
// DFT, gate and silence, beats and tempo on signals with known truth, and the
// process-wide source table with its thread safety and allocation-free path.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kavlen/kavlen.h"

// Counts malloc calls made on a thread that asks for it (whole process, the
// engine's library included). Sanitizer runtimes own malloc: no hook there.
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KVL_AUDIO_TEST_NO_MALLOC_HOOK 1
#else
thread_local bool t_counting = false;
std::atomic<long> g_alloc_calls{0};
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) { return g_alloc_calls += t_counting, __libc_malloc(n); }
void* calloc(size_t n, size_t size) { return g_alloc_calls += t_counting, __libc_calloc(n, size); }
void* realloc(void* p, size_t n) { return g_alloc_calls += t_counting, __libc_realloc(p, n); }
}
#endif

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Loop {
  std::vector<float> samples;
  std::vector<double> kicks;  // onset times in seconds
};

std::vector<float> sine(double freq, double amp, int sr, double seconds) {
  std::vector<float> s((size_t)(seconds * sr));
  for (size_t i = 0; i < s.size(); i++) s[i] = (float)(amp * std::sin(2 * kPi * freq * (double)i / sr));
  return s;
}

// Swept kick on every beat, noise hi-hat on every off-beat, quiet pad under.
Loop drum_loop(double bpm, int sr, double seconds, uint32_t seed = 7) {
  Loop loop{std::vector<float>((size_t)(seconds * sr)), {}};
  const size_t n = loop.samples.size();
  const double beat = 60.0 / bpm, kick_len = std::min(0.3, 0.9 * beat);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
  for (double f : {220.0, 277.18, 329.63})
    for (size_t i = 0; i < n; i++) loop.samples[i] += (float)(0.03 * std::sin(2 * kPi * f * (double)i / sr));
  for (double t0 = 0.037; t0 + kick_len < seconds; t0 += beat) {  // off the block grid
    loop.kicks.push_back(t0);
    const size_t i0 = (size_t)std::llround(t0 * sr), h0 = (size_t)std::llround((t0 + beat / 2) * sr);
    double phase = 0;
    for (size_t i = 0; i < (size_t)(kick_len * sr); i++) {
      const double t = (double)i / sr;
      phase += 2 * kPi * (50.0 + 90.0 * std::exp(-t / 0.03)) / sr;
      loop.samples[i0 + i] += (float)(0.8 * std::exp(-t / 0.12) * std::min(1.0, t / 0.002) * std::sin(phase));
    }
    float last = 0;
    for (size_t i = 0; i < (size_t)(0.08 * sr) && h0 + i < n; i++) {
      const float w = noise(rng);
      loop.samples[h0 + i] += (float)(0.25 * std::exp(-(double)i / sr / 0.02) * (w - last));
      last = w;
    }
  }
  return loop;
}

// 100 Hz pulses (80 ms, soft edges) every `period` s over a faint 1 kHz tone.
Loop pulse_train(double period, int sr, double seconds) {
  Loop loop{sine(1000, 0.01, sr, seconds), {}};
  const double len = 0.08;
  for (double t0 = 0.2033; t0 + len < seconds; t0 += period) {
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

struct Analyser {
  kvl_audio* a;
  explicit Analyser(int32_t sr) : a(kvl_audio_create(sr)) {}
  ~Analyser() { kvl_audio_destroy(a); }
  kvl_audio_state state() const { kvl_audio_state s{}; return kvl_audio_get(a, &s), s; }
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

// Share of the times in `from` (within lo..hi) that lie within `tol` of one in `to`.
double matched_share(const std::vector<double>& from, const std::vector<double>& to, double tol, double lo = 0,
                     double hi = 1e9) {
  int n = 0, hit = 0;
  for (double x : from)
    if (x >= lo && x <= hi) {
      n++;
      hit += std::any_of(to.begin(), to.end(), [&](double y) { return std::fabs(x - y) <= tol; });
    }
  return n ? (double)hit / n : 0;
}

bool in_range(const kvl_audio_state& s) {
  for (float v : {s.level, s.bass, s.mid, s.high, s.beat})
    if (!(v >= 0.0f && v <= 1.0f)) return false;
  return std::isfinite(s.bpm);
}

TEST(AudioAnalyser, TransformMatchesDirectDftAndChunkingDoesNotMatter) {
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

  // A whole loop at once or in ragged pieces leaves the same record.
  const Loop loop = drum_loop(120, 44100, 6);
  Analyser whole(44100), pieces(44100);
  whole.feed(loop.samples);
  for (size_t i = 0; i < loop.samples.size();) {
    const int n = (int)std::min<size_t>(rng() % 1500 + 1, loop.samples.size() - i);
    kvl_audio_feed(pieces.a, loop.samples.data() + i, n);
    i += n;
  }
  EXPECT_GT(whole.state().beat_count, 5u);
  EXPECT_EQ(memcmp(whole.a, pieces.a, sizeof(kvl_audio)), 0);
  kvl_audio_feed(nullptr, x.data(), 512);  // bad arguments must not crash
  kvl_audio_feed(an.a, nullptr, 512);
  kvl_audio_feed(an.a, x.data(), -512);
  kvl_audio_get(an.a, nullptr);
  kvl_audio_destroy(nullptr);
}

TEST(AudioAnalyser, SteadySineGivesNoBeatsAndTheGateHolds) {
  for (double f : {50.0, 440.0, 3000.0}) {
    Analyser an(44100);
    an.feed(sine(f, 0.7, 44100, 20));
    EXPECT_EQ(an.state().beat_count, 0u) << f << " Hz";
  }
  // The gate sits at -62 dB (mean square): bass history fills just above it, not just below.
  for (double db : {-61.0, -63.0}) {
    Analyser g(51200);
    g.feed(sine(800, std::sqrt(2.0) * std::pow(10.0, db / 20), 51200, 0.5));
    EXPECT_EQ(g.a->bass_count, db > -62 ? 10 : 0) << db;
  }
}

TEST(AudioAnalyser, HostileInputRecoversAndSilenceKeepsTheTempo) {
  std::vector<float> bad(4096);
  for (size_t i = 0; i < bad.size(); i++) bad[i] = i % 3 == 0 ? NAN : (i % 3 == 1 ? INFINITY : -INFINITY);
  // Within the folding range of 80..180 the reading is the true tempo.
  for (double bpm : {90.0, 120.0, 128.0, 174.0}) {
    SCOPED_TRACE(std::to_string((int)bpm) + " bpm");
    Analyser an(48000);
    an.feed(bad);
    EXPECT_TRUE(in_range(an.state()));  // and then recovers
    // Beats line up with the kicks (not the hi-hats) both ways, tempo true after 5 s.
    const Loop loop = drum_loop(bpm, 48000, 16);
    const BeatLog r = run_blocks(an, loop.samples, 48000);
    const kvl_audio_state before = an.state();
    EXPECT_TRUE(in_range(before));
    EXPECT_NEAR(before.bpm, bpm, bpm * 0.02);
    for (size_t i = 0; i < r.beats.size(); i++)
      EXPECT_TRUE(r.beats[i] <= 5.0 || std::fabs(r.bpm_at_beat[i] - bpm) <= bpm * 0.02) << "beat at " << r.beats[i];
    EXPECT_GE(matched_share(r.beats, loop.kicks, 0.070, 3.0, 15.5), 0.9);
    EXPECT_GE(matched_share(loop.kicks, r.beats, 0.070, 3.0, 15.5), 0.9);
    an.feed(std::vector<float>(0.2 * 48000, 0.0f));  // silence keeps tempo and count
    const kvl_audio_state s = an.state();
    EXPECT_EQ(s.level + s.bass + s.mid + s.high + s.beat, 0.0f);
    EXPECT_TRUE(s.bpm == before.bpm && s.beat_count == before.beat_count && an.a->bass_count == 0);
  }
  // Rates from 1 Hz to the largest int: empty bands, huge or tiny blocks.
  const std::vector<float> noise = sine(1234.5, 0.5, 48000, 0.4);
  for (int32_t sr : {-5, 0, 1, 100, 8000, 192000, 2147483647}) {
    Analyser odd(sr);
    odd.feed(noise);
    EXPECT_TRUE(in_range(odd.state())) << sr;
  }
}

TEST(AudioAnalyser, PulseTrainTempoFoldsAndRefractoryTime) {
  struct Case { double period, bpm, beat_interval; };
  const Case cases[] = {{0.3, 100, 0.3},    // 200 folds to 100
                        {0.25, 120, 0.5},   // every second pulse refractory
                        {1.2, 100, 1.2}};   // 50 folds to 100
  const int sr = 51200;  // 10 ms blocks: intervals are exact
  for (const Case& c : cases) {
    SCOPED_TRACE(c.period);
    const Loop loop = pulse_train(c.period, sr, 14);
    Analyser an(sr);
    const BeatLog r = run_blocks(an, loop.samples, sr);
    ASSERT_GE(r.beats.size(), 6u);
    for (size_t i = 0; i < r.beats.size(); i++) {  // no tempo before 4 intervals
      EXPECT_NEAR(r.bpm_at_beat[i], i < 4 ? 0.0 : c.bpm, i < 4 ? 0.0 : 0.05) << i;
      EXPECT_TRUE(i == 0 || std::fabs(r.beats[i] - r.beats[i - 1] - c.beat_interval) < 1e-6) << i;
    }
    EXPECT_EQ(matched_share(r.beats, loop.kicks, 0.0201), 1.0);
    EXPECT_NEAR((double)r.beats.size(), std::floor((14 - 0.2833) / c.beat_interval) + 1, 1.0);
  }
}

// Named sources: the table is process-wide, every test stops what it starts.
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
        if (s.beat_count < last_count[p] || !in_range(s)) reader_ok = false;
        last_count[p] = s.beat_count;
      }
      kvl_audio_state missing, zero{};
      memset(&missing, 0xFF, sizeof missing);
      kvl_audio_source_read("conc-missing", &missing);
      if (memcmp(&missing, &zero, sizeof zero) != 0) reader_ok = false;
    }
  });
  threads.emplace_back([&] {
    const std::vector<float> s = sine(100, 0.5, sr, 0.05);
    while (running.load() > 0) {
      kvl_audio_source_start("conc-churn", sr);
      kvl_audio_source_push("conc-churn", s.data(), (int32_t)s.size());
      kvl_audio_source_stop("conc-churn");
    }
  });
  threads.emplace_back([&] {  // zero gain means unity: results stay comparable
    for (int i = 0; running.load() > 0; i++) kvl_audio_set_gain(i % 2 ? 1.0f : 0.0f);
  });
  for (auto& t : threads) t.join();
  EXPECT_TRUE(reader_ok.load());
  // Each source saw exactly its own samples in order: no cross-talk. The last
  // block is pushed again just before reading, so the source still reads live.
  for (int p = 0; p < kPushers; p++) {
    Analyser ref(sr);
    ref.feed(loops[p].samples);
    kvl_audio_feed(ref.a, loops[p].samples.data() + loops[p].samples.size() - 512, 512);
    kvl_audio_source_push(names[p].c_str(), loops[p].samples.data() + loops[p].samples.size() - 512, 512);
    kvl_audio_state got{}, want = ref.state();
    kvl_audio_source_read(names[p].c_str(), &got);
    EXPECT_EQ(got.live, 1u) << p;
    EXPECT_GT(got.beat_count, 3u) << p;
    EXPECT_EQ(memcmp(&got, &want, offsetof(kvl_audio_state, live)), 0) << p;
    kvl_audio_source_stop(names[p].c_str());
  }
}

TEST(AudioSources, AnalysisPathDoesNotAllocate) {
#ifdef KVL_AUDIO_TEST_NO_MALLOC_HOOK
  GTEST_SKIP() << "malloc belongs to the sanitizer runtime in this build";
#else
  const Loop loop = drum_loop(120, 48000, 3);
  const std::vector<float> stereo(2 * 4096, 0.25f);
  kvl_audio_source_start("alloc-src", 48000);
  kvl_audio_start(48000);
  Analyser an(48000);
  t_counting = true;  // the counter itself must see allocations
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
