// Layer preparation: a resolved layer turned into what the per-pixel code of
// the CPU compositor and the draw list of the GPU need, in ready form.
//
// Everything here runs on the rendering thread, one layer after the other,
// before any band thread starts: that order is what lets the frame cache go
// without a lock. The expensive parts are masks (drawn mask, polygon
// coverage, effect masks); they are kept in the cache under keys built from
// the shape and the effect parameters only, so that a layer whose opacity,
// paint or content transform changes still hits the cache on every mask.
//
// Hostile numbers (NaN, infinities, coordinates far outside the frame, huge
// effect sizes) are bounded in double arithmetic before anything becomes an
// integer, and every loop is bounded by the frame or the mask it works on.
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "engine_internal.h"

namespace {

constexpr double kSurfW = KVL_SURFACE_W, kSurfH = KVL_SURFACE_H;
constexpr size_t kSurfaceBytes = static_cast<size_t>(KVL_SURFACE_W) * KVL_SURFACE_H;  // 921600
constexpr double kPi = 3.14159265358979323846;

// Seeds of the mask keys: drawn mask, polygon coverage, effects.
constexpr uint64_t kSeedMask = 0x3A5, kSeedPoly = 0xC11, kSeedFx = 0x1EF;
enum { FX_SHADOW = 0, FX_GLOW = 1, FX_BEVEL_LIGHT = 2, FX_BEVEL_DARK = 3, FX_STROKE = 4 };

// Keys hash values one by one rather than whole records, so that padding
// bytes never enter a key: equal shapes give equal keys.
inline uint64_t hash_f64(uint64_t h, double v) { return kvl_hash(h, &v, sizeof v); }
inline uint64_t hash_i32(uint64_t h, int32_t v) { return kvl_hash(h, &v, sizeof v); }
inline uint64_t hash_u32(uint64_t h, uint32_t v) { return kvl_hash(h, &v, sizeof v); }
inline uint64_t hash_u8(uint64_t h, bool v) {
  const uint8_t b = v ? 1 : 0;
  return kvl_hash(h, &b, 1);
}

// A double clamped into [lo, hi] and made an integer; NaN gives lo.
inline int32_t clamp_int(double v, int32_t lo, int32_t hi) {
  if (!(v >= lo)) return lo;
  if (v >= hi) return hi;
  return static_cast<int32_t>(v);
}

// Round to nearest, halves away from zero, clamped to +-limit (NaN gives 0).
// A radius or shift beyond the size of a mask acts like one exactly that
// large, so the clamp never changes a result.
inline int32_t round_clamped(double v, int32_t limit) {
  const double r = round(v);
  if (!(r == r)) return 0;
  if (r > limit) return limit;
  if (r < -limit) return -limit;
  return static_cast<int32_t>(r);
}

inline double max_ignoring_nan(double a, double b) { return b > a ? b : a; }

bool all_finite(const double* xy, int32_t n) {
  for (int32_t i = 0; i < 2 * n; i++)
    if (!isfinite(xy[i])) return false;
  return true;
}

uint8_t* dup8(const uint8_t* data, size_t size) {
  auto* out = static_cast<uint8_t*>(malloc(size ? size : 1));
  if (out && size) memcpy(out, data, size);
  return out;
}

// new[y][x] = old[y - dy][x - dx] where that lies inside, else 0. In place:
// rows are walked so that a source row is read before it is overwritten.
void shift8(uint8_t* mask, int32_t w, int32_t h, int32_t dx, int32_t dy) {
  if (dx == 0 && dy == 0) return;
  if (dx >= w || -dx >= w || dy >= h || -dy >= h) {
    memset(mask, 0, static_cast<size_t>(w) * h);
    return;
  }
  const int32_t xa = dx > 0 ? dx : 0;           // first column written from the source
  const int32_t n = w - (dx > 0 ? dx : -dx);    // columns that come from the source
  const int32_t sx = dx > 0 ? 0 : -dx;          // their first source column
  auto one_row = [&](int32_t y) {
    uint8_t* row = mask + static_cast<size_t>(y) * w;
    const int32_t src = y - dy;
    if (src < 0 || src >= h) {
      memset(row, 0, static_cast<size_t>(w));
      return;
    }
    memmove(row + xa, mask + static_cast<size_t>(src) * w + sx, static_cast<size_t>(n));
    if (xa > 0) memset(row, 0, static_cast<size_t>(xa));
    if (xa + n < w) memset(row + xa + n, 0, static_cast<size_t>(w - xa - n));
  };
  if (dy >= 0) {
    for (int32_t y = h - 1; y >= 0; y--) one_row(y);
  } else {
    for (int32_t y = 0; y < h; y++) one_row(y);
  }
}

// a = max(a - b, 0), byte by byte.
void subtract8(uint8_t* a, const uint8_t* b, size_t n) {
  for (size_t i = 0; i < n; i++) a[i] = a[i] > b[i] ? static_cast<uint8_t>(a[i] - b[i]) : 0;
}

// Hands a finished mask to the cache. Returns the buffer to keep and whether
// the cache owns it; a null cache leaves it with the record.
uint8_t* offer(kvl_cache* cache, uint64_t key, uint8_t* data, size_t size, bool* cached) {
  *cached = false;
  if (!cache) return data;
  return kvl_cache_put(cache, key, data, size, cached);
}

// A cached mask of exactly `size` bytes under `key`, or null. A buffer of
// another size under the same key (a hash collision) is not used.
uint8_t* lookup(kvl_cache* cache, uint64_t key, size_t size, bool* collided) {
  *collided = false;
  if (!cache) return nullptr;
  uint64_t got = 0;
  uint8_t* data = kvl_cache_get(cache, key, &got);
  if (data && got != size) {
    *collided = true;
    return nullptr;
  }
  return data;
}

// Like offer(), but a mask whose key is taken by a buffer of another size
// stays private rather than being swapped for the wrong one.
uint8_t* store(kvl_cache* cache, uint64_t key, uint8_t* data, size_t size, bool collided, bool* cached) {
  if (collided) {
    *cached = false;
    return data;
  }
  return offer(cache, key, data, size, cached);
}

uint64_t shape_key(uint64_t seed, const kvl_resolved* r, int32_t width, int32_t height) {
  const kvl_layer* l = r->layer;
  uint64_t h = seed;
  h = kvl_hash(h, r->vertices, static_cast<size_t>(l->vertex_count) * 2 * sizeof(double));
  for (int32_t i = 0; i < l->vertex_count; i++) {
    const kvl_vertex& v = l->vertices[i];
    h = hash_f64(hash_f64(h, v.in_x), v.in_y);
    h = hash_f64(hash_f64(h, v.out_x), v.out_y);
    // The flags decide whether an edge is curved at all.
    h = hash_u8(hash_u8(h, v.has_in), v.has_out);
  }
  h = hash_i32(h, l->shape);
  h = hash_i32(h, width);
  return hash_i32(h, height);
}

// The layer's vertex records with the resolved positions, flattened; the
// caller frees *points. Returns the point count (0 if out of memory).
int32_t flatten_resolved(const kvl_resolved* r, double** points) {
  const kvl_layer* l = r->layer;
  *points = nullptr;
  auto* copy = static_cast<kvl_vertex*>(malloc(static_cast<size_t>(l->vertex_count) * sizeof(kvl_vertex)));
  if (!copy) return 0;
  for (int32_t i = 0; i < l->vertex_count; i++) {
    copy[i] = l->vertices[i];
    copy[i].x = r->vertices[2 * i];
    copy[i].y = r->vertices[2 * i + 1];
  }
  const int32_t n = kvl_flatten(copy, l->vertex_count, points);
  free(copy);
  if (!*points) return 0;
  return n;
}

// ---------------------------------------------------------------------------
// Cells

void cell_setup(kvl_cell* cell, const double rect[4], const double corners[8], int32_t width, int32_t height) {
  memset(cell, 0, sizeof *cell);
  for (int k = 0; k < 4; k++) {
    cell->quad[2 * k] = corners[2 * k] * width;
    cell->quad[2 * k + 1] = corners[2 * k + 1] * height;
  }
  const kvl_h H = kvl_h_unit_to_quad(cell->quad);
  const double ua = rect[0], va = rect[1], ub = rect[2], vb = rect[3];
  const double sx = 1.0 / (ub - ua), sy = 1.0 / (vb - va);
  const double tx = -ua * sx, ty = -va * sy;
  kvl_h M;
  for (int r = 0; r < 3; r++) {
    const double* hr = H.m + 3 * r;
    M.m[3 * r] = hr[0] * sx;
    M.m[3 * r + 1] = hr[1] * sy;
    M.m[3 * r + 2] = hr[0] * tx + hr[1] * ty + hr[2];
  }
  if (!kvl_h_invert(&M, &cell->inv)) memset(&cell->inv, 0, sizeof cell->inv);
  const double us[4] = {ua, ub, ub, ua}, vs[4] = {va, va, vb, vb};
  for (int k = 0; k < 4; k++) {
    cell->uv[2 * k] = us[k];
    cell->uv[2 * k + 1] = vs[k];
    cell->w[k] = M.m[6] * us[k] + M.m[7] * vs[k] + M.m[8];
  }
  // A quad with a corner that is not a number has no box: its inverse could
  // not draw anything anyway.
  if (all_finite(cell->quad, 4)) {
    double minx = cell->quad[0], maxx = minx, miny = cell->quad[1], maxy = miny;
    for (int k = 1; k < 4; k++) {
      const double x = cell->quad[2 * k], y = cell->quad[2 * k + 1];
      minx = x < minx ? x : minx;
      maxx = x > maxx ? x : maxx;
      miny = y < miny ? y : miny;
      maxy = y > maxy ? y : maxy;
    }
    cell->x0 = clamp_int(floor(minx) - 1, 0, width);
    cell->y0 = clamp_int(floor(miny) - 1, 0, height);
    cell->x1 = clamp_int(ceil(maxx) + 1, 0, width);
    cell->y1 = clamp_int(ceil(maxy) + 1, 0, height);
  }
  for (int k = 0; k < 4; k++) cell->edge[k] = 1;
}

bool mesh_active(const kvl_layer* l) {
  if (!l->has_mesh || !l->mesh_offsets || l->mesh_cols < 1 || l->mesh_rows < 1) return false;
  const int32_t n = 2 * (l->mesh_cols + 1) * (l->mesh_rows + 1);
  for (int32_t i = 0; i < n; i++)
    if (l->mesh_offsets[i] != 0.0) return true;
  return false;
}

bool cell_road(kvl_prep* p, const kvl_resolved* r, int32_t width, int32_t height) {
  const kvl_layer* l = r->layer;
  if (!mesh_active(l)) {
    p->cells = static_cast<kvl_cell*>(malloc(sizeof(kvl_cell)));
    if (!p->cells) return false;
    const double rect[4] = {0, 0, kSurfW, kSurfH};
    cell_setup(&p->cells[0], rect, r->vertices, width, height);
    p->cell_count = 1;
    return true;
  }
  const int32_t s = kvl_mesh_subdivisions(l);
  const int32_t nx = l->mesh_cols * s, ny = l->mesh_rows * s;
  const kvl_h H = kvl_h_unit_to_quad(r->vertices);
  // The grid of cell corners, normalised: the homography first, the smooth
  // offsets added after it.
  auto* grid = static_cast<double*>(malloc(static_cast<size_t>(nx + 1) * (ny + 1) * 2 * sizeof(double)));
  p->cells = static_cast<kvl_cell*>(malloc(static_cast<size_t>(nx) * ny * sizeof(kvl_cell)));
  if (!grid || !p->cells) {
    free(grid);
    return false;
  }
  for (int32_t j = 0; j <= ny; j++)
    for (int32_t i = 0; i <= nx; i++) {
      const double gx = static_cast<double>(i) / s, gy = static_cast<double>(j) / s;
      double x, y, dx, dy;
      kvl_h_apply(&H, gx / l->mesh_cols, gy / l->mesh_rows, &x, &y);
      kvl_mesh_offset_at(l, gx, gy, &dx, &dy);
      double* g = grid + 2 * (static_cast<size_t>(j) * (nx + 1) + i);
      g[0] = x + dx;
      g[1] = y + dy;
    }
  auto at = [&](int32_t i, int32_t j) { return grid + 2 * (static_cast<size_t>(j) * (nx + 1) + i); };
  int32_t n = 0;
  for (int32_t j = 0; j < ny; j++)
    for (int32_t i = 0; i < nx; i++) {
      double corners[8];
      memcpy(corners, at(i, j), 2 * sizeof(double));
      memcpy(corners + 2, at(i + 1, j), 2 * sizeof(double));
      memcpy(corners + 4, at(i + 1, j + 1), 2 * sizeof(double));
      memcpy(corners + 6, at(i, j + 1), 2 * sizeof(double));
      const double rect[4] = {i * kSurfW / nx, j * kSurfH / ny, (i + 1) * kSurfW / nx, (j + 1) * kSurfH / ny};
      kvl_cell* c = &p->cells[n++];
      cell_setup(c, rect, corners, width, height);
      c->edge[0] = j == 0;
      c->edge[1] = i == nx - 1;
      c->edge[2] = j == ny - 1;
      c->edge[3] = i == 0;
    }
  free(grid);
  p->cell_count = n;
  return true;
}

// ---------------------------------------------------------------------------
// Polygon road

// Scales n normalised points to pixels in place and returns their bounds.
void to_pixels(double* pts, int32_t n, int32_t width, int32_t height, double* minx, double* maxx, double* miny,
               double* maxy) {
  *minx = *miny = INFINITY;
  *maxx = *maxy = -INFINITY;
  for (int32_t i = 0; i < n; i++) {
    const double x = pts[2 * i] * width, y = pts[2 * i + 1] * height;
    pts[2 * i] = x;
    pts[2 * i + 1] = y;
    *minx = x < *minx ? x : *minx;
    *maxx = x > *maxx ? x : *maxx;
    *miny = y < *miny ? y : *miny;
    *maxy = y > *maxy ? y : *maxy;
  }
}

bool polygon_road(kvl_prep* p, const kvl_resolved* r, int32_t width, int32_t height, kvl_cache* cache) {
  double* pts = nullptr;
  const int32_t n = flatten_resolved(r, &pts);
  if (n < 1) {
    free(pts);
    return false;
  }
  double minx, maxx, miny, maxy;
  to_pixels(pts, n, width, height, &minx, &maxx, &miny, &maxy);
  // An outline with a point that is not a finite number of pixels has no
  // extent to fit the surface to.
  if (!all_finite(pts, n) || !(maxx > minx && maxy > miny)) {
    free(pts);
    return false;
  }
  p->polygon = true;
  const double bw = maxx - minx, bh = maxy - miny;
  p->poly_scale = max_ignoring_nan(bw / kSurfW, bh / kSurfH);
  p->poly_ox = minx + (bw - kSurfW * p->poly_scale) / 2;
  p->poly_oy = miny + (bh - kSurfH * p->poly_scale) / 2;
  // The box in doubles first: far-away outlines must not overflow an int.
  const double bx = floor(minx) > 0 ? floor(minx) : 0, by = floor(miny) > 0 ? floor(miny) : 0;
  const double ex = ceil(maxx) < width ? ceil(maxx) : width, ey = ceil(maxy) < height ? ceil(maxy) : height;
  if (!(ex - bx >= 1 && ey - by >= 1)) {
    free(pts);
    return false;
  }
  p->box_x = static_cast<int32_t>(bx);
  p->box_y = static_cast<int32_t>(by);
  p->box_w = static_cast<int32_t>(ex - bx);
  p->box_h = static_cast<int32_t>(ey - by);
  for (int32_t i = 0; i < n; i++) {
    pts[2 * i] -= p->box_x;
    pts[2 * i + 1] -= p->box_y;
  }
  const size_t size = static_cast<size_t>(p->box_w) * p->box_h;
  const uint64_t key = shape_key(kSeedPoly, r, width, height);
  bool collided;
  p->poly_mask = lookup(cache, key, size, &collided);
  if (p->poly_mask) {
    p->poly_mask_cached = true;
  } else {
    auto* m = static_cast<uint8_t*>(malloc(size));
    if (!m) {
      free(pts);
      return false;
    }
    kvl_raster_polygon(pts, n, m, p->box_w, p->box_h, 0);
    p->poly_mask = store(cache, key, m, size, collided, &p->poly_mask_cached);
  }
  free(pts);
  return true;
}

// ---------------------------------------------------------------------------
// Drawn mask

void drawn_mask(kvl_prep* p, const kvl_layer* l, kvl_cache* cache) {
  uint64_t key = kSeedMask;
  for (int32_t i = 0; i < l->mask_vertex_count; i++) {
    const kvl_vertex& v = l->mask_vertices[i];
    key = hash_f64(hash_f64(key, v.x), v.y);
    key = hash_u8(hash_u8(key, v.has_in), v.has_out);
    key = hash_f64(hash_f64(key, v.in_x), v.in_y);
    key = hash_f64(hash_f64(key, v.out_x), v.out_y);
  }
  key = hash_f64(key, l->mask_feather);
  key = hash_u8(key, l->mask_inverted);
  bool collided;
  p->mask = lookup(cache, key, kSurfaceBytes, &collided);
  if (p->mask) {
    p->mask_cached = true;
    return;
  }
  double* pts = nullptr;
  const int32_t n = kvl_flatten(l->mask_vertices, l->mask_vertex_count, &pts);
  auto* m = static_cast<uint8_t*>(malloc(kSurfaceBytes));
  if (!pts || !m) {
    // Without its mask the layer would show where it should not: it then
    // draws nothing rather than the wrong thing.
    free(pts);
    free(m);
    m = static_cast<uint8_t*>(calloc(kSurfaceBytes, 1));
    p->mask = m;
    return;
  }
  for (int32_t i = 0; i < n; i++) {
    pts[2 * i] *= kSurfW;
    pts[2 * i + 1] *= kSurfH;
  }
  kvl_raster_polygon(pts, n, m, KVL_SURFACE_W, KVL_SURFACE_H, l->mask_inverted ? 1 : 0);
  free(pts);
  if (l->mask_feather > 0) kvl_blur8(m, KVL_SURFACE_W, KVL_SURFACE_H, l->mask_feather / 2);
  p->mask = store(cache, key, m, kSurfaceBytes, collided, &p->mask_cached);
}

// ---------------------------------------------------------------------------
// Effects

struct fx_work {
  const kvl_resolved* r;
  kvl_cache* cache;
  uint64_t base;
  const double* outline;  // shifted into the box
  int32_t points;
  int32_t x, y, w, h;
  size_t size;
  double k;
  uint8_t* sil;   // silhouette, made at first need
  uint8_t* band;  // bevel band, made at first need
  bool failed;
};

const uint8_t* silhouette(fx_work* fw) {
  if (!fw->sil && !fw->failed) {
    fw->sil = static_cast<uint8_t*>(malloc(fw->size));
    if (fw->sil)
      kvl_raster_polygon(fw->outline, fw->points, fw->sil, fw->w, fw->h, 0);
    else
      fw->failed = true;
  }
  return fw->sil;
}

uint8_t* sil_copy(fx_work* fw) {
  const uint8_t* s = silhouette(fw);
  return s ? dup8(s, fw->size) : nullptr;
}

int32_t radius_limit(const fx_work* fw) { return (fw->w > fw->h ? fw->w : fw->h) + 1; }

uint8_t* make_shadow(fx_work* fw) {
  const kvl_resolved* r = fw->r;
  uint8_t* m = sil_copy(fw);
  if (!m) return nullptr;
  if (r->shadow_blur > 0) kvl_blur8(m, fw->w, fw->h, fw->k * r->shadow_blur / 2);
  const int32_t lim = radius_limit(fw);
  shift8(m, fw->w, fw->h, round_clamped(fw->k * r->shadow_dx, lim), round_clamped(fw->k * r->shadow_dy, lim));
  return m;
}

uint8_t* make_glow(fx_work* fw) {
  const double g = fw->k * fw->r->glow_radius / 2;
  uint8_t* m = sil_copy(fw);
  if (!m) return nullptr;
  kvl_dilate8(m, fw->w, fw->h, round_clamped(g, radius_limit(fw)));
  kvl_blur8(m, fw->w, fw->h, g);
  return m;
}

// Dilation by r of one copy of the silhouette minus erosion by r of another.
uint8_t* ring(fx_work* fw, int32_t r) {
  uint8_t* outer = sil_copy(fw);
  uint8_t* inner = sil_copy(fw);
  if (!outer || !inner) {
    free(outer);
    free(inner);
    return nullptr;
  }
  kvl_dilate8(outer, fw->w, fw->h, r);
  kvl_erode8(inner, fw->w, fw->h, r);
  subtract8(outer, inner, fw->size);
  free(inner);
  return outer;
}

uint8_t* make_bevel(fx_work* fw, int sign) {
  const double e = fw->k * fw->r->bevel_depth;
  const int32_t d = round_clamped(e, radius_limit(fw));
  if (!fw->band) fw->band = ring(fw, d);
  if (!fw->band) return nullptr;
  uint8_t* m = dup8(fw->band, fw->size);
  if (!m) return nullptr;
  shift8(m, fw->w, fw->h, sign * d, sign * d);
  kvl_blur8(m, fw->w, fw->h, e / 2);
  // Confined to the inside of the shape.
  const uint8_t* s = fw->sil;
  for (size_t i = 0; i < fw->size; i++) m[i] = static_cast<uint8_t>((m[i] * s[i] + 127) / 255);
  return m;
}

uint8_t* make_stroke(fx_work* fw) {
  int32_t r = round_clamped(fw->k * fw->r->stroke_width / 2, radius_limit(fw));
  if (r < 1) r = 1;
  return ring(fw, r);
}

// One effect: from the cache, or made and offered to it.
void add_fx(fx_work* fw, kvl_fx* out, int32_t* count, int number, uint32_t argb, uint8_t* (*make)(fx_work*)) {
  const uint64_t key = hash_i32(fw->base, number);
  bool collided, cached = false;
  uint8_t* m = lookup(fw->cache, key, fw->size, &collided);
  if (m) {
    cached = true;
  } else {
    m = make(fw);
    if (!m) return;
    m = store(fw->cache, key, m, fw->size, collided, &cached);
  }
  out->mask = m;
  out->x = fw->x;
  out->y = fw->y;
  out->w = fw->w;
  out->h = fw->h;
  out->argb = argb;
  out->cached = cached;
  (*count)++;
}

uint64_t effects_key(const kvl_resolved* r, int32_t width, int32_t height) {
  uint64_t h = shape_key(kSeedFx, r, width, height);
  h = hash_u8(hash_u8(hash_u8(hash_u8(h, r->has_stroke), r->has_shadow), r->has_glow), r->has_bevel);
  h = hash_f64(h, r->stroke_width);
  h = hash_u32(h, r->stroke_argb);
  h = hash_f64(hash_f64(hash_f64(h, r->shadow_dx), r->shadow_dy), r->shadow_blur);
  h = hash_u32(h, r->shadow_argb);
  h = hash_f64(h, r->glow_radius);
  h = hash_u32(h, r->glow_argb);
  h = hash_f64(h, r->bevel_depth);
  h = hash_u32(h, r->bevel_highlight);
  return hash_u32(h, r->bevel_shadow);
}

void effects(kvl_prep* p, const kvl_resolved* r, int32_t width, int32_t height, kvl_cache* cache) {
  const kvl_layer* l = r->layer;
  if (!(r->has_stroke || r->has_shadow || r->has_glow || r->has_bevel)) return;
  if (r->paint.kind == KVL_PAINT_NONE || r->paint.kind == KVL_PAINT_TEXT) return;
  const double k = static_cast<double>(height) / 1080.0;

  // The outline: 64 points round an ellipse of four corners, else the
  // flattened vertices. A mesh or a drawn mask does not change it.
  double* pts = nullptr;
  int32_t n = 0;
  if (l->shape == KVL_SHAPE_ELLIPSE && l->vertex_count == 4) {
    pts = static_cast<double*>(malloc(64 * 2 * sizeof(double)));
    if (!pts) return;
    const kvl_h H = kvl_h_unit_to_quad(r->vertices);
    for (int32_t i = 0; i < 64; i++) {
      const double t = i * 2 * kPi / 64;
      kvl_h_apply(&H, 0.5 + 0.5 * cos(t), 0.5 + 0.5 * sin(t), &pts[2 * i], &pts[2 * i + 1]);
    }
    n = 64;
  } else {
    n = flatten_resolved(r, &pts);
  }
  if (n < 3) {
    free(pts);
    return;
  }
  double minx, maxx, miny, maxy;
  to_pixels(pts, n, width, height, &minx, &maxx, &miny, &maxy);
  if (!all_finite(pts, n)) {
    free(pts);
    return;
  }

  // The margin that every effect's mask needs around the outline.
  double pm = 2.0;
  if (r->has_shadow)
    pm = max_ignoring_nan(2.0, (fabs(r->shadow_dx) + fabs(r->shadow_dy) + 2 * r->shadow_blur) * k);
  if (r->has_glow) pm = max_ignoring_nan(pm, 2 * k * r->glow_radius);
  if (r->has_bevel) pm = max_ignoring_nan(pm, 3 * k * r->bevel_depth);
  if (r->has_stroke) pm = max_ignoring_nan(pm, k * r->stroke_width);

  // The box, bounded by the frame whatever the margin.
  const double fx0 = floor(minx - pm), fy0 = floor(miny - pm);
  const double fx1 = ceil(maxx + pm), fy1 = ceil(maxy + pm);
  const double bx = fx0 > 0 ? fx0 : 0, by = fy0 > 0 ? fy0 : 0;
  const double ex = fx1 < width ? fx1 : width, ey = fy1 < height ? fy1 : height;
  if (!(ex - bx >= 1 && ey - by >= 1)) {
    free(pts);
    return;
  }
  fx_work fw;
  memset(&fw, 0, sizeof fw);
  fw.r = r;
  fw.cache = cache;
  fw.x = static_cast<int32_t>(bx);
  fw.y = static_cast<int32_t>(by);
  fw.w = static_cast<int32_t>(ex - bx);
  fw.h = static_cast<int32_t>(ey - by);
  fw.size = static_cast<size_t>(fw.w) * fw.h;
  fw.k = k;
  for (int32_t i = 0; i < n; i++) {
    pts[2 * i] -= fw.x;
    pts[2 * i + 1] -= fw.y;
  }
  fw.outline = pts;
  fw.points = n;
  fw.base = effects_key(r, width, height);

  if (r->has_shadow) add_fx(&fw, &p->behind[p->behind_count], &p->behind_count, FX_SHADOW, r->shadow_argb, make_shadow);
  if (r->has_glow && r->glow_radius > 0)
    add_fx(&fw, &p->behind[p->behind_count], &p->behind_count, FX_GLOW, r->glow_argb, make_glow);
  if (r->has_bevel && r->bevel_depth > 0) {
    add_fx(&fw, &p->front[p->front_count], &p->front_count, FX_BEVEL_LIGHT, r->bevel_highlight,
           [](fx_work* w) { return make_bevel(w, -1); });
    add_fx(&fw, &p->front[p->front_count], &p->front_count, FX_BEVEL_DARK, r->bevel_shadow,
           [](fx_work* w) { return make_bevel(w, +1); });
  }
  if (r->has_stroke && r->stroke_width > 0)
    add_fx(&fw, &p->front[p->front_count], &p->front_count, FX_STROKE, r->stroke_argb, make_stroke);

  free(fw.sil);
  free(fw.band);
  free(pts);
}

}  // namespace

