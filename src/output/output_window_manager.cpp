#include "output_window_manager.h"

#include <cctype>

namespace kavlen::output {

using host::MethodResult;
using host::Value;

bool isProjectPath(const std::string& path) {
  static const std::string ext = ".kvln";
  if (path.size() < ext.size()) return false;
  for (size_t i = 0; i < ext.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(path[path.size() - ext.size() + i])) != ext[i]) return false;
  return true;
}

void OutputWindowManager::attachMain(host::Messenger& messenger) {
  filesChannel_ = std::make_unique<host::MethodChannel>(messenger, kFilesChannel);
  filesChannel_->setMethodCallHandler([this](const host::MethodCall& call, host::Reply reply) {
    if (call.method == "ready" && !pendingFiles_.empty()) {
      host::ValueList paths(pendingFiles_.begin(), pendingFiles_.end());
      pendingFiles_.clear();
      filesChannel_->invokeMethod("openFiles", Value(std::move(paths)));
    }
    reply(MethodResult::success());
  });
}

void OutputWindowManager::openFiles(const std::vector<std::string>& paths) {
  std::vector<std::string> kept;
  for (const std::string& p : paths)
    if (isProjectPath(p)) kept.push_back(p);
  if (kept.empty()) return;
  if (filesChannel_) {
    filesChannel_->invokeMethod("openFiles", Value(host::ValueList(kept.begin(), kept.end())));
  } else {
    pendingFiles_.insert(pendingFiles_.end(), kept.begin(), kept.end());
  }
}

}  // namespace kavlen::output
