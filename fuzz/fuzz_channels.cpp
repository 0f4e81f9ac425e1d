// Fuzzes what the channel host reads from its clients: the binary frame's
// envelope, the standard codec's method calls and reply envelopes, and the
// JSON text frames. Nothing may crash or read out of bounds, and whatever
// decodes must encode to bytes that decode to the same bytes again.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "standard_codec.h"
#include "wire.h"

using namespace kavlen::host;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  if (auto f = wire::parseBinary(bytes)) {
    if (auto call = standard::decodeMethodCall(f->payload)) {
      const auto once = standard::encodeMethodCall(*call);
      auto again = standard::decodeMethodCall(once);
      if (!again || standard::encodeMethodCall(*again) != once) abort();
      // The JSON codec must take any decoded value.
      if (!wire::parseText(wire::buildTextCall(f->channel, Value(1), call->method, call->args))) abort();
    }
  }
  if (auto r = standard::decodeEnvelope(bytes)) {
    const auto once = standard::encodeEnvelope(*r);
    auto again = standard::decodeEnvelope(once);
    if (!again || standard::encodeEnvelope(*again) != once) abort();
  }
  wire::parseText(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
