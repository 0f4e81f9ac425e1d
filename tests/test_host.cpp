// The channel host's codecs, main loop and workers. The wire itself is tested
// end to end against a real `kavlen serve` by tests/serve (a client with its
// own codec); these cases pin the byte layout and the malformed inputs.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "in_process_messenger.h"
#include "main_loop.h"
#include "main_window.h"
#include "standard_codec.h"
#include "wire.h"
#include "workers.h"

using namespace kavlen::host;
using Bytes = std::vector<uint8_t>;

namespace {

Value everyType() {
  ValueMap m;
  m.emplace_back(Value("null"), Value());
  m.emplace_back(Value("bools"), Value(ValueList{true, false}));
  m.emplace_back(Value("ints"), Value(ValueList{0, -1, int64_t{INT32_MAX}, int64_t{INT32_MIN},
                                                int64_t{INT32_MAX} + 1, INT64_MIN}));
  m.emplace_back(Value("double"), Value(-0.25));
  m.emplace_back(Value("utf8"), Value("Kavlen · saída"));
  m.emplace_back(Value("long"), Value(std::string(300, 'a')));     // size as 254 + u16
  m.emplace_back(Value("longer"), Value(std::string(70000, 'b')));  // size as 255 + u32
  m.emplace_back(Value("u8"), Value(Bytes{1, 2, 255}));
  m.emplace_back(Value("i32"), Value(std::vector<int32_t>{-7, 9}));
  m.emplace_back(Value("i64"), Value(std::vector<int64_t>{INT64_MAX}));
  m.emplace_back(Value("f32"), Value(std::vector<float>{1.5f, -2.0f, 3.25f}));
  m.emplace_back(Value("f64"), Value(std::vector<double>{0.125}));
  m.emplace_back(Value(int64_t{42}), Value("a non-text key"));
  m.emplace_back(Value("nested"), Value(ValueList{Value(ValueList{}), Value(ValueMap{}), Value(ValueList{1.0})}));
  return Value(std::move(m));
}

Bytes encode(const Value& v) {
  Bytes b;
  standard::writeValue(b, v);
  return b;
}

}  // namespace

TEST(HostCodec, StandardRoundTripsEveryTypeInsideAFrame) {
  // Odd channel-name lengths shift the payload within the frame; alignment
  // counts from the payload, so the value must survive any shift.
  for (const std::string channel : {"", "a", "app.kavlen/waveform", "abc"}) {
    const MethodCall call{"peaks", everyType()};
    const Bytes frame = wire::buildBinary(wire::kCall, 77, channel, standard::encodeMethodCall(call));
    auto f = wire::parseBinary(frame);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->channel, channel);
    EXPECT_EQ(f->id, 77u);
    auto back = standard::decodeMethodCall(f->payload);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->method, "peaks");
    EXPECT_TRUE(back->args == call.args);
  }
}

