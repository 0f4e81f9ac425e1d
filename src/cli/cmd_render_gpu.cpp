#include "commands.h"
#include "render_job.h"
int render_with_gpu(const RenderJob&) { return fail("render: the GPU path is not available in this build"); }
