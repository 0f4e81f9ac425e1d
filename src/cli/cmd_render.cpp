// kavlen render: one frame of a scene to a PNG, on the CPU compositor or, with
// --gpu, through the output renderer on an offscreen GL context.

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "kavlen/kavlen.h"
#include "media_key.h"
#include "output_text_rasterizer.h"
#include "render_job.h"
#include "video_layers.h"

namespace {

const char kUsage[] =
    "usage: kavlen render SCENE.json -o FRAME.png [options]\n"
    "  --time-ms T        moment of the timeline in milliseconds (default 0)\n"
    "  --size WxH         frame size in pixels (default: the output's size in the scene)\n"
    "  --output ID        output to draw (default: the scene's first output)\n"
    "  --media-root DIR   folder of the scene's media (default: the scene file's folder)\n"
    "  --threads N        compositor threads (default: one per processor)\n"
    "  --gpu              draw through the GPU output renderer (headless EGL)\n"
    "  --native           draw through the offline compositor (as movie export does)\n"
    "  --test-pattern     draw the output test chart instead of the scene (GPU path)\n";

std::string folder_of(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool parse_size(const char* text, int32_t& w, int32_t& h) {
  char x = 0;
  int a = 0, b = 0;
  char tail = 0;
  if (sscanf(text, "%d%c%d%c", &a, &x, &b, &tail) != 3 || (x != 'x' && x != 'X')) return false;
  if (a < 1 || b < 1 || a > 16384 || b > 16384) return false;
  w = a;
  h = b;
  return true;
}

bool parse_number(const char* text, double& out) {
  char* end = nullptr;
  errno = 0;
  out = strtod(text, &end);
  return end && end != text && !*end && errno == 0 && std::isfinite(out);
}

// Collects the distinct image keys of the layers (and their clips) that this
// output shows.
std::vector<std::string> image_keys(const kvl_scene* scene, const std::string& output_id) {
  std::vector<std::string> keys;
  auto add = [&](const kvl_paint& p) {
    if (p.kind != KVL_PAINT_IMAGE || !p.ref || !p.ref[0]) return;
    for (const std::string& k : keys)
      if (k == p.ref) return;
    keys.emplace_back(p.ref);
  };
  for (int32_t i = 0; i < scene->layer_count; i++) {
    const kvl_layer& l = scene->layers[i];
    const char* out = l.output ? l.output : scene->outputs[0].id;
    if (output_id != out) continue;
    add(l.paint);
    for (int32_t c = 0; c < l.clip_count; c++) add(l.clips[c].paint);
  }
  return keys;
}

int render_with_cpu(const RenderJob& job) {
  kvl_engine* engine = kvl_engine_create(job.scene_text.c_str(), job.width, job.height, job.output_id.c_str());
  if (!engine) return fail("render: %s", kvl_last_error());
  kvl_engine_set_media_root(engine, job.media_root.c_str());
  kvl_engine_set_threads(engine, job.threads);
  for (const RenderSource& s : job.sources) {
    const ImageFile& im = s.image;
    if (kvl_engine_set_source(engine, s.key.c_str(), im.rgba.data(), im.width, im.height, im.width * 4) != 0)
      fprintf(stderr, "kavlen: warning: image %s (%dx%d) was refused by the engine\n", s.key.c_str(), im.width,
              im.height);
  }
  std::vector<uint8_t> frame(static_cast<size_t>(job.width) * job.height * 4);
  int64_t time_us = static_cast<int64_t>(std::llround(job.time_ms * 1000.0));
  // Video layers: the frame of each one's media time at this moment.
  std::vector<std::string> video_warnings;
  kavlen::feedVideoLayers(
      engine, job.scene_text, time_us, [&](const std::string& key) { return kavlen::media::key_path(key, job.media_root); },
      video_warnings);
  for (const std::string& w : video_warnings)
    fprintf(stderr, "kavlen: warning: %s (the layer shows dark grey)\n", w.c_str());
  // Text layers: their pictures come from the offline compositor.
  auto texts = std::make_shared<kavlen::native::OutputTextRasterizer>();
  texts->setScene(kavlen::native::NativeScene::jsonText(job.scene_text, job.width, job.height));
  kavlen::native::TextSourceFeeder(texts).feed(engine, time_us);
  int32_t rc = kvl_engine_render(engine, time_us, frame.data(), job.width * 4);
  kvl_engine_destroy(engine);
  if (rc != 0) return fail("render: the engine refused the frame (%d): %s", rc, kvl_last_error());
  std::string error;
  if (!ImageFile::write_png(job.out_path, frame.data(), job.width, job.height, job.width * 4, error))
    return fail("render: %s", error.c_str());
  return 0;
}

}  // namespace

int cmd_render(int argc, char** argv) {
  RenderJob job;
  bool have_size = false, have_root = false;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if ((a == "-o" || a == "--out") && has_value) {
      job.out_path = argv[++i];
    } else if (a == "--time-ms" && has_value) {
      if (!parse_number(argv[++i], job.time_ms)) return fail("render: --time-ms wants a number, got '%s'", argv[i]);
    } else if (a == "--size" && has_value) {
      if (!parse_size(argv[++i], job.width, job.height))
        return fail("render: --size wants WIDTHxHEIGHT between 1 and 16384, got '%s'", argv[i]);
      have_size = true;
    } else if (a == "--output" && has_value) {
      job.output_id = argv[++i];
    } else if (a == "--media-root" && has_value) {
      job.media_root = argv[++i];
      have_root = true;
    } else if (a == "--threads" && has_value) {
      double t = 0;
      if (!parse_number(argv[++i], t) || t < 0 || t > 1024 || t != std::floor(t))
        return fail("render: --threads wants a whole number from 0 to 1024, got '%s'", argv[i]);
      job.threads = static_cast<int32_t>(t);
    } else if (a == "--gpu") {
      job.gpu = true;
    } else if (a == "--native") {
      job.native = true;
    } else if (a == "--test-pattern") {
      job.test_pattern = true;
    } else if (a[0] == '-' && a.size() > 1) {
      return fail("render: unknown option or missing value: '%s' (see kavlen render --help)", a.c_str());
    } else if (job.scene_path.empty()) {
      job.scene_path = a;
    } else {
      return fail("render: more than one scene given ('%s')", a.c_str());
    }
  }
  if (job.out_path.empty()) return fail("render: no output file given (-o FRAME.png)");
  if (job.scene_path.empty() && !job.test_pattern) return fail("render: no scene file given");
  if (job.native && (job.gpu || job.test_pattern)) return fail("render: --native goes with neither --gpu nor --test-pattern");

