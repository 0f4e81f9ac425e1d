// Small GL and file helpers shared by the output renderer and its videos.
// A GL ES 3 context must be current for the GL ones.
#pragma once

#include <GLES3/gl3.h>

#include <string>

// One compiled shader stage, or 0 with `error` set to "name: driver log".
GLuint compileStage(GLenum type, const std::string& text, const char* name, std::string& error);
// A program linked from two stages (which the caller still owns), or 0 with
// `error` set to "name: driver log".
GLuint linkProgram(GLuint vs, GLuint fs, const char* name, std::string& error);
// Whether path names a regular file (not a folder, not missing).
bool isRegularFile(const std::string& path);
