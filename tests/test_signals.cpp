// Signal files: parsing of the "KVLS" format and its refusals, the stateless
// reader with interpolation, loading from disk, and the file analysis that
// writes them from raw samples.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

struct SignalsDeleter {
  void operator()(kvl_signals* s) const { kvl_signals_free(s); }
};
using Signals = std::unique_ptr<kvl_signals, SignalsDeleter>;

void put32(std::vector<uint8_t>& b, uint32_t v) {
  for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void putf(std::vector<uint8_t>& b, float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  put32(b, u);
}

// A signal file in memory: header fields as given, then `frames` (5 bytes each).
std::vector<uint8_t> file_bytes(float rate, float start, float tempo, uint32_t count,
                                const std::vector<uint8_t>& frames, uint32_t version = 1,
                                const char* magic = "KVLS") {
  std::vector<uint8_t> b(magic, magic + 4);
  put32(b, version);
  putf(b, rate);
  putf(b, start);
  putf(b, tempo);
  put32(b, count);
  b.insert(b.end(), frames.begin(), frames.end());
  return b;
}

Signals parse(const std::vector<uint8_t>& b) {
  return Signals(kvl_signals_parse(b.data(), static_cast<int32_t>(b.size())));
}

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/kavlen-signals-XXXXXX";
    char* d = mkdtemp(tmpl);
    if (d) path_ = d;
  }
  ~TempDir() {
    if (!path_.empty()) {
      std::string cmd = "rm -rf '" + path_ + "'";
      if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path_.c_str());
    }
  }
  std::string file(const char* name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const void* data, size_t n) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  if (n) {
    ASSERT_EQ(fwrite(data, 1, n, f), n);
  }
  fclose(f);
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::vector<uint8_t> out;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return out;
  uint8_t buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  fclose(f);
  return out;
}

void write_samples(const std::string& path, const std::vector<float>& s) {
  write_file(path, s.data(), s.size() * sizeof(float));
}

// Bass thumps (a decaying 60 Hz tone) every `period` seconds over a quiet
// hiss, the plainest signal with a known tempo.
std::vector<float> thumps(double period, double seconds, int rate) {
  std::vector<float> s(static_cast<size_t>(seconds * rate));
  uint32_t noise = 12345;
  for (size_t i = 0; i < s.size(); i++) {
    double t = static_cast<double>(i) / rate;
    double since = std::fmod(t, period);
    double thump = 0.9 * std::sin(2 * M_PI * 60.0 * since) * std::exp(-since * 12.0);
    noise = noise * 1664525u + 1013904223u;
    double hiss = 0.002 * (static_cast<double>(noise >> 8) / 8388608.0 - 1.0);
    s[i] = static_cast<float>(thump + hiss);
  }
  return s;
}

TEST(SignalsParse, EmptyTableParsesAndReadsZeros) {
  auto b = file_bytes(86.0f, 0.0f, 0.0f, 0, {});
  ASSERT_EQ(b.size(), 24u);
  Signals s = parse(b);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->frame_count, 0u);
  EXPECT_NE(s->frames, nullptr);
  float out[5] = {9, 9, 9, 9, 9};
  for (double t : {-5.0, 0.0, 1000.0}) {
    kvl_signals_at(s.get(), out, t);
    for (float v : out) EXPECT_EQ(v, 0.0f);
  }
}

TEST(SignalsParse, RefusesEveryMalformedHeader) {
  std::vector<uint8_t> two(10, 7);
  auto good = file_bytes(100.0f, 0.0f, 120.0f, 2, two);
  ASSERT_NE(parse(good), nullptr);

  // Each truncation of the header and of the frames gives null.
  for (size_t n = 0; n < good.size(); n++)
    EXPECT_EQ(kvl_signals_parse(good.data(), static_cast<int32_t>(n)), nullptr) << "length " << n;
  EXPECT_EQ(kvl_signals_parse(nullptr, 100), nullptr);
  EXPECT_EQ(kvl_signals_parse(good.data(), -1), nullptr);

  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 2, two, 2)), nullptr);           // version 2
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 2, two, 0)), nullptr);           // version 0
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 2, two, 1, "KVLs")), nullptr);   // magic is case-sensitive
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 2, two, 1, "SLVK")), nullptr);   // byte order of the magic
  EXPECT_EQ(parse(file_bytes(0.0f, 0, 0, 2, two)), nullptr);                // rate 0
  EXPECT_EQ(parse(file_bytes(-86.0f, 0, 0, 2, two)), nullptr);              // negative rate
  EXPECT_EQ(parse(file_bytes(NAN, 0, 0, 2, two)), nullptr);                 // NaN rate
  // One byte more than the file holds.
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 3, std::vector<uint8_t>(14, 1))), nullptr);
  // Counts whose byte size overflows 32 bits must not wrap into "fits".
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 0xFFFFFFFFu, two)), nullptr);
  EXPECT_EQ(parse(file_bytes(100.0f, 0, 0, 0x33333334u, two)), nullptr);  // 5n wraps to 4 in 32 bits
}

