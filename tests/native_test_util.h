// Helpers of the offline compositor's tests: the bundled fonts, frames of a
// scene text, and comparison with the checked-in pictures of
// tests/golden/native (regenerate with KAVLEN_UPDATE_GOLDEN=1 after an
// intended change, and look at them).
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "image_file.h"
#include "native_compositor.h"

namespace nativetest {

inline void useBundledFonts() { setenv("KAVLEN_ASSETS", KAVLEN_SOURCE_DIR "/data/flutter_assets", 1); }

struct Frame {
  int w = 0, h = 0;
  std::vector<uint8_t> rgba;  // top row first
  const uint8_t* at(int x, int y) const { return &rgba[(static_cast<size_t>(y) * w + x) * 4]; }
};

inline Frame render(const std::string& sceneJson, int w, int h, int64_t ms = 0, const std::string& root = "") {
  useBundledFonts();
  kavlen::native::NativeCompositor c(kavlen::native::NativeScene::jsonText(sceneJson, w, h), root);
  Frame f{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 4)};
  c.render(ms, f.rgba.data(), static_cast<size_t>(w) * 4, kavlen::img::PixelOrder::RGBA);
  return f;
}

// Share of pixels whose channels all lie within `tol` of the other frame's.
inline double agreement(const Frame& a, const Frame& b, int tol) {
  if (a.w != b.w || a.h != b.h || a.rgba.empty()) return 0;
  size_t ok = 0, n = a.rgba.size() / 4;
  for (size_t i = 0; i < n; i++) {
    bool same = true;
    for (int c = 0; c < 4; c++) same = same && std::abs(int(a.rgba[i * 4 + c]) - int(b.rgba[i * 4 + c])) <= tol;
    ok += same;
  }
  return double(ok) / double(n);
}

// Compares with tests/golden/native/<name>.png: at least `share` of the
// pixels within `tol` per channel.
inline void expectGolden(const Frame& f, const std::string& name, int tol, double share) {
  const std::string path = std::string(KAVLEN_SOURCE_DIR) + "/tests/golden/native/" + name + ".png";
  std::string err;
  if (getenv("KAVLEN_UPDATE_GOLDEN")) {
    ASSERT_TRUE(ImageFile::write_png(path, f.rgba.data(), f.w, f.h, f.w * 4, err)) << err;
    return;
  }
  ImageFile g;
  ASSERT_TRUE(ImageFile::load(path, g, err)) << err << " (make it with KAVLEN_UPDATE_GOLDEN=1)";
  Frame want{g.width, g.height, g.rgba};
  double got = agreement(f, want, tol);
  EXPECT_GE(got, share) << name << ": only " << got * 100 << "% of pixels within " << tol;
  if (got < share) ImageFile::write_png("/tmp/kavlen-" + name + "-actual.png", f.rgba.data(), f.w, f.h, f.w * 4, err);
}

}  // namespace nativetest
