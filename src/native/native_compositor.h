// NativeCompositor: the offline renderer of Kavlen. It draws one frame of a
// NativeScene at a moment into a pixel buffer, through the image graph of
// image.h, with text from native_text.h. It is what movie export renders
// with, and what gives the output windows their text.
//
// Usage (one compositor per export; frames in rising time):
//   kavlen::native::NativeCompositor comp(NativeScene::jsonText(text, 1920, 1080), "/shows/tour");
//   std::vector<uint8_t> bgra(1920 * 1080 * 4);
//   for (int64_t ms = 0; ms < 10000; ms += 40) comp.render(ms, bgra.data(), 1920 * 4);
//
// Every paint is first made or fitted to the 1280x720 surface; the content
// transform, the drawn mask and the ellipse cut act on that surface, which is
// then warped into the frame (quad, mesh or polygon). Shape effects are sized
// for 1080 lines and scale with the frame's height. Frames are opaque.
//
// Nothing fails: a layer whose file, video or text can't be had is left out
// and the rest of the frame is drawn. Images and open videos are kept for
// the compositor's life (a missing file is tried again on the next frame);
// text pictures (up to 256 MB; a text whose effects animate is new on every
// frame), masks and shape effects are kept in bounded caches, and so is the
// picture of every layer that looks the same as on the frame before, within
// a budget of 512 MB.
//
// Not thread-safe: one thread at a time per compositor (any thread; several
// compositors may run in parallel threads).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "image.h"
#include "image_file.h"
#include "native_scene.h"

namespace kavlen {
class SequentialVideoSource;
}

namespace kavlen::native {

// A text rendered for a text key: what it is (`spec`) and, when new or
// changed, its picture of the whole surface (straight RGBA, 1280x720).
struct NativeTextImage {
  std::string spec;
  std::optional<ImageFile> image;
};

class NativeCompositor {
 public:
  NativeCompositor(NativeScene scene, std::string mediaRoot);
  ~NativeCompositor();
  NativeCompositor(const NativeCompositor&) = delete;
  NativeCompositor& operator=(const NativeCompositor&) = delete;

  const NativeScene& scene() const { return scene_; }

  // The frame at `atMs` into `pixels`: scene width x height, rows `stride`
  // bytes apart, top row first, 8 bits a channel, alpha 255.
  void render(int64_t atMs, uint8_t* pixels, size_t stride, img::PixelOrder order = img::PixelOrder::BGRA);
  // The same frame as an image of extent (0, 0, width, height).
  img::Image frame(int64_t atMs);

  // A paint as a picture of the 1280x720 surface, or a null image.
  img::Image source(const Paint& paint, std::optional<int64_t> mediaMs, const Effects& effects);

  // The text of a text key ("text:<layer id>" or "text:<layer id>#<clip>")
  // in `in`: nothing when no such text exists; only the spec when it equals
  // `knownSpec`; else the spec and its picture (none if it drew nothing).
  std::optional<NativeTextImage> textImage(const std::string& key, const NativeScene& in,
                                           const std::optional<std::string>& knownSpec);

  // Work counters, for tests and benchmarks.
  struct Stats {
    int64_t textRenders = 0;
    int64_t imageLoads = 0;
    int64_t videoOpens = 0;
  };
  const Stats& stats() const { return stats_; }
  size_t textCacheSize() const { return texts_.size(); }

 private:
  img::Image layerImage(const Layer& layer, int64_t t);
  // The layer's picture in the frame before its opacity.
  img::Image shapedLayer(const Layer& layer, const Resolved& r);

  struct StillLayer {
    std::string key;   // what the layer looked like on the last frame
    img::Image image;  // its pixels, once it stayed the same for two frames
    size_t bytes = 0;
  };
  static constexpr size_t kStillBudget = size_t{512} << 20;
  img::Image cachedMask(const std::string& key, const std::function<img::Image()>& make);

  NativeScene scene_;
  std::string root_;
  std::map<std::string, std::unique_ptr<SequentialVideoSource>> videos_;
  std::map<std::string, img::Image> images_;   // as loaded
  std::map<std::string, img::Image> covered_;  // the same fitted to the surface
  std::map<std::string, img::Image> texts_;
  size_t textBytes_ = 0;
  std::map<std::string, img::Image> masks_;    // bounded
  std::map<std::string, std::pair<img::Image, img::Image>> effects_;  // bounded
  std::map<const Layer*, StillLayer> stills_;
  size_t stillBytes_ = 0;
  Stats stats_;
};

}  // namespace kavlen::native
