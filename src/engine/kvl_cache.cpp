// Frame cache, sources table and key hash.
//
// The cache is a flat table scanned linearly: it holds at most a few hundred
// masks, and a scan of that many 32-byte entries costs less than any index
// would to maintain. Eviction swaps the last entry into the hole, so the
// table's order (and with it the order of ties) is not stable.
#include "engine_internal.h"

#include <stdlib.h>
#include <string.h>

uint64_t kvl_hash(uint64_t seed, const void* data, size_t length) {
  // FNV-1a steps from a start value of our own. Calls chain: the result of
  // one is the seed of the next, so composite keys need no buffer.
  uint64_t h = seed ? seed : 0x14650FB0739D0383ull;
  if (!data) return h;
  const uint8_t* p = (const uint8_t*)data;
  for (size_t i = 0; i < length; i++) h = (h ^ p[i]) * 0x100000001B3ull;
  return h;
}

kvl_cache* kvl_cache_create(uint64_t byte_budget) {
  kvl_cache* c = (kvl_cache*)calloc(1, sizeof(kvl_cache));
  if (!c) return nullptr;
  c->byte_budget = byte_budget ? byte_budget : KVL_CACHE_DEFAULT_BUDGET;
  return c;
}

void kvl_cache_free(kvl_cache* cache) {
  if (!cache) return;
  for (int32_t i = 0; i < cache->count; i++) free(cache->entries[i].data);
  free(cache->entries);
  free(cache);
}

void kvl_cache_begin_frame(kvl_cache* cache) {
  if (cache) cache->frame++;
}

uint8_t* kvl_cache_get(kvl_cache* cache, uint64_t key, uint64_t* out_size) {
  if (!cache) return nullptr;
  for (int32_t i = 0; i < cache->count; i++) {
    kvl_cache_entry* e = &cache->entries[i];
    if (e->key != key) continue;
    e->last_used = cache->frame;
    cache->hits++;
    if (out_size) *out_size = e->size;
    return e->data;
  }
  cache->misses++;
  return nullptr;
}

uint8_t* kvl_cache_put(kvl_cache* cache, uint64_t key, uint8_t* data, uint64_t size, bool* out_stored) {
  bool dummy;
  bool* stored = out_stored ? out_stored : &dummy;
  *stored = false;
  if (!cache) return data;

  // Two preparations of the same mask in one frame: the first one stays, so
  // every holder of the key shares one buffer.
  for (int32_t i = 0; i < cache->count; i++) {
    kvl_cache_entry* e = &cache->entries[i];
    if (e->key != key) continue;
    if (data != e->data) free(data);
    e->last_used = cache->frame;
    *stored = true;
    return e->data;
  }

  if (size > cache->byte_budget) return data;

  // bytes_used never exceeds the budget, so the subtraction cannot wrap.
  while (size > cache->byte_budget - cache->bytes_used) {
    int32_t victim = -1;
    for (int32_t i = 0; i < cache->count; i++) {
      const uint64_t lu = cache->entries[i].last_used;
      if (lu >= cache->frame) continue;  // touched this frame: never evicted
      if (victim < 0 || lu < cache->entries[victim].last_used) victim = i;
    }
    if (victim < 0) return data;
    kvl_cache_entry* v = &cache->entries[victim];
    free(v->data);
    cache->bytes_used -= v->size;
    *v = cache->entries[cache->count - 1];
    cache->count--;
  }

  if (cache->count == cache->capacity) {
    const int32_t cap = cache->capacity ? cache->capacity * 2 : 32;
    if (cap <= cache->capacity) return data;
    kvl_cache_entry* grown = (kvl_cache_entry*)realloc(cache->entries, (size_t)cap * sizeof(kvl_cache_entry));
    if (!grown) return data;
    cache->entries = grown;
    cache->capacity = cap;
  }
  kvl_cache_entry* e = &cache->entries[cache->count++];
  e->key = key;
  e->data = data;
  e->size = size;
  e->last_used = cache->frame;
  cache->bytes_used += size;
  *stored = true;
  return data;
}

// ---------------------------------------------------------------------------
// Sources

namespace {

// Appends an entry with a copy of key and no pixels; null when out of memory.
// The table grows by exactly one entry at a time.
kvl_source* append_source(kvl_sources* s, const char* key) {
  char* copy = strdup(key);
  if (!copy) return nullptr;
  kvl_source* grown = (kvl_source*)realloc(s->entries, ((size_t)s->count + 1) * sizeof(kvl_source));
  if (!grown) {
    free(copy);
    return nullptr;
  }
  s->entries = grown;
  kvl_source* e = &grown[s->count++];
  e->key = copy;
  e->pixels = nullptr;
  e->width = 0;
  e->height = 0;
  return e;
}

kvl_source* find_mutable(kvl_sources* s, const char* key) {
  for (int32_t i = 0; i < s->count; i++)
    if (s->entries[i].key && strcmp(s->entries[i].key, key) == 0) return &s->entries[i];
  return nullptr;
}

}  // namespace

const kvl_source* find_source(const kvl_sources* sources, const char* key) {
  if (!sources || !key) return nullptr;
  return find_mutable(const_cast<kvl_sources*>(sources), key);
}

int32_t kvl_sources_set(kvl_sources* sources, const char* key, const uint8_t* rgba, int32_t w, int32_t h,
                        int32_t stride) {
  if (!sources || !key || !rgba || w < 1 || h < 1) return -1;
  kvl_source* e = find_mutable(sources, key);
  if (!e) e = append_source(sources, key);
  if (!e) return -2;
  const size_t row = (size_t)w * 4;
  if (!e->pixels || e->width != w || e->height != h) {
    // The old pixels go first: on failure the entry stays, declared only.
    free(e->pixels);
    e->pixels = (uint8_t*)malloc(row * (size_t)h);
    if (!e->pixels) return -2;
    e->width = w;
    e->height = h;
  }
  for (int32_t y = 0; y < h; y++) memcpy(e->pixels + row * (size_t)y, rgba + (ptrdiff_t)stride * y, row);
  return 0;
}

int32_t kvl_sources_declare(kvl_sources* sources, const char* key, int32_t w, int32_t h) {
  if (!sources || !key || w < 1 || h < 1) return -1;
  kvl_source* e = find_mutable(sources, key);
  if (!e) {
    e = append_source(sources, key);
    if (!e) return -2;
  } else if (e->pixels && (e->width != w || e->height != h)) {
    free(e->pixels);
    e->pixels = nullptr;
  }
  e->width = w;
  e->height = h;
  return 0;
}

void kvl_sources_free(kvl_sources* sources) {
  if (!sources) return;
  for (int32_t i = 0; i < sources->count; i++) {
    free(sources->entries[i].key);
    free(sources->entries[i].pixels);
  }
  free(sources->entries);
  sources->entries = nullptr;
  sources->count = 0;
}
