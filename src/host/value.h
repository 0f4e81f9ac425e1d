// Values that travel over the method channels.
//
// A `Value` holds one value of the standard method codec: null, bool, an
// integer (int64; the codec writes it as int32 when it fits), float64, string,
// the typed lists (uint8, int32, int64, float32, float64), a list, or a map with
// keys of any type kept in their order. The JSON codec maps onto the same type.
//
// `MethodCall` is a method name with its arguments; `MethodResult` is what a
// handler answers: success with a value, an error (code, optional message,
// details), or "not implemented".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kavlen::host {

class Value;
using ValueList = std::vector<Value>;
using ValueMap = std::vector<std::pair<Value, Value>>;

class Value {
 public:
  enum class Type : uint8_t {
    Null, Bool, Int, Double, String, Uint8List, Int32List, Int64List, Float32List, Float64List, List, Map
  };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(int64_t{i}) {}
  Value(int64_t i) : v_(i) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::vector<uint8_t> b) : v_(std::move(b)) {}
  Value(std::vector<int32_t> l) : v_(std::move(l)) {}
  Value(std::vector<int64_t> l) : v_(std::move(l)) {}
  Value(std::vector<float> l) : v_(std::move(l)) {}
  Value(std::vector<double> l) : v_(std::move(l)) {}
  Value(ValueList l) : v_(std::move(l)) {}
  Value(ValueMap m) : v_(std::move(m)) {}

  // A map from text keys, in the order given: Value::map({{"a", 1}, {"b", "x"}}).
  static Value map(std::initializer_list<std::pair<std::string, Value>> entries);

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isBool() const { return type() == Type::Bool; }
  bool isInt() const { return type() == Type::Int; }
  bool isDouble() const { return type() == Type::Double; }
  bool isString() const { return type() == Type::String; }
  bool isList() const { return type() == Type::List; }
  bool isMap() const { return type() == Type::Map; }

  // Typed access: the pointer is null when the value has another type.
  const bool* asBool() const { return std::get_if<bool>(&v_); }
  const int64_t* asInt() const { return std::get_if<int64_t>(&v_); }
  const double* asDouble() const { return std::get_if<double>(&v_); }
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const std::vector<uint8_t>* asBytes() const { return std::get_if<std::vector<uint8_t>>(&v_); }
  const std::vector<int32_t>* asInt32List() const { return std::get_if<std::vector<int32_t>>(&v_); }
  const std::vector<int64_t>* asInt64List() const { return std::get_if<std::vector<int64_t>>(&v_); }
  const std::vector<float>* asFloat32List() const { return std::get_if<std::vector<float>>(&v_); }
  const std::vector<double>* asFloat64List() const { return std::get_if<std::vector<double>>(&v_); }
  const ValueList* asList() const { return std::get_if<ValueList>(&v_); }
  const ValueMap* asMap() const { return std::get_if<ValueMap>(&v_); }
  ValueList* asList() { return std::get_if<ValueList>(&v_); }
  ValueMap* asMap() { return std::get_if<ValueMap>(&v_); }

  // The value under a text key of a map; null when this is no map or the key
  // is absent. The first entry with the key wins.
  const Value* find(std::string_view key) const;
  // Convenience reads of a map entry with the type the caller wants; empty
  // when absent or of another type (an int is not a double, nor the reverse).
  std::optional<std::string> getString(std::string_view key) const;
  std::optional<int64_t> getInt(std::string_view key) const;
  std::optional<double> getDouble(std::string_view key) const;
  std::optional<bool> getBool(std::string_view key) const;

  // Adds or replaces a text key in a map (a null value becomes an empty map).
  Value& set(std::string key, Value value);

  bool operator==(const Value& other) const { return v_ == other.v_; }

 private:
  std::variant<std::monostate, bool, int64_t, double, std::string, std::vector<uint8_t>, std::vector<int32_t>,
               std::vector<int64_t>, std::vector<float>, std::vector<double>, ValueList, ValueMap>
      v_;
};

struct MethodCall {
  std::string method;
  Value args;
};

struct MethodResult {
  enum class Kind : uint8_t { Success, Error, NotImplemented };
  Kind kind = Kind::NotImplemented;
  Value value;                         // Success
  std::string code;                    // Error
  std::optional<std::string> message;  // Error
  Value details;                       // Error

  static MethodResult success(Value v = {}) {
    MethodResult r;
    r.kind = Kind::Success;
    r.value = std::move(v);
    return r;
  }
  static MethodResult error(std::string code, std::optional<std::string> message = std::nullopt, Value details = {}) {
    MethodResult r;
    r.kind = Kind::Error;
    r.code = std::move(code);
    r.message = std::move(message);
    r.details = std::move(details);
    return r;
  }
  static MethodResult notImplemented() { return MethodResult{}; }
  bool operator==(const MethodResult& o) const = default;
};

}  // namespace kavlen::host
