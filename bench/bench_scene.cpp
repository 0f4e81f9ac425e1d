// Scene document parsing and per-frame layer resolution on a generated show
// of 200 layers that uses every part of the document: keyframes on named and
// vertex properties, clips with fades and looping video, groups, masks, warp
// meshes, effects and audio modulations.
//
// Targets: parsing at 100 MB/s or more, resolving all 200 layers in 20 us or
// less, with no allocation on the resolve path. The second half of this file
// measures the CPU compositor on a 1920x1080 frame against pixman. The "allocs" counter is the
// number of malloc-family calls per iteration, counted by a hook in this
// program (left out under sanitizers, which own malloc themselves).
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVL_BENCH_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KVL_BENCH_NO_MALLOC_HOOK 1
#endif
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<int64_t> g_allocs{0};
}  // namespace

#ifndef KVL_BENCH_NO_MALLOC_HOOK
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

__attribute__((weak)) void* malloc(size_t n) noexcept {
  if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
__attribute__((weak)) void* calloc(size_t n, size_t size) noexcept {
  if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, size);
}
__attribute__((weak)) void* realloc(void* p, size_t n) noexcept {
  if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}
}
#endif

// The processor time of each thread the engine starts, for the frame
// benchmark: the busiest thread's time is what a frame takes on an idle
// machine with a core per thread, however busy the machine really is.
namespace {
std::atomic<int64_t> g_busiest_worker_ns{0};

int64_t thread_cpu_ns() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Started {
  void* (*fn)(void*);
  void* arg;
};

void* timed_thread(void* p) {
  const Started s = *static_cast<Started*>(p);
  delete static_cast<Started*>(p);
  void* r = s.fn(s.arg);
  const int64_t ns = thread_cpu_ns();
  int64_t seen = g_busiest_worker_ns.load();
  while (ns > seen && !g_busiest_worker_ns.compare_exchange_weak(seen, ns)) {
  }
  return r;
}
}  // namespace

#ifndef KVL_BENCH_NO_MALLOC_HOOK
extern "C" int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) noexcept {
  using Real = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "pthread_create"));
  auto* s = new Started{fn, arg};
  const int rc = real(t, attr, timed_thread, s);
  if (rc != 0) delete s;
  return rc;
}
#endif

