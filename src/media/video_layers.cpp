#include "video_layers.h"

#include <algorithm>
#include <cmath>

#include "sequential_video_source.h"

namespace kavlen {

namespace {

constexpr int32_t kMaxNeeds = 64;

// The distinct keys that the scene paints as video, on layers or clips.
std::vector<std::string> videoKeys(const std::string& sceneText) {
  std::vector<std::string> keys;
  kvl_scene* scene = kvl_scene_parse(sceneText.c_str(), nullptr, 0);
  if (!scene) return keys;
  auto add = [&](const kvl_paint& p) {
    if ((p.kind != KVL_PAINT_VIDEO && p.kind != KVL_PAINT_ASSET_VIDEO) || !p.ref || !p.ref[0]) return;
    for (const std::string& k : keys)
      if (k == p.ref) return;
    keys.emplace_back(p.ref);
  };
  for (int32_t i = 0; i < scene->layer_count; i++) {
    const kvl_layer& l = scene->layers[i];
    add(l.paint);
    for (int32_t c = 0; c < l.clip_count; c++) add(l.clips[c].paint);
  }
  kvl_scene_free(scene);
  return keys;
}

}  // namespace

std::optional<VideoImage> videoFrameAt(const std::string& key, const std::string& path, int64_t mediaUs,
                                       std::vector<std::string>& warnings) {
  auto source = SequentialVideoSource::create(path);
  if (!source) {
    warnings.push_back("video " + key + " cannot be read (" + path + ")");
    return std::nullopt;
  }
  double seconds = static_cast<double>(mediaUs) / 1e6;
  const VideoImage* image = source->frame(std::isfinite(seconds) ? seconds : 0);
  if (!image) {
    warnings.push_back("video " + key + " gave no frame at " + std::to_string(seconds) + " s");
    return std::nullopt;
  }
  return *image;
}

int feedVideoLayers(kvl_engine* engine, const std::string& sceneText, int64_t timeUs,
                    const std::function<std::string(const std::string& key)>& pathOf,
                    std::vector<std::string>& warnings, const std::map<std::string, int64_t>& positions) {
  if (!engine) return 0;
  const std::vector<std::string> videos = videoKeys(sceneText);
  if (videos.empty()) return 0;
  kvl_media_need needs[kMaxNeeds];
  int32_t n = std::min(kvl_engine_media_at(engine, timeUs, needs, kMaxNeeds), kMaxNeeds);
  int fed = 0;
  for (int32_t i = 0; i < n; i++) {
    if (!needs[i].key) continue;
    std::string key = needs[i].key;
    bool isVideo = false;
    for (const std::string& v : videos) isVideo = isVideo || v == key;
    if (!isVideo) continue;
    const auto position = positions.find(key);
    const int64_t mediaUs = position != positions.end() ? position->second : needs[i].media_us;
    std::optional<VideoImage> image = videoFrameAt(key, pathOf(key), mediaUs, warnings);
    if (!image) continue;
    if (kvl_engine_set_source(engine, key.c_str(), image->rgba.data(), image->width, image->height,
                              image->width * 4) != 0) {
      warnings.push_back("video " + key + " was refused by the engine");
      continue;
    }
    fed++;
  }
  return fed;
}

}  // namespace kavlen
