// Audio modulation and envelopes. (Being written.)
#include "engine_internal.h"

void kvl_layer_modulate(const kvl_layer*, const double*, kvl_resolved*) {}
double kvl_envelope_step(const kvl_modulation*, double e, double, double) { return e; }
double kvl_audio_clip_ramp(const kvl_audio_clip*, double) { return 0; }
double modulation_envelope(kvl_engine*, const kvl_layer*, int32_t, double) { return -1.0; }
void compact_signals(kvl_engine*) {}
void free_audio_tables(kvl_engine*) {}
double kvl_engine_envelope_at(kvl_engine*, const char*, int64_t) { return -1.0; }
void kvl_engine_set_signals(kvl_engine*, const float*, double) {}
int32_t kvl_engine_set_track_signals(kvl_engine* e, const char* key, const void*, int32_t) { return (!e || !key) ? -1 : -2; }
void kvl_engine_set_audio_time(kvl_engine* e, double t) { if (e) e->audio_time = t; }
void kvl_engine_step_audio(kvl_engine*, double) {}
