// Reference pictures: small scenes rendered at given moments and compared
// byte for byte with checked-in PNGs. After an intended change of the
// picture, regenerate them with KAVLEN_UPDATE_GOLDEN=1 and look at them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "image_file.h"
#include "kavlen/kavlen.h"

namespace {

const std::string kDir = std::string(KAVLEN_SOURCE_DIR) + "/tests/golden/";
constexpr int kW = 160, kH = 90;

// Procedural sources: a gradient with an alpha ramp (exercises the
// premultiplied filter) and an opaque checker.
std::vector<uint8_t> gradient(int w, int h) {
  std::vector<uint8_t> px((size_t)w * h * 4);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      uint8_t* p = &px[((size_t)y * w + x) * 4];
      p[0] = (uint8_t)(255 * x / (w - 1));
      p[1] = (uint8_t)(255 * y / (h - 1));
      p[2] = (uint8_t)(255 - 255 * x / (w - 1));
      p[3] = (uint8_t)(x < w / 8 ? 0 : 64 + 191 * y / (h - 1));
    }
  return px;
}

std::vector<uint8_t> checker(int w, int h) {
  std::vector<uint8_t> px((size_t)w * h * 4);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      uint8_t* p = &px[((size_t)y * w + x) * 4];
      const bool on = ((x / 8) + (y / 8)) % 2;
      p[0] = on ? 250 : 20;
      p[1] = on ? 220 : 90;
      p[2] = on ? 60 : 200;
      p[3] = 255;
    }
  return px;
}

std::vector<uint8_t> render(const std::string& scene, double time_ms, int threads) {
  std::ifstream in(kDir + scene + ".json", std::ios::binary);
  EXPECT_TRUE(in.good()) << scene;
  std::ostringstream text;
  text << in.rdbuf();
  kvl_engine* e = kvl_engine_create(text.str().c_str(), kW, kH, nullptr);
  EXPECT_NE(e, nullptr) << kvl_last_error();
  if (!e) return {};
  const auto g = gradient(64, 48), c = checker(96, 96);
  EXPECT_EQ(kvl_engine_set_source(e, "grad", g.data(), 64, 48, 64 * 4), 0);
  EXPECT_EQ(kvl_engine_set_source(e, "checker", c.data(), 96, 96, 96 * 4), 0);
  kvl_engine_set_threads(e, threads);
  // The second frame reads its masks from the frame cache and must not differ.
  std::vector<uint8_t> px((size_t)kW * kH * 4), again(px.size());
  const int64_t t = (int64_t)(time_ms * 1000);
  EXPECT_EQ(kvl_engine_render(e, t, px.data(), kW * 4), 0);
  EXPECT_EQ(kvl_engine_render(e, t, again.data(), kW * 4), 0);
  EXPECT_EQ(px, again) << "cached masks changed the picture of " << scene;
  kvl_engine_destroy(e);
  return px;
}

struct Case {
  const char* scene;
  double time_ms;
};

class GoldenRender : public ::testing::TestWithParam<Case> {};

// Every kernel set this processor runs draws the checked-in picture.
TEST_P(GoldenRender, MatchesReferencePicture) {
  const Case& c = GetParam();
  const std::vector<uint8_t> px = render(c.scene, c.time_ms, 1);
  ASSERT_FALSE(px.empty());
  for (const char* set : {"plain", "avx2", "avx512"}) {
    if (kvl_cpu_use(set)) {
      EXPECT_EQ(px, render(c.scene, c.time_ms, 1)) << set << " changed the picture";
    }
  }
  kvl_cpu_use(nullptr);
  const std::string path = kDir + c.scene + "-" + std::to_string((int)c.time_ms) + ".png";
  std::string error;
  const char* update = getenv("KAVLEN_UPDATE_GOLDEN");
  if (update && *update == '1') {
    ASSERT_TRUE(ImageFile::write_png(path, px.data(), kW, kH, kW * 4, error)) << error;
    GTEST_SKIP() << "wrote " << path;
  }
  ImageFile ref;
  ASSERT_TRUE(ImageFile::load(path, ref, error)) << error << " (KAVLEN_UPDATE_GOLDEN=1 writes it)";
  ASSERT_TRUE(ref.width == kW && ref.height == kH);
  size_t differing = 0, first = px.size();
  for (size_t i = 0; i < px.size(); i++)
    if (px[i] != ref.rgba[i]) {
      if (first == px.size()) first = i;
      differing++;
    }
  EXPECT_EQ(differing, 0u) << "first difference at pixel (" << first / 4 % kW << ", " << first / 4 / kW << ")";
}

// Kept apart from the picture comparison: the emulated arm64 leg of CI runs
// no test with threads.
class GoldenRenderThreads : public ::testing::TestWithParam<Case> {};

TEST_P(GoldenRenderThreads, ThreadCountKeepsThePicture) {
  const Case& c = GetParam();
  EXPECT_EQ(render(c.scene, c.time_ms, 1), render(c.scene, c.time_ms, 3));
}

const auto kCases = ::testing::Values(Case{"quads", 0}, Case{"mesh", 0}, Case{"shapes", 0}, Case{"effects", 0},
                                      Case{"timeline", 100}, Case{"timeline", 700}, Case{"timeline", 1400});

std::string case_name(const ::testing::TestParamInfo<Case>& p) {
  return std::string(p.param.scene) + "_" + std::to_string((int)p.param.time_ms);
}

INSTANTIATE_TEST_SUITE_P(Scenes, GoldenRenderThreads, kCases, case_name);

INSTANTIATE_TEST_SUITE_P(Scenes, GoldenRender, kCases, case_name);

}  // namespace
