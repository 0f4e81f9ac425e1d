// The recipes of the native compositor on the image graph: outlines and
// their masks, the surface fit, the content transform, and the shape effects.
// All sizes are in the pixels of the image they apply to; y points up.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image.h"
#include "native_scene.h"

namespace kavlen::native {

inline constexpr double kSurfaceW = 1280, kSurfaceH = 720;

// A closed outline of lines and cubic curves, y up.
struct Path {
  struct Seg {
    enum Kind { Move, Line, Curve } kind;
    img::P2 c1, c2, p;  // control points only for curves
  };
  std::vector<Seg> segs;
  bool empty() const { return segs.empty(); }
  // Tight bounds of the outline (curve extremes, not control points).
  img::Rect bounds() const;
  // Text that differs whenever the outline does.
  std::string key() const;
};

// Normalised vertices (y down) to an outline in a size (y up); handles make
// curves.
Path outlinePath(const std::vector<Vertex>& vertices, double width, double height);
// The ellipse of a quad: 64 points through its homography; empty unless 4 vertices.
Path ellipseOutline(const std::vector<Vertex>& vertices, double width, double height);
// The ellipse inscribed in a rectangle, as four cubic curves.
Path ellipseIn(const img::Rect& r);

// An opaque grey mask of the truncated size: 1 inside the outline (winding
// rule), 0 outside, or the reverse when inverted; blurred by feather / 2.
// Outside the outline's bounds a mask that isn't inverted is transparent
// rather than black, which reads the same (luminance 0) and costs nothing.
img::Image maskImage(const Path& path, double width, double height, bool inverted, double feather);
img::Image masked(const img::Image& image, const img::Image& mask);
img::Image colorize(const img::Image& mask, uint32_t argb);
img::Image blurOf(const img::Image& image, double r);
img::Image dilateOf(const img::Image& image, double r);
img::Image erodeOf(const img::Image& image, double r);
img::Image ring(const img::Image& mask, double r);
// The effect images of a shape's mask: below it (shadow, glow) or above it
// (bevel, stroke), in drawing order.
std::vector<img::Image> shapeEffects(const img::Image& mask, const Effects& effects, double scale, bool above);

img::Image surfaceColor(uint32_t argb);
img::Image cover(const img::Image& image);
img::Image applyContent(const Content& content, const img::Image& image);

}  // namespace kavlen::native
