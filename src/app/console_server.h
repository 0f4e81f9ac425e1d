// The operator's console: the static page of console/ and small PNG
// previews of the open outputs, served as plain GET requests by the
// channel host beside its WebSocket.
//
//   GET /                      index.html
//   GET /NAME.js, .css, ...    the console's files (no hidden names, no "..")
//   GET /preview/ID.png        the output's last state, 320x180; 404 when not open
#pragma once

#include <map>
#include <string>
#include <vector>

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

  host::HttpResponse handle(const host::HttpRequest& request);
  const std::string& root() const { return root_; }

  // The content type by the name's ending; "application/octet-stream" else.
  static std::string contentType(const std::string& path);
  // A request path that may name a file under the root: '/'-separated parts
  // of letters, digits, '.', '-' and '_', none starting with a dot.
  static bool safePath(const std::string& path);

 private:
  host::HttpResponse preview(const std::string& id);

  // The last picture of each output and its PNG: a page asks a few times a
  // second, and encoding costs far more than comparing.
  struct Encoded {
    std::vector<uint8_t> rgba;
    std::string png;
  };

  std::string root_;
  output::OutputWindowManager* outputs_;
  std::map<std::string, Encoded> encoded_;
};

}  // namespace kavlen::app
