// GlOutputRenderer: the GPU path of one output window on OpenGL ES 3.0.
//
// It takes output state texts (OutputRendererCore), and on each refresh turns
// that state into one frame in a framebuffer that its caller owns: a black
// frame, the test chart, or the scene drawn from the engine's draw list with
// three small shader programs. It owns the engine handle, the textures of
// images, texts and masks, and the chart.
//
// Usage (a GL ES 3 context must be current on the calling thread, and stay
// current whenever the renderer is used or destroyed):
//   auto r = GlOutputRenderer::create([] { return std::string("/shows/tonight"); });
//   if (!r) { /* fall back to the CPU sink */ }
//   r->setState(stateJson);
//   r->draw(GlTarget{0, 1920, 1080});            // a window's frame, time 0
//   r->drawFrame(t_us, GlTarget{fbo, w, h});      // or the caller's time and target
#pragma once

#include <GLES3/gl3.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "gl_target.h"
#include "image_file.h"
#include "output_renderer_core.h"
#include "video_player.h"

class GlVideoSource;

// What a text provider answers for a text key: the description it drew
// (`spec`) and, when the text is new or changed, its rendering (straight RGBA).
struct TextRendering {
  std::string spec;
  std::optional<ImageFile> image;
};
// Called with the key and the spec the renderer holds for it (none at first).
// Nothing: the provider knows no such text now.
using TextProvider =
    std::function<std::optional<TextRendering>(const std::string& key, const std::optional<std::string>& spec)>;

// Offline video (a single frame to a file, where a live player's clock has no
// meaning): asked on each frame for the picture of a movie key at that key's
// media time, straight RGBA. Nothing leaves the layer without content.
using VideoFrameProvider = std::function<std::optional<ImageFile>(const std::string& key, int64_t mediaUs)>;

// The five shader stages in GLSL ES 3.00. builtIn() is what the renderer runs.
struct GlShaderSources {
  std::string vsLayer, vsQuad, fsLayer, fsFx, fsGroup;
  static const GlShaderSources& builtIn();
};

struct GlTexture {
  GLuint id = 0;
  int32_t width = 0, height = 0;
};

class GlOutputRenderer : public OutputRendererCore {
 public:
  // Counters of GPU work for checks and benchmarks.
  struct Stats {
    int64_t gpuAllocations = 0;  // buffer and texture storage allocations
    int64_t maskUploads = 0;
    int64_t patternDraws = 0;    // charts drawn on the processor
    int64_t frames = 0;
    int64_t mediaResets = 0;
  };

  // Nothing when no GL context is current (no message) or when the shaders
  // or programs cannot be built ("[kavlen] Metal: ..." is logged). `sources`
  // replaces the built-in shaders.
  static std::unique_ptr<GlOutputRenderer> create(std::function<std::string()> mediaRoot,
                                                  const GlShaderSources* sources = nullptr);
  ~GlOutputRenderer() override;

  TextProvider textProvider;
  // When set, no video player is opened: movies show what it answers.
  VideoFrameProvider videoFrameProvider;

  // One frame of a window: clears the target to opaque black and draws the
  // mode's picture at time 0. False when the renderer has failed.
  bool draw(const GlTarget& view);
  // One frame at the caller's time into the caller's target, honouring its
  // `clear`. False when the renderer has failed.
  bool drawFrame(int64_t tUs, const GlTarget& target);

  void mediaReset() override;
  void release() override;

  // True once the GL context was lost or changed under the renderer; every
  // later frame is refused and the host should fall back.
  bool failed() const { return failed_; }
  const Stats& stats() const { return stats_; }

  // Texture caches, also used by drawLayer and the media pass.
  std::optional<GlTexture> imageTexture(std::string_view key);
  std::optional<GlTexture> maskTexture(const kvl_draw_ref& ref);
  std::optional<GlTexture> patternTexture(int32_t width, int32_t height, const std::vector<std::string>& labels);
  size_t maskCacheSize() const { return maskTextures_.size(); }
  bool hasMask(uint64_t hash) const { return maskTextures_.count(hash) != 0; }
  bool isMissingImage(std::string_view key) const { return missingImages_.find(key) != missingImages_.end(); }
  // The file a media key names: "assets/..." in the application's assets
  // folder, anything else under the media root.
  std::string resolve(std::string_view key) const;

