#include "main_window.h"

#include <cairo-xlib.h>
#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>
#define GLFW_EXPOSE_NATIVE_X11
#include <GLFW/glfw3native.h>

namespace kavlen::app {

std::optional<WindowPlacement> parseWindowPlacement(const std::string& text) {
  std::string t = text;
  std::replace(t.begin(), t.end(), '@', 'x');
  std::replace(t.begin(), t.end(), ',', 'x');
  std::vector<double> numbers;
  std::stringstream ss(t);
  for (std::string piece; std::getline(ss, piece, 'x');) {
    if (piece.empty()) continue;
    char* end = nullptr;
    const double d = std::strtod(piece.c_str(), &end);
    if (end != piece.c_str() && *end == '\0') numbers.push_back(d);
  }
  if (numbers.size() != 4) return std::nullopt;
  return WindowPlacement{numbers[0], numbers[1], numbers[2], numbers[3]};
}

std::unique_ptr<MainWindow> MainWindow::create(std::function<void()> onClose) {
  glfwDefaultWindowHints();
  glfwWindowHint(GLFW_CLIENT_API, GLFW_NO_API);
  glfwWindowHint(GLFW_VISIBLE, GLFW_TRUE);
  GLFWwindow* w = glfwCreateWindow(1280, 800, "Kavlen", nullptr, nullptr);
  if (!w) return nullptr;
  std::unique_ptr<MainWindow> mw(new MainWindow);
  mw->window_ = w;
  mw->onClose_ = std::move(onClose);
  glfwSetWindowUserPointer(w, mw.get());
  if (const char* env = std::getenv("KAVLEN_WINDOW")) {
    if (auto p = parseWindowPlacement(env)) mw->applyPlacement(*p);
  }
  glfwSetWindowSizeLimits(w, kMinWidth, kMinHeight, GLFW_DONT_CARE, GLFW_DONT_CARE);
  glfwSetWindowTitle(w, "Kavlen");
  glfwSetWindowCloseCallback(w, [](GLFWwindow* win) {
    auto* self = static_cast<MainWindow*>(glfwGetWindowUserPointer(win));
    glfwSetWindowShouldClose(win, GLFW_FALSE);
    if (self->onClose_) self->onClose_();
  });
  glfwSetWindowRefreshCallback(w, [](GLFWwindow* win) { static_cast<MainWindow*>(glfwGetWindowUserPointer(win))->paint(); });
  glfwSetFramebufferSizeCallback(
      w, [](GLFWwindow* win, int, int) { static_cast<MainWindow*>(glfwGetWindowUserPointer(win))->paint(); });
  mw->paint();
  return mw;
}

MainWindow::~MainWindow() {
  if (window_) glfwDestroyWindow(window_);
}

void MainWindow::applyPlacement(const WindowPlacement& p) {
  glfwSetWindowPos(window_, static_cast<int>(std::lround(p.left)), static_cast<int>(std::lround(p.top)));
  glfwSetWindowSize(window_, std::max(1, static_cast<int>(std::lround(p.width))),
                    std::max(1, static_cast<int>(std::lround(p.height))));
}

void MainWindow::setState(MonitorState state) {
  state_ = std::move(state);
  paint();
}

namespace {

void text(cairo_t* cr, PangoLayout* layout, const std::string& s, double x, double y, const char* font, double r,
          double g, double b) {
  PangoFontDescription* fd = pango_font_description_from_string(font);
  pango_layout_set_font_description(layout, fd);
  pango_font_description_free(fd);
  pango_layout_set_text(layout, s.c_str(), -1);
  cairo_set_source_rgb(cr, r, g, b);
  cairo_move_to(cr, x, y);
  pango_cairo_show_layout(cr, layout);
}

}  // namespace

void MainWindow::paint() {
  int w = 0, h = 0;
  glfwGetWindowSize(window_, &w, &h);
  if (w <= 0 || h <= 0) return;
  Display* dpy = glfwGetX11Display();
  const Window xw = glfwGetX11Window(window_);
  XWindowAttributes attrs;
  if (!XGetWindowAttributes(dpy, xw, &attrs)) return;

  // Drawn off screen first, then copied in one go, so the window never flickers.
  cairo_surface_t* img = cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h);
  cairo_t* cr = cairo_create(img);
  cairo_set_source_rgb(cr, 0.09, 0.10, 0.12);
  cairo_paint(cr);
  PangoLayout* layout = pango_cairo_create_layout(cr);

