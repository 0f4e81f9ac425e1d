// The media services on their channels: waveform peaks and raw samples
// ("app.kavlen/waveform": "peaks", "pcm") and video thumbnails
// ("app.kavlen/thumbnail": "thumbnail").
//
// The handlers only read the arguments, on the main loop; decoding runs on
// the worker pool and the answer is posted back to the main loop. Failures
// answer null; a missing or mistyped required argument, or an unknown
// method, answers "not implemented", as the interface expects.
//
//   WaveformPlugin::registerWith(messenger, loop, workers);
//   ThumbnailPlugin::registerWith(messenger, loop, workers);
#pragma once

#include "main_loop.h"
#include "messenger.h"
#include "workers.h"

namespace kavlen::services {

struct WaveformPlugin {
  static constexpr const char* kChannel = "app.kavlen/waveform";
  static void registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& workers);
};

struct ThumbnailPlugin {
  static constexpr const char* kChannel = "app.kavlen/thumbnail";
  static void registerWith(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& workers);
};

}  // namespace kavlen::services
