// A messenger inside the process, with the same contract as the WebSocket
// host: handlers run on the given main loop, replies may come from any thread
// and are delivered on the loop. Tests and embedders use it to drive
// channels without a socket.
//
//   MainLoop loop;
//   InProcessMessenger m(loop);
//   WaveformPlugin::registerWith(m, loop, pool);
//   MethodResult r = m.callAndWait("app.kavlen/waveform", "peaks", args);
//
// Calls from the host (`invokeMethod`) are recorded in order and can be read
// with `sent()`.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "main_loop.h"
#include "messenger.h"

namespace kavlen::host {

class InProcessMessenger final : public Messenger {
 public:
  struct Sent {
    std::string channel;
    std::string method;
    Value args;
  };

  explicit InProcessMessenger(MainLoop& loop) : loop_(loop) {}

  void setMethodHandler(const std::string& channel, MethodHandler handler) override;
  void invokeMethod(const std::string& channel, const std::string& method, const Value& args) override;

  // Queues a call on the loop; `done` runs on the loop with the result. Any thread.
  void call(const std::string& channel, const std::string& method, Value args,
            std::function<void(MethodResult)> done);
  // Queues a call and runs the loop until its reply comes or `timeout`
  // passes (then empty). Must be called on the loop's thread, outside a task.
  std::optional<MethodResult> callAndWait(const std::string& channel, const std::string& method, Value args = {},
                                          MainLoop::Clock::duration timeout = std::chrono::seconds(30));

  std::vector<Sent> sent() const;
  void clearSent();

 private:
  MainLoop& loop_;
  std::map<std::string, MethodHandler> handlers_;  // touched on the loop only
  mutable std::mutex sentMutex_;
  std::vector<Sent> sent_;
};

}  // namespace kavlen::host
