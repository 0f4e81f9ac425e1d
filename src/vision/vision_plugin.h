// The "app.kavlen/vision" channel: rectangles found in a picture file, as
// quads for the interface to map onto.
//
//   VisionPlugin::registerWith(messenger, loop, pool);
//   // "detectRectangles" {"path": "/home/op/stage.jpg"}
//   //   -> [[[x, y], [x, y], [x, y], [x, y]], ...]
//
// Each quad is top left, top right, bottom right, bottom left, normalised to
// the upright picture (origin top left, y down); the quad with the largest
// bounding box comes first, equal ones keep the detector's order (most
// confident first). Any failure answers an empty list, never null. The work
// runs on the pool; the answer is sent from the main loop.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "main_loop.h"
#include "messenger.h"
#include "rect_detector.h"
#include "workers.h"

namespace kavlen::vision {

struct Detection {
  int width = 0, height = 0;  // the upright picture
  int orientation = 1;
  std::vector<Observation> quads;  // largest bounding box first
};

class VisionPlugin {
 public:
  static constexpr const char* kChannel = "app.kavlen/vision";

  // The loop and the pool must outlive the registration; the plug-in itself
  // keeps no state.
  static void registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& pool);

  // The channel's request on a picture file; nothing when the file cannot
  // be read as a picture.
  static std::optional<Detection> detectInFile(const std::string& path);
  static std::optional<Detection> detectInBytes(const uint8_t* data, size_t size);
  // As the channel answers: the quads, empty on any failure.
  static std::vector<Observation> detect(const std::string& path);
  static host::Value toValue(const std::vector<Observation>& quads);
};

}  // namespace kavlen::vision
