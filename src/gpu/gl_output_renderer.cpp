// The frame loop and scene drawing of the output renderer.
#include "gl_output_renderer.h"

#include "gl_util.h"
#include "gl_video_source.h"

#include <EGL/egl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

namespace {

typedef GLenum(GL_APIENTRYP ResetStatusFn)(void);

// Robust contexts report a reset here; on others it is absent or always
// GL_NO_ERROR.
ResetStatusFn resetStatusFn() {
  static ResetStatusFn fn = [] {
    auto f = reinterpret_cast<ResetStatusFn>(eglGetProcAddress("glGetGraphicsResetStatus"));
    if (!f) f = reinterpret_cast<ResetStatusFn>(eglGetProcAddress("glGetGraphicsResetStatusEXT"));
    return f;
  }();
  return fn;
}

void splitArgb(uint32_t argb, float* out) {
  out[0] = static_cast<float>((argb >> 16) & 255) / 255.0f;
  out[1] = static_cast<float>((argb >> 8) & 255) / 255.0f;
  out[2] = static_cast<float>(argb & 255) / 255.0f;
  out[3] = static_cast<float>(argb >> 24) / 255.0f;
}

}  // namespace

GlOutputRenderer::GlOutputRenderer(std::function<std::string()> mediaRoot) : OutputRendererCore(std::move(mediaRoot)) {}

std::unique_ptr<GlOutputRenderer> GlOutputRenderer::create(std::function<std::string()> mediaRoot,
                                                           const GlShaderSources* sources) {
  // No context stands for no device: fail without a message.
  EGLContext ctx = eglGetCurrentContext();
  if (ctx == EGL_NO_CONTEXT) return nullptr;
  std::unique_ptr<GlOutputRenderer> r(new GlOutputRenderer(std::move(mediaRoot)));
  r->context_ = ctx;
  std::string error;
  if (!r->buildPipelines(sources ? *sources : GlShaderSources::builtIn(), error)) {
    kavlenLog("Metal: %s", error.c_str());
    return nullptr;
  }
  return r;
}

GlOutputRenderer::~GlOutputRenderer() {
  release();
  // With the context gone the names are gone with it; calling GL then would
  // reach another context or none.
  if (failed_ || eglGetCurrentContext() != static_cast<EGLContext>(context_)) return;
  for (auto& [hash, t] : maskTextures_) deleteTexture(t);
  for (auto& [key, t] : images_) deleteTexture(t);
  for (auto& [key, e] : texts_) deleteTexture(e.text);
  for (auto& [key, t] : videoFrames_) deleteTexture(t);
  if (patternTex_) deleteTexture(*patternTex_);
  retireFrameTextures();
  deleteTexture(groupTex_);
  if (groupFbo_) glDeleteFramebuffers(1, &groupFbo_);
  GLuint buffers[] = {vertexBuffer_, indexBuffer_};
  glDeleteBuffers(2, buffers);
  GLuint vaos[] = {layerVao_, quadVao_};
  glDeleteVertexArrays(2, vaos);
  if (sampler_) glDeleteSamplers(1, &sampler_);
  for (Pipeline* p : {&pipeLayer_, &pipeFx_, &pipeGroup_})
    if (p->program) glDeleteProgram(p->program);
}

void GlOutputRenderer::mediaReset() {
  // The video players go; the still-image, text and mask textures stay.
  stats_.mediaResets++;
  teardownVideos();
  OutputRendererCore::mediaReset();
}

void GlOutputRenderer::release() {
  teardownVideos();
  OutputRendererCore::release();
}

bool GlOutputRenderer::contextUsable() {
  if (failed_) return false;
  const char* why = nullptr;
  if (eglGetCurrentContext() != static_cast<EGLContext>(context_))
    why = "contexto GL perdido (outro contexto está ativo)";
  else if (ResetStatusFn f = resetStatusFn(); f && f() != GL_NO_ERROR)
    why = "contexto GL perdido";
  if (!why) return true;
  failed_ = true;
  kavlenLog("Metal: %s", why);
  return false;
}

bool GlOutputRenderer::draw(const GlTarget& view) {
  GlTarget t = view;
  t.clear = true;
  t.clearColor[0] = t.clearColor[1] = t.clearColor[2] = 0.0f;
  t.clearColor[3] = 1.0f;
  return drawFrame(0, t);
}

