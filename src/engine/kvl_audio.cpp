// Live audio analyser and the process-wide table of named audio sources.
//
// The analyser is a plain record with all its working memory inside, so one
// analysis step touches no allocator: it runs on capture threads, inside the
// source lock, once every 512 samples. Its clock counts samples, never the
// wall clock, so a file analysed offline gives the same values as the same
// audio arriving live.
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine_internal.h"

namespace {

constexpr int32_t kBlock = 512;    // samples per analysis step
constexpr int32_t kWindow = 1024;  // transform size, two blocks
constexpr int32_t kFluxRing = 160;
constexpr int32_t kBassRing = 10;
constexpr int32_t kIntervalRing = 16;

enum { kLevel = 0, kBass = 1, kMid = 2, kHigh = 3 };

constexpr float kPeakFloorDb = -26.0f;
constexpr float kPeakReleaseDbPerSecond = 3.0f;
constexpr float kMappingRangeDb = 36.0f;
constexpr double kGateDb = -62.0;
// The beat pulse falls from 1 to 0 in 150 ms.
constexpr float kBeatDecayPerSecond = 6.6666665f;
constexpr float kOnsetMinFlux = 6.0f;
constexpr float kBassDropDb = 6.0f;
// Refractory time between beats. The comparison is made in double against
// the float constant, as stored.
constexpr float kRefractorySeconds = 0.28f;
// Tempo folding keeps intervals between 80 and 180 beats a minute.
constexpr float kFoldShortest = 0.33333334f;
constexpr float kFoldLongest = 0.75f;
// 4 / 1024^2 scales the summed squared bins of the 1024-point transform, so
// that a full-scale tone in a band reads a few dB under 0.
constexpr double kBandScale = 3.814697265625e-6;

int32_t band_edge(double x, int32_t sample_rate) {
  const double r = std::round(x / sample_rate);
  if (r < 1) return 1;
  if (r > 511) return 511;
  return (int32_t)r;
}

// Twiddle factors of every stage of the transform, made once with the same
// rotation recurrence the stages would run (one sine and cosine per stage,
// then a complex multiply per step), so the values are exactly the
// recurrence's while the analysis step does not pay for its serial chain.
// The stage whose butterflies span 2h points uses entries h .. 2h-1.
struct Twiddles {
  float re[kWindow];
  float im[kWindow];
};

const Twiddles& twiddles() {
  static const Twiddles table = [] {
    Twiddles t{};
    for (int32_t half = 1; half < kWindow; half <<= 1) {
      const float theta = -3.14159265358979f / (float)half;
      const float step_re = std::cos(theta);
      const float step_im = std::sin(theta);
      float w_re = 1.0f, w_im = 0.0f;
      for (int32_t k = 0; k < half; k++) {
        t.re[half + k] = w_re;
        t.im[half + k] = w_im;
        const float next_re = w_re * step_re - w_im * step_im;
        w_im = w_re * step_im + w_im * step_re;
        w_re = next_re;
      }
    }
    return t;
  }();
  return table;
}

struct BitReverse {
  uint16_t index[kWindow];
};

constexpr BitReverse make_bit_reverse() {
  BitReverse b{};
  for (int32_t i = 0; i < kWindow; i++) {
    int32_t r = 0;
    for (int32_t bit = 0; bit < 10; bit++) r |= ((i >> bit) & 1) << (9 - bit);
    b.index[i] = (uint16_t)r;
  }
  return b;
}

constexpr BitReverse kBitReverse = make_bit_reverse();

typedef float v4f __attribute__((vector_size(16)));

inline v4f load4(const float* p) {
  v4f v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, v4f v) { memcpy(p, &v, sizeof v); }

// Forward complex transform of kWindow points of the real input x, kernel
// e^(-2*pi*i*k*n/N), no scaling, results into out_re / out_im. Radix-2
// decimation in time: the input is placed in bit-reversed order, then each
// stage runs its butterflies in single precision. The work arrays live on the
// stack a little apart, because the record's re and im lie exactly 4 KiB
// apart and their loads and stores would alias in the cache.
void fft_forward(const float* x, float* out_re, float* out_im) {
  constexpr int32_t n = kWindow;
  alignas(16) float work[2 * n + 16];
  float* re = work;
  float* im = work + n + 16;
  for (int32_t i = 0; i < n; i++) {
    re[kBitReverse.index[i]] = x[i];
    im[i] = 0.0f;
  }
  const Twiddles& tw = twiddles();
  for (int32_t half = 1; half < n; half <<= 1) {
    const int32_t span = half << 1;
    const float* w_re = tw.re + half;
    const float* w_im = tw.im + half;
    if (half < 4) {
      for (int32_t g = 0; g < n; g += span) {
        for (int32_t k = 0; k < half; k++) {
          const int32_t a = g + k, b = a + half;
          const float t_re = w_re[k] * re[b] - w_im[k] * im[b];
          const float t_im = w_re[k] * im[b] + w_im[k] * re[b];
          re[b] = re[a] - t_re;
          im[b] = im[a] - t_im;
          re[a] += t_re;
          im[a] += t_im;
        }
      }
      continue;
    }
    // Four butterflies at a time; each lane does the scalar arithmetic.
    for (int32_t g = 0; g < n; g += span) {
      for (int32_t k = 0; k < half; k += 4) {
        float* ar = re + g + k;
        float* ai = im + g + k;
        const v4f wr = load4(w_re + k), wi = load4(w_im + k);
        const v4f br = load4(ar + half), bi = load4(ai + half);
        const v4f a_re = load4(ar), a_im = load4(ai);
        const v4f t_re = wr * br - wi * bi;
        const v4f t_im = wr * bi + wi * br;
        store4(ar + half, a_re - t_re);
        store4(ai + half, a_im - t_im);
        store4(ar, a_re + t_re);
        store4(ai, a_im + t_im);
      }
    }
  }
  memcpy(out_re, re, n * sizeof(float));
  memcpy(out_im, im, n * sizeof(float));
}

// Follows the loudest recent value of one signal (instant attack, slow
// release, never under the floor) and maps x into 0..1 against it.
float follow_and_map(kvl_audio* a, int32_t index, float x, float dt) {
  // A non-finite reading (NaN or infinite samples from a broken device)
  // would otherwise pin the follower at infinity for good: it reads 0 and
  // leaves the follower alone.
  if (!std::isfinite(x)) return 0.0f;
  float peak = a->peak_db[index];
  peak = peak >= x ? peak - kPeakReleaseDbPerSecond * dt : x;
  if (peak < kPeakFloorDb) peak = kPeakFloorDb;
  a->peak_db[index] = peak;
  const float q = std::clamp((x + kMappingRangeDb - peak) / kMappingRangeDb, 0.0f, 1.0f);
  return q * q;
}

float band_db(const kvl_audio* a, int32_t index) {
  const int32_t lo = a->band_lo[index], hi = a->band_hi[index];
  double part[2] = {0.0, 0.0};
  int32_t k = lo;
  for (; k + 1 <= hi; k += 2) {
    part[0] += (double)a->re[k] * a->re[k] + (double)a->im[k] * a->im[k];
    part[1] += (double)a->re[k + 1] * a->re[k + 1] + (double)a->im[k + 1] * a->im[k + 1];
  }
  if (k <= hi) part[0] += (double)a->re[k] * a->re[k] + (double)a->im[k] * a->im[k];
  const double p = part[0] + part[1];
  return (float)(10.0 * std::log10(p * kBandScale + 1e-12));
}

// The element a sorted copy of values[0..n) would hold at index n / 2.
// The scratch is a caller's stack array, so nothing is allocated.
float upper_median(const float* values, int32_t n, float* scratch) {
  std::copy(values, values + n, scratch);
  std::nth_element(scratch, scratch + n / 2, scratch + n);
  return scratch[n / 2];
}

void confirm_beat(kvl_audio* a, double previous, float bass_db) {
  a->pending = false;
  // The bass has to last: a click that drops more than 6 dB by the next
  // block was no kick.
  if (a->onset_db - kBassDropDb > bass_db) return;
  if (a->last_beat >= 0 && a->clock - a->last_beat < (double)kRefractorySeconds) return;
  if (a->last_beat >= 0) {
    a->intervals[a->interval_index] = (float)(previous - a->last_beat);
    a->interval_index = (a->interval_index + 1) % kIntervalRing;
    if (a->interval_count < kIntervalRing) a->interval_count++;
  }
  a->last_beat = previous;
  a->state.beat_count++;
  a->state.beat = 1.0f;
  if (a->interval_count < 4) return;

  // Fold every interval into 80..180 beats a minute so that half and double
  // time vote for the same tempo, then take the upper median.
  float folded[kIntervalRing];
  const int32_t n = a->interval_count;
  for (int32_t i = 0; i < n; i++) {
    float v = a->intervals[i];
    if (v > 0 && std::isfinite(v)) {
      while (v < kFoldShortest) v *= 2.0f;
      while (v > kFoldLongest) v *= 0.5f;
    }
    folded[i] = v;
  }
  std::sort(folded, folded + n);
  a->state.bpm = 60.0f / folded[n / 2];
}

void detect_onset(kvl_audio* a, float bass_db) {
  // Spectral flux of the bass: how far this block rises over the mean of the
  // last ten blocks.
  float flux = 0.0f;
  if (a->bass_count < kBassRing) {
    a->bass_history[a->bass_index] = bass_db;
    a->bass_index = (a->bass_index + 1) % kBassRing;
    a->bass_count++;
  } else {
    double sum = 0.0;
    for (int32_t i = 0; i < kBassRing; i++) sum += a->bass_history[i];
    const float mean = (float)(sum / kBassRing);
    flux = bass_db > mean ? bass_db - mean : 0.0f;
    a->bass_history[a->bass_index] = bass_db;
    a->bass_index = (a->bass_index + 1) % kBassRing;
  }

  if (a->flux_count < 8) {
    a->above = flux > kOnsetMinFlux;
  } else {
    // Adaptive threshold: median plus twice the median absolute deviation
    // of recent flux, so busy music needs a stronger rise than sparse music.
    const int32_t n = a->flux_count;
    float scratch[kFluxRing];
    float deviation[kFluxRing];
    const float median = upper_median(a->flux_history, n, scratch);
    for (int32_t i = 0; i < n; i++) deviation[i] = std::fabs(a->flux_history[i] - median);
    const float spread = upper_median(deviation, n, scratch);
    const float threshold = std::max(median + 2.0f * spread, kOnsetMinFlux);
    const bool hit = flux > threshold;
    // Only the rising edge counts: a long rise gives one onset.
    if (hit && !a->above) {
      a->pending = true;
      a->onset_db = bass_db;
    }
    a->above = hit;
  }
  // The current flux joins the history only after it has been judged.
  a->flux_history[a->flux_index] = flux;
  a->flux_index = (a->flux_index + 1) % kFluxRing;
  if (a->flux_count < kFluxRing) a->flux_count++;
}

void analysis_step(kvl_audio* a) {
  const float dt = (float)kBlock / (float)a->sample_rate;
  const double previous = a->clock;
  a->clock = previous + dt;

  // Four partial sums keep the additions from waiting on one another.
  double part[4] = {0.0, 0.0, 0.0, 0.0};
  float windowed[kWindow];
  for (int32_t i = 0; i < kWindow; i += 4) {
    for (int32_t j = 0; j < 4; j++) {
      const float s = a->samples[i + j];
      part[j] += (double)s * s;
      windowed[i + j] = s * a->window[i + j];
    }
  }
  const double energy = (part[0] + part[1]) + (part[2] + part[3]);
  fft_forward(windowed, a->re, a->im);

  // Mean square of the raw window, not the windowed one.
  const double level_db = 10.0 * std::log10(energy / kWindow + 1e-12);

  // The pulse decays before the gate so that it also dies in silence.
  a->state.beat = std::max(a->state.beat - kBeatDecayPerSecond * dt, 0.0f);

  if (level_db < kGateDb) {
    a->state.level = a->state.bass = a->state.mid = a->state.high = 0.0f;
    a->bass_count = 0;
    a->above = false;
    a->pending = false;
    return;
  }

  a->state.level = follow_and_map(a, kLevel, (float)level_db, dt);
  float bass_db = 0.0f;
  float* signal[4] = {&a->state.level, &a->state.bass, &a->state.mid, &a->state.high};
  for (int32_t index = kBass; index <= kHigh; index++) {
    const float b = a->band_hi[index] < a->band_lo[index] ? -120.0f : band_db(a, index);
    *signal[index] = follow_and_map(a, index, b, dt);
    if (index == kBass) bass_db = b;
  }

  if (a->pending) confirm_beat(a, previous, bass_db);
  detect_onset(a, bass_db);
}

}  // namespace

