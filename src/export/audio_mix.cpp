#include "audio_mix.h"

#include <algorithm>

#include "audio_decode.h"
#include "movie_writer.h"

namespace kavlen::exporter {

std::optional<AudioClip> audioClipFrom(const host::Value& dict) {
  std::optional<std::string> path = dict.getString("path");
  if (!path) return std::nullopt;
  AudioClip c;
  c.path = *path;
  c.startMs = dict.getInt("startMs").value_or(0);
  c.lengthMs = dict.getInt("lengthMs").value_or(0);
  // A whole number is as good a gain as any (JSON files write 2 for 2.0).
  if (auto v = dict.getDouble("volume"))
    c.volume = static_cast<float>(*v);
  else if (auto i = dict.getInt("volume"))
    c.volume = static_cast<float>(*i);
  c.skipMs = dict.getInt("skipMs").value_or(0);
  c.fadeInMs = dict.getInt("fadeInMs").value_or(0);
  c.fadeOutMs = dict.getInt("fadeOutMs").value_or(0);
  c.clipLengthMs = dict.getInt("clipLengthMs").value_or(c.lengthMs + c.skipMs);
  c.fileOffsetMs = dict.getInt("fileOffsetMs").value_or(0);
  return c;
}

std::vector<AudioClip> audioClipsFrom(const host::Value* list) {
  std::vector<AudioClip> clips;
  const host::ValueList* items = list ? list->asList() : nullptr;
  if (!items) return clips;
  for (const host::Value& v : *items)
    if (auto c = audioClipFrom(v)) clips.push_back(std::move(*c));
  return clips;
}

int64_t msToMixFrames(int64_t ms) { return static_cast<int64_t>(static_cast<double>(ms) / 1000.0 * kMixRate); }

int64_t mixFrameCount(const std::vector<AudioClip>& clips) {
  int64_t end = 0;
  for (const AudioClip& c : clips) end = std::max(end, c.startMs + c.lengthMs);
  return msToMixFrames(end);
}

namespace {

// Adds one clip to `mix` (2 * total floats).
void mixClip(const AudioClip& clip, std::vector<float>& mix, int64_t total, std::vector<std::string>* warnings) {
  const int64_t start = msToMixFrames(clip.startMs), length = msToMixFrames(clip.lengthMs);
  const int64_t skip = msToMixFrames(clip.skipMs), fin = msToMixFrames(clip.fadeInMs);
  const int64_t fout = msToMixFrames(clip.fadeOutMs), clen = msToMixFrames(clip.clipLengthMs);
  const int64_t stop = std::min(start + length, total);
  int64_t pos = std::max<int64_t>(start, 0);
  if (pos >= stop) return;
  // Frames of the decoded file still to pass over before the clip's playing
  // part (and the part of it before the timeline's start).
  int64_t toSkip = msToMixFrames(clip.fileOffsetMs) + skip + (pos - start);
  const float v = clip.volume;

  auto onChunk = [&](const float* frames, size_t count, double) {
    size_t i = 0;
    if (toSkip > 0) {
      size_t n = static_cast<size_t>(std::min<int64_t>(toSkip, static_cast<int64_t>(count)));
      i = n;
      toSkip -= static_cast<int64_t>(n);
    }
    for (; i < count && pos < stop; i++, pos++) {
      const int64_t p = skip + pos - start;  // position in the clip's own time
      float g = fin >= 1 && p < fin ? static_cast<float>(p) / static_cast<float>(fin) : 1.0f;
      if (fout >= 1 && clen - p < fout) {
        float o = static_cast<float>(std::max<int64_t>(clen - p, 0)) / static_cast<float>(fout);
        g = std::min(g, o);
      }
      mix[2 * pos] += v * g * frames[2 * i];
      mix[2 * pos + 1] += v * g * frames[2 * i + 1];
    }
    return pos < stop;  // the rest of the file is not needed
  };
  std::string error;
  AudioDecodeInfo info;
  if (!decodeAudio(clip.path, kMixRate, 2, onChunk, error, info) && pos < stop && warnings)
    warnings->push_back("audio clip " + clip.path + " is silent: " + error);
}

}  // namespace

std::vector<float> mixAudio(const std::vector<AudioClip>& clips, std::vector<std::string>* warnings) {
  const int64_t total = mixFrameCount(clips);
  std::vector<float> mix(static_cast<size_t>(total) * 2, 0.0f);
  for (const AudioClip& c : clips) mixClip(c, mix, total, warnings);
  return mix;
}

void writeAudio(const std::vector<AudioClip>& clips, MovieWriter& writer, std::vector<std::string>* warnings) {
  const int64_t total = mixFrameCount(clips);
  if (total <= 0) return;
  std::vector<float> mix = mixAudio(clips, warnings);
  for (int64_t offset = 0; offset < total;) {
    const int64_t n = std::min(total - offset, kMixChunkFrames);
    if (!writer.waitUntilAudioReady()) return;
    std::vector<float> chunk(mix.begin() + 2 * offset, mix.begin() + 2 * (offset + n));
    std::string error;
    if (!writer.appendAudio(std::move(chunk), offset, error)) return;  // the writer keeps its error
    offset += n;
  }
}

}  // namespace kavlen::exporter
