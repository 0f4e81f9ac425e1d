// The export channel "app.kavlen/export": the interface writes a movie file,
// either by pushing finished RGBA frames ("appendFrame") or by handing over
// the scene to be rendered on a background thread ("renderNative"); the audio
// clips given at "start" are mixed and written at "finish".
//
//   MainLoop loop; WorkerPool pool; InProcessMessenger m(loop);
//   auto plugin = VideoExportPlugin::registerWith(m, loop, pool, rendererFactory);
//
// Calls: "start" {path, width, height, fps, audioClips?, codec?, bitrate?,
// audioBitrate?}, "appendFrame" {timeMs, rgba}, "renderNative" {scene,
// lengthMs, mediaRoot} answering "ok" or "cancelled", "finish", "cancel".
// Outgoing: "progress" {fraction, frame, total} while rendering.
//
// Everything here runs on the main loop except the render loop and the audio
// mix, which run on the worker pool with their own references to the writer.
// The pool must be destroyed after the messenger (which owns the plug-in), so
// that a render under way is cancelled before the pool joins it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "export_renderer.h"
#include "main_loop.h"
#include "messenger.h"
#include "workers.h"

namespace kavlen::exporter {

class MovieWriter;

struct ExportOptions {
  // How long "appendFrame" waits for a busy encoder before it gives up.
  std::chrono::milliseconds backPressureLimit{5000};
  // Called on the main loop with the writer of each export that starts, for
  // an embedder that watches (or pauses) the encoding.
  std::function<void(const std::shared_ptr<MovieWriter>&)> writerStarted;
};

class VideoExportPlugin {
 public:
  static constexpr const char* kChannel = "app.kavlen/export";
  using Options = ExportOptions;

  // Registers the channel; the messenger's handler keeps the plug-in alive.
  // Without a renderer factory the frames are drawn by the offline compositor.
  static std::shared_ptr<VideoExportPlugin> registerWith(host::Messenger& messenger, host::MainLoop& loop,
                                                         host::WorkerPool& pool, ExportRendererFactory factory = {},
                                                         Options options = {});
  ~VideoExportPlugin();

  void handle(const host::MethodCall& call, host::Reply reply);

  struct State;

 private:
  VideoExportPlugin(host::Messenger& messenger, host::MainLoop& loop, host::WorkerPool& pool,
                    ExportRendererFactory factory, Options options);
  std::shared_ptr<State> state_;
};

}  // namespace kavlen::exporter
