// Signal files. (Being written.)
#include "engine_internal.h"

kvl_signals* kvl_signals_parse(const void*, int32_t) { return nullptr; }
kvl_signals* kvl_signals_load(const char*) { return nullptr; }
void kvl_signals_at(const kvl_signals*, float* out, double) { for (int i = 0; i < 5; i++) out[i] = 0; }
void kvl_signals_free(kvl_signals*) {}
int32_t kvl_signals_analyze_file(const char*, int32_t, const char*) { return -1; }
int32_t kvl_audio_analyze_file(const char* a, int32_t r, const char* b) { return kvl_signals_analyze_file(a, r, b); }
