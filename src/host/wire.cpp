#include "wire.h"

#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

#include "standard_codec.h"

namespace kavlen::host::wire {
namespace {

using json = nlohmann::json;

// Builds a Value straight from the parser's events, with a depth limit, so
// that neither a deep text nor a second tree costs more than the text itself.
class ValueBuilder : public nlohmann::json_sax<json> {
 public:
  Value root;

  bool null() override { return add(Value()); }
  bool boolean(bool b) override { return add(Value(b)); }
  bool number_integer(number_integer_t i) override { return add(Value(static_cast<int64_t>(i))); }
  bool number_unsigned(number_unsigned_t u) override {
    if (u <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return add(Value(static_cast<int64_t>(u)));
    return add(Value(static_cast<double>(u)));
  }
  bool number_float(number_float_t d, const string_t&) override { return add(Value(static_cast<double>(d))); }
  bool string(string_t& s) override { return add(Value(std::move(s))); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Value(ValueMap{})); }
  bool key(string_t& k) override {
    key_ = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Value(ValueList{})); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  // Containers under construction; the top one receives values.
  std::vector<Value> stack_;
  std::string key_;

  bool add(Value v) {
    if (stack_.empty()) {
      root = std::move(v);
      return true;
    }
    Value& top = stack_.back();
    if (ValueMap* m = top.asMap())
      m->emplace_back(Value(std::move(key_)), std::move(v));
    else
      top.asList()->push_back(std::move(v));
    return true;
  }
  bool open(Value container) {
    // The same nesting as the standard codec allows, plus the frame's own
    // object around the arguments.
    if (stack_.size() >= static_cast<size_t>(standard::kMaxDepth) + 2) return false;
    // The key of a container inside a map must wait until it is closed.
    keys_.push_back(std::move(key_));
    stack_.push_back(std::move(container));
    return true;
  }
  bool close() {
    Value done = std::move(stack_.back());
    stack_.pop_back();
    key_ = std::move(keys_.back());
    keys_.pop_back();
    return add(std::move(done));
  }
  std::vector<std::string> keys_;
};

json toTree(const Value& v, int depth) {
  if (depth > standard::kMaxDepth) return nullptr;
  switch (v.type()) {
    case Value::Type::Null: return nullptr;
    case Value::Type::Bool: return *v.asBool();
    case Value::Type::Int: return *v.asInt();
    case Value::Type::Double: return *v.asDouble();
    case Value::Type::String: return *v.asString();
    case Value::Type::Uint8List: return *v.asBytes();
    case Value::Type::Int32List: return *v.asInt32List();
    case Value::Type::Int64List: return *v.asInt64List();
    case Value::Type::Float32List: return *v.asFloat32List();
    case Value::Type::Float64List: return *v.asFloat64List();
    case Value::Type::List: {
      json a = json::array();
      for (const Value& e : *v.asList()) a.push_back(toTree(e, depth + 1));
      return a;
    }
    case Value::Type::Map: {
      json o = json::object();
      for (const auto& [k, e] : *v.asMap()) {
        const std::string key = k.isString() ? *k.asString() : toJson(k);
        if (!o.contains(key)) o[key] = toTree(e, depth + 1);
      }
      return o;
    }
  }
  return nullptr;
}

std::string dump(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

std::optional<BinaryFrame> parseBinary(std::span<const uint8_t> frame) {
  if (frame.size() < 8) return std::nullopt;
  uint16_t n;
  uint32_t id;
  std::memcpy(&n, frame.data() + 2, 2);
  std::memcpy(&id, frame.data() + 4, 4);
  if (frame.size() - 8 < n) return std::nullopt;
  BinaryFrame f;
  f.kind = frame[0];
  f.id = id;
  f.channel.assign(reinterpret_cast<const char*>(frame.data() + 8), n);
  f.payload = frame.subspan(8 + n);
  return f;
}

std::vector<uint8_t> buildBinary(uint8_t kind, uint32_t id, std::string_view channel,
                                 std::span<const uint8_t> payload) {
  const auto n = static_cast<uint16_t>(std::min<size_t>(channel.size(), 0xFFFF));
  std::vector<uint8_t> out(8 + n + payload.size());
  out[0] = kind;
  out[1] = 0;
  std::memcpy(out.data() + 2, &n, 2);
  std::memcpy(out.data() + 4, &id, 4);
  std::memcpy(out.data() + 8, channel.data(), n);
  if (!payload.empty()) std::memcpy(out.data() + 8 + n, payload.data(), payload.size());
  return out;
}

std::optional<Value> fromJson(std::string_view text) {
  ValueBuilder b;
  if (!json::sax_parse(text.begin(), text.end(), &b, json::input_format_t::json, true, false)) return std::nullopt;
  return std::move(b.root);
}

std::string toJson(const Value& v) { return dump(toTree(v, 0)); }

std::optional<TextFrame> parseText(std::string_view text) {
  std::optional<Value> v = fromJson(text);
  if (!v || !v->isMap()) return std::nullopt;
  std::optional<std::string> kind = v->getString("kind");
  if (!kind) return std::nullopt;
  TextFrame f;
  f.kind = std::move(*kind);
  f.channel = v->getString("channel");
  if (const Value* id = v->find("id")) f.id = *id;
  f.method = v->getString("method");
  if (const Value* a = v->find("args")) f.args = *a;
  if (const Value* r = v->find("reply")) f.reply = *r;
  return f;
}

std::string buildTextCall(std::string_view channel, const Value& id, std::string_view method, const Value& args) {
  json o = json::object();
  o["kind"] = "call";
  o["channel"] = std::string(channel);
  o["id"] = toTree(id, 0);
  o["method"] = std::string(method);
  o["args"] = toTree(args, 0);
  return dump(o);
}

Value envelopeValue(const MethodResult& result) {
  switch (result.kind) {
    case MethodResult::Kind::Success: return Value(ValueList{result.value});
    case MethodResult::Kind::Error:
      return Value(ValueList{Value(result.code), result.message ? Value(*result.message) : Value(), result.details});
    case MethodResult::Kind::NotImplemented: break;
  }
  return Value();
}

std::optional<MethodResult> resultFromEnvelope(const Value& envelope) {
  if (envelope.isNull()) return MethodResult::notImplemented();
  const ValueList* l = envelope.asList();
  if (!l) return std::nullopt;
  if (l->size() == 1) return MethodResult::success((*l)[0]);
  if (l->size() == 3 && (*l)[0].isString() && ((*l)[1].isNull() || (*l)[1].isString()))
    return MethodResult::error(*(*l)[0].asString(),
                               (*l)[1].isString() ? std::optional<std::string>(*(*l)[1].asString()) : std::nullopt,
                               (*l)[2]);
  return std::nullopt;
}

std::string buildTextReply(std::string_view channel, const Value& id, const MethodResult& result) {
  json o = json::object();
  o["kind"] = "reply";
  o["channel"] = std::string(channel);
  o["id"] = toTree(id, 0);
  o["reply"] = toTree(envelopeValue(result), 0);
  return dump(o);
}

}  // namespace kavlen::host::wire
