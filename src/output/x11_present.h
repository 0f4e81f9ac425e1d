// Shows an RGBA picture in a GLFW window that has no GL context, straight on
// its X11 window. The picture's alpha is ignored (windows are opaque).
#pragma once

#include <cstdint>

struct GLFWwindow;

namespace kavlen::output {

void presentRgba(GLFWwindow* window, const uint8_t* rgba, int width, int height);

}  // namespace kavlen::output
