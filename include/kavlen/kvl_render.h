/* Kavlen engine: layer preparation and the CPU frame compositor.
 *
 * kvl_prepare turns a resolved layer into everything the per-pixel code needs:
 * the device-to-surface maps of its cells (quad or ellipse with 4 vertices,
 * optionally warped by a mesh) or the coverage of its outline (every other
 * shape), the content transform, the cover fit of its source, the drawn mask
 * and one coverage mask per effect. Expensive masks live in the frame cache.
 *
 * kvl_render_frame composites straight-alpha RGBA in bands of rows on worker
 * threads; the result is byte-identical for any thread count.
 */
#ifndef KAVLEN_KVL_RENDER_H
#define KAVLEN_KVL_RENDER_H

#include "kvl_cache.h"
#include "kvl_geom.h"
#include "kvl_scene.h"

typedef struct kvl_cell {
  kvl_h inv;         /* device pixels -> surface units */
  double quad[8];    /* device pixels: top left, top right, bottom right, bottom left */
  double uv[8];      /* the same corners in surface units */
  double w[4];       /* homogeneous weight of the forward map at each corner */
  int32_t x0, y0, x1, y1; /* pixel box, end exclusive */
  uint8_t edge[4];   /* top, right, bottom, left: 1 for an outer edge */
} kvl_cell;

typedef struct kvl_fx {
  uint8_t* mask;
  int32_t x, y, w, h;
  uint32_t argb;
  bool cached;
} kvl_fx;

typedef struct kvl_prep {
  const kvl_resolved* resolved;
  const kvl_source* source;
  uint32_t argb;
  bool solid;
  double inv_content[6];
  double cover_scale, cover_ox, cover_oy;
  bool ellipse;
  uint8_t* mask;
  bool mask_cached;
  bool luma;
  double opacity;
  int32_t cell_count;
  kvl_cell* cells;
  bool polygon;
  double poly_ox, poly_oy, poly_scale;
  uint8_t* poly_mask;
  bool poly_mask_cached;
  int32_t box_x, box_y, box_w, box_h;
  int32_t behind_count, front_count;
  kvl_fx behind[2];
  kvl_fx front[3];
  bool isolate;
} kvl_prep;

KVL_API bool kvl_prepare(kvl_prep* prep, const kvl_resolved* resolved, const kvl_sources* sources,
                         int32_t width, int32_t height, kvl_cache* cache);
KVL_API void kvl_prep_free(kvl_prep* prep);

KVL_API void kvl_render_frame(const kvl_resolved* resolved, int32_t count, const kvl_sources* sources,
                              uint8_t* pixels, int32_t width, int32_t height, int32_t stride,
                              int32_t threads, kvl_cache* cache);

/* Composites prepared layers, bottom first, onto a frame whose pixels are
 * already set and opaque (kvl_render_frame starts from opaque black). Where
 * `settled` is not null it receives the number of pixels at which an opaque
 * layer made the drawing of the layers beneath unnecessary. */
KVL_API void kvl_composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
                           int32_t stride, int32_t threads, int64_t* settled);

/* The compositor's kernels come in sets that draw the same bytes at different
 * speeds: "plain" (one pixel at a time, on every processor), "avx2" and
 * "avx512" (x86-64). The set is chosen at the first frame: the one named by
 * the environment variable KAVLEN_CPU where the processor runs it, else the
 * fastest it runs. kvl_cpu_use switches to the named set (null or "": back to
 * the first choice) and returns false, changing nothing, where the processor
 * or the build lacks it; frames already being drawn finish with their set. */
KVL_API const char* kvl_cpu_kernels(void);
KVL_API bool kvl_cpu_use(const char* name);

#endif
