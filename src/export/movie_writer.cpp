#include "movie_writer.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "media_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace kavlen::exporter {

int64_t videoBitRate(int64_t requested, int64_t width, int64_t height) {
  if (requested >= 1) return requested;
  return std::max<int64_t>(width * height * 6, 4000000);
}

namespace {

constexpr int kMaxSide = 16384;
// Frames queued for the encoder before the writer stops being ready: enough
// to keep the encoder busy while the next frame is drawn, few enough to keep
// memory small (a 1080p frame is 8 MB).
constexpr size_t kVideoQueue = 3;
constexpr size_t kAudioQueue = 8;
constexpr int kAacFrame = 1024;

// A pool of frame buffers that outlives its writer, so that a buffer still
// held by a caller can be handed back (or dropped) safely.
struct FramePool {
  std::mutex mutex;
  std::vector<std::unique_ptr<FrameBuffer>> free;
  int width = 0, height = 0;
  bool open = true;
};

std::shared_ptr<FrameBuffer> takeBuffer(const std::shared_ptr<FramePool>& pool) {
  std::unique_ptr<FrameBuffer> buf;
  {
    std::lock_guard lock(pool->mutex);
    if (!pool->open) return nullptr;
    if (!pool->free.empty()) {
      buf = std::move(pool->free.back());
      pool->free.pop_back();
    }
  }
  if (!buf) {
    try {
      buf = std::make_unique<FrameBuffer>();
      buf->width = pool->width;
      buf->height = pool->height;
      buf->stride = static_cast<int64_t>(pool->width) * 4;
      buf->pixels.assign(static_cast<size_t>(buf->stride) * pool->height, 0);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  std::weak_ptr<FramePool> weak = pool;
  return std::shared_ptr<FrameBuffer>(buf.release(), [weak](FrameBuffer* b) {
    std::unique_ptr<FrameBuffer> owned(b);
    if (auto p = weak.lock()) {
      std::lock_guard lock(p->mutex);
      if (p->open && p->free.size() < kVideoQueue + 3) p->free.push_back(std::move(owned));
    }
  });
}

struct Item {
  enum Kind { Video, EndVideo, Audio, EndAudio } kind;
  std::shared_ptr<FrameBuffer> frame;
  std::vector<float> samples;
  int64_t time = 0;  // ms for video, frames for audio
};

}  // namespace

struct MovieWriter::Impl {
  MovieSettings s;
  std::string codecName;
  int64_t bitRate = 0;

  AVFormatContext* fmt = nullptr;
  AVCodecContext* venc = nullptr;
  AVCodecContext* aenc = nullptr;
  AVStream* vst = nullptr;
  AVStream* ast = nullptr;
  SwsContext* sws = nullptr;
  AVFrame* picture = nullptr;
  AVFrame* sound = nullptr;
  AVPacket* packet = nullptr;
  bool headerWritten = false;
  std::vector<float> pendingLeft, pendingRight;  // audio not yet a whole AAC frame
  int64_t audioPts = 0;

  std::shared_ptr<FramePool> pool = std::make_shared<FramePool>();

  mutable std::mutex mutex;
  std::condition_variable work;           // the encoding thread waits here
  mutable std::condition_variable ready;  // producers and finishWriting wait here
  std::deque<Item> queue;
  size_t queuedVideo = 0, queuedAudio = 0;
  Status status = Status::Writing;
  std::string error;
  bool videoEnded = false, audioEnded = false;
  bool finishRequested = false, cancelRequested = false, threadDone = false, paused = false;
  int64_t lastVideoMs = -1, nextAudioFrame = 0;
  Timing timing;
  std::thread thread;

  ~Impl() { release(); }

  void release() {
    sws_freeContext(sws);
    sws = nullptr;
    av_frame_free(&picture);
    av_frame_free(&sound);
    av_packet_free(&packet);
    avcodec_free_context(&venc);
    avcodec_free_context(&aenc);
    if (fmt) {
      if (fmt->pb) avio_closep(&fmt->pb);
      avformat_free_context(fmt);
      fmt = nullptr;
    }
  }

  std::string failText(const std::string& what, int rc) const { return what + " " + s.path + ": " + avErrorText(rc); }

  bool open(std::string& err);
  bool openVideo(std::string& err);
  bool openAudio(std::string& err);

  // Encoding thread.
  void run();
  bool encodeVideo(const FrameBuffer& frame, int64_t ms, std::string& err);
  bool encodeAudio(const std::vector<float>& interleaved, std::string& err);
  bool sendAudioFrame(int count, std::string& err);
  bool drain(AVCodecContext* enc, AVStream* st, std::string& err);
  bool finalize(std::string& err);

  void fail(const std::string& text) {
    std::lock_guard lock(mutex);
    if (status == Status::Writing || status == Status::Finishing) {
      status = Status::Failed;
      error = text;
    }
    ready.notify_all();
  }
};

bool MovieWriter::Impl::open(std::string& err) {
  if (s.width < 1 || s.height < 1 || s.width > kMaxSide || s.height > kMaxSide) {
    err = "the frame size " + std::to_string(s.width) + "x" + std::to_string(s.height) + " cannot be encoded";
    return false;
  }
  if (s.width % 2 || s.height % 2) {
    err = "the frame size " + std::to_string(s.width) + "x" + std::to_string(s.height) +
          " cannot be encoded: width and height must be even";
    return false;
  }
  if (s.fps < 1 || s.fps > 1000) {
    err = "the frame rate " + std::to_string(s.fps) + " cannot be encoded (1 to 1000)";
    return false;
  }
  if (s.audio && (s.audioBitrate < 1 || s.audioBitrate > 1000000)) {
    err = "the audio bit rate " + std::to_string(s.audioBitrate) + " cannot be encoded";
    return false;
  }
  codecName = s.codec == "hevc" || s.codec == "prores" ? s.codec : "h264";
  bitRate = videoBitRate(s.bitrate, s.width, s.height);
  const char* container = codecName == "prores" ? "mov" : "mp4";
  int rc = avformat_alloc_output_context2(&fmt, nullptr, container, s.path.c_str());
  if (rc < 0 || !fmt) {
    err = failText("cannot create", rc);
    return false;
  }
  packet = av_packet_alloc();
  if (!packet) {
    err = "out of memory";
    return false;
  }
  if (!openVideo(err)) return false;
  if (s.audio && !openAudio(err)) return false;
  rc = avio_open(&fmt->pb, s.path.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0) {
    err = failText("cannot create", rc);
    return false;
  }
  // The index goes in front at the end, so players can start before the
  // whole file has arrived (a movie on a web page).
  AVDictionary* muxOptions = nullptr;
  av_dict_set(&muxOptions, "movflags", "+faststart", 0);
  rc = avformat_write_header(fmt, &muxOptions);
  av_dict_free(&muxOptions);
  if (rc < 0) {
    err = failText("cannot write", rc);
    return false;
  }
  headerWritten = true;
  pool->width = s.width;
  pool->height = s.height;
  return true;
}

bool MovieWriter::Impl::openVideo(std::string& err) {
  const char* encoderName = codecName == "hevc" ? "libx265" : codecName == "prores" ? "prores_ks" : "libx264";
  const AVCodec* codec = avcodec_find_encoder_by_name(encoderName);
  if (!codec) {
    err = std::string("this FFmpeg has no ") + encoderName + " encoder";
    return false;
  }
  venc = avcodec_alloc_context3(codec);
  vst = avformat_new_stream(fmt, nullptr);
  picture = av_frame_alloc();
  if (!venc || !vst || !picture) {
    err = "out of memory";
    return false;
  }
  venc->width = s.width;
  venc->height = s.height;
  venc->time_base = AVRational{1, 1000};  // frame times are whole milliseconds
  venc->framerate = AVRational{s.fps, 1};
  venc->sample_aspect_ratio = AVRational{1, 1};
  // The matrix that players assume for a picture of this size when a file
  // says nothing, and say so as well.
  bool hd = s.height >= 720;
  venc->colorspace = hd ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  venc->color_primaries = hd ? AVCOL_PRI_BT709 : AVCOL_PRI_SMPTE170M;
  venc->color_trc = hd ? AVCOL_TRC_BT709 : AVCOL_TRC_SMPTE170M;
  venc->color_range = AVCOL_RANGE_MPEG;
  venc->thread_count = 0;
  if (codecName == "prores") {
    venc->pix_fmt = AV_PIX_FMT_YUV422P10LE;
    av_opt_set(venc->priv_data, "profile", "standard", 0);
    av_opt_set(venc->priv_data, "vendor", "apl0", 0);
  } else {
    venc->pix_fmt = AV_PIX_FMT_YUV420P;
    venc->bit_rate = bitRate;
    venc->gop_size = s.fps * 2;  // a key frame every two seconds keeps seeking quick
    if (codecName == "hevc") {
      av_opt_set(venc->priv_data, "preset", "ultrafast", 0);
      av_opt_set(venc->priv_data, "x265-params", "log-level=error", 0);
      venc->codec_tag = MKTAG('h', 'v', 'c', '1');
    } else {
      // The fastest preset that keeps High-profile tools (CABAC, 8x8
      // transforms, B-frames); the bit rate is generous enough for it.
      av_opt_set(venc->priv_data, "preset", "superfast", 0);
      av_opt_set(venc->priv_data, "profile", "high", 0);
    }
  }
  if (fmt->oformat->flags & AVFMT_GLOBALHEADER) venc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  int rc = avcodec_open2(venc, codec, nullptr);
  if (rc < 0) {
    err = std::string("cannot open the ") + encoderName + " encoder: " + avErrorText(rc);
    return false;
  }
  rc = avcodec_parameters_from_context(vst->codecpar, venc);
  if (rc < 0) {
    err = avErrorText(rc);
    return false;
  }
  vst->time_base = venc->time_base;
  vst->avg_frame_rate = venc->framerate;
  sws = sws_getContext(s.width, s.height, AV_PIX_FMT_RGBA, s.width, s.height, venc->pix_fmt, SWS_BILINEAR, nullptr,
                       nullptr, nullptr);
  if (!sws) {
    err = "cannot set up the colour conversion";
    return false;
  }
  sws_setColorspaceDetails(sws, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                           sws_getCoefficients(hd ? SWS_CS_ITU709 : SWS_CS_ITU601), 0, 0, 1 << 16, 1 << 16);
  return true;
}

bool MovieWriter::Impl::openAudio(std::string& err) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (!codec) {
    err = "this FFmpeg has no AAC encoder";
    return false;
  }
  aenc = avcodec_alloc_context3(codec);
  ast = avformat_new_stream(fmt, nullptr);
  sound = av_frame_alloc();
  if (!aenc || !ast || !sound) {
    err = "out of memory";
    return false;
  }
  aenc->sample_fmt = AV_SAMPLE_FMT_FLTP;
  aenc->sample_rate = kAudioRate;
  aenc->time_base = AVRational{1, kAudioRate};
  aenc->bit_rate = s.audioBitrate;
  AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  av_channel_layout_copy(&aenc->ch_layout, &stereo);
  if (fmt->oformat->flags & AVFMT_GLOBALHEADER) aenc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  int rc = avcodec_open2(aenc, codec, nullptr);
  if (rc < 0) {
    err = "cannot open the AAC encoder: " + avErrorText(rc);
    return false;
  }
  rc = avcodec_parameters_from_context(ast->codecpar, aenc);
  if (rc < 0) {
    err = avErrorText(rc);
    return false;
  }
  ast->time_base = aenc->time_base;
  sound->format = AV_SAMPLE_FMT_FLTP;
  sound->sample_rate = kAudioRate;
  sound->nb_samples = kAacFrame;
  av_channel_layout_copy(&sound->ch_layout, &stereo);
  if (av_frame_get_buffer(sound, 0) < 0) {
    err = "out of memory";
    return false;
  }
  return true;
}

bool MovieWriter::Impl::drain(AVCodecContext* enc, AVStream* st, std::string& err) {
  for (;;) {
    int rc = avcodec_receive_packet(enc, packet);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
    if (rc < 0) {
      err = "cannot encode " + s.path + ": " + avErrorText(rc);
      return false;
    }
    // The muxer needs each packet's length; the encoders leave it empty at times.
    if (packet->duration <= 0)
      packet->duration = enc == venc ? av_rescale_q(1, AVRational{1, s.fps}, enc->time_base) : kAacFrame;
    av_packet_rescale_ts(packet, enc->time_base, st->time_base);
    packet->stream_index = st->index;
    rc = av_write_frame(fmt, packet);
    av_packet_unref(packet);
    if (rc >= 0 && fmt->pb->error < 0) rc = fmt->pb->error;
    if (rc < 0) {
      err = failText("cannot write", rc);
      return false;
    }
  }
}

bool MovieWriter::Impl::encodeVideo(const FrameBuffer& frame, int64_t ms, std::string& err) {
  auto t0 = Clock::now();
  // A new picture each time: encoders with frame threads still read the
  // previous one on their own threads.
  av_frame_unref(picture);
  picture->format = venc->pix_fmt;
  picture->width = s.width;
  picture->height = s.height;
  picture->colorspace = venc->colorspace;
  picture->color_range = venc->color_range;
  int rc = av_frame_get_buffer(picture, 0);
  if (rc < 0) {
    err = "out of memory";
    return false;
  }
  const uint8_t* src[1] = {frame.data()};
  const int srcStride[1] = {static_cast<int>(frame.stride)};
  sws_scale(sws, src, srcStride, 0, s.height, picture->data, picture->linesize);
  picture->pts = ms;
  auto t1 = Clock::now();
  rc = avcodec_send_frame(venc, picture);
  bool ok = rc >= 0;
  if (!ok)
    err = "cannot encode " + s.path + ": " + avErrorText(rc);
  else
    ok = drain(venc, vst, err);
  auto t2 = Clock::now();
  std::lock_guard lock(mutex);
  timing.convertSeconds += std::chrono::duration<double>(t1 - t0).count();
  timing.encodeSeconds += std::chrono::duration<double>(t2 - t1).count();
  timing.frames++;
  return ok;
}

bool MovieWriter::Impl::sendAudioFrame(int count, std::string& err) {
  int rc = av_frame_make_writable(sound);
  if (rc < 0) {
    err = "out of memory";
    return false;
  }
  sound->nb_samples = count;
  std::copy_n(pendingLeft.begin(), count, reinterpret_cast<float*>(sound->data[0]));
  std::copy_n(pendingRight.begin(), count, reinterpret_cast<float*>(sound->data[1]));
  pendingLeft.erase(pendingLeft.begin(), pendingLeft.begin() + count);
  pendingRight.erase(pendingRight.begin(), pendingRight.begin() + count);
  sound->pts = audioPts;
  audioPts += count;
  rc = avcodec_send_frame(aenc, sound);
  if (rc < 0) {
    err = "cannot encode the audio of " + s.path + ": " + avErrorText(rc);
    return false;
  }
  return drain(aenc, ast, err);
}

bool MovieWriter::Impl::encodeAudio(const std::vector<float>& interleaved, std::string& err) {
  size_t frames = interleaved.size() / 2;
  for (size_t i = 0; i < frames; i++) {
    pendingLeft.push_back(interleaved[2 * i]);
    pendingRight.push_back(interleaved[2 * i + 1]);
  }
  while (pendingLeft.size() >= kAacFrame)
    if (!sendAudioFrame(kAacFrame, err)) return false;
  return true;
}

bool MovieWriter::Impl::finalize(std::string& err) {
  int rc = avcodec_send_frame(venc, nullptr);
  if (rc < 0 && rc != AVERROR_EOF) {
    err = "cannot encode " + s.path + ": " + avErrorText(rc);
    return false;
  }
  if (!drain(venc, vst, err)) return false;
  if (aenc) {
    // The encoder takes a short frame only as the last one.
    if (!pendingLeft.empty() && !sendAudioFrame(static_cast<int>(pendingLeft.size()), err)) return false;
    rc = avcodec_send_frame(aenc, nullptr);
    if ((rc < 0 && rc != AVERROR_EOF) || !drain(aenc, ast, err)) {
      if (err.empty()) err = "cannot encode the audio of " + s.path + ": " + avErrorText(rc);
      return false;
    }
  }
  rc = av_write_trailer(fmt);
  if (rc >= 0) {
    avio_flush(fmt->pb);
    rc = fmt->pb->error;
  }
  if (rc >= 0) rc = avio_closep(&fmt->pb);
  if (rc < 0) {
    err = failText("cannot write", rc);
    return false;
  }
  return true;
}

void MovieWriter::Impl::run() {
  for (;;) {
    std::unique_lock lock(mutex);
    work.wait(lock, [&] { return cancelRequested || (!paused && (!queue.empty() || finishRequested)); });
    if (cancelRequested) break;
    if (queue.empty()) {  // finish requested and all written
      bool failed = status == Status::Failed;
      lock.unlock();
      std::string err;
      bool ok = !failed && finalize(err);
      release();
      lock.lock();
      if (!failed && status != Status::Cancelled) {
        status = ok ? Status::Completed : Status::Failed;
        if (!ok) error = err;
      }
      break;
    }
    Item item = std::move(queue.front());
    queue.pop_front();
    if (item.kind == Item::Video) queuedVideo--;
    if (item.kind == Item::Audio) queuedAudio--;
    ready.notify_all();
    bool failed = status == Status::Failed;
    lock.unlock();
    if (failed) continue;  // drop what is queued; the error stays the first one
    std::string err;
    bool ok = true;
    switch (item.kind) {
      case Item::Video: ok = encodeVideo(*item.frame, item.time, err); break;
      case Item::Audio: ok = encodeAudio(item.samples, err); break;
      case Item::EndVideo:
      case Item::EndAudio: break;
    }
    item.frame.reset();
    if (!ok) fail(err);
  }
  {
    std::lock_guard lock(pool->mutex);
    pool->open = false;
    pool->free.clear();
  }
  std::lock_guard lock(mutex);
  threadDone = true;
  ready.notify_all();
}

std::shared_ptr<MovieWriter> MovieWriter::create(const MovieSettings& settings, std::string& error) {
  // The encoders report their settings and statistics on stderr; the writer
  // reports its own failures, so their chatter is kept quiet.
  static const bool quiet = [] {
    if (av_log_get_level() > AV_LOG_ERROR) av_log_set_level(AV_LOG_FATAL);
    return true;
  }();
  (void)quiet;
  std::shared_ptr<MovieWriter> w(new MovieWriter(settings));
  Impl& m = *w->impl_;
  if (!m.open(error)) {
    bool madeFile = m.fmt && m.fmt->pb;
    m.release();
    std::error_code ec;
    if (madeFile) std::filesystem::remove(settings.path, ec);
    m.status = Status::Failed;
    m.threadDone = true;
    return nullptr;
  }
  m.thread = std::thread([&m] { m.run(); });
  return w;
}

MovieWriter::MovieWriter(MovieSettings settings) : settings_(std::move(settings)), impl_(std::make_unique<Impl>()) {
  impl_->s = settings_;
}

MovieWriter::~MovieWriter() {
  cancel();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int64_t MovieWriter::videoBitRateUsed() const { return impl_->bitRate; }

std::shared_ptr<FrameBuffer> MovieWriter::frameBuffer() { return takeBuffer(impl_->pool); }

bool MovieWriter::isReadyForMoreMediaData() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status == Status::Failed || impl_->queuedVideo < kVideoQueue;
}

bool MovieWriter::waitUntilReady(Clock::time_point deadline) const {
  Impl& m = *impl_;
  std::unique_lock lock(m.mutex);
  auto settled = [&] {
    return m.status != Status::Writing || m.videoEnded || m.queuedVideo < kVideoQueue;
  };
  if (deadline == Clock::time_point::max())
    m.ready.wait(lock, settled);
  else if (!m.ready.wait_until(lock, deadline, settled))
    return false;
  return m.status == Status::Failed || (m.status == Status::Writing && !m.videoEnded);
}

bool MovieWriter::appendFrame(std::shared_ptr<FrameBuffer> frame, int64_t timeMs, std::string& error) {
  Impl& m = *impl_;
  std::lock_guard lock(m.mutex);
  if (m.status == Status::Failed) {
    error = m.error;
    return false;
  }
  if (m.status != Status::Writing || m.videoEnded) {
    error = m.status == Status::Cancelled ? "the export was cancelled" : "the video of the export is finished";
    return false;
  }
  if (!frame || frame->width != settings_.width || frame->height != settings_.height) {
    error = "the frame does not have the export's size";
    return false;
  }
  if (timeMs < 0 || timeMs <= m.lastVideoMs) {
    error = "frame time " + std::to_string(timeMs) + " ms does not come after the previous frame (" +
            std::to_string(m.lastVideoMs) + " ms)";
    return false;
  }
  m.lastVideoMs = timeMs;
  m.queue.push_back(Item{Item::Video, std::move(frame), {}, timeMs});
  m.queuedVideo++;
  m.work.notify_one();
  return true;
}

void MovieWriter::markVideoFinished() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->videoEnded) return;
  impl_->videoEnded = true;
  impl_->queue.push_back(Item{Item::EndVideo, nullptr, {}, 0});
  impl_->work.notify_one();
  impl_->ready.notify_all();
}

