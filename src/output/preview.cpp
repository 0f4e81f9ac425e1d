#include "preview.h"

namespace kavlen::output {

bool PreviewCache::render(const std::string& state, int width, int height, const std::string& mediaRoot) {
  if (state == state_ && width == w_ && height == h_ && mediaRoot == root_ && !rgba_.empty()) return ok_;
  state_ = state;
  w_ = width;
  h_ = height;
  root_ = mediaRoot;
  ok_ = frame_.setState(state);
  frame_.draw(width, height, mediaRoot, rgba_);
  return ok_;
}

}  // namespace kavlen::output