bool kvl_prepare(kvl_prep* p, const kvl_resolved* r, const kvl_sources* sources, int32_t width, int32_t height,
                 kvl_cache* cache) {
  if (!p) return false;
  memset(p, 0, sizeof *p);
  p->resolved = r;
  if (!r || !r->layer || width < 1 || height < 1) return false;
  const kvl_layer* l = r->layer;
  // NaN opacity counts as none.
  if (!r->visible || !(r->opacity > 0) || l->vertex_count < 3 || !l->vertices || !r->vertices ||
      r->paint.kind == KVL_PAINT_NONE)
    return false;
  p->opacity = r->opacity < 1 ? r->opacity : 1;
  p->luma = l->luma_key;

  // Fill: a colour, or the source of the paint's key with its cover fit.
  p->cover_scale = 1;
  if (r->paint.kind == KVL_PAINT_COLOR) {
    p->solid = true;
    p->argb = r->paint.argb;
  } else {
    p->source = find_source(sources, r->paint.ref);
    if (!p->source || p->source->width < 1 || p->source->height < 1) {
      p->source = nullptr;
      p->solid = true;
      p->argb = 0xFF333333u;
    } else {
      const double W = p->source->width, H = p->source->height;
      p->cover_scale = max_ignoring_nan(kSurfW / W, kSurfH / H);
      p->cover_ox = 640 - W * p->cover_scale / 2;
      p->cover_oy = 360 - H * p->cover_scale / 2;
    }
  }

  // Content transform, surface units to content units: the content's centre
  // sits at (cx, cy), turned by the rotation and enlarged by the scale.
  const double s = r->content_scale != 0 ? 1 / r->content_scale : 0;
  const double cx = 1280 * r->content_x + 640, cy = 720 * r->content_y + 360;
  const double t = -r->content_rotation * kPi / 180;
  double* ic = p->inv_content;
  ic[0] = s * cos(t);
  ic[1] = -s * sin(t);
  ic[3] = s * sin(t);
  ic[4] = s * cos(t);
  ic[2] = 640 - ic[1] * cy - ic[0] * cx;
  ic[5] = 360 - ic[4] * cy - ic[3] * cx;

  p->ellipse = l->shape == KVL_SHAPE_ELLIPSE;
  if (l->has_mask && l->mask_vertex_count >= 3 && l->mask_vertices) drawn_mask(p, l, cache);

  const bool cells = (l->shape == KVL_SHAPE_QUAD || l->shape == KVL_SHAPE_ELLIPSE) && l->vertex_count == 4;
  if (cells) {
    if (!cell_road(p, r, width, height)) return false;
  } else if (!polygon_road(p, r, width, height, cache)) {
    return false;
  }
  effects(p, r, width, height, cache);
  p->isolate = p->behind_count + p->front_count >= 1 && (p->opacity < 1 || p->luma);
  return true;
}

void kvl_prep_free(kvl_prep* p) {
  if (!p) return;
  if (!p->mask_cached) free(p->mask);
  p->mask = nullptr;
  if (!p->poly_mask_cached) free(p->poly_mask);
  p->poly_mask = nullptr;
  for (int32_t i = 0; i < 2; i++) {
    if (!p->behind[i].cached) free(p->behind[i].mask);
    p->behind[i].mask = nullptr;
  }
  for (int32_t i = 0; i < 3; i++) {
    if (!p->front[i].cached) free(p->front[i].mask);
    p->front[i].mask = nullptr;
  }
  free(p->cells);
  p->cells = nullptr;
  p->cell_count = 0;
}