  kvl_scene* scene = nullptr;
  if (!job.scene_path.empty()) {
    std::string error;
    if (!read_text_file(job.scene_path, job.scene_text, error)) return fail("render: %s", error.c_str());
    char message[256] = "";
    scene = kvl_scene_parse(job.scene_text.c_str(), message, sizeof message);
    if (!scene) return fail("render: %s: %s", job.scene_path.c_str(), message);
  } else {
    job.scene_text = "{}";
    scene = kvl_scene_parse(job.scene_text.c_str(), nullptr, 0);
    if (!scene) return fail("render: out of memory");
  }
  if (!have_root) job.media_root = folder_of(job.scene_path);

  // The output and its size: the one asked for, or the scene's first.
  const kvl_output* output = &scene->outputs[0];
  if (!job.output_id.empty()) {
    output = nullptr;
    for (int32_t i = 0; i < scene->output_count; i++)
      if (job.output_id == scene->outputs[i].id) output = &scene->outputs[i];
    if (!output && !have_size) {
      kvl_scene_free(scene);
      return fail("render: the scene has no output \"%s\"; give --size to draw it anyway", job.output_id.c_str());
    }
  } else {
    job.output_id = output->id;
  }
  if (!have_size) {
    job.width = static_cast<int32_t>(output->width);
    job.height = static_cast<int32_t>(output->height);
    if (job.width < 1 || job.height < 1 || job.width > 16384 || job.height > 16384) {
      kvl_scene_free(scene);
      return fail("render: the output's size %gx%g cannot be drawn; give --size", output->width, output->height);
    }
  }

  for (const std::string& key : image_keys(scene, job.output_id)) {
    RenderSource src;
    src.key = key;
    std::string error;
    if (ImageFile::load(kavlen::media::key_path(key, job.media_root), src.image, error))
      job.sources.push_back(std::move(src));
    else
      fprintf(stderr, "kavlen: warning: %s (the layer shows dark grey)\n", error.c_str());
  }
  kvl_scene_free(scene);

  int rc = job.native ? render_with_native(job)
           : job.gpu || job.test_pattern ? render_with_gpu(job)
                                         : render_with_cpu(job);
  if (rc == 0)
    fprintf(stderr, "kavlen: wrote %s (%dx%d, %s, %.0f ms)\n", job.out_path.c_str(), job.width, job.height,
            job.native ? "native" : job.gpu || job.test_pattern ? "gpu" : "cpu", job.time_ms);
  return rc;
}
