// The main window: the operator's monitor on the machine that drives the
// projectors. It shows where the channels listen, who is connected, and a
// small preview of what each output shows. Closing it ends the application.
//
// The window is drawn with Cairo and Pango straight onto its X11 window, so
// it needs no GL and works wherever a window can open (also under Xvfb).
//
//   auto w = MainWindow::create([&] { app.terminate(); });
//   w->setState(state);              // repaints
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct GLFWwindow;

namespace kavlen::app {

struct OutputPreview {
  std::string id;
  std::string where;           // "display NAME" or "window"
  std::vector<uint8_t> rgba;   // straight RGBA, may be empty
  int width = 0, height = 0;
};

struct MonitorState {
  std::string channels;        // ws://127.0.0.1:PORT/channels
  std::string console;         // http://127.0.0.1:PORT/ (empty: none)
  std::vector<std::string> clients;
  std::vector<OutputPreview> outputs;
};

// A placement from KAVLEN_WINDOW: width, height, left, top. Each "@" and ","
// counts as "x"; pieces are split at "x", empty ones dropped, and those that
// are numbers kept; exactly four numbers make a placement.
struct WindowPlacement {
  double width, height, left, top;
};
std::optional<WindowPlacement> parseWindowPlacement(const std::string& text);

class MainWindow {
 public:
  static constexpr int kMinWidth = 900, kMinHeight = 600;

  // Null when no window can be made. `onClose` runs when the user closes it.
  static std::unique_ptr<MainWindow> create(std::function<void()> onClose);
  ~MainWindow();

  void setState(MonitorState state);
  // Sets the placement again (the second placement after one second).
  void applyPlacement(const WindowPlacement& p);
  GLFWwindow* handle() const { return window_; }

 private:
  MainWindow() = default;
  void paint();
  GLFWwindow* window_ = nullptr;
  std::function<void()> onClose_;
  MonitorState state_;
};

}  // namespace kavlen::app
