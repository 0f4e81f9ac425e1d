#include "sequential_video_source.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "media_input.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace kavlen {

namespace {

constexpr double kLead = 0.05;       // a run starts this far ahead of the time asked
constexpr double kStepBack = 0.5;    // a step back of more than this reopens
constexpr int kMaxFailures = 64;     // undecodable packets in a row that end a run
const double kNone = std::numeric_limits<double>::quiet_NaN();

// A decoded frame held with its media time.
struct Held {
  AVFrame* frame = nullptr;
  double time = kNone;
  uint64_t serial = 0;  // which decoded frame this is, to know if the picture is stale

  bool has() const { return frame && frame->buf[0]; }
  void clear() {
    if (frame) av_frame_unref(frame);
    time = kNone;
  }
  // Takes the frame of `from`, which is left empty.
  void take(Held& from) {
    clear();
    av_frame_move_ref(frame, from.frame);
    time = from.time;
    serial = from.serial;
    from.time = kNone;
  }
  // Shares the frame of `from`, which keeps it.
  void share(const Held& from) {
    clear();
    if (av_frame_ref(frame, from.frame) < 0) return;
    time = from.time;
    serial = from.serial;
  }
};

// Converts decoded frames to straight RGBA and applies the display turn.
class PictureConverter {
 public:
  ~PictureConverter() { sws_freeContext(sws_); }

  bool convert(const AVFrame* f, const DisplayTurn& turn, VideoImage& out) {
    int w = f->width, h = f->height;
    if (w <= 0 || h <= 0 || w > 16384 || h > 16384 || f->format < 0) return false;
    sws_ = sws_getCachedContext(sws_, w, h, static_cast<AVPixelFormat>(f->format), w, h, AV_PIX_FMT_RGBA,
                                SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!sws_) return false;
    setFrameColors(sws_, f);
    std::vector<uint8_t>& target = turn.identity() ? out.rgba : scratch_;
    target.resize(static_cast<size_t>(w) * h * 4);
    uint8_t* dst[4] = {target.data(), nullptr, nullptr, nullptr};
    int dstStride[4] = {w * 4, 0, 0, 0};
    if (sws_scale(sws_, f->data, f->linesize, 0, h, dst, dstStride) != h) return false;
    if (turn.identity()) {
      out.width = w;
      out.height = h;
    } else {
      applyTurn(turn, scratch_.data(), w, h, w * 4, 4, out.rgba, out.width, out.height);
    }
    return true;
  }

 private:
  SwsContext* sws_ = nullptr;
  std::vector<uint8_t> scratch_;
};

}  // namespace

struct SequentialVideoSource::State {
  std::function<std::unique_ptr<MediaInput>(std::string&)> opener;
  std::unique_ptr<MediaInput> in;
  bool inAtStart = true;  // nothing read from `in` since it was opened
  int index = -1;
  AVRational timeBase{1, 1};
  double origin = 0;
  double frameStep = 1.0 / 30;  // for frames that come without a time
  DisplayTurn turn;
  int codedWidth = 0, codedHeight = 0;

  // The decoding run ("reader").
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  bool packetPending = false;  // a packet the decoder could not take yet
  bool flushed = false;        // the demuxer is done; the decoder is draining
  int failures = 0;
  double lastTime = kNone;     // time of the last decoded frame of the run
  uint64_t serials = 0;

  Held current, next, queued, scratch;

  PictureConverter converter;
  VideoImage image;
  uint64_t imageSerial = 0;  // serial of the frame `image` shows; 0 for none

  int opens = 0;
  double lastStart = kNone;

  State() {
    packet = av_packet_alloc();
    for (Held* h : {&current, &next, &queued, &scratch}) h->frame = av_frame_alloc();
  }
  ~State() {
    closeRun();
    for (Held* h : {&current, &next, &queued, &scratch}) av_frame_free(&h->frame);
    av_packet_free(&packet);
  }
  bool allocated() const { return packet && current.frame && next.frame && queued.frame && scratch.frame; }

