#include "scene_sources.h"

#include <cstdio>

#include "media_key.h"
#include "video_layers.h"

namespace kavlen::output {

void SceneSources::feed(kvl_engine* engine, const std::string& sceneText, int64_t timeUs,
                        const std::string& mediaRoot, const std::map<std::string, int64_t>& positions) {
  if (!engine) return;
  if (mediaRoot != root_) {
    clear();
    root_ = mediaRoot;
  }
  auto pathOf = [&](const std::string& key) { return media::key_path(key, mediaRoot); };
  std::vector<std::string> warnings;
  // Videos first: the keys that the scene paints as video, decoded at their
  // media time or the state's position; everything else needed is a still.
  feedVideoLayers(engine, sceneText, timeUs, pathOf, warnings, positions);
  constexpr int32_t kMax = 256;
  kvl_media_need needs[kMax];
  const int32_t n = std::min(kvl_engine_media_at(engine, timeUs, needs, kMax), kMax);
  for (int32_t i = 0; i < n; i++) {
    if (!needs[i].key) continue;
    const std::string key = needs[i].key;
    // A still already handed to this handle stays there: no copy per frame.
    if (key.rfind("text:", 0) == 0 || given_.count(key)) continue;
    auto it = images_.find(key);
    if (it == images_.end()) {
      ImageFile image;
      std::string error;
      if (!ImageFile::load(pathOf(key), image, error)) {
        // Not a still image: a video the video pass already fed, or missing.
        image = ImageFile{};
      }
      it = images_.emplace(key, std::move(image)).first;
    }
    const ImageFile& im = it->second;
    if (im.width > 0 && im.height > 0 &&
        kvl_engine_set_source(engine, key.c_str(), im.rgba.data(), im.width, im.height, im.width * 4) == 0)
      given_.insert(key);
  }
}

}  // namespace kavlen::output