bool GlOutputRenderer::drawFrame(int64_t tUs, const GlTarget& target) {
  if (!contextUsable()) return false;
  if (target.width < 1 || target.height < 1) return true;
  stats_.frames++;
  frameSteps(tUs, target);
  retireFrameTextures();
  glBindVertexArray(0);
  return true;
}

void GlOutputRenderer::frameSteps(int64_t tUs, const GlTarget& target) {
  // State that the passes rely on; the caller may have changed any of it.
  glDisable(GL_DEPTH_TEST);
  glDisable(GL_STENCIL_TEST);
  glDisable(GL_CULL_FACE);
  glDisable(GL_DITHER);
  glDisable(GL_SCISSOR_TEST);
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  glEnable(GL_BLEND);
  glBlendEquation(GL_FUNC_ADD);
  glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
  targetW_ = target.width;
  targetH_ = target.height;
  boundProgram_ = 0;
  encoder_ = false;

  // Only the mode is copied: the rest of the state (maps, a pending scene
  // text) is not this step's business and would cost a copy per frame.
  std::string mode;
  {
    std::lock_guard<std::mutex> g(lock_);
    mode = s_.mode;
  }
  applyPendingReset();
  if (mode == "blackout" || mode == "testPattern") {
    // The scene is not shown, but its videos keep their clocks and loops.
    if (engine_ && !videoFrameProvider) syncVideos(false);
    if (beginPass(target.framebuffer, target.clear, target.clearColor) && mode == "testPattern")
      drawTestPattern(target);
    return;
  }
  applyPendingScene();
  if (!engine_) {
    beginPass(target.framebuffer, target.clear, target.clearColor);
    return;
  }
  if (!videoFrameProvider) syncVideos();
  stepAudio();
  int32_t sW = 0, sH = 0;
  {
    std::lock_guard<std::mutex> g(lock_);
    sW = s_.sceneW;
    sH = s_.sceneH;
  }
  drawScene(engine_, tUs, sW, sH, target);
}

// A render pass: binds the framebuffer and applies its load action. The
// clear ignores the scissor, as a pass's clear covers the whole target.
bool GlOutputRenderer::beginPass(GLuint framebuffer, bool clear, const float color[4]) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
    encoder_ = false;
    return false;
  }
  // The group texture has the target's size, so one viewport serves both.
  glViewport(0, 0, targetW_, targetH_);
  glDisable(GL_SCISSOR_TEST);
  if (clear) {
    glClearColor(color[0], color[1], color[2], color[3]);
    glClear(GL_COLOR_BUFFER_BIT);
  }
  encoder_ = true;
  return true;
}

void GlOutputRenderer::setScissor() {
  glEnable(GL_SCISSOR_TEST);
  // GL counts rows from the bottom.
  glScissor(scissor_[0], targetH_ - scissor_[1] - scissor_[3], scissor_[2], scissor_[3]);
}

void GlOutputRenderer::ensureGroupTexture(int32_t w, int32_t h) {
  if (groupTex_.id && groupTex_.width == w && groupTex_.height == h) return;
  deleteTexture(groupTex_);
  if (!makeTexture(GL_RGBA8, GL_RGBA, w, h, nullptr, groupTex_)) return;
  if (!groupFbo_) glGenFramebuffers(1, &groupFbo_);
  glBindFramebuffer(GL_FRAMEBUFFER, groupFbo_);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, groupTex_.id, 0);
}

void GlOutputRenderer::useProgram(const Pipeline& p) {
  if (boundProgram_ == p.program) return;
  glUseProgram(p.program);
  boundProgram_ = p.program;
}

void GlOutputRenderer::setUniforms(const Pipeline& p) {
  glUniform4fv(p.locUf, 8, u_.f);
  glUniform4iv(p.locUi, 2, u_.i);
}

// view and place, everything else zero, texSize (1, 1, 1, 1).
void GlOutputRenderer::baseUniforms() {
  std::memset(&u_, 0, sizeof u_);
  std::memcpy(u_.f + 0, view_, sizeof view_);
  std::memcpy(u_.f + 4, place_, sizeof place_);
  for (int k = 24; k < 28; k++) u_.f[k] = 1.0f;
}

