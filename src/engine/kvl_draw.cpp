// Draw list builder. (Being written.)
#include "engine_internal.h"

const kvl_draw_list* kvl_draw_build(kvl_draw_builder* b, kvl_resolved*, int32_t, const kvl_sources*, int32_t,
                                    int32_t, kvl_cache*) { return &b->list; }
void kvl_draw_builder_reset(kvl_draw_builder*) {}
void kvl_draw_builder_free(kvl_draw_builder*) {}
