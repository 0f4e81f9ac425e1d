// Output videos: GlVideoSource, a player and its texture.
#include "gl_video_source.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <cctype>
#include <cmath>

#include "gl_util.h"

namespace {

const char* const kVertexShader = R"(#version 300 es
// One triangle that covers the target; no vertex data needed.
void main() {
  vec2 p = vec2(float((gl_VertexID << 1) & 2), float(gl_VertexID & 2));
  gl_Position = vec4(p * 2.0 - 1.0, 0.0, 1.0);
}
)";

// Target row 0 is the picture's top row, as for every other texture of the
// renderer, because plane row 0 is too and the mapping keeps the order.
const char* const kFragmentShader = R"(#version 300 es
precision highp float;
uniform sampler2D uY;
uniform sampler2D uU;
uniform sampler2D uV;
uniform mat3 uMatrix;
uniform vec3 uOffset;
uniform int uNv12;
uniform vec2 uSize;
out vec4 fragColor;
void main() {
  vec2 uv = gl_FragCoord.xy / uSize;
  float y = texture(uY, uv).r;
  vec2 c = uNv12 == 1 ? texture(uU, uv).rg : vec2(texture(uU, uv).r, texture(uV, uv).r);
  vec3 rgb = uMatrix * (vec3(y, c) - uOffset);
  fragColor = vec4(clamp(rgb, 0.0, 1.0), 1.0);
}
)";

// Y'CbCr to RGB for the frame's matrix and range, as a column-major mat3 and
// the offsets subtracted first. Untagged video follows the usual habit: HD
// and larger is BT.709, smaller BT.601.
void yuvMatrix(const AVFrame* f, float m[9], float off[3]) {
  const bool full = f->color_range == AVCOL_RANGE_JPEG || f->format == AV_PIX_FMT_YUVJ420P;
  bool hd = f->colorspace == AVCOL_SPC_BT709;
  if (f->colorspace == AVCOL_SPC_UNSPECIFIED || f->colorspace == AVCOL_SPC_RGB) hd = f->height >= 720;
  const double kr = hd ? 0.2126 : 0.299, kb = hd ? 0.0722 : 0.114, kg = 1.0 - kr - kb;
  const double ys = full ? 1.0 : 255.0 / 219.0, cs = full ? 1.0 : 255.0 / 224.0;
  const double m9[9] = {ys,
                        ys,
                        ys,
                        0.0,
                        -cs * 2.0 * (1.0 - kb) * kb / kg,
                        cs * 2.0 * (1.0 - kb),
                        cs * 2.0 * (1.0 - kr),
                        -cs * 2.0 * (1.0 - kr) * kr / kg,
                        0.0};
  for (int i = 0; i < 9; i++) m[i] = static_cast<float>(m9[i]);
  off[0] = full ? 0.0f : 16.0f / 255.0f;
  off[1] = off[2] = 128.0f / 255.0f;
}

// GL state that the conversion pass changes, put back afterwards so that
// whoever draws next finds what it left.
struct SavedGl {
  GLint fbo = 0, program = 0, vao = 0, active = 0, viewport[4] = {}, samplers[3] = {}, textures[3] = {};
  GLint rowLength = 0, alignment = 4;
  GLboolean blend = GL_FALSE, scissor = GL_FALSE;
  SavedGl() {
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &fbo);
    glGetIntegerv(GL_CURRENT_PROGRAM, &program);
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &vao);
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    glGetIntegerv(GL_VIEWPORT, viewport);
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    for (GLuint u = 0; u < 3; u++) {
      glActiveTexture(GL_TEXTURE0 + u);
      glGetIntegerv(GL_SAMPLER_BINDING, &samplers[u]);
      glGetIntegerv(GL_TEXTURE_BINDING_2D, &textures[u]);
    }
    blend = glIsEnabled(GL_BLEND);
    scissor = glIsEnabled(GL_SCISSOR_TEST);
  }
  ~SavedGl() {
    for (GLuint u = 0; u < 3; u++) {
      glActiveTexture(GL_TEXTURE0 + u);
      glBindSampler(u, static_cast<GLuint>(samplers[u]));
      glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(textures[u]));
    }
    glActiveTexture(static_cast<GLenum>(active));
    glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(fbo));
    glUseProgram(static_cast<GLuint>(program));
    glBindVertexArray(static_cast<GLuint>(vao));
    glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, rowLength);
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    if (blend) glEnable(GL_BLEND);
    if (scissor) glEnable(GL_SCISSOR_TEST);
  }
};

}  // namespace