TEST(SignalsParse, KeepsHeaderFieldsCopiesFramesAndDropsTrailingBytes) {
  std::vector<uint8_t> frames = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 99, 98};  // 2 frames + 2 trailing
  auto b = file_bytes(93.75f, 250.0f, 128.5f, 2, frames);
  Signals s = parse(b);
  ASSERT_NE(s, nullptr);
  EXPECT_FLOAT_EQ(s->frame_rate, 93.75f);
  EXPECT_FLOAT_EQ(s->start_ms, 250.0f);
  EXPECT_FLOAT_EQ(s->tempo, 128.5f);
  EXPECT_EQ(s->frame_count, 2u);
  // The parser copies: scribbling on the input changes nothing.
  std::fill(b.begin(), b.end(), 0);
  EXPECT_EQ(s->frames[0], 1);
  EXPECT_EQ(s->frames[9], 10);
}

TEST(SignalsAt, InterpolatesInsideAndIsZeroOutside) {
  // 10 frames a second (100 ms a frame), starting at 1000 ms.
  std::vector<uint8_t> frames = {0, 255, 10, 100, 255,   //
                                 255, 0, 20, 200, 0,     //
                                 51, 51, 51, 51, 51};
  Signals s = parse(file_bytes(10.0f, 1000.0f, 0.0f, 3, frames));
  ASSERT_NE(s, nullptr);
  float out[5];

  kvl_signals_at(s.get(), out, 1000.0);  // frame 0 exactly
  EXPECT_FLOAT_EQ(out[0], 0.0f);
  EXPECT_FLOAT_EQ(out[1], 1.0f);
  EXPECT_FLOAT_EQ(out[3], 100.0f / 255.0f);

  kvl_signals_at(s.get(), out, 1025.0);  // a quarter of the way to frame 1, beat too
  EXPECT_NEAR(out[0], 0.25, 1e-6);
  EXPECT_NEAR(out[1], 0.75, 1e-6);
  EXPECT_NEAR(out[2], 12.5 / 255.0, 1e-6);
  EXPECT_NEAR(out[4], 0.75, 1e-6);

  kvl_signals_at(s.get(), out, 1200.0);  // exactly the last frame
  for (float v : out) EXPECT_FLOAT_EQ(v, 0.2f);

  for (double t : {1200.001, 5000.0, 999.999, -1.0, static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
    float z[5] = {7, 7, 7, 7, 7};
    kvl_signals_at(s.get(), z, t);
    for (float v : z) EXPECT_EQ(v, 0.0f) << "time " << t;
  }

  float z[5] = {7, 7, 7, 7, 7};
  kvl_signals_at(nullptr, z, 1000.0);
  for (float v : z) EXPECT_EQ(v, 0.0f);
  kvl_signals_at(s.get(), nullptr, 1000.0);  // must not crash
  kvl_signals_free(nullptr);
}

TEST(SignalsLoad, ReadsWholeFilesAndRefusesBadOnes) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  std::vector<uint8_t> frames(5 * 4, 128);
  auto b = file_bytes(86.1328125f, 0, 120.0f, 4, frames);
  write_file(dir.file("a.signals"), b.data(), b.size());
  Signals s(kvl_signals_load(dir.file("a.signals").c_str()));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->frame_count, 4u);
  EXPECT_EQ(s->frames[19], 128);

  write_file(dir.file("empty.signals"), nullptr, 0);
  EXPECT_EQ(kvl_signals_load(dir.file("empty.signals").c_str()), nullptr);
  write_file(dir.file("short.signals"), b.data(), b.size() - 1);
  EXPECT_EQ(kvl_signals_load(dir.file("short.signals").c_str()), nullptr);
  EXPECT_EQ(kvl_signals_load(dir.file("missing.signals").c_str()), nullptr);
  EXPECT_EQ(kvl_signals_load(dir.path().c_str()), nullptr);  // a directory
  EXPECT_EQ(kvl_signals_load(nullptr), nullptr);
}

