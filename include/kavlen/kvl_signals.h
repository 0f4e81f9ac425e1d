/* Kavlen engine: signal files ("KVLS"), the pre-computed analysis of a media
 * file: five bytes a frame (level, bass, mid, high, beat), little-endian
 * header of 24 bytes. Reading is stateless: any moment can be asked for.
 */
#ifndef KAVLEN_KVL_SIGNALS_H
#define KAVLEN_KVL_SIGNALS_H

#include "kvl_base.h"

typedef struct kvl_signals {
  float frame_rate;
  float start_ms;
  float tempo;
  uint32_t frame_count;
  uint8_t* frames; /* 5 * frame_count bytes, never null after a parse */
} kvl_signals;

KVL_API kvl_signals* kvl_signals_parse(const void* bytes, int32_t length);
KVL_API kvl_signals* kvl_signals_load(const char* path);
KVL_API void kvl_signals_at(const kvl_signals* signals, float* out, double time_ms);
KVL_API void kvl_signals_free(kvl_signals* signals);
/* Analyses headerless mono float32 samples; returns frames written or -1. */
KVL_API int32_t kvl_signals_analyze_file(const char* samples_path, int32_t sample_rate, const char* signals_path);

#endif
