#include "cpu_output_sink.h"

#include "x11_present.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

namespace kavlen::output {

std::unique_ptr<CpuOutputSink> CpuOutputSink::create(const std::string& title,
                                                     std::function<std::string()> mediaRoot) {
  glfwDefaultWindowHints();
  glfwWindowHint(GLFW_VISIBLE, GLFW_FALSE);
  glfwWindowHint(GLFW_CLIENT_API, GLFW_NO_API);
  GLFWwindow* w = glfwCreateWindow(960, 540, title.c_str(), nullptr, nullptr);
  glfwDefaultWindowHints();
  if (!w) return nullptr;
  std::unique_ptr<CpuOutputSink> sink(new CpuOutputSink);
  sink->window_ = w;
  sink->mediaRoot_ = std::move(mediaRoot);
  return sink;
}

CpuOutputSink::~CpuOutputSink() {
  close();
  if (window_) glfwDestroyWindow(window_);
}

void CpuOutputSink::close() {
  if (closed_) return;
  closed_ = true;
  picture_.release();
}

void CpuOutputSink::send(const std::string& text) {
  if (!closed_ && picture_.setState(text)) dirty_ = true;
}

void CpuOutputSink::frame() {
  if (closed_ || !window_) return;
  // The window can take a scene once it is up: the manager answers with the
  // last one.
  if (!readySent_) {
    readySent_ = true;
    if (onReady) onReady();
  }
  int w = 0, h = 0;
  glfwGetFramebufferSize(window_, &w, &h);
  if (w < 1 || h < 1) return;
  if (w != shownW_ || h != shownH_) dirty_ = true;
  if (!dirty_) return;
  dirty_ = false;
  picture_.draw(w, h, mediaRoot_ ? mediaRoot_() : std::string(), shown_);
  shownW_ = w;
  shownH_ = h;
  presentRgba(window_, shown_.data(), w, h);
}

}  // namespace kavlen::output
