// The "app.kavlen/audio" channel: the interface's hold on live capture.
//
//   "devices"     -> [{"id", "name", "channels"}, ...]
//   "setSources"  [{"id", "device"?, "channels"?}, ...] -> {id: "ok" | "unavailable" | "denied"}
//   "setGain"     number -> null
//
// Any other method is not implemented.
#pragma once

#include <vector>

#include "audio_input.h"
#include "messenger.h"

namespace kavlen::capture {

class AudioInputPlugin {
 public:
  static constexpr const char* kChannel = "app.kavlen/audio";

  // Serves the channel on `messenger` with `input`; replies come on `loop`.
  static void registerWith(host::Messenger& messenger, host::MainLoop& loop,
                           AudioInput& input = AudioInput::shared());

  // The sources of a "setSources" call. Anything but a list of maps is an
  // empty list; in an entry, a field of another type takes its default.
  static std::vector<AudioInput::Source> parseSources(const host::Value& args);
};

}  // namespace kavlen::capture
