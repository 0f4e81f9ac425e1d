// Draw list builder: the prepared layers of a frame flattened into commands,
// vertices and mask references for a GPU back end.
//
// The builder keeps its three arrays from build to build and only clears the
// counts, so an unchanged scene costs no allocation here apart from the array
// of prepared layers; the expensive masks come out of the frame cache.
//
// The sampled hash of a full surface mask is a chain of 131658 dependent
// multiplications, about 0.2 ms: a handful of masks would cost more than the
// whole rest of a 100-layer list. A cached buffer never changes while it
// sits in the cache, and what the cache holds under a key is determined by
// that key, so the hash of a cached reference is remembered per reference
// slot together with its cache key and reused while the slot keeps seeing
// the same key and size. Buffers that are not cached are hashed every time.
#include "engine_internal.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr int32_t kFirstCapacity = 64;
constexpr int32_t kFloatsPerVertex = 5;

// Capacity after growth: doubling from the current one (64 from empty) up to
// the first value not below `needed`. 0 when that no longer fits an int32.
int64_t grown_capacity(int64_t capacity, int64_t needed) {
  int64_t c = capacity > 0 ? capacity : kFirstCapacity;
  while (c < needed) {
    c *= 2;
    if (c > INT32_MAX) return 0;
  }
  return c;
}

// Makes room for `needed` elements of `size` bytes (a vertex is five
// floats). The array keeps its contents and its memory on failure.
template <typename T>
bool reserve(T** array, int32_t* capacity, int64_t needed, size_t size) {
  if (needed <= *capacity) return true;
  const int64_t c = grown_capacity(*capacity, needed);
  if (c == 0) return false;
  T* p = static_cast<T*>(realloc(*array, static_cast<size_t>(c) * size));
  if (!p) return false;
  *array = p;
  *capacity = static_cast<int32_t>(c);
  return true;
}

// Doubles narrowed for the GPU. With IEEE floats a finite double beyond the
// float range becomes an infinity and NaN stays NaN, so the list never holds
// a value that the prepared layer did not mean.
inline float narrow(double d) { return static_cast<float>(d); }

// Sampled content hash of a reference: every seventh byte, FNV-1a steps from
// a start that depends on the size. A back end keys its mask textures on it,
// so masks that differ only between samples share a texture there.
uint64_t ref_hash(const uint8_t* data, uint64_t n) {
  uint64_t h = n ^ 0x14650FB0739D0383ull;
  if (!data) return h;
  for (uint64_t i = 0; i < n; i += 7) h = (h ^ data[i]) * 0x100000001B3ull;
  return h;
}

uint64_t byte_count(int32_t w, int32_t h) {
  if (w < 1 || h < 1) return 0;
  return static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
}

// What the last build learnt about the hash of one reference slot. The memos
// live in the same block as the references, after their capacity, so they
// follow the array without a field of their own in the builder's record.
struct ref_memo {
  uint64_t key;  // cache key of the buffer that was hashed
  uint64_t size;
  uint64_t hash;
  uint64_t valid;
};

ref_memo* memos(kvl_draw_builder* b) { return reinterpret_cast<ref_memo*>(b->refs + b->ref_capacity); }

// Growth of the reference array carries its memos along; new slots start
// with none.
bool reserve_refs(kvl_draw_builder* b, int64_t needed) {
  if (needed <= b->ref_capacity) return true;
  const int64_t c = grown_capacity(b->ref_capacity, needed);
  if (c == 0) return false;
  const size_t old_cap = static_cast<size_t>(b->ref_capacity), new_cap = static_cast<size_t>(c);
  auto* p = static_cast<char*>(realloc(b->refs, new_cap * (sizeof(kvl_draw_ref) + sizeof(ref_memo))));
  if (!p) return false;
  char* memo_at = p + new_cap * sizeof(kvl_draw_ref);
  memmove(memo_at, p + old_cap * sizeof(kvl_draw_ref), old_cap * sizeof(ref_memo));
  memset(memo_at + old_cap * sizeof(ref_memo), 0, (new_cap - old_cap) * sizeof(ref_memo));
  b->refs = reinterpret_cast<kvl_draw_ref*>(p);
  b->ref_capacity = static_cast<int32_t>(c);
  return true;
}

// The cache entry that owns `data`, or null.
const kvl_cache_entry* entry_of(const kvl_cache* cache, const uint8_t* data) {
  if (!cache || !data) return nullptr;
  for (int32_t i = 0; i < cache->count; i++)
    if (cache->entries[i].data == data) return &cache->entries[i];
  return nullptr;
}

