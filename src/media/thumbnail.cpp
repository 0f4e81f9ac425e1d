#include "thumbnail.h"

#include <stb_image_write.h>

#include <algorithm>
#include <cmath>

#include "media_input.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace kavlen::thumbnail {

namespace {

struct Decoding {
  AVCodecContext* codec = nullptr;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  AVFrame* best = av_frame_alloc();
  ~Decoding() {
    av_frame_free(&best);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
  }
};

// Decodes from where the demuxer stands until the frame on show at `time` is
// known: the last frame not after it, or, when the first frame already lies
// after it, that frame if it is within the tolerance. Leaves it in `d.best`.
// `tooLate` tells the caller that the first frame came after the window, so a
// seek went too far.
bool frameAt(MediaInput& in, int index, Decoding& d, double time, bool& tooLate) {
  const AVStream* st = in.format()->streams[index];
  const double origin = in.timelineOrigin();
  // Streams without times (raw elementary streams) are timed by their rate.
  AVRational rate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
  const double step = rate.num > 0 && rate.den > 0 ? av_q2d(av_inv_q(rate)) : 1.0 / 30;
  double lastT = -step;
  bool haveBest = false, flushed = false;
  int failures = 0;
  tooLate = false;
  av_frame_unref(d.best);
  for (;;) {
    int rc = avcodec_receive_frame(d.codec, d.frame);
    if (rc == 0) {
      int64_t pts = d.frame->best_effort_timestamp;
      double t = pts == AV_NOPTS_VALUE ? lastT + step
                                       : static_cast<double>(pts) * st->time_base.num / st->time_base.den - origin;
      lastT = t;
      if (t <= time) {
        av_frame_unref(d.best);
        av_frame_move_ref(d.best, d.frame);
        haveBest = true;
        continue;
      }
      if (!haveBest) {
        if (t - time > kTolerance) {
          tooLate = true;
          return false;
        }
        av_frame_move_ref(d.best, d.frame);
        haveBest = true;
      }
      av_frame_unref(d.frame);
      return true;
    }
    if (rc == AVERROR_EOF || flushed) return haveBest;
    if (rc != AVERROR(EAGAIN) && ++failures > 64) return haveBest;
    rc = av_read_frame(in.format(), d.packet);
    if (rc < 0) {
      flushed = true;
      avcodec_send_packet(d.codec, nullptr);
      continue;
    }
    if (d.packet->stream_index == index) {
      rc = avcodec_send_packet(d.codec, d.packet);
      if (rc < 0 && rc != AVERROR(EAGAIN) && ++failures > 64) {
        av_packet_unref(d.packet);
        return haveBest;
      }
    }
    av_packet_unref(d.packet);
  }
}

void appendBytes(void* context, void* data, int size) {
  auto* out = static_cast<std::vector<uint8_t>*>(context);
  const auto* bytes = static_cast<const uint8_t*>(data);
  out->insert(out->end(), bytes, bytes + size);
}

}  // namespace

double sampleTime(double duration) {
  if (std::isfinite(duration) && duration > 0) return std::max(0.1 * duration, 0.1);
  return 0.1;
}

void fittedSize(int displayWidth, int displayHeight, double side, int& width, int& height) {
  double scale = 1;
  int longer = std::max(displayWidth, displayHeight);
  if (std::isfinite(side) && side > 0 && longer > side) scale = side / longer;
  width = std::max(1, static_cast<int>(std::lround(displayWidth * scale)));
  height = std::max(1, static_cast<int>(std::lround(displayHeight * scale)));
}

std::optional<Picture> thumbnail(const std::string& path, double side) {
  std::string error;
  auto in = MediaInput::openFile(path, error);
  if (!in) return std::nullopt;
  int index = in->firstStream(AVMEDIA_TYPE_VIDEO);
  if (index < 0) return std::nullopt;
  const AVStream* st = in->format()->streams[index];
  Decoding d;
  if (!d.packet || !d.frame || !d.best) return std::nullopt;
  d.codec = openDecoder(*in, index, 0, error);
  if (!d.codec) return std::nullopt;

  const double time = sampleTime(in->durationSeconds());
  // Back to the first packet: by a seek, or, where the demuxer cannot seek
  // (a failed seek may also leave it at the end), by opening the file again.
  auto rewind = [&]() {
    int64_t first = st->start_time != AV_NOPTS_VALUE ? st->start_time : 0;
    avcodec_flush_buffers(d.codec);
    if (av_seek_frame(in->format(), index, first, AVSEEK_FLAG_BACKWARD) >= 0) return true;
    auto fresh = MediaInput::openFile(path, error);
    if (!fresh) return false;
    in = std::move(fresh);
    st = in->format()->streams[index];
    return true;
  };
  int64_t ts = static_cast<int64_t>(std::floor((time + in->timelineOrigin()) / av_q2d(st->time_base)));
  bool sought = av_seek_frame(in->format(), index, ts, AVSEEK_FLAG_BACKWARD) >= 0;
  if (!sought && !rewind()) return std::nullopt;
  bool tooLate = false;
  bool found = frameAt(*in, index, d, time, tooLate);
  // The seek landed past the time: read from the start instead.
  if (!found && sought && tooLate && rewind()) found = frameAt(*in, index, d, time, tooLate);
  if (!found) return std::nullopt;

  const AVFrame* f = d.best;
  if (f->width <= 0 || f->height <= 0 || f->width > 16384 || f->height > 16384 || f->format < 0)
    return std::nullopt;
  // The size as shown: non-square pixels stretched, then turned.
  AVRational sar = f->sample_aspect_ratio;
  int shownW = f->width, shownH = f->height;
  if (sar.num > 0 && sar.den > 0 && sar.num != sar.den)
    shownW = std::max(1, static_cast<int>(std::lround(f->width * av_q2d(sar))));
  DisplayTurn turn = displayTurn(st);
  if (turn.swapsAxes()) std::swap(shownW, shownH);
  Picture pic;
  fittedSize(shownW, shownH, side, pic.width, pic.height);
  // Scale in the coded orientation, then turn the small picture.
  int codedW = turn.swapsAxes() ? pic.height : pic.width;
  int codedH = turn.swapsAxes() ? pic.width : pic.height;
  SwsContext* sws = sws_getContext(f->width, f->height, static_cast<AVPixelFormat>(f->format), codedW, codedH,
                                   AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr);
  if (!sws) return std::nullopt;
  setFrameColors(sws, f);
  std::vector<uint8_t> rgb(static_cast<size_t>(codedW) * codedH * 3);
  uint8_t* dst[4] = {rgb.data(), nullptr, nullptr, nullptr};
  int dstStride[4] = {codedW * 3, 0, 0, 0};
  int rows = sws_scale(sws, f->data, f->linesize, 0, f->height, dst, dstStride);
  sws_freeContext(sws);
  if (rows != codedH) return std::nullopt;
  std::vector<uint8_t> upright;
  const uint8_t* pixels = rgb.data();
  if (!turn.identity()) {
    int w = 0, h = 0;
    applyTurn(turn, rgb.data(), codedW, codedH, codedW * 3, 3, upright, w, h);
    pixels = upright.data();
  }
  if (!stbi_write_jpg_to_func(appendBytes, &pic.jpeg, pic.width, pic.height, 3, pixels, kJpegQuality) ||
      pic.jpeg.empty())
    return std::nullopt;
  return pic;
}

}  // namespace kavlen::thumbnail
