// YUV 4:2:0 <-> RGBA conversions. (Being written.)
#include "engine_internal.h"

void kvl_yuv420_to_rgba(const uint8_t*, int32_t, const uint8_t*, int32_t, int32_t, const uint8_t*, int32_t,
                        int32_t, int32_t, int32_t, uint8_t*, int32_t) {}
void kvl_rgba_to_yuv420(const uint8_t*, int32_t, int32_t, int32_t, uint8_t*, int32_t, uint8_t*, int32_t,
                        int32_t, uint8_t*, int32_t, int32_t) {}
