// Layer preparation. (Being written.)
#include "engine_internal.h"

bool kvl_prepare(kvl_prep*, const kvl_resolved*, const kvl_sources*, int32_t, int32_t, kvl_cache*) { return false; }
void kvl_prep_free(kvl_prep*) {}
