// kavlen render --native: one frame through the offline compositor, the
// renderer of movie export, written as a PNG. The scene is read by the
// compositor's own scene model, so outputs and audio reaction play no part.
#include <cmath>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "native_compositor.h"
#include "render_job.h"

// Text on every render path: fontconfig and Pango keep their font caches for the life of the process
// (Pango's per thread), which the leak checker cannot see as reachable.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libpango-1.0.so\nleak:libpangoft2-1.0.so\nleak:libpangocairo-1.0.so\n";
}

int render_with_native(const RenderJob& job) {
  using kavlen::native::NativeScene;
  std::optional<kavlen::host::Value> doc = kavlen::native::valueFromJson(job.scene_text);
  if (!doc) return fail("render: %s is not JSON", job.scene_path.c_str());
  kavlen::native::NativeCompositor compositor(NativeScene::json(*doc, job.width, job.height), job.media_root);
  std::vector<uint8_t> rgba(static_cast<size_t>(job.width) * job.height * 4);
  compositor.render(static_cast<int64_t>(std::llround(job.time_ms)), rgba.data(), static_cast<size_t>(job.width) * 4,
                    kavlen::img::PixelOrder::RGBA);
  std::string error;
  if (!ImageFile::write_png(job.out_path, rgba.data(), job.width, job.height, job.width * 4, error))
    return fail("render: %s", error.c_str());
  return 0;
}
