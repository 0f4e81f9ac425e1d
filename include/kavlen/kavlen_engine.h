/* Kavlen engine: the engine handle, one per output surface.
 *
 * Usage:
 *   kvl_engine* e = kvl_engine_create(json, 1920, 1080, "out-1");
 *   kvl_engine_set_media_root(e, "/shows/tonight");
 *   kvl_engine_set_source(e, "wall.png", rgba, w, h, w * 4);
 *   kvl_engine_render(e, time_us, frame, 1920 * 4);     // CPU path
 *   const kvl_draw_list* l = kvl_engine_draw_list(e, time_us); // GPU path
 *   kvl_engine_destroy(e);
 *
 * A handle shows exactly one output of the scene. It has no lock: calls on one
 * handle must be serialised by the caller. Moments are int64 microseconds.
 * Errors go to one process-wide 256-byte text read by kvl_last_error; only
 * kvl_engine_create clears it.
 */
#ifndef KAVLEN_KAVLEN_ENGINE_H
#define KAVLEN_KAVLEN_ENGINE_H

#include "kvl_audio.h"
#include "kvl_cache.h"
#include "kvl_draw.h"
#include "kvl_render.h"
#include "kvl_scene.h"
#include "kvl_signals.h"

typedef struct kvl_engine kvl_engine;

typedef struct kvl_media_need {
  const char* key;
  int64_t media_us;
  double speed;
} kvl_media_need;

KVL_API const char* kvl_version(void);
KVL_API const char* kvl_last_error(void);

KVL_API kvl_engine* kvl_engine_create(const char* scene_json, int32_t width, int32_t height, const char* output_id);
KVL_API void kvl_engine_destroy(kvl_engine* engine);
KVL_API int32_t kvl_engine_set_scene(kvl_engine* engine, const char* scene_json);
KVL_API void kvl_engine_set_media_root(kvl_engine* engine, const char* path);
KVL_API int32_t kvl_engine_set_source(kvl_engine* engine, const char* key, const uint8_t* rgba, int32_t w,
                                      int32_t h, int32_t stride);
KVL_API int32_t kvl_engine_declare_source(kvl_engine* engine, const char* key, int32_t w, int32_t h);
KVL_API kvl_sources* kvl_engine_sources(kvl_engine* engine);
KVL_API void kvl_engine_set_threads(kvl_engine* engine, int32_t n);
KVL_API int32_t kvl_engine_layer_count(const kvl_engine* engine);
KVL_API int32_t kvl_engine_render(kvl_engine* engine, int64_t time_us, uint8_t* rgba, int32_t stride);
KVL_API const kvl_draw_list* kvl_engine_draw_list(kvl_engine* engine, int64_t time_us);
KVL_API int32_t kvl_engine_media_at(kvl_engine* engine, int64_t time_us, kvl_media_need* out, int32_t capacity);
KVL_API double kvl_engine_envelope_at(kvl_engine* engine, const char* modulation_id, int64_t time_us);
KVL_API void kvl_engine_set_signals(kvl_engine* engine, const float* signals, double dt_ms);
KVL_API int32_t kvl_engine_set_track_signals(kvl_engine* engine, const char* key, const void* bytes,
                                             int32_t length);
KVL_API void kvl_engine_set_audio_time(kvl_engine* engine, double time_ms);
KVL_API void kvl_engine_step_audio(kvl_engine* engine, double dt_ms);

#endif