void GlOutputRenderer::drawQuad(const Pipeline& p, GLuint texture, const float quad[16]) {
  useProgram(p);
  glBindVertexArray(quadVao_);
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, texture);
  glBindSampler(0, sampler_);
  setUniforms(p);
  glUniform4fv(p.locQ, 4, quad);
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GlOutputRenderer::drawScene(kvl_engine* engine, int64_t tUs, int32_t sceneW, int32_t sceneH,
                                 const GlTarget& target) {
  int64_t generation = 0;
  {
    std::lock_guard<std::mutex> g(lock_);
    generation = s_.sceneGeneration;
  }
  mediaPass(engine, tUs, generation);
  const kvl_draw_list* list = kvl_engine_draw_list(engine, tUs);
  if (!list) {
    beginPass(target.framebuffer, target.clear, target.clearColor);
    return;
  }
  const int32_t W = target.width, H = target.height;
  ensureGroupTexture(W, H);
  uploadVertices(list);

  frameMaskTex_.clear();
  frameMaskDims_.clear();
  for (int32_t i = 0; i < list->ref_count; i++) {
    std::optional<GlTexture> t = maskTexture(list->refs[i]);
    frameMaskTex_.push_back(t ? t->id : 0);
    frameMaskDims_.push_back(static_cast<float>(list->refs[i].w));
    frameMaskDims_.push_back(static_cast<float>(list->refs[i].h));
  }
  if (takeLogBudget(8))
    kavlenLog("saída Metal: lista %d cmds, %d vértices, %d máscaras, alvo %dx%d", list->cmd_count,
              list->vertex_count, list->ref_count, W, H);

  // Placement: the scene keeps its aspect ratio, centred; the bars beside it
  // keep the pass's clear colour.
  float fW = static_cast<float>(W), fH = static_cast<float>(H);
  float scale = std::min(fW / static_cast<float>(sceneW), fH / static_cast<float>(sceneH));
  float dw = scale * static_cast<float>(sceneW), dh = scale * static_cast<float>(sceneH);
  float offX = (fW - dw) * 0.5f, offY = (fH - dh) * 0.5f;
  view_[0] = fW;
  view_[1] = fH;
  view_[2] = view_[3] = 0.0f;
  place_[0] = scale;
  place_[1] = offX;
  place_[2] = offY;
  place_[3] = 0.0f;
  int32_t sx = std::max<int32_t>(0, static_cast<int32_t>(std::lround(offX)));
  int32_t sy = std::max<int32_t>(0, static_cast<int32_t>(std::lround(offY)));
  scissor_[0] = sx;
  scissor_[1] = sy;
  scissor_[2] = std::max<int32_t>(1, std::min<int32_t>(static_cast<int32_t>(std::lround(dw)), W - sx));
  scissor_[3] = std::max<int32_t>(1, std::min<int32_t>(static_cast<int32_t>(std::lround(dh)), H - sy));

  if (beginPass(target.framebuffer, target.clear, target.clearColor)) setScissor();

  float groupOpacity = 1.0f;
  int32_t groupLuma = 0;
  for (int32_t ci = 0; ci < list->cmd_count; ci++) {
    const kvl_draw_cmd& cmd = list->cmds[ci];
    switch (cmd.kind) {
      case KVL_CMD_LAYER:
        if (encoder_) drawLayer(list, cmd);
        break;
      case KVL_CMD_EFFECT: {
        if (!encoder_ || cmd.mask < 0 || cmd.mask >= list->ref_count || !frameMaskTex_[cmd.mask]) break;
        baseUniforms();
        splitArgb(cmd.argb, u_.f + 8);
        u_.f[23] = cmd.opacity;
        u_.i[4] = cmd.luma;
        float x0 = cmd.fx_x, y0 = cmd.fx_y;
        float w = frameMaskDims_[2 * cmd.mask], h = frameMaskDims_[2 * cmd.mask + 1];
        // One raster pixel covers one scene pixel.
        const float quad[16] = {x0, y0, 0, 0, x0 + w, y0, 1, 0, x0, y0 + h, 0, 1, x0 + w, y0 + h, 1, 1};
        drawQuad(pipeFx_, frameMaskTex_[cmd.mask], quad);
        break;
      }
      case KVL_CMD_GROUP_BEGIN: {
        static const float kTransparent[4] = {0, 0, 0, 0};
        if (groupTex_.id && beginPass(groupFbo_, true, kTransparent))
          setScissor();
        else
          encoder_ = false;
        groupOpacity = cmd.opacity;
        groupLuma = cmd.luma;
        break;
      }
      case KVL_CMD_GROUP_END: {
        if (!beginPass(target.framebuffer, false, nullptr)) break;
        setScissor();
        if (!groupTex_.id) break;
        baseUniforms();
        u_.f[4] = 1.0f;
        u_.f[5] = u_.f[6] = 0.0f;
        u_.f[23] = groupOpacity;
        u_.i[4] = groupLuma;
        // The group texture was rendered by GL, whose rows run bottom up:
        // the top of the target is v = 1 in it.
        const float quad[16] = {0, 0, 0, 1, fW, 0, 1, 1, 0, fH, 0, 0, fW, fH, 1, 0};
        drawQuad(pipeGroup_, groupTex_.id, quad);
        break;
      }
      default:
        break;
    }
  }
}

