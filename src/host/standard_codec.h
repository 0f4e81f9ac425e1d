// The standard method codec: the binary encoding of `Value`s, method calls and
// reply envelopes carried in binary frames of the channel host.
//
// Types: 0 null, 1 true, 2 false, 3 int32, 4 int64, 6 float64, 7 string,
// 8 uint8 list, 9 int32 list, 10 int64 list, 11 float64 list, 12 list,
// 13 map, 14 float32 list. Sizes take one byte below 254, else 254 + u16 or
// 255 + u32, little-endian. Doubles and typed lists are aligned to their
// element size, counted from the start of the buffer, which is the start of
// a frame's payload. An integer that fits 32 bits is written as int32.
//
// Decoding never trusts a declared length: a size is checked against the
// bytes that remain before anything is allocated, nesting deeper than
// `kMaxDepth` is refused, and bytes left over after the last value make a
// call malformed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "value.h"

namespace kavlen::host::standard {

inline constexpr int kMaxDepth = 256;

void writeValue(std::vector<uint8_t>& out, const Value& v);
// Reads one value starting at `pos` and moves `pos` past it; false when the
// bytes are no valid value (then `pos` and `out` are unspecified).
bool readValue(std::span<const uint8_t> in, size_t& pos, Value& out);

std::vector<uint8_t> encodeMethodCall(const MethodCall& call);
// The method name as a string value, then one value of arguments, and
// nothing after them.
std::optional<MethodCall> decodeMethodCall(std::span<const uint8_t> in);

// Empty for not implemented; else 0 + value, or 1 + code, message, details.
std::vector<uint8_t> encodeEnvelope(const MethodResult& result);
std::optional<MethodResult> decodeEnvelope(std::span<const uint8_t> in);

}  // namespace kavlen::host::standard
