// Shared pieces of the GPU tests: one headless GL ES context per process (EGL
// surfaceless, llvmpipe without a GPU), an offscreen target, a media folder,
// and the comparison of a GPU picture with the CPU compositor's.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gl_headless.h"
#include "gl_output_renderer.h"
#include "image_file.h"
#include "kavlen/kavlen.h"

namespace gputest {

class GpuTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Opened once, never closed (terminating EGL unloads Mesa, whose
    // allocations would then read as leaks). No EGL must fail, not skip.
    static HeadlessGl* context = new HeadlessGl;
    static std::string why;
    static bool ok = context->open(why);
    ASSERT_TRUE(ok) << "no headless GL ES context (EGL surfaceless + Mesa needed): " << why;
    gl = context;
    ASSERT_TRUE(gl->makeCurrent());
    char tmpl[] = "/tmp/kavlen-gpu-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    media = tmpl;
  }
  void TearDown() override {
    if (!media.empty()) std::filesystem::remove_all(media);
  }
  std::unique_ptr<GlOutputRenderer> makeRenderer() {
    auto r = GlOutputRenderer::create([root = media] { return root; });
    EXPECT_NE(r, nullptr);
    return r;
  }
  HeadlessGl* gl = nullptr;
  std::string media;
};

struct Picture {
  int32_t w = 0, h = 0;
  std::vector<uint8_t> px;  // straight RGBA, top row first
  const uint8_t* at(int32_t x, int32_t y) const { return &px[(static_cast<size_t>(y) * w + x) * 4]; }
};

inline Picture drawGpu(GlOutputRenderer& r, int32_t w, int32_t h) {
  Picture p{w, h, {}};
  GlOffscreen fb;
  std::string err;
  EXPECT_TRUE(fb.create(w, h, err)) << err;
  EXPECT_TRUE(r.drawFrame(0, fb.target()));
  EXPECT_TRUE(fb.read(p.px));
  return p;
}

// `within`: share of pixels whose every channel differs by 2 or less. Any
// other pixel must lie on a geometric step of the CPU picture: its 3x3
// neighbourhood spans 12 or more in some channel, and the difference is no
// larger than that span. `offEdge` counts the rest and must be 0.
struct Comparison {
  double within = 0;
  int64_t offEdge = 0;
  int maxDiff = 0;
  int64_t lit = 0;  // non-black CPU pixels: a blank scene compares too easily
  std::string firstOffEdge;
};

inline Comparison compare(const Picture& gpu, const Picture& cpu) {
  Comparison c;
  if (gpu.w != cpu.w || gpu.h != cpu.h) {
    c.offEdge = -1;  // sizes differ: nothing compares
    return c;
  }
  const int32_t w = cpu.w, h = cpu.h;
  int64_t ok = 0;
  for (int32_t y = 0; y < h; y++)
    for (int32_t x = 0; x < w; x++) {
      const uint8_t *a = gpu.at(x, y), *b = cpu.at(x, y);
      c.lit += b[0] || b[1] || b[2];
      int d = 0, span = 0;
      for (int k = 0; k < 4; k++) d = std::max(d, std::abs(int(a[k]) - int(b[k])));
      c.maxDiff = std::max(c.maxDiff, d);
      if (d <= 2 && ++ok) continue;
      for (int k = 0; k < 4; k++) {
        int lo = 255, hi = 0;
        for (int32_t dy = -1; dy <= 1; dy++)
          for (int32_t dx = -1; dx <= 1; dx++) {
            const int v = cpu.at(std::clamp(x + dx, 0, w - 1), std::clamp(y + dy, 0, h - 1))[k];
            lo = std::min(lo, v), hi = std::max(hi, v);
          }
        span = std::max(span, hi - lo);
      }
      if ((span < 12 || d > span) && c.offEdge++ == 0)
        c.firstOffEdge = "(" + std::to_string(x) + "," + std::to_string(y) + ") diff " + std::to_string(d);
    }
  c.within = static_cast<double>(ok) / (static_cast<double>(w) * h);
  return c;
}

}  // namespace gputest
