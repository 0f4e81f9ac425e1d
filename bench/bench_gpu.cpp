// The GPU output renderer on the benchmark scene: 1920 x 1080, eight layers
// (four full-frame warped image quads, a 3 x 3 mesh over an image, a polygon
// with a Bezier edge and a feathered mask, an ellipse, and a layer with
// stroke, shadow and glow at opacity 0.8), drawn through GlOutputRenderer
// into an offscreen framebuffer on a headless GL ES context.
//
// Target: processor time per steady frame (draw list, uploads, command
// encoding on the calling thread) of 1 ms or less, with no GPU allocation per
// frame. The "cpu" column is the calling thread's processor time; the GPU's
// own work (on llvmpipe: its rasteriser threads) is waited for outside the
// timed region, so each frame starts on an idle GPU. "gpu_allocs" and
// "mask_uploads" are per frame and must be 0 once steady. BM_GpuFrameFinished
// includes the wait, for the whole cost of a frame on this machine. The
// argument is the target's width (height 9/16 of it): at 192 the same list
// is encoded with next to no rasterising, so that llvmpipe's setup work on
// the calling thread (which a real GPU does not charge to the processor)
// shrinks out of the figure.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "gl_headless.h"
#include "gl_output_renderer.h"
#include "image_file.h"
#include "kavlen/kavlen.h"

namespace {

constexpr int32_t kW = 1920, kH = 1080;

const char kScene[] = R"({"outputs":[{"id":"out-1","resolution":[1920,1080]}],"mappings":[
{"id":"q1","corners":[[0.0,0.02],[1.0,0.0],[0.97,1.0],[0.03,0.96]],"paint":{"type":"image","path":"wall-1.png"}},
{"id":"q2","corners":[[0.04,0.0],[0.98,0.05],[1.0,0.97],[0.0,1.0]],"paint":{"type":"image","path":"wall-2.png"},
 "opacity":0.6},
{"id":"q3","corners":[[0.0,0.0],[0.95,0.04],[1.0,1.0],[0.06,0.93]],"paint":{"type":"image","path":"wall-3.png"},
 "opacity":0.5,"content":{"x":0.05,"y":-0.02,"scale":1.1,"rotation":4}},
{"id":"q4","corners":[[0.02,0.05],[1.0,0.02],[0.94,0.98],[0.0,0.95]],"paint":{"type":"image","path":"wall-4.png"},
 "opacity":0.4},
{"id":"mesh","corners":[[0.1,0.1],[0.5,0.12],[0.48,0.55],[0.12,0.5]],"paint":{"type":"image","path":"wall-1.png"},
 "mesh":{"cols":3,"rows":3,"offsets":[[0,0],[0.01,0.02],[-0.01,0.01],[0,0],[0.02,0],[0.03,0.02],[-0.02,0.03],[0.01,0],
   [0,0.01],[0.02,-0.02],[0.01,0.03],[-0.01,0],[0,0],[0.01,-0.01],[0.02,0],[0,0]]}},
{"id":"poly","shape":{"kind":"polygon","vertices":[[0.55,0.1],{"x":0.8,"y":0.08,"in":[-0.1,-0.05],"out":[0.1,0.06]},
 [0.9,0.45],[0.6,0.5]]},"paint":{"type":"image","path":"wall-2.png"},
 "mask":{"vertices":[[0.1,0.1],[0.9,0.1],[0.9,0.9],[0.1,0.9]],"feather":30}},
{"id":"ell","shape":{"kind":"ellipse","vertices":[[0.1,0.6],[0.4,0.6],[0.4,0.95],[0.1,0.95]]},
 "paint":{"type":"color","argb":4294952960}},
{"id":"fx","corners":[[0.55,0.6],[0.9,0.62],[0.88,0.92],[0.57,0.9]],"paint":{"type":"image","path":"wall-3.png"},
 "opacity":0.8,"effects":{"stroke":{"width":8},"shadow":{"dx":20,"dy":16,"blur":14},"glow":{"radius":24}}}]})";

struct Fixture {
  HeadlessGl gl;
  GlOffscreen target;
  std::unique_ptr<GlOutputRenderer> renderer;
  std::string media;
  std::string error;

