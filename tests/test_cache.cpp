// Frame cache (budget, eviction by age, ownership of buffers), the key hash,
// the sources table and the YUV conversions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kavlen/kavlen_engine.h"

namespace {

uint8_t* block(uint64_t size, uint8_t fill = 0) {
  uint8_t* p = (uint8_t*)malloc(size ? size : 1);
  memset(p, fill, size ? size : 1);
  return p;
}

struct CacheHandle {
  kvl_cache* c;
  explicit CacheHandle(uint64_t budget) : c(kvl_cache_create(budget)) {}
  ~CacheHandle() { kvl_cache_free(c); }
  // Puts a fresh buffer; returns whether the cache kept it (frees it if not).
  bool put(uint64_t key, uint64_t size) {
    bool stored = false;
    uint8_t* p = kvl_cache_put(c, key, block(size, (uint8_t)key), size, &stored);
    if (!stored) free(p);
    return stored;
  }
  std::vector<uint64_t> keys(bool sorted = false) const {  // in table order unless sorted
    std::vector<uint64_t> k;
    for (int32_t i = 0; i < c->count; i++) k.push_back(c->entries[i].key);
    if (sorted) std::sort(k.begin(), k.end());
    return k;
  }
};
using Keys = std::vector<uint64_t>;

TEST(Cache, HashStartValueAndChaining) {
  EXPECT_EQ(kvl_hash(0, nullptr, 0), 0x14650FB0739D0383ull);
  EXPECT_EQ(kvl_hash(7, "", 0), 7u);
  // Reference values worked out independently of this code.
  EXPECT_EQ(kvl_hash(0, "a", 1), 0x44bd8ad473cd9906ull);
  EXPECT_EQ(kvl_hash(0, "kavlen", 6), 0x5829038351b3d6a6ull);
  EXPECT_EQ(kvl_hash(kvl_hash(0, "kav", 3), "len", 3), kvl_hash(0, "kavlen", 6));
}

TEST(Cache, NullHandles) {
  kvl_cache_free(nullptr);
  kvl_cache_begin_frame(nullptr);
  uint64_t size = 5;
  EXPECT_EQ(kvl_cache_get(nullptr, 1, &size), nullptr);
  uint8_t* p = block(4);
  bool stored = true;
  EXPECT_EQ(kvl_cache_put(nullptr, 1, p, 4, &stored), p);  // the caller keeps it
  EXPECT_FALSE(stored);
  free(p);
}

TEST(Cache, GetCountsHitsAndADuplicateNewcomerLoses) {
  CacheHandle h(0);
  uint64_t size = 99;
  EXPECT_EQ(kvl_cache_get(h.c, 42, &size), nullptr);
  EXPECT_TRUE(h.c->misses == 1u && size == 99u);  // size untouched on a miss
  uint8_t* p = block(16, 3);
  bool stored = false;
  EXPECT_EQ(kvl_cache_put(h.c, 42, p, 16, &stored), p);
  EXPECT_TRUE(stored && h.c->bytes_used == 16u);
  EXPECT_EQ(kvl_cache_get(h.c, 42, &size), p);
  EXPECT_EQ(kvl_cache_get(h.c, 42, nullptr), p);
  EXPECT_TRUE(size == 16u && h.c->hits == 2u);
  // Same key again: the second buffer is freed at once (a leak or double
  // free shows under the sanitizers) and both callers hold the first.
  stored = false;
  EXPECT_EQ(kvl_cache_put(h.c, 42, block(16, 2), 16, &stored), p);
  EXPECT_TRUE(stored && h.c->count == 1 && h.c->bytes_used == 16u && p[0] == 3);
}

TEST(Cache, CurrentFrameIsNeverEvicted) {
  CacheHandle h(100);
  ASSERT_TRUE(h.put(1, 40) && h.put(2, 40));
  // No room and everything was touched this frame: the newcomer stays out.
  EXPECT_FALSE(h.put(3, 40));
  EXPECT_TRUE(h.put(4, 20));  // what fits still goes in
  // One frame later the same entries are candidates, oldest first.
  kvl_cache_begin_frame(h.c);
  EXPECT_TRUE(h.put(3, 40));
  EXPECT_EQ(h.keys(true), (Keys{2, 3, 4}));

  // 2 is evicted to make room, but 5 belongs to this frame: 80 bytes cannot
  // fit next to it, so the buffer stays with the caller after all.
  CacheHandle g(100);
  ASSERT_TRUE(g.put(2, 30));
  kvl_cache_begin_frame(g.c);
  ASSERT_TRUE(g.put(5, 60));
  EXPECT_FALSE(g.put(6, 80));
  EXPECT_TRUE(g.keys() == Keys{5} && g.c->bytes_used == 60u);
}

TEST(Cache, EvictsOldestFirstWithSwapRemove) {
  CacheHandle h(100);
  ASSERT_TRUE(h.put(1, 25));  // frame 0
  kvl_cache_begin_frame(h.c);
  ASSERT_TRUE(h.put(2, 25) && h.put(3, 25));  // frame 1
  kvl_cache_begin_frame(h.c);
  ASSERT_TRUE(h.put(4, 25));  // frame 2
  EXPECT_NE(kvl_cache_get(h.c, 1, nullptr), nullptr);  // a hit makes 1 the newest
  kvl_cache_begin_frame(h.c);
  // Needs one slot: among the oldest (2 and 3, both frame 1) the first in
  // the table goes, and the last entry moves into its slot.
  ASSERT_TRUE(h.put(5, 25));
  EXPECT_EQ(h.keys(), (Keys{1, 4, 3, 5}));
  EXPECT_NE(kvl_cache_get(h.c, 1, nullptr), nullptr);  // 1 joins frame 3
  // Needs two slots at once: 3 (frame 1) then 4 (frame 2) go; 1 and 5 stay.
  kvl_cache_begin_frame(h.c);
  ASSERT_TRUE(h.put(6, 50));
  EXPECT_EQ(h.keys(true), (Keys{1, 5, 6}));
  EXPECT_EQ(h.c->bytes_used, 100u);
}

TEST(Cache, GrowingTheTableKeepsEveryEntry) {
  CacheHandle h(0);
  for (uint64_t k = 1; k <= 40; k++) ASSERT_TRUE(h.put(k, 8));  // past the first allocation
  for (uint64_t k = 1; k <= 40; k++) {
    uint64_t size = 0;
    const uint8_t* p = kvl_cache_get(h.c, k, &size);
    ASSERT_NE(p, nullptr) << k;
    EXPECT_TRUE(p[0] == (uint8_t)k && size == 8u) << k;
  }
}

std::vector<uint8_t> image(int w, int h, int stride, uint8_t seed) {
  std::vector<uint8_t> v((size_t)stride * h, 0xEE);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w * 4; x++) v[(size_t)y * stride + x] = (uint8_t)(seed + y * 31 + x);
  return v;
}

