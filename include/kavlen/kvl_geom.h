/* Kavlen engine: projective geometry, mesh warp, polygon rasteriser and mask
 * filters.
 *
 * Pure computation: no state, no locks, reentrant. A homography maps
 * (u, v) to ((m0 u + m1 v + m2) / w, (m3 u + m4 v + m5) / w) with
 * w = m6 u + m7 v + m8. A corner list is four (x, y) pairs, the images of
 * unit (0,0), (1,0), (1,1), (0,1).
 *
 * Masks are tightly packed 8-bit coverage, width * height bytes, 0 empty and
 * 255 full. Callers pass sizes of at least 1.
 */
#ifndef KAVLEN_KVL_GEOM_H
#define KAVLEN_KVL_GEOM_H

#include "kvl_scene.h"

typedef struct kvl_h {
  double m[9];
} kvl_h;

/* corners: 8 doubles x0 y0 x1 y1 x2 y2 x3 y3. */
KVL_API kvl_h kvl_h_unit_to_quad(const double* corners);
KVL_API void kvl_h_apply(const kvl_h* h, double u, double v, double* x, double* y);
/* False (and out untouched) when |det| < 1e-18 or det is NaN. */
KVL_API bool kvl_h_invert(const kvl_h* h, kvl_h* out);

/* The mesh of a layer: mesh_cols, mesh_rows, mesh_offsets. x in 0..cols,
 * y in 0..rows. */
KVL_API void kvl_mesh_offset_at(const kvl_layer* mesh, double x, double y, double* dx, double* dy);
KVL_API int32_t kvl_mesh_subdivisions(const kvl_layer* mesh);

/* Flattens a closed outline; *out_points receives a malloc'd array of
 * (x, y) pairs (never null unless out of memory), freed by the caller. */
KVL_API int32_t kvl_flatten(const kvl_vertex* vertices, int32_t n, double** out_points);

/* points: n (x, y) pairs in mask pixels. Even-odd, 4 sub-scanlines a row. */
KVL_API void kvl_raster_polygon(const double* points, int32_t n, uint8_t* mask, int32_t width,
                                int32_t height, int32_t invert);
KVL_API void kvl_blur8(uint8_t* mask, int32_t width, int32_t height, double sigma);
KVL_API void kvl_dilate8(uint8_t* mask, int32_t width, int32_t height, int32_t radius);
KVL_API void kvl_erode8(uint8_t* mask, int32_t width, int32_t height, int32_t radius);

#endif
