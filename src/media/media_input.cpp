#include "media_input.h"

#include <cmath>
#include <cstring>
#include <filesystem>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace kavlen {

namespace {

// FFmpeg prints warnings about damaged input on stderr by default; the media
// services answer with null instead, so only real errors are worth a line.
void quietLogs() {
  static const bool once = [] {
    if (av_log_get_level() > AV_LOG_ERROR) av_log_set_level(AV_LOG_FATAL);
    return true;
  }();
  (void)once;
}

constexpr int kIoBufferSize = 32 * 1024;

}  // namespace

std::string avErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(code, text, sizeof text);
  return text;
}

std::unique_ptr<MediaInput> MediaInput::openFile(const std::string& path, std::string& error) {
  // Only plain files: a pipe or device would block the demuxer for good.
  std::error_code ec;
  auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::exists(status)) {
    error = "cannot open " + path + ": No such file or directory";
    return nullptr;
  }
  if (!std::filesystem::is_regular_file(status)) {
    error = "cannot open " + path + ": not a regular file";
    return nullptr;
  }
  std::unique_ptr<MediaInput> in(new MediaInput());
  in->name_ = path;
  if (!in->open(error)) return nullptr;
  return in;
}

std::unique_ptr<MediaInput> MediaInput::openMemory(std::shared_ptr<const std::vector<uint8_t>> bytes,
                                                   std::string& error) {
  if (!bytes) {
    error = "no data";
    return nullptr;
  }
  std::unique_ptr<MediaInput> in(new MediaInput());
  in->name_ = "(memory)";
  in->bytes_ = std::move(bytes);
  if (!in->open(error)) return nullptr;
  return in;
}

int MediaInput::readPacket(void* opaque, uint8_t* buf, int size) {
  auto* self = static_cast<MediaInput*>(opaque);
  const std::vector<uint8_t>& data = *self->bytes_;
  if (self->pos_ >= data.size()) return AVERROR_EOF;
  size_t n = std::min(static_cast<size_t>(size), data.size() - self->pos_);
  memcpy(buf, data.data() + self->pos_, n);
  self->pos_ += n;
  return static_cast<int>(n);
}

int64_t MediaInput::seek(void* opaque, int64_t offset, int whence) {
  auto* self = static_cast<MediaInput*>(opaque);
  int64_t size = static_cast<int64_t>(self->bytes_->size());
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) return size;
  int64_t target;
  if (whence == SEEK_SET)
    target = offset;
  else if (whence == SEEK_CUR)
    target = static_cast<int64_t>(self->pos_) + offset;
  else if (whence == SEEK_END)
    target = size + offset;
  else
    return AVERROR(EINVAL);
  if (target < 0 || target > size) return AVERROR(EINVAL);
  self->pos_ = static_cast<size_t>(target);
  return target;
}

bool MediaInput::open(std::string& error) {
  quietLogs();
  fmt_ = avformat_alloc_context();
  if (!fmt_) {
    error = "out of memory";
    return false;
  }
  if (bytes_) {
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferSize));
    io_ = buffer ? avio_alloc_context(buffer, kIoBufferSize, 0, this, &MediaInput::readPacket, nullptr,
                                      &MediaInput::seek)
                 : nullptr;
    if (!io_) {
      av_free(buffer);
      avformat_free_context(fmt_);
      fmt_ = nullptr;
      error = "out of memory";
      return false;
    }
    fmt_->pb = io_;
    fmt_->flags |= AVFMT_FLAG_CUSTOM_IO;
  }
  // On failure avformat_open_input frees the context and nulls the pointer.
  int rc = avformat_open_input(&fmt_, bytes_ ? nullptr : name_.c_str(), nullptr, nullptr);
  if (rc < 0) {
    error = "cannot open " + name_ + ": " + avErrorText(rc);
    return false;
  }
  rc = avformat_find_stream_info(fmt_, nullptr);
  if (rc < 0) {
    error = "cannot read the streams of " + name_ + ": " + avErrorText(rc);
    return false;
  }
  return true;
}

MediaInput::~MediaInput() {
  if (fmt_) avformat_close_input(&fmt_);
  if (io_) {
    av_freep(&io_->buffer);
    avio_context_free(&io_);
  }
}

