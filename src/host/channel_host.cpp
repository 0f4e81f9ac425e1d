// The only translation unit that includes Boost.Beast (it is slow to compile).
#include "channel_host.h"

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "standard_codec.h"
#include "wire.h"

namespace kavlen::host {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

namespace {

// A client that stops reading must not make the host hold unbounded memory:
// past this much queued output the connection is dropped.
constexpr size_t kMaxQueuedBytes = size_t{256} << 20;

struct OutFrame {
  bool text;
  std::shared_ptr<const std::string> data;
};

std::shared_ptr<const std::string> bytesToString(const std::vector<uint8_t>& b) {
  return std::make_shared<const std::string>(reinterpret_cast<const char*>(b.data()), b.size());
}

}  // namespace

class WsSession;

struct ChannelHost::Impl : std::enable_shared_from_this<ChannelHost::Impl> {
  explicit Impl(MainLoop& l) : loop(l) {}

  MainLoop& loop;
  net::io_context ioc{1};
  std::optional<tcp::acceptor> acceptor;
  std::thread ioThread;
  uint16_t boundPort = 0;
  std::atomic<uint32_t> nextCallId{1};
  std::atomic<uint64_t> nextClientId{1};

  // Main loop only.
  std::map<std::string, MethodHandler> handlers;
  std::function<void()> clientsChanged;
  HttpHandler httpHandler;

  // I/O thread only.
  std::set<std::shared_ptr<WsSession>> sessions;

  mutable std::mutex clientsMutex;
  std::vector<ClientInfo> clientList;

  void accept();
  void dispatch(std::weak_ptr<WsSession> session, bool text, std::string channel, Value id,
                std::optional<MethodCall> call);
  void notifyClientsChanged() {
    loop.post([self = shared_from_this()] {
      if (self->clientsChanged) self->clientsChanged();
    });
  }
  bool originAllowed(std::string_view origin) const {
    const std::string port = std::to_string(boundPort);
    return origin == "http://127.0.0.1:" + port || origin == "http://localhost:" + port;
  }
};

class WsSession : public std::enable_shared_from_this<WsSession> {
 public:
  // Sessions live inside the host's I/O context (in its handlers and its
  // session set), so a plain pointer back to the host cannot dangle, and
  // keeps the host free of a reference cycle through its own handlers.
  WsSession(ChannelHost::Impl* host, beast::tcp_stream&& stream, bool json, uint64_t id)
      : host_(host), ws_(std::move(stream)), json_(json), id_(id) {}

  bool json() const { return json_; }
  uint64_t id() const { return id_; }

