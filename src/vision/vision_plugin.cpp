#include "vision_plugin.h"

#include <algorithm>

#include "picture.h"

namespace kavlen::vision {

std::optional<Detection> VisionPlugin::detectInFile(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (!readFile(path, bytes)) return std::nullopt;
  return detectInBytes(bytes.data(), bytes.size());
}

std::optional<Detection> VisionPlugin::detectInBytes(const uint8_t* data, size_t size) {
  std::optional<UprightPicture> pic = decodeUprightGrey(data, size);
  if (!pic) return std::nullopt;
  Detection d;
  d.width = pic->width;
  d.height = pic->height;
  d.orientation = pic->orientation;
  d.quads = detectRectangles(pic->grey, DetectParams{});
  std::stable_sort(d.quads.begin(), d.quads.end(), [](const Observation& a, const Observation& b) {
    return a.boundingBox.width * a.boundingBox.height > b.boundingBox.width * b.boundingBox.height;
  });
  return d;
}

std::vector<Observation> VisionPlugin::detect(const std::string& path) {
  std::optional<Detection> d = detectInFile(path);
  return d ? std::move(d->quads) : std::vector<Observation>{};
}

host::Value VisionPlugin::toValue(const std::vector<Observation>& quads) {
  host::ValueList list;
  for (const Observation& o : quads) {
    host::ValueList corners;
    for (const Point2& p : o.corners()) corners.emplace_back(host::ValueList{p.x, p.y});
    list.emplace_back(std::move(corners));
  }
  return list;
}

void VisionPlugin::registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& pool) {
  host::MethodChannel channel(messenger, kChannel);
  channel.setMethodCallHandler([&loop, &pool](const host::MethodCall& call, host::Reply reply) {
    std::optional<std::string> path = call.args.getString("path");
    if (call.method != "detectRectangles" || !path) {
      reply(host::MethodResult::notImplemented());
      return;
    }
    auto work = [&loop, reply, file = *path] {
      host::Value quads = toValue(detect(file));
      loop.post([reply, quads] { reply(host::MethodResult::success(quads)); });
    };
    // A pool that is shutting down still answers, with nothing found.
    if (!pool.submit(work)) reply(host::MethodResult::success(host::ValueList{}));
  });
}

}  // namespace kavlen::vision
