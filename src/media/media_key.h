// Where the file of a scene's media key lies.
//
// Usage:
//   std::string path = kavlen::media::key_path("walls/brick.png", "/shows/tour");
//   // "/shows/tour/walls/brick.png"
//
// A key is relative to the media root, or starts with "assets/" and names a
// file of the application's bundle: `data/flutter_assets` beside the
// executable, or the folder in KAVLEN_ASSETS. The key is appended to the
// root as a path component, one slash between them, whatever slashes either
// side carries; so a key that begins with "/" still lies under the root. With
// an empty root the key itself is the path. Every output path (the CPU
// command line, the GPU output windows) finds files this one way.
#pragma once

#include <string>
#include <string_view>

namespace kavlen::media {

std::string assets_folder();
std::string key_path(std::string_view key, const std::string& root);

}  // namespace kavlen::media
