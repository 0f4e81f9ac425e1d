// Audio decoding on FFmpeg: the first audio track of any audio or video file,
// mixed to mono 32-bit float and resampled to a rate of the caller's choice.
//
// Usage:
//   std::vector<float> samples; std::string error;
//   if (!kavlen::decodeAudioMono("show.mp4", 44100, samples, error)) report(error);
//
// Limits: the whole track is held in memory (an hour at 44.1 kHz is ~635 MB);
// callers that only need a reduction of the samples pass a chunk callback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavlen {

// Called with each run of decoded mono samples, in order, and the fraction of
// the file done so far (0 to 1, or -1 when the duration is unknown).
// Returning false stops the decoding; decodeAudioMono then fails with "cancelled".
using AudioChunkFn = std::function<bool(const float* samples, size_t count, double progress)>;

// Decodes the first audio track of `path` to mono float at `rate` Hz and hands
// the samples to `onChunk`. False with a one-line message in `error` when the
// file cannot be opened, holds no audio track, or cannot be decoded at all.
// A file whose tail is corrupt gives the samples decoded before it.
bool decodeAudioMono(const std::string& path, int rate, const AudioChunkFn& onChunk, std::string& error);

// What a decoding run learnt about the file. `duration` is known before the
// first sample (see onStart below); the rest once decoding ends.
struct AudioDecodeInfo {
  double duration = 0;    // seconds of the whole file; NaN when the container does not say
  bool complete = false;  // read to its end with no damaged or undecodable packet
  size_t samples = 0;     // mono samples handed out
};

// Called once the track is found and its decoder is open, before any sample;
// `info.duration` is set. Returning false stops with "cancelled".
using AudioStartFn = std::function<bool(const AudioDecodeInfo& info)>;

// Full form: fills `info` (also on failure, as far as it got) and calls
// `onStart` first. A run that stops early on damaged data still returns true
// with `info.complete` false.
bool decodeAudioMono(const std::string& path, int rate, const AudioChunkFn& onChunk, std::string& error,
                     AudioDecodeInfo& info, const AudioStartFn& onStart = {});

// The same on a file held in memory (used by the fuzz target of the demuxer).
bool decodeAudioMonoFromMemory(std::shared_ptr<const std::vector<uint8_t>> bytes, int rate,
                               const AudioChunkFn& onChunk, std::string& error, AudioDecodeInfo& info);

// The same as interleaved stereo (`channels` 2; mono files play on both sides
// at full level, wider layouts are folded down) or mono (`channels` 1). The
// chunk callback's `count` is then in frames of `channels` samples each, and
// `info.samples` counts frames.
bool decodeAudio(const std::string& path, int rate, int channels, const AudioChunkFn& onChunk, std::string& error,
                 AudioDecodeInfo& info);

// Convenience form that collects every sample into `out`.
bool decodeAudioMono(const std::string& path, int rate, std::vector<float>& out, std::string& error,
                     const std::function<void(double progress)>& onProgress = {});

}  // namespace kavlen
