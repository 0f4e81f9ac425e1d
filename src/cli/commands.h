// Sub-commands of the kavlen executable. Each returns the process exit code.
// Errors are printed as one line on standard error, prefixed "kavlen: ".
#pragma once

int cmd_info(int argc, char** argv);
int cmd_render(int argc, char** argv);
int cmd_analyze(int argc, char** argv);
int cmd_waveform(int argc, char** argv);
int cmd_thumbnail(int argc, char** argv);

// Prints "kavlen: <message>" on standard error and returns 1.
int fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Reads a whole file into text; false with a message in `error` on failure.
#include <string>
bool read_text_file(const std::string& path, std::string& out, std::string& error);
