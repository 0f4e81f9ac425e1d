// Shader stages, programs and file checks, shared by the output renderer and
// its video sources.
#include "gl_util.h"

#include <sys/stat.h>

namespace {

// "name: driver log", without the log's trailing blank lines.
std::string describeFailure(const char* name, const char* log) {
  std::string text = std::string(name) + ": " + log;
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

GLuint compileStage(GLenum type, const std::string& text, const char* name, std::string& error) {
  GLuint s = glCreateShader(type);
  if (!s) {
    error = std::string("não foi possível criar o estágio ") + name;
    return 0;
  }
  const char* src = text.c_str();
  glShaderSource(s, 1, &src, nullptr);
  glCompileShader(s);
  GLint ok = GL_FALSE;
  glGetShaderiv(s, GL_COMPILE_STATUS, &ok);
  if (ok == GL_TRUE) return s;
  char log[1024] = "";
  glGetShaderInfoLog(s, sizeof log, nullptr, log);
  error = describeFailure(name, log);
  glDeleteShader(s);
  return 0;
}

GLuint linkProgram(GLuint vs, GLuint fs, const char* name, std::string& error) {
  GLuint p = glCreateProgram();
  if (!p) {
    error = std::string("não foi possível criar o programa ") + name;
    return 0;
  }
  glAttachShader(p, vs);
  glAttachShader(p, fs);
  glLinkProgram(p);
  GLint ok = GL_FALSE;
  glGetProgramiv(p, GL_LINK_STATUS, &ok);
  if (ok == GL_TRUE) return p;
  char log[1024] = "";
  glGetProgramInfoLog(p, sizeof log, nullptr, log);
  error = describeFailure(name, log);
  glDeleteProgram(p);
  return 0;
}

bool isRegularFile(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}
