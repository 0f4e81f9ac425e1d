// Signal files: the "KVLS" parser and its refusals, the interpolating reader,
// and the file analysis that writes them and loading them back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

using Signals = std::unique_ptr<kvl_signals, void (*)(kvl_signals*)>;
Signals own(kvl_signals* s) { return Signals(s, kvl_signals_free); }

// A signal file in memory: header fields as given, then `frames` (5 bytes each).
std::vector<uint8_t> file_bytes(float rate, float start, float tempo, uint32_t count,
                                const std::vector<uint8_t>& frames, uint32_t version = 1,
                                const char* magic = "KVLS") {
  std::vector<uint8_t> b(magic, magic + 4);
  uint32_t words[5] = {version, 0, 0, 0, count};
  memcpy(&words[1], &rate, 4);
  memcpy(&words[2], &start, 4);
  memcpy(&words[3], &tempo, 4);
  for (uint32_t v : words)
    for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  b.insert(b.end(), frames.begin(), frames.end());
  return b;
}

kvl_signals* parse(const std::vector<uint8_t>& b) {
  return kvl_signals_parse(b.data(), static_cast<int32_t>(b.size()));
}

struct TempDir {
  char tmpl[32] = "/tmp/kavlen-signals-XXXXXX";
  std::string path = mkdtemp(tmpl) ? tmpl : "/nonexistent/kavlen";
  ~TempDir() { EXPECT_EQ(system(("rm -rf '" + path + "'").c_str()), 0); }
  std::string file(const char* name) const { return path + "/" + name; }
};

void write_file(const std::string& path, const void* data, size_t n) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(n ? fwrite(data, 1, n, f) : 0, n);
  fclose(f);
}

TEST(SignalsParse, RefusesEveryMalformedFileAndCopiesGoodOnes) {
  const std::vector<uint8_t> two(10, 7);
  const auto good = file_bytes(100.0f, 0.0f, 120.0f, 2, two);
  for (size_t n = 0; n < good.size(); n++)  // every truncation
    EXPECT_EQ(kvl_signals_parse(good.data(), static_cast<int32_t>(n)), nullptr) << "length " << n;
  EXPECT_EQ(kvl_signals_parse(nullptr, 100), nullptr);
  EXPECT_EQ(kvl_signals_parse(good.data(), -1), nullptr);
  const std::vector<std::vector<uint8_t>> bad = {
      file_bytes(100.0f, 0, 0, 2, two, 2), file_bytes(100.0f, 0, 0, 2, two, 0),  // versions 2 and 0
      file_bytes(100.0f, 0, 0, 2, two, 1, "KVLs"),                              // magic is case-sensitive
      file_bytes(0.0f, 0, 0, 2, two), file_bytes(-86.0f, 0, 0, 2, two), file_bytes(NAN, 0, 0, 2, two),  // rates
      file_bytes(100.0f, 0, 0, 3, std::vector<uint8_t>(14, 1)),                 // one byte short
      file_bytes(100.0f, 0, 0, 0xFFFFFFFFu, two),                               // byte size overflows
      file_bytes(100.0f, 0, 0, 0x33333334u, two)};                              // 5n wraps to 4 in 32 bits
  for (size_t i = 0; i < bad.size(); i++) EXPECT_EQ(parse(bad[i]), nullptr) << "case " << i;

  std::vector<uint8_t> b = file_bytes(93.75f, 250.0f, 128.5f, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 99, 98});
  Signals s = own(parse(b));  // two trailing bytes are dropped
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(s->frame_rate == 93.75f && s->start_ms == 250.0f && s->tempo == 128.5f && s->frame_count == 2u);
  std::fill(b.begin(), b.end(), 0);  // the parser copies
  EXPECT_EQ(s->frames[9], 10);
  Signals empty = own(parse(file_bytes(86.0f, 0, 0, 0, {})));
  EXPECT_TRUE(empty && empty->frame_count == 0u);
}

