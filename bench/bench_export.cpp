// Movie export at 1920x1080, 30 fps: the writer alone (colour conversion and
// encoding of a frame of the demo scene, per codec), and the whole export of
// the demo scene (offline compositor, conversion, encoding) as `kavlen export`
// runs it. Counters: frames a second, and the seconds a frame spends in each
// stage (the stages run on their own threads and overlap).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "movie_writer.h"
#include "native_renderer.h"
#include "native_scene.h"

namespace ex = kavlen::exporter;

namespace {

constexpr int kW = 1920, kH = 1080, kFps = 30;

std::string demoScenePath() { return std::string(KAVLEN_SOURCE_DIR) + "/examples/demo/scene.json"; }

kavlen::host::Value demoScene() {
  std::ifstream in(demoScenePath());
  std::stringstream text;
  text << in.rdbuf();
  return kavlen::native::valueFromJson(text.str()).value_or(kavlen::host::Value());
}

std::string outPath(const char* ext) {
  return (std::filesystem::temp_directory_path() / ("kavlen-bench-export-" + std::to_string(getpid()) + ext)).string();
}

const char* codecName(int64_t i) { return i == 0 ? "h264" : i == 1 ? "hevc" : "prores"; }

// CPU seconds of the whole process (all threads) so far.
double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

void report(benchmark::State& state, int64_t frames, double render, double cpu, const ex::MovieWriter::Timing& t) {
  state.SetItemsProcessed(frames);
  state.counters["render_s_per_frame"] = benchmark::Counter(render / frames);
  state.counters["convert_s_per_frame"] = benchmark::Counter(t.convertSeconds / t.frames);
  state.counters["encode_s_per_frame"] = benchmark::Counter(t.encodeSeconds / t.frames);
  // What a frame costs in CPU over all threads: on a quiet machine with two
  // cores the rate can reach about 2 / cpu_s_per_frame.
  state.counters["cpu_s_per_frame"] = benchmark::Counter(cpu / frames);
}

// Eight moments of the demo scene, drawn once, for the writer to encode.
const std::vector<std::vector<uint8_t>>& demoFrames() {
  static const std::vector<std::vector<uint8_t>> frames = [] {
    std::vector<std::vector<uint8_t>> out;
    auto renderer =
        ex::nativeRendererFactory()(demoScene(), kW, kH, std::string(KAVLEN_SOURCE_DIR) + "/examples/demo");
    for (int i = 0; i < 8; i++) {
      out.emplace_back(static_cast<size_t>(kW) * kH * 4);
      renderer->render(i * 33, out.back().data(), kW * 4);
    }
    return out;
  }();
  return frames;
}

// The writer fed frames of the demo scene, 60 of them (2 s), then finished.
// A writer of the benchmark's frame size and rate.
std::shared_ptr<ex::MovieWriter> openWriter(const std::string& path, const char* codec, std::string& error) {
  ex::MovieSettings s;
  s.path = path;
  s.width = kW;
  s.height = kH;
  s.fps = kFps;
  s.codec = codec;
  return ex::MovieWriter::create(s, error);
}

void BM_WriterOnly(benchmark::State& state) {
  const char* codec = codecName(state.range(0));
  const auto& pictures = demoFrames();
  const std::string path = outPath(state.range(0) == 2 ? ".mov" : ".mp4");
  int64_t frames = 0;
  double cpu = 0;
  ex::MovieWriter::Timing timing;
  for (auto _ : state) {
    const double cpu0 = cpuSeconds();
    std::string error;
    auto w = openWriter(path, codec, error);
    if (!w) {
      state.SkipWithError(error.c_str());
      return;
    }
    for (int i = 0; i < 60; i++) {
      auto f = w->frameBuffer();
      std::memcpy(f->data(), pictures[i % pictures.size()].data(), f->pixels.size());
      w->waitUntilReady();
      w->appendFrame(f, static_cast<int64_t>(i * 1000.0 / kFps), error);
    }
    if (!w->finishWriting(error)) state.SkipWithError(error.c_str());
    auto t = w->timing();
    timing.convertSeconds += t.convertSeconds;
    timing.encodeSeconds += t.encodeSeconds;
    timing.frames += t.frames;
    frames += 60;
    cpu += cpuSeconds() - cpu0;
  }
  report(state, frames, 0, cpu, timing);
  std::filesystem::remove(path);
}
BENCHMARK(BM_WriterOnly)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

// The demo scene rendered and written, 1 s of it, as the render loop of the
// export does (render into the pool's buffer, wait for the encoder, append).
void BM_ExportDemoScene(benchmark::State& state) {
  const char* codec = codecName(state.range(0));
  const std::string path = outPath(state.range(0) == 2 ? ".mov" : ".mp4");
  const auto scene = demoScene();
  int64_t frames = 0;
  double render = 0, cpu = 0;
  ex::MovieWriter::Timing timing;
  for (auto _ : state) {
    const double cpu0 = cpuSeconds();
    std::string error;
    auto w = openWriter(path, codec, error);
    auto renderer = ex::nativeRendererFactory()(scene, kW, kH, std::string(KAVLEN_SOURCE_DIR) + "/examples/demo");
    for (int i = 0; i < kFps; i++) {
      auto f = w->frameBuffer();
      auto t0 = std::chrono::steady_clock::now();
      renderer->render(static_cast<int64_t>(i * 1000.0 / kFps), f->data(), f->stride);
      render += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      w->waitUntilReady();
      w->appendFrame(f, static_cast<int64_t>(i * 1000.0 / kFps), error);
    }
    if (!w->finishWriting(error)) state.SkipWithError(error.c_str());
    auto t = w->timing();
    timing.convertSeconds += t.convertSeconds;
    timing.encodeSeconds += t.encodeSeconds;
    timing.frames += t.frames;
    frames += kFps;
    cpu += cpuSeconds() - cpu0;
  }
  report(state, frames, render, cpu, timing);
  std::filesystem::remove(path);
}
BENCHMARK(BM_ExportDemoScene)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace
