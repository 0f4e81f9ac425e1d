#include "native_compositor.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "media_key.h"
#include "native_filters.h"
#include "native_text.h"
#include "sequential_video_source.h"

namespace kavlen::native {

using img::Image;
using img::P2;

namespace {

// Caches of masks and effect pictures hold this many entries at most; a
// moving layer adds one a frame, and the whole cache is dropped when full.
constexpr size_t kBoundedCache = 64;
constexpr size_t kTextCache = 256;
constexpr size_t kTextBudget = size_t{256} << 20;

// Memory held by a picture kept as pixels.
size_t pixelBytes(const Image& im) {
  img::Rect live = im.support().intersect(im.extent());
  if (live.empty()) return 0;
  return static_cast<size_t>(live.width() * live.height()) * (im.gray() ? 8 : 16);
}

const img::Rect kSurface = img::Rect::xywh(0, 0, kSurfaceW, kSurfaceH);

}  // namespace

NativeCompositor::NativeCompositor(NativeScene scene, std::string mediaRoot)
    : scene_(std::move(scene)), root_(std::move(mediaRoot)) {
  registerFonts();
}

NativeCompositor::~NativeCompositor() = default;

Image NativeCompositor::cachedMask(const std::string& key, const std::function<Image()>& make) {
  auto it = masks_.find(key);
  if (it != masks_.end()) return it->second;
  Image m = make();
  if (m.isNull()) return m;
  m = m.materialized();
  if (masks_.size() >= kBoundedCache) masks_.clear();
  masks_.emplace(key, m);
  return m;
}

Image NativeCompositor::source(const Paint& paint, std::optional<int64_t> mediaMs, const Effects& effects) {
  if (paint.type == "color") return surfaceColor(paint.argb);
  if (paint.type == "text") {
    if (!paint.text) return {};
    std::string key = textSpecString(*paint.text, paint.argb, effects);
    auto it = texts_.find(key);
    if (it != texts_.end()) return it->second;
    stats_.textRenders++;
    Image im = renderText(*paint.text, paint.argb, effects);
    if (im.isNull()) return {};  // tried again on the next frame
    im = im.materialized();
    // A text whose effects animate is a new picture on every frame; the
    // cache starts over when full rather than grow through a long export.
    size_t bytes = pixelBytes(im);
    if (texts_.size() >= kTextCache || textBytes_ + bytes > kTextBudget) {
      texts_.clear();
      textBytes_ = 0;
    }
    texts_.emplace(key, im);
    textBytes_ += bytes;
    return im;
  }
  if (paint.type == "image") {
    if (!paint.path) return {};
    auto c = covered_.find(*paint.path);
    if (c != covered_.end()) return c->second;
    auto it = images_.find(*paint.path);
    if (it == images_.end()) {
      ImageFile file;
      std::string error;
      stats_.imageLoads++;
      if (!ImageFile::load(media::key_path(*paint.path, root_), file, error)) return {};
      Image im = Image::fromStraightRgba(file.rgba.data(), file.width, file.height, file.width * 4);
      if (im.isNull()) return {};
      it = images_.emplace(*paint.path, im).first;
    }
    // The fitted surface is the same on every frame: keep it as pixels.
    Image fitted = cover(it->second).materialized();
    covered_.emplace(*paint.path, fitted);
    return fitted;
  }
  if (paint.type == "video" || paint.type == "asset_video") {
    if (!paint.path) return {};
    auto it = videos_.find(*paint.path);
    if (it == videos_.end()) {
      stats_.videoOpens++;
      std::unique_ptr<SequentialVideoSource> v = SequentialVideoSource::create(media::key_path(*paint.path, root_));
      if (!v) return {};
      it = videos_.emplace(*paint.path, std::move(v)).first;
    }
    double seconds = mediaMs ? static_cast<double>(*mediaMs) / 1000.0 : 0.0;
    const VideoImage* f = it->second->frame(seconds);
    if (!f) return {};
    return cover(Image::fromStraightRgba(f->rgba.data(), f->width, f->height, f->width * 4));
  }
  return {};
}

namespace {

// Everything of a resolved layer that its picture before opacity depends on.
std::string stillKey(const Resolved& r) {
  std::string k = r.paint.type + "|" + std::to_string(r.paint.argb) + "|" + r.paint.path.value_or("") + "|";
  if (r.paint.text) k += textSpecString(*r.paint.text, r.paint.argb, r.effects);
  char b[160];
  for (const Vertex& v : r.vertices) {
    snprintf(b, sizeof b, "%.17g,%.17g;", v.p.x, v.p.y);
    k += b;
    if (v.inH) k += "i" + std::to_string(v.inH->x) + "," + std::to_string(v.inH->y);
    if (v.outH) k += "o" + std::to_string(v.outH->x) + "," + std::to_string(v.outH->y);
  }
  snprintf(b, sizeof b, "|%.17g,%.17g,%.17g,%.17g|", r.content.x, r.content.y, r.content.scale, r.content.rotation);
  return k + b + r.effects.dump();
}

}  // namespace

Image NativeCompositor::layerImage(const Layer& layer, int64_t t) {
  if (layer.vertices.size() < 3) return {};
  std::optional<Resolved> r = scene_.resolve(layer, t);
  if (!r) return {};
  // A layer that looks the same as on the frame before (a still picture that
  // doesn't move) is kept as pixels and only blended from then on.
  bool still = r->paint.type != "video" && r->paint.type != "asset_video";
  std::string key = still ? stillKey(*r) : std::string();
  StillLayer& memo = stills_[&layer];
  Image result;
  if (still && memo.key == key && !memo.image.isNull()) {
    result = memo.image;
  } else {
    result = shapedLayer(layer, *r);
    if (result.isNull()) return {};
    if (still && memo.key == key) {
      Image kept = result.materialized();
      size_t bytes = pixelBytes(kept);
      if (stillBytes_ + bytes <= kStillBudget) {
        stillBytes_ += bytes;
        memo.bytes = bytes;
        memo.image = kept;
        result = kept;
      }
    } else {
      stillBytes_ -= memo.bytes;
      memo = StillLayer{key, Image(), 0};
    }
  }
  if (r->opacity < 1) result = result.colorMatrix({0, 0, 0, static_cast<float>(r->opacity)}, {0, 0, 0, 0});
  return result;
}

Image NativeCompositor::shapedLayer(const Layer& layer, const Resolved& resolved) {
  const Resolved* r = &resolved;
  Image image = source(r->paint, r->mediaMs, r->effects);
  if (image.isNull()) return {};
  image = applyContent(r->content, image);

  if (layer.mask && layer.mask->vertices.size() >= 3) {
    const Mask& mk = *layer.mask;
    Path outline = outlinePath(mk.vertices, kSurfaceW, kSurfaceH);
    char tail[96];
    snprintf(tail, sizeof tail, "|%d|%.17g", mk.inverted ? 1 : 0, mk.feather);
    Image m = cachedMask("mask|" + outline.key() + tail,
                         [&] { return maskImage(outline, kSurfaceW, kSurfaceH, mk.inverted, mk.feather); });
    if (!m.isNull()) image = masked(image, m);
  }
  if (layer.kind == "ellipse") {
    Image m = cachedMask("ellipse", [] { return maskImage(ellipseIn(kSurface), kSurfaceW, kSurfaceH, false, 0); });
    if (!m.isNull()) image = masked(image, m);
  }

  const double W = static_cast<double>(scene_.width), H = static_cast<double>(scene_.height);
  auto frameP = [&](Point p) { return P2{p.x * W, H - p.y * H}; };
  const std::vector<Vertex>& v = r->vertices;
  Image result;
  if ((layer.kind == "quad" || layer.kind == "ellipse") && v.size() == 4) {
    if (layer.mesh && layer.mesh->hasOffset()) {
      std::vector<SubCell> cells = layer.mesh->subCells({v[0].p, v[1].p, v[2].p, v[3].p});
      for (const SubCell& c : cells) {
        img::Rect rect = img::Rect::xywh(c.src.x * kSurfaceW, kSurfaceH - (c.src.y + c.src.h) * kSurfaceH,
                                         c.src.w * kSurfaceW, c.src.h * kSurfaceH)
                             .grown(0.75);
        Image piece = image.cropped(rect).transformed(img::Affine::translate(-rect.x0, -rect.y0));
        Homography hc = homography(c.dst);
        double eu = 0.75 / (c.src.w * kSurfaceW), ev = 0.75 / (c.src.h * kSurfaceH);
        Image out = piece.perspective(frameP(apply(hc, {-eu, -ev})), frameP(apply(hc, {1 + eu, -ev})),
                                      frameP(apply(hc, {1 + eu, 1 + ev})), frameP(apply(hc, {-eu, 1 + ev})));
        if (out.isNull()) continue;
        result = out.over(result);
      }
    } else {
      result = image.perspective(frameP(v[0].p), frameP(v[1].p), frameP(v[2].p), frameP(v[3].p));
    }
  } else {
    Path outline = outlinePath(v, W, H);
    img::Rect b = outline.bounds();
    if (!(b.width() > 0) || !(b.height() > 0)) return {};
    double s = std::max(b.height() / kSurfaceH, b.width() / kSurfaceW);
    Image placed = image
                       .transformed(img::Affine::translate(b.x0 + (b.width() - s * kSurfaceW) * 0.5,
                                                           b.y0 + (b.height() - s * kSurfaceH) * 0.5)
                                        .after(img::Affine::scale(s, s)))
                       .cropped(b);
    Image m = cachedMask("poly|" + outline.key(), [&] { return maskImage(outline, W, H, false, 0); });
    if (m.isNull()) return {};
    result = masked(placed, m);
  }
  if (result.isNull()) return {};

  const Effects& e = r->effects;
  if (e.any() && r->paint.type != "text") {
    Path outline = layer.kind == "ellipse" ? ellipseOutline(v, W, H) : outlinePath(v, W, H);
    std::string key = outline.key() + "|" + e.dump();
    auto it = effects_.find(key);
    if (it == effects_.end()) {
      Image m = maskImage(outline, W, H, false, 0);
      Image below, above;
      if (!m.isNull()) {
        double k = H / 1080.0;
        for (const Image& b : shapeEffects(m, e, k, false)) below = below.isNull() ? b : below.over(b);
        for (const Image& a : shapeEffects(m, e, k, true)) above = a.over(above);
        below = below.materialized();
        above = above.materialized();
      }
      if (effects_.size() >= kBoundedCache) effects_.clear();
      it = effects_.emplace(key, std::make_pair(below, above)).first;
    }
    // The shape over what lies below it, and what lies above over that.
    if (!it->second.first.isNull()) result = result.over(it->second.first);
    if (!it->second.second.isNull()) result = it->second.second.over(result);
  }
  if (layer.lumaKey) result = result.colorMatrix({0.598f, 1.174f, 0.228f, 0}, {0, 0, 0, -0.04f});
  return result;
}

Image NativeCompositor::frame(int64_t t) {
  const double W = static_cast<double>(scene_.width), H = static_cast<double>(scene_.height);
  Image canvas = Image::color({0, 0, 0, 1}).cropped(img::Rect::xywh(0, 0, W, H));
  for (const Layer& layer : scene_.layers) {
    Image im = layerImage(layer, t);
    if (!im.isNull()) canvas = im.over(canvas);
  }
  return canvas;
}

void NativeCompositor::render(int64_t t, uint8_t* pixels, size_t stride, img::PixelOrder order) {
  if (!pixels || scene_.width <= 0 || scene_.height <= 0) return;
  img::IRect r{0, 0, static_cast<int>(scene_.width), static_cast<int>(scene_.height)};
  img::renderInto(frame(t), r, order, false, pixels, stride);
}

std::optional<NativeTextImage> NativeCompositor::textImage(const std::string& key, const NativeScene& in,
                                                           const std::optional<std::string>& knownSpec) {
  if (key.size() <= 5) return std::nullopt;
  std::string rest = key.substr(5);
  std::vector<std::string> parts;
  size_t hash = rest.find('#');
  std::string first = rest.substr(0, hash), second = hash == std::string::npos ? "" : rest.substr(hash + 1);
  if (!first.empty()) parts.push_back(first);
  if (!second.empty()) parts.push_back(second);
  if (parts.empty()) return std::nullopt;
  const Layer* layer = nullptr;
  for (const Layer& l : in.layers)
    if (l.id == parts[0]) {
      layer = &l;
      break;
    }
  if (!layer) return std::nullopt;
  const Paint* paint = &layer->paint;
  if (parts.size() > 1) {
    const std::string& s = parts[1];
    char* end = nullptr;
    errno = 0;
    long long n = std::strtoll(s.c_str(), &end, 10);
    bool whole = end && *end == '\0' && errno == 0 && !std::isspace(static_cast<unsigned char>(s[0]));
    if (whole && n >= 0 && static_cast<size_t>(n) < layer->clips.size()) paint = &layer->clips[static_cast<size_t>(n)].paint;
  }
  if (!paint->text) return std::nullopt;
  NativeTextImage out;
  out.spec = textSpecString(*paint->text, paint->argb, layer->effects);
  if (knownSpec && *knownSpec == out.spec) return out;
  Image im = source(*paint, std::nullopt, layer->effects);
  if (!im.isNull()) {
    ImageFile file;
    file.width = static_cast<int32_t>(kSurfaceW);
    file.height = static_cast<int32_t>(kSurfaceH);
    file.rgba = img::renderBytes(im, {0, 0, file.width, file.height}, img::PixelOrder::RGBA, true);
    out.image = std::move(file);
  }
  return out;
}

}  // namespace kavlen::native
