// The CPU sink: a window without GL that shows the frames of `CpuFrame`, for
// machines without a usable GPU driver and for operators who ask for it
// ("flutter.nativeOutput" false). A frame is drawn only when something
// changed (state, size, an exposed window), so a still scene costs nothing
// between changes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cpu_frame.h"
#include "output_sink.h"

namespace kavlen::output {

class CpuOutputSink final : public OutputSink {
 public:
  // Nothing when no window can be made.
  static std::unique_ptr<CpuOutputSink> create(const std::string& title, std::function<std::string()> mediaRoot);
  ~CpuOutputSink() override;

  void send(const std::string& state) override;
  void frame() override;
  void close() override;
  const char* kind() const override { return "cpu"; }
  void invalidate() override { dirty_ = true; }

 private:
  CpuOutputSink() = default;
  std::function<std::string()> mediaRoot_;
  CpuFrame picture_;
  std::vector<uint8_t> shown_;
  int shownW_ = 0, shownH_ = 0;
  bool dirty_ = true, readySent_ = false, closed_ = false;
};

}  // namespace kavlen::output
