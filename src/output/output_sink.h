// What stands behind an output window: something that takes the output's
// state texts and puts them on screen. The window manager treats every kind
// alike; the sink owns its window because the window's kind depends on it
// (a GL ES context for the GPU sink, none for the CPU sink).
//
//   std::unique_ptr<OutputSink> s = GlOutputSink::create(outputId, mediaRoot);
//   if (!s) s = CpuOutputSink::create(outputId, mediaRoot);
//   s->send(stateText);      // main thread
//   s->frame();              // at each refresh, main thread
//   s->close();
#pragma once

#include <functional>
#include <string>

struct GLFWwindow;

namespace kavlen::output {

class OutputSink {
 public:
  virtual ~OutputSink() = default;
  // Called by the sink when it can take a scene (the manager then sends the
  // last one again).
  std::function<void()> onReady;

  virtual void send(const std::string& state) = 0;
  // Draws and presents one frame if anything is to be shown; the manager
  // calls it at the display's refresh.
  virtual void frame() = 0;
  // Stops drawing and lets go of GPU work and players. A second close is
  // harmless; nothing is sent after it.
  virtual void close() = 0;
  // The window, created hidden; the manager places and shows it.
  GLFWwindow* window() const { return window_; }
  virtual const char* kind() const = 0;
  // The window's picture was lost (exposed, moved between screens): the next
  // frame must present again even if nothing changed.
  virtual void invalidate() {}

 protected:
  GLFWwindow* window_ = nullptr;
};

}  // namespace kavlen::output