  text(cr, layout, "Kavlen", 24, 18, "Sans Bold 22", 0.95, 0.95, 0.97);
  double y = 60;
  text(cr, layout, "Channels  " + state_.channels, 24, y, "Sans 12", 0.75, 0.85, 1.0);
  y += 22;
  if (!state_.console.empty()) {
    text(cr, layout, "Console   " + state_.console, 24, y, "Sans 12", 0.75, 0.85, 1.0);
    y += 22;
  }
  y += 12;
  text(cr, layout, "Clients (" + std::to_string(state_.clients.size()) + ")", 24, y, "Sans Bold 13", 0.9, 0.9, 0.9);
  y += 24;
  if (state_.clients.empty()) {
    text(cr, layout, "none connected", 40, y, "Sans Italic 11", 0.6, 0.6, 0.6);
    y += 20;
  }
  for (const std::string& c : state_.clients) {
    text(cr, layout, c, 40, y, "Monospace 10", 0.8, 0.8, 0.8);
    y += 18;
  }
  y += 14;
  text(cr, layout, "Outputs (" + std::to_string(state_.outputs.size()) + ")", 24, y, "Sans Bold 13", 0.9, 0.9, 0.9);
  y += 26;
  if (state_.outputs.empty()) text(cr, layout, "no output open", 40, y, "Sans Italic 11", 0.6, 0.6, 0.6);
  double x = 40;
  for (const OutputPreview& o : state_.outputs) {
    const double pw = 320, ph = 180;
    if (x + pw > w) {
      x = 40;
      y += ph + 40;
    }
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_rectangle(cr, x, y, pw, ph);
    cairo_fill(cr);
    if (!o.rgba.empty() && o.width > 0 && o.height > 0) {
      cairo_surface_t* pic = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, o.width, o.height);
      cairo_surface_flush(pic);
      unsigned char* d = cairo_image_surface_get_data(pic);
      const int stride = cairo_image_surface_get_stride(pic);
      for (int py = 0; py < o.height; ++py)
        for (int px = 0; px < o.width; ++px) {
          const uint8_t* s = &o.rgba[(static_cast<size_t>(py) * o.width + px) * 4];
          uint8_t* t = d + py * stride + px * 4;
          // Cairo wants premultiplied B, G, R, A in memory.
          t[0] = static_cast<uint8_t>((s[2] * s[3] + 127) / 255);
          t[1] = static_cast<uint8_t>((s[1] * s[3] + 127) / 255);
          t[2] = static_cast<uint8_t>((s[0] * s[3] + 127) / 255);
          t[3] = s[3];
        }
      cairo_surface_mark_dirty(pic);
      cairo_save(cr);
      cairo_translate(cr, x, y);
      cairo_scale(cr, pw / o.width, ph / o.height);
      cairo_set_source_surface(cr, pic, 0, 0);
      cairo_paint(cr);
      cairo_restore(cr);
      cairo_surface_destroy(pic);
    }
    text(cr, layout, o.id + " · " + o.where, x, y + ph + 6, "Sans 10", 0.8, 0.8, 0.8);
    x += pw + 24;
  }
  g_object_unref(layout);
  cairo_destroy(cr);

  cairo_surface_t* win = cairo_xlib_surface_create(dpy, xw, attrs.visual, w, h);
  cairo_t* wcr = cairo_create(win);
  cairo_set_source_surface(wcr, img, 0, 0);
  cairo_paint(wcr);
  cairo_destroy(wcr);
  cairo_surface_flush(win);
  cairo_surface_destroy(win);
  cairo_surface_destroy(img);
  XFlush(dpy);
}

}  // namespace kavlen::app
