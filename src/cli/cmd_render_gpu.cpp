// kavlen render --gpu / --test-pattern: one frame through the output
// renderer, on a headless EGL context, into an offscreen framebuffer, read
// back and written as a PNG. It shows what a projector would show, without a
// display, and lets the GPU and CPU paths be compared on the same job.
#include <cjson/cJSON.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "gl_headless.h"
#include "gl_output_renderer.h"
#include "gl_output_sink.h"
#include "output_text_rasterizer.h"
#include "render_job.h"
#include "video_layers.h"

namespace {

// The output state that asks for the test chart of the job's scene.
std::string testPatternState(const RenderJob& job) {
  cJSON* state = cJSON_CreateObject();
  cJSON* scene = cJSON_Parse(job.scene_text.c_str());
  if (!cJSON_IsObject(scene)) {
    cJSON_Delete(scene);
    scene = cJSON_CreateObject();
  }
  cJSON_AddItemToObject(state, "scene", scene);
  cJSON_AddStringToObject(state, "mode", "testPattern");
  char* text = cJSON_PrintUnformatted(state);
  std::string out = text ? text : "";
  cJSON_free(text);
  cJSON_Delete(state);
  return out;
}

}  // namespace

int render_with_gpu(const RenderJob& job) {
  HeadlessGl gl;
  std::string error;
  if (!gl.open(error)) return fail("render: no GL ES context for --gpu: %s", error.c_str());
  GlOffscreen frame;
  if (!frame.create(job.width, job.height, error)) return fail("render: %s", error.c_str());

  std::string root = job.media_root;
  std::unique_ptr<GlOutputRenderer> renderer = GlOutputRenderer::create([root] { return root; });
  if (!renderer) return fail("render: the GPU output renderer could not be built (see the line above)");

  if (job.test_pattern) {
    // The chart sits where the scene's first output would, letterboxed
    // into the frame; its labels name both sizes when they differ.
    if (!renderer->setState(testPatternState(job))) return fail("render: the scene cannot be shown");
  } else {
    // The scene at the frame's size and for the chosen output, as the CPU
    // path draws it, so that both give the same picture.
    renderer->setOutputId(job.output_id);
    // Video layers show the frame of their media time, decoded as the CPU
    // path decodes it, rather than whatever a live player has reached.
    GlOutputRenderer* r = renderer.get();
    renderer->videoFrameProvider = [r](const std::string& key, int64_t mediaUs) -> std::optional<ImageFile> {
      std::vector<std::string> warnings;
      std::optional<kavlen::VideoImage> image = kavlen::videoFrameAt(key, r->resolve(key), mediaUs, warnings);
      for (const std::string& w : warnings)
        fprintf(stderr, "kavlen: warning: %s (the layer shows dark grey)\n", w.c_str());
      if (!image) return std::nullopt;
      ImageFile out;
      out.width = image->width;
      out.height = image->height;
      out.rgba = std::move(image->rgba);
      return out;
    };
    renderer->setState(job.scene_text, job.width, job.height, "normal", false, {}, {});
    // Text layers: drawn by the offline compositor from the same scene.
    auto texts = std::make_shared<kavlen::native::OutputTextRasterizer>();
    texts->setScene(kavlen::native::NativeScene::jsonText(job.scene_text, job.width, job.height));
    renderer->textProvider = kavlen::output::textProviderOf(texts);
  }
  int64_t time_us = static_cast<int64_t>(std::llround(job.time_ms * 1000.0));
  if (!renderer->drawFrame(time_us, frame.target())) return fail("render: the GL context was lost");
  if (!job.test_pattern && !renderer->engine()) return fail("render: %s", kvl_last_error());

  std::vector<uint8_t> rgba;
  if (!frame.read(rgba)) return fail("render: the frame could not be read back from the GPU");
  renderer.reset();
  if (!ImageFile::write_png(job.out_path, rgba.data(), job.width, job.height, job.width * 4, error))
    return fail("render: %s", error.c_str());
  return 0;
}