// Adds a reference; `cached` is the prepared layer's word that the cache
// owns the buffer.
int32_t add_ref(kvl_draw_builder* b, const kvl_cache* cache, const uint8_t* data, int32_t w, int32_t h,
                bool cached) {
  const int32_t i = b->ref_count++;
  kvl_draw_ref* r = &b->refs[i];
  ref_memo* m = &memos(b)[i];
  const uint64_t n = byte_count(w, h);
  r->data = data;
  r->w = w;
  r->h = h;
  const kvl_cache_entry* e = cached ? entry_of(cache, data) : nullptr;
  if (!e || e->size != n) {
    r->hash = ref_hash(data, n);
    m->valid = 0;
  } else if (m->valid && m->key == e->key && m->size == n) {
    r->hash = m->hash;
  } else {
    r->hash = ref_hash(data, n);
    *m = ref_memo{e->key, n, r->hash, 1};
  }
  return i;
}

kvl_draw_cmd* add_cmd(kvl_draw_builder* b, int32_t kind) {
  kvl_draw_cmd* c = &b->cmds[b->cmd_count++];
  memset(c, 0, sizeof *c);
  c->kind = kind;
  c->mask = -1;
  c->clip = -1;
  return c;
}

void add_vertex(kvl_draw_builder* b, double x, double y, double u, double v, double w) {
  float* p = b->vertices + static_cast<size_t>(b->vertex_count) * kFloatsPerVertex;
  p[0] = narrow(x);
  p[1] = narrow(y);
  p[2] = narrow(u);
  p[3] = narrow(v);
  p[4] = narrow(w);
  b->vertex_count++;
}

void add_fx(kvl_draw_builder* b, const kvl_cache* cache, const kvl_fx* fx, int32_t luma, float opacity) {
  kvl_draw_cmd* c = add_cmd(b, KVL_CMD_EFFECT);
  c->argb = fx->argb;
  c->mask = add_ref(b, cache, fx->mask, fx->w, fx->h, fx->cached);
  c->fx_x = static_cast<float>(fx->x);
  c->fx_y = static_cast<float>(fx->y);
  c->luma = luma;
  c->opacity = opacity;
}

void add_layer(kvl_draw_builder* b, const kvl_cache* cache, const kvl_prep* p, int32_t cells, int32_t luma,
               float opacity) {
  kvl_draw_cmd* c = add_cmd(b, KVL_CMD_LAYER);
  c->source_key = (!p->solid && p->source) ? p->source->key : nullptr;
  c->argb = p->argb;
  for (int k = 0; k < 6; k++) c->inv_content[k] = narrow(p->inv_content[k]);
  c->cover[0] = narrow(p->cover_scale);
  c->cover[1] = narrow(p->cover_ox);
  c->cover[2] = narrow(p->cover_oy);
  if (p->mask) c->mask = add_ref(b, cache, p->mask, KVL_SURFACE_W, KVL_SURFACE_H, p->mask_cached);
  c->ellipse = p->ellipse ? 1 : 0;
  c->luma = luma;
  c->opacity = opacity;
  c->first_vertex = b->vertex_count;
  if (!p->polygon) {
    // A mesh brings hundreds of cells: write their floats straight.
    float* out = b->vertices + static_cast<size_t>(b->vertex_count) * kFloatsPerVertex;
    for (int32_t i = 0; i < cells; i++) {
      const kvl_cell* cell = &p->cells[i];
      for (int k = 0; k < 4; k++, out += kFloatsPerVertex) {
        out[0] = narrow(cell->quad[2 * k]);
        out[1] = narrow(cell->quad[2 * k + 1]);
        out[2] = narrow(cell->uv[2 * k]);
        out[3] = narrow(cell->uv[2 * k + 1]);
        out[4] = narrow(cell->w[k]);
      }
    }
    b->vertex_count += 4 * cells;
    c->layer_vertex_count = 4 * cells;
    return;
  }
  // The whole surface, scaled to cover the outline's box; the outline's own
  // coverage clips it.
  const double x0 = p->poly_ox, y0 = p->poly_oy;
  const double x1 = x0 + KVL_SURFACE_W * p->poly_scale, y1 = y0 + KVL_SURFACE_H * p->poly_scale;
  add_vertex(b, x0, y0, 0, 0, 1);
  add_vertex(b, x1, y0, KVL_SURFACE_W, 0, 1);
  add_vertex(b, x1, y1, KVL_SURFACE_W, KVL_SURFACE_H, 1);
  add_vertex(b, x0, y1, 0, KVL_SURFACE_H, 1);
  c->layer_vertex_count = 4;
  if (p->poly_mask) {
    c->clip = add_ref(b, cache, p->poly_mask, p->box_w, p->box_h, p->poly_mask_cached);
    c->clip_x = static_cast<float>(p->box_x);
    c->clip_y = static_cast<float>(p->box_y);
  }
}

