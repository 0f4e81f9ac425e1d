// The GPU sink: a window with its own GL ES 3 context (through EGL) and the
// output renderer drawing into it at the display's refresh, swap interval 1.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "gl_output_renderer.h"
#include "output_sink.h"

namespace kavlen::native {
class OutputTextRasterizer;
}

namespace kavlen::output {

class GlOutputSink final : public OutputSink {
 public:
  // Nothing when no GL ES context can be made here (or KAVLEN_NO_GL is set)
  // or the renderer cannot be built; no window is left behind then.
  static std::unique_ptr<GlOutputSink> create(const std::string& title, std::function<std::string()> mediaRoot);
  ~GlOutputSink() override;

  void send(const std::string& state) override;
  void frame() override;
  void close() override;
  const char* kind() const override { return "gpu"; }
  GlOutputRenderer* renderer() const { return renderer_.get(); }

 private:
  GlOutputSink() = default;
  bool makeCurrent();
  std::unique_ptr<GlOutputRenderer> renderer_;
  std::shared_ptr<native::OutputTextRasterizer> texts_;
  bool closed_ = false;
};

// The renderer's text provider over a rasterizer of the offline compositor,
// so text layers look the same on every path.
TextProvider textProviderOf(std::shared_ptr<native::OutputTextRasterizer> texts);

// True when KAVLEN_NO_GL is set to anything but "" or "0": windows then get
// the CPU sink, as on a machine without a GPU driver.
bool glDisabledByEnvironment();

}  // namespace kavlen::output
