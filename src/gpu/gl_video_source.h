// GlVideoSource: one video of an output window, a VideoPlayer whose newest
// frame is kept as a GL texture.
//
// The renderer steers each source every scene frame: `sync` with the
// position, speed and transport of the output state, or `freeRun` for a
// video the state gives no position; then `update` takes the frame that
// shows now and puts it in `texture`. The player runs on its own clock, and
// the position only corrects it when it strays too far (400 ms playing, 40 ms
// paused). Every video loops: at the item's end it seeks to 0 and, when it
// should be running forwards, runs on.
//
// A decoded frame reaches GL once. On a GPU its Y, U and V planes are uploaded
// as they come from the decoder, and a small pass turns them into the RGBA
// texture (colour not multiplied by alpha, opaque, top row first) that the
// layer shader samples. On a software rasteriser, where that pass would cost
// more than the decoding, and for pixel formats the pass does not read,
// swscale converts the frame straight into a mapped pixel buffer, and the
// upload is the only copy.
//
// Threading: everything but the seek completion runs on the drawing thread,
// with the GL context current for `update` and `teardown`. The completion
// runs on the player's decode thread and touches only `seeking` and
// `wantRate` (atomics) and the player's rate.
#pragma once

#include <GLES3/gl3.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "video_player.h"

struct SwsContext;

// The path extensions, compared lower-cased, that make a media key a video.
bool isVideoMediaKey(std::string_view key);

class GlVideoSource {
 public:
  // How a frame becomes RGBA. Automatic: the shader pass unless the GL is a
  // software rasteriser.
  enum class Conversion { Automatic, Shader, Processor };

  // Drift beyond which a position in the output state moves the player.
  static constexpr int64_t kPlayingDriftUs = 400000;
  static constexpr int64_t kPausedDriftUs = 40000;

  // Cannot fail: a file that does not decode gives a source without frames.
  explicit GlVideoSource(const std::string& path, VideoPlayer::Options options = {});
  ~GlVideoSource();  // leaves GL alone: call teardown first with the context current
  GlVideoSource(const GlVideoSource&) = delete;
  GlVideoSource& operator=(const GlVideoSource&) = delete;

  // The sync rule: steer the player towards `posUs` (when given) at `speed`
  // while `playing`, or pause it.
  void sync(std::optional<int64_t> posUs, double speed, bool playing);
  // A video without a position plays at normal speed.
  void freeRun();
  // Loops the player at its end and takes the newest frame into `texture`.
  void update();
  // Pauses the player and frees the textures (only when `glUsable`: with the
  // context gone, so are its names).
  void teardown(bool glUsable);
  // For checks: one way of conversion whatever the GL is.
  void setConversion(Conversion c) { conversion_ = c; }

  // The newest frame, or 0 before the first one.
  GLuint texture() const { return rgba_; }
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }

  bool seeking() const { return state_->seeking.load(); }
  float wantRate() const { return state_->wantRate.load(); }
  int64_t seeksStarted() const { return seeksStarted_; }
  int64_t framesUploaded() const { return framesUploaded_; }
  VideoPlayer& player() { return *player_; }

 private:
  // What the seek completion may touch after the source is gone.
  struct State {
    std::atomic<bool> seeking{false};
    std::atomic<float> wantRate{0.0f};
  };

  void loopAtEnd();
  bool upload(const AVFrame* f);
  bool uploadPlanes(const AVFrame* f, bool nv12);
  bool uploadConverted(const AVFrame* f);
  bool useShader();
  bool ensureTexture(GLuint& tex, GLenum internal, GLenum format, int32_t w, int32_t h, int32_t& haveW,
                     int32_t& haveH);
  bool ensureProgram();
  void deleteGl();

  std::shared_ptr<State> state_;
  std::unique_ptr<VideoPlayer> player_;
  VideoPlayer::FramePtr shown_;
  int64_t seeksStarted_ = 0;
  int64_t framesUploaded_ = 0;

  GLuint rgba_ = 0;
  int32_t width_ = 0, height_ = 0;      // size of the newest frame
  int32_t rgbaW_ = 0, rgbaH_ = 0;       // storage of rgba_
  GLuint planes_[3] = {0, 0, 0};
  int32_t planeW_[3] = {}, planeH_[3] = {};
  GLuint fbo_ = 0, program_ = 0, vao_ = 0;
  GLint locMatrix_ = -1, locOffset_ = -1, locNv12_ = -1, locSize_ = -1;
  bool programFailed_ = false;
  Conversion conversion_ = Conversion::Automatic;
  SwsContext* sws_ = nullptr;
  GLuint pbo_ = 0;
  size_t pboBytes_ = 0;
};
