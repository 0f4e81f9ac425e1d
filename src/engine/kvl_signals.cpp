// Signal files ("KVLS"): the pre-computed audio analysis of one media file,
// five bytes a frame (level, bass, mid, high, beat) behind a 24-byte
// little-endian header. Reading is stateless and indexed directly, so a
// timeline can ask for any moment after any jump. Writing runs the live
// analyser over a raw sample file in file order.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "engine_internal.h"

namespace {

constexpr int32_t kHeaderSize = 24;
constexpr uint32_t kVersion = 1;
constexpr int32_t kBlock = 512;
// Larger files are refused outright: a day of audio at 48 kHz is ~40 MB.
constexpr long kMaxFileSize = 268435456;

uint32_t read_u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

float read_f32(const uint8_t* p) {
  uint32_t u = read_u32(p);
  float f;
  memcpy(&f, &u, sizeof f);
  return f;
}

void put_u32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

void put_f32(uint8_t* p, float f) {
  uint32_t u;
  memcpy(&u, &f, sizeof u);
  put_u32(p, u);
}

// Clamp-and-round of one signal into a byte, in single precision as the
// readers of older files expect. NaN (never produced by the analyser, but a
// byte must come out) reads as 0.
uint8_t to_byte(float v) {
  if (!(v >= 0.0f)) return 0;
  if (v > 1.0f) return 255;
  return static_cast<uint8_t>(static_cast<int32_t>(v * 255.0f + 0.5f));
}

// Writes header and frames; false if anything is short or closing fails.
// A failed write leaves no file behind that could be read as complete.
bool write_signals(const char* path, float frame_rate, float tempo, const uint8_t* frames, uint32_t count) {
  FILE* f = fopen(path, "wb");
  if (!f) return false;
  uint8_t header[kHeaderSize];
  memcpy(header, "KVLS", 4);
  put_u32(header + 4, kVersion);
  put_f32(header + 8, frame_rate);
  put_f32(header + 12, 0.0f);
  put_f32(header + 16, tempo);
  put_u32(header + 20, count);
  bool ok = fwrite(header, 1, kHeaderSize, f) == static_cast<size_t>(kHeaderSize);
  size_t bytes = static_cast<size_t>(count) * 5;
  if (ok && bytes > 0) ok = fwrite(frames, 1, bytes, f) == bytes;
  // Only a regular file of our making is removed; a device or a pipe named
  // as the output is not ours to delete.
  struct stat st;
  bool regular = fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
  if (fclose(f) != 0) ok = false;
  if (!ok && regular) remove(path);
  return ok;
}

}  // namespace

kvl_signals* kvl_signals_parse(const void* bytes, int32_t length) {
  if (!bytes || length < kHeaderSize) return nullptr;
  const auto* p = static_cast<const uint8_t*>(bytes);
  if (memcmp(p, "KVLS", 4) != 0) return nullptr;
  if (read_u32(p + 4) != kVersion) return nullptr;
  float frame_rate = read_f32(p + 8);
  if (!(frame_rate > 0.0f)) return nullptr;  // also refuses NaN
  uint32_t count = read_u32(p + 20);
  int64_t need = static_cast<int64_t>(count) * 5;
  if (need > static_cast<int64_t>(length) - kHeaderSize) return nullptr;

  auto* s = static_cast<kvl_signals*>(calloc(1, sizeof(kvl_signals)));
  if (!s) return nullptr;
  // Never null, also for an empty table, so readers need no special case.
  s->frames = static_cast<uint8_t*>(malloc(need > 0 ? static_cast<size_t>(need) : 1));
  if (!s->frames) {
    free(s);
    return nullptr;
  }
  if (need > 0) memcpy(s->frames, p + kHeaderSize, static_cast<size_t>(need));
  s->frame_rate = frame_rate;
  s->start_ms = read_f32(p + 12);
  s->tempo = read_f32(p + 16);
  s->frame_count = count;
  return s;
}

kvl_signals* kvl_signals_load(const char* path) {
  if (!path) return nullptr;
  FILE* f = fopen(path, "rb");
  if (!f) return nullptr;
  long size = -1;
  if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
  if (size <= 0 || size > kMaxFileSize || fseek(f, 0, SEEK_SET) != 0) {
    fclose(f);
    return nullptr;
  }
  auto* block = static_cast<uint8_t*>(malloc(static_cast<size_t>(size)));
  if (!block) {
    fclose(f);
    return nullptr;
  }
  size_t got = fread(block, 1, static_cast<size_t>(size), f);
  fclose(f);
  kvl_signals* s = got == static_cast<size_t>(size) ? kvl_signals_parse(block, static_cast<int32_t>(size)) : nullptr;
  free(block);
  return s;
}

