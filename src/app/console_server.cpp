#include "console_server.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "output_window_manager.h"

// From Debian's compiled stb library; the header declares this one only in
// its implementation part.
extern "C" unsigned char* stbi_write_png_to_mem(const unsigned char* pixels, int stride_bytes, int x, int y, int n,
                                                int* out_len);

#ifndef KAVLEN_CONSOLE_SOURCE
#define KAVLEN_CONSOLE_SOURCE "console"
#endif

namespace kavlen::app {
namespace {

// The main window's size too, so both share one cached render per output.
constexpr int kPreviewW = 320, kPreviewH = 180;

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

bool fileExists(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

host::HttpResponse text(int status, const std::string& body) {
  host::HttpResponse r;
  r.status = status;
  r.body = body + "\n";
  return r;
}

}  // namespace

ConsoleServer::ConsoleServer(std::string root, output::OutputWindowManager* outputs)
    : root_(std::move(root)), outputs_(outputs) {}

std::string ConsoleServer::findRoot() {
  if (const char* env = std::getenv("KAVLEN_CONSOLE"); env && *env) return env;
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    exe[n] = '\0';
    std::string dir(exe);
    dir = dir.substr(0, dir.find_last_of('/'));
    if (fileExists(dir + "/data/console/index.html")) return dir + "/data/console";
  }
  return KAVLEN_CONSOLE_SOURCE;
}

std::string ConsoleServer::contentType(const std::string& path) {
  static const std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"},  {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},    {".png", "image/png"},
      {".svg", "image/svg+xml"},              {".json", "application/json"},
      {".ico", "image/x-icon"},
  };
  for (const auto& [ending, type] : kTypes)
    if (endsWith(path, ending)) return type;
  return "application/octet-stream";
}

bool ConsoleServer::safePath(const std::string& path) {
  if (path.size() < 2 || path[0] != '/' || path.size() > 512) return false;
  bool partStart = true;
  for (size_t i = 1; i < path.size(); ++i) {
    const char c = path[i];
    if (c == '/') {
      if (partStart) return false;  // "//" or a trailing part that is empty
      partStart = true;
      continue;
    }
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                    c == '-' || c == '_';
    if (!ok || (partStart && c == '.')) return false;
    partStart = false;
  }
  return !partStart;
}

host::HttpResponse ConsoleServer::handle(const host::HttpRequest& request) {
  if (request.method != "GET" && request.method != "HEAD") return text(405, "method not allowed");
  const std::string path = request.path == "/" ? "/index.html" : request.path;
  if (path.rfind("/preview/", 0) == 0 && endsWith(path, ".png"))
    return preview(path.substr(9, path.size() - 9 - 4));
  if (!safePath(path)) return text(404, "not found");
  std::ifstream in(root_ + path, std::ios::binary);
  if (!in) return text(404, "not found");
  std::ostringstream body;
  body << in.rdbuf();
  if (in.bad()) return text(404, "not found");
  host::HttpResponse r;
  r.status = 200;
  r.contentType = contentType(path);
  r.body = body.str();
  r.headers.emplace_back("Cache-Control", "no-cache");
  return r;
}

host::HttpResponse ConsoleServer::preview(const std::string& id) {
  if (!outputs_ || id.empty()) return text(404, "no such output");
  std::vector<output::Preview> all = outputs_->previews(kPreviewW, kPreviewH);
  for (auto it = encoded_.begin(); it != encoded_.end();)  // forget closed outputs
    it = std::any_of(all.begin(), all.end(), [&](const output::Preview& p) { return p.id == it->first; })
             ? std::next(it)
             : encoded_.erase(it);
  for (output::Preview& p : all) {
    if (p.id != id) continue;
    std::vector<uint8_t> rgba = std::move(p.rgba);
    int w = p.width, h = p.height;
    if (rgba.empty()) {  // open, but nothing to show yet: black
      w = kPreviewW;
      h = kPreviewH;
      rgba.assign(size_t(w) * h * 4, 0);
      for (size_t i = 3; i < rgba.size(); i += 4) rgba[i] = 255;
    }
    Encoded& e = encoded_[id];
    if (e.png.empty() || e.rgba != rgba) {
      int len = 0;
      unsigned char* png = stbi_write_png_to_mem(rgba.data(), w * 4, w, h, 4, &len);
      if (!png) {
        encoded_.erase(id);
        return text(500, "the preview could not be encoded");
      }
      e.png.assign(reinterpret_cast<const char*>(png), size_t(len));
      free(png);
      e.rgba = std::move(rgba);
    }
    host::HttpResponse r;
    r.status = 200;
    r.contentType = "image/png";
    r.body = e.png;
    r.headers.emplace_back("Cache-Control", "no-store");
    return r;
  }
  return text(404, "no such output");
}

}  // namespace kavlen::app
