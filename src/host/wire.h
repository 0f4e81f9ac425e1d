// Frames of the channel host's WebSocket: the envelope that names a channel
// and pairs a reply with its call, around a payload of either codec.
//
// Binary frame (standard codec):
//   u8 kind (0 call, 1 reply) | u8 0 | u16 LE name length N | u32 LE id |
//   N bytes channel name | payload to the end of the frame
// Text frame (JSON method codec), one object:
//   {"kind":"call","channel":C,"id":I,"method":M,"args":A}
//   {"kind":"reply","channel":C,"id":I,"reply":[result] | [code,message,details] | null}
//
// Parsing splits two kinds of bad input: a frame whose envelope cannot be read
// (the connection is closed with 1007) and a call whose payload cannot be
// decoded (answered with the error "bad-message").
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "value.h"

namespace kavlen::host::wire {

inline constexpr uint8_t kCall = 0;
inline constexpr uint8_t kReply = 1;

struct BinaryFrame {
  uint8_t kind = 0;
  uint32_t id = 0;
  std::string channel;
  std::span<const uint8_t> payload;  // into the parsed bytes
};

// Empty when the frame is shorter than 8 bytes or its name runs past its end.
std::optional<BinaryFrame> parseBinary(std::span<const uint8_t> frame);
std::vector<uint8_t> buildBinary(uint8_t kind, uint32_t id, std::string_view channel,
                                 std::span<const uint8_t> payload);

struct TextFrame {
  std::string kind;
  std::optional<std::string> channel;  // absent or not a string: empty
  Value id;                            // as the sender wrote it
  std::optional<std::string> method;
  Value args;                          // null when absent
  Value reply;                         // for replies
};

// Empty when the text is no JSON object with a string "kind" (nesting deeper
// than the codec's limit counts as no JSON).
std::optional<TextFrame> parseText(std::string_view text);
std::string buildTextCall(std::string_view channel, const Value& id, std::string_view method, const Value& args);
std::string buildTextReply(std::string_view channel, const Value& id, const MethodResult& result);

// The JSON method codec's value mapping, also used for replies' envelopes.
// Typed lists become arrays, maps with non-text keys use the key's JSON text,
// non-finite doubles become null, invalid UTF-8 is replaced.
std::string toJson(const Value& v);
// Whole numbers become ints (doubles when beyond int64), others doubles.
std::optional<Value> fromJson(std::string_view text);
// The envelope of a reply as a value: [result], [code, message, details], or null.
Value envelopeValue(const MethodResult& result);
std::optional<MethodResult> resultFromEnvelope(const Value& envelope);

}  // namespace kavlen::host::wire
