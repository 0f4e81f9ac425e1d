// Draw list of a 100-layer scene at 1920 x 1080, from the second frame on
// (every mask already in the frame cache), through kvl_engine_draw_list as
// the GPU renderer calls it each refresh. Target: median at most 100 us.
//
// Three mixes:
//   0 "quads"  - quads in perspective (images, videos, colours) and
//                ellipses: one cell each, no mask references.
//   1 "show"   - as a show would have them: the same with two warped 3x3
//                meshes (288 cells), ten polygons with a curved edge, a
//                stroke and a shadow on four layers, a drawn mask on two.
//   2 "heavy"  - ten warped meshes (1440 cells) and a drawn mask on every
//                fifth layer, besides the polygons and effects of "show".
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

struct Rng {
  uint64_t s;
  explicit Rng(uint64_t seed) : s(seed) {}
  double uni(double lo, double hi) {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return lo + (hi - lo) * static_cast<double>(s >> 11) * 0x1.0p-53;
  }
};

std::string corners(Rng& r) {
  // A quad somewhere in the frame, with each corner pulled a little so that
  // the map is projective.
  const double x = r.uni(0, 0.7), y = r.uni(0, 0.7), w = r.uni(0.1, 0.3), h = r.uni(0.1, 0.3);
  char b[256];
  snprintf(b, sizeof b, "[[%.4f,%.4f],[%.4f,%.4f],[%.4f,%.4f],[%.4f,%.4f]]", x + r.uni(0, 0.03), y + r.uni(0, 0.03),
           x + w - r.uni(0, 0.03), y + r.uni(0, 0.03), x + w + r.uni(0, 0.03), y + h - r.uni(0, 0.03),
           x - r.uni(0, 0.03), y + h + r.uni(0, 0.03));
  return b;
}

std::string mesh(Rng& r) {
  std::string o = "[";
  for (int i = 0; i < 16; i++) {
    char b[64];
    snprintf(b, sizeof b, "%s[%.4f,%.4f]", i ? "," : "", r.uni(-0.01, 0.01), r.uni(-0.01, 0.01));
    o += b;
  }
  return R"("mesh": {"cols": 3, "rows": 3, "offsets": )" + o + "]}";
}

std::string paint(int i) {
  switch (i % 4) {
    case 0: return R"("paint": {"type": "image", "path": "img)" + std::to_string(i % 7) + R"(.png"})";
    case 1: return R"("paint": {"type": "video", "path": "clip)" + std::to_string(i % 3) + R"(.mp4"})";
    default:
      return R"("paint": {"type": "color", "argb": )" + std::to_string(0xFF000000u + i * 2654435u % 0xFFFFFF) + "}";
  }
}

std::string scene(int mix) {
  Rng r(42 + mix);
  std::string s = R"({"mappings": [)";
  for (int i = 0; i < 100; i++) {
    std::string m = "{" + paint(i) + ", \"opacity\": " + (i % 5 == 3 ? "0.7" : "1");
    if (mix >= 1 && i % 10 == 7) {
      m += R"(, "shape": {"kind": "polygon", "vertices": [[0.3,0.3],[0.42,0.28],[0.45,0.4],)"
           R"({"x": 0.36, "y": 0.46, "in": [0.03,0.02]},[0.28,0.4]]})";
    } else if (i % 10 == 5) {
      m += R"(, "shape": {"kind": "ellipse", "vertices": )" + corners(r) + "}";
    } else {
      m += ", \"corners\": " + corners(r);
    }
    if ((mix == 1 && i % 50 == 2) || (mix == 2 && i % 10 == 2)) m += ", " + mesh(r);
    if (mix >= 1 && i % 25 == 9)
      m += R"(, "effects": {"stroke": {"width": 4}, "shadow": {"dx": 6, "dy": 6, "blur": 8}})";
    const bool masked = (mix == 1 && i % 50 == 11) || (mix == 2 && i % 5 == 1);
    if (masked) {
      char b[200];
      snprintf(b, sizeof b, R"(, "mask": {"vertices": [[0.1,0.1],[0.9,%.3f],[0.5,0.95]], "feather": 4})",
               0.05 + 0.001 * i);
      m += b;
    }
    s += (i ? "," : "") + m + "}";
  }
  return s + "]}";
}

void BM_DrawList100(benchmark::State& state) {
  const int mix = static_cast<int>(state.range(0));
  const std::string json = scene(mix);
  kvl_engine* e = kvl_engine_create(json.c_str(), 1920, 1080, nullptr);
  if (!e || kvl_engine_layer_count(e) != 100) {
    state.SkipWithError("scene refused");
    kvl_engine_destroy(e);
    return;
  }
  std::vector<uint8_t> px(64 * 64 * 4, 128);
  for (int i = 0; i < 7; i++)
    kvl_engine_set_source(e, ("img" + std::to_string(i) + ".png").c_str(), px.data(), 64, 64, 256);
  for (int i = 0; i < 3; i++) kvl_engine_declare_source(e, ("clip" + std::to_string(i) + ".mp4").c_str(), 1920, 1080);
  const kvl_draw_list* first = kvl_engine_draw_list(e, 0);  // fills the frame cache
  int64_t cmds = first ? first->cmd_count : 0, verts = first ? first->vertex_count : 0,
          refs = first ? first->ref_count : 0;
  for (auto _ : state) {
    const kvl_draw_list* l = kvl_engine_draw_list(e, 0);
    benchmark::DoNotOptimize(l);
  }
  state.counters["cmds"] = static_cast<double>(cmds);
  state.counters["vertices"] = static_cast<double>(verts);
  state.counters["refs"] = static_cast<double>(refs);
  kvl_engine_destroy(e);
}
BENCHMARK(BM_DrawList100)->ArgName("mix")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);

}  // namespace
