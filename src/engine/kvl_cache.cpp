// Frame cache, sources table and key hash. (Being written.)
#include "engine_internal.h"

uint64_t kvl_hash(uint64_t, const void*, size_t) { return 0; }
kvl_cache* kvl_cache_create(uint64_t) { return nullptr; }
void kvl_cache_free(kvl_cache*) {}
void kvl_cache_begin_frame(kvl_cache*) {}
uint8_t* kvl_cache_get(kvl_cache*, uint64_t, uint64_t*) { return nullptr; }
uint8_t* kvl_cache_put(kvl_cache*, uint64_t, uint8_t* data, uint64_t, bool* s) { if (s) *s = false; return data; }
int32_t kvl_sources_set(kvl_sources*, const char*, const uint8_t*, int32_t, int32_t, int32_t) { return -1; }
int32_t kvl_sources_declare(kvl_sources*, const char*, int32_t, int32_t) { return -1; }
void kvl_sources_free(kvl_sources*) {}
const kvl_source* find_source(const kvl_sources*, const char*) { return nullptr; }
