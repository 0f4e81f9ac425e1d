#include "native_filters.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

namespace kavlen::native {

using img::Image;
using img::P2;

namespace {

// Extremes of one axis of a cubic from a to d with controls b, c.
void cubicRange(double a, double b, double c, double d, double& lo, double& hi) {
  auto at = [&](double t) {
    double u = 1 - t;
    return u * u * u * a + 3 * u * u * t * b + 3 * u * t * t * c + t * t * t * d;
  };
  lo = std::min({lo, a, d});
  hi = std::max({hi, a, d});
  // Roots of the derivative: qa t^2 + qb t + qc.
  double qa = -a + 3 * b - 3 * c + d, qb = 2 * (a - 2 * b + c), qc = b - a;
  auto take = [&](double t) {
    if (t > 0 && t < 1) {
      double v = at(t);
      lo = std::min(lo, v);
      hi = std::max(hi, v);
    }
  };
  if (std::fabs(qa) < 1e-12) {
    if (std::fabs(qb) > 1e-12) take(-qc / qb);
    return;
  }
  double disc = qb * qb - 4 * qa * qc;
  if (disc < 0) return;
  double s = std::sqrt(disc);
  take((-qb + s) / (2 * qa));
  take((-qb - s) / (2 * qa));
}

P2 toSize(Point p, double w, double h) { return {w * p.x, h - h * p.y}; }

}  // namespace

img::Rect Path::bounds() const {
  if (segs.empty()) return {};
  double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
  P2 cur = segs[0].p;
  for (const Seg& s : segs) {
    if (s.kind == Seg::Curve) {
      cubicRange(cur.x, s.c1.x, s.c2.x, s.p.x, x0, x1);
      cubicRange(cur.y, s.c1.y, s.c2.y, s.p.y, y0, y1);
    } else {
      x0 = std::min(x0, s.p.x);
      x1 = std::max(x1, s.p.x);
      y0 = std::min(y0, s.p.y);
      y1 = std::max(y1, s.p.y);
    }
    cur = s.p;
  }
  return {x0, y0, x1, y1};
}

std::string Path::key() const {
  std::string k;
  char b[64];
  for (const Seg& s : segs) {
    k += static_cast<char>('0' + s.kind);
    for (const P2& p : {s.c1, s.c2, s.p}) {
      snprintf(b, sizeof b, "%.9g,%.9g;", p.x, p.y);
      k += b;
    }
  }
  return k;
}

Path outlinePath(const std::vector<Vertex>& v, double w, double h) {
  Path path;
  if (v.empty()) return path;
  path.segs.push_back({Path::Seg::Move, {}, {}, toSize(v[0].p, w, h)});
  for (size_t i = 0; i < v.size(); i++) {
    const Vertex& a = v[i];
    const Vertex& b = v[(i + 1) % v.size()];
    if (!a.outH && !b.inH) {
      path.segs.push_back({Path::Seg::Line, {}, {}, toSize(b.p, w, h)});
      continue;
    }
    Point ao = a.outH.value_or(Point{}), bi = b.inH.value_or(Point{});
    path.segs.push_back({Path::Seg::Curve, toSize({a.p.x + ao.x, a.p.y + ao.y}, w, h),
                         toSize({b.p.x + bi.x, b.p.y + bi.y}, w, h), toSize(b.p, w, h)});
  }
  return path;
}

Path ellipseOutline(const std::vector<Vertex>& v, double w, double h) {
  Path path;
  if (v.size() != 4) return path;
  Homography hm = homography({v[0].p, v[1].p, v[2].p, v[3].p});
  for (int n = 0; n < 64; n++) {
    double a = n * 2 * std::numbers::pi / 64;
    Point p = apply(hm, {0.5 + 0.5 * std::cos(a), 0.5 + 0.5 * std::sin(a)});
    path.segs.push_back({n == 0 ? Path::Seg::Move : Path::Seg::Line, {}, {}, toSize(p, w, h)});
  }
  return path;
}

Path ellipseIn(const img::Rect& r) {
  const double k = 0.5522847498307936;
  double cx = (r.x0 + r.x1) / 2, cy = (r.y0 + r.y1) / 2, rx = r.width() / 2, ry = r.height() / 2;
  Path p;
  p.segs.push_back({Path::Seg::Move, {}, {}, {cx + rx, cy}});
  p.segs.push_back({Path::Seg::Curve, {cx + rx, cy + k * ry}, {cx + k * rx, cy + ry}, {cx, cy + ry}});
  p.segs.push_back({Path::Seg::Curve, {cx - k * rx, cy + ry}, {cx - rx, cy + k * ry}, {cx - rx, cy}});
  p.segs.push_back({Path::Seg::Curve, {cx - rx, cy - k * ry}, {cx - k * rx, cy - ry}, {cx, cy - ry}});
  p.segs.push_back({Path::Seg::Curve, {cx + k * rx, cy - ry}, {cx + rx, cy - k * ry}, {cx + rx, cy}});
  return p;
}

Image maskImage(const Path& path, double width, double height, bool inverted, double feather) {
  if (!(width >= 1 && height >= 1) || width > 1 << 15 || height > 1 << 15) return {};
  int w = static_cast<int>(width), h = static_cast<int>(height);
  img::IRect full{0, 0, w, h};
  // Only the outline's bounds need a bitmap, unless everything else is white.
  img::IRect area = full;
  if (!inverted) {
    img::Rect b = path.bounds();
    if (path.empty() || !std::isfinite(b.x0) || !std::isfinite(b.x1) || !std::isfinite(b.y0) || !std::isfinite(b.y1))
      area = {};
    else
      area = img::IRect::enclosing(b.grown(2)).intersect(full);
  }
  img::Rect whole = img::Rect::xywh(0, 0, w, h);
  Image m;
  if (area.empty()) {
    m = Image::color({}).cropped(whole);
  } else {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_A8, area.width(), area.height());
    if (cairo_surface_status(s) != CAIRO_STATUS_SUCCESS) {
      cairo_surface_destroy(s);
      return {};
    }
    cairo_t* cr = cairo_create(s);
    if (inverted) {
      cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
      cairo_set_source_rgba(cr, 0, 0, 0, 1);
      cairo_paint(cr);
      cairo_set_source_rgba(cr, 0, 0, 0, 0);
    } else {
      cairo_set_source_rgba(cr, 0, 0, 0, 1);
    }
    // Bitmap rows run downwards from the top of the area.
    auto cx = [&](const P2& p) { return p.x - area.x0; };
    auto cy = [&](const P2& p) { return area.y1 - p.y; };
    for (const Path::Seg& g : path.segs) {
      if (g.kind == Path::Seg::Move)
        cairo_move_to(cr, cx(g.p), cy(g.p));
      else if (g.kind == Path::Seg::Line)
        cairo_line_to(cr, cx(g.p), cy(g.p));
      else
        cairo_curve_to(cr, cx(g.c1), cy(g.c1), cx(g.c2), cy(g.c2), cx(g.p), cy(g.p));
    }
    if (!path.empty()) cairo_close_path(cr);
    cairo_set_fill_rule(cr, CAIRO_FILL_RULE_WINDING);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    m = Image::fromGray(cairo_image_surface_get_data(s), area.width(), area.height(), cairo_image_surface_get_stride(s));
    cairo_surface_destroy(s);
    m = m.transformed(img::Affine::translate(area.x0, area.y0)).extendedTo(whole);
  }
  if (feather > 0) m = m.clampedToExtent().blurred(feather * 0.5).cropped(whole);
  return m;
}

