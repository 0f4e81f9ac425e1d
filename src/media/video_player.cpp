// The decode thread and clock of VideoPlayer.
#include "video_player.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/hwcontext.h>
#include <libavutil/pixdesc.h>
}

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <utility>

// FFmpeg's frame threads hand pictures over through atomics inside the
// library, which is not built for ThreadSanitizer; it then reports races that
// are not there. Under it the decoder runs on one thread, which leaves every
// hand-over of this file in view.
#if defined(__SANITIZE_THREAD__)
#define KAVLEN_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KAVLEN_UNDER_TSAN 1
#endif
#endif

namespace {

double monotonicSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

const AVRational kMicros = {1, 1000000};

// Chooses VA-API surfaces when the decoder offers them, otherwise the first
// software format, which is what FFmpeg itself would pick.
AVPixelFormat pickFormat(AVCodecContext*, const AVPixelFormat* formats) {
  for (const AVPixelFormat* p = formats; *p != AV_PIX_FMT_NONE; p++)
    if (*p == AV_PIX_FMT_VAAPI) return *p;
  for (const AVPixelFormat* p = formats; *p != AV_PIX_FMT_NONE; p++) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(*p);
    if (d && !(d->flags & AV_PIX_FMT_FLAG_HWACCEL)) return *p;
  }
  return AV_PIX_FMT_NONE;
}

std::string avError(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

}  // namespace

VideoPlayer::Frame::~Frame() { av_frame_free(&frame); }

// FFmpeg state of one open file; used only by the decode thread.
class VideoPlayer::Decoder {
 public:
  ~Decoder() {
    avcodec_free_context(&ctx_);
    avformat_close_input(&fmt_);
    av_buffer_unref(&hwDevice_);
    av_packet_free(&pkt_);
    av_frame_free(&hwFrame_);
  }