  void closeRun() {
    avcodec_free_context(&codec);
    if (packetPending) av_packet_unref(packet);
    packetPending = false;
    flushed = false;
    failures = 0;
    lastTime = kNone;
    current.clear();
    next.clear();
    queued.clear();
    scratch.clear();
  }

  // Decodes the next frame of the run into `out`; false at the end of the run
  // (the end of the file, a read error, or too many undecodable packets).
  bool decodeNext(Held& out) {
    if (!codec) return false;
    for (;;) {
      int rc = avcodec_receive_frame(codec, out.frame);
      if (rc == 0) {
        failures = 0;
        int64_t pts = out.frame->best_effort_timestamp;
        double t = pts == AV_NOPTS_VALUE ? (std::isnan(lastTime) ? 0 : lastTime + frameStep)
                                         : static_cast<double>(pts) * timeBase.num / timeBase.den - origin;
        // Frames are handed out in strict time order, even from damaged files.
        if (!std::isnan(lastTime) && !(t > lastTime)) t = lastTime + 1e-6;
        lastTime = t;
        out.time = t;
        out.serial = ++serials;
        return true;
      }
      if (rc == AVERROR_EOF) return false;
      if (rc != AVERROR(EAGAIN) && ++failures > kMaxFailures) return false;
      if (flushed) return false;
      // Feed one packet of the track.
      if (!packetPending) {
        inAtStart = false;
        rc = av_read_frame(in->format(), packet);
        if (rc < 0) {
          // The end of the file, or damage that reads as its end.
          flushed = true;
          avcodec_send_packet(codec, nullptr);
          continue;
        }
        if (packet->stream_index != index) {
          av_packet_unref(packet);
          continue;
        }
        packetPending = true;
      }
      rc = avcodec_send_packet(codec, packet);
      if (rc == AVERROR(EAGAIN)) continue;  // take frames first, then send it again
      av_packet_unref(packet);
      packetPending = false;
      if (rc < 0 && ++failures > kMaxFailures) return false;
    }
  }

  bool pull(Held& out) {
    if (queued.has()) {
      out.take(queued);
      return true;
    }
    out.clear();
    return decodeNext(out);
  }

  // Puts the demuxer at or before `start` seconds; `fromBeginning` reopens the
  // file when a seek is not possible.
  bool position(double start, bool fromBeginning) {
    if (packetPending) av_packet_unref(packet);
    packetPending = false;
    flushed = false;
    lastTime = kNone;
    if (codec) avcodec_flush_buffers(codec);
    if (fromBeginning || start <= 0) {
      if (inAtStart) return true;
      const AVStream* st = in->format()->streams[index];
      int64_t first = st->start_time != AV_NOPTS_VALUE ? st->start_time : 0;
      if (av_seek_frame(in->format(), index, first, AVSEEK_FLAG_BACKWARD) >= 0) return true;
      // Not seekable: open the file again.
      std::string error;
      auto fresh = opener(error);
      if (!fresh) return false;
      in = std::move(fresh);
      inAtStart = true;
      return true;
    }
    int64_t ts = static_cast<int64_t>(std::floor((start + origin) / av_q2d(timeBase)));
    if (av_seek_frame(in->format(), index, ts, AVSEEK_FLAG_BACKWARD) < 0) return position(0, true);
    inAtStart = false;
    return true;
  }

  // Reads the run up to `start`: the frame shown at `start` (the last one not
  // after it) becomes `next`, and the frame after it waits in `queued`. False
  // when the demuxer landed after `start`, so the caller must go further back.
  bool fill(double start, bool atBeginning) {
    bool haveCandidate = false;
    while (decodeNext(scratch)) {
      if (scratch.time <= start) {
        next.take(scratch);
        haveCandidate = true;
        continue;
      }
      if (!haveCandidate) {
        if (!atBeginning) return false;
        next.take(scratch);  // the file starts after `start`: its first frame it is
      } else {
        queued.take(scratch);
      }
      return true;
    }
    return haveCandidate || atBeginning;
  }
};

