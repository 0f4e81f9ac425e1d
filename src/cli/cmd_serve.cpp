// kavlen serve: the application, with its channel host and windows.
#include <string>
#include <vector>

#include "application.h"
#include "commands.h"
#include "output_window_manager.h"

namespace {

const char* kUsage =
    "usage: kavlen serve [PROJECT.kvln ...]\n"
    "       kavlen [PROJECT.kvln ...]\n"
    "Runs the application: the channel host on ws://127.0.0.1:PORT/channels\n"
    "(KAVLEN_PORT, default 7531; 0 picks a free port), the main window and the\n"
    "output windows. Project files wait for the interface's \"ready\" on\n"
    "\"app.kavlen/files\". Ends when the main window closes, or on SIGINT/SIGTERM.\n";

}  // namespace

bool looks_like_project(const char* arg) { return arg[0] != '-' && kavlen::output::isProjectPath(arg); }

int cmd_serve(int argc, char** argv) {
  std::vector<std::string> paths;
  // argv[0] is "serve", or the program itself for "kavlen PROJECT ...".
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    }
    if (a[0] == '-' && a.size() > 1) return fail("serve: unknown option '%s' (see kavlen serve --help)", a.c_str());
    paths.push_back(a);
  }
  return kavlen::app::runApplication(paths);
}
