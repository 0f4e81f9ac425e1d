// The audio track of an export: audio clips laid out on the export's timeline,
// each decoded to stereo float at 44100 Hz, shaped by its fades and volume and
// summed into one buffer, which then goes to the movie writer in chunks.
//
//   auto clips = audioClipsFrom(args.find("audioClips"));
//   std::vector<float> mix = mixAudio(clips);   // L, R, L, R ... 44100 frames a second
//   writeAudio(clips, writer);                  // the same, fed to the writer's AAC track
//
// The sum is not limited: overlapping clips add up, and values above 1.0 go to
// the encoder as they are. A clip that can't be read is silent; it stops nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "value.h"

namespace kavlen::exporter {

class MovieWriter;

constexpr int kMixRate = 44100;
constexpr int64_t kMixChunkFrames = 4096;

// One clip. Times are milliseconds. The clip's own time runs from its own
// start; `skipMs` of it have gone by when the timeline reaches `startMs`, so a
// clip cut at its head keeps the fades of the whole clip.
struct AudioClip {
  std::string path;           // full path of the file
  int64_t startMs = 0;        // where it begins on the export's timeline
  int64_t lengthMs = 0;       // how long it plays there
  float volume = 1.0f;        // gain
  int64_t skipMs = 0;         // how far into the clip the playing starts
  int64_t fadeInMs = 0;       // from the clip's own start
  int64_t fadeOutMs = 0;      // back from the clip's own end
  int64_t clipLengthMs = 0;   // the clip's own length, for the fade-out
  int64_t fileOffsetMs = 0;   // where the clip's own start lies in the file
};

// A clip from its dictionary: a key that is missing or of another type takes
// its default (integers for times, a number for "volume"; "clipLengthMs"
// defaults to "lengthMs" + "skipMs"). Nothing without a "path" string.
std::optional<AudioClip> audioClipFrom(const host::Value& dict);
// The clips of a list, in order, those without a path left out. Anything but a
// list (or null) gives none.
std::vector<AudioClip> audioClipsFrom(const host::Value* list);

// Milliseconds to frames at 44100 Hz, truncated.
int64_t msToMixFrames(int64_t ms);
// Frames of the mix: the latest end ("startMs" + "lengthMs") of all clips, at least 0.
int64_t mixFrameCount(const std::vector<AudioClip>& clips);

// The mix of `clips`, 2 * mixFrameCount floats. Clips that can't be read add
// one line each to `warnings` when given.
std::vector<float> mixAudio(const std::vector<AudioClip>& clips, std::vector<std::string>* warnings = nullptr);

// Mixes and hands the result to `writer`'s audio in chunks of 4096 frames,
// each timed at its first frame. Returns when all is handed over, or early
// when the writer stops taking audio (failed or cancelled). Nothing is written
// when the mix is empty.
void writeAudio(const std::vector<AudioClip>& clips, MovieWriter& writer,
                std::vector<std::string>* warnings = nullptr);

}  // namespace kavlen::exporter
