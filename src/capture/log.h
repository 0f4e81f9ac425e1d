// The capture's log lines: "[kavlen] ..." on standard error, where journald
// keeps them for a desktop session. Tests can take the lines instead.
#pragma once

#include <functional>
#include <string>

namespace kavlen::capture {

// Writes "[kavlen] " + text as one line. Any thread but the capture thread.
void logLine(const std::string& text);

// Sends every later line to `sink` instead of standard error; an empty sink
// restores standard error.
void setLogSink(std::function<void(const std::string& line)> sink);

}  // namespace kavlen::capture