void GlOutputRenderer::uploadVertices(const kvl_draw_list* list) {
  const int32_t n = list->vertex_count > 0 ? list->vertex_count : 0;
  const int64_t need = std::max<int64_t>(20, static_cast<int64_t>(n) * 20);
  if (!vertexBuffer_) glGenBuffers(1, &vertexBuffer_);
  glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer_);
  if (vertexBytes_ < need) {
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(need * 2), nullptr, GL_DYNAMIC_DRAW);
    vertexBytes_ = need * 2;
    stats_.gpuAllocations++;
  }
  if (n > 0) glBufferSubData(GL_ARRAY_BUFFER, 0, static_cast<GLsizeiptr>(n) * 20, list->vertices);

  const int32_t quads = std::max(1, n / 4);
  glBindVertexArray(layerVao_);
  if (!indexBuffer_) glGenBuffers(1, &indexBuffer_);
  glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indexBuffer_);  // part of the vertex array's state
  for (GLuint loc = 0; loc < 3; loc++) glEnableVertexAttribArray(loc);
  if (indexQuads_ >= quads) return;
  std::vector<uint32_t> idx(static_cast<size_t>(quads) * 6);
  for (int32_t i = 0; i < quads; i++) {
    uint32_t b = static_cast<uint32_t>(i) * 4;
    uint32_t* o = &idx[static_cast<size_t>(i) * 6];
    o[0] = b;
    o[1] = b + 1;
    o[2] = b + 2;
    o[3] = b;
    o[4] = b + 2;
    o[5] = b + 3;
  }
  glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(idx.size() * 4), idx.data(), GL_STATIC_DRAW);
  indexQuads_ = quads;
  stats_.gpuAllocations++;
}

void GlOutputRenderer::drawLayer(const kvl_draw_list* list, const kvl_draw_cmd& cmd) {
  if (!vertexBuffer_ || !indexBuffer_ || cmd.layer_vertex_count < 4) return;
  // The list's own indices are trusted only within its arrays.
  if (cmd.first_vertex < 0 || cmd.layer_vertex_count > list->vertex_count - cmd.first_vertex) return;

  baseUniforms();
  splitArgb(cmd.argb, u_.f + 8);
  for (int k = 0; k < 3; k++) {
    u_.f[12 + k] = cmd.inv_content[k];
    u_.f[16 + k] = cmd.inv_content[3 + k];
    u_.f[20 + k] = cmd.cover[k];
  }
  u_.f[23] = cmd.opacity;

  GLuint content = 0;
  int32_t premul = 0;
  if (cmd.source_key) {
    std::string_view key(cmd.source_key);
    if (auto f = videoFrames_.find(key); f != videoFrames_.end()) {
      content = f->second.id;
      u_.f[24] = static_cast<float>(f->second.width);
      u_.f[25] = static_cast<float>(f->second.height);
      premul = 1;
    } else if (auto v = videos_.find(key); v != videos_.end()) {
      // A video without a frame yet has no content, and the search ends.
      if (GLuint vt = v->second->texture()) {
        content = vt;
        u_.f[24] = static_cast<float>(v->second->width());
        u_.f[25] = static_cast<float>(v->second->height());
      }
    } else if (auto t = texts_.find(key); t != texts_.end()) {
      content = t->second.text.id;
      u_.f[24] = static_cast<float>(t->second.text.width);
      u_.f[25] = static_cast<float>(t->second.text.height);
      premul = 1;
    } else if (std::optional<GlTexture> img = imageTexture(key)) {
      content = img->id;
      u_.f[24] = static_cast<float>(img->width);
      u_.f[25] = static_cast<float>(img->height);
      premul = 1;
    }
    if (content) u_.f[26] = u_.f[27] = 0.0f;
  }
  int32_t hasMask = 0, hasClip = 0;
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, content);
  if (cmd.mask >= 0 && cmd.mask < list->ref_count) {
    // A mask that could not be made leaves unit 1 empty, which samples as
    // zero coverage: the layer hides rather than showing unmasked.
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_2D, frameMaskTex_[cmd.mask]);
    hasMask = 1;
  }
  if (cmd.clip >= 0 && cmd.clip < list->ref_count) {
    glActiveTexture(GL_TEXTURE2);
    glBindTexture(GL_TEXTURE_2D, frameMaskTex_[cmd.clip]);
    hasClip = 1;
    u_.f[28] = cmd.clip_x;
    u_.f[29] = cmd.clip_y;
    u_.f[30] = frameMaskDims_[2 * cmd.clip];
    u_.f[31] = frameMaskDims_[2 * cmd.clip + 1];
  }
  u_.i[0] = content ? 1 : 0;
  u_.i[1] = hasMask;
  u_.i[2] = hasClip;
  u_.i[3] = cmd.ellipse;
  u_.i[4] = cmd.luma;
  u_.i[5] = premul;

  useProgram(pipeLayer_);
  for (GLuint unit = 0; unit < 3; unit++) glBindSampler(unit, sampler_);
  setUniforms(pipeLayer_);
  glBindVertexArray(layerVao_);
  glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer_);
  // ES 3.0 has no base vertex: the command's first vertex moves the
  // attribute pointers instead.
  const uintptr_t base = static_cast<uintptr_t>(cmd.first_vertex) * 20;
  glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 20, reinterpret_cast<const void*>(base));
  glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 20, reinterpret_cast<const void*>(base + 8));
  glVertexAttribPointer(2, 1, GL_FLOAT, GL_FALSE, 20, reinterpret_cast<const void*>(base + 16));
  glDrawElements(GL_TRIANGLES, cmd.layer_vertex_count / 4 * 6, GL_UNSIGNED_INT, nullptr);
}