  bool open(const std::string& path, bool allowHardware, std::string& error) {
    pkt_ = av_packet_alloc();
    hwFrame_ = av_frame_alloc();
    if (!pkt_ || !hwFrame_) return fail(error, "sem memória");
    int r = avformat_open_input(&fmt_, path.c_str(), nullptr, nullptr);
    if (r < 0) return fail(error, "não abre: " + avError(r));
    if ((r = avformat_find_stream_info(fmt_, nullptr)) < 0) return fail(error, "sem informação: " + avError(r));
    const AVCodec* codec = nullptr;
    stream_ = av_find_best_stream(fmt_, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream_ < 0 || !codec) return fail(error, "sem faixa de vídeo");
    // Every other track is skipped by the demuxer, which keeps audio silent
    // and cheap.
    for (unsigned i = 0; i < fmt_->nb_streams; i++)
      if (static_cast<int>(i) != stream_) fmt_->streams[i]->discard = AVDISCARD_ALL;
    AVStream* st = fmt_->streams[stream_];
    tb_ = st->time_base;
    start_ = st->start_time != AV_NOPTS_VALUE ? st->start_time : 0;
    AVRational fps = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
    if (fps.num > 0 && fps.den > 0) frameUs_ = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(fps), kMicros));
    if (st->duration > 0)
      durationUs_ = av_rescale_q(st->duration, tb_, kMicros);
    else if (fmt_->duration > 0)
      durationUs_ = fmt_->duration;
    if (!openCodec(codec, allowHardware && hardwareAvailable(codec), error)) return false;
    return true;
  }

  // Positions the demuxer at the key frame at or before `targetUs`.
  void seek(int64_t targetUs) {
    int64_t ts = av_rescale_q(targetUs, kMicros, tb_) + start_;
    if (av_seek_frame(fmt_, stream_, ts, AVSEEK_FLAG_BACKWARD) < 0) {
      // Some demuxers find no index entry before the first key frame.
      av_seek_frame(fmt_, stream_, start_, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY);
    }
    avcodec_flush_buffers(ctx_);
    draining_ = false;
    nextPtsUs_ = INT64_MIN;
    lastEndUs_ = 0;
  }

  // The next picture in presentation order, or nothing at the end of the
  // stream or when the rest of it cannot be decoded.
  std::shared_ptr<Frame> next() {
    int badPackets = 0;
    for (;;) {
      int r = avcodec_receive_frame(ctx_, hwFrame_);
      if (r == 0) return wrap();
      if (r == AVERROR_EOF) return nullptr;
      if (r != AVERROR(EAGAIN)) return nullptr;
      if (draining_) return nullptr;
      r = av_read_frame(fmt_, pkt_);
      if (r < 0) {
        // End of file or a read error: let the decoder give what it holds.
        avcodec_send_packet(ctx_, nullptr);
        draining_ = true;
        continue;
      }
      if (pkt_->stream_index != stream_) {
        av_packet_unref(pkt_);
        continue;
      }
      r = avcodec_send_packet(ctx_, pkt_);
      av_packet_unref(pkt_);
      // A damaged packet is skipped; a file of nothing but damage ends.
      if (r < 0 && r != AVERROR(EAGAIN) && ++badPackets > 256) return nullptr;
    }
  }

  int32_t width() const { return ctx_->width; }
  int32_t height() const { return ctx_->height; }
  int64_t durationUs() const { return durationUs_; }
  int64_t frameUs() const { return frameUs_; }
  int64_t lastEndUs() const { return lastEndUs_; }
  // True once after the decoder was replaced in mid-stream.
  bool takeRestart() { return std::exchange(restart_, false); }
  bool hardware() const { return hwDevice_ != nullptr; }

 private:
  bool fail(std::string& error, std::string why) {
    error = std::move(why);
    return false;
  }

  // VA-API needs a render node; without one the device cannot open, and
  // asking FFmpeg only fills the log with its attempt.
  static bool hardwareAvailable(const AVCodec* codec) {
    struct stat s{};
    if (stat("/dev/dri/renderD128", &s) != 0) return false;
    for (int i = 0;; i++) {
      const AVCodecHWConfig* c = avcodec_get_hw_config(codec, i);
      if (!c) return false;
      if (c->device_type == AV_HWDEVICE_TYPE_VAAPI && (c->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX))
        return true;
    }
  }

  bool openCodec(const AVCodec* codec, bool hardware, std::string& error) {
    avcodec_free_context(&ctx_);
    av_buffer_unref(&hwDevice_);
    ctx_ = avcodec_alloc_context3(codec);
    if (!ctx_) return fail(error, "sem memória");
    int r = avcodec_parameters_to_context(ctx_, fmt_->streams[stream_]->codecpar);
    if (r < 0) return fail(error, "parâmetros: " + avError(r));
    ctx_->pkt_timebase = tb_;
    if (hardware && av_hwdevice_ctx_create(&hwDevice_, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0) == 0) {
      ctx_->hw_device_ctx = av_buffer_ref(hwDevice_);
      ctx_->get_format = pickFormat;
    } else {
      av_buffer_unref(&hwDevice_);
#ifdef KAVLEN_UNDER_TSAN
      ctx_->thread_count = 1;
#else
      // Frame threads on every core: software decoding is the slow part.
      ctx_->thread_count = 0;
      ctx_->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
#endif
    }
    r = avcodec_open2(ctx_, codec, nullptr);
    if (r < 0 && hwDevice_) return openCodec(codec, false, error);
    if (r < 0) return fail(error, "decodificador: " + avError(r));
    codec_ = codec;
    return true;
  }

  std::shared_ptr<Frame> wrap() {
    auto out = std::make_shared<Frame>();
    if (hwFrame_->format == AV_PIX_FMT_VAAPI) {
      out->frame = av_frame_alloc();
      if (!out->frame || av_hwframe_transfer_data(out->frame, hwFrame_, 0) < 0) {
        av_frame_unref(hwFrame_);
        // The surfaces cannot be read back: software from here on, and the
        // caller restarts the stream from a key frame on the new decoder.
        std::string ignored;
        openCodec(codec_, false, ignored);
        restart_ = true;
        return nullptr;
      }
      av_frame_copy_props(out->frame, hwFrame_);
      av_frame_unref(hwFrame_);
    } else {
      out->frame = av_frame_clone(hwFrame_);
      av_frame_unref(hwFrame_);
      if (!out->frame) return nullptr;
    }
    AVFrame* f = out->frame;
    int64_t pts = f->best_effort_timestamp;
    if (pts != AV_NOPTS_VALUE) {
      out->ptsUs = av_rescale_q(pts - start_, tb_, kMicros);
      // The end is where the next picture begins, rounded the same way, so
      // that a frame's last microsecond is never lost between the two.
      int64_t end = f->pkt_duration > 0 ? av_rescale_q(pts - start_ + f->pkt_duration, tb_, kMicros)
                                        : out->ptsUs + frameUs_;
      out->durationUs = std::max<int64_t>(1, end - out->ptsUs);
    } else {
      out->ptsUs = nextPtsUs_ == INT64_MIN ? 0 : nextPtsUs_;
      out->durationUs = frameUs_;
    }
    nextPtsUs_ = out->ptsUs + out->durationUs;
    lastEndUs_ = std::max(lastEndUs_, nextPtsUs_);
    return out;
  }

  AVFormatContext* fmt_ = nullptr;
  AVCodecContext* ctx_ = nullptr;
  const AVCodec* codec_ = nullptr;
  AVBufferRef* hwDevice_ = nullptr;
  AVPacket* pkt_ = nullptr;
  AVFrame* hwFrame_ = nullptr;
  int stream_ = -1;
  AVRational tb_{1, 1};
  int64_t start_ = 0;
  int64_t frameUs_ = 40000;
  int64_t durationUs_ = 0;
  int64_t nextPtsUs_ = INT64_MIN;
  int64_t lastEndUs_ = 0;
  bool draining_ = false;
  bool restart_ = false;
};

