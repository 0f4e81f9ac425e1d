#include "value.h"

namespace kavlen::host {

Value Value::map(std::initializer_list<std::pair<std::string, Value>> entries) {
  ValueMap m;
  m.reserve(entries.size());
  for (const auto& [k, v] : entries) m.emplace_back(Value(k), v);
  return Value(std::move(m));
}

const Value* Value::find(std::string_view key) const {
  const ValueMap* m = asMap();
  if (!m) return nullptr;
  for (const auto& [k, v] : *m) {
    const std::string* s = k.asString();
    if (s && *s == key) return &v;
  }
  return nullptr;
}

std::optional<std::string> Value::getString(std::string_view key) const {
  const Value* v = find(key);
  if (v && v->asString()) return *v->asString();
  return std::nullopt;
}

std::optional<int64_t> Value::getInt(std::string_view key) const {
  const Value* v = find(key);
  if (v && v->asInt()) return *v->asInt();
  return std::nullopt;
}

std::optional<double> Value::getDouble(std::string_view key) const {
  const Value* v = find(key);
  if (v && v->asDouble()) return *v->asDouble();
  return std::nullopt;
}

std::optional<bool> Value::getBool(std::string_view key) const {
  const Value* v = find(key);
  if (v && v->asBool()) return *v->asBool();
  return std::nullopt;
}

Value& Value::set(std::string key, Value value) {
  if (isNull()) v_ = ValueMap{};
  ValueMap* m = asMap();
  if (!m) return *this;
  for (auto& [k, v] : *m) {
    const std::string* s = k.asString();
    if (s && *s == key) {
      v = std::move(value);
      return *this;
    }
  }
  m->emplace_back(Value(std::move(key)), std::move(value));
  return *this;
}

}  // namespace kavlen::host
