// Video layers for the CPU compositor: the picture of every video that an
// engine handle shows at a moment, decoded at the layer's media time through
// SequentialVideoSource and handed to the handle as the key's source.
//
// Usage (before kvl_engine_render at the same moment):
//   std::vector<std::string> warnings;
//   kavlen::feedVideoLayers(engine, sceneText, timeUs, pathOfKey, warnings);
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"
#include "sequential_video_source.h"

namespace kavlen {

// Decodes the videos that `engine` needs at `timeUs` (kvl_engine_media_at)
// and sets each as the source of its key. Only keys that `sceneText` paints
// as "video" or "asset_video" are decoded; `pathOf` turns a key into a file
// path. A video that cannot be read is left out (the engine then shows its
// missing-source fill) and named in one line of `warnings`. Returns the count
// of videos set. `positions` (microseconds by key, an output state's video
// positions) replaces the media time of the keys it names.
int feedVideoLayers(kvl_engine* engine, const std::string& sceneText, int64_t timeUs,
                    const std::function<std::string(const std::string& key)>& pathOf,
                    std::vector<std::string>& warnings, const std::map<std::string, int64_t>& positions = {});

// The picture of the video file at `path` at media time `mediaUs`, decoded
// through SequentialVideoSource: the one both render paths show. Nothing when
// the file cannot be read or has no frame there; one line naming `key` then
// goes to `warnings`.
std::optional<VideoImage> videoFrameAt(const std::string& key, const std::string& path, int64_t mediaUs,
                                       std::vector<std::string>& warnings);

}  // namespace kavlen
