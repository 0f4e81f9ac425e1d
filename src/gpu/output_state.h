// The output state message: the text that the host sends to an output window.
//
// Either the bare ten characters "mediaReset" or a JSON object with a "scene"
// object and transport fields. Parsing has no GL and no engine dependency, so
// the fuzzer links this file on its own.
//
// Usage:
//   OutputState s;
//   switch (parseOutputState(text, s)) {
//     case OutputStateKind::MediaReset: ...; break;
//     case OutputStateKind::Rejected: break;  // ignored, nothing changes
//     case OutputStateKind::State: use s.sceneJson, s.sceneW, ...; break;
//   }
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct cJSON;

struct CjsonDeleter {
  void operator()(cJSON* json) const;
};
using JsonPtr = std::unique_ptr<cJSON, CjsonDeleter>;

enum class OutputStateKind { MediaReset, Rejected, State };

struct OutputState {
  JsonPtr scene;           // the parsed "scene" object
  std::string sceneJson;   // the scene serialised again: this is what the engine parses
  int32_t sceneW = 1920;   // from the first output's "resolution", before the lower bound of 1
  int32_t sceneH = 1080;
  std::string mode = "normal";
  bool playing = false;
  std::map<std::string, int64_t> positions;  // media key -> wanted position, microseconds
  std::map<std::string, double> speeds;      // media key -> playback rate
  std::optional<double> audioTimeMs;
  std::optional<double> audioClockOriginMs;
};

// Parses one message. On Rejected, `out` is left in an unspecified but valid
// state and the caller must not use it. Never throws, never crashes: any byte
// sequence is either a reset, a state or rejected.
OutputStateKind parseOutputState(std::string_view text, OutputState& out);

// The scene size that a scene object asks for: the first output's
// "resolution" when it is exactly two numbers above 0 (truncated), else
// 1920 by 1080. False when a dimension does not fit a 32-bit integer.
bool sceneSizeOf(const cJSON* scene, int32_t& width, int32_t& height);
