// Scene document parsing and per-frame layer resolution on a generated show
// of 200 layers that uses every part of the document: keyframes on named and
// vertex properties, clips with fades and looping video, groups, masks, warp
// meshes, effects and audio modulations.
//
// Targets: parsing at 100 MB/s or more, resolving all 200 layers in 20 us or
// less, with no allocation on the resolve path. The "allocs" counter is the
// number of malloc-family calls per iteration, counted by a hook in this
// program (left out under sanitizers, which own malloc themselves).
#include <benchmark/benchmark.h>
#include <dlfcn.h>

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