bool MovieWriter::isReadyForMoreAudio() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status == Status::Failed || impl_->queuedAudio < kAudioQueue;
}

bool MovieWriter::waitUntilAudioReady() const {
  Impl& m = *impl_;
  std::unique_lock lock(m.mutex);
  m.ready.wait(lock, [&] { return m.status != Status::Writing || m.audioEnded || m.queuedAudio < kAudioQueue; });
  return m.status == Status::Failed || (m.status == Status::Writing && !m.audioEnded);
}

bool MovieWriter::appendAudio(std::vector<float> interleaved, int64_t startFrame, std::string& error) {
  Impl& m = *impl_;
  std::lock_guard lock(m.mutex);
  if (m.status == Status::Failed) {
    error = m.error;
    return false;
  }
  if (!settings_.audio || m.status != Status::Writing || m.audioEnded) {
    error = !settings_.audio ? "the export has no audio track" : "the audio of the export is finished";
    return false;
  }
  if (startFrame != m.nextAudioFrame || interleaved.size() % 2) {
    error = "audio must come in whole stereo frames without gaps";
    return false;
  }
  m.nextAudioFrame += static_cast<int64_t>(interleaved.size() / 2);
  m.queue.push_back(Item{Item::Audio, nullptr, std::move(interleaved), startFrame});
  m.queuedAudio++;
  m.work.notify_one();
  return true;
}

