// Fuzzes layer preparation and the CPU compositor through the engine: the
// first two bytes pick a small frame size, the rest is a scene document. A
// scene that parses is drawn on one thread and on three, once more from the
// frame cache, and with every kernel set the processor runs; the pictures
// must be byte for byte the same, and nothing may read or write outside the
// frame (AddressSanitizer) whatever shapes, masks, meshes or effect sizes the
// document holds.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

// Sources under the keys the seed scenes use: one with an alpha ramp, one
// of a single pixel, one declared without pixels.
void add_sources(kvl_engine* e) {
  static std::vector<uint8_t> img = [] {
    std::vector<uint8_t> px(7 * 5 * 4);
    for (size_t i = 0; i < px.size(); i++) px[i] = static_cast<uint8_t>(i * 37 + (i % 4 == 3 ? 0 : 11));
    return px;
  }();
  static const uint8_t dot[4] = {200, 10, 90, 255};
  kvl_engine_set_source(e, "grad", img.data(), 7, 5, 7 * 4);
  kvl_engine_set_source(e, "checker", dot, 1, 1, 4);
  kvl_engine_declare_source(e, "video", 640, 360);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int32_t w = 1 + data[0] % 64, h = 1 + data[1] % 48;
  char* text = static_cast<char*>(malloc(size - 1));
  if (!text) return 0;
  memcpy(text, data + 2, size - 2);
  text[size - 2] = '\0';
  kvl_engine* e = kvl_engine_create(text, w, h, nullptr);
  free(text);
  if (!e) return 0;
  add_sources(e);
  // Exactly width * 4 bytes a row, so that a write past the frame is caught.
  const size_t bytes = static_cast<size_t>(w) * h * 4;
  std::vector<uint8_t> one(bytes), three(bytes), cached(bytes);
  kvl_engine_set_threads(e, 1);
  if (kvl_engine_render(e, 250000, one.data(), w * 4) != 0) abort();
  kvl_engine_set_threads(e, 3);
  if (kvl_engine_render(e, 250000, three.data(), w * 4) != 0) abort();
  if (kvl_engine_render(e, 250000, cached.data(), w * 4) != 0) abort();
  if (one != three || one != cached) abort();
  // Every kernel set this processor runs draws the same bytes.
  for (const char* set : {"plain", "avx2", "avx512"}) {
    if (!kvl_cpu_use(set)) continue;
    std::vector<uint8_t> other(bytes);
    kvl_engine_set_threads(e, 1);
    if (kvl_engine_render(e, 250000, other.data(), w * 4) != 0 || other != one) abort();
  }
  kvl_cpu_use(nullptr);
  // The frame starts opaque and blending onto opaque pixels keeps them so.
  for (size_t i = 3; i < bytes; i += 4)
    if (one[i] != 255) abort();
  kvl_engine_destroy(e);
  return 0;
}