namespace {

// Small deterministic generator: the same scene on every run.
struct Lcg {
  uint64_t s = 0x2545F4914F6CDD1DULL;
  uint32_t next() {
    s = s * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<uint32_t>(s >> 33);
  }
  int range(int lo, int hi) { return lo + static_cast<int>(next() % static_cast<uint32_t>(hi - lo + 1)); }
  double unit() { return next() / 2147483648.0; }
};

void add(std::string& out, const char* fmt, double v) {
  char buf[64];
  snprintf(buf, sizeof buf, fmt, v);
  out += buf;
}

// Compact JSON as the interface sends it: no whitespace, six decimals.
std::string make_scene(int layers) {
  Lcg g;
  static const char* const kProps[] = {"opacity", "contentX", "contentY", "contentScale", "contentRotation",
                                       "strokeWidth", "shadowX", "glowRadius", "c0x", "c1y", "c2x", "c3y"};
  static const char* const kEasings[] = {"linear", "easeIn", "easeOut", "easeInOut", "hold"};
  static const char* const kSources[] = {"level", "bass", "mid", "high", "beat"};
  std::string s = R"({"outputs":[{"id":"main","resolution":[1920,1080]},{"id":"side","resolution":[1280,720]}],)";
  s += R"("groups":[)";
  for (int i = 0; i < 8; i++) {
    s += i ? "," : "";
    s += R"({"id":"group-)" + std::to_string(i) + R"(","visible":)" + (i == 7 ? "false" : "true");
    add(s, R"(,"opacity":%.6f})", 0.5 + g.unit() * 0.5);
  }
  s += R"(],"audioTracks":[{"id":"music","muted":false,"clips":[{"startMs":0,"lengthMs":180000,"path":"media/show.wav"}]},{"id":"mic","input":{"device":"default"}}],)";
  s += R"("mappings":[)";
  for (int i = 0; i < layers; i++) {
    s += i ? "," : "";
    s += R"({"id":"layer-)" + std::to_string(i) + "\"";
    if (i % 4 != 0) s += R"(,"groupId":"group-)" + std::to_string(i % 8) + "\"";
    if (i % 10 == 9) s += R"(,"output":"side")";
    int kind = i % 4;
    int nv = kind == 2 ? 3 : kind == 3 ? g.range(5, 8) : 4;
    static const char* const kKinds[] = {"quad", "ellipse", "triangle", "polygon"};
    s += R"(,"shape":{"kind":")" + std::string(kKinds[kind]) + R"(","vertices":[)";
    for (int v = 0; v < nv; v++) {
      s += v ? "," : "";
      if (kind == 3 && v % 2 == 1) {
        add(s, R"({"x":%.6f)", g.unit());
        add(s, R"(,"y":%.6f)", g.unit());
        add(s, R"(,"in":[%.6f)", g.unit() * 0.1);
        add(s, R"(,%.6f])", -g.unit() * 0.1);
        add(s, R"(,"out":[%.6f)", g.unit() * 0.1);
        add(s, R"(,%.6f]})", g.unit() * 0.1);
      } else {
        add(s, "[%.6f", g.unit());
        add(s, ",%.6f]", g.unit());
      }
    }
    s += "]}";
    switch (i % 5) {
      case 0: add(s, R"(,"paint":{"type":"color","argb":%.0f})", 4278190080.0 + g.next() % 16777216); break;
      case 1: s += R"(,"paint":{"type":"image","path":"media/stills/image-)" + std::to_string(i) + R"(.png"})"; break;
      case 2: s += R"(,"paint":{"type":"video","path":"media/video/clip-)" + std::to_string(i) + R"(.mp4"})"; break;
      case 3: s += R"(,"paint":{"type":"text"})"; break;
      default: s += R"(,"paint":{"type":"asset_video","asset":"assets/loops/loop.mp4"})"; break;
    }
    add(s, R"(,"opacity":%.6f)", 0.3 + g.unit() * 0.7);
    s += R"(,"visible":true,"lumaKey":)" + std::string(i % 6 == 0 ? "true" : "false");
    add(s, R"(,"content":{"x":%.6f)", g.unit() - 0.5);
    add(s, R"(,"y":%.6f)", g.unit() - 0.5);
    add(s, R"(,"scale":%.6f)", 0.5 + g.unit());
    add(s, R"(,"rotation":%.6f})", g.unit() * 360);

    s += R"(,"keyframes":[)";
    int nk = g.range(2, 10);
    for (int k = 0; k < nk; k++) {
      s += k ? "," : "";
      s += R"({"prop":")" + std::string(kProps[g.range(0, 11)]) + "\"";
      add(s, R"(,"timeMs":%.0f)", static_cast<double>(g.range(0, 20000)));
      add(s, R"(,"value":%.6f)", g.unit());
      s += R"(,"easing":")" + std::string(kEasings[g.range(0, 4)]) + "\"}";
    }
    s += "]";

    int nc = g.range(0, 3);
    if (nc) {
      s += R"(,"clips":[)";
      int start = 0;
      for (int c = 0; c < nc; c++) {
        s += c ? "," : "";
        int length = g.range(1000, 8000);
        s += R"({"startMs":)" + std::to_string(start) + R"(,"lengthMs":)" + std::to_string(length);
        if (c % 2 == 0) {
          s += R"(,"paint":{"type":"video","path":"media/video/clip-)" + std::to_string(c) + R"(.mp4"})";
          s += R"(,"trimStartMs":500,"speed":1.5,"loop":true,"mediaDurationMs":6000)";
        } else {
          s += R"(,"paint":{"type":"image","path":"media/stills/clip.png"})";
        }
        add(s, R"(,"opacity":%.6f,"fadeInMs":250,"fadeOutMs":400})", 0.5 + g.unit() * 0.5);
        start += length - 500;
      }
      s += "]";
    }
    if (i % 3 == 0) {
      s += R"(,"mask":{"vertices":[)";
      for (int v = 0; v < 4; v++) {
        s += v ? "," : "";
        add(s, "[%.6f", g.unit());
        add(s, ",%.6f]", g.unit());
      }
      add(s, R"(],"feather":%.6f,"inverted":false})", g.unit() * 40);
    }
    if (i % 4 == 1) {
      s += R"(,"mesh":{"cols":3,"rows":3,"offsets":[)";
      for (int p = 0; p < 16; p++) {
        s += p ? "," : "";
        add(s, "[%.6f", (g.unit() - 0.5) * 0.05);
        add(s, ",%.6f]", (g.unit() - 0.5) * 0.05);
      }
      s += "]}";
    }
    s += R"(,"effects":{)";
    bool any = false;
    if (i % 2 == 0) {
      add(s, R"("stroke":{"width":%.6f,"argb":4294967295})", 1 + g.unit() * 8);
      any = true;
    }
    if (i % 3 == 1) {
      s += any ? "," : "";
      add(s, R"("shadow":{"dx":%.6f,"dy":12,"blur":16,"argb":2566914048})", g.unit() * 20);
      any = true;
    }
    if (i % 5 == 2) {
      s += any ? "," : "";
      s += R"("glow":{"radius":30,"argb":4282566901},"bevel":{"depth":8,"highlight":3019898879,"shadow":3003121664})";
    }
    s += "}";
    int nm = g.range(0, 2);
    if (nm) {
      s += R"(,"modulations":[)";
      for (int m = 0; m < nm; m++) {
        s += m ? "," : "";
        s += R"({"id":"mod-)" + std::to_string(i) + "-" + std::to_string(m) + R"(","source":")" +
             kSources[g.range(0, 4)] + R"(","prop":")" + kProps[g.range(0, 4)] +
             R"(","mode":"add","min":0,"max":0.5,"attackMs":10,"releaseMs":250,"enabled":true,"track":"music"})";
      }
      s += "]";
    }
    s += "}";
  }
  s += "]}";
  return s;
}