SequentialVideoSource::SequentialVideoSource(std::unique_ptr<State> state) : s_(std::move(state)) {}
SequentialVideoSource::~SequentialVideoSource() = default;

namespace {

std::unique_ptr<SequentialVideoSource::State> makeState(
    std::function<std::unique_ptr<MediaInput>(std::string&)> opener) {
  auto s = std::make_unique<SequentialVideoSource::State>();
  if (!s->allocated()) return nullptr;
  std::string error;
  s->in = opener(error);
  if (!s->in) return nullptr;
  s->index = s->in->firstStream(AVMEDIA_TYPE_VIDEO);
  if (s->index < 0) return nullptr;
  const AVStream* st = s->in->format()->streams[s->index];
  s->opener = std::move(opener);
  s->timeBase = st->time_base.num > 0 && st->time_base.den > 0 ? st->time_base : AVRational{1, 90000};
  s->origin = s->in->timelineOrigin();
  AVRational rate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
  if (rate.num > 0 && rate.den > 0) s->frameStep = std::clamp(av_q2d(av_inv_q(rate)), 1e-4, 10.0);
  s->turn = displayTurn(st);
  s->codedWidth = st->codecpar->width;
  s->codedHeight = st->codecpar->height;
  return s;
}

}  // namespace

std::unique_ptr<SequentialVideoSource> SequentialVideoSource::create(const std::string& path) {
  auto state = makeState([path](std::string& error) { return MediaInput::openFile(path, error); });
  if (!state) return nullptr;
  return std::unique_ptr<SequentialVideoSource>(new SequentialVideoSource(std::move(state)));
}

std::unique_ptr<SequentialVideoSource> SequentialVideoSource::createFromMemory(
    std::shared_ptr<const std::vector<uint8_t>> bytes) {
  if (!bytes) return nullptr;
  auto state = makeState([bytes](std::string& error) { return MediaInput::openMemory(bytes, error); });
  if (!state) return nullptr;
  return std::unique_ptr<SequentialVideoSource>(new SequentialVideoSource(std::move(state)));
}

void SequentialVideoSource::open(double t) {
  State& s = *s_;
  s.opens++;
  double start = std::max(t - kLead, 0.0);
  s.lastStart = start;
  s.closeRun();
  std::string error;
  s.codec = openDecoder(*s.in, s.index, 0, error);
  if (!s.codec) return;  // no reader: the next call tries again
  // A seek lands on a key frame at or before the target; if the demuxer's
  // idea of "before" was wrong, go further back, and at last to the start.
  const double backoffs[] = {0, 1, 4, 16};
  for (double back : backoffs) {
    double target = start - back;
    bool beginning = target <= 0;
    if (!s.position(beginning ? 0 : target, beginning)) return;
    if (s.fill(start, beginning)) return;
    s.next.clear();
    s.scratch.clear();
  }
  if (s.position(0, true)) s.fill(start, true);
}

const VideoImage* SequentialVideoSource::frame(double t) {
  State& s = *s_;
  if (std::isnan(t)) t = 0;
  if (!s.codec || (s.current.has() && t < s.current.time - kStepBack)) open(t);
  while (s.next.has()) {
    if (t < s.next.time) {
      if (!s.current.has()) s.current.share(s.next);
      break;
    }
    s.current.take(s.next);
    s.pull(s.next);
  }
  if (!s.current.has()) return nullptr;
  if (s.imageSerial != s.current.serial) {
    if (!s.converter.convert(s.current.frame, s.turn, s.image)) return nullptr;
    s.imageSerial = s.current.serial;
  }
  return &s.image;
}

int SequentialVideoSource::naturalWidth() const { return s_->codedWidth; }
int SequentialVideoSource::naturalHeight() const { return s_->codedHeight; }
bool SequentialVideoSource::rotated() const { return !s_->turn.identity(); }
int SequentialVideoSource::openCount() const { return s_->opens; }
double SequentialVideoSource::lastOpenStart() const { return s_->lastStart; }
double SequentialVideoSource::currentTime() const { return s_->current.has() ? s_->current.time : kNone; }

}  // namespace kavlen
