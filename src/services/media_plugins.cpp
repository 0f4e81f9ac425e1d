#include "media_plugins.h"

#include "thumbnail.h"
#include "waveform.h"

namespace kavlen::services {

using host::MethodCall;
using host::MethodResult;
using host::Reply;
using host::Value;

namespace {

// Runs `work` on the pool and answers with its result on the main loop. A
// pool that is shutting down answers null at once rather than never.
template <typename Work>
void offload(host::MainLoop& loop, host::WorkerPool& workers, Reply reply, Work work) {
  const bool queued = workers.submit([&loop, reply, work = std::move(work)]() mutable {
    Value result = work();
    loop.post([reply, result = std::move(result)] { reply(MethodResult::success(result)); });
  });
  if (!queued) reply(MethodResult::success());
}

}  // namespace

void WaveformPlugin::registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& workers) {
  messenger.setMethodHandler(kChannel, [&loop, &workers](const MethodCall& call, Reply reply) {
    const std::optional<std::string> path = call.args.getString("path");
    if (call.method == "peaks" && path) {
      const int64_t count = waveform::clampPeakCount(call.args.getInt("count").value_or(waveform::kDefaultPeakCount));
      offload(loop, workers, std::move(reply), [path = *path, count]() -> Value {
        std::optional<waveform::Peaks> p = waveform::peaks(path, count);
        if (!p) return {};
        host::ValueList peaks(p->peaks.begin(), p->peaks.end());
        return Value::map({{"duration", p->duration}, {"peaks", Value(std::move(peaks))}});
      });
      return;
    }
    const std::optional<std::string> out = call.args.getString("out");
    if (call.method == "pcm" && path && out) {
      offload(loop, workers, std::move(reply), [path = *path, out = *out]() -> Value {
        std::optional<int> rate = waveform::pcm(path, out);
        if (!rate) return {};
        return Value::map({{"sampleRate", *rate}});
      });
      return;
    }
    reply(MethodResult::notImplemented());
  });
}

void ThumbnailPlugin::registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& workers) {
  messenger.setMethodHandler(kChannel, [&loop, &workers](const MethodCall& call, Reply reply) {
    const std::optional<std::string> path = call.args.getString("path");
    if (call.method != "thumbnail" || !path) return reply(MethodResult::notImplemented());
    const std::optional<int64_t> width = call.args.getInt("width");
    const double side = width ? static_cast<double>(*width) : thumbnail::kDefaultWidth;
    offload(loop, workers, std::move(reply), [path = *path, side]() -> Value {
      std::optional<thumbnail::Picture> p = thumbnail::thumbnail(path, side);
      if (!p) return {};
      return Value(std::move(p->jpeg));
    });
  });
}

}  // namespace kavlen::services
