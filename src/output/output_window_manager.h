// The owner of everything that appears on projectors, and of the project
// files handed to the application.
//
// Channel "app.kavlen/files": "ready" delivers the project paths that waited
// for the interface ("openFiles" to every client); any other method answers
// null. Paths given before the channel exists, or before any client said
// "ready", wait in order.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "main_loop.h"
#include "messenger.h"

namespace kavlen::output {

class OutputWindowManager {
 public:
  static constexpr const char* kDisplayChannel = "app.kavlen/display";
  static constexpr const char* kFilesChannel = "app.kavlen/files";

  explicit OutputWindowManager(host::MainLoop& loop) : loop_(loop) {}

  // Registers the channels on the messenger. Once.
  void attachMain(host::Messenger& messenger);
  // Keeps the paths ending in ".kvln" (any case) and sends or queues them.
  void openFiles(const std::vector<std::string>& paths);

  const std::vector<std::string>& pendingFiles() const { return pendingFiles_; }

 private:
  host::MainLoop& loop_;
  std::unique_ptr<host::MethodChannel> filesChannel_;
  std::vector<std::string> pendingFiles_;
};

// True when `path` ends in ".kvln", in any case.
bool isProjectPath(const std::string& path);

}  // namespace kavlen::output
