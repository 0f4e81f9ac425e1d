// A small image-filter graph for the offline compositor.
//
// Usage:
//   using namespace kavlen::img;
//   Image surface = Image::color({1, 0, 0, 1}).cropped({0, 0, 1280, 720});
//   Image blurred = surface.clampedToExtent().blurred(8).cropped(surface.extent());
//   std::vector<uint8_t> bgra = renderBytes(blurred.over(background), {0, 0, 1920, 1080}, PixelOrder::BGRA);
//
// Images are immutable values with a rectangular extent that may be infinite
// (colours, clamped images). Pixels are premultiplied RGBA in float, in a
// space with its origin at the bottom left and y upwards; pixel (i, j)
// covers [i, i+1] x [j, j+1]. Nothing is computed until an image is rendered,
// and then only the rectangle asked for: every node works out the part of its
// inputs that the request needs (a blur adds its kernel's reach, a warp maps
// the request back), so a blurred clamp of a full-frame mask allocates no
// more than the visible rectangle plus the reach. Images whose red, green and
// blue are equal everywhere (masks) travel as grey and alpha, two channels,
// which halves the work of the mask filters.
//
// Images may be shared between threads; rendering allocates its own buffers.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core/mat.hpp>

namespace kavlen::img {

struct Rect {
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  static Rect infinite();
  static Rect xywh(double x, double y, double w, double h) { return {x, y, x + w, y + h}; }
  double width() const { return x1 - x0; }
  double height() const { return y1 - y0; }
  bool empty() const { return !(x1 > x0 && y1 > y0); }
  bool isInfinite() const;
  Rect intersect(const Rect& o) const;
  Rect unite(const Rect& o) const;
  Rect grown(double d) const { return {x0 - d, y0 - d, x1 + d, y1 + d}; }
};

// Whole pixels: columns x0..x1-1, rows y0..y1-1.
struct IRect {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  int width() const { return x1 - x0; }
  int height() const { return y1 - y0; }
  bool empty() const { return x1 <= x0 || y1 <= y0; }
  IRect intersect(const IRect& o) const;
  // The smallest pixel rectangle holding r (clamped to a safe range).
  static IRect enclosing(const Rect& r);
};

struct Color {
  float r = 0, g = 0, b = 0, a = 0;  // straight, 0..1
  static Color argb(uint32_t argb);  // 0xAARRGGBB, each byte / 255
};

// 2-D affine map: (x, y) -> (a x + c y + tx, b x + d y + ty).
struct Affine {
  double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
  static Affine translate(double x, double y) { return {1, 0, 0, 1, x, y}; }
  static Affine scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }
  static Affine rotate(double radians);
  // This map applied after `first`.
  Affine after(const Affine& first) const;
  Affine inverse() const;
  std::array<double, 2> map(double x, double y) const { return {a * x + c * y + tx, b * x + d * y + ty}; }
};

struct P2 {
  double x = 0, y = 0;
};

// Pixels of one rectangle: a CV_32FC4 (r, g, b, a) or CV_32FC2 (grey, a) mat,
// row 0 at y = rect.y0. An empty rect means fully transparent.
struct Tile {
  IRect rect;
  cv::Mat m;
  bool owned = false;  // m is this tile's own memory and may be written
  bool empty() const { return rect.empty(); }
};

class Node;

class Image {
 public:
  Image() = default;  // the empty image: no extent, nothing to draw
  explicit Image(std::shared_ptr<const Node> n) : n_(std::move(n)) {}

  static Image color(Color c);
  // From premultiplied float pixels (CV_32FC4 or CV_32FC2, row 0 at the
  // bottom) placed with their lower left corner at (x, y).
  static Image fromMat(cv::Mat m, int x = 0, int y = 0);
  // From straight 8-bit RGBA rows, top row first, as files and decoders give.
  static Image fromStraightRgba(const uint8_t* rgba, int width, int height, int stride);
  // From an 8-bit grey bitmap, top row first: an opaque grey image.
  static Image fromGray(const uint8_t* gray, int width, int height, int stride);

  bool isNull() const { return !n_; }
  Rect extent() const;
  // Outside this rectangle the image is fully transparent.
  Rect support() const;
  bool gray() const;

  Image cropped(const Rect& r) const;
  Image transformed(const Affine& t) const;
  Image over(const Image& below) const;
  Image clampedToExtent() const;
  // This cropped to r and put over a transparent rectangle r: the extent
  // becomes exactly r.
  Image extendedTo(const Rect& r) const;
  // Gaussian, radius as standard deviation (at most 64).
  Image blurred(double radius) const;
  // Per-channel maximum and minimum over a disc (radius at most 64).
  Image dilated(double radius) const;
  Image eroded(double radius) const;
  // This where the mask's luminance is white, `background` where it is black.
  Image blendWithMask(const Image& background, const Image& mask) const;
  Image difference(const Image& background) const;
  Image multiply(const Image& background) const;
  // The colour matrix with identity colour vectors: the new straight alpha is
  // dot(aVector, straight rgba) + bias[3], limited to 0..1; colour biases
  // are added likewise.
  Image colorMatrix(const std::array<float, 4>& aVector, const std::array<float, 4>& bias) const;
  // The corners of the extent (top left, top right, bottom right, bottom
  // left) placed at the four points; empty when the extent is not finite.
  Image perspective(P2 topLeft, P2 topRight, P2 bottomRight, P2 bottomLeft) const;

  // Computes the pixels of `r` that the image covers; outside them it is
  // transparent. Four channels when `rgba` is set.
  Tile render(const IRect& r, bool rgba = true) const;

  // The same picture computed once and held as pixels (over the part of the
  // extent where it isn't transparent), so later renders cost a copy at most.
  // An image without finite bounds is returned as it is.
  Image materialized() const;

  const Node* node() const { return n_.get(); }

 private:
  std::shared_ptr<const Node> n_;
};

class Node {
 public:
  virtual ~Node() = default;
  Rect extent;
  // Outside this rectangle every pixel is fully transparent (zero), so no
  // work is done there.
  Rect support = Rect::infinite();
  bool gray = false;
  // Pixels of r ∩ extent (or a part of it, the rest transparent).
  virtual Tile render(const IRect& r) const = 0;
};

enum class PixelOrder { RGBA, BGRA };

// Renders `r` of the image into 8-bit pixels, top row first (rows of
// 4 * width bytes). Outside the image's extent the bytes are transparent.
// Premultiplied by default, as frames go to video; `straight` divides the
// colour by alpha for bitmaps that want it so.
std::vector<uint8_t> renderBytes(const Image& image, const IRect& r, PixelOrder order, bool straight = false);
void renderInto(const Image& image, const IRect& r, PixelOrder order, bool straight, uint8_t* out, size_t stride);

}  // namespace kavlen::img
