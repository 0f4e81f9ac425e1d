#include "cpu_frame.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "output_state.h"
#include "test_pattern.h"

namespace kavlen::output {

CpuFrame::~CpuFrame() { release(); }

void CpuFrame::release() {
  if (engine_) kvl_engine_destroy(engine_);
  engine_ = nullptr;
}

bool CpuFrame::setState(const std::string& text) {
  OutputState s;
  switch (parseOutputState(text, s)) {
    case OutputStateKind::Rejected:
      return false;
    case OutputStateKind::MediaReset:
      sources_.clear();
      return true;
    case OutputStateKind::State:
      break;
  }
  sceneJson_ = std::move(s.sceneJson);
  sceneW_ = std::max(1, s.sceneW);
  sceneH_ = std::max(1, s.sceneH);
  mode_ = s.mode;
  positions_ = std::move(s.positions);
  texts_->setScene(s.scene.get(), s.sceneW, s.sceneH);
  haveScene_ = true;
  sceneChanged_ = true;
  return true;
}

void CpuFrame::draw(int w, int h, const std::string& mediaRoot, std::vector<uint8_t>& rgba) {
  rgba.assign(static_cast<size_t>(w) * h * 4, 0);
  for (size_t i = 3; i < rgba.size(); i += 4) rgba[i] = 255;
  if (mode_ == "blackout") return;
  if (mode_ == "testPattern") {
    std::vector<uint8_t> chart;
    if (drawTestChart(w, h, testChartLabels(sceneW_, sceneH_, w, h), chart)) rgba = std::move(chart);
    return;
  }
  if (!haveScene_) return;

  const double scale = std::min(static_cast<double>(w) / sceneW_, static_cast<double>(h) / sceneH_);
  const int dw = std::clamp(static_cast<int>(std::lround(scale * sceneW_)), 1, w);
  const int dh = std::clamp(static_cast<int>(std::lround(scale * sceneH_)), 1, h);
  const int ox = (w - dw) / 2, oy = (h - dh) / 2;
  if (!engine_ || engineW_ != dw || engineH_ != dh) {
    release();
    engine_ = kvl_engine_create(sceneJson_.c_str(), dw, dh, nullptr);
    textFeeder_.forget();
    sources_.forget();
    engineW_ = dw;
    engineH_ = dh;
    sceneChanged_ = false;
  } else if (sceneChanged_) {
    sceneChanged_ = false;
    if (kvl_engine_set_scene(engine_, sceneJson_.c_str()) != 0) return;
  }
  if (!engine_) return;
  kvl_engine_set_media_root(engine_, mediaRoot.c_str());
  sources_.feed(engine_, sceneJson_, 0, mediaRoot, positions_);
  textFeeder_.feed(engine_, 0);
  std::vector<uint8_t> frame(static_cast<size_t>(dw) * dh * 4);
  if (kvl_engine_render(engine_, 0, frame.data(), dw * 4) != 0) return;
  for (int y = 0; y < dh; ++y)
    std::memcpy(&rgba[(static_cast<size_t>(y + oy) * w + ox) * 4], &frame[static_cast<size_t>(y) * dw * 4],
                static_cast<size_t>(dw) * 4);
}

}  // namespace kavlen::output
