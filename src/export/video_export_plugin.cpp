#include "video_export_plugin.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>

#include "audio_mix.h"
#include "movie_writer.h"
#include "native_renderer.h"

namespace kavlen::exporter {

using host::MethodCall;
using host::MethodResult;
using host::Reply;
using host::Value;
using Clock = std::chrono::steady_clock;

namespace {

const char kNotStarted[] = "export não iniciado";
constexpr auto kPollInterval = std::chrono::milliseconds(5);
constexpr double kProgressInterval = 0.2;  // seconds between "progress" calls

MethodResult notStarted() { return MethodResult::error("state", kNotStarted); }

// A pushed frame waiting for the encoder to take it.
struct PendingFrame {
  std::shared_ptr<MovieWriter> writer;
  std::shared_ptr<FrameBuffer> frame;
  int64_t timeMs = 0;
  Clock::time_point deadline;
  Reply reply;
};

}  // namespace

struct VideoExportPlugin::State {
  State(host::Messenger& m, host::MainLoop& l, host::WorkerPool& p, ExportRendererFactory f, Options o)
      : loop(l), pool(p), channel(m, kChannel), factory(std::move(f)), options(o) {}

  host::MainLoop& loop;
  host::WorkerPool& pool;
  host::MethodChannel channel;
  ExportRendererFactory factory;
  Options options;

  // Main loop only.
  std::shared_ptr<MovieWriter> writer;
  std::vector<AudioClip> audioClips;
  int fps = 30;
  int64_t width = 0, height = 0;
  std::string outputPath;
  bool finishing = false;
  std::deque<PendingFrame> pending;
  bool polling = false;

  // Written on the main loop, read by the render loop before each frame.
  std::atomic<bool> cancelNative{false};