VideoPlayer::VideoPlayer(std::string path) : VideoPlayer(std::move(path), Options{}) {}

VideoPlayer::VideoPlayer(std::string path, Options options) : path_(std::move(path)), options_(std::move(options)) {
  thread_ = std::thread([this] { run(); });
}

VideoPlayer::~VideoPlayer() {
  {
    std::lock_guard<std::mutex> g(m_);
    stop_ = true;
  }
  cv_.notify_all();
  thread_.join();
  if (pendingDone_) pendingDone_(false);
}

double VideoPlayer::hostTime() const { return options_.hostClock ? options_.hostClock() : monotonicSeconds(); }

VideoPlayer::Status VideoPlayer::status() const {
  std::lock_guard<std::mutex> g(m_);
  return status_;
}

VideoPlayer::Status VideoPlayer::waitOpened(double seconds) const {
  std::unique_lock<std::mutex> lk(m_);
  cv_.wait_for(lk, std::chrono::duration<double>(seconds), [&] { return status_ != Status::Opening; });
  return status_;
}

std::string VideoPlayer::error() const {
  std::lock_guard<std::mutex> g(m_);
  return error_;
}

int32_t VideoPlayer::width() const {
  std::lock_guard<std::mutex> g(m_);
  return width_;
}

int32_t VideoPlayer::height() const {
  std::lock_guard<std::mutex> g(m_);
  return height_;
}

int64_t VideoPlayer::durationUs() const {
  std::lock_guard<std::mutex> g(m_);
  return durationUs_;
}

float VideoPlayer::rate() const {
  std::lock_guard<std::mutex> g(m_);
  return rate_;
}

std::optional<int64_t> VideoPlayer::currentTimeUs() {
  double host = hostTime();
  std::lock_guard<std::mutex> g(m_);
  if (status_ != Status::Ready) return std::nullopt;
  return positionLocked(host);
}

std::optional<int64_t> VideoPlayer::itemTimeForHostTime(double hostSeconds) {
  std::lock_guard<std::mutex> g(m_);
  if (status_ != Status::Ready) return std::nullopt;
  return positionLocked(hostSeconds);
}

// The clock never leaves [0, duration]. Running forwards into the end
// records the end once; the clock then stays there until a seek or a rate
// that is not forwards.
int64_t VideoPlayer::positionLocked(double host) {
  if (holding_) return static_cast<int64_t>(anchorMediaUs_);
  if (atEnd_ && rate_ > 0) return durationUs_;
  double m = anchorMediaUs_ + (host - anchorHost_) * 1e6 * static_cast<double>(rate_);
  if (durationUs_ > 0 && m >= static_cast<double>(durationUs_)) {
    if (rate_ > 0) {
      atEnd_ = true;
      ended_ = true;
      anchorMediaUs_ = static_cast<double>(durationUs_);
      anchorHost_ = host;
    }
    return durationUs_;
  }
  if (m < 0) return 0;
  // Beyond any real file; keeps the conversion defined for absurd rates.
  if (m > 9.0e18) return static_cast<int64_t>(9.0e18);
  return static_cast<int64_t>(m);
}

