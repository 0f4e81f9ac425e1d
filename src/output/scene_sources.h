// The media a CPU frame needs, decoded and handed to an engine handle: still
// images (decoded once per key and kept) and the pictures of videos at their
// media time. Shared by the CPU sink and the operator's previews, so both
// show what `kavlen render` shows.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "image_file.h"
#include "kavlen/kavlen.h"

namespace kavlen::output {

class SceneSources {
 public:
  // Feeds every source that `engine` needs at `timeUs` of `sceneText`;
  // `positions` overrides the media time of a video key (microseconds).
  void feed(kvl_engine* engine, const std::string& sceneText, int64_t timeUs, const std::string& mediaRoot,
            const std::map<std::string, int64_t>& positions = {});
  // Forgets the decoded images (their files may have changed).
  void clear() {
    images_.clear();
    given_.clear();
  }
  // A new engine handle knows no sources: call this when one is made.
  void forget() { given_.clear(); }

 private:
  std::map<std::string, ImageFile> images_;  // key -> decoded picture (empty: failed)
  std::set<std::string> given_;              // still images the handle already holds
  std::string root_;
};

}  // namespace kavlen::output
