#include "media_key.h"

#include <unistd.h>

#include <cstdlib>

namespace kavlen::media {

namespace {

// Joins a folder and a relative path with exactly one slash between them.
std::string join(std::string folder, std::string_view rest) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  if (folder.empty()) return std::string(rest);
  if (folder != "/") folder += '/';
  folder += rest;
  return folder;
}

}  // namespace

std::string assets_folder() {
  if (const char* env = getenv("KAVLEN_ASSETS"); env && *env) return env;
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "data/flutter_assets";
  exe[n] = '\0';
  std::string dir(exe);
  const size_t slash = dir.find_last_of('/');
  dir = slash == std::string::npos ? "." : dir.substr(0, slash);
  return dir + "/data/flutter_assets";
}

std::string key_path(std::string_view key, const std::string& root) {
  if (key.substr(0, 7) == "assets/") return join(assets_folder(), key);
  if (root.empty()) return std::string(key);
  return join(root, key);
}

}  // namespace kavlen::media
