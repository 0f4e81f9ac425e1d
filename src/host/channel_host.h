// The channel host: every method channel of Kavlen served over one WebSocket
// on the loopback address, so that any program can drive the application.
//
//   ChannelHost host(loop);
//   std::string error;
//   if (!host.start(7531, error)) ...     // prints "[kavlen] channels on ws://127.0.0.1:PORT/channels"
//   MethodChannel(host, "app.kavlen/waveform").setMethodCallHandler(...);
//   loop.run();
//
// Upgrade on "/channels" (query "codec=json" for the host's own calls as text
// frames). Binary frames carry the standard codec, text frames the JSON codec,
// and a reply goes back in the frame type of its call. A request whose Origin
// is not this host's own page gets 403. Frames arrive on an I/O thread, which
// reads the envelope and decodes the payload; handlers then run on the main
// loop. Bad input closes only the offending connection (1007; 1009 for a frame
// over 64 MiB) or gets the error "bad-message", never more.
//
// Plain GET requests on other paths go to the HTTP handler, on the main loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "main_loop.h"
#include "messenger.h"

namespace kavlen::host {

struct HttpRequest {
  std::string method;  // "GET", "HEAD"
  std::string path;    // without the query
  std::string query;   // after '?', possibly empty
};

struct HttpResponse {
  int status = 404;
  std::string contentType = "text/plain; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

class ChannelHost final : public Messenger {
 public:
  using HttpHandler = std::function<void(const HttpRequest&, std::function<void(HttpResponse)> respond)>;

  struct ClientInfo {
    uint64_t id;
    std::string peer;  // "127.0.0.1:PORT"
    bool json;         // the host's own calls go as text frames
    std::chrono::system_clock::time_point since;
  };

  static constexpr uint16_t kDefaultPort = 7531;
  static constexpr size_t kMaxFrameBytes = size_t{64} << 20;

  explicit ChannelHost(MainLoop& loop);
  ~ChannelHost() override;

  // Listens on 127.0.0.1:port (0: a free port) and starts the I/O thread.
  bool start(uint16_t port, std::string& error);
  // Closes every connection and joins the I/O thread; calls still running
  // lose their replies. Also done by the destructor.
  void stop();
  uint16_t port() const;

  void setMethodHandler(const std::string& channel, MethodHandler handler) override;
  void invokeMethod(const std::string& channel, const std::string& method, const Value& args) override;

  std::vector<ClientInfo> clients() const;
  // Called on the main loop after a client connects or goes.
  void setClientsChanged(std::function<void()> callback);
  void setHttpHandler(HttpHandler handler);

  // KAVLEN_PORT: unset or empty gives the default; a number 0..65535 is used;
  // anything else is an error.
  static bool portFromEnvironment(uint16_t& port, std::string& error);

  struct Impl;  // the I/O side; opaque outside channel_host.cpp

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace kavlen::host
