// Headless EGL context and offscreen framebuffer.
#include "gl_headless.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstdlib>
#include <cstring>

namespace {

std::string eglErrorText(const char* what) {
  char buf[96];
  snprintf(buf, sizeof buf, "%s (EGL 0x%04x)", what, static_cast<unsigned>(eglGetError()));
  return buf;
}

bool hasExtension(const char* list, const char* name) {
  if (!list) return false;
  size_t n = strlen(name);
  for (const char* p = list; (p = strstr(p, name)) != nullptr; p += n)
    if ((p == list || p[-1] == ' ') && (p[n] == ' ' || p[n] == '\0')) return true;
  return false;
}

}  // namespace

HeadlessGl::~HeadlessGl() { close(); }

bool HeadlessGl::open(std::string& error) {
  close();
  // Mesa picks its platform from this when a display is opened the old
  // way; the explicit platform below makes it moot for us but keeps any
  // library that opens its own display headless too.
  setenv("EGL_PLATFORM", "surfaceless", 0);
  const char* clientExts = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  if (!hasExtension(clientExts, "EGL_MESA_platform_surfaceless")) {
    error = "EGL sem a plataforma surfaceless (instale libegl-mesa0 e libgl1-mesa-dri)";
    return false;
  }
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (!getPlatformDisplay) {
    error = "EGL sem eglGetPlatformDisplayEXT";
    return false;
  }
  EGLDisplay dpy = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  EGLint major = 0, minor = 0;
  if (dpy == EGL_NO_DISPLAY || !eglInitialize(dpy, &major, &minor)) {
    error = eglErrorText("não foi possível abrir o display EGL");
    return false;
  }
  display_ = dpy;
  if (!eglBindAPI(EGL_OPENGL_ES_API)) {
    error = eglErrorText("EGL sem OpenGL ES");
    close();
    return false;
  }
  const char* exts = eglQueryString(dpy, EGL_EXTENSIONS);
  EGLConfig config = EGL_NO_CONFIG_KHR;
  if (!hasExtension(exts, "EGL_KHR_no_config_context")) {
    const EGLint want[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
    EGLint count = 0;
    if (!eglChooseConfig(dpy, want, &config, 1, &count) || count < 1) {
      error = eglErrorText("EGL sem configuração para OpenGL ES 3");
      close();
      return false;
    }
  }
  // A robust context reports a reset instead of crashing the process.
  EGLContext ctx = EGL_NO_CONTEXT;
  if (hasExtension(exts, "EGL_EXT_create_context_robustness")) {
    const EGLint robust[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_OPENGL_ROBUST_ACCESS_EXT, EGL_TRUE,
                             EGL_CONTEXT_OPENGL_RESET_NOTIFICATION_STRATEGY_EXT, EGL_LOSE_CONTEXT_ON_RESET_EXT,
                             EGL_NONE};
    ctx = eglCreateContext(dpy, config, EGL_NO_CONTEXT, robust);
  }
  if (ctx == EGL_NO_CONTEXT) {
    const EGLint plain[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_NONE};
    ctx = eglCreateContext(dpy, config, EGL_NO_CONTEXT, plain);
  }
  if (ctx == EGL_NO_CONTEXT) {
    error = eglErrorText("não foi possível criar um contexto OpenGL ES 3");
    close();
    return false;
  }
  context_ = ctx;
  if (!eglMakeCurrent(dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, ctx)) {
    error = eglErrorText("não foi possível ativar o contexto OpenGL ES");
    close();
    return false;
  }
  return true;
}

void HeadlessGl::close() {
  if (display_) {
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (context_) eglDestroyContext(display_, context_);
    eglTerminate(display_);
    eglReleaseThread();
  }
  display_ = nullptr;
  context_ = nullptr;
}

bool HeadlessGl::makeCurrent() {
  return context_ && eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, context_) == EGL_TRUE;
}

std::string HeadlessGl::rendererName() const {
  if (!context_) return "";
  const GLubyte* name = glGetString(GL_RENDERER);
  return name ? reinterpret_cast<const char*>(name) : "";
}

GlOffscreen::~GlOffscreen() {
  if (fbo_) glDeleteFramebuffers(1, &fbo_);
  if (color_) glDeleteRenderbuffers(1, &color_);
}

bool GlOffscreen::create(int32_t width, int32_t height, std::string& error) {
  GLint maxSize = 0;
  glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &maxSize);
  if (width < 1 || height < 1 || width > maxSize || height > maxSize) {
    error = "tamanho de quadro fora do alcance da GPU: " + std::to_string(width) + "x" + std::to_string(height);
    return false;
  }
  glGenRenderbuffers(1, &color_);
  glBindRenderbuffer(GL_RENDERBUFFER, color_);
  glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, width, height);
  glGenFramebuffers(1, &fbo_);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo_);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, color_);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
    error = "framebuffer incompleto";
    return false;
  }
  width_ = width;
  height_ = height;
  return true;
}

GlTarget GlOffscreen::target() const {
  GlTarget t;
  t.framebuffer = fbo_;
  t.width = width_;
  t.height = height_;
  return t;
}

bool GlOffscreen::read(std::vector<uint8_t>& rgba) const {
  if (!fbo_) return false;
  const size_t row = static_cast<size_t>(width_) * 4;
  rgba.resize(row * height_);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo_);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, width_, height_, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
  if (glGetError() != GL_NO_ERROR) return false;
  // GL's rows run bottom up.
  std::vector<uint8_t> tmp(row);
  for (int32_t y = 0; y < height_ / 2; y++) {
    uint8_t* a = &rgba[y * row];
    uint8_t* b = &rgba[(height_ - 1 - y) * row];
    std::memcpy(tmp.data(), a, row);
    std::memcpy(a, b, row);
    std::memcpy(b, tmp.data(), row);
  }
  return true;
}