void MovieWriter::markAudioFinished() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->audioEnded) return;
  impl_->audioEnded = true;
  impl_->queue.push_back(Item{Item::EndAudio, nullptr, {}, 0});
  impl_->work.notify_one();
  impl_->ready.notify_all();
}

bool MovieWriter::finishWriting(std::string& error) {
  Impl& m = *impl_;
  std::unique_lock lock(m.mutex);
  if (m.status == Status::Cancelled) {
    error = "the export was cancelled";
    return false;
  }
  if (m.finishRequested) {
    error = "the export is already finishing";
    return false;
  }
  m.videoEnded = m.audioEnded = true;
  m.finishRequested = true;
  m.paused = false;  // a paused writer would never finish
  if (m.status == Status::Writing) m.status = Status::Finishing;
  m.work.notify_one();
  m.ready.notify_all();
  m.ready.wait(lock, [&] { return m.threadDone; });
  if (m.status == Status::Completed) return true;
  error = m.status == Status::Cancelled ? "the export was cancelled" : m.error;
  return false;
}

void MovieWriter::cancel() {
  Impl& m = *impl_;
  {
    std::lock_guard lock(m.mutex);
    if (m.status == Status::Completed || m.cancelRequested) return;
    bool running = !m.threadDone;
    m.cancelRequested = true;
    if (m.status != Status::Failed) m.status = Status::Cancelled;
    if (!running) return;
    m.queue.clear();
    m.queuedVideo = m.queuedAudio = 0;
    m.work.notify_one();
    m.ready.notify_all();
  }
  {
    std::lock_guard lock(m.pool->mutex);
    m.pool->open = false;
    m.pool->free.clear();
  }
  if (m.thread.joinable() && m.thread.get_id() != std::this_thread::get_id()) m.thread.join();
  Status end;
  {
    std::lock_guard lock(m.mutex);
    end = m.status;
  }
  m.release();
  // A cancelled movie is no movie: nothing that looks whole stays behind. A
  // failed one stays for the caller, who learns of the failure.
  std::error_code ec;
  if (end == Status::Cancelled) std::filesystem::remove(settings_.path, ec);
}

void MovieWriter::pause() {
  std::lock_guard lock(impl_->mutex);
  impl_->paused = true;
}

void MovieWriter::resume() {
  std::lock_guard lock(impl_->mutex);
  impl_->paused = false;
  impl_->work.notify_one();
}

MovieWriter::Status MovieWriter::status() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status;
}

std::string MovieWriter::errorText() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->error;
}

MovieWriter::Timing MovieWriter::timing() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->timing;
}

}  // namespace kavlen::exporter