kvl_audio* kvl_audio_create(int32_t sample_rate) {
  kvl_audio* a = (kvl_audio*)calloc(1, sizeof(kvl_audio));
  if (!a) return nullptr;
  if (sample_rate < 1) sample_rate = 48000;
  a->sample_rate = sample_rate;
  twiddles();  // built once per process, here rather than on a capture thread
  const float two_pi = 6.28318530717959f;
  for (int32_t i = 0; i < kWindow; i++) a->window[i] = 0.5f - 0.5f * std::cos(two_pi * (float)i / 1023.0f);
  // Bins of 20 Hz, 150 Hz, 2 kHz and 16 kHz for a 1024-point transform.
  a->band_lo[kBass] = band_edge(20480.0, sample_rate);
  a->band_hi[kBass] = band_edge(153600.0, sample_rate);
  a->band_lo[kMid] = band_edge(153600.0, sample_rate) + 1;
  a->band_hi[kMid] = band_edge(2048000.0, sample_rate);
  a->band_lo[kHigh] = band_edge(2048000.0, sample_rate) + 1;
  a->band_hi[kHigh] = band_edge(16384000.0, sample_rate);
  for (int32_t i = 0; i < 5; i++) a->peak_db[i] = kPeakFloorDb;
  a->last_beat = -1.0;
  return a;
}

