// The engine handle: creation, layer selection by output, scene changes that
// keep sources and audio state, and the two roads to a frame (CPU render and
// GPU draw list). Plain allocation with explicit frees; no exceptions.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "engine_internal.h"

namespace {

char g_error[KVL_ERROR_SIZE];

char* dup_string(const char* s) {
  size_t n = strlen(s) + 1;
  char* d = static_cast<char*>(malloc(n));
  if (d) memcpy(d, s, n);
  return d;
}

// The output a layer belongs to when it names none.
const char* default_output(const kvl_scene* scene) {
  if (scene->output_count > 0 && scene->outputs[0].id) return scene->outputs[0].id;
  return "main";
}

// Picks the layers of this handle's output, in document order, and sizes the
// per-frame vertex pool. Paid once per scene change, never per frame.
bool select_layers(kvl_engine* e) {
  free(e->layers);
  free(e->vertex_pool);
  free(e->resolved);
  e->layers = nullptr;
  e->vertex_pool = nullptr;
  e->resolved = nullptr;
  e->layer_count = 0;
  e->max_vertices = 0;

  const kvl_scene* scene = e->scene;
  int32_t n = scene->layer_count;
  e->layers = static_cast<kvl_layer**>(calloc(n > 0 ? n : 1, sizeof(kvl_layer*)));
  if (!e->layers) return false;
  const char* fallback = default_output(scene);
  for (int32_t i = 0; i < n; i++) {
    kvl_layer* layer = &scene->layers[i];
    const char* out = layer->output ? layer->output : fallback;
    if (strcmp(out, e->output_id) != 0) continue;
    e->layers[e->layer_count++] = layer;
    if (layer->vertex_count > e->max_vertices) e->max_vertices = layer->vertex_count;
  }
  size_t rows = e->layer_count > 0 ? e->layer_count : 1;
  size_t cols = e->max_vertices > 0 ? e->max_vertices : 1;
  e->vertex_pool = static_cast<double*>(calloc(rows * cols * 2, sizeof(double)));
  return e->vertex_pool != nullptr;
}

kvl_scene* parse_scene(const char* json) { return kvl_scene_parse(json, g_error, KVL_ERROR_SIZE); }

// Milliseconds to whole microseconds, halves away from zero. A document can
// ask for any speed, so positions beyond int64 saturate (NaN reads as 0)
// instead of converting out of range.
int64_t media_micros(double ms) {
  const double us = std::round(ms * 1000.0);
  if (!(us == us)) return 0;
  if (us >= 9223372036854775808.0) return INT64_MAX;
  if (us <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(us);
}

int32_t worker_count(const kvl_engine* e) {
  if (e->threads >= 1) return e->threads;
  long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n >= 1 ? static_cast<int32_t>(n) : 1;
}

}  // namespace

void set_error(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(g_error, sizeof g_error, fmt, ap);
  va_end(ap);
}

char* error_buffer() { return g_error; }

const char* kvl_version(void) { return "0.1.0"; }
const char* kvl_last_error(void) { return g_error; }

kvl_engine* kvl_engine_create(const char* scene_json, int32_t width, int32_t height, const char* output_id) {
  g_error[0] = '\0';
  if (!scene_json || width < 1 || height < 1) {
    set_error("argumentos inválidos");
    return nullptr;
  }
  kvl_scene* scene = parse_scene(scene_json);
  if (!scene) return nullptr;
  auto* e = static_cast<kvl_engine*>(calloc(1, sizeof(kvl_engine)));
  if (!e) {
    kvl_scene_free(scene);
    return nullptr;
  }
  e->scene = scene;
  e->width = width;
  e->height = height;
  e->output_id = dup_string(output_id && output_id[0] ? output_id : default_output(scene));
  e->cache = kvl_cache_create(0);
  e->audio_time = -1.0;
  if (!e->output_id || !e->cache || !select_layers(e)) {
    kvl_engine_destroy(e);
    return nullptr;
  }
  return e;
}

void kvl_engine_destroy(kvl_engine* e) {
  if (!e) return;
  free_audio_tables(e);
  free(e->media_root);
  kvl_scene_free(e->scene);
  kvl_sources_free(&e->sources);
  kvl_cache_free(e->cache);
  kvl_draw_builder_free(&e->builder);
  free(e->resolved);
  free(e->output_id);
  free(e->layers);
  free(e->vertex_pool);
  free(e);
}

int32_t kvl_engine_set_scene(kvl_engine* e, const char* scene_json) {
  if (!e || !scene_json) return -1;
  kvl_scene* scene = parse_scene(scene_json);
  if (!scene) return -2;
  kvl_draw_builder_reset(&e->builder);
  kvl_scene_free(e->scene);
  e->scene = scene;
  if (!select_layers(e)) {
    // Out of memory: leave a handle that shows nothing rather than a dangling one.
    e->layer_count = 0;
    set_error("sem memória");
    return -2;
  }
  compact_signals(e);
  return 0;
}

void kvl_engine_set_media_root(kvl_engine* e, const char* path) {
  if (!e) return;
  free(e->media_root);
  e->media_root = path ? dup_string(path) : nullptr;
  compact_signals(e);
}

int32_t kvl_engine_set_source(kvl_engine* e, const char* key, const uint8_t* rgba, int32_t w, int32_t h,
                              int32_t stride) {
  if (!e) return -1;
  return kvl_sources_set(&e->sources, key, rgba, w, h, stride);
}

int32_t kvl_engine_declare_source(kvl_engine* e, const char* key, int32_t w, int32_t h) {
  if (!e) return -1;
  return kvl_sources_declare(&e->sources, key, w, h);
}

kvl_sources* kvl_engine_sources(kvl_engine* e) { return e ? &e->sources : nullptr; }

void kvl_engine_set_threads(kvl_engine* e, int32_t n) {
  if (e) e->threads = n;
}

int32_t kvl_engine_layer_count(const kvl_engine* e) { return e ? e->layer_count : 0; }

void resolve_all(kvl_engine* e, kvl_resolved* out, double time_ms) {
  const int32_t stride = e->max_vertices > 0 ? e->max_vertices : 1;
  for (int32_t i = 0; i < e->layer_count; i++) {
    const kvl_layer* layer = e->layers[i];
    kvl_layer_resolve(e->scene, layer, e->vertex_pool + static_cast<size_t>(i) * stride * 2, &out[i], time_ms);
    if (layer->modulation_count < 1) continue;
    // Only the first 64 modulations of a layer have envelopes; the
    // modulator ignores the rest.
    double env[64];
    int32_t n = layer->modulation_count < 64 ? layer->modulation_count : 64;
    for (int32_t k = 0; k < n; k++) env[k] = modulation_envelope(e, layer, k, time_ms);
    kvl_layer_modulate(layer, env, &out[i]);
  }
}

int32_t kvl_engine_render(kvl_engine* e, int64_t time_us, uint8_t* rgba, int32_t stride) {
  if (!e || !rgba) return -1;
  if (static_cast<int64_t>(stride) < static_cast<int64_t>(e->width) * 4) {
    set_error("stride menor que width*4");
    return -2;
  }
  int32_t n = e->layer_count > 0 ? e->layer_count : 1;
  auto* resolved = static_cast<kvl_resolved*>(calloc(n, sizeof(kvl_resolved)));
  if (!resolved) {
    set_error("sem memória");
    return -2;
  }
  resolve_all(e, resolved, static_cast<double>(time_us) * 0.001);
  kvl_cache_begin_frame(e->cache);
  kvl_render_frame(resolved, e->layer_count, &e->sources, rgba, e->width, e->height, stride, worker_count(e),
                   e->cache);
  free(resolved);
  return 0;
}

const kvl_draw_list* kvl_engine_draw_list(kvl_engine* e, int64_t time_us) {
  if (!e) return nullptr;
  if (!e->resolved) {
    int32_t n = e->layer_count > 0 ? e->layer_count : 1;
    e->resolved = static_cast<kvl_resolved*>(calloc(n, sizeof(kvl_resolved)));
    if (!e->resolved) return nullptr;
  }
  resolve_all(e, e->resolved, static_cast<double>(time_us) * 0.001);
  kvl_cache_begin_frame(e->cache);
  return kvl_draw_build(&e->builder, e->resolved, e->layer_count, &e->sources, e->width, e->height, e->cache);
}

int32_t kvl_engine_media_at(kvl_engine* e, int64_t time_us, kvl_media_need* out, int32_t capacity) {
  if (!e) return 0;
  if (!out) capacity = 0;
  int32_t n_alloc = e->layer_count > 0 ? e->layer_count : 1;
  auto* resolved = static_cast<kvl_resolved*>(calloc(n_alloc, sizeof(kvl_resolved)));
  if (!resolved) return 0;
  resolve_all(e, resolved, static_cast<double>(time_us) * 0.001);
  int32_t n = 0;
  for (int32_t i = 0; i < e->layer_count; i++) {
    const kvl_resolved* r = &resolved[i];
    if (!r->visible || !r->paint.ref) continue;
    int32_t stored = n < capacity ? n : capacity;
    bool seen = false;
    for (int32_t k = 0; k < stored && !seen; k++) seen = strcmp(out[k].key, r->paint.ref) == 0;
    if (seen) continue;
    if (n < capacity) {
      out[n].key = r->paint.ref;
      if (r->has_media_time) {
        out[n].media_us = media_micros(r->media_time_ms);
        out[n].speed = r->media_speed;
      } else {
        out[n].media_us = 0;
        out[n].speed = 1.0;
      }
    }
    n++;
  }
  free(resolved);
  return n;
}
