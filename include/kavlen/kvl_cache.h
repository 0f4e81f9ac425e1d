/* Kavlen engine: frame cache, image sources, the key hash and YUV conversions.
 *
 * The frame cache keeps masks between frames under 64-bit keys, with a byte
 * budget (default 96 MiB) and eviction by age in frames; what the current
 * frame touched is never evicted. No locks: used only on the rendering thread.
 *
 * The sources table holds images by key: straight RGBA, rows of width * 4
 * bytes, or a declared size without pixels (pixels live on the GPU).
 */
#ifndef KAVLEN_KVL_CACHE_H
#define KAVLEN_KVL_CACHE_H

#include "kvl_base.h"

#define KVL_CACHE_DEFAULT_BUDGET 0x6000000ull

typedef struct kvl_cache_entry {
  uint64_t key;
  uint8_t* data;
  uint64_t size;
  uint64_t last_used;
} kvl_cache_entry;

typedef struct kvl_cache {
  kvl_cache_entry* entries;
  int32_t count, capacity;
  uint64_t bytes_used, byte_budget;
  uint64_t frame;
  uint64_t hits, misses;
} kvl_cache;

typedef struct kvl_source {
  char* key;
  uint8_t* pixels; /* null while only declared */
  int32_t width, height;
} kvl_source;

typedef struct kvl_sources {
  int32_t count;
  kvl_source* entries;
} kvl_sources;

/* FNV-1a with seed (0 selects 0x14650FB0739D0383); calls chain. */
KVL_API uint64_t kvl_hash(uint64_t seed, const void* data, size_t length);

KVL_API kvl_cache* kvl_cache_create(uint64_t byte_budget);
KVL_API void kvl_cache_free(kvl_cache* cache);
KVL_API void kvl_cache_begin_frame(kvl_cache* cache);
KVL_API uint8_t* kvl_cache_get(kvl_cache* cache, uint64_t key, uint64_t* out_size);
/* Hands data (malloc'd) over; returns the buffer to use from now on.
 * *out_stored false: the caller still owns (and frees) the returned buffer. */
KVL_API uint8_t* kvl_cache_put(kvl_cache* cache, uint64_t key, uint8_t* data, uint64_t size,
                               bool* out_stored);

KVL_API int32_t kvl_sources_set(kvl_sources* sources, const char* key, const uint8_t* rgba, int32_t w,
                                int32_t h, int32_t stride);
KVL_API int32_t kvl_sources_declare(kvl_sources* sources, const char* key, int32_t w, int32_t h);
KVL_API void kvl_sources_free(kvl_sources* sources);

/* BT.601 limited range, integer arithmetic. */
KVL_API void kvl_yuv420_to_rgba(const uint8_t* y, int32_t y_stride, const uint8_t* u, int32_t u_stride,
                                int32_t u_pixel_stride, const uint8_t* v, int32_t v_stride,
                                int32_t v_pixel_stride, int32_t width, int32_t height, uint8_t* rgba,
                                int32_t rgba_stride);
KVL_API void kvl_rgba_to_yuv420(const uint8_t* rgba, int32_t rgba_stride, int32_t width, int32_t height,
                                uint8_t* y, int32_t y_stride, uint8_t* u, int32_t u_stride,
                                int32_t u_pixel_stride, uint8_t* v, int32_t v_stride,
                                int32_t v_pixel_stride);

#endif
