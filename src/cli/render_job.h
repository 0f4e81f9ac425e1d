// One frame to render from the command line: what `kavlen render` parsed from
// its arguments, and the still images it loaded for the scene. Shared by the
// CPU path (the engine's compositor) and the GPU path (the output renderer on
// an offscreen EGL context), so both draw exactly the same job.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image_file.h"

struct RenderSource {
  std::string key;  // media key as the scene names it
  ImageFile image;
};

struct RenderJob {
  std::string scene_path;
  std::string scene_text;
  std::string out_path;
  std::string output_id;   // empty: the scene's first output
  std::string media_root;  // folder that relative media keys are read from
  double time_ms = 0;
  int32_t width = 0, height = 0;  // frame size in pixels
  int32_t threads = 0;            // 0: one per processor
  bool gpu = false;
  bool native = false;  // through the offline compositor
  bool test_pattern = false;
  std::vector<RenderSource> sources;  // still images found and decoded
};

// Draws the job on the GPU path and writes the PNG; returns the exit code.
int render_with_gpu(const RenderJob& job);
// Draws the job through the offline compositor and writes the PNG.
int render_with_native(const RenderJob& job);
