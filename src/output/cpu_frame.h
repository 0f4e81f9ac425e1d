// An output's picture drawn on the CPU: the state texts of an output, as the
// GPU renderer takes them, turned into straight RGBA frames of any size by
// the engine's compositor. The scene keeps its aspect ratio, centred between
// black bars; "blackout" is black and "testPattern" the calibration chart.
// Still images, video pictures at the state's positions and texts (drawn by
// the offline compositor) are handed to the engine as sources.
//
// Used by the CPU sink (a window's frames) and by the operator's previews,
// so both show the same picture as `kavlen render`.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <memory>

#include "kavlen/kavlen.h"
#include "output_text_rasterizer.h"
#include "scene_sources.h"

namespace kavlen::output {

class CpuFrame {
 public:
  CpuFrame() = default;
  ~CpuFrame();
  CpuFrame(const CpuFrame&) = delete;
  CpuFrame& operator=(const CpuFrame&) = delete;

  // Takes one state text; false when it is rejected (nothing changes).
  // "mediaReset" drops the decoded media.
  bool setState(const std::string& text);
  // Draws the current state into `rgba` (width * height * 4 bytes).
  void draw(int width, int height, const std::string& mediaRoot, std::vector<uint8_t>& rgba);
  void release();

 private:
  SceneSources sources_;
  std::shared_ptr<native::OutputTextRasterizer> texts_ = std::make_shared<native::OutputTextRasterizer>();
  native::TextSourceFeeder textFeeder_{texts_};
  kvl_engine* engine_ = nullptr;
  int engineW_ = 0, engineH_ = 0;
  std::string sceneJson_;
  int32_t sceneW_ = 1920, sceneH_ = 1080;
  std::string mode_ = "normal";
  std::map<std::string, int64_t> positions_;
  bool haveScene_ = false, sceneChanged_ = false;
};

}  // namespace kavlen::output
