// Mask routines at the size of a full working surface (1280 x 720): the blur
// of a soft edge or glow, the dilation of a stroke, and the scan conversion
// of a flattened outline.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kavlen/kavlen_engine.h"

namespace {

constexpr int kW = KVL_SURFACE_W, kH = KVL_SURFACE_H;

// A wavy closed outline of n points around the surface centre.
std::vector<double> outline(int n) {
  std::vector<double> pts(2 * n);
  for (int i = 0; i < n; i++) {
    const double a = 2 * M_PI * i / n;
    const double r = 0.8 + 0.15 * std::sin(5 * a);
    pts[2 * i] = kW / 2 + r * (kW / 2 - 20) * std::cos(a);
    pts[2 * i + 1] = kH / 2 + r * (kH / 2 - 20) * std::sin(a);
  }
  return pts;
}

std::vector<uint8_t> surface_mask() {
  std::vector<uint8_t> m((size_t)kW * kH);
  auto pts = outline(64);
  kvl_raster_polygon(pts.data(), 64, m.data(), kW, kH, 0);
  std::mt19937 rng(1);
  for (int i = 0; i < 20000; i++) m[rng() % m.size()] = (uint8_t)rng();
  return m;
}

// Blur and morphology cost the same whatever the data, so the mask is not
// restored between iterations.
void BM_Blur(benchmark::State& state) {
  auto m = surface_mask();
  const double sigma = (double)state.range(0);
  for (auto _ : state) {
    kvl_blur8(m.data(), kW, kH, sigma);
    benchmark::DoNotOptimize(m.data());
  }
}
BENCHMARK(BM_Blur)->Arg(2)->Arg(12)->Arg(60)->Unit(benchmark::kMillisecond);

void BM_Dilate(benchmark::State& state) {
  auto m = surface_mask();
  const int r = (int)state.range(0);
  for (auto _ : state) {
    kvl_dilate8(m.data(), kW, kH, r);
    benchmark::DoNotOptimize(m.data());
  }
}
BENCHMARK(BM_Dilate)->Arg(1)->Arg(20)->Arg(200)->Unit(benchmark::kMillisecond);

void BM_Erode(benchmark::State& state) {
  auto m = surface_mask();
  const int r = (int)state.range(0);
  for (auto _ : state) {
    kvl_erode8(m.data(), kW, kH, r);
    benchmark::DoNotOptimize(m.data());
  }
}
BENCHMARK(BM_Erode)->Arg(20)->Unit(benchmark::kMillisecond);

void BM_Raster(benchmark::State& state) {
  const int n = (int)state.range(0);
  auto pts = outline(n);
  std::vector<uint8_t> m((size_t)kW * kH);
  for (auto _ : state) {
    kvl_raster_polygon(pts.data(), n, m.data(), kW, kH, 0);
    benchmark::DoNotOptimize(m.data());
  }
}
BENCHMARK(BM_Raster)->Arg(64)->Arg(1024)->Unit(benchmark::kMillisecond);

}  // namespace
