// kavlen: the command-line front of the engine.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "commands.h"
#include "kavlen/kavlen.h"

int fail(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("kavlen: ", stderr);
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
  return 1;
}

int media_argument(const char* command, const std::string& arg, std::string& media) {
  if (arg[0] == '-' && arg.size() > 1)
    return fail("%s: unknown option or missing value: '%s' (see kavlen %s --help)", command, arg.c_str(), command);
  if (!media.empty()) return fail("%s: more than one media file given ('%s')", command, arg.c_str());
  media = arg;
  return 0;
}

int media_file_ok(const char* command, const std::string& media) {
  if (media.empty()) return fail("%s: no media file given", command);
  std::error_code ec;
  if (!std::filesystem::is_regular_file(media, ec)) return fail("%s: no such file: %s", command, media.c_str());
  return 0;
}

bool read_text_file(const std::string& path, std::string& out, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  std::ostringstream ss;
  ss << in.rdbuf();
  if (in.bad()) {
    error = "cannot read " + path;
    return false;
  }
  out = ss.str();
  return true;
}

namespace {

struct Command {
  const char* name;
  int (*run)(int, char**);
  const char* summary;
};

const Command kCommands[] = {
    {"info", cmd_info, "info SCENE.json [--time-ms T] [--output ID]   show what the engine resolves"},
    {"render", cmd_render, "render SCENE.json -o frame.png [options]      draw one frame"},
    {"analyze", cmd_analyze, "analyze MEDIA [-o OUT.signals]                write the audio signal file"},
    {"waveform", cmd_waveform, "waveform MEDIA [--count N] [--pcm OUT.f32]    print the audio peaks as JSON"},
    {"thumbnail", cmd_thumbnail, "thumbnail MEDIA [--width N] -o OUT.jpg        write a JPEG of the video"},
    {"export", cmd_export, "export SCENE.json -o MOVIE.mp4 --length-ms N   write a movie of the scene"},
    {"devices", cmd_devices, "devices [--json]                              list the audio input devices"},
    {"listen", cmd_listen, "listen [--device ID] [--json] [--seconds N]   show a live input's level, beat, tempo"},
    {"serve", cmd_serve, "serve [PROJECT.kvln ...]                      run the application (also: kavlen alone)"},
    {"detect", cmd_detect, "detect PICTURE [--json] [--png OVERLAY.png]   find rectangles in a picture"},
};

void usage(FILE* to) {
  fprintf(to, "kavlen %s\nusage:\n", kvl_version());
  for (const Command& c : kCommands) fprintf(to, "  kavlen %s\n", c.summary);
  fprintf(to, "  kavlen COMMAND --help for the options of a command\n");
}

}  // namespace

int main(int argc, char** argv) {
  // Alone, or given project files, kavlen is the application.
  if (argc < 2) return cmd_serve(argc, argv);
  if (!strcmp(argv[1], "--help") || !strcmp(argv[1], "-h")) {
    usage(stdout);
    return 0;
  }
  if (!strcmp(argv[1], "--version")) {
    printf("kavlen %s\n", kvl_version());
    return 0;
  }
  for (const Command& c : kCommands)
    if (!strcmp(argv[1], c.name)) return c.run(argc - 1, argv + 1);
  if (looks_like_project(argv[1])) return cmd_serve(argc, argv);
  fail("unknown command '%s' (try kavlen --help)", argv[1]);
  return 2;
}