  void start(http::request<http::string_body> req) {
    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout t = websocket::stream_base::timeout::suggested(beast::role_type::server);
    t.idle_timeout = websocket::stream_base::none();
    ws_.set_option(t);
    ws_.read_message_max(ChannelHost::kMaxFrameBytes);
    ws_.auto_fragment(false);
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (ec) return self->finish();
      self->read();
    });
  }

  // I/O thread.
  void send(OutFrame f) {
    if (closed_) return;
    queued_ += f.data->size();
    if (queued_ > kMaxQueuedBytes) {
      fprintf(stderr, "[kavlen] channel client %llu stopped reading; dropping it\n",
              static_cast<unsigned long long>(id_));
      beast::error_code ec;
      beast::get_lowest_layer(ws_).socket().close(ec);
      return;
    }
    out_.push_back(std::move(f));
    if (out_.size() == 1) write();
  }

  void closeWith(websocket::close_code code) {
    if (closed_) return;
    closed_ = true;
    ws_.async_close(code, [self = shared_from_this()](beast::error_code) { self->finish(); });
  }

  // Sends what is queued, then closes with "going away": the last calls of
  // a host that ends ("displayDisconnected") still reach the client.
  void closeGracefully() {
    goingAway_ = true;
    if (out_.empty()) closeWith(websocket::close_code::going_away);
  }

 private:
  void read() {
    ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, size_t) {
      if (ec) return self->finish();
      self->onMessage();
      if (!self->closed_) self->read();
    });
  }

  void onMessage() {
    const auto data = buffer_.cdata();
    std::span<const uint8_t> bytes(static_cast<const uint8_t*>(data.data()), data.size());
    if (ws_.got_text()) {
      std::optional<wire::TextFrame> f =
          wire::parseText(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
      buffer_.consume(buffer_.size());
      if (!f) return closeWith(websocket::close_code::bad_payload);
      if (f->kind != "call") return;  // replies to the host's own calls are not awaited
      std::optional<MethodCall> call;
      if (f->channel && f->method) call = MethodCall{*f->method, std::move(f->args)};
      host_->dispatch(weak_from_this(), true, f->channel.value_or(""), std::move(f->id), std::move(call));
    } else {
      std::optional<wire::BinaryFrame> f = wire::parseBinary(bytes);
      if (!f) {
        buffer_.consume(buffer_.size());
        return closeWith(websocket::close_code::bad_payload);
      }
      if (f->kind == wire::kCall) {
        std::optional<MethodCall> call = standard::decodeMethodCall(f->payload);
        host_->dispatch(weak_from_this(), false, std::move(f->channel), Value(int64_t{f->id}), std::move(call));
      }
      buffer_.consume(buffer_.size());
    }
  }

  void write() {
    const OutFrame& f = out_.front();
    ws_.text(f.text);
    ws_.async_write(net::buffer(*f.data), [self = shared_from_this()](beast::error_code ec, size_t) {
      self->queued_ -= self->out_.front().data->size();
      self->out_.pop_front();
      if (ec) return self->finish();
      if (!self->out_.empty())
        self->write();
      else if (self->goingAway_)
        self->closeWith(websocket::close_code::going_away);
    });
  }

  void finish() {
    if (finished_) return;
    finished_ = true;
    closed_ = true;
    ChannelHost::Impl* host = host_;
    host->sessions.erase(shared_from_this());
    {
      std::lock_guard lock(host->clientsMutex);
      std::erase_if(host->clientList, [&](const ChannelHost::ClientInfo& c) { return c.id == id_; });
    }
    host->notifyClientsChanged();
  }

  ChannelHost::Impl* host_;
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::deque<OutFrame> out_;
  size_t queued_ = 0;
  bool json_;
  uint64_t id_;
  bool closed_ = false;
  bool finished_ = false;
  bool goingAway_ = false;
};

namespace {

// One plain HTTP connection: reads requests until the peer stops keeping it
// alive, answering upgrades on "/channels" by handing the socket to a
// WebSocket session.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(ChannelHost::Impl* host, tcp::socket&& s) : host_(host), stream_(std::move(s)) {}

