#include "native_renderer.h"

#include "native_compositor.h"

namespace kavlen::exporter {

namespace {

class NativeRenderer final : public ExportRenderer {
 public:
  NativeRenderer(const host::Value& scene, int width, int height, const std::string& mediaRoot)
      : compositor_(native::NativeScene::json(scene, width, height), mediaRoot) {}
  void render(int64_t ms, uint8_t* rgba, int64_t stride) override {
    compositor_.render(ms, rgba, static_cast<size_t>(stride), img::PixelOrder::RGBA);
  }

 private:
  native::NativeCompositor compositor_;
};

}  // namespace

ExportRendererFactory nativeRendererFactory() {
  return [](const host::Value& scene, int width, int height, const std::string& mediaRoot) {
    return std::make_unique<NativeRenderer>(scene, width, height, mediaRoot);
  };
}

}  // namespace kavlen::exporter