bool isVideoMediaKey(std::string_view key) {
  static const char* const kVideoExts[] = {"mp4", "mov", "m4v", "webm", "mkv", "avi", "mpg", "mpeg", "3gp"};
  size_t slash = key.find_last_of('/');
  std::string_view name = slash == std::string_view::npos ? key : key.substr(slash + 1);
  size_t dot = name.find_last_of('.');
  // A name that only starts with a dot (".mp4") has no extension.
  if (dot == std::string_view::npos || dot == 0) return false;
  std::string_view ext = name.substr(dot + 1);
  if (ext.empty() || ext.size() > 4) return false;
  char lower[5] = {};
  for (size_t i = 0; i < ext.size(); i++) lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(ext[i])));
  for (const char* v : kVideoExts)
    if (std::string_view(lower) == v) return true;
  return false;
}

GlVideoSource::GlVideoSource(const std::string& path, VideoPlayer::Options options)
    : state_(std::make_shared<State>()), player_(std::make_unique<VideoPlayer>(path, std::move(options))) {}

GlVideoSource::~GlVideoSource() {
  // A completion still to come finds the state gone and leaves the player
  // alone; the player's destructor joins its thread.
  state_.reset();
  player_.reset();
  if (sws_) sws_freeContext(sws_);
}

void GlVideoSource::loopAtEnd() {
  if (!player_->takeEnded()) return;
  // No completion: the picture from 0 follows when it is decoded. A paused
  // or backwards video stays as it is.
  player_->seek(0);
  float want = state_->wantRate.load();
  if (want > 0) player_->setRate(want);
}

void GlVideoSource::sync(std::optional<int64_t> posUs, double speed, bool playing) {
  loopAtEnd();
  const float target = playing ? static_cast<float>(speed) : 0.0f;
  if (posUs && !state_->seeking.load()) {
    std::optional<int64_t> cur = player_->currentTimeUs();
    // No clock yet (still opening, or undecodable): force a seek.
    const int64_t current = cur ? *cur : -0x4000000000000000LL;
    // In unsigned arithmetic the distance cannot overflow.
    const uint64_t drift = current >= *posUs ? static_cast<uint64_t>(current) - static_cast<uint64_t>(*posUs)
                                              : static_cast<uint64_t>(*posUs) - static_cast<uint64_t>(current);
    const uint64_t limit = static_cast<uint64_t>(playing ? kPlayingDriftUs : kPausedDriftUs);
    if (drift > limit) {
      state_->seeking = true;
      seeksStarted_++;
      std::weak_ptr<State> weak = state_;
      VideoPlayer* p = player_.get();
      // Runs on the decode thread, which the player joins before it dies, so
      // `p` outlives every call; the state may not.
      player_->seek(*posUs, [weak, p](bool) {
        std::shared_ptr<State> s = weak.lock();
        if (!s) return;
        s->seeking = false;
        float want = s->wantRate.load();
        if (want > 0 && p->rate() == 0) p->setRate(want);
      });
    }
  }
  // After the seek has started: a rate asked for in the same call is then
  // applied by the completion.
  state_->wantRate = target;
  if (std::fabs(player_->rate() - target) > 0.01f && !state_->seeking.load()) player_->setRate(target);
}

void GlVideoSource::freeRun() {
  loopAtEnd();
  state_->wantRate = 1.0f;
  if (std::fabs(player_->rate() - 1.0f) > 0.01f && !state_->seeking.load()) player_->setRate(1.0f);
}

void GlVideoSource::update() {
  loopAtEnd();
  VideoPlayer::FramePtr f = player_->frameForHostTime(player_->hostTime());
  if (!f || f == shown_ || !f->frame) return;
  // A frame that fails to reach GL is not retried: the previous one stays.
  shown_ = f;
  if (!upload(f->frame)) return;
  width_ = f->frame->width;
  height_ = f->frame->height;
  framesUploaded_++;
}

