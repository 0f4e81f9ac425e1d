// The owner of everything that appears on projectors, and of the project
// files handed to the application.
//
// Channel "app.kavlen/display": "ready", "setScene", "openOutput",
// "closeOutput", "listDisplays"; it tells every client "displayConnected"
// (with the window's size), "displayDisconnected" and "displaysChanged" once
// one has said "ready". An output opened on a display fills it with a
// borderless window; without a display it is a plain 960x540 window titled
// "Kavlen · ID", each new one 40 points to the right of the last. The last
// state sent to every id is kept, so a reopened output shows it at once.
// When displays come and go, outputs on a lost display close and "out-1"
// comes back by itself on the first free external display.
//
// Channel "app.kavlen/files": "ready" delivers the project paths that waited
// for the interface ("openFiles"); any method answers null.
//
// Everything here runs on the main loop; GLFW must be initialised.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "main_loop.h"
#include "messenger.h"
#include "output_sink.h"
#include "value.h"

struct GLFWwindow;
struct GLFWmonitor;

namespace kavlen::output {

struct Preview {
  std::string id;
  std::string where;  // "display NAME" or "window"
  std::vector<uint8_t> rgba;
  int width = 0, height = 0;
};

class OutputWindowManager {
 public:
  static constexpr const char* kDisplayChannel = "app.kavlen/display";
  static constexpr const char* kFilesChannel = "app.kavlen/files";
  static constexpr const char* kDefaultOutput = "out-1";

  // `windows` false: no display could be opened; outputs then never open
  // and "listDisplays" answers an empty list.
  OutputWindowManager(host::MainLoop& loop, bool windows);
  ~OutputWindowManager();

  // Registers both channels, watches the displays, and opens "out-1" on
  // the first external display if there is one. Once.
  void attachMain(host::Messenger& messenger);
  // Keeps the paths ending in ".kvln" (any case) and sends or queues them.
  void openFiles(const std::vector<std::string>& paths);

  void openOutput(const std::string& id, const std::optional<std::string>& displayId);
  void closeOutput(const std::string& id);
  void closeAll();
  host::Value listDisplays() const;
  void screensChanged();

  std::vector<std::string> openIds() const;
  const std::vector<std::string>& pendingFiles() const { return pendingFiles_; }
  std::string mediaRoot() const { return mediaRoot_; }
  // Small CPU renders of each open output's last scene, for the monitor.
  std::vector<Preview> previews(int width, int height);
  // The last scene text sent to an id (open or not).
  std::optional<std::string> lastScene(const std::string& id) const;
  // Called on the main loop after outputs open, close or get a new scene.
  std::function<void()> onChange;

 private:
  struct Output;
  void handleDisplay(const host::MethodCall& call, host::Reply reply);
  void reportSize(const std::string& id);
  void send(const std::string& method, const host::Value& args);
  std::unique_ptr<OutputSink> makeSink(const std::string& id);
  void frameTick();
  std::optional<std::string> idOf(GLFWwindow* window) const;
  void changed();

  host::MainLoop& loop_;
  bool windows_;
  std::string mediaRoot_;
  std::unique_ptr<host::MethodChannel> displayChannel_;
  std::unique_ptr<host::MethodChannel> filesChannel_;
  bool dartReady_ = false;
  std::map<std::string, std::unique_ptr<Output>> outputs_;
  std::map<std::string, std::string> lastScenes_;
  std::vector<std::string> pendingFiles_;
  uint64_t frameTimer_ = 0;
  host::MainLoop::Clock::time_point nextFrame_{};
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// True when `path` ends in ".kvln", in any case.
bool isProjectPath(const std::string& path);

// The "flutter.nativeOutput" preference: the file of the preference store
// ($XDG_DATA_HOME/kavlen/shared_preferences.json, by default under
// ~/.local/share); true when absent, unreadable or no boolean.
bool nativeOutputPreference();

}  // namespace kavlen::output
