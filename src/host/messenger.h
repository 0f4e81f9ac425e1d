// Method channels over a messenger.
//
// A `Messenger` carries method calls between the host and its clients (the
// operator's interface, a console page, a script). Handlers are registered by
// channel name and always run on the host's main loop, one call at a time, in
// the order the calls arrived from each client. A handler answers through the
// `Reply` it is given, at once or later; the reply may be sent from any thread,
// exactly once (later calls are ignored). A reply that is never sent leaves the
// caller waiting, so every path of a handler must answer.
//
// Calls from the host to the clients ("displayConnected", "progress", ...) go
// through `invokeMethod`; they go to every connected client and expect no reply.
//
// Two messengers implement this: `ChannelHost` (the WebSocket on the loopback
// address) and `InProcessMessenger` (tests and embedding).
#pragma once

#include <functional>
#include <string>

#include "value.h"

namespace kavlen::host {

using Reply = std::function<void(MethodResult)>;
using MethodHandler = std::function<void(const MethodCall&, Reply)>;

class Messenger {
 public:
  virtual ~Messenger() = default;
  // Sets (or with an empty handler removes) the handler of a channel. A channel
  // without a handler answers every call with "not implemented". Main thread.
  virtual void setMethodHandler(const std::string& channel, MethodHandler handler) = 0;
  // Sends a call to every client; fire and forget. Safe from any thread.
  virtual void invokeMethod(const std::string& channel, const std::string& method, const Value& args) = 0;
};

// A named channel on a messenger, the handle that plug-ins keep.
class MethodChannel {
 public:
  MethodChannel(Messenger& messenger, std::string name) : messenger_(&messenger), name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  void setMethodCallHandler(MethodHandler handler) { messenger_->setMethodHandler(name_, std::move(handler)); }
  void invokeMethod(const std::string& method, const Value& args = {}) const {
    messenger_->invokeMethod(name_, method, args);
  }

 private:
  Messenger* messenger_;
  std::string name_;
};

}  // namespace kavlen::host