void kvl_signals_at(const kvl_signals* signals, float* out, double time_ms) {
  if (!out) return;
  for (int k = 0; k < 5; k++) out[k] = 0.0f;
  if (!signals || signals->frame_count == 0 || !signals->frames) return;
  const double n = static_cast<double>(signals->frame_count);
  double p = (static_cast<double>(signals->frame_rate) * 0.001) * (time_ms - static_cast<double>(signals->start_ms));
  // Outside the table every signal is 0; the last frame itself is inside.
  // The negated test also sends NaN out.
  if (!(p >= 0.0) || p > n - 1.0) return;
  uint32_t i = static_cast<uint32_t>(p);
  double f = p - static_cast<double>(i);
  uint32_t j = i + 1 < signals->frame_count ? i + 1 : i;
  const uint8_t* a = signals->frames + static_cast<size_t>(i) * 5;
  const uint8_t* b = signals->frames + static_cast<size_t>(j) * 5;
  for (int k = 0; k < 5; k++) {
    double bi = a[k], bj = b[k];
    out[k] = static_cast<float>((bi + (bj - bi) * f) / 255.0);
  }
}

void kvl_signals_free(kvl_signals* signals) {
  if (!signals) return;
  free(signals->frames);
  free(signals);
}

int32_t kvl_signals_analyze_file(const char* samples_path, int32_t sample_rate, const char* signals_path) {
  if (sample_rate < 1 || !samples_path || !signals_path) return -1;
  FILE* in = fopen(samples_path, "rb");
  if (!in) return -1;
  kvl_audio* audio = kvl_audio_create(sample_rate);
  size_t capacity = 4096;
  auto* frames = static_cast<uint8_t*>(malloc(capacity * 5));
  if (!audio || !frames) {
    kvl_audio_destroy(audio);
    free(frames);
    fclose(in);
    return -1;
  }

  // Reading a large run at a time keeps stdio out of the profile; the
  // analysis still sees blocks of 512 with the last one padded with zeros,
  // exactly as if it had read 512 at a time.
  constexpr size_t kRun = 64 * kBlock;
  static_assert(kRun % kBlock == 0, "runs hold whole blocks");
  auto* run = static_cast<float*>(malloc(kRun * sizeof(float)));
  if (!run) {
    kvl_audio_destroy(audio);
    free(frames);
    fclose(in);
    return -1;
  }

  uint32_t count = 0;
  kvl_audio_state st{};
  bool full = false;
  while (!full) {
    size_t got = fread(run, sizeof(float), kRun, in);
    if (got == 0) break;
    size_t padded = (got + kBlock - 1) / kBlock * kBlock;
    for (size_t k = got; k < padded; k++) run[k] = 0.0f;
    for (size_t off = 0; off < padded; off += kBlock) {
      if (count == capacity) {
        // Frame counts are int32 results; past that, or out of memory, the
        // frames made so far are kept and reading stops.
        size_t grown = capacity * 2;
        uint8_t* bigger = grown <= 0x7fffffffu ? static_cast<uint8_t*>(realloc(frames, grown * 5)) : nullptr;
        if (!bigger) {
          full = true;
          break;
        }
        frames = bigger;
        capacity = grown;
      }
      kvl_audio_feed(audio, run + off, kBlock);
      kvl_audio_get(audio, &st);
      uint8_t* fr = frames + static_cast<size_t>(count) * 5;
      fr[0] = to_byte(st.level);
      fr[1] = to_byte(st.bass);
      fr[2] = to_byte(st.mid);
      fr[3] = to_byte(st.high);
      fr[4] = to_byte(st.beat);
      count++;
    }
    if (got < kRun) break;
  }
  free(run);
  fclose(in);
  kvl_audio_get(audio, &st);
  float tempo = count > 0 ? st.bpm : 0.0f;
  kvl_audio_destroy(audio);

  float frame_rate = static_cast<float>(sample_rate) / static_cast<float>(kBlock);
  bool ok = write_signals(signals_path, frame_rate, tempo, frames, count);
  free(frames);
  return ok ? static_cast<int32_t>(count) : -1;
}

int32_t kvl_audio_analyze_file(const char* samples_path, int32_t sample_rate, const char* signals_path) {
  return kvl_signals_analyze_file(samples_path, sample_rate, signals_path);
}
