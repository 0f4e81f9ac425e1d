#include "output_text_rasterizer.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>

namespace kavlen::native {

OutputTextRasterizer::OutputTextRasterizer() = default;
OutputTextRasterizer::~OutputTextRasterizer() = default;

void OutputTextRasterizer::setScene(NativeScene scene) {
  std::lock_guard<std::mutex> g(lock_);
  scene_ = std::move(scene);
}

void OutputTextRasterizer::setScene(const cJSON* scene, int64_t width, int64_t height) {
  setScene(NativeScene::json(valueFromCjson(scene), width, height));
}

bool OutputTextRasterizer::hasScene() const {
  std::lock_guard<std::mutex> g(lock_);
  return scene_.has_value();
}

std::optional<NativeTextImage> OutputTextRasterizer::text(const std::string& key,
                                                          const std::optional<std::string>& knownSpec) {
  std::lock_guard<std::mutex> g(lock_);
  if (!scene_) return std::nullopt;
  // The compositor's own scene plays no part: each request brings one.
  if (!compositor_)
    compositor_ = std::make_unique<NativeCompositor>(NativeScene::json(Value(host::ValueMap{}), 1280, 720), "");
  return compositor_->textImage(key, *scene_, knownSpec);
}

int TextSourceFeeder::feed(kvl_engine* engine, int64_t timeUs) {
  if (!engine || !texts_) return 0;
  constexpr int32_t kMax = 64;
  kvl_media_need needs[kMax];
  int32_t n = std::min(kvl_engine_media_at(engine, timeUs, needs, kMax), kMax);
  int set = 0;
  for (int32_t i = 0; i < n; i++) {
    if (std::strncmp(needs[i].key, "text:", 5) != 0) continue;
    std::string key = needs[i].key;
    auto known = known_.find(key);
    std::optional<std::string> spec;
    if (known != known_.end()) spec = known->second;
    std::optional<NativeTextImage> r = texts_->text(key, spec);
    if (!r || !r->image) continue;  // unknown now, or unchanged
    const ImageFile& im = *r->image;
    if (kvl_engine_set_source(engine, key.c_str(), im.rgba.data(), im.width, im.height, im.width * 4) != 0) continue;
    known_[key] = r->spec;
    set++;
  }
  return set;
}

}  // namespace kavlen::native
