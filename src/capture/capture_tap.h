// The tap of one open device: mixes each source's channels down to mono and
// pushes them into the source's analyser.
//
// It runs on the capture thread. Its plan is fixed when the capture starts
// and its scratch buffer is allocated up front, so a buffer of any length is
// handled in pieces without allocating, and the only lock taken is the one
// inside kvl_audio_source_push.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kavlen::capture {

class CaptureTap {
 public:
  struct Entry {
    std::string id;             // source name
    std::vector<int> channels;  // device channels to average, never empty
  };

  // The device channels a source reads: the wanted ones that exist, in the
  // order given; all of them when none is left (or none was wanted).
  static std::vector<int> planChannels(const std::vector<int>& wanted, int channelCount);

  // Frames handed over at once; longer buffers are taken in pieces of this.
  static constexpr size_t kScratchFrames = 4096;

  CaptureTap(std::vector<Entry> plan, int channelCount);

  const std::vector<Entry>& plan() const { return plan_; }
  int channelCount() const { return channels_; }

  // `frames` interleaved frames of `channelCount()` floats. Capture thread.
  void process(const float* interleaved, size_t frames);
  // The same, for the record engine's plain callback.
  static void tap(void* self, const float* interleaved, size_t frames) {
    static_cast<CaptureTap*>(self)->process(interleaved, frames);
  }

 private:
  std::vector<Entry> plan_;
  std::vector<float> scales_;  // 1 / channel count of each entry
  int channels_;
  std::vector<float> scratch_;
};

}  // namespace kavlen::capture
