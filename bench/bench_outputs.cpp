// Frame pacing of the output windows: the demo scene at 1280x720 in each
// sink for a while, with a new state text before every frame (as when the
// interface moves a layer), driven at 60 Hz as `kavlen serve` drives it.
// Needs an X display (Xvfb is enough; llvmpipe draws the GPU sink).
//
//   xvfb-run -s "-screen 0 1600x1000x24" build/bench/bench_outputs [--seconds 10] [--sink gpu|cpu] [--still]
//
// --still sends one state only: the cost of drawing alone (the CPU sink then
// draws nothing after its first frame).
//
// Reports frames a second, the worst frame time, and the main thread's CPU
// time a frame (for the GPU sink: what the renderer costs the main thread;
// llvmpipe's own threads are not counted).
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cpu_output_sink.h"
#include "gl_output_sink.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

namespace {

double threadCpuMs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// The demo scene at 1280x720 with the first layer's content turned by
// `degrees`, so every state differs from the last.
std::string demoState(const std::string& scene, int degrees) {
  std::string s = scene;
  const std::string key = "\"resolution\"";
  if (size_t at = s.find(key); at != std::string::npos) {
    const size_t open = s.find('[', at), close = s.find(']', at);
    s.replace(open, close - open + 1, "[1280,720]");
  }
  return "{\"scene\":" + s + ",\"mode\":\"normal\",\"playing\":true,\"frameTag\":" + std::to_string(degrees) + "}";
}

void run(const char* kind, double seconds, const std::string& scene, bool still) {
  using namespace kavlen::output;
  const std::string root = KAVLEN_SOURCE_DIR "/examples/demo";
  std::unique_ptr<OutputSink> sink;
  if (!strcmp(kind, "gpu"))
    sink = GlOutputSink::create("bench", [root] { return root; });
  else
    sink = CpuOutputSink::create("bench", [root] { return root; });
  if (!sink) {
    printf("%s sink: cannot be made here\n", kind);
    return;
  }
  glfwSetWindowSize(sink->window(), 1280, 720);
  glfwShowWindow(sink->window());
  glfwPollEvents();

  using Clock = std::chrono::steady_clock;
  const auto period = std::chrono::microseconds(16667);
  const auto start = Clock::now();
  auto due = start;
  std::vector<double> frameMs;
  const double cpu0 = threadCpuMs();
  for (int n = 0; Clock::now() - start < std::chrono::duration<double>(seconds); ++n) {
    std::this_thread::sleep_until(due);
    const auto t0 = Clock::now();
    if (!still || n == 0) sink->send(demoState(scene, n));
    sink->frame();
    glfwPollEvents();
    frameMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    due += period;
    if (due < Clock::now()) due = Clock::now();
  }
  const double cpu = threadCpuMs() - cpu0;
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> sorted = frameMs;
  std::sort(sorted.begin(), sorted.end());
  printf("%s sink, %s, 1280x720, %.1f s: %.1f frames/s, frame median %.2f ms, p99 %.2f ms, worst %.2f ms, "
         "main-thread CPU %.2f ms/frame\n",
         kind, still ? "one state" : "a state a frame", wall, frameMs.size() / wall, sorted[sorted.size() / 2], sorted[sorted.size() * 99 / 100],
         sorted.back(), cpu / frameMs.size());
  sink->close();
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 10;
  const char* only = nullptr;
  bool still = false;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--seconds")) seconds = atof(argv[i + 1]);
    if (!strcmp(argv[i], "--sink")) only = argv[i + 1];
  }
  for (int i = 1; i < argc; i++) still = still || !strcmp(argv[i], "--still");
  if (!glfwInit()) {
    fprintf(stderr, "bench_outputs: no X display (run it under xvfb-run)\n");
    return 1;
  }
  std::ifstream in(KAVLEN_SOURCE_DIR "/examples/demo/scene.json");
  std::stringstream ss;
  ss << in.rdbuf();
  for (const char* kind : {"gpu", "cpu"})
    if (!only || !strcmp(only, kind)) run(kind, seconds, ss.str(), still);
  glfwTerminate();
  return 0;
}
