// Textures of the output renderer: still images, host-drawn text, masks of
// the draw list, the test chart; and the media pass that tells the engine
// the size of each new source.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

#include "gl_output_renderer.h"
#include "gl_util.h"
#include "gl_video_source.h"
#include "media_key.h"
#include "test_pattern.h"

namespace {

constexpr size_t kMaskCacheSize = 64;

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

}  // namespace

std::string GlOutputRenderer::resolve(std::string_view key) const {
  return kavlen::media::key_path(key, currentMediaRoot());
}

bool GlOutputRenderer::makeTexture(GLenum internal, GLenum format, int32_t w, int32_t h, const void* data,
                                   GlTexture& out) {
  if (w <= 0 || h <= 0) return false;
  while (glGetError() != GL_NO_ERROR) {
  }
  GLuint id = 0;
  glGenTextures(1, &id);
  if (!id) return false;
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, id);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internal), w, h, 0, format, GL_UNSIGNED_BYTE, data);
  stats_.gpuAllocations++;
  if (glGetError() != GL_NO_ERROR) {
    glDeleteTextures(1, &id);
    return false;
  }
  out.id = id;
  out.width = w;
  out.height = h;
  return true;
}

void GlOutputRenderer::deleteTexture(GlTexture& t) {
  if (t.id) glDeleteTextures(1, &t.id);
  t = GlTexture{};
}

void GlOutputRenderer::retireFrameTextures() {
  for (GlTexture& t : retired_) deleteTexture(t);
  retired_.clear();
}

std::optional<GlTexture> GlOutputRenderer::textureFromPremultiplied(const uint8_t* rgba, int32_t w, int32_t h) {
  GlTexture t;
  if (!rgba || !makeTexture(GL_RGBA8, GL_RGBA, w, h, rgba, t)) return std::nullopt;
  return t;
}

// Every texture of colour holds colour multiplied by alpha, top row first.
std::optional<GlTexture> GlOutputRenderer::textureFrom(const ImageFile& image) {
  const int32_t w = image.width, h = image.height;
  if (w <= 0 || h <= 0 || image.rgba.size() < static_cast<size_t>(w) * h * 4) return std::nullopt;
  std::vector<uint8_t> pm(image.rgba.size());
  const uint8_t* s = image.rgba.data();
  for (size_t i = 0, n = static_cast<size_t>(w) * h * 4; i < n; i += 4) {
    uint32_t a = s[i + 3];
    for (int c = 0; c < 3; c++) pm[i + c] = static_cast<uint8_t>((s[i + c] * a + 127) / 255);
    pm[i + 3] = static_cast<uint8_t>(a);
  }
  return textureFromPremultiplied(pm.data(), w, h);
}

std::optional<GlTexture> GlOutputRenderer::imageTexture(std::string_view key) {
  if (auto it = images_.find(key); it != images_.end()) return it->second;
  if (missingImages_.find(key) != missingImages_.end()) return std::nullopt;
  // Text is the provider's and movies the players'; neither is a file to
  // decode as a picture.
  if (startsWith(key, "text:") || isVideoMediaKey(key)) return std::nullopt;
  std::string path = resolve(key);
  // Not recorded: a file that appears later is picked up.
  if (!isRegularFile(path)) return std::nullopt;
  ImageFile image;
  std::string error;
  std::optional<GlTexture> t;
  if (ImageFile::load(path, image, error)) t = textureFrom(image);
  if (!t) {
    missingImages_.emplace(key);
    return std::nullopt;
  }
  images_.emplace(std::string(key), *t);
  return t;
}

std::optional<GlTexture> GlOutputRenderer::maskTexture(const kvl_draw_ref& ref) {
  if (auto it = maskTextures_.find(ref.hash); it != maskTextures_.end()) return it->second;
  if (maskOrder_.size() >= kMaskCacheSize) {
    // First in, first out. The texture may still be bound by this frame's
    // earlier commands, so it is deleted once the frame is encoded.
    uint64_t oldest = maskOrder_.front();
    maskOrder_.pop_front();
    if (auto it = maskTextures_.find(oldest); it != maskTextures_.end()) {
      retired_.push_back(it->second);
      maskTextures_.erase(it);
    }
  }
  GlTexture t;
  if (!ref.data || !makeTexture(GL_R8, GL_RED, ref.w, ref.h, ref.data, t)) return std::nullopt;
  stats_.maskUploads++;
  maskTextures_.emplace(ref.hash, t);
  maskOrder_.push_back(ref.hash);
  return t;
}

