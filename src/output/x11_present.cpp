#include "x11_present.h"

#include <vector>

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>
#define GLFW_EXPOSE_NATIVE_X11
#include <GLFW/glfw3native.h>
#include <X11/Xutil.h>

namespace kavlen::output {

void presentRgba(GLFWwindow* window, const uint8_t* rgba, int width, int height) {
  Display* dpy = glfwGetX11Display();
  const Window xw = glfwGetX11Window(window);
  XWindowAttributes attrs;
  if (!dpy || !XGetWindowAttributes(dpy, xw, &attrs) || attrs.depth < 24) return;
  const Visual* v = attrs.visual;
  // A TrueColor visual of 8 bits a channel: place each byte by its mask.
  auto shift = [](unsigned long mask) {
    int s = 0;
    while (mask && !(mask & 1)) {
      mask >>= 1;
      ++s;
    }
    return s;
  };
  const int rs = shift(v->red_mask), gs = shift(v->green_mask), bs = shift(v->blue_mask);
  std::vector<uint32_t> pixels(static_cast<size_t>(width) * height);
  for (size_t i = 0; i < pixels.size(); ++i) {
    const uint8_t* p = rgba + i * 4;
    pixels[i] = (uint32_t{p[0]} << rs) | (uint32_t{p[1]} << gs) | (uint32_t{p[2]} << bs);
  }
  XImage* img = XCreateImage(dpy, attrs.visual, attrs.depth, ZPixmap, 0, reinterpret_cast<char*>(pixels.data()),
                             width, height, 32, width * 4);
  if (!img) return;
  GC gc = XCreateGC(dpy, xw, 0, nullptr);
  XPutImage(dpy, xw, gc, img, 0, 0, 0, 0, width, height);
  XFreeGC(dpy, gc);
  img->data = nullptr;  // ours, not Xlib's
  XDestroyImage(img);
  XFlush(dpy);
}

}  // namespace kavlen::output
