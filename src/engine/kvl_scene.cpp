// Scene document parsing and layer resolution. (Being written.)
#include "engine_internal.h"

kvl_scene* kvl_scene_parse(const char*, char*, int32_t) { return nullptr; }
void kvl_scene_free(kvl_scene*) {}
const kvl_audio_track* kvl_scene_audio_track(const kvl_scene*, const char*) { return nullptr; }
bool kvl_animated(const kvl_layer*, const char*, double*, double) { return false; }
void kvl_layer_resolve(const kvl_scene*, const kvl_layer*, double*, kvl_resolved*, double) {}