  void cleanup() {
    writer.reset();
    audioClips.clear();
    finishing = false;
  }
};

namespace {

using State = VideoExportPlugin::State;

void start(const std::shared_ptr<State>& st, const Value& args, const Reply& reply) {
  auto path = args.getString("path");
  auto width = args.getInt("width"), height = args.getInt("height"), fps = args.getInt("fps");
  if (!args.isMap() || !path || !width || !height || !fps) {
    reply(MethodResult::error("args", "argumentos inválidos"));
    return;
  }
  // Ends whatever ran before: an unfinished movie is dropped, its file with it.
  if (st->writer) st->writer->cancel();
  st->cleanup();
  st->audioClips = audioClipsFrom(args.find("audioClips"));
  std::error_code ec;
  std::filesystem::remove(*path, ec);

  // Out-of-range sizes and rates go to the writer as values it refuses.
  auto narrow = [](int64_t v) { return static_cast<int>(std::clamp<int64_t>(v, -1, 1 << 20)); };
  MovieSettings s;
  s.path = *path;
  s.width = narrow(*width);
  s.height = narrow(*height);
  s.fps = narrow(*fps);
  s.codec = args.getString("codec").value_or("h264");
  s.bitrate = args.getInt("bitrate").value_or(0);
  s.audioBitrate = args.getInt("audioBitrate").value_or(192000);
  s.audio = !st->audioClips.empty() && s.audioBitrate > 0;
  std::string error;
  auto writer = MovieWriter::create(s, error);
  if (!writer) {
    st->audioClips.clear();
    reply(MethodResult::error("start", error));
    return;
  }
  st->writer = std::move(writer);
  st->fps = s.fps;
  st->width = s.width;
  st->height = s.height;
  st->outputPath = s.path;
  if (st->options.writerStarted) st->options.writerStarted(st->writer);
  reply(MethodResult::success());
}

void appendNow(PendingFrame& p) {
  std::string error;
  if (p.writer->appendFrame(std::move(p.frame), p.timeMs, error))
    p.reply(MethodResult::success());
  else
    p.reply(MethodResult::error("append", error.empty() ? "falha ao gravar quadro" : error));
}

// Hands waiting frames to the encoder in their order as it gets ready, and
// gives up on each after its deadline. Runs on the main loop by timer, so the
// loop serves other calls in between.
void pollPending(const std::shared_ptr<State>& st) {
  while (!st->pending.empty()) {
    PendingFrame& p = st->pending.front();
    if (p.writer->isReadyForMoreMediaData()) {
      appendNow(p);
    } else if (Clock::now() >= p.deadline) {
      p.reply(MethodResult::error("timeout", "encoder ocupado"));
    } else {
      st->polling = true;
      st->loop.postAfter(kPollInterval, [st] { pollPending(st); });
      return;
    }
    st->pending.pop_front();
  }
  st->polling = false;
}

void appendFrame(const std::shared_ptr<State>& st, const Value& args, const Reply& reply) {
  auto timeMs = args.getInt("timeMs");
  const Value* rgbaValue = args.find("rgba");
  const std::vector<uint8_t>* rgba = rgbaValue ? rgbaValue->asBytes() : nullptr;
  if (!timeMs || !rgba) {
    reply(MethodResult::error("args", "quadro inválido"));
    return;
  }
  if (!st->writer) {
    reply(notStarted());
    return;
  }
  auto frame = st->writer->frameBuffer();
  if (!frame) {
    reply(MethodResult::error("buffer", "sem buffer"));
    return;
  }
  // A frame shorter than the picture would be read past its end.
  const size_t row = static_cast<size_t>(st->width) * 4;
  if (rgba->size() < row * static_cast<size_t>(st->height)) {
    reply(MethodResult::error("args", "quadro inválido"));
    return;
  }
  for (int64_t y = 0; y < st->height; y++)
    std::memcpy(frame->data() + y * frame->stride, rgba->data() + y * row, row);

  PendingFrame p{st->writer, std::move(frame), *timeMs, Clock::now() + st->options.backPressureLimit, reply};
  if (st->pending.empty() && p.writer->isReadyForMoreMediaData()) {
    appendNow(p);
    return;
  }
  st->pending.push_back(std::move(p));
  if (!st->polling) pollPending(st);
}

void postProgress(const std::shared_ptr<State>& st, int64_t done, int64_t total) {
  st->loop.post([st, done, total] {
    st->channel.invokeMethod("progress", Value::map({{"fraction", static_cast<double>(done) / total},
                                                     {"frame", done},
                                                     {"total", total}}));
  });
}

void renderNative(const std::shared_ptr<State>& st, const Value& args, const Reply& reply) {
  const Value* scene = args.find("scene");
  auto lengthMs = args.getInt("lengthMs");
  auto mediaRoot = args.getString("mediaRoot");
  if (!scene || !scene->isMap() || !lengthMs || *lengthMs < 0 || !mediaRoot) {
    reply(MethodResult::error("args", "cena inválida"));
    return;
  }
  if (!st->writer) {
    reply(notStarted());
    return;
  }
  st->cancelNative = false;
  const int fps = st->fps;
  const int64_t total = static_cast<int64_t>(std::ceil(static_cast<double>(*lengthMs) / 1000.0 * fps));
  auto writer = st->writer;
  const int width = static_cast<int>(st->width), height = static_cast<int>(st->height);
  bool queued = st->pool.submit([st, writer, reply, scene = *scene, root = *mediaRoot, fps, total, width, height] {
    auto answer = [&](MethodResult r) { st->loop.post([reply, r] { reply(r); }); };
    std::unique_ptr<ExportRenderer> renderer = st->factory(scene, width, height, root);
    auto status = writer->status();
    if (!st->cancelNative && (status == MovieWriter::Status::Cancelled || status == MovieWriter::Status::Completed)) {
      answer(MethodResult::error("buffer", "sem pool"));
      return;
    }
    auto last = Clock::now();
    for (int64_t i = 0; i < total; i++) {
      if (st->cancelNative) break;
      auto frame = writer->frameBuffer();
      if (!frame) break;  // the movie ends shorter; not an error
      const int64_t ms = static_cast<int64_t>(std::trunc(static_cast<double>(i) * 1000.0 / fps));
      renderer->render(ms, frame->data(), frame->stride);
      // A writer that failed or was cancelled will never be ready again.
      if (!writer->waitUntilReady()) break;
      // A writer that failed takes no more frames: the loop ends, and the
      // failure comes out at "finish".
      std::string error;
      if (!writer->appendFrame(std::move(frame), ms, error)) break;
      auto now = Clock::now();
      if (std::chrono::duration<double>(now - last).count() > kProgressInterval || i == total - 1) {
        last = now;
        postProgress(st, i + 1, total);
      }
    }
    renderer->stop();
    renderer.reset();
    answer(MethodResult::success(st->cancelNative ? "cancelled" : "ok"));
  });
  if (!queued) reply(MethodResult::error("native", "the export is shutting down"));
}

void finish(const std::shared_ptr<State>& st, const Reply& reply) {
  if (!st->writer) {
    reply(notStarted());
    return;
  }
  if (st->finishing) {
    reply(MethodResult::error("finish", "the export is already finishing"));
    return;
  }
  st->finishing = true;
  auto writer = st->writer;
  writer->markVideoFinished();
  bool queued = st->pool.submit([st, writer, clips = st->audioClips, reply] {
    // All the video is in; the audio follows it.
    if (writer->hasAudio()) writeAudio(clips, *writer);
    writer->markAudioFinished();
    std::string error;
    bool ok = writer->finishWriting(error);
    st->loop.post([st, writer, ok, error, reply] {
      if (st->writer == writer) st->cleanup();
      reply(ok ? MethodResult::success() : MethodResult::error("finish", error));
    });
  });
  if (!queued) {
    st->finishing = false;
    reply(MethodResult::error("finish", "the export is shutting down"));
  }
}

void cancel(const std::shared_ptr<State>& st, const Reply& reply) {
  st->cancelNative = true;
  if (st->writer) st->writer->cancel();
  st->cleanup();
  reply(MethodResult::success());
}

}  // namespace

VideoExportPlugin::VideoExportPlugin(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& pool,
                                     ExportRendererFactory factory, Options options)
    : state_(std::make_shared<State>(messenger, loop, pool, factory ? std::move(factory) : nativeRendererFactory(),
                                     std::move(options))) {}

VideoExportPlugin::~VideoExportPlugin() {
  // A render loop still running on the pool stops before its next frame.
  state_->cancelNative = true;
  if (state_->writer) state_->writer->cancel();
}

std::shared_ptr<VideoExportPlugin> VideoExportPlugin::registerWith(host::Messenger& messenger, host::MainLoop& loop,
                                                                   host::WorkerPool& pool,
                                                                   ExportRendererFactory factory, Options options) {
  std::shared_ptr<VideoExportPlugin> plugin(
      new VideoExportPlugin(messenger, loop, pool, std::move(factory), options));
  plugin->state_->channel.setMethodCallHandler(
      [plugin](const MethodCall& call, Reply reply) { plugin->handle(call, std::move(reply)); });
  return plugin;
}

void VideoExportPlugin::handle(const MethodCall& call, Reply reply) {
  const std::string& m = call.method;
  if (m == "start")
    start(state_, call.args, reply);
  else if (m == "appendFrame")
    appendFrame(state_, call.args, reply);
  else if (m == "renderNative")
    renderNative(state_, call.args, reply);
  else if (m == "finish")
    finish(state_, reply);
  else if (m == "cancel")
    cancel(state_, reply);
  else
    reply(MethodResult::notImplemented());
}

}  // namespace kavlen::exporter