  void read() {
    parser_.emplace();
    parser_->header_limit(16 * 1024);
    parser_->body_limit(1024 * 1024);
    stream_.expires_after(std::chrono::seconds(30));
    http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](beast::error_code ec, size_t) {
      if (ec) {
        beast::error_code ignored;
        self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        return;
      }
      self->onRequest(self->parser_->release());
    });
  }

 private:
  void onRequest(http::request<http::string_body> req) {
    const std::string target(req.target());
    const size_t q = target.find('?');
    const std::string path = target.substr(0, q);
    const std::string query = q == std::string::npos ? "" : target.substr(q + 1);

    if (websocket::is_upgrade(req)) {
      if (path != "/channels") return respond(plain(req, http::status::not_found, "no such channel endpoint\n"));
      auto origin = req.find(http::field::origin);
      if (origin != req.end() && !host_->originAllowed(std::string_view(origin->value().data(), origin->value().size())))
        return respond(plain(req, http::status::forbidden, "origin not allowed\n"), true);
      bool json = false;
      for (size_t i = 0; i <= query.size();) {
        size_t amp = query.find('&', i);
        if (amp == std::string::npos) amp = query.size();
        if (query.compare(i, amp - i, "codec=json") == 0) json = true;
        if (query.compare(i, amp - i, "codec=standard") == 0) json = false;
        i = amp + 1;
      }
      const uint64_t id = host_->nextClientId++;
      auto ws = std::make_shared<WsSession>(host_, std::move(stream_), json, id);
      host_->sessions.insert(ws);
      {
        std::lock_guard lock(host_->clientsMutex);
        host_->clientList.push_back({id, peer_, json, std::chrono::system_clock::now()});
      }
      host_->notifyClientsChanged();
      ws->start(std::move(req));
      return;
    }

    if (req.method() != http::verb::get && req.method() != http::verb::head)
      return respond(plain(req, http::status::method_not_allowed, "only GET\n"));
    if (!host_->httpHandler) return respond(plain(req, http::status::not_found, "not found\n"));
    HttpRequest r{std::string(req.method_string()), path, query};
    const bool head = req.method() == http::verb::head;
    const unsigned version = req.version();
    const bool keepAlive = req.keep_alive();
    auto self = shared_from_this();
    auto host = host_->shared_from_this();
    host_->loop.post([self, host, r, head, version, keepAlive] {
      host->httpHandler(r, [self, host, head, version, keepAlive](HttpResponse out) {
        net::post(host->ioc, [self, out = std::move(out), head, version, keepAlive]() mutable {
          auto res = std::make_shared<http::response<http::string_body>>(static_cast<http::status>(out.status), version);
          res->set(http::field::server, "kavlen");
          res->set(http::field::content_type, out.contentType);
          for (auto& [k, v] : out.headers) res->set(k, v);
          res->keep_alive(keepAlive);
          const size_t length = out.body.size();
          if (!head) res->body() = std::move(out.body);
          res->content_length(length);
          self->respond(res);
        });
      });
    });
  }

  std::shared_ptr<http::response<http::string_body>> plain(const http::request<http::string_body>& req,
                                                           http::status status, std::string body) {
    auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
    res->set(http::field::server, "kavlen");
    res->set(http::field::content_type, "text/plain; charset=utf-8");
    res->keep_alive(req.keep_alive());
    res->body() = std::move(body);
    res->prepare_payload();
    return res;
  }

  void respond(std::shared_ptr<http::response<http::string_body>> res, bool close = false) {
    if (close) res->keep_alive(false);
    http::async_write(stream_, *res, [self = shared_from_this(), res](beast::error_code ec, size_t) {
      if (ec || !res->keep_alive()) {
        beast::error_code ignored;
        self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        return;
      }
      self->read();
    });
  }

 public:
  std::string peer_;

 private:
  ChannelHost::Impl* host_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
};

}  // namespace

void ChannelHost::Impl::accept() {
  // The handler lives in this host's I/O context: a plain pointer, as for
  // the sessions.
  acceptor->async_accept(ioc, [self = this](beast::error_code ec, tcp::socket s) {
    if (ec == net::error::operation_aborted || !self->acceptor->is_open()) return;
    if (!ec) {
      beast::error_code pec;
      const auto ep = s.remote_endpoint(pec);
      // Calls and replies are small messages that wait for each other:
      // Nagle's delay would stall every round trip.
      s.set_option(tcp::no_delay(true), pec);
      auto session = std::make_shared<HttpSession>(self, std::move(s));
      if (!pec) session->peer_ = ep.address().to_string() + ":" + std::to_string(ep.port());
      session->read();
    }
    self->accept();
  });
}

void ChannelHost::Impl::dispatch(std::weak_ptr<WsSession> session, bool text, std::string channel, Value id,
                                 std::optional<MethodCall> call) {
  auto self = shared_from_this();
  // The reply may come from any thread, once; it is encoded there and handed
  // to the I/O thread, which drops it if the client has gone.
  auto answered = std::make_shared<std::atomic<bool>>(false);
  Reply reply = [self, session, text, channel, id, answered](MethodResult r) {
    if (answered->exchange(true)) return;
    OutFrame f{text, nullptr};
    if (text) {
      f.data = std::make_shared<const std::string>(wire::buildTextReply(channel, id, r));
    } else {
      const std::vector<uint8_t> payload = standard::encodeEnvelope(r);
      f.data = bytesToString(wire::buildBinary(wire::kReply, static_cast<uint32_t>(*id.asInt()), channel, payload));
    }
    net::post(self->ioc, [session, f = std::move(f)]() mutable {
      if (auto s = session.lock()) s->send(std::move(f));
    });
  };
  loop.post([self, channel = std::move(channel), call = std::move(call), reply = std::move(reply)]() mutable {
    if (!call) return reply(MethodResult::error("bad-message", "the call could not be decoded"));
    auto it = self->handlers.find(channel);
    if (it == self->handlers.end()) return reply(MethodResult::notImplemented());
    try {
      it->second(*call, reply);
    } catch (const std::exception& e) {
      fprintf(stderr, "[kavlen] %s.%s failed: %s\n", channel.c_str(), call->method.c_str(), e.what());
      reply(MethodResult::error("internal", e.what()));
    }
  });
}

