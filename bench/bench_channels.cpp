// The channel host over the loopback: a call's round trip with a scene text
// of about 150 KB as its argument, and 1,000 small calls a second from 10
// clients while the main loop also keeps a 10 ms timer (its lateness shows
// whether the loop stays responsive).
//
// The clients are plain Beast WebSocket clients in threads of this process;
// the host runs its main loop on a thread of its own, as in `kavlen serve`.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <thread>
#include <vector>

#include "channel_host.h"
#include "main_loop.h"
#include "standard_codec.h"
#include "wire.h"

namespace {

namespace net = boost::asio;
namespace websocket = boost::beast::websocket;
using kavlen::host::ChannelHost;
using kavlen::host::MainLoop;
using kavlen::host::MethodCall;
using kavlen::host::MethodResult;
using kavlen::host::Reply;
using kavlen::host::Value;
using Clock = std::chrono::steady_clock;

// A scene as the interface sends it: 100 layers with keyframes, ~150 KB.
std::string sceneText() {
  std::string s = R"({"outputs":[{"id":"out-1","resolution":[1920,1080]}],"mappings":[)";
  for (int i = 0; i < 100; ++i) {
    s += i ? "," : "";
    s += R"({"id":"layer-)" + std::to_string(i) +
         R"(","shape":{"kind":"quad","vertices":[[0.100000,0.100000],[0.900000,0.120000],[0.880000,0.900000],[0.110000,0.870000]]},)"
         R"("paint":{"type":"image","path":"media/stills/image.png"},"opacity":0.750000,"keyframes":[)";
    for (int k = 0; k < 12; ++k)
      s += std::string(k ? "," : "") + R"({"timeMs":)" + std::to_string(k * 500) +
           R"(,"easing":"easeInOut","values":{"opacity":0.500000,"contentX":0.125000,"contentY":-0.250000}})";
    s += "]}";
  }
  return s + "]}";
}

struct Host {
  MainLoop loop;
  ChannelHost host{loop};
  std::thread thread;
  std::atomic<int64_t> worstLateUs{0};

  Host() {
    host.setMethodHandler("bench/echo", [](const MethodCall& call, Reply reply) {
      const std::string* s = call.args.asString();
      reply(MethodResult::success(Value(static_cast<int64_t>(s ? s->size() : 0))));
    });
    std::string error;
    if (!host.start(0, error)) throw std::runtime_error(error);
    thread = std::thread([this] {
      tick(Clock::now() + std::chrono::milliseconds(10));
      loop.run();
    });
  }
  ~Host() {
    loop.quit();
    thread.join();
    host.stop();
  }
  // A 10 ms timer that records how late it runs.
  void tick(Clock::time_point due) {
    loop.postAfter(due - Clock::now(), [this, due] {
      const int64_t late = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - due).count();
      int64_t w = worstLateUs.load();
      while (late > w && !worstLateUs.compare_exchange_weak(w, late)) {
      }
      tick(due + std::chrono::milliseconds(10));
    });
  }
};

struct Client {
  net::io_context ioc;
  websocket::stream<net::ip::tcp::socket> ws{ioc};
  boost::beast::flat_buffer buffer;
  uint32_t next = 1;

  explicit Client(uint16_t port) {
    ws.next_layer().connect({net::ip::make_address("127.0.0.1"), port});
    ws.next_layer().set_option(net::ip::tcp::no_delay(true));
    ws.handshake("127.0.0.1", "/channels");
    ws.binary(true);
  }
  // One call and its reply; false when the reply is not the expected one.
  bool call(const Value& arg) {
    const uint32_t id = next++;
    ws.write(net::buffer(kavlen::host::wire::buildBinary(kavlen::host::wire::kCall, id, "bench/echo",
                                                          kavlen::host::standard::encodeMethodCall({"x", arg}))));
    buffer.clear();
    ws.read(buffer);
    const auto d = buffer.cdata();
    auto f = kavlen::host::wire::parseBinary({static_cast<const uint8_t*>(d.data()), d.size()});
    return f && f->id == id && !f->payload.empty() && f->payload[0] == 0;
  }
};

void RoundTripSceneText(benchmark::State& state) {
  Host h;
  Client c(h.host.port());
  const Value scene(sceneText());
  for (auto _ : state)
    if (!c.call(scene)) state.SkipWithError("bad reply");
  state.counters["bytes"] = static_cast<double>(scene.asString()->size());
}
BENCHMARK(RoundTripSceneText)->Unit(benchmark::kMillisecond)->UseRealTime();

// 10 clients, each 100 calls a second for 2 s, paced on their own clocks.
void TenClientsThousandCallsASecond(benchmark::State& state) {
  for (auto _ : state) {
    Host h;
    std::vector<std::thread> clients;
    std::vector<std::vector<double>> replyMs(10);
    std::atomic<int> failures{0};
    for (int i = 0; i < 10; ++i)
      clients.emplace_back([&, i] {
        Client c(h.host.port());
        const Value small = Value("a small argument");
        auto due = Clock::now();
        for (int n = 0; n < 200; ++n) {
          std::this_thread::sleep_until(due);
          const auto t0 = Clock::now();
          if (!c.call(small)) ++failures;
          replyMs[i].push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
          due += std::chrono::milliseconds(10);
        }
      });
    for (auto& t : clients) t.join();
    std::vector<double> all;
    for (auto& v : replyMs) all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    state.counters["calls"] = static_cast<double>(all.size());
    state.counters["median_ms"] = all[all.size() / 2];
    state.counters["p99_ms"] = all[all.size() * 99 / 100];
    state.counters["worst_ms"] = all.back();
    state.counters["loop_worst_late_ms"] = static_cast<double>(h.worstLateUs.load()) / 1000.0;
    if (failures) state.SkipWithError("bad replies");
  }
}
BENCHMARK(TenClientsThousandCallsASecond)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