Image masked(const Image& image, const Image& mask) {
  return image.blendWithMask(Image::color({}).cropped(image.extent()), mask);
}

Image colorize(const Image& mask, uint32_t argb) {
  img::Rect e = mask.extent();
  return Image::color(img::Color::argb(argb)).cropped(e).blendWithMask(Image::color({}).cropped(e), mask);
}

Image blurOf(const Image& image, double r) {
  if (!(r > 0)) return image;
  return image.clampedToExtent().blurred(r).cropped(image.extent());
}
Image dilateOf(const Image& image, double r) {
  if (!(r > 0)) return image;
  return image.clampedToExtent().dilated(r).cropped(image.extent());
}
Image erodeOf(const Image& image, double r) {
  if (!(r > 0)) return image;
  return image.clampedToExtent().eroded(r).cropped(image.extent());
}
Image ring(const Image& mask, double r) { return dilateOf(mask, r).difference(erodeOf(mask, r)); }

std::vector<Image> shapeEffects(const Image& mask, const Effects& e, double scale, bool above) {
  std::vector<Image> out;
  img::Rect ext = mask.extent();
  if (!above) {
    if (e.hasShadow)
      out.push_back(colorize(blurOf(mask, scale * e.shadowBlur * 0.5), e.shadowArgb)
                        .transformed(img::Affine::translate(scale * e.shadowDx, -(e.shadowDy * scale)))
                        .cropped(ext));
    if (e.glowRadius > 0) {
      double r = scale * e.glowRadius * 0.5;
      out.push_back(colorize(blurOf(dilateOf(mask, r), r), e.glowArgb));
    }
    return out;
  }
  if (e.bevelDepth > 0) {
    double d = scale * e.bevelDepth;
    // Both lights read the same band: compute it once.
    Image edge = ring(mask, d).materialized();
    for (int k = 0; k < 2; k++) {
      double ox = k == 0 ? -d : d, oy = k == 0 ? d : -d;
      // Where the mask holds no bitmap it stands for black: the product is
      // black there, so it is cut to the bitmap.
      Image lit = blurOf(edge.transformed(img::Affine::translate(ox, oy)).cropped(ext), d * 0.5)
                      .multiply(mask)
                      .cropped(mask.support());
      out.push_back(colorize(lit, k == 0 ? e.bevelHi : e.bevelLo));
    }
  }
  if (e.strokeWidth > 0) out.push_back(colorize(ring(mask, scale * e.strokeWidth * 0.5), e.strokeArgb));
  return out;
}

