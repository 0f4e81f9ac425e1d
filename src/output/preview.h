// A small picture of an output's last state for the operator's monitor,
// drawn again only when the state, the size or the media root changed.
#pragma once

#include <string>
#include <vector>

#include "cpu_frame.h"

namespace kavlen::output {

class PreviewCache {
 public:
  // False when the state is rejected.
  bool render(const std::string& state, int width, int height, const std::string& mediaRoot);
  const std::vector<uint8_t>& rgba() const { return rgba_; }

 private:
  CpuFrame frame_;
  std::string state_, root_;
  int w_ = 0, h_ = 0;
  bool ok_ = false;
  std::vector<uint8_t> rgba_;
};

}  // namespace kavlen::output
