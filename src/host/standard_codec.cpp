#include "standard_codec.h"

#include <cstring>
#include <limits>
#include <string>

namespace kavlen::host::standard {
namespace {

enum : uint8_t {
  kNull = 0, kTrue = 1, kFalse = 2, kInt32 = 3, kInt64 = 4, kFloat64 = 6, kString = 7, kUint8List = 8,
  kInt32List = 9, kInt64List = 10, kFloat64List = 11, kList = 12, kMap = 13, kFloat32List = 14
};

template <typename T>
void put(std::vector<uint8_t>& out, T v) {
  uint8_t b[sizeof(T)];
  std::memcpy(b, &v, sizeof(T));  // little-endian hosts only (x86-64, arm64)
  out.insert(out.end(), b, b + sizeof(T));
}

void putSize(std::vector<uint8_t>& out, size_t n) {
  if (n < 254) {
    out.push_back(static_cast<uint8_t>(n));
  } else if (n <= 0xFFFF) {
    out.push_back(254);
    put<uint16_t>(out, static_cast<uint16_t>(n));
  } else {
    out.push_back(255);
    put<uint32_t>(out, static_cast<uint32_t>(n));
  }
}

void align(std::vector<uint8_t>& out, size_t a) {
  while (out.size() % a) out.push_back(0);
}

template <typename T>
void putTyped(std::vector<uint8_t>& out, uint8_t type, const std::vector<T>& v) {
  out.push_back(type);
  putSize(out, v.size());
  if constexpr (sizeof(T) > 1) align(out, sizeof(T));
  const auto* p = reinterpret_cast<const uint8_t*>(v.data());
  out.insert(out.end(), p, p + v.size() * sizeof(T));
}

struct Reader {
  std::span<const uint8_t> in;
  size_t& pos;

  size_t left() const { return in.size() - pos; }
  template <typename T>
  bool get(T& v) {
    if (left() < sizeof(T)) return false;
    std::memcpy(&v, in.data() + pos, sizeof(T));
    pos += sizeof(T);
    return true;
  }
  bool size(size_t& n) {
    uint8_t b;
    if (!get(b)) return false;
    if (b < 254) {
      n = b;
    } else if (b == 254) {
      uint16_t s;
      if (!get(s)) return false;
      n = s;
    } else {
      uint32_t s;
      if (!get(s)) return false;
      n = s;
    }
    return true;
  }
  bool align(size_t a) {
    const size_t pad = (a - pos % a) % a;
    if (left() < pad) return false;
    pos += pad;
    return true;
  }
  template <typename T>
  bool typed(std::vector<T>& v) {
    size_t n;
    if (!size(n)) return false;
    if constexpr (sizeof(T) > 1)
      if (!align(sizeof(T))) return false;
    if (n > left() / sizeof(T)) return false;
    v.resize(n);
    std::memcpy(v.data(), in.data() + pos, n * sizeof(T));
    pos += n * sizeof(T);
    return true;
  }