// ---------------------------------------------------------------------------
// Videos: the renderer's per-frame synchronisation of its video sources with
// the output state.

bool GlOutputRenderer::videoGlUsable() const {
  return !failed_ && eglGetCurrentContext() == static_cast<EGLContext>(context_);
}

void GlOutputRenderer::teardownVideos() {
  const bool gl = videoGlUsable();
  for (auto& [key, source] : videos_) source->teardown(gl);
  videos_.clear();
}

const GlVideoSource* GlOutputRenderer::videoSource(std::string_view key) const {
  auto it = videos_.find(key);
  return it == videos_.end() ? nullptr : it->second.get();
}

void GlOutputRenderer::syncVideos(bool upload) {
  if (!engine_) return;
  std::map<std::string, int64_t> positions;
  std::map<std::string, double> speeds;
  bool playing = false;
  {
    std::lock_guard<std::mutex> g(lock_);
    positions = s_.positions;
    speeds = s_.speeds;
    playing = s_.playing;
  }

  // The scene's videos at moment 0, and any the state gives a position: the
  // interface can keep a file open that no visible layer shows yet.
  KeySet needed;
  kvl_media_need needs[kMaxMediaKeys] = {};
  const int32_t n = std::min(kvl_engine_media_at(engine_, 0, needs, kMaxMediaKeys), kMaxMediaKeys);
  for (int32_t i = 0; i < n; i++)
    if (needs[i].key && isVideoMediaKey(needs[i].key)) needed.emplace(needs[i].key);
  for (const auto& [key, pos] : positions)
    if (isVideoMediaKey(key)) needed.insert(key);

  const bool gl = videoGlUsable();
  for (auto it = videos_.begin(); it != videos_.end();) {
    if (needed.find(it->first) != needed.end()) {
      ++it;
      continue;
    }
    it->second->teardown(gl);
    // The engine keeps the old size in its table; only this set forgets it.
    declared_.erase(it->first);
    it = videos_.erase(it);
  }

  for (const std::string& key : needed) {
    auto it = videos_.find(key);
    if (it == videos_.end()) {
      // Not recorded when missing: a file that appears later opens then.
      std::string path = resolve(key);
      if (!isRegularFile(path)) continue;
      it = videos_.emplace(key, std::make_unique<GlVideoSource>(path, videoOptions)).first;
    }
    GlVideoSource& v = *it->second;
    if (auto p = positions.find(key); p != positions.end()) {
      auto s = speeds.find(key);
      v.sync(p->second, s != speeds.end() ? s->second : 1.0, playing);
    } else {
      v.freeRun();
    }
    if (gl && upload) v.update();
    if (v.width() > 1 && declared_.find(key) == declared_.end()) {
      kvl_engine_declare_source(engine_, key.c_str(), v.width(), v.height());
      declared_.insert(key);
    }
  }
}
