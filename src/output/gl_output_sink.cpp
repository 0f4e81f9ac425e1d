#include "gl_output_sink.h"

#include <cstdlib>
#include <cstring>

#include "output_text_rasterizer.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

namespace kavlen::output {

bool glDisabledByEnvironment() {
  const char* v = std::getenv("KAVLEN_NO_GL");
  return v && *v && std::strcmp(v, "0") != 0;
}

std::unique_ptr<GlOutputSink> GlOutputSink::create(const std::string& title,
                                                   std::function<std::string()> mediaRoot) {
  if (glDisabledByEnvironment()) return nullptr;
  glfwDefaultWindowHints();
  glfwWindowHint(GLFW_VISIBLE, GLFW_FALSE);
  glfwWindowHint(GLFW_CLIENT_API, GLFW_OPENGL_ES_API);
  glfwWindowHint(GLFW_CONTEXT_CREATION_API, GLFW_EGL_CONTEXT_API);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 3);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 0);
  GLFWwindow* w = glfwCreateWindow(960, 540, title.c_str(), nullptr, nullptr);
  glfwDefaultWindowHints();
  if (!w) return nullptr;
  GLFWwindow* previous = glfwGetCurrentContext();
  glfwMakeContextCurrent(w);
  glfwSwapInterval(1);
  std::unique_ptr<GlOutputSink> sink(new GlOutputSink);
  sink->window_ = w;
  sink->renderer_ = GlOutputRenderer::create(std::move(mediaRoot));
  if (!sink->renderer_) {
    glfwMakeContextCurrent(previous);
    glfwDestroyWindow(w);
    sink->window_ = nullptr;
    return nullptr;
  }
  sink->texts_ = std::make_shared<native::OutputTextRasterizer>();
  sink->renderer_->textProvider = textProviderOf(sink->texts_);
  return sink;
}

TextProvider textProviderOf(std::shared_ptr<native::OutputTextRasterizer> texts) {
  return [texts](const std::string& key, const std::optional<std::string>& spec) -> std::optional<TextRendering> {
    std::optional<native::NativeTextImage> t = texts->text(key, spec);
    if (!t) return std::nullopt;
    return TextRendering{t->spec, std::move(t->image)};
  };
}

GlOutputSink::~GlOutputSink() {
  close();
  if (window_) {
    // The renderer's GL names die with the context; delete them while it is current.
    if (makeCurrent()) renderer_.reset();
    glfwMakeContextCurrent(nullptr);
    renderer_.reset();
    glfwDestroyWindow(window_);
  }
}

bool GlOutputSink::makeCurrent() {
  if (!window_) return false;
  if (glfwGetCurrentContext() != window_) glfwMakeContextCurrent(window_);
  return glfwGetCurrentContext() == window_;
}

void GlOutputSink::send(const std::string& state) {
  if (closed_ || !renderer_) return;
  // A rejected text and "mediaReset" leave the texts as they were.
  if (auto accepted = renderer_->setState(state)) texts_->setScene(accepted->scene.get(), accepted->width, accepted->height);
}

void GlOutputSink::frame() {
  if (closed_ || !renderer_ || !makeCurrent()) return;
  int w = 0, h = 0;
  glfwGetFramebufferSize(window_, &w, &h);
  if (w < 1 || h < 1) return;
  if (!renderer_->draw(GlTarget{0, w, h})) return;
  glfwSwapBuffers(window_);
}

void GlOutputSink::close() {
  if (closed_) return;
  closed_ = true;
  if (renderer_ && makeCurrent()) renderer_->release();
}

}  // namespace kavlen::output
