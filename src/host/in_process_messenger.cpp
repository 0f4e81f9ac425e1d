#include "in_process_messenger.h"

#include <atomic>

namespace kavlen::host {

void InProcessMessenger::setMethodHandler(const std::string& channel, MethodHandler handler) {
  if (handler)
    handlers_[channel] = std::move(handler);
  else
    handlers_.erase(channel);
}

void InProcessMessenger::invokeMethod(const std::string& channel, const std::string& method, const Value& args) {
  std::lock_guard lock(sentMutex_);
  sent_.push_back({channel, method, args});
}

void InProcessMessenger::call(const std::string& channel, const std::string& method, Value args,
                              std::function<void(MethodResult)> done) {
  loop_.post([this, channel, method, args = std::move(args), done = std::move(done)]() mutable {
    auto it = handlers_.find(channel);
    if (it == handlers_.end()) {
      done(MethodResult::notImplemented());
      return;
    }
    // The reply may come from a worker; it is answered once, on the loop.
    auto answered = std::make_shared<std::atomic<bool>>(false);
    Reply reply = [this, answered, done](MethodResult r) {
      if (answered->exchange(true)) return;
      loop_.post([done, r = std::move(r)]() mutable { done(std::move(r)); });
    };
    it->second(MethodCall{method, std::move(args)}, std::move(reply));
  });
}

std::optional<MethodResult> InProcessMessenger::callAndWait(const std::string& channel, const std::string& method,
                                                            Value args, MainLoop::Clock::duration timeout) {
  auto result = std::make_shared<std::optional<MethodResult>>();
  call(channel, method, std::move(args), [result](MethodResult r) { *result = std::move(r); });
  loop_.runUntil([&] { return result->has_value(); }, timeout);
  return *result;
}

std::vector<InProcessMessenger::Sent> InProcessMessenger::sent() const {
  std::lock_guard lock(sentMutex_);
  return sent_;
}

void InProcessMessenger::clearSent() {
  std::lock_guard lock(sentMutex_);
  sent_.clear();
}

}  // namespace kavlen::host
