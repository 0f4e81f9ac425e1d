// The waveform service's work: the peaks of a media file's first audio track
// for a waveform display, and the track as a raw sample file.
//
// Usage:
//   if (auto w = kavlen::waveform::peaks("song.m4a", 1000)) draw(w->duration, w->peaks);
//   if (kavlen::waveform::pcm("song.m4a", "song.f32")) ...  // 44100 Hz mono float
//
// Both decode the whole track on the calling thread; run them off the main
// loop. Failures give an empty answer and no message, as the channel wants.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavlen::waveform {

constexpr int kPeaksRate = 22050;  // the rate the peaks are taken at
constexpr int kPcmRate = 44100;    // the rate of raw sample files
constexpr int64_t kDefaultPeakCount = 1000;
constexpr int64_t kMinPeakCount = 16;
constexpr int64_t kMaxPeakCount = 4000;

struct Peaks {
  double duration = 0;        // seconds of the file; 0 when it does not say
  std::vector<double> peaks;  // absolute peak of each time slice, 0 to 1
};

// The bucket count a request gets: `count` clamped to 16..4000.
int64_t clampPeakCount(int64_t count);

// Samples per bucket for a file of `duration` seconds split into `count`
// buckets at 22050 Hz: the estimate of samples divided by the count, at least
// 1, and 1 when the estimate is 0 or unknown.
int64_t samplesPerBucket(double duration, int64_t count);

// Splits the first audio track into clampPeakCount(count) slices and keeps the
// absolute peak of each, capped at 1.0. Samples past the duration's estimate
// fall into the last slice; slices no sample reached stay 0. A file whose tail
// cannot be decoded gives the peaks of what could be. Nothing when the file
// cannot be opened or holds no audio track.
std::optional<Peaks> peaks(const std::string& path, int64_t count);

// Writes the first audio track to `out` as headerless 32-bit little-endian
// float mono at 44100 Hz, replacing what was there. `out` is only created once
// decoding has started, so an unreadable input leaves it untouched. Gives the
// sample rate when the whole track was written, nothing otherwise (the file
// then holds what was written before the failure).
std::optional<int> pcm(const std::string& path, const std::string& out);

}  // namespace kavlen::waveform
