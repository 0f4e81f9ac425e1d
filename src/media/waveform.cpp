#include "waveform.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>

#include "audio_decode.h"

namespace kavlen::waveform {

int64_t clampPeakCount(int64_t count) { return std::clamp(count, kMinPeakCount, kMaxPeakCount); }

int64_t samplesPerBucket(double duration, int64_t count) {
  double estimate = duration * kPeaksRate;
  // The estimate is truncated; an unknown or absurd duration counts as 0.
  if (!std::isfinite(estimate) || estimate < 1 || estimate > 9.0e15) return 1;
  int64_t expected = static_cast<int64_t>(estimate);
  return std::max<int64_t>(expected / std::max<int64_t>(count, 1), 1);
}

std::optional<Peaks> peaks(const std::string& path, int64_t requested) {
  const int64_t count = clampPeakCount(requested);
  std::vector<float> buckets(static_cast<size_t>(count), 0.0f);
  int64_t perBucket = 1;
  // Position in the buckets: which one, and how many samples it has taken.
  int64_t bucket = 0, taken = 0;
  double duration = 0;

  auto onStart = [&](const AudioDecodeInfo& info) {
    duration = std::isfinite(info.duration) && info.duration > 0 ? info.duration : 0;
    perBucket = samplesPerBucket(duration, count);
    return true;
  };
  auto onChunk = [&](const float* s, size_t n, double) {
    const int64_t last = count - 1;
    size_t i = 0;
    while (i < n) {
      if (taken == perBucket && bucket < last) {
        bucket++;
        taken = 0;
      }
      // The run of samples that stays in this bucket (the last one takes all).
      size_t run = bucket < last ? std::min<size_t>(n - i, static_cast<size_t>(perBucket - taken)) : n - i;
      float peak = buckets[static_cast<size_t>(bucket)];
      for (size_t k = 0; k < run; k++) peak = std::max(peak, std::fabs(s[i + k]));
      buckets[static_cast<size_t>(bucket)] = peak;
      taken += static_cast<int64_t>(run);
      i += run;
    }
    return true;
  };

  std::string error;
  AudioDecodeInfo info;
  if (!decodeAudioMono(path, kPeaksRate, onChunk, error, info, onStart)) return std::nullopt;

  Peaks result;
  result.duration = duration;
  result.peaks.reserve(buckets.size());
  for (float b : buckets) result.peaks.push_back(std::min(1.0, static_cast<double>(b)));
  return result;
}

std::optional<int> pcm(const std::string& path, const std::string& out) {
  FILE* file = nullptr;
  bool writeFailed = false;
  // The output is made only once the track is open and decoding.
  auto onStart = [&](const AudioDecodeInfo&) {
    file = std::fopen(out.c_str(), "wb");
    return file != nullptr;
  };
  auto onChunk = [&](const float* s, size_t n, double) {
    if (std::fwrite(s, sizeof(float), n, file) != n) {
      writeFailed = true;
      return false;
    }
    return true;
  };
  std::string error;
  AudioDecodeInfo info;
  bool ok = decodeAudioMono(path, kPcmRate, onChunk, error, info, onStart);
  if (file && std::fclose(file) != 0) writeFailed = true;
  if (!ok || writeFailed || !info.complete) return std::nullopt;
  return kPcmRate;
}

}  // namespace kavlen::waveform