const std::string& scene_text() {
  static const std::string text = make_scene(200);
  return text;
}

void BM_SceneParse(benchmark::State& state) {
  const std::string& text = scene_text();
  char error[256];
  for (auto _ : state) {
    kvl_scene* s = kvl_scene_parse(text.c_str(), error, sizeof error);
    if (!s) {
      state.SkipWithError(error);
      break;
    }
    benchmark::DoNotOptimize(s->layers);
    kvl_scene_free(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_SceneParse);

// The floor under BM_SceneParse: building and deleting cJSON's tree alone.
// cJSON is reached through the engine's own dependency, already loaded.
void BM_SceneParseJsonTreeOnly(benchmark::State& state) {
  using ParseFn = void* (*)(const char*);
  using DeleteFn = void (*)(void*);
  auto parse = reinterpret_cast<ParseFn>(dlsym(RTLD_DEFAULT, "cJSON_Parse"));
  auto del = reinterpret_cast<DeleteFn>(dlsym(RTLD_DEFAULT, "cJSON_Delete"));
  if (!parse || !del) {
    state.SkipWithError("cJSON not loaded");
    return;
  }
  const std::string& text = scene_text();
  for (auto _ : state) {
    void* root = parse(text.c_str());
    benchmark::DoNotOptimize(root);
    del(root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_SceneParseJsonTreeOnly);

// Every layer of the scene at one moment, as a frame of the draw list does.
void BM_ResolveAllLayers(benchmark::State& state) {
  char error[256];
  kvl_scene* scene = kvl_scene_parse(scene_text().c_str(), error, sizeof error);
  if (!scene) {
    state.SkipWithError(error);
    return;
  }
  int32_t max_vertices = 1;
  for (int32_t i = 0; i < scene->layer_count; i++) {
    if (scene->layers[i].vertex_count > max_vertices) max_vertices = scene->layers[i].vertex_count;
  }
  std::vector<double> pool(static_cast<size_t>(scene->layer_count) * max_vertices * 2);
  std::vector<kvl_resolved> out(static_cast<size_t>(scene->layer_count));
  const double t = static_cast<double>(state.range(0));

  g_allocs = 0;
  g_counting = true;
  for (auto _ : state) {
    for (int32_t i = 0; i < scene->layer_count; i++) {
      kvl_layer_resolve(scene, &scene->layers[i], &pool[static_cast<size_t>(i) * max_vertices * 2], &out[i], t);
    }
    benchmark::ClobberMemory();
  }
  g_counting = false;
  state.counters["layers"] = scene->layer_count;
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(g_allocs.load()), benchmark::Counter::kAvgIterations);
  kvl_scene_free(scene);
}
BENCHMARK(BM_ResolveAllLayers)->Arg(0)->Arg(4321)->Arg(15000);

}  // namespace

// ---------------------------------------------------------------------------
// The CPU compositor on a 1920x1080 frame of 8 layers: four full-frame warped
// image quads, a 3x3 mesh over an image, a polygon with a Bezier edge and a
// feathered mask, an ellipse, and a layer with stroke, shadow and glow at
// opacity 0.8. The first frame builds the masks; every measured frame reads
// them from the frame cache, as a running show does.
//
// Targets, medians with 2 threads: 16.7 ms (60 frames a second) with the
// fastest kernel set, 25 ms with AVX2 (a processor without AVX-512).
//
// The same four warped quads are also composited with pixman (projective
// transform, bilinear filter, OVER onto premultiplied pixels): the counters
// "ratio_<set>" of BM_PixmanWarpedQuads are our time per quad with each
// kernel set over pixman's, below 1 when we are faster. Pixman's picture is not bit-exact to
// ours (16.16 fixed-point transforms, its own rounding); it is the yardstick
// for speed only.

#include <pixman.h>
#include <time.h>

#include <cmath>
#include <cstring>

namespace {

constexpr int kFrameW = 1920, kFrameH = 1080;

const char* const kWarpedQuads[4] = {
    R"({"id":"q0","corners":[[-0.02,0.01],[1.01,-0.03],[0.98,1.02],[0.01,0.97]],"paint":{"type":"image","path":"img0"}})",
    R"({"id":"q1","corners":[[0.03,-0.02],[0.97,0.02],[1.02,0.99],[-0.01,1.03]],"paint":{"type":"image","path":"img1"},"opacity":0.7})",
    R"({"id":"q2","corners":[[0.0,0.04],[1.03,0.0],[0.99,0.98],[0.02,1.01]],"paint":{"type":"image","path":"img2"},"opacity":0.5})",
    R"({"id":"q3","corners":[[-0.03,-0.01],[0.99,0.03],[1.01,1.01],[0.0,0.99]],"paint":{"type":"image","path":"img3"},"opacity":0.9})"};

const char kOtherLayers[] =
    R"({"id":"mesh","corners":[[0.1,0.1],[0.6,0.12],[0.58,0.7],[0.12,0.65]],"paint":{"type":"image","path":"img1"},)"
    R"("mesh":{"cols":3,"rows":3,"offsets":[[0,0],[0,0],[0,0],[0,0],[0,0],[0.03,0.02],[-0.02,0.03],[0,0],)"
    R"([0,0],[0.02,-0.03],[-0.03,-0.02],[0,0],[0,0],[0,0],[0,0],[0,0]]}},)"
    R"({"id":"poly","shape":{"kind":"polygon","vertices":[{"x":0.5,"y":0.55},{"x":0.75,"y":0.5,"out":[0.1,0.12]},)"
    R"({"x":0.8,"y":0.95},{"x":0.52,"y":0.93}]},"paint":{"type":"image","path":"img2"},)"
    R"("mask":{"vertices":[[0.1,0.1],[0.9,0.2],[0.8,0.9],[0.2,0.85]],"feather":60}},)"
    R"({"id":"ell","shape":{"kind":"ellipse","vertices":[[0.62,0.05],[0.92,0.05],[0.92,0.45],[0.62,0.45]]},)"
    R"("paint":{"type":"image","path":"img0"}},)"
    R"({"id":"fx","corners":[[0.15,0.7],[0.45,0.68],[0.44,0.92],[0.16,0.94]],"paint":{"type":"color","argb":4294944000},)"
    R"("opacity":0.8,"effects":{"stroke":{"width":8},"shadow":{"dx":18,"dy":22,"blur":24},"glow":{"radius":30}}})";

std::string frame_scene(bool all_layers) {
  std::string s = R"({"outputs":[{"id":"main","resolution":[1920,1080]}],"mappings":[)";
  for (int i = 0; i < 4; i++) s += std::string(i ? "," : "") + kWarpedQuads[i];
  if (all_layers) s += std::string(",") + kOtherLayers;
  return s + "]}";
}

// Straight RGBA sources of 1280x720 (the surface's own size), each with its
// own pattern; the last one has an alpha ramp.
const std::vector<uint8_t>& source_image(int k) {
  static std::vector<uint8_t> images[4];
  std::vector<uint8_t>& px = images[k];
  if (px.empty()) {
    px.resize(static_cast<size_t>(1280) * 720 * 4);
    for (int y = 0; y < 720; y++)
      for (int x = 0; x < 1280; x++) {
        uint8_t* p = &px[(static_cast<size_t>(y) * 1280 + x) * 4];
        p[0] = static_cast<uint8_t>((x * (k + 1)) >> 2);
        p[1] = static_cast<uint8_t>((y * (4 - k)) >> 2);
        p[2] = static_cast<uint8_t>(((x / 40 + y / 40) & 1) ? 220 : 40 + 30 * k);
        p[3] = k == 3 ? static_cast<uint8_t>(96 + (x * 159) / 1279) : 255;
      }
  }
  return px;
}

kvl_engine* make_engine(bool all_layers, int threads) {
  const std::string scene = frame_scene(all_layers);
  kvl_engine* e = kvl_engine_create(scene.c_str(), kFrameW, kFrameH, nullptr);
  if (!e) return nullptr;
  for (int k = 0; k < 4; k++) {
    const std::string key = "img" + std::to_string(k);
    kvl_engine_set_source(e, key.c_str(), source_image(k).data(), 1280, 720, 1280 * 4);
  }
  kvl_engine_set_threads(e, threads);
  return e;
}

// Processor time of the calling thread: both sides of the pixman comparison
// run on one thread, and this keeps the ratio fair on a busy machine.
double now_s() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// The compositor's kernel sets, compared on the same frame. A set this
// processor lacks is reported as skipped.
const char* const kSets[3] = {"plain", "avx2", "avx512"};

// Frame time with the given kernel set and band threads. The label is the
// picture's fingerprint: it must be the same for every set and thread count.
void BM_RenderFrame(benchmark::State& state, const char* set, int threads) {
  if (!kvl_cpu_use(set)) {
    state.SkipWithError("kernel set not available here");
    return;
  }
  kvl_engine* e = make_engine(true, threads);
  if (!e) {
    state.SkipWithError(kvl_last_error());
    return;
  }
  std::vector<uint8_t> frame(static_cast<size_t>(kFrameW) * kFrameH * 4);
  kvl_engine_render(e, 0, frame.data(), kFrameW * 4);  // builds and caches the masks
  // The band threads' processor time too (Google Benchmark's CPU column
  // counts the calling thread only, which waits for the bands).
  // The busiest thread's: the calling thread draws too, and the frame is
  // done when the last thread is.
  timespec a, b;
  int64_t busiest_ns = 0;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &a);
  for (auto _ : state) {
    g_busiest_worker_ns = 0;
    const int64_t t0 = thread_cpu_ns();
    kvl_engine_render(e, 0, frame.data(), kFrameW * 4);
    const int64_t caller = thread_cpu_ns() - t0;
    busiest_ns += caller > g_busiest_worker_ns ? caller : g_busiest_worker_ns.load();
    benchmark::ClobberMemory();
  }
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &b);
  const double cpu = (b.tv_sec - a.tv_sec) + (b.tv_nsec - a.tv_nsec) * 1e-9;
  const double n = static_cast<double>(state.iterations());
  state.counters["cpu_ms_all_threads"] = cpu * 1e3 / n;
  state.counters["busiest_thread_cpu_ms"] = static_cast<double>(busiest_ns) * 1e-6 / n;
  char hash[32];
  snprintf(hash, sizeof hash, "frame %016llx",
           static_cast<unsigned long long>(kvl_hash(0, frame.data(), frame.size())));
  state.SetLabel(hash);
  kvl_engine_destroy(e);
  kvl_cpu_use(nullptr);
}

// Our time per warped quad (the four quads' frame over four, background fill
// and preparation included), single-threaded like pixman, kept per kernel
// set for the ratios.
double g_kavlen_per_quad_s[3] = {0, 0, 0};

void BM_KavlenWarpedQuads(benchmark::State& state, int set) {
  if (!kvl_cpu_use(kSets[set])) {
    state.SkipWithError("kernel set not available here");
    return;
  }
  kvl_engine* e = make_engine(false, 1);
  if (!e) {
    state.SkipWithError(kvl_last_error());
    return;
  }
  std::vector<uint8_t> frame(static_cast<size_t>(kFrameW) * kFrameH * 4);
  kvl_engine_render(e, 0, frame.data(), kFrameW * 4);
  const double t0 = now_s();
  for (auto _ : state) {
    kvl_engine_render(e, 0, frame.data(), kFrameW * 4);
    benchmark::ClobberMemory();
  }
  g_kavlen_per_quad_s[set] = (now_s() - t0) / static_cast<double>(state.iterations()) / 4;
  state.counters["per_quad_cpu_ms"] = g_kavlen_per_quad_s[set] * 1e3;
  kvl_engine_destroy(e);
  kvl_cpu_use(nullptr);
}

// Registered in this order: the frames on 2 threads (the target) and on 1
// for each set, then the quads, then pixman, whose ratios need the quads'.
const bool g_registered = [] {
  for (int threads : {2, 1})
    for (const char* set : kSets)
      benchmark::RegisterBenchmark((std::string("BM_RenderFrame/") + set + "/threads:" + std::to_string(threads)).c_str(),
                                   BM_RenderFrame, set, threads)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          ->Repetitions(5)
          ->ReportAggregatesOnly(true);
  for (int set = 0; set < 3; set++)
    benchmark::RegisterBenchmark((std::string("BM_KavlenWarpedQuads/") + kSets[set]).c_str(), BM_KavlenWarpedQuads,
                                 set)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  return true;
}();

// The transform pixman wants: destination pixel to source pixel, the inverse
// of corners(unit square) scaled to the frame and the image.
bool pixman_quad_transform(const double* corners, int sw, int sh, pixman_transform_t* out) {
  double q[8];
  for (int k = 0; k < 4; k++) {
    q[2 * k] = corners[2 * k] * kFrameW;
    q[2 * k + 1] = corners[2 * k + 1] * kFrameH;
  }
  const kvl_h fwd = kvl_h_unit_to_quad(q);
  kvl_h inv;
  if (!kvl_h_invert(&fwd, &inv)) return false;
  pixman_f_transform_t f;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) {
      const double scale = r == 0 ? sw : r == 1 ? sh : 1;
      f.m[r][c] = inv.m[3 * r + c] * scale;
    }
  // Homogeneous: scale the matrix so that its bottom right is 1.
  const double n = f.m[2][2];
  for (auto& row : f.m)
    for (double& v : row) v /= n;
  return pixman_transform_from_pixman_f_transform(out, &f) != 0;
}

