// Rectangle detection: accuracy on rendered photos and the time for a
// 12-megapixel JPEG, reading and decoding included.
//
//   bench_vision --benchmark_filter=Accuracy    # mean IoU, found share, false-quad share
//   bench_vision --benchmark_filter=Detect12MP  # goal: <= 50 ms on 2 cores
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "picture.h"
#include "synthetic_photo.h"
#include "vision_plugin.h"

namespace {

using namespace kavlen::vision;

void BM_Accuracy(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = w * 3 / 4;
  AccuracyReport r;
  for (auto _ : state) r = measureAccuracy(200, 100, w, h, 1);
  int worst = 0;
  for (size_t i = 1; i < r.iou.size(); i++)
    if (r.iou[i] < r.iou[worst]) worst = static_cast<int>(i);
  state.counters["meanIoU"] = r.meanIoU;
  state.counters["found"] = r.foundShare;
  state.counters["falseQuads"] = r.falseShare;
  state.counters["worstIoU"] = r.iou.empty() ? 0 : r.iou[worst];
  state.counters["worstSeed"] = worst + 1;
}
BENCHMARK(BM_Accuracy)->Arg(800)->Arg(1600)->Iterations(1)->Unit(benchmark::kSecond);

// One 4000 x 3000 photo of a screen, stored turned (orientation 6).
struct TwelveMegapixels {
  std::string path;
  TwelveMegapixels() {
    SyntheticPhoto photo = renderPhoto(7, Subject::Screen, 4000, 3000);
    std::vector<uint8_t> jpeg = encodeJpeg(photo.bgr, 90, 6);
    char tmpl[] = "/tmp/kavlen-vision-XXXXXX.jpg";
    int fd = mkstemps(tmpl, 4);
    if (fd >= 0) {
      path = tmpl;
      bool ok = write(fd, jpeg.data(), jpeg.size()) == static_cast<ssize_t>(jpeg.size());
      close(fd);
      if (!ok) path.clear();
    }
  }
  ~TwelveMegapixels() {
    if (!path.empty()) std::remove(path.c_str());
  }
};

const TwelveMegapixels& photo12() {
  static TwelveMegapixels p;
  return p;
}

void BM_Detect12MP(benchmark::State& state) {
  const std::string& path = photo12().path;
  size_t found = 0;
  for (auto _ : state) {
    std::vector<Observation> quads = VisionPlugin::detect(path);
    found = quads.size();
    benchmark::DoNotOptimize(quads.data());
  }
  state.counters["quads"] = static_cast<double>(found);
}
BENCHMARK(BM_Detect12MP)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Decode12MP(benchmark::State& state) {
  const std::string& path = photo12().path;
  for (auto _ : state) benchmark::DoNotOptimize(readUprightGrey(path));
}
BENCHMARK(BM_Decode12MP)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