struct SourcesHandle {
  kvl_sources s{};
  ~SourcesHandle() { kvl_sources_free(&s); }
};

TEST(Sources, SetCopiesRowsByStrideOverwritesSameSizeAndReplacesNewSize) {
  SourcesHandle t;
  auto a = image(3, 2, 20, 1), b = image(3, 2, 20, 9), c = image(2, 5, 8, 50);  // a, b: 8 bytes of padding a row
  ASSERT_EQ(kvl_sources_set(&t.s, "a.png", a.data(), 3, 2, 20), 0);
  const kvl_source& e = t.s.entries[0];
  ASSERT_TRUE(t.s.count == 1 && e.pixels != nullptr && e.width == 3 && e.height == 2);
  EXPECT_STREQ(e.key, "a.png");
  EXPECT_TRUE(memcmp(e.pixels, a.data(), 12) == 0 && memcmp(e.pixels + 12, a.data() + 20, 12) == 0);
  // Same size: the buffer stays where it is, so borrowers see the new pixels.
  uint8_t* first = e.pixels;
  ASSERT_EQ(kvl_sources_set(&t.s, "a.png", b.data(), 3, 2, 20), 0);
  EXPECT_EQ(t.s.entries[0].pixels, first);
  EXPECT_TRUE(memcmp(first, b.data(), 12) == 0 && memcmp(first + 12, b.data() + 20, 12) == 0);
  ASSERT_EQ(kvl_sources_set(&t.s, "a.png", c.data(), 2, 5, 8), 0);
  EXPECT_TRUE(t.s.count == 1 && t.s.entries[0].width == 2 && t.s.entries[0].height == 5);
  EXPECT_EQ(memcmp(t.s.entries[0].pixels, c.data(), 40), 0);
}

TEST(Sources, BadArgumentsAndFree) {
  SourcesHandle t;
  auto a = image(2, 2, 8, 0);
  const uint8_t* px = a.data();
  const int bad[] = {kvl_sources_set(&t.s, nullptr, px, 2, 2, 8), kvl_sources_set(&t.s, "k", nullptr, 2, 2, 8),
                     kvl_sources_set(&t.s, "k", px, 0, 2, 8),     kvl_sources_set(&t.s, "k", px, 2, -1, 8),
                     kvl_sources_set(nullptr, "k", px, 2, 2, 8),  kvl_sources_declare(&t.s, nullptr, 2, 2),
                     kvl_sources_declare(&t.s, "k", 2, 0)};
  for (int r : bad) EXPECT_EQ(r, -1);
  EXPECT_EQ(t.s.count, 0);
  ASSERT_EQ(kvl_sources_set(&t.s, "k", px, 2, 2, 8), 0);
  kvl_sources_free(&t.s);
  EXPECT_TRUE(t.s.count == 0 && t.s.entries == nullptr);
  kvl_sources_free(&t.s);  // twice is harmless
  kvl_sources_free(nullptr);
}