int MediaInput::firstStream(AVMediaType type) const {
  for (unsigned i = 0; i < fmt_->nb_streams; i++) {
    const AVStream* st = fmt_->streams[i];
    if (st->codecpar->codec_type != type) continue;
    if (type == AVMEDIA_TYPE_VIDEO && (st->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
    return static_cast<int>(i);
  }
  return -1;
}

double MediaInput::durationSeconds() const {
  if (fmt_->duration != AV_NOPTS_VALUE && fmt_->duration > 0) return fmt_->duration / double(AV_TIME_BASE);
  // Some containers only know the length of their streams.
  double best = NAN;
  for (unsigned i = 0; i < fmt_->nb_streams; i++) {
    const AVStream* st = fmt_->streams[i];
    if (st->duration == AV_NOPTS_VALUE || st->duration <= 0) continue;
    double d = st->duration * av_q2d(st->time_base);
    if (std::isfinite(d) && (!std::isfinite(best) || d > best)) best = d;
  }
  return best;
}

double MediaInput::timelineOrigin() const {
  // Only a positive start is removed: files that start at a small negative
  // time (audio priming) already have their pictures on a timeline from 0.
  if (fmt_->start_time != AV_NOPTS_VALUE && fmt_->start_time > 0) return fmt_->start_time / double(AV_TIME_BASE);
  return 0;
}

AVCodecContext* openDecoder(const MediaInput& in, int index, int threads, std::string& error) {
  const AVStream* st = in.format()->streams[index];
  const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
  if (!codec) {
    error = "no decoder for the " + std::string(av_get_media_type_string(st->codecpar->codec_type)) + " of " +
            in.name() + " (" + avcodec_get_name(st->codecpar->codec_id) + ")";
    return nullptr;
  }
  AVCodecContext* ctx = avcodec_alloc_context3(codec);
  if (!ctx) {
    error = "out of memory";
    return nullptr;
  }
  int rc = avcodec_parameters_to_context(ctx, st->codecpar);
  if (rc >= 0) {
    ctx->pkt_timebase = st->time_base;
    ctx->thread_count = threads;
    rc = avcodec_open2(ctx, codec, nullptr);
  }
  if (rc < 0) {
    error = "cannot open the decoder of " + in.name() + ": " + avErrorText(rc);
    avcodec_free_context(&ctx);
    return nullptr;
  }
  return ctx;
}

DisplayTurn displayTurn(const AVStream* stream) {
  DisplayTurn turn;
  size_t size = 0;
  const auto* m = reinterpret_cast<const int32_t*>(
      av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size));
  if (!m || size < 9 * sizeof(int32_t)) return turn;
  // The 2x2 part is 16.16 fixed point: a = m[0], b = m[1], c = m[3], d = m[4].
  double a = m[0] / 65536.0, b = m[1] / 65536.0, c = m[3] / 65536.0, d = m[4] / 65536.0;
  double sx = std::hypot(a, b), sy = std::hypot(c, d);
  if (!(sx > 0) || !(sy > 0)) return turn;
  auto snap = [](double v, int& out) {
    long r = std::lround(v);
    if (std::fabs(v - static_cast<double>(r)) > 0.01 || r < -1 || r > 1) return false;
    out = static_cast<int>(r);
    return true;
  };
  DisplayTurn t;
  if (!snap(a / sx, t.a) || !snap(b / sx, t.b) || !snap(c / sy, t.c) || !snap(d / sy, t.d)) return turn;
  // Only quarter turns and mirrors: one non-zero entry per row and column.
  bool straight = t.b == 0 && t.c == 0 && t.a != 0 && t.d != 0;
  bool crossed = t.a == 0 && t.d == 0 && t.b != 0 && t.c != 0;
  return straight || crossed ? t : turn;
}

void applyTurn(const DisplayTurn& turn, const uint8_t* src, int w, int h, int srcStride, int bpp,
               std::vector<uint8_t>& dst, int& outW, int& outH) {
  outW = turn.swapsAxes() ? h : w;
  outH = turn.swapsAxes() ? w : h;
  dst.resize(static_cast<size_t>(outW) * outH * bpp);
  // Where pixel (0, 0) lands and how far one step in x or y moves on the
  // turned picture; the shift keeps every coordinate within the picture.
  int x0 = (turn.a < 0 ? (w - 1) : 0) + (turn.c < 0 ? (h - 1) : 0);
  int y0 = (turn.b < 0 ? (w - 1) : 0) + (turn.d < 0 ? (h - 1) : 0);
  const ptrdiff_t dstRow = static_cast<ptrdiff_t>(outW) * bpp;
  const ptrdiff_t stepX = (turn.a * bpp) + turn.b * dstRow;  // one source pixel to the right
  const ptrdiff_t stepY = (turn.c * bpp) + turn.d * dstRow;  // one source row down
  uint8_t* origin = dst.data() + y0 * dstRow + static_cast<ptrdiff_t>(x0) * bpp;
  for (int y = 0; y < h; y++) {
    const uint8_t* s = src + static_cast<ptrdiff_t>(y) * srcStride;
    uint8_t* d = origin + y * stepY;
    if (bpp == 4) {
      for (int x = 0; x < w; x++, d += stepX) memcpy(d, s + x * 4, 4);
    } else {
      for (int x = 0; x < w; x++, d += stepX) memcpy(d, s + static_cast<ptrdiff_t>(x) * bpp, bpp);
    }
  }
}

void setFrameColors(SwsContext* sws, const AVFrame* f) {
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(f->format));
  if (!desc || (desc->flags & AV_PIX_FMT_FLAG_RGB) || desc->nb_components < 3) return;
  int matrix;
  switch (f->colorspace) {
    case AVCOL_SPC_BT709: matrix = SWS_CS_ITU709; break;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M: matrix = SWS_CS_ITU601; break;
    case AVCOL_SPC_SMPTE240M: matrix = SWS_CS_SMPTE240M; break;
    case AVCOL_SPC_FCC: matrix = SWS_CS_FCC; break;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: matrix = SWS_CS_BT2020; break;
    default: matrix = f->height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601; break;
  }
  bool full = f->color_range == AVCOL_RANGE_JPEG;
  switch (f->format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUVJ440P:
    case AV_PIX_FMT_YUVJ411P: full = true; break;
    default: break;
  }
  sws_setColorspaceDetails(sws, sws_getCoefficients(matrix), full ? 1 : 0, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                           0, 1 << 16, 1 << 16);
}

}  // namespace kavlen