  // Videos (gl_video_source.cpp): opens, steers, updates and closes the
  // players that the scene and the state's positions need; runs once per
  // frame, also while the scene is not drawn (blackout, test pattern), so a
  // video's clock and loop go on as if it were: `upload` false then leaves
  // the textures alone. `videoOptions` go to every new player.
  void syncVideos(bool upload = true);
  VideoPlayer::Options videoOptions;
  const GlVideoSource* videoSource(std::string_view key) const;
  size_t videoCount() const { return videos_.size(); }

 private:
  struct Pipeline {
    GLuint program = 0;
    GLint locUf = -1, locUi = -1, locQ = -1;
  };
  struct Uniforms {
    float f[32];  // view, place, color, invA, invB, cover, texSize, clipRect
    int32_t i[8];  // flags, flags2
  };
  struct TextEntry {
    std::string spec;
    GlTexture text;
  };
  template <typename T>
  using KeyMap = std::unordered_map<std::string, T, TransparentStringHash, std::equal_to<>>;

  explicit GlOutputRenderer(std::function<std::string()> mediaRoot);
  bool buildPipelines(const GlShaderSources& src, std::string& error);
  bool contextUsable();
  void frameSteps(int64_t tUs, const GlTarget& target);

  // Scene drawing.
  void drawScene(kvl_engine* engine, int64_t tUs, int32_t sceneW, int32_t sceneH, const GlTarget& target);
  void mediaPass(kvl_engine* engine, int64_t tUs, int64_t generation);
  void loadText(const std::string& key, kvl_engine* engine);
  void loadVideoFrame(const std::string& key, int64_t mediaUs, kvl_engine* engine);
  void uploadVertices(const kvl_draw_list* list);
  void drawLayer(const kvl_draw_list* list, const kvl_draw_cmd& cmd);
  void drawQuad(const Pipeline& p, GLuint texture, const float quad[16]);
  bool beginPass(GLuint framebuffer, bool clear, const float color[4]);
  void setScissor();
  void ensureGroupTexture(int32_t w, int32_t h);
  void baseUniforms();
  void useProgram(const Pipeline& p);
  void setUniforms(const Pipeline& p);
  void drawTestPattern(const GlTarget& target);

  std::optional<GlTexture> textureFromPremultiplied(const uint8_t* rgba, int32_t w, int32_t h);
  std::optional<GlTexture> textureFrom(const ImageFile& image);
  bool makeTexture(GLenum internal, GLenum format, int32_t w, int32_t h, const void* data, GlTexture& out);
  void deleteTexture(GlTexture& t);
  void retireFrameTextures();

  bool failed_ = false;
  void* context_ = nullptr;  // the EGL context the renderer was built in
  Stats stats_;

  Pipeline pipeLayer_, pipeFx_, pipeGroup_;
  GLuint sampler_ = 0;
  GLuint layerVao_ = 0, quadVao_ = 0;
  GLuint vertexBuffer_ = 0, indexBuffer_ = 0;
  int64_t vertexBytes_ = 0;
  int32_t indexQuads_ = 0;
  GlTexture groupTex_;
  GLuint groupFbo_ = 0;
  GLuint boundProgram_ = 0;

  std::unordered_map<uint64_t, GlTexture> maskTextures_;
  std::deque<uint64_t> maskOrder_;
  std::vector<GlTexture> retired_;  // evicted during a frame, deleted after it
  KeyMap<GlTexture> images_;
  KeySet missingImages_;
  KeyMap<TextEntry> texts_;
  KeyMap<std::unique_ptr<GlVideoSource>> videos_;
  KeyMap<GlTexture> videoFrames_;  // the provider's pictures, replaced each frame
  bool videoGlUsable() const;
  void teardownVideos();
  int64_t textGeneration_ = -1;

  std::optional<GlTexture> patternTex_;
  std::vector<std::string> patternLabels_;

  // Per frame, kept to reuse their memory.
  std::vector<GLuint> frameMaskTex_;
  std::vector<float> frameMaskDims_;
  Uniforms u_{};
  float view_[4] = {};
  float place_[4] = {};
  int32_t scissor_[4] = {};  // x, y (from the top), width, height
  int32_t targetW_ = 0, targetH_ = 0;
  bool encoder_ = false;
  // The most media keys asked of the engine for one moment.
  static constexpr int32_t kMaxMediaKeys = 64;
};
