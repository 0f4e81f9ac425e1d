#include "log.h"

#include <cstdio>
#include <mutex>

namespace kavlen::capture {
namespace {
std::mutex g_mutex;
std::function<void(const std::string&)> g_sink;
}  // namespace

void logLine(const std::string& text) {
  const std::string line = "[kavlen] " + text;
  std::lock_guard lock(g_mutex);
  if (g_sink) {
    g_sink(line);
    return;
  }
  fprintf(stderr, "%s\n", line.c_str());
}

void setLogSink(std::function<void(const std::string& line)> sink) {
  std::lock_guard lock(g_mutex);
  g_sink = std::move(sink);
}

}  // namespace kavlen::capture