ChannelHost::ChannelHost(MainLoop& loop) : impl_(std::make_shared<Impl>(loop)) {}

ChannelHost::~ChannelHost() { stop(); }

bool ChannelHost::start(uint16_t port, std::string& error) {
  try {
    impl_->acceptor.emplace(impl_->ioc);
    tcp::endpoint ep(net::ip::make_address("127.0.0.1"), port);
    impl_->acceptor->open(ep.protocol());
    impl_->acceptor->set_option(net::socket_base::reuse_address(true));
    impl_->acceptor->bind(ep);
    impl_->acceptor->listen(net::socket_base::max_listen_connections);
    impl_->boundPort = impl_->acceptor->local_endpoint().port();
  } catch (const std::exception& e) {
    error = "cannot listen on 127.0.0.1:" + std::to_string(port) + ": " + e.what();
    impl_->acceptor.reset();
    return false;
  }
  impl_->accept();
  impl_->ioThread = std::thread([impl = impl_.get()] { impl->ioc.run(); });
  fprintf(stderr, "[kavlen] channels on ws://127.0.0.1:%u/channels\n", impl_->boundPort);
  return true;
}

void ChannelHost::stop() {
  if (!impl_->ioThread.joinable()) return;
  net::post(impl_->ioc, [impl = impl_.get()] {
    beast::error_code ec;
    if (impl->acceptor) impl->acceptor->close(ec);
    for (const auto& s : std::vector(impl->sessions.begin(), impl->sessions.end())) s->closeGracefully();
  });
  // Clients get two seconds to take their last frames and the close; a
  // client that does not answer is cut off then.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < deadline) {
    {
      std::lock_guard lock(impl_->clientsMutex);
      if (impl_->clientList.empty()) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  impl_->ioc.stop();
  impl_->ioThread.join();
  impl_->sessions.clear();
}

uint16_t ChannelHost::port() const { return impl_->boundPort; }

void ChannelHost::setMethodHandler(const std::string& channel, MethodHandler handler) {
  if (handler)
    impl_->handlers[channel] = std::move(handler);
  else
    impl_->handlers.erase(channel);
}

void ChannelHost::invokeMethod(const std::string& channel, const std::string& method, const Value& args) {
  const uint32_t id = impl_->nextCallId++;
  auto binary = bytesToString(
      wire::buildBinary(wire::kCall, id, channel, standard::encodeMethodCall(MethodCall{method, args})));
  auto text = std::make_shared<const std::string>(wire::buildTextCall(channel, Value(int64_t{id}), method, args));
  // Handlers posted to the I/O context hold a plain pointer: they run only
  // while the context runs, which the host outlives, and a shared one left in
  // a stopped context would keep the host alive through itself.
  net::post(impl_->ioc, [impl = impl_.get(), binary, text] {
    for (const auto& s : impl->sessions) s->send(OutFrame{s->json(), s->json() ? text : binary});
  });
}

std::vector<ChannelHost::ClientInfo> ChannelHost::clients() const {
  std::lock_guard lock(impl_->clientsMutex);
  return impl_->clientList;
}

void ChannelHost::setClientsChanged(std::function<void()> callback) { impl_->clientsChanged = std::move(callback); }

void ChannelHost::setHttpHandler(HttpHandler handler) { impl_->httpHandler = std::move(handler); }

bool ChannelHost::portFromEnvironment(uint16_t& port, std::string& error) {
  const char* v = std::getenv("KAVLEN_PORT");
  port = kDefaultPort;
  if (!v || !*v) return true;
  char* end = nullptr;
  errno = 0;
  const long p = std::strtol(v, &end, 10);
  if (errno || *end || p < 0 || p > 65535) {
    error = std::string("KAVLEN_PORT must be a port number from 0 to 65535, not '") + v + "'";
    return false;
  }
  port = static_cast<uint16_t>(p);
  return true;
}

}  // namespace kavlen::host