TEST(SignalsAnalyze, FramesFollowBlocksOf512AndHeaderIsWritten) {
  TempDir dir;
  std::vector<float> s(513, 0.25f);
  write_samples(dir.file("in.f32"), s);
  std::string out = dir.file("in.signals");
  ASSERT_EQ(kvl_signals_analyze_file(dir.file("in.f32").c_str(), 44100, out.c_str()), 2);
  auto bytes = read_file(out);
  ASSERT_EQ(bytes.size(), 24u + 10u);
  EXPECT_EQ(memcmp(bytes.data(), "KVLS", 4), 0);
  Signals t(kvl_signals_load(out.c_str()));
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->frame_rate, 86.1328125f);
  EXPECT_EQ(t->start_ms, 0.0f);
  EXPECT_EQ(t->frame_count, 2u);

  // The second name runs the same analysis; 48 kHz gives 93.75 frames a second.
  ASSERT_EQ(kvl_audio_analyze_file(dir.file("in.f32").c_str(), 48000, out.c_str()), 2);
  t.reset(kvl_signals_load(out.c_str()));
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->frame_rate, 93.75f);

  // 512 samples exactly: one frame; an empty input: a valid empty table.
  write_samples(dir.file("one.f32"), std::vector<float>(512, 0.1f));
  EXPECT_EQ(kvl_signals_analyze_file(dir.file("one.f32").c_str(), 44100, out.c_str()), 1);
  write_file(dir.file("none.f32"), nullptr, 0);
  EXPECT_EQ(kvl_signals_analyze_file(dir.file("none.f32").c_str(), 44100, out.c_str()), 0);
  t.reset(kvl_signals_load(out.c_str()));
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->frame_count, 0u);
  EXPECT_EQ(t->tempo, 0.0f);
}

TEST(SignalsAnalyze, BadArgumentsAndUnwritableOutputGiveMinusOne) {
  TempDir dir;
  write_samples(dir.file("in.f32"), std::vector<float>(2048, 0.5f));
  std::string in = dir.file("in.f32");
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 0, dir.file("o.signals").c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(nullptr, 44100, dir.file("o.signals").c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, nullptr), -1);
  EXPECT_EQ(kvl_signals_analyze_file(dir.file("nope.f32").c_str(), 44100, dir.file("o.signals").c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, dir.file("no/such/dir/o.signals").c_str()), -1);
  struct stat st;
  EXPECT_NE(stat(dir.file("o.signals").c_str(), &st), 0) << "no output after a failure";
  // A full device: the write fails (and the device itself is left alone).
  if (access("/dev/full", W_OK) == 0) {
    EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, "/dev/full"), -1);
    EXPECT_EQ(access("/dev/full", F_OK), 0);
  }
}

TEST(SignalsAnalyze, SilenceIsGatedToZeroBytes) {
  TempDir dir;
  write_samples(dir.file("quiet.f32"), std::vector<float>(44100, 0.0f));
  int32_t n = kvl_signals_analyze_file(dir.file("quiet.f32").c_str(), 44100, dir.file("q.signals").c_str());
  ASSERT_EQ(n, 87);  // ceil(44100 / 512)
  Signals s(kvl_signals_load(dir.file("q.signals").c_str()));
  ASSERT_NE(s, nullptr);
  for (uint32_t i = 0; i < 5 * s->frame_count; i++) ASSERT_EQ(s->frames[i], 0) << "byte " << i;
  EXPECT_EQ(s->tempo, 0.0f);
}

// The table is the live analyser run in file order: its beat frames land on
// the thumps, and the tempo field holds the analyser's final reading.
TEST(SignalsAnalyze, ThumpsAt120GiveBeatsAndTempo) {
  TempDir dir;
  const int rate = 44100;
  write_samples(dir.file("t.f32"), thumps(0.5, 12.0, rate));
  int32_t n = kvl_signals_analyze_file(dir.file("t.f32").c_str(), rate, dir.file("t.signals").c_str());
  ASSERT_GT(n, 1000);
  Signals s(kvl_signals_load(dir.file("t.signals").c_str()));
  ASSERT_NE(s, nullptr);
  EXPECT_NEAR(s->tempo, 120.0f, 120.0f * 0.02f);

  // Beat onsets: frames whose beat byte is 255 (the analyser's jump to 1).
  std::vector<double> beats;
  for (uint32_t k = 0; k < s->frame_count; k++)
    if (s->frames[5 * k + 4] == 255) beats.push_back(k / s->frame_rate);
  ASSERT_GE(beats.size(), 18u);  // 24 thumps, the first few warm the analyser up
  int near = 0;
  for (double b : beats) {
    double off = std::fmod(b, 0.5);
    if (std::min(off, 0.5 - off) < 0.070) near++;
  }
  EXPECT_GE(near, static_cast<int>(beats.size() * 9 / 10));
  // Level and bass move with the thumps.
  uint8_t bass_max = 0, level_max = 0;
  for (uint32_t k = 0; k < s->frame_count; k++) {
    bass_max = std::max(bass_max, s->frames[5 * k + 1]);
    level_max = std::max(level_max, s->frames[5 * k]);
  }
  EXPECT_GT(bass_max, 200);
  EXPECT_GT(level_max, 200);
}

}  // namespace