void kvl_audio_destroy(kvl_audio* audio) { free(audio); }

void kvl_audio_feed(kvl_audio* audio, const float* samples, int32_t count) {
  if (!audio || !samples || count < 1) return;
  int32_t done = 0;
  while (done < count) {
    const int32_t take = std::min(count - done, kBlock - audio->fill);
    memcpy(audio->samples + kBlock + audio->fill, samples + done, (size_t)take * sizeof(float));
    audio->fill += take;
    done += take;
    if (audio->fill == kBlock) {
      analysis_step(audio);
      // Slide by one block: the newer half becomes the older one.
      memcpy(audio->samples, audio->samples + kBlock, kBlock * sizeof(float));
      audio->fill = 0;
    }
  }
}

void kvl_audio_get(const kvl_audio* audio, kvl_audio_state* out) {
  if (!audio || !out) return;
  *out = audio->state;
}

// ---------------------------------------------------------------------------
// Named sources: capture threads push, the render thread reads. Analysis
// happens on the pushing thread inside the one lock; only the 32-byte state
// crosses to readers, so there is no queue of audio to overflow.

namespace {

constexpr int32_t kSlots = 16;
constexpr int64_t kLiveMs = 250;

struct kvl_audio_slot {
  char name[64];
  kvl_audio* analyser;   // null: free slot
  int64_t last_push_ms;  // monotonic; 0: never pushed
};

kvl_audio_slot g_slots[kSlots];
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
// Set without the lock: a reader sees the old gain or the new one.
std::atomic<float> g_gain{1.0f};

int64_t monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + (int64_t)ts.tv_nsec / 1000000;
}

