// CPU frame compositor. (Being written.)
#include "engine_internal.h"

void kvl_render_frame(const kvl_resolved*, int32_t, const kvl_sources*, uint8_t*, int32_t, int32_t, int32_t,
                      int32_t, kvl_cache*) {}
