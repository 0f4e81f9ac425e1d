/* Kavlen engine: the draw list, the GPU's view of a frame.
 *
 * Commands, vertices (x, y, u, v, w floats; four per quad in the order top
 * left, top right, bottom right, bottom left) and references to 8-bit masks.
 * Everything belongs to the builder and stays valid until its next build,
 * reset or free. Each reference carries a sampled hash (every seventh byte)
 * that a back end may use as a texture key.
 */
#ifndef KAVLEN_KVL_DRAW_H
#define KAVLEN_KVL_DRAW_H

#include "kvl_render.h"

enum { KVL_CMD_LAYER = 1, KVL_CMD_EFFECT = 2, KVL_CMD_GROUP_BEGIN = 3, KVL_CMD_GROUP_END = 4 };

typedef struct kvl_draw_cmd {
  int32_t kind;
  const char* source_key;
  uint32_t argb;
  float inv_content[6];
  float cover[3];
  int32_t mask;
  int32_t ellipse;
  int32_t luma;
  float opacity;
  int32_t first_vertex;
  int32_t layer_vertex_count;
  int32_t clip;
  float clip_x, clip_y;
  float fx_x, fx_y;
} kvl_draw_cmd;

typedef struct kvl_draw_ref {
  const uint8_t* data;
  int32_t w, h;
  uint64_t hash;
} kvl_draw_ref;

typedef struct kvl_draw_list {
  kvl_draw_cmd* cmds;
  int32_t cmd_count;
  float* vertices;
  int32_t vertex_count;
  kvl_draw_ref* refs;
  int32_t ref_count;
} kvl_draw_list;

typedef struct kvl_draw_builder {
  kvl_draw_cmd* cmds;
  int32_t cmd_count, cmd_capacity;
  float* vertices;
  int32_t vertex_count, vertex_capacity; /* in vertices, not floats */
  kvl_draw_ref* refs;
  int32_t ref_count, ref_capacity;
  kvl_prep* preps;
  int32_t prep_count;
  kvl_draw_list list;
} kvl_draw_builder;

KVL_API const kvl_draw_list* kvl_draw_build(kvl_draw_builder* builder, kvl_resolved* layers, int32_t count,
                                            const kvl_sources* sources, int32_t width, int32_t height,
                                            kvl_cache* cache);
KVL_API void kvl_draw_builder_reset(kvl_draw_builder* builder);
KVL_API void kvl_draw_builder_free(kvl_draw_builder* builder);

#endif