TEST(HostCodec, StandardByteLayout) {
  // Integers that fit take the 32-bit form; doubles pad to 8 from the start.
  EXPECT_EQ(encode(Value(5)), (Bytes{3, 5, 0, 0, 0}));
  EXPECT_EQ(encode(Value(int64_t{1} << 32)), (Bytes{4, 0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(encode(Value(ValueList{Value(1.0)})),
            (Bytes{12, 1, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
  EXPECT_EQ(encode(Value(std::vector<float>{1.0f})), (Bytes{14, 1, 0, 0, 0, 0, 0x80, 0x3F}));
  const Bytes s300 = encode(Value(std::string(300, 'x')));
  EXPECT_EQ(Bytes(s300.begin(), s300.begin() + 4), (Bytes{7, 254, 0x2C, 0x01}));
  // Envelopes: success, error with a null message, and empty for not implemented.
  EXPECT_EQ(standard::encodeEnvelope(MethodResult::success()), (Bytes{0, 0}));
  EXPECT_EQ(standard::encodeEnvelope(MethodResult::error("e")), (Bytes{1, 7, 1, 'e', 0, 0}));
  EXPECT_TRUE(standard::encodeEnvelope(MethodResult::notImplemented()).empty());
  for (const MethodResult& r : {MethodResult::success(everyType()), MethodResult::error("c", "m", Value(3)),
                                MethodResult::error("c"), MethodResult::notImplemented()}) {
    EXPECT_TRUE(standard::decodeEnvelope(standard::encodeEnvelope(r)) == r);
    EXPECT_TRUE(wire::resultFromEnvelope(wire::envelopeValue(r)) == r);
  }
}

TEST(HostCodec, StandardRefusesMalformedInput) {
  const std::vector<Bytes> bad = {
      {},                                    // no method
      {7, 1, 'm'},                           // no arguments
      {7, 1, 'm', 0, 0},                     // bytes left over
      {7, 1, 'm', 5},                        // type 5 does not exist
      {7, 1, 'm', 15},                       // nor does 15
      {7, 1, 'm', 7, 255, 255, 255, 255, 255},  // string past the end
      {7, 1, 'm', 12, 255, 0, 0, 0, 64},     // a list of 2^30 elements in 5 bytes
      {7, 1, 'm', 13, 254, 255, 255, 0},     // a map longer than what is left
      {7, 1, 'm', 11, 255, 0, 0, 0, 32},     // float64 list past the end
      {7, 1, 'm', 6, 0, 0},                  // truncated double
      {3, 1, 0, 0, 0, 0},                    // the method is no string
  };
  for (size_t i = 0; i < bad.size(); ++i) EXPECT_FALSE(standard::decodeMethodCall(bad[i])) << "case " << i;
  Bytes deep = {7, 1, 'm'};
  for (int i = 0; i < standard::kMaxDepth + 2; ++i) deep.insert(deep.end(), {12, 1});
  deep.push_back(0);
  EXPECT_FALSE(standard::decodeMethodCall(deep));
  EXPECT_FALSE(wire::parseBinary(Bytes{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(wire::parseBinary(Bytes{0, 0, 2, 0, 0, 0, 0, 0, 'a'}));
  EXPECT_FALSE(standard::decodeEnvelope(Bytes{2}));
  EXPECT_FALSE(standard::decodeEnvelope(Bytes{1, 3, 1, 0, 0, 0}));  // error code must be text
}

TEST(HostCodec, JsonNumbersTextsAndFrames) {
  auto v = wire::fromJson(R"({"i":7,"neg":-3,"d":7.0,"e":1e3,"big":18446744073709551615,"s":"ç","n":null})");
  ASSERT_TRUE(v);
  EXPECT_EQ(*v->getInt("i"), 7);
  EXPECT_EQ(*v->getInt("neg"), -3);
  EXPECT_EQ(*v->getDouble("d"), 7.0);
  EXPECT_EQ(*v->getDouble("e"), 1000.0);
  EXPECT_TRUE(v->find("big")->isDouble());
  EXPECT_EQ(*v->getString("s"), "ç");
  EXPECT_TRUE(v->find("n")->isNull());

  // Typed lists become arrays; non-finite doubles and bad UTF-8 stay valid JSON.
  EXPECT_EQ(wire::toJson(Value::map({{"b", Value(Bytes{1, 2})}, {"f", Value(std::vector<float>{0.5f})},
                                     {"x", Value(std::nan(""))}, {"s", Value(std::string("\xff"))}})),
            R"({"b":[1,2],"f":[0.5],"s":"�","x":null})");

  auto call = wire::parseText(
      wire::buildTextCall("app.kavlen/display", Value(7), "openOutput", Value::map({{"outputId", "out-1"}})));
  ASSERT_TRUE(call);
  EXPECT_EQ(call->kind, "call");
  EXPECT_EQ(*call->channel, "app.kavlen/display");
  EXPECT_EQ(*call->method, "openOutput");
  EXPECT_EQ(*call->args.getString("outputId"), "out-1");
  EXPECT_EQ(wire::buildTextReply("app.kavlen/nothing", Value(9), MethodResult::notImplemented()),
            R"({"channel":"app.kavlen/nothing","id":9,"kind":"reply","reply":null})");
  EXPECT_EQ(wire::buildTextReply("w", Value(8), MethodResult::error("code", "message")),
            R"({"channel":"w","id":8,"kind":"reply","reply":["code","message",null]})");

  for (const char* bad : {"", "[]", "{}", R"({"kind":1})", "{\"kind\":\"call\"", "nul"})
    EXPECT_FALSE(wire::parseText(bad)) << bad;
  EXPECT_FALSE(wire::parseText(std::string(100000, '[') + std::string(100000, ']')));
}

TEST(HostConcurrency, MainLoopKeepsOrderAcrossThreadsAndTimers) {
  MainLoop loop;
  std::vector<int> seen;
  std::vector<std::thread> posters;
  std::atomic<int> done{0};
  for (int t = 0; t < 4; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) loop.post([&, t, i] { seen.push_back(t * 1000 + i); });
      ++done;
    });
  for (auto& p : posters) p.join();
  std::vector<int> timers;
  loop.postAfter(std::chrono::milliseconds(30), [&] { timers.push_back(2); });
  loop.postAfter(std::chrono::milliseconds(10), [&] { timers.push_back(1); });
  const uint64_t cancelled = loop.postAfter(std::chrono::milliseconds(20), [&] { timers.push_back(99); });
  loop.cancel(cancelled);
  loop.postAfter(std::chrono::milliseconds(40), [&] { loop.quit(); });
  loop.run();
  ASSERT_EQ(seen.size(), 800u);
  // Each poster's tasks keep their order.
  for (int t = 0; t < 4; ++t) {
    int last = -1;
    for (int v : seen)
      if (v / 1000 == t) {
        EXPECT_GT(v % 1000, last);
        last = v % 1000;
      }
  }
  EXPECT_EQ(timers, (std::vector<int>{1, 2}));
}

TEST(HostConcurrency, SerialQueueAndPool) {
  std::vector<int> order;
  {
    SerialQueue q("test");
    q.asyncAfter(std::chrono::milliseconds(30), [&] { order.push_back(3); });
    for (int i = 0; i < 3; ++i) q.async([&, i] { order.push_back(i); });
    bool onQueue = false;
    q.sync([&] { onQueue = q.isCurrent(); });
    EXPECT_TRUE(onQueue);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    q.sync([] {});
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));

  WorkerPool pool(2);
  std::atomic<int> ran{0};
  for (int i = 0; i < 100; ++i) pool.submit([&] { ++ran; });
  while (ran < 100) std::this_thread::yield();
  pool.shutdown();
  EXPECT_FALSE(pool.submit([] {}));
}

TEST(HostConcurrency, InProcessRepliesOnceOnTheLoop) {
  MainLoop loop;
  WorkerPool pool(2);
  InProcessMessenger m(loop);
  std::thread::id loopThread = std::this_thread::get_id(), replyThread;
  m.setMethodHandler("c", [&](const MethodCall& call, Reply reply) {
    pool.submit([&loop, reply, call] {
      reply(MethodResult::success(Value(call.method)));
      reply(MethodResult::error("twice"));  // ignored
    });
  });
  MethodChannel(m, "c").invokeMethod("event", Value(1));
  m.call("c", "x", {}, [&](MethodResult r) {
    replyThread = std::this_thread::get_id();
    EXPECT_EQ(*r.value.asString(), "x");
  });
  auto r = m.callAndWait("c", "hello");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->kind, MethodResult::Kind::Success);
  EXPECT_EQ(replyThread, loopThread);
  EXPECT_EQ(m.callAndWait("nothing", "x")->kind, MethodResult::Kind::NotImplemented);
  ASSERT_EQ(m.sent().size(), 1u);
  EXPECT_EQ(m.sent()[0].method, "event");
}

TEST(HostApp, WindowPlacementFromTheEnvironment) {
  using kavlen::app::parseWindowPlacement;
  auto p = parseWindowPlacement("1280x800@100,60");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->width, 1280);
  EXPECT_EQ(p->height, 800);
  EXPECT_EQ(p->left, 100);
  EXPECT_EQ(p->top, 60);
  EXPECT_TRUE(parseWindowPlacement("1280.5x800x1.5x2"));
  EXPECT_TRUE(parseWindowPlacement("xx1280xabcx800@@100,,60x"));  // a bad piece is dropped
  EXPECT_FALSE(parseWindowPlacement("1280x800@100"));
  EXPECT_FALSE(parseWindowPlacement("1280x800@100,60,5"));
  EXPECT_FALSE(parseWindowPlacement(""));
}