  bool open() {
    if (!gl.open(error)) return false;
    if (!target.create(kW, kH, error)) return false;
    char tmpl[] = "/tmp/kavlen-bench-gpu-XXXXXX";
    if (!mkdtemp(tmpl)) {
      error = "no temporary folder";
      return false;
    }
    media = tmpl;
    // Four smooth pictures of a projector's size, each a little different.
    std::vector<uint8_t> px(static_cast<size_t>(kW) * kH * 4);
    for (int k = 1; k <= 4; k++) {
      for (int32_t y = 0; y < kH; y++)
        for (int32_t x = 0; x < kW; x++) {
          uint8_t* p = &px[(static_cast<size_t>(y) * kW + x) * 4];
          p[0] = static_cast<uint8_t>((x * k / 8) & 255);
          p[1] = static_cast<uint8_t>((y * (5 - k) / 5) & 255);
          p[2] = static_cast<uint8_t>(((x + y) / (2 * k)) & 255);
          p[3] = 255;
        }
      std::string path = media + "/wall-" + std::to_string(k) + ".png";
      if (!ImageFile::write_png(path, px.data(), kW, kH, kW * 4, error)) return false;
    }
    std::string root = media;
    renderer = GlOutputRenderer::create([root] { return root; });
    if (!renderer) {
      error = "the output renderer could not be built";
      return false;
    }
    std::string state = std::string(R"({"scene":)") + kScene + "}";
    if (!renderer->setState(state)) {
      error = "the benchmark scene was refused";
      return false;
    }
    // Images decode, masks rasterise and upload, buffers grow: all on the
    // first frames, none of it on the timed ones.
    for (int i = 0; i < 3; i++) renderer->drawFrame(0, target.target());
    glFinish();
    return renderer->engine() != nullptr;
  }

  ~Fixture() {
    renderer.reset();
    if (!media.empty()) std::filesystem::remove_all(media);
  }
};

Fixture* fixture(benchmark::State& state) {
  static Fixture* f = [] {
    auto* made = new Fixture;
    if (!made->open()) fprintf(stderr, "bench_gpu: %s\n", made->error.c_str());
    return made;
  }();
  if (!f->renderer || !f->renderer->engine()) {
    state.SkipWithError(("no GPU renderer: " + f->error).c_str());
    return nullptr;
  }
  return f;
}

// The target of a run: the projector's 1920 x 1080, or a small one of the
// same shape, on which the same list is encoded with hardly any
// rasterising left to do, so that the processor's share stands out.
GlTarget targetFor(benchmark::State& state, Fixture* f) {
  static GlOffscreen small;
  const int32_t w = static_cast<int32_t>(state.range(0));
  if (w == kW) return f->target.target();
  if (small.width() != w) {
    std::string error;
    if (!small.create(w, w * 9 / 16, error)) state.SkipWithError(error.c_str());
    // One frame at the new size re-creates the group texture outside the
    // timed loop.
    f->renderer->drawFrame(0, small.target());
    glFinish();
  }
  return small.target();
}

void steadyFrames(benchmark::State& state, bool finished) {
  Fixture* f = fixture(state);
  if (!f) return;
  const GlTarget target = targetFor(state, f);
  const GlOutputRenderer::Stats before = f->renderer->stats();
  for (auto _ : state) {
    if (!f->renderer->drawFrame(0, target)) {
      state.SkipWithError("the GL context was lost");
      break;
    }
    if (finished) {
      glFinish();
    } else {
      state.PauseTiming();
      glFinish();
      state.ResumeTiming();
    }
  }
  const GlOutputRenderer::Stats& after = f->renderer->stats();
  const double n = static_cast<double>(state.iterations());
  state.counters["gpu_allocs"] = static_cast<double>(after.gpuAllocations - before.gpuAllocations) / n;
  state.counters["mask_uploads"] = static_cast<double>(after.maskUploads - before.maskUploads) / n;
  if (after.gpuAllocations != before.gpuAllocations) state.SkipWithError("GPU allocations on steady frames");
}

void BM_GpuFrame(benchmark::State& state) { steadyFrames(state, false); }
BENCHMARK(BM_GpuFrame)->Arg(kW)->Arg(192)->Unit(benchmark::kMicrosecond);

void BM_GpuFrameFinished(benchmark::State& state) { steadyFrames(state, true); }
BENCHMARK(BM_GpuFrameFinished)->Arg(kW)->Unit(benchmark::kMicrosecond);

// The engine's share of a frame: the draw list of the same scene alone.
void BM_GpuDrawListOnly(benchmark::State& state) {
  Fixture* f = fixture(state);
  if (!f) return;
  for (auto _ : state) benchmark::DoNotOptimize(kvl_engine_draw_list(f->renderer->engine(), 0));
}
BENCHMARK(BM_GpuDrawListOnly)->Unit(benchmark::kMicrosecond);

}  // namespace
