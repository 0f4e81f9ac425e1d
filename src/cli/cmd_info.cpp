// kavlen info: what the engine resolves of a scene at one moment, per output.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "kavlen/kavlen.h"

namespace {

const char* shape_name(kvl_shape_kind k) {
  switch (k) {
    case KVL_SHAPE_ELLIPSE: return "ellipse";
    case KVL_SHAPE_TRIANGLE: return "triangle";
    case KVL_SHAPE_POLYGON: return "polygon";
    default: return "quad";
  }
}

const char* paint_name(kvl_paint_kind k) {
  static const char* names[] = {"none", "color", "image", "video", "asset_video", "text"};
  return k >= 0 && k <= 5 ? names[k] : "none";
}

}  // namespace

int cmd_info(int argc, char** argv) {
  const char* scene_path = nullptr;
  double time_ms = 0;
  const char* only_output = nullptr;
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "--help")) {
      puts("usage: kavlen info SCENE.json [--time-ms T] [--output ID]");
      return 0;
    } else if (!strcmp(argv[i], "--time-ms") && i + 1 < argc) {
      char* end = nullptr;
      time_ms = strtod(argv[++i], &end);
      if (!end || *end) return fail("info: --time-ms wants a number, got '%s'", argv[i]);
    } else if (!strcmp(argv[i], "--output") && i + 1 < argc) {
      only_output = argv[++i];
    } else if (argv[i][0] == '-') {
      return fail("info: unknown option '%s'", argv[i]);
    } else if (!scene_path) {
      scene_path = argv[i];
    } else {
      return fail("info: more than one scene given");
    }
  }
  if (!scene_path) return fail("info: no scene file given (kavlen info SCENE.json)");
  std::string text, error;
  if (!read_text_file(scene_path, text, error)) return fail("info: %s", error.c_str());

  char message[256] = "";
  kvl_scene* scene = kvl_scene_parse(text.c_str(), message, sizeof message);
  if (!scene) return fail("info: %s: %s", scene_path, message);

  printf("scene %s: %d layers, %d groups, %d audio tracks\n", scene_path, scene->layer_count,
         scene->group_count, scene->track_count);
  const int64_t time_us = static_cast<int64_t>(time_ms * 1000.0);
  for (int32_t o = 0; o < scene->output_count; o++) {
    const kvl_output& out = scene->outputs[o];
    if (only_output && strcmp(only_output, out.id)) continue;
    int32_t w = static_cast<int32_t>(out.width), h = static_cast<int32_t>(out.height);
    kvl_engine* engine = kvl_engine_create(text.c_str(), w, h, out.id);
    if (!engine) {
      kvl_scene_free(scene);
      return fail("info: %s", kvl_last_error());
    }
    printf("output \"%s\" %dx%d: %d layers at %.3f ms\n", out.id, w, h, kvl_engine_layer_count(engine), time_ms);
    // The draw list resolves (and prepares) every layer; media_at shows the
    // media positions that a player would be asked for.
    const kvl_draw_list* list = kvl_engine_draw_list(engine, time_us);
    int32_t need_count = kvl_engine_media_at(engine, time_us, nullptr, 0);
    std::vector<kvl_media_need> needs(need_count > 0 ? need_count : 1);
    need_count = kvl_engine_media_at(engine, time_us, needs.data(), static_cast<int32_t>(needs.size()));
    for (int32_t i = 0; i < scene->layer_count; i++) {
      const kvl_layer& l = scene->layers[i];
      const char* lo = l.output ? l.output : scene->outputs[0].id;
      if (strcmp(lo, out.id)) continue;
      std::vector<double> verts(static_cast<size_t>(l.vertex_count > 0 ? l.vertex_count : 1) * 2);
      kvl_resolved r{};
      kvl_layer_resolve(scene, &l, verts.data(), &r, time_ms);
      printf("  layer \"%s\" %s/%d paint %s%s%s opacity %.3f %s", l.id, shape_name(l.shape), l.vertex_count,
             paint_name(r.paint.kind), r.paint.ref ? " " : "", r.paint.ref ? r.paint.ref : "", r.opacity,
             r.visible ? "visible" : "hidden");
      if (r.has_media_time) printf(" media %.1f ms x%.2f", r.media_time_ms, r.media_speed);
      if (l.has_mesh) printf(" mesh %dx%d", l.mesh_cols, l.mesh_rows);
      if (l.keyframe_count) printf(" keyframes %d", l.keyframe_count);
      if (l.clip_count) printf(" clips %d", l.clip_count);
      printf("\n");
    }
    if (list)
      printf("  draw list: %d commands, %d vertices, %d masks\n", list->cmd_count, list->vertex_count,
             list->ref_count);
    for (int32_t k = 0; k < need_count && k < static_cast<int32_t>(needs.size()); k++)
      printf("  media \"%s\" at %lld us, speed %.2f\n", needs[k].key, static_cast<long long>(needs[k].media_us),
             needs[k].speed);
    kvl_engine_destroy(engine);
  }
  kvl_scene_free(scene);
  return 0;
}