bool GlVideoSource::ensureTexture(GLuint& tex, GLenum internal, GLenum format, int32_t w, int32_t h, int32_t& haveW,
                                  int32_t& haveH) {
  if (tex && haveW == w && haveH == h) return true;
  if (!tex) glGenTextures(1, &tex);
  if (!tex) return false;
  glBindTexture(GL_TEXTURE_2D, tex);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  while (glGetError() != GL_NO_ERROR) {
  }
  glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internal), w, h, 0, format, GL_UNSIGNED_BYTE, nullptr);
  if (glGetError() != GL_NO_ERROR) {
    glDeleteTextures(1, &tex);
    tex = 0;
    haveW = haveH = 0;
    return false;
  }
  haveW = w;
  haveH = h;
  return true;
}

bool GlVideoSource::ensureProgram() {
  if (program_) return true;
  if (programFailed_) return false;
  programFailed_ = true;
  // A failure leaves the video to the processor's conversion; its text is
  // not needed.
  std::string error;
  GLuint vs = compileStage(GL_VERTEX_SHADER, kVertexShader, "kvl_vs_video", error);
  GLuint fs = vs ? compileStage(GL_FRAGMENT_SHADER, kFragmentShader, "kvl_fs_video", error) : 0;
  GLuint prog = vs && fs ? linkProgram(vs, fs, "video", error) : 0;
  if (vs) glDeleteShader(vs);
  if (fs) glDeleteShader(fs);
  if (!prog) return false;
  program_ = prog;
  glUseProgram(prog);
  glUniform1i(glGetUniformLocation(prog, "uY"), 0);
  glUniform1i(glGetUniformLocation(prog, "uU"), 1);
  glUniform1i(glGetUniformLocation(prog, "uV"), 2);
  locMatrix_ = glGetUniformLocation(prog, "uMatrix");
  locOffset_ = glGetUniformLocation(prog, "uOffset");
  locNv12_ = glGetUniformLocation(prog, "uNv12");
  locSize_ = glGetUniformLocation(prog, "uSize");
  glGenVertexArrays(1, &vao_);
  programFailed_ = false;
  return true;
}

bool GlVideoSource::upload(const AVFrame* f) {
  if (f->width <= 0 || f->height <= 0) return false;
  SavedGl saved;
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  const bool planar = f->format == AV_PIX_FMT_YUV420P || f->format == AV_PIX_FMT_YUVJ420P;
  const bool nv12 = f->format == AV_PIX_FMT_NV12;
  bool ok = false;
  if ((planar || nv12) && f->linesize[0] > 0 && f->linesize[1] > 0 && (nv12 || f->linesize[2] > 0) &&
      useShader() && ensureProgram())
    ok = uploadPlanes(f, nv12);
  else
    ok = uploadConverted(f);
  return ok;
}

bool GlVideoSource::uploadPlanes(const AVFrame* f, bool nv12) {
  const int32_t w = f->width, h = f->height, cw = (w + 1) / 2, ch = (h + 1) / 2;
  if (!ensureTexture(rgba_, GL_RGBA8, GL_RGBA, w, h, rgbaW_, rgbaH_)) return false;
  struct Plane {
    GLenum internal, format;
    int32_t w, h, bytesPerPixel;
  };
  const Plane planes[3] = {{GL_R8, GL_RED, w, h, 1},
                           nv12 ? Plane{GL_RG8, GL_RG, cw, ch, 2} : Plane{GL_R8, GL_RED, cw, ch, 1},
                           {GL_R8, GL_RED, cw, ch, 1}};
  const int count = nv12 ? 2 : 3;
  for (int i = 0; i < count; i++) {
    const Plane& p = planes[i];
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(i));
    if (!ensureTexture(planes_[i], p.internal, p.format, p.w, p.h, planeW_[i], planeH_[i])) return false;
    glBindTexture(GL_TEXTURE_2D, planes_[i]);
    glBindSampler(static_cast<GLuint>(i), 0);
    // Straight from the decoder's memory, padding skipped by the row length.
    glPixelStorei(GL_UNPACK_ROW_LENGTH, f->linesize[i] / p.bytesPerPixel);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, p.w, p.h, p.format, GL_UNSIGNED_BYTE, f->data[i]);
  }
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);

  if (!fbo_) glGenFramebuffers(1, &fbo_);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo_);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, rgba_, 0);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) return false;
  glViewport(0, 0, w, h);
  glDisable(GL_BLEND);
  glDisable(GL_SCISSOR_TEST);
  glUseProgram(program_);
  float m[9], off[3];
  yuvMatrix(f, m, off);
  glUniformMatrix3fv(locMatrix_, 1, GL_FALSE, m);
  glUniform3fv(locOffset_, 1, off);
  glUniform1i(locNv12_, nv12 ? 1 : 0);
  glUniform2f(locSize_, static_cast<float>(w), static_cast<float>(h));
  glBindVertexArray(vao_);
  glDrawArrays(GL_TRIANGLES, 0, 3);
  return true;
}

