// Fuzzes the signal-file parser and everything that reads a parsed table:
// any byte string is parsed; a table that parses must honour the header's
// promises, read values in 0..1 at every moment (ordinary, negative, huge,
// non-finite), and drive a file envelope through an engine without harm.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kavlen/kavlen.h"

namespace {

const double kTimes[] = {0.0, 0.001, 11.6, 500.0, 1e4, 3.6e6, -1.0, -1e9, 1e15, 9.3e18, 1e300,
                         INFINITY, -INFINITY, NAN};

// One layer whose opacity follows the bass of a file track with two
// overlapping, faded clips of the same table.
const char* kScene = R"({"audioTracks":[{"id":"t","clips":[
  {"startMs":0,"lengthMs":600000,"fadeInMs":300,"path":"fuzz.wav"},
  {"startMs":250,"lengthMs":100,"trimStartMs":40,"fadeOutMs":70,"path":"fuzz.wav"}]}],
 "mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color"},
  "modulations":[{"id":"m","source":"bass","prop":"opacity","track":"t","attackMs":30,"releaseMs":90}]}]})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0x7fffffff) return 0;
  const int32_t length = static_cast<int32_t>(size);
  kvl_signals* s = kvl_signals_parse(data, length);
  if (!s) return 0;
  if (!s->frames || !(s->frame_rate > 0.0f)) abort();
  if (static_cast<uint64_t>(s->frame_count) * 5 + 24 > size) abort();
  if (s->frame_count > 0 && s->frames[5 * static_cast<size_t>(s->frame_count) - 1] != data[24 + 5 * static_cast<size_t>(s->frame_count) - 1])
    abort();
  for (double t : kTimes) {
    float out[5];
    kvl_signals_at(s, out, t);
    for (float v : out)
      if (!(v >= 0.0f && v <= 1.0f)) abort();
  }
  kvl_signals_free(s);

  static kvl_engine* engine = kvl_engine_create(kScene, 4, 4, nullptr);
  if (!engine) abort();
  if (kvl_engine_set_track_signals(engine, "fuzz.wav", data, length) != 0) abort();
  for (double t : kTimes) {
    kvl_engine_set_audio_time(engine, t);
    double e = kvl_engine_envelope_at(engine, "m", 0);
    if (!(e >= 0.0 && e <= 1.0)) abort();
  }
  kvl_engine_set_audio_time(engine, -1.0);
  return 0;
}