  bool value(Value& out, int depth) {
    if (depth > kMaxDepth) return false;
    uint8_t type;
    if (!get(type)) return false;
    switch (type) {
      case kNull: out = Value(); return true;
      case kTrue: out = Value(true); return true;
      case kFalse: out = Value(false); return true;
      case kInt32: {
        int32_t i;
        if (!get(i)) return false;
        out = Value(int64_t{i});
        return true;
      }
      case kInt64: {
        int64_t i;
        if (!get(i)) return false;
        out = Value(i);
        return true;
      }
      case kFloat64: {
        double d;
        if (!align(8) || !get(d)) return false;
        out = Value(d);
        return true;
      }
      case kString: {
        size_t n;
        if (!size(n) || n > left()) return false;
        out = Value(std::string(reinterpret_cast<const char*>(in.data() + pos), n));
        pos += n;
        return true;
      }
      case kUint8List: { std::vector<uint8_t> v; if (!typed(v)) return false; out = Value(std::move(v)); return true; }
      case kInt32List: { std::vector<int32_t> v; if (!typed(v)) return false; out = Value(std::move(v)); return true; }
      case kInt64List: { std::vector<int64_t> v; if (!typed(v)) return false; out = Value(std::move(v)); return true; }
      case kFloat32List: { std::vector<float> v; if (!typed(v)) return false; out = Value(std::move(v)); return true; }
      case kFloat64List: { std::vector<double> v; if (!typed(v)) return false; out = Value(std::move(v)); return true; }
      case kList: {
        size_t n;
        // Every element takes at least one byte: a count beyond what is left
        // is a lie, refused before anything is reserved.
        if (!size(n) || n > left()) return false;
        ValueList list;
        list.reserve(n);
        for (size_t i = 0; i < n; ++i) {
          list.emplace_back();
          if (!value(list.back(), depth + 1)) return false;
        }
        out = Value(std::move(list));
        return true;
      }
      case kMap: {
        size_t n;
        if (!size(n) || n > left() / 2) return false;
        ValueMap map;
        map.reserve(n);
        for (size_t i = 0; i < n; ++i) {
          map.emplace_back();
          if (!value(map.back().first, depth + 1) || !value(map.back().second, depth + 1)) return false;
        }
        out = Value(std::move(map));
        return true;
      }
      default: return false;
    }
  }
};

}  // namespace

void writeValue(std::vector<uint8_t>& out, const Value& v) {
  switch (v.type()) {
    case Value::Type::Null: out.push_back(kNull); break;
    case Value::Type::Bool: out.push_back(*v.asBool() ? kTrue : kFalse); break;
    case Value::Type::Int: {
      const int64_t i = *v.asInt();
      if (i >= std::numeric_limits<int32_t>::min() && i <= std::numeric_limits<int32_t>::max()) {
        out.push_back(kInt32);
        put<int32_t>(out, static_cast<int32_t>(i));
      } else {
        out.push_back(kInt64);
        put<int64_t>(out, i);
      }
      break;
    }
    case Value::Type::Double:
      out.push_back(kFloat64);
      align(out, 8);
      put<double>(out, *v.asDouble());
      break;
    case Value::Type::String: {
      const std::string& s = *v.asString();
      out.push_back(kString);
      putSize(out, s.size());
      out.insert(out.end(), s.begin(), s.end());
      break;
    }
    case Value::Type::Uint8List: putTyped(out, kUint8List, *v.asBytes()); break;
    case Value::Type::Int32List: putTyped(out, kInt32List, *v.asInt32List()); break;
    case Value::Type::Int64List: putTyped(out, kInt64List, *v.asInt64List()); break;
    case Value::Type::Float32List: putTyped(out, kFloat32List, *v.asFloat32List()); break;
    case Value::Type::Float64List: putTyped(out, kFloat64List, *v.asFloat64List()); break;
    case Value::Type::List:
      out.push_back(kList);
      putSize(out, v.asList()->size());
      for (const Value& e : *v.asList()) writeValue(out, e);
      break;
    case Value::Type::Map:
      out.push_back(kMap);
      putSize(out, v.asMap()->size());
      for (const auto& [k, e] : *v.asMap()) {
        writeValue(out, k);
        writeValue(out, e);
      }
      break;
  }
}

bool readValue(std::span<const uint8_t> in, size_t& pos, Value& out) {
  if (pos > in.size()) return false;
  Reader r{in, pos};
  return r.value(out, 0);
}

std::vector<uint8_t> encodeMethodCall(const MethodCall& call) {
  std::vector<uint8_t> out;
  writeValue(out, Value(call.method));
  writeValue(out, call.args);
  return out;
}

std::optional<MethodCall> decodeMethodCall(std::span<const uint8_t> in) {
  size_t pos = 0;
  Value method, args;
  if (!readValue(in, pos, method) || !method.isString()) return std::nullopt;
  if (!readValue(in, pos, args) || pos != in.size()) return std::nullopt;
  return MethodCall{*method.asString(), std::move(args)};
}

std::vector<uint8_t> encodeEnvelope(const MethodResult& result) {
  std::vector<uint8_t> out;
  switch (result.kind) {
    case MethodResult::Kind::NotImplemented: break;
    case MethodResult::Kind::Success:
      out.push_back(0);
      writeValue(out, result.value);
      break;
    case MethodResult::Kind::Error:
      out.push_back(1);
      writeValue(out, Value(result.code));
      writeValue(out, result.message ? Value(*result.message) : Value());
      writeValue(out, result.details);
      break;
  }
  return out;
}

std::optional<MethodResult> decodeEnvelope(std::span<const uint8_t> in) {
  if (in.empty()) return MethodResult::notImplemented();
  size_t pos = 1;
  if (in[0] == 0) {
    Value v;
    if (!readValue(in, pos, v) || pos != in.size()) return std::nullopt;
    return MethodResult::success(std::move(v));
  }
  if (in[0] != 1) return std::nullopt;
  Value code, message, details;
  if (!readValue(in, pos, code) || !code.isString()) return std::nullopt;
  if (!readValue(in, pos, message) || !(message.isNull() || message.isString())) return std::nullopt;
  if (!readValue(in, pos, details) || pos != in.size()) return std::nullopt;
  return MethodResult::error(*code.asString(),
                             message.isString() ? std::optional<std::string>(*message.asString()) : std::nullopt,
                             std::move(details));
}

}  // namespace kavlen::host::standard
