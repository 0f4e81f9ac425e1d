// Live audio analyser and named sources. (Being written.)
#include "engine_internal.h"

kvl_audio* kvl_audio_create(int32_t) { return nullptr; }
void kvl_audio_destroy(kvl_audio*) {}
void kvl_audio_feed(kvl_audio*, const float*, int32_t) {}
void kvl_audio_get(const kvl_audio*, kvl_audio_state*) {}
void kvl_audio_source_start(const char*, int32_t) {}
void kvl_audio_source_stop(const char*) {}
void kvl_audio_source_push(const char*, const float*, int32_t) {}
void kvl_audio_source_read(const char*, kvl_audio_state* out) { if (out) *out = kvl_audio_state{}; }
void kvl_audio_start(int32_t) {}
void kvl_audio_stop(void) {}
void kvl_audio_push(const float*, int32_t, int32_t) {}
void kvl_audio_read(kvl_audio_state* out) { if (out) *out = kvl_audio_state{}; }
void kvl_audio_set_gain(float) {}