// Caller holds g_lock.
kvl_audio_slot* find_slot(const char* name) {
  for (int32_t i = 0; i < kSlots; i++)
    if (g_slots[i].analyser && strcmp(g_slots[i].name, name) == 0) return &g_slots[i];
  return nullptr;
}

}  // namespace

void kvl_audio_source_start(const char* name, int32_t sample_rate) {
  if (!name) name = "";
  // Built before taking the lock so that readers never wait on the window
  // table; the swap itself is what the lock guards.
  kvl_audio* fresh = kvl_audio_create(sample_rate);
  if (!fresh) return;
  kvl_audio* old = nullptr;
  pthread_mutex_lock(&g_lock);
  kvl_audio_slot* slot = find_slot(name);
  for (int32_t i = 0; !slot && i < kSlots; i++)
    if (!g_slots[i].analyser) slot = &g_slots[i];
  if (slot) {
    old = slot->analyser;
    // Names of 64 bytes or more are kept cut, and then match nothing.
    strncpy(slot->name, name, sizeof slot->name - 1);
    slot->name[sizeof slot->name - 1] = '\0';
    slot->analyser = fresh;
    slot->last_push_ms = 0;
    fresh = nullptr;
  }
  pthread_mutex_unlock(&g_lock);
  kvl_audio_destroy(old);
  kvl_audio_destroy(fresh);  // table full: the 17th source is dropped
}