// A software rasteriser samples textures slowly: a full-frame pass with three
// filtered lookups a pixel costs several times the decoding, where swscale's
// vector code converts the frame in a few milliseconds.
bool GlVideoSource::useShader() {
  if (conversion_ != Conversion::Automatic) return conversion_ == Conversion::Shader;
  const char* r = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  std::string name = r ? r : "";
  bool software = name.find("llvmpipe") != std::string::npos || name.find("softpipe") != std::string::npos ||
                  name.find("SwiftShader") != std::string::npos;
  conversion_ = software ? Conversion::Processor : Conversion::Shader;
  return !software;
}

// swscale writes RGBA straight into a mapped pixel buffer, from which the
// texture is filled; the same matrix and range as the shader pass.
bool GlVideoSource::uploadConverted(const AVFrame* f) {
  const int32_t w = f->width, h = f->height;
  sws_ = sws_getCachedContext(sws_, w, h, static_cast<AVPixelFormat>(f->format), w, h, AV_PIX_FMT_RGBA,
                              SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (!sws_) return false;
  int* invTable = nullptr;
  int* table = nullptr;
  int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
  if (sws_getColorspaceDetails(sws_, &invTable, &srcRange, &table, &dstRange, &brightness, &contrast,
                               &saturation) >= 0) {
    const bool full = f->color_range == AVCOL_RANGE_JPEG || f->format == AV_PIX_FMT_YUVJ420P;
    bool hd = f->colorspace == AVCOL_SPC_BT709;
    if (f->colorspace == AVCOL_SPC_UNSPECIFIED || f->colorspace == AVCOL_SPC_RGB) hd = f->height >= 720;
    const int* coeffs = sws_getCoefficients(hd ? SWS_CS_ITU709 : SWS_CS_ITU601);
    sws_setColorspaceDetails(sws_, coeffs, full ? 1 : 0, coeffs, 1, brightness, contrast, saturation);
  }
  const size_t bytes = static_cast<size_t>(w) * h * 4;
  if (!pbo_) glGenBuffers(1, &pbo_);
  if (!pbo_) return false;
  glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pbo_);
  if (pboBytes_ != bytes) {
    glBufferData(GL_PIXEL_UNPACK_BUFFER, static_cast<GLsizeiptr>(bytes), nullptr, GL_STREAM_DRAW);
    pboBytes_ = bytes;
  }
  auto* mem = static_cast<uint8_t*>(glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, static_cast<GLsizeiptr>(bytes),
                                                     GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT));
  bool ok = false;
  if (mem) {
    uint8_t* dst[4] = {mem, nullptr, nullptr, nullptr};
    int dstStride[4] = {w * 4, 0, 0, 0};
    ok = sws_scale(sws_, f->data, f->linesize, 0, h, dst, dstStride) == h;
    ok = glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER) == GL_TRUE && ok;
  }
  if (ok) {
    glActiveTexture(GL_TEXTURE0);
    ok = ensureTexture(rgba_, GL_RGBA8, GL_RGBA, w, h, rgbaW_, rgbaH_);
  }
  if (ok) {
    glBindTexture(GL_TEXTURE_2D, rgba_);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  }
  glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
  return ok;
}

void GlVideoSource::deleteGl() {
  if (rgba_) glDeleteTextures(1, &rgba_);
  glDeleteTextures(3, planes_);
  if (fbo_) glDeleteFramebuffers(1, &fbo_);
  if (vao_) glDeleteVertexArrays(1, &vao_);
  if (program_) glDeleteProgram(program_);
  if (pbo_) glDeleteBuffers(1, &pbo_);
}

void GlVideoSource::teardown(bool glUsable) {
  player_->setRate(0.0f);
  shown_.reset();
  if (glUsable) deleteGl();
  rgba_ = fbo_ = vao_ = program_ = pbo_ = 0;
  pboBytes_ = 0;
  for (int i = 0; i < 3; i++) {
    planes_[i] = 0;
    planeW_[i] = planeH_[i] = 0;
  }
  rgbaW_ = rgbaH_ = 0;
}
