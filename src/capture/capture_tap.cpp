#include "capture_tap.h"

#include <algorithm>

#include "kavlen/kvl_audio.h"

namespace kavlen::capture {

std::vector<int> CaptureTap::planChannels(const std::vector<int>& wanted, int channelCount) {
  std::vector<int> out;
  for (int c : wanted)
    if (c >= 0 && c < channelCount) out.push_back(c);
  if (out.empty())
    for (int c = 0; c < channelCount; c++) out.push_back(c);
  return out;
}

CaptureTap::CaptureTap(std::vector<Entry> plan, int channelCount)
    : plan_(std::move(plan)), channels_(channelCount), scratch_(kScratchFrames, 0.0f) {
  for (Entry& e : plan_) {
    e.channels = planChannels(e.channels, channels_);
    scales_.push_back(e.channels.empty() ? 0.0f : 1.0f / static_cast<float>(e.channels.size()));
  }
}

void CaptureTap::process(const float* interleaved, size_t frames) {
  if (!interleaved || channels_ < 1) return;
  const size_t stride = static_cast<size_t>(channels_);
  for (size_t done = 0; done < frames;) {
    const size_t n = std::min(frames - done, scratch_.size());
    const float* in = interleaved + done * stride;
    float* out = scratch_.data();
    for (size_t e = 0; e < plan_.size(); e++) {
      const std::vector<int>& chans = plan_[e].channels;
      const float scale = scales_[e];
      if (chans.size() == 1) {
        const float* p = in + chans[0];
        for (size_t i = 0; i < n; i++) out[i] = p[i * stride];
      } else {
        for (size_t i = 0; i < n; i++) {
          const float* frame = in + i * stride;
          float sum = 0.0f;
          for (int c : chans) sum += frame[c];
          out[i] = sum * scale;
        }
      }
      kvl_audio_source_push(plan_[e].id.c_str(), out, static_cast<int32_t>(n));
    }
    done += n;
  }
}

}  // namespace kavlen::capture