void kvl_audio_source_stop(const char* name) {
  if (!name) name = "";
  kvl_audio* old = nullptr;
  pthread_mutex_lock(&g_lock);
  if (kvl_audio_slot* slot = find_slot(name)) {
    old = slot->analyser;
    slot->analyser = nullptr;
    slot->name[0] = '\0';
  }
  pthread_mutex_unlock(&g_lock);
  kvl_audio_destroy(old);
}

void kvl_audio_source_push(const char* name, const float* samples, int32_t count) {
  if (!samples || count < 1) return;
  if (!name) name = "";
  float scaled[kBlock];
  pthread_mutex_lock(&g_lock);
  kvl_audio_slot* slot = find_slot(name);
  if (!slot) {
    pthread_mutex_unlock(&g_lock);
    return;
  }
  for (int32_t done = 0; done < count;) {
    const int32_t n = std::min(count - done, kBlock);
    const float gain = g_gain.load(std::memory_order_relaxed);
    for (int32_t i = 0; i < n; i++) scaled[i] = samples[done + i] * gain;
    kvl_audio_feed(slot->analyser, scaled, n);
    done += n;
  }
  slot->last_push_ms = monotonic_ms();
  pthread_mutex_unlock(&g_lock);
}

void kvl_audio_source_read(const char* name, kvl_audio_state* out) {
  if (!out) return;
  if (!name) name = "";
  memset(out, 0, sizeof *out);
  pthread_mutex_lock(&g_lock);
  kvl_audio_slot* slot = find_slot(name);
  if (!slot) {
    pthread_mutex_unlock(&g_lock);
    return;
  }
  kvl_audio_get(slot->analyser, out);
  const int64_t last = slot->last_push_ms;
  if (last >= 1 && monotonic_ms() - last < kLiveMs) {
    out->live = 1;
  } else {
    // A source that went quiet reads as silent whatever it last heard; the
    // tempo and the count of beats stay readable.
    out->live = 0;
    out->level = out->bass = out->mid = out->high = out->beat = 0.0f;
  }
  pthread_mutex_unlock(&g_lock);
}

void kvl_audio_start(int32_t sample_rate) { kvl_audio_source_start("", sample_rate); }

void kvl_audio_stop(void) { kvl_audio_source_stop(""); }

void kvl_audio_push(const float* interleaved, int32_t frames, int32_t channels) {
  if (!interleaved || frames < 1 || channels < 1) return;
  const float scale = 1.0f / (float)channels;
  float mono[kBlock];
  for (int32_t done = 0; done < frames;) {
    const int32_t n = std::min(frames - done, kBlock);
    for (int32_t f = 0; f < n; f++) {
      const float* frame = interleaved + (size_t)(done + f) * (size_t)channels;
      float sum = 0.0f;
      for (int32_t c = 0; c < channels; c++) sum += frame[c];
      mono[f] = sum * scale;
    }
    kvl_audio_source_push("", mono, n);
    done += n;
  }
}

void kvl_audio_read(kvl_audio_state* out) { kvl_audio_source_read("", out); }

void kvl_audio_set_gain(float gain) {
  // No muting by gain: zero, negative (and NaN) restore unity.
  g_gain.store(gain > 0.0f ? gain : 1.0f, std::memory_order_relaxed);
}
