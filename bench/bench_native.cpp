// The offline compositor on the demo scene at 1920x1080 (what movie export
// renders): steady frames with warm caches, and the first frame of a fresh
// compositor when the scene holds a text layer (which pays for the font
// set-up and the text's effect passes).
//
// Target: a steady frame in 40 ms or less on two cores.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core/utility.hpp>

#include "native_compositor.h"

namespace {

using kavlen::native::NativeCompositor;
using kavlen::native::NativeScene;

std::string demoText() {
  std::ifstream f(KAVLEN_SOURCE_DIR "/examples/demo/scene.json");
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// The demo with a title in front: white text with a stroke and a shadow.
std::string demoWithText() {
  std::string t = demoText();
  size_t end = t.rfind(']');
  std::string layer =
      ",{\"id\": \"caption\", \"corners\": [[0.1, 0.7], [0.9, 0.7], [0.9, 0.95], [0.1, 0.95]],"
      " \"paint\": {\"type\": \"text\", \"text\": \"Kavlen live\", \"size\": 0.2, \"argb\": 4294967295},"
      " \"effects\": {\"stroke\": {\"width\": 4, \"argb\": 4278190080}, \"shadow\": {\"argb\": 2566914048}}}";
  return t.substr(0, end) + layer + t.substr(end);
}

void setUp() {
  setenv("KAVLEN_ASSETS", KAVLEN_SOURCE_DIR "/data/flutter_assets", 1);
  cv::setNumThreads(2);
}

void BM_NativeDemoFrame(benchmark::State& state) {
  setUp();
  NativeCompositor comp(NativeScene::jsonText(demoText(), 1920, 1080), KAVLEN_SOURCE_DIR "/examples/demo");
  std::vector<uint8_t> bgra(1920 * 1080 * 4);
  int64_t t = 0;
  comp.render(t, bgra.data(), 1920 * 4);  // first frame: loads and caches
  for (auto _ : state) {
    t = (t + 40) % 5000;
    comp.render(t, bgra.data(), 1920 * 4);
    benchmark::DoNotOptimize(bgra.data());
  }
}
BENCHMARK(BM_NativeDemoFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NativeFirstFrameWithText(benchmark::State& state) {
  setUp();
  const std::string text = demoWithText();
  std::vector<uint8_t> bgra(1920 * 1080 * 4);
  for (auto _ : state) {
    NativeCompositor comp(NativeScene::jsonText(text, 1920, 1080), KAVLEN_SOURCE_DIR "/examples/demo");
    comp.render(1000, bgra.data(), 1920 * 4);
    benchmark::DoNotOptimize(bgra.data());
  }
}
BENCHMARK(BM_NativeFirstFrameWithText)->Unit(benchmark::kMillisecond)->UseRealTime();

// The caption alone: the first frame is mostly its three text passes.
void BM_NativeFirstFrameTextOnly(benchmark::State& state) {
  setUp();
  const std::string text =
      R"({"mappings": [{"id": "caption", "corners": [[0.1, 0.7], [0.9, 0.7], [0.9, 0.95], [0.1, 0.95]],
      "paint": {"type": "text", "text": "Kavlen live", "size": 0.2, "argb": 4294967295},
      "effects": {"stroke": {"width": 4, "argb": 4278190080}, "shadow": {"argb": 2566914048}}}]})";
  std::vector<uint8_t> bgra(1920 * 1080 * 4);
  for (auto _ : state) {
    NativeCompositor comp(NativeScene::jsonText(text, 1920, 1080), "");
    comp.render(0, bgra.data(), 1920 * 4);
    benchmark::DoNotOptimize(bgra.data());
  }
}
BENCHMARK(BM_NativeFirstFrameTextOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