void GlOutputRenderer::loadText(const std::string& key, kvl_engine* engine) {
  if (!textProvider) return;
  auto it = texts_.find(key);
  std::optional<std::string> spec;
  if (it != texts_.end()) spec = it->second.spec;
  std::optional<TextRendering> result = textProvider(key, spec);
  if (!result || !result->image) return;  // unknown now, or unchanged
  std::optional<GlTexture> t = textureFrom(*result->image);
  if (!t) return;  // the old entry stays
  if (it != texts_.end()) {
    retired_.push_back(it->second.text);
    it->second = TextEntry{result->spec, *t};
  } else {
    texts_.emplace(key, TextEntry{result->spec, *t});
  }
  // A text whose size changes is declared anew.
  kvl_engine_declare_source(engine, key.c_str(), t->width, t->height);
  declared_.insert(key);
}

void GlOutputRenderer::loadVideoFrame(const std::string& key, int64_t mediaUs, kvl_engine* engine) {
  std::optional<ImageFile> image = videoFrameProvider(key, mediaUs);
  std::optional<GlTexture> t;
  if (image) t = textureFrom(*image);
  auto it = videoFrames_.find(key);
  if (it != videoFrames_.end()) {
    // An earlier command of this frame may have drawn with it.
    retired_.push_back(it->second);
    videoFrames_.erase(it);
  }
  if (!t) return;
  videoFrames_.emplace(key, *t);
  kvl_engine_declare_source(engine, key.c_str(), t->width, t->height);
  declared_.insert(key);
}

void GlOutputRenderer::mediaPass(kvl_engine* engine, int64_t tUs, int64_t generation) {
  kvl_media_need needs[kMaxMediaKeys] = {};
  int32_t n = std::min(kvl_engine_media_at(engine, tUs, needs, kMaxMediaKeys), kMaxMediaKeys);
  for (int32_t i = 0; i < n; i++) {
    if (!needs[i].key) continue;
    std::string_view key(needs[i].key);
    if (startsWith(key, "text:")) {
      // Text is looked at again once after every accepted state, and on the
      // first frame of a key the renderer has never drawn.
      if (textGeneration_ != generation || texts_.find(key) == texts_.end()) loadText(std::string(key), engine);
    } else if (isVideoMediaKey(key) && videoFrameProvider) {
      loadVideoFrame(std::string(key), needs[i].media_us, engine);
    } else if (isVideoMediaKey(key)) {
      // The video players declare their own sizes once a frame has come.
    } else if (declared_.find(key) == declared_.end()) {
      if (std::optional<GlTexture> t = imageTexture(key)) {
        kvl_engine_declare_source(engine, needs[i].key, t->width, t->height);
        declared_.emplace(key);
      }
    }
  }
  textGeneration_ = generation;
}

std::optional<GlTexture> GlOutputRenderer::patternTexture(int32_t width, int32_t height,
                                                          const std::vector<std::string>& labels) {
  if (patternTex_ && patternTex_->width == width && patternTex_->height == height && patternLabels_ == labels)
    return patternTex_;
  if (width <= 0 || height <= 0) return std::nullopt;
  std::vector<uint8_t> rgba;
  if (!drawTestChart(width, height, labels, rgba)) return std::nullopt;
  stats_.patternDraws++;
  std::optional<GlTexture> t = textureFromPremultiplied(rgba.data(), width, height);
  if (!t) return std::nullopt;  // the cached chart stays as it was
  if (patternTex_) retired_.push_back(*patternTex_);
  patternTex_ = t;
  patternLabels_ = labels;
  return t;
}

void GlOutputRenderer::drawTestPattern(const GlTarget& target) {
  int32_t sW = 1, sH = 1;
  {
    std::lock_guard<std::mutex> g(lock_);
    sW = s_.sceneW;
    sH = s_.sceneH;
  }
  const int32_t W = target.width, H = target.height;
  const float fW = static_cast<float>(W), fH = static_cast<float>(H);
  float scale = std::min(fW / static_cast<float>(sW), fH / static_cast<float>(sH));
  float dw = scale * static_cast<float>(sW), dh = scale * static_cast<float>(sH);
  std::optional<GlTexture> tex = patternTexture(static_cast<int32_t>(std::lround(dw)),
                                                static_cast<int32_t>(std::lround(dh)), testChartLabels(sW, sH, W, H));
  if (!tex) return;
  view_[0] = fW;
  view_[1] = fH;
  view_[2] = view_[3] = 0.0f;
  place_[0] = 1.0f;
  place_[1] = place_[2] = place_[3] = 0.0f;
  baseUniforms();
  u_.f[23] = 1.0f;
  float offX = (fW - dw) * 0.5f, offY = (fH - dh) * 0.5f;
  const float quad[16] = {offX, offY, 0, 0, offX + dw, offY, 1, 0, offX, offY + dh, 0, 1, offX + dw, offY + dh, 1, 1};
  drawQuad(pipeGroup_, tex->id, quad);
}
