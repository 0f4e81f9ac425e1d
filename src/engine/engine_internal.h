// Internal view of the engine handle, shared by the files of the core.
// Nothing here is exported: hidden visibility is the default of the library.
#pragma once

#include "kavlen/kavlen_engine.h"

struct kvl_engine {
  kvl_scene* scene;
  kvl_sources sources;
  int32_t width, height;
  char* output_id;
  int32_t threads;
  int32_t layer_count;
  kvl_layer** layers;
  double* vertex_pool;
  int32_t max_vertices;
  kvl_draw_builder builder;
  kvl_resolved* resolved;
  kvl_cache* cache;
  int32_t env_count;
  char** env_ids;
  double* env_values;
  int32_t signal_count;
  char** signal_keys;
  kvl_signals** signal_tables;
  char* media_root;
  double audio_time;
};

// The process-wide error text (256 bytes). printf-style; truncates.
void set_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
char* error_buffer();
enum { KVL_ERROR_SIZE = 256 };

// Resolves every selected layer at time_ms into out (layer_count records),
// then applies audio modulation. Performs no allocation apart from what
// loading a signal table takes.
void resolve_all(kvl_engine* engine, kvl_resolved* out, double time_ms);

// Envelope of modulation index `mi` of `layer` at time_ms, or -1.0 for none.
// Implemented with the audio modulation code.
double modulation_envelope(kvl_engine* engine, const kvl_layer* layer, int32_t mi, double time_ms);

// Removes signal-table entries whose table is null (remembered failures), so
// that they are tried again after a scene or media-root change.
void compact_signals(kvl_engine* engine);
// Frees the envelope and signal tables of the handle.
void free_audio_tables(kvl_engine* engine);

// Exact-key lookup in the sources table; null when absent or key is null.
const kvl_source* find_source(const kvl_sources* sources, const char* key);
