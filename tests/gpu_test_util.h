// Shared pieces of the GPU tests: one headless GL ES context per test
// process (EGL on Mesa's surfaceless platform, llvmpipe without a GPU), an
// offscreen target, media written to a temporary folder, and the comparison
// of a GPU picture with the CPU compositor's.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gl_headless.h"
#include "gl_output_renderer.h"
#include "image_file.h"
#include "kavlen/kavlen.h"

namespace gputest {

// The context is opened once and kept for the whole process. A machine
// without Mesa's EGL must fail these tests, not skip them.
inline HeadlessGl* context(std::string* why = nullptr) {
  // Never closed: terminating EGL at exit unloads Mesa's driver, whose
  // process-long allocations would then read as leaks.
  static HeadlessGl* gl = new HeadlessGl;
  static std::string error;
  static bool ok = gl->open(error);
  if (why) *why = error;
  return ok ? gl : nullptr;
}

class GpuTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    gl = context(&why);
    ASSERT_NE(gl, nullptr) << "no headless GL ES context (EGL surfaceless + Mesa needed): " << why;
    ASSERT_TRUE(gl->makeCurrent());
    char tmpl[] = "/tmp/kavlen-gpu-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    media = tmpl;
  }
  void TearDown() override {
    if (!media.empty()) std::filesystem::remove_all(media);
  }

  std::unique_ptr<GlOutputRenderer> makeRenderer() {
    std::string root = media;
    auto r = GlOutputRenderer::create([root] { return root; });
    EXPECT_NE(r, nullptr);
    return r;
  }

  // Writes a PNG into the media folder and returns its key.
  std::string writeImage(const std::string& key, int32_t w, int32_t h,
                         const std::function<void(int32_t x, int32_t y, uint8_t* rgba)>& pixel) {
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 4);
    for (int32_t y = 0; y < h; y++)
      for (int32_t x = 0; x < w; x++) pixel(x, y, &px[(static_cast<size_t>(y) * w + x) * 4]);
    std::string err;
    EXPECT_TRUE(ImageFile::write_png(media + "/" + key, px.data(), w, h, w * 4, err)) << err;
    return key;
  }

  HeadlessGl* gl = nullptr;
  std::string media;
};

struct Picture {
  int32_t w = 0, h = 0;
  std::vector<uint8_t> px;  // straight RGBA, top row first
  const uint8_t* at(int32_t x, int32_t y) const { return &px[(static_cast<size_t>(y) * w + x) * 4]; }
};

// Draws one frame through the renderer into a fresh offscreen target.
inline Picture drawGpu(GlOutputRenderer& r, int32_t w, int32_t h, int64_t tUs = 0) {
  Picture p;
  GlOffscreen fb;
  std::string err;
  EXPECT_TRUE(fb.create(w, h, err)) << err;
  EXPECT_TRUE(r.drawFrame(tUs, fb.target()));
  EXPECT_TRUE(fb.read(p.px));
  p.w = w;
  p.h = h;
  return p;
}

inline int channelDiff(const uint8_t* a, const uint8_t* b) {
  int d = 0;
  for (int c = 0; c < 4; c++) d = std::max(d, std::abs(int(a[c]) - int(b[c])));
  return d;
}

// How a GPU picture differs from the CPU compositor's.
//
// `within` is the share of pixels whose every channel differs by 2 or less.
// The rest must lie on anti-aliased edges. A pixel counts as such when, in
// the CPU picture, its 3x3 neighbourhood spans 12 or more in some channel (a
// geometric step: a shape's outline, a mask's hard border, an alpha hole in
// an image, also one seen through a translucent layer, rather than the slow
// change of a gradient, a blur or a feather) and the GPU's difference there
// is no larger than that span, as a shifted or differently covered edge
// gives. The GPU does not sample the outer edges of a quad 4x4, so such
// pixels may differ; `offEdge` counts the pixels that differ by more than 2
// anywhere else, and must be 0.
struct Comparison {
  double within = 0;
  int64_t offEdge = 0;
  int maxDiff = 0;
  int64_t lit = 0;  // CPU pixels that are not black: a blank scene compares too easily
  std::string firstOffEdge;
};

inline Comparison compare(const Picture& gpu, const Picture& cpu) {
  Comparison c;
  if (gpu.w != cpu.w || gpu.h != cpu.h) {
    c.offEdge = -1;
    return c;
  }
  const int32_t w = cpu.w, h = cpu.h;
  std::vector<uint8_t> span(static_cast<size_t>(w) * h, 0);
  for (int32_t y = 0; y < h; y++)
    for (int32_t x = 0; x < w; x++) {
      int lo[4] = {255, 255, 255, 255}, hi[4] = {0, 0, 0, 0};
      for (int32_t dy = -1; dy <= 1; dy++)
        for (int32_t dx = -1; dx <= 1; dx++) {
          int32_t nx = std::clamp(x + dx, 0, w - 1), ny = std::clamp(y + dy, 0, h - 1);
          const uint8_t* p = cpu.at(nx, ny);
          for (int k = 0; k < 4; k++) {
            lo[k] = std::min(lo[k], int(p[k]));
            hi[k] = std::max(hi[k], int(p[k]));
          }
        }
      int most = 0;
      for (int k = 0; k < 4; k++) most = std::max(most, hi[k] - lo[k]);
      span[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(most);
    }
  int64_t ok = 0;
  for (int32_t y = 0; y < h; y++)
    for (int32_t x = 0; x < w; x++) {
      const uint8_t* a = gpu.at(x, y);
      const uint8_t* b = cpu.at(x, y);
      if (b[0] || b[1] || b[2]) c.lit++;
      int d = channelDiff(a, b);
      c.maxDiff = std::max(c.maxDiff, d);
      if (d <= 2) {
        ok++;
      } else if (const int sp = span[static_cast<size_t>(y) * w + x]; sp < 12 || d > sp) {
        if (c.offEdge++ == 0) {
          char buf[160];
          snprintf(buf, sizeof buf, "(%d,%d) gpu %d,%d,%d,%d cpu %d,%d,%d,%d", x, y, a[0], a[1], a[2], a[3], b[0],
                   b[1], b[2], b[3]);
          c.firstOffEdge = buf;
        }
      }
    }
  c.within = static_cast<double>(ok) / (static_cast<double>(w) * h);
  return c;
}

// Saves both pictures under $KAVLEN_TEST_DUMP when it is set, to look at.
inline void dump(const std::string& name, const Picture& gpu, const Picture& cpu) {
  const char* dir = getenv("KAVLEN_TEST_DUMP");
  if (!dir || !*dir) return;
  std::string err;
  ImageFile::write_png(std::string(dir) + "/" + name + "-gpu.png", gpu.px.data(), gpu.w, gpu.h, gpu.w * 4, err);
  ImageFile::write_png(std::string(dir) + "/" + name + "-cpu.png", cpu.px.data(), cpu.w, cpu.h, cpu.w * 4, err);
}

}  // namespace gputest