int32_t clamp_count(int32_t n, int32_t most) { return n < 0 ? 0 : (n > most ? most : n); }

// Emits the commands of one prepared layer. Room for all of them is made
// first, so a layer is either whole in the list or absent from it.
bool emit_layer(kvl_draw_builder* b, const kvl_cache* cache, const kvl_prep* p) {
  const int32_t nb = clamp_count(p->behind_count, 2), nf = clamp_count(p->front_count, 3);
  const int32_t cells = (!p->polygon && p->cells) ? clamp_count(p->cell_count, INT32_MAX / 4) : 0;
  int64_t cmds = 1 + nb + nf + (p->isolate ? 2 : 0), refs = nb + nf;
  if (p->mask) refs++;
  if (p->polygon && p->poly_mask) refs++;
  const int64_t verts = p->polygon ? 4 : 4 * static_cast<int64_t>(cells);
  if (!reserve(&b->cmds, &b->cmd_capacity, b->cmd_count + cmds, sizeof(kvl_draw_cmd)) ||
      !reserve_refs(b, b->ref_count + refs) ||
      !reserve(&b->vertices, &b->vertex_capacity, b->vertex_count + verts, kFloatsPerVertex * sizeof(float)))
    return false;

  const int32_t luma = p->luma ? 1 : 0;
  const float opacity = static_cast<float>(p->opacity);
  // An isolated layer is drawn whole into a private group at full strength;
  // its opacity and luma key apply once, when the group is composited.
  const int32_t inner_luma = p->isolate ? 0 : luma;
  const float inner_opacity = p->isolate ? 1.0f : opacity;
  if (p->isolate) {
    kvl_draw_cmd* g = add_cmd(b, KVL_CMD_GROUP_BEGIN);
    g->luma = luma;
    g->opacity = opacity;
  }
  for (int32_t i = 0; i < nb; i++) add_fx(b, cache, &p->behind[i], inner_luma, inner_opacity);
  add_layer(b, cache, p, cells, inner_luma, inner_opacity);
  for (int32_t i = 0; i < nf; i++) add_fx(b, cache, &p->front[i], inner_luma, inner_opacity);
  if (p->isolate) add_cmd(b, KVL_CMD_GROUP_END)->opacity = 1.0f;
  return true;
}

void free_preps(kvl_draw_builder* b) {
  for (int32_t i = 0; i < b->prep_count; i++) kvl_prep_free(&b->preps[i]);
  free(b->preps);
  b->preps = nullptr;
  b->prep_count = 0;
}

}  // namespace

const kvl_draw_list* kvl_draw_build(kvl_draw_builder* b, kvl_resolved* layers, int32_t count,
                                    const kvl_sources* sources, int32_t width, int32_t height, kvl_cache* cache) {
  if (!b) return nullptr;
  free_preps(b);
  b->cmd_count = b->vertex_count = b->ref_count = 0;
  if (!layers || count < 0) count = 0;

  b->preps = static_cast<kvl_prep*>(calloc(count > 0 ? count : 1, sizeof(kvl_prep)));
  if (b->preps) {
    for (int32_t i = 0; i < count; i++) {
      kvl_prep* p = &b->preps[b->prep_count];
      if (!kvl_prepare(p, &layers[i], sources, width, height, cache)) {
        kvl_prep_free(p);
        memset(p, 0, sizeof *p);
        continue;
      }
      b->prep_count++;
      emit_layer(b, cache, p);
    }
  }

  b->list.cmds = b->cmds;
  b->list.cmd_count = b->cmd_count;
  b->list.vertices = b->vertices;
  b->list.vertex_count = b->vertex_count;
  b->list.refs = b->refs;
  b->list.ref_count = b->ref_count;
  return &b->list;
}

void kvl_draw_builder_reset(kvl_draw_builder* b) {
  if (!b) return;
  free_preps(b);
  b->cmd_count = b->vertex_count = b->ref_count = 0;
}

void kvl_draw_builder_free(kvl_draw_builder* b) {
  if (!b) return;
  kvl_draw_builder_reset(b);
  free(b->cmds);
  free(b->vertices);
  free(b->refs);
  memset(b, 0, sizeof *b);
}