void VideoPlayer::reanchorLocked(double host) {
  if (status_ != Status::Ready || holding_) return;
  anchorMediaUs_ = static_cast<double>(positionLocked(host));
  anchorHost_ = host;
}

void VideoPlayer::setRate(float rate) {
  if (!std::isfinite(rate)) rate = 0;
  double host = hostTime();
  std::lock_guard<std::mutex> g(m_);
  reanchorLocked(host);
  if (rate <= 0) atEnd_ = false;
  // Decoding ahead serves one direction only; turning forwards again needs
  // the frames after the clock, which a backward run has not kept.
  if (status_ == Status::Ready && !holding_ && !request_ && reverse_ && rate >= 0)
    requestLocked(static_cast<int64_t>(anchorMediaUs_), false);
  rate_ = rate;
}

void VideoPlayer::requestLocked(int64_t targetUs, bool reverse) {
  serial_++;
  request_ = Request{targetUs, serial_, reverse};
  queue_.clear();
  eof_ = false;
  cv_.notify_all();
}

void VideoPlayer::seek(int64_t targetUs, Completion done) {
  Completion replaced;
  {
    std::lock_guard<std::mutex> g(m_);
    if (status_ == Status::Failed) {
      replaced = std::move(done);
      done = nullptr;
    } else {
      targetUs = std::max<int64_t>(0, targetUs);
      if (durationUs_ > 0) targetUs = std::min(targetUs, durationUs_);
      anchorMediaUs_ = static_cast<double>(targetUs);
      anchorHost_ = hostTime();
      holding_ = true;
      atEnd_ = false;
      ended_ = false;
      requestLocked(targetUs, rate_ < 0);
      seekSerial_ = serial_;
      replaced = std::move(pendingDone_);
      pendingDone_ = std::move(done);
    }
  }
  if (replaced) replaced(false);
}

bool VideoPlayer::takeEnded() {
  double host = hostTime();
  std::lock_guard<std::mutex> g(m_);
  if (status_ == Status::Ready) positionLocked(host);
  bool e = ended_;
  ended_ = false;
  return e;
}

VideoPlayer::FramePtr VideoPlayer::frameForHostTime(double hostSeconds) {
  std::lock_guard<std::mutex> g(m_);
  if (status_ != Status::Ready || holding_ || queue_.empty()) return last_;
  const int64_t t = positionLocked(hostSeconds);
  // The last queued frame that has begun by t.
  ptrdiff_t idx = -1;
  for (size_t i = 0; i < queue_.size() && queue_[i]->ptsUs <= t; i++) idx = static_cast<ptrdiff_t>(i);
  if (idx < 0) {
    // The clock is before everything decoded. Fine by a frame or two, or
    // when decoding already started from this time and found nothing
    // earlier (a first picture that starts late, pictures lost to damage);
    // otherwise the decoder must go back for it.
    if (queue_.front()->ptsUs - t > 2 * frameUs_ && (rate_ < 0 || t < decodedFromUs_)) {
      if (!request_) requestLocked(t, rate_ < 0);
      return last_;
    }
    idx = 0;
  }
  FramePtr chosen = queue_[static_cast<size_t>(idx)];
  if (!reverse_) {
    for (ptrdiff_t i = 0; i < idx; i++) queue_.pop_front();
    if (idx > 0) cv_.notify_all();
    // Decoding has fallen far behind a fast clock: jump rather than decode
    // every frame in between.
    bool lastQueued = queue_.size() == 1;
    if (lastQueued && !eof_ && !request_ && t - (chosen->ptsUs + chosen->durationUs) > 500000)
      requestLocked(t, rate_ < 0);
  } else {
    while (queue_.size() > static_cast<size_t>(idx) + 1) queue_.pop_back();
  }
  last_ = chosen;
  return chosen;
}

void VideoPlayer::finishSeekLocked(uint64_t serial, std::optional<Completion>& out) {
  if (!holding_ || serial != seekSerial_) return;
  holding_ = false;
  anchorHost_ = hostTime();
  out = std::move(pendingDone_);
  pendingDone_ = nullptr;
}

bool VideoPlayer::pushLocked(uint64_t serial, FramePtr f) {
  if (serial != serial_ || !f) return false;
  queue_.push_back(std::move(f));
  return true;
}

