// What draws the frames of an export that renders on its own: one frame at a
// time, at a moment of the scene, into an RGBA buffer of the export's size.
// The export keeps one renderer per run on a background thread and never
// touches it from anywhere else.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "value.h"

namespace kavlen::exporter {

class ExportRenderer {
 public:
  virtual ~ExportRenderer() = default;
  // Draws the frame at `ms` into `rgba` (8 bits a channel, rows from the top,
  // `stride` bytes apart). Missing media leave their layers out; no failure.
  virtual void render(int64_t ms, uint8_t* rgba, int64_t stride) = 0;
  // Ends the reading of media sources; called once after the last frame.
  virtual void stop() {}
};

// Makes the renderer of one run: the scene document, the frame size and the
// folder that relative media paths are read from.
using ExportRendererFactory = std::function<std::unique_ptr<ExportRenderer>(
    const host::Value& scene, int width, int height, const std::string& mediaRoot)>;

}  // namespace kavlen::exporter