void BM_PixmanWarpedQuads(benchmark::State& state) {
  static const double kCorners[4][8] = {{-0.02, 0.01, 1.01, -0.03, 0.98, 1.02, 0.01, 0.97},
                                        {0.03, -0.02, 0.97, 0.02, 1.02, 0.99, -0.01, 1.03},
                                        {0.0, 0.04, 1.03, 0.0, 0.99, 0.98, 0.02, 1.01},
                                        {-0.03, -0.01, 0.99, 0.03, 1.01, 1.01, 0.0, 0.99}};
  static const double kOpacity[4] = {1.0, 0.7, 0.5, 0.9};
  std::vector<uint32_t> dst(static_cast<size_t>(kFrameW) * kFrameH);
  pixman_image_t* dimg = pixman_image_create_bits(PIXMAN_a8b8g8r8, kFrameW, kFrameH, dst.data(), kFrameW * 4);
  pixman_image_t* src[4];
  pixman_image_t* mask[4];
  std::vector<uint32_t> premul[4];
  for (int k = 0; k < 4; k++) {
    // Pixman composites premultiplied pixels: convert once, outside the loop.
    const std::vector<uint8_t>& img = source_image(k);
    premul[k].resize(static_cast<size_t>(1280) * 720);
    for (size_t i = 0; i < premul[k].size(); i++) {
      const uint8_t* p = &img[i * 4];
      const uint32_t a = p[3];
      const uint32_t r = (p[0] * a + 127) / 255, g = (p[1] * a + 127) / 255, b = (p[2] * a + 127) / 255;
      premul[k][i] = (a << 24) | (b << 16) | (g << 8) | r;
    }
    src[k] = pixman_image_create_bits(PIXMAN_a8b8g8r8, 1280, 720, premul[k].data(), 1280 * 4);
    pixman_transform_t t;
    if (!pixman_quad_transform(kCorners[k], 1280, 720, &t)) {
      state.SkipWithError("transform");
      return;
    }
    pixman_image_set_transform(src[k], &t);
    pixman_image_set_filter(src[k], PIXMAN_FILTER_BILINEAR, nullptr, 0);
    pixman_image_set_repeat(src[k], PIXMAN_REPEAT_NONE);
    // The layer's opacity as a solid mask, as our compositor applies it.
    const uint16_t o = static_cast<uint16_t>(std::lround(kOpacity[k] * 65535));
    const pixman_color_t c = {o, o, o, o};
    mask[k] = kOpacity[k] < 1 ? pixman_image_create_solid_fill(&c) : nullptr;
  }
  const double t0 = now_s();
  for (auto _ : state) {
    for (uint32_t& p : dst) p = 0xFF000000u;
    for (int k = 0; k < 4; k++)
      pixman_image_composite32(PIXMAN_OP_OVER, src[k], mask[k], dimg, 0, 0, 0, 0, 0, 0, kFrameW, kFrameH);
    benchmark::ClobberMemory();
  }
  const double per_quad = (now_s() - t0) / static_cast<double>(state.iterations()) / 4;
  state.counters["per_quad_cpu_ms"] = per_quad * 1e3;
  for (int set = 0; set < 3; set++)
    if (g_kavlen_per_quad_s[set] > 0)
      state.counters[std::string("ratio_") + kSets[set]] = g_kavlen_per_quad_s[set] / per_quad;
  for (int k = 0; k < 4; k++) {
    pixman_image_unref(src[k]);
    if (mask[k]) pixman_image_unref(mask[k]);
  }
  pixman_image_unref(dimg);
}
BENCHMARK(BM_PixmanWarpedQuads)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
