// OutputTextRasterizer: the text of an output window, drawn by the offline
// compositor from the latest scene the window accepted.
//
// Usage (GPU path; the provider holds the rasterizer):
//   auto texts = std::make_shared<kavlen::native::OutputTextRasterizer>();
//   renderer.textProvider = [texts](const std::string& key, const std::optional<std::string>& spec)
//       -> std::optional<TextRendering> {
//     auto r = texts->text(key, spec);
//     if (!r) return std::nullopt;
//     return TextRendering{r->spec, std::move(r->image)};
//   };
//   if (auto accepted = renderer.setState(stateJson))
//     texts->setScene(accepted->scene.get(), accepted->width, accepted->height);
//
// CPU path: TextSourceFeeder hands the engine the picture of every text key
// it shows, before kvl_engine_render.
//
// The engine knows a text only by its key ("text:<layer>" or
// "text:<layer>#<clip>"); what it says and how it looks stands in the scene.
// Before any scene is set every request answers nothing, so text layers have
// no picture. Thread-safe: one lock guards the scene and the compositor and
// is held for a whole text's rendering; a new scene waits for it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kavlen/kavlen.h"
#include "native_compositor.h"
#include "native_scene.h"

struct cJSON;

namespace kavlen::native {

class OutputTextRasterizer {
 public:
  OutputTextRasterizer();
  ~OutputTextRasterizer();

  // A new accepted state: its scene object and frame size.
  void setScene(NativeScene scene);
  void setScene(const cJSON* scene, int64_t width, int64_t height);
  bool hasScene() const;

  // The text of `key`: nothing when unknown now (or before any scene); the
  // spec alone when it equals `knownSpec`; else the spec and its picture.
  std::optional<NativeTextImage> text(const std::string& key, const std::optional<std::string>& knownSpec);

 private:
  mutable std::mutex lock_;
  std::optional<NativeScene> scene_;
  std::unique_ptr<NativeCompositor> compositor_;  // made on first use
};

// Feeds the text pictures of an engine handle, for the CPU compositor. It
// remembers the spec of each key it set, so an unchanged text costs a string
// comparison.
class TextSourceFeeder {
 public:
  explicit TextSourceFeeder(std::shared_ptr<OutputTextRasterizer> texts) : texts_(std::move(texts)) {}
  // Sets the picture of every text key that `engine` shows at `timeUs` and
  // that is new or changed; returns how many were set. A new engine handle
  // knows no sources: call forget() when one is made.
  int feed(kvl_engine* engine, int64_t timeUs);
  void forget() { known_.clear(); }

 private:
  std::shared_ptr<OutputTextRasterizer> texts_;
  std::map<std::string, std::string> known_;
};

}  // namespace kavlen::native
