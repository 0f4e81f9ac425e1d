// Sub-commands of the kavlen executable. Each returns the process exit code.
// Errors are printed as one line on standard error, prefixed "kavlen: ".
#pragma once

int cmd_info(int argc, char** argv);
int cmd_render(int argc, char** argv);
int cmd_analyze(int argc, char** argv);
int cmd_waveform(int argc, char** argv);
int cmd_thumbnail(int argc, char** argv);
int cmd_devices(int argc, char** argv);
int cmd_listen(int argc, char** argv);
int cmd_serve(int argc, char** argv);
// True for a path the application opens as a project ("*.kvln", any case).
bool looks_like_project(const char* arg);
int cmd_export(int argc, char** argv);
int cmd_detect(int argc, char** argv);

// Prints "kavlen: <message>" on standard error and returns 1.
int fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Reads a whole file into text; false with a message in `error` on failure.
#include <string>
bool read_text_file(const std::string& path, std::string& out, std::string& error);

// The media commands (waveform, thumbnail) take one media file among their
// options. media_argument() handles an argument that is no known option: an
// unknown option, the media file, or a second one; media_file_ok() checks the
// file is there. Both return 0 or the exit code of the failure they printed.
int media_argument(const char* command, const std::string& arg, std::string& media);
int media_file_ok(const char* command, const std::string& media);
