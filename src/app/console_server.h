// The operator's console: the static page of console/ and small PNG
// previews of the open outputs, served as plain GET requests by the
// channel host beside its WebSocket.
//
//   GET /                      index.html
//   GET /NAME.js, .css, ...    the console's files (no hidden names, no "..")
//   GET /preview/ID.png        the output's last state, 480x270; 404 when not open
#pragma once

#include <string>

#include "channel_host.h"

namespace kavlen::output {
class OutputWindowManager;
}

namespace kavlen::app {

class ConsoleServer {
 public:
  // `outputs` may be null (no previews then).
  ConsoleServer(std::string root, output::OutputWindowManager* outputs);

  // KAVLEN_CONSOLE when set; else data/console beside the executable when it
  // holds index.html; else the source tree's console/ folder.
  static std::string findRoot();

  host::HttpResponse handle(const host::HttpRequest& request) const;
  const std::string& root() const { return root_; }

  // The content type by the name's ending; "application/octet-stream" else.
  static std::string contentType(const std::string& path);
  // A request path that may name a file under the root: '/'-separated parts
  // of letters, digits, '.', '-' and '_', none starting with a dot.
  static bool safePath(const std::string& path);

 private:
  host::HttpResponse preview(const std::string& id) const;

  std::string root_;
  output::OutputWindowManager* outputs_;
};

}  // namespace kavlen::app