void VideoPlayer::run() {
  Decoder dec;
  std::string err;
  const bool ok = dec.open(path_, options_.allowHardware, err);
  const size_t ahead = static_cast<size_t>(std::max(1, options_.aheadFrames));
  Completion failedDone;
  {
    std::lock_guard<std::mutex> g(m_);
    if (ok) {
      status_ = Status::Ready;
      width_ = dec.width();
      height_ = dec.height();
      durationUs_ = dec.durationUs();
      frameUs_ = dec.frameUs();
      // The clock starts when the file is ready, not when it was asked for.
      if (!holding_) anchorHost_ = hostTime();
      hardware_ = dec.hardware();
    } else {
      status_ = Status::Failed;
      error_ = err;
      holding_ = false;
      request_.reset();
      failedDone = std::move(pendingDone_);
      pendingDone_ = nullptr;
    }
  }
  cv_.notify_all();
  if (failedDone) failedDone(false);
  if (!ok) return;

  for (;;) {
    std::optional<Request> req;
    uint64_t serial = 0;
    {
      std::unique_lock<std::mutex> lk(m_);
      cv_.wait(lk, [&] { return stop_ || request_ || (!reverse_ && !eof_ && queue_.size() < ahead); });
      if (stop_) return;
      req = request_;
      request_.reset();
      serial = serial_;
    }

    if (!req) {
      std::shared_ptr<Frame> f = dec.next();
      std::lock_guard<std::mutex> g(m_);
      if (!f && dec.takeRestart()) {
        FramePtr tail = queue_.empty() ? last_ : queue_.back();
        if (serial == serial_) requestLocked(tail ? tail->ptsUs + tail->durationUs : 0, reverse_);
        continue;
      }
      if (f) {
        framesDecoded_++;
        pushLocked(serial, std::move(f));
      } else if (serial == serial_) {
        eof_ = true;
        if (dec.lastEndUs() > 0) durationUs_ = dec.lastEndUs();
      }
      continue;
    }

    // A reposition: from the key frame before the target, decode up to the
    // frame that shows at the target. Backwards, the frames just before it
    // are kept too, since the clock is about to need them.
    repositions_++;
    dec.seek(req->targetUs);
    std::deque<FramePtr> before;
    FramePtr hit;
    bool superseded = false;
    // When nothing decodes from the target on (a file cut short, whose index
    // still names the lost part), start further back, so that the last
    // picture that does decode shows.
    int64_t from = req->targetUs, back = 1'000'000;
    for (;;) {
      {
        std::lock_guard<std::mutex> g(m_);
        if (stop_) return;
        if (serial_ != req->serial) {
          superseded = true;
          break;
        }
      }
      std::shared_ptr<Frame> f = dec.next();
      if (!f && dec.takeRestart()) {
        dec.seek(from);
        continue;
      }
      if (!f) {
        if (!before.empty() || from == 0) break;
        from = std::max<int64_t>(0, from - back);
        back *= 2;
        dec.seek(from);
        continue;
      }
      framesDecoded_++;
      if (f->ptsUs + f->durationUs <= req->targetUs) {
        if (!req->reverse) before.clear();
        before.push_back(std::move(f));
        if (before.size() > 2 * ahead) before.pop_front();
        continue;
      }
      hit = std::move(f);
      break;
    }
    if (superseded) continue;

    std::optional<Completion> done;
    const bool shown = hit || !before.empty();
    {
      std::lock_guard<std::mutex> g(m_);
      if (serial_ != req->serial) continue;
      reverse_ = req->reverse;
      decodedFromUs_ = req->targetUs;
      if (!hit) {
        // The target lies past the last picture, or the rest of the file
        // cannot be decoded: the last picture shows.
        eof_ = true;
        if (dec.lastEndUs() > 0) durationUs_ = dec.lastEndUs();
        if (!before.empty()) queue_.push_back(before.back());
      } else {
        if (req->reverse)
          for (FramePtr& b : before) queue_.push_back(std::move(b));
        queue_.push_back(std::move(hit));
      }
      if (durationUs_ > 0) anchorMediaUs_ = std::min(anchorMediaUs_, static_cast<double>(durationUs_));
      finishSeekLocked(req->serial, done);
    }
    cv_.notify_all();
    if (done && *done) (*done)(shown);
  }
}
