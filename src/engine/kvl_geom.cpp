// Projective geometry, mesh warp, rasteriser and mask filters. (Being written.)
#include "engine_internal.h"

kvl_h kvl_h_unit_to_quad(const double*) { return kvl_h{}; }
void kvl_h_apply(const kvl_h*, double, double, double*, double*) {}
bool kvl_h_invert(const kvl_h*, kvl_h*) { return false; }
void kvl_mesh_offset_at(const kvl_layer*, double, double, double*, double*) {}
int32_t kvl_mesh_subdivisions(const kvl_layer*) { return 1; }
int32_t kvl_flatten(const kvl_vertex*, int32_t, double**) { return 0; }
void kvl_raster_polygon(const double*, int32_t, uint8_t*, int32_t, int32_t, int32_t) {}
void kvl_blur8(uint8_t*, int32_t, int32_t, double) {}
void kvl_dilate8(uint8_t*, int32_t, int32_t, int32_t) {}
void kvl_erode8(uint8_t*, int32_t, int32_t, int32_t) {}