Image surfaceColor(uint32_t argb) {
  return Image::color(img::Color::argb(argb)).cropped(img::Rect::xywh(0, 0, kSurfaceW, kSurfaceH));
}

Image cover(const Image& image) {
  img::Rect e = image.extent();
  if (!(e.width() > 0 && e.height() > 0) || e.isInfinite()) return image;
  double s = std::max(kSurfaceH / e.height(), kSurfaceW / e.width());
  img::Affine t = img::Affine::translate((kSurfaceW - e.width() * s) * 0.5 - e.x0 * s,
                                         (kSurfaceH - e.height() * s) * 0.5 - e.y0 * s)
                      .after(img::Affine::scale(s, s));
  return image.transformed(t).cropped(img::Rect::xywh(0, 0, kSurfaceW, kSurfaceH));
}

Image applyContent(const Content& c, const Image& image) {
  if (c.x == 0 && c.y == 0 && c.scale == 1 && c.rotation == 0) return image;
  img::Affine t = img::Affine::translate(c.x * kSurfaceW + 640, 360 - c.y * kSurfaceH)
                      .after(img::Affine::rotate(-c.rotation * std::numbers::pi / 180))
                      .after(img::Affine::scale(c.scale, c.scale))
                      .after(img::Affine::translate(-640, -360));
  img::Rect s = img::Rect::xywh(0, 0, kSurfaceW, kSurfaceH);
  return image.transformed(t).cropped(s).extendedTo(s);
}

}  // namespace kavlen::native
