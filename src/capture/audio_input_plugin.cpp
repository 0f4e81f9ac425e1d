#include "audio_input_plugin.h"

namespace kavlen::capture {
namespace {

using host::MethodCall;
using host::MethodResult;
using host::Reply;
using host::Value;

// A list of whole numbers in any of the codec's forms; empty otherwise.
std::vector<int> parseChannels(const Value* v) {
  std::vector<int> out;
  if (!v) return out;
  auto fits = [](int64_t x) { return x >= INT32_MIN && x <= INT32_MAX; };
  if (const auto* l = v->asInt32List()) return {l->begin(), l->end()};
  if (const auto* l = v->asInt64List()) {
    for (int64_t x : *l) {
      if (!fits(x)) return {};
      out.push_back(static_cast<int>(x));
    }
    return out;
  }
  if (const auto* l = v->asList()) {
    for (const Value& e : *l) {
      const int64_t* x = e.asInt();
      if (!x || !fits(*x)) return {};
      out.push_back(static_cast<int>(*x));
    }
  }
  return out;
}

}  // namespace

std::vector<AudioInput::Source> AudioInputPlugin::parseSources(const Value& args) {
  std::vector<AudioInput::Source> out;
  const host::ValueList* list = args.asList();
  if (!list) return out;
  for (const Value& entry : *list) {
    if (!entry.isMap()) return {};
    AudioInput::Source s;
    s.id = entry.getString("id").value_or("");
    s.device = entry.getString("device");
    s.channels = parseChannels(entry.find("channels"));
    out.push_back(std::move(s));
  }
  return out;
}

void AudioInputPlugin::registerWith(host::Messenger& messenger, host::MainLoop& loop, AudioInput& input) {
  messenger.setMethodHandler(kChannel, [&loop, &input](const MethodCall& call, Reply reply) {
    if (call.method == "devices") {
      // Asking the server takes a round trip: not on the main loop.
      input.async([&loop, reply] {
        host::ValueList list;
        for (const AudioInput::Device& d : AudioInput::devices())
          list.push_back(Value::map({{"id", d.id}, {"name", d.name}, {"channels", d.channels}}));
        loop.post([reply, list = std::move(list)] { reply(MethodResult::success(Value(list))); });
      });
    } else if (call.method == "setSources") {
      input.setSources(parseSources(call.args), loop, [reply](AudioInput::Results results) {
        host::ValueMap map;
        for (auto& [id, result] : results) map.emplace_back(Value(id), Value(result));
        reply(MethodResult::success(Value(std::move(map))));
      });
    } else if (call.method == "setGain") {
      double gain = 1.0;
      if (const double* d = call.args.asDouble())
        gain = *d;
      else if (const int64_t* i = call.args.asInt())
        gain = static_cast<double>(*i);
      AudioInput::setGain(static_cast<float>(gain));
      reply(MethodResult::success());
    } else {
      reply(MethodResult::notImplemented());
    }
  });
}

}  // namespace kavlen::capture