TEST(SignalsAt, InterpolatesInsideAndIsZeroOutside) {
  // 10 frames a second (100 ms a frame), starting at 1000 ms.
  Signals s = own(parse(file_bytes(10.0f, 1000.0f, 0.0f, 3,
                                   {0, 255, 10, 100, 255, 255, 0, 20, 200, 0, 51, 51, 51, 51, 51})));
  ASSERT_NE(s, nullptr);
  float out[5];
  kvl_signals_at(s.get(), out, 1025.0);  // a quarter of the way to frame 1, beat too
  const double quarter[5] = {0.25, 0.75, 12.5 / 255.0, 125.0 / 255.0, 0.75};
  for (int k = 0; k < 5; k++) EXPECT_NEAR(out[k], quarter[k], 1e-6) << k;
  kvl_signals_at(s.get(), out, 1200.0);  // exactly the last frame
  for (float v : out) EXPECT_FLOAT_EQ(v, 0.2f);
  for (double t : {1200.001, 999.999, -1.0, static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
    float z[5] = {7, 7, 7, 7, 7};
    kvl_signals_at(s.get(), z, t);
    for (float v : z) EXPECT_EQ(v, 0.0f) << "time " << t;
  }
  float z[5] = {7, 7, 7, 7, 7};
  kvl_signals_at(nullptr, z, 1000.0);
  EXPECT_TRUE(std::all_of(z, z + 5, [](float v) { return v == 0.0f; }));
  kvl_signals_at(s.get(), nullptr, 1000.0);  // must not crash
}

TEST(SignalsAnalyze, FrameCountsHeaderAndSilence) {
  TempDir dir;
  struct Case { size_t samples; float value; int32_t rate, frames; float frame_rate; };
  const Case cases[] = {{513, 0.25f, 44100, 2, 86.1328125f}, {513, 0.25f, 48000, 2, 93.75f},
                        {512, 0.1f, 44100, 1, 86.1328125f},  {0, 0, 44100, 0, 86.1328125f},
                        {44100, 0, 44100, 87, 86.1328125f}};  // silence: ceil(44100 / 512) zero frames
  const std::string in = dir.file("in.f32"), out = dir.file("in.signals");
  for (const Case& c : cases) {
    const std::vector<float> s(c.samples, c.value);
    write_file(in, s.data(), s.size() * sizeof(float));
    ASSERT_EQ(kvl_signals_analyze_file(in.c_str(), c.rate, out.c_str()), c.frames) << c.samples;
    Signals t = own(kvl_signals_load(out.c_str()));
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(t->frame_rate == c.frame_rate && t->start_ms == 0.0f && t->frame_count == uint32_t(c.frames));
    for (uint32_t i = 0; c.value == 0 && i < 5 * t->frame_count; i++) ASSERT_EQ(t->frames[i], 0) << "byte " << i;
    EXPECT_TRUE(c.value != 0 || t->tempo == 0.0f);
  }
  // The second name runs the same analysis.
  EXPECT_EQ(kvl_audio_analyze_file(in.c_str(), 44100, out.c_str()), 87);
}

TEST(SignalsAnalyze, BadArgumentsAndUnwritableOutputGiveMinusOne) {
  TempDir dir;
  const std::vector<float> s(2048, 0.5f);
  const std::string in = dir.file("in.f32"), o = dir.file("o.signals");
  write_file(in, s.data(), s.size() * sizeof(float));
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 0, o.c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(nullptr, 44100, o.c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, nullptr), -1);
  EXPECT_EQ(kvl_signals_analyze_file(dir.file("nope.f32").c_str(), 44100, o.c_str()), -1);
  EXPECT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, dir.file("no/such/dir/o.signals").c_str()), -1);
  struct stat st;
  EXPECT_NE(stat(o.c_str(), &st), 0) << "no output after a failure";
  // Loading refuses a truncated table, a missing file and a directory.
  ASSERT_EQ(kvl_signals_analyze_file(in.c_str(), 44100, o.c_str()), 4);
  Signals t = own(kvl_signals_load(o.c_str()));
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(truncate(o.c_str(), 24 + 19), 0);
  for (const std::string& bad : {o, dir.file("missing.signals"), dir.path})
    EXPECT_EQ(kvl_signals_load(bad.c_str()), nullptr) << bad;
  EXPECT_EQ(kvl_signals_load(nullptr), nullptr);
  EXPECT_TRUE(access("/dev/full", W_OK) != 0 || kvl_signals_analyze_file(in.c_str(), 44100, "/dev/full") == -1);
}

}  // namespace