using Px = std::array<int, 4>;

Px yuv_pixel(uint8_t y, uint8_t u, uint8_t v) {
  uint8_t out[4] = {1, 2, 3, 4};
  kvl_yuv420_to_rgba(&y, 1, &u, 1, 1, &v, 1, 1, 1, 1, out, 4);
  return {out[0], out[1], out[2], out[3]};
}

std::array<int, 3> rgb_pixel(uint8_t r, uint8_t g, uint8_t b) {
  const uint8_t in[4] = {r, g, b, 255};
  uint8_t y, u, v;
  kvl_rgba_to_yuv420(in, 4, 1, 1, &y, 1, &u, 1, 1, &v, 1, 1);
  return {y, u, v};
}

TEST(Yuv, KnownValuesBothWays) {
  struct Case { std::array<int, 3> yuv; Px rgba; } to_rgba[] = {
      {{235, 128, 128}, {255, 255, 255, 255}},  // c = 65390, >> 8 is 255
      {{82, 90, 240}, {255, 1, 0, 255}},  // red as the inverse writes it: R overshoots and clamps
      {{16, 128, 0}, {0, 104, 0, 255}},  // negative sums clamp to 0; 26752 >> 8 truncates 104.5
  };
  for (const Case& c : to_rgba) EXPECT_EQ(yuv_pixel(c.yuv[0], c.yuv[1], c.yuv[2]), c.rgba) << c.yuv[0];
  EXPECT_EQ(rgb_pixel(255, 255, 255), (std::array<int, 3>{235, 128, 128}));
  // -9562 >> 8 is -38 with an arithmetic shift (floor), not -37.
  EXPECT_EQ(rgb_pixel(255, 0, 0), (std::array<int, 3>{82, 90, 240}));
  EXPECT_EQ(rgb_pixel(0, 0, 255), (std::array<int, 3>{41, 240, 110}));
}

TEST(Yuv, OddSizesStridesAndInterleavedChroma) {
  // 5x3 image: chroma plane 3x2 from the top-left pixel of each 2x2 block.
  const int w = 5, h = 3, rs = 24, ys = 8, cs = 4;
  const std::vector<uint8_t> rgba = image(w, h, rs, 7);
  std::vector<uint8_t> Y((size_t)ys * h, 0xAB), U(cs * 2, 0xAB), V(cs * 2, 0xAB), Y2(Y.size()), UV(16, 0xAB);
  kvl_rgba_to_yuv420(rgba.data(), rs, w, h, Y.data(), ys, U.data(), cs, 1, V.data(), cs, 1);
  kvl_rgba_to_yuv420(rgba.data(), rs, w, h, Y2.data(), ys, UV.data(), 8, 2, UV.data() + 1, 8, 2);  // U, V, U, V...
  for (int cy = 0; cy < 2; cy++)
    for (int cx = 0; cx < 3; cx++) {
      const uint8_t* p = &rgba[(size_t)(2 * cy) * rs + 8 * cx];
      const auto want = rgb_pixel(p[0], p[1], p[2]);
      EXPECT_TRUE(U[cy * cs + cx] == want[1] && V[cy * cs + cx] == want[2] && UV[cy * 8 + 2 * cx] == want[1] &&
                  UV[cy * 8 + 2 * cx + 1] == want[2])
          << cx << "," << cy;
    }
  EXPECT_TRUE(U[3] == 0xAB && Y[5] == 0xAB);  // padding past the 3 chroma and 5 luma columns is untouched
  // Back again: planar and interleaved reads give the same image, and each
  // pixel uses the chroma of its block.
  std::vector<uint8_t> a((size_t)rs * h, 0), b((size_t)rs * h, 0);
  kvl_yuv420_to_rgba(Y.data(), ys, U.data(), cs, 1, V.data(), cs, 1, w, h, a.data(), rs);
  kvl_yuv420_to_rgba(Y2.data(), ys, UV.data(), 8, 2, UV.data() + 1, 8, 2, w, h, b.data(), rs);
  EXPECT_EQ(a, b);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const Px want = yuv_pixel(Y[(size_t)y * ys + x], U[(y / 2) * cs + x / 2], V[(y / 2) * cs + x / 2]);
      const uint8_t* p = &a[(size_t)y * rs + 4 * x];
      EXPECT_EQ((Px{p[0], p[1], p[2], p[3]}), want) << x << "," << y;
    }
  EXPECT_EQ(a[20], 0);  // row padding of the output is untouched
}

}  // namespace
