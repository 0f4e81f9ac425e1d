#include "image.h"

#include "image_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

namespace kavlen::img {

namespace {

constexpr double kHuge = 1e300;
constexpr int kPixLimit = 1 << 28;  // pixel coordinates beyond this are "infinite"
constexpr int kBandRows = 32;      // rows rendered at a time
constexpr int kBlockCols = 512;    // columns rendered at a time
// Largest blur and morphology radii: far beyond any effect a frame can show,
// and what keeps the margins a render reads (three radii to each side)
// within tens of megabytes whatever a document asks for.
constexpr double kMaxBlur = 64, kMaxMorph = 64;

int clampPix(double v) { return static_cast<int>(std::clamp(v, -static_cast<double>(kPixLimit), static_cast<double>(kPixLimit))); }

int chans(bool grayImage) { return grayImage ? 2 : 4; }

// A new mat of one premultiplied value per pixel (OpenCV's own fill is slow
// for four floats).
cv::Mat filled(int rows, int cols, int ch, const float* v) {
  cv::Mat m(rows, cols, CV_MAKETYPE(CV_32F, ch));
  float* p = m.ptr<float>(0);  // new mats are continuous
  size_t n = static_cast<size_t>(rows) * cols;
  if (v[0] == 0 && v[1] == 0 && (ch == 2 || (v[2] == 0 && v[3] == 0))) {
    std::memset(p, 0, n * ch * sizeof(float));
  } else if (ch == 4) {
    for (size_t i = 0; i < n; i++, p += 4) std::memcpy(p, v, 4 * sizeof(float));
  } else {
    for (size_t i = 0; i < n; i++, p += 2) std::memcpy(p, v, 2 * sizeof(float));
  }
  return m;
}

Tile blank(const IRect& r, int ch) {
  Tile t;
  t.rect = r;
  t.owned = true;
  const float zero[4] = {0, 0, 0, 0};
  if (!r.empty()) t.m = filled(r.height(), r.width(), ch, zero);
  return t;
}

// The four-channel form of a grey tile: (g, a) -> (g, g, g, a).
cv::Mat widen(const cv::Mat& m) {
  if (m.channels() == 4) return m;
  cv::Mat out(m.rows, m.cols, CV_32FC4);
  for (int y = 0; y < m.rows; y++) {
    const float* s = m.ptr<float>(y);
    float* d = out.ptr<float>(y);
    for (int x = 0; x < m.cols; x++, s += 2, d += 4) {
      d[0] = d[1] = d[2] = s[0];
      d[3] = s[1];
    }
  }
  return out;
}

// `src` copied into a new transparent tile of `r` with `ch` channels.
Tile placed(const Tile& src, const IRect& r, int ch) {
  if (!src.empty() && src.rect.x0 == r.x0 && src.rect.y0 == r.y0 && src.rect.x1 == r.x1 && src.rect.y1 == r.y1 &&
      src.m.channels() == ch)
    return src;
  Tile t = blank(r, ch);
  IRect i = src.rect.intersect(r);
  if (i.empty()) return t;
  cv::Mat s = src.m(cv::Rect(i.x0 - src.rect.x0, i.y0 - src.rect.y0, i.width(), i.height()));
  if (s.channels() != ch) s = widen(s);
  s.copyTo(t.m(cv::Rect(i.x0 - r.x0, i.y0 - r.y0, i.width(), i.height())));
  return t;
}

IRect boundsOf(const IRect& a, const IRect& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  return {std::min(a.x0, b.x0), std::min(a.y0, b.y0), std::max(a.x1, b.x1), std::max(a.y1, b.y1)};
}

IRect grownBy(const IRect& r, int d) { return {r.x0 - d, r.y0 - d, r.x1 + d, r.y1 + d}; }

// The pixels a node may cover: for crops, the pixels whose centres lie inside.
IRect pixelsOf(const Node& n);
// The pixels a node may draw anything into: its extent cut to its support.
IRect liveOf(const Node& n) { return pixelsOf(n).intersect(IRect::enclosing(n.support)); }

void addPoint(Rect& r, double x, double y) {
  r = {std::min(r.x0, x), std::min(r.y0, y), std::max(r.x1, x), std::max(r.y1, y)};
}
constexpr Rect kNone{kHuge, kHuge, -kHuge, -kHuge};

// One pixel is one four-float vector: d = a * f + d * (1 - alpha(a) * f).
typedef float V4 __attribute__((vector_size(16)));
void overRow4(const float* a, float* d, int n, float f) {
  for (int x = 0; x < n; x++, a += 4, d += 4) {
    V4 av, dv;
    std::memcpy(&av, a, sizeof av);
    std::memcpy(&dv, d, sizeof dv);
    dv = av * f + dv * (1.0f - av[3] * f);
    std::memcpy(d, &dv, sizeof dv);
  }
}

class ColorNode : public Node {
 public:
  explicit ColorNode(Color c) : c_(c) {
    extent = Rect::infinite();
    gray = c.r == c.g && c.g == c.b;
    support = c.a == 0 ? Rect{} : Rect::infinite();
  }
  Tile render(const IRect& r) const override {
    Tile t;
    t.rect = r;
    t.owned = true;
    if (r.empty()) return t;
    const float g[4] = {c_.g * c_.a, c_.a, 0, 0}, v[4] = {c_.r * c_.a, c_.g * c_.a, c_.b * c_.a, c_.a};
    t.m = filled(r.height(), r.width(), gray ? 2 : 4, gray ? g : v);
    return t;
  }

  Color color() const { return c_; }

 private:
  Color c_;
};

class MatNode : public Node {
 public:
  MatNode(cv::Mat m, int x, int y) : m_(std::move(m)), x_(x), y_(y) {
    extent = Rect::xywh(x, y, m_.cols, m_.rows);
    gray = m_.channels() == 2;
    support = extent;
  }
  Tile render(const IRect& r) const override {
    IRect i = r.intersect({x_, y_, x_ + m_.cols, y_ + m_.rows});
    Tile t;
    t.rect = i;
    if (!i.empty()) t.m = m_(cv::Rect(i.x0 - x_, i.y0 - y_, i.width(), i.height()));
    return t;
  }

 private:
  cv::Mat m_;
  int x_, y_;
};

class CropNode : public Node {
 public:
  CropNode(Image in, const Rect& r) : in_(std::move(in)) {
    extent = in_.extent().intersect(r);
    support = in_.node()->support.intersect(r);
    gray = in_.gray();
    keep_ = IRect{clampPix(std::ceil(r.x0 - 0.5)), clampPix(std::ceil(r.y0 - 0.5)), clampPix(std::ceil(r.x1 - 0.5)),
                  clampPix(std::ceil(r.y1 - 0.5))}
                .intersect(pixelsOf(*in_.node()));
  }
  Tile render(const IRect& r) const override { return in_.node()->render(r.intersect(keep_).intersect(liveOf(*in_.node()))); }
  const Image& input() const { return in_; }
  IRect keep_;

 private:
  Image in_;
};

IRect pixelsOf(const Node& n) {
  if (auto c = dynamic_cast<const CropNode*>(&n)) return c->keep_;
  return IRect::enclosing(n.extent);
}

// Runs fn over 0..n in parallel on OpenCV's workers. Under the thread
// sanitizer it runs in the calling thread: OpenCV's pool (TBB here) is not
// instrumented, so its hand-offs would all read as races.
#if defined(__SANITIZE_THREAD__)
#define KAVLEN_SERIAL_BLOCKS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KAVLEN_SERIAL_BLOCKS 1
#endif
#endif
template <typename Fn>
void forRanges(int n, Fn&& fn) {
#ifdef KAVLEN_SERIAL_BLOCKS
  fn(cv::Range(0, n));
#else
  cv::parallel_for_(cv::Range(0, n), fn);
#endif
}

// A warp reads the bounding box of what its output maps back to. For a thin
// band turned by the warp that box is far larger than the band's preimage,
// so such outputs are drawn in square pieces, each reading a small box.
constexpr int kPiece = 64;

bool wastefulBox(const std::array<std::array<double, 2>, 4>& back) {
  double x0 = kHuge, y0 = kHuge, x1 = -kHuge, y1 = -kHuge, area = 0;
  for (int i = 0; i < 4; i++) {
    const auto &p = back[i], &q = back[(i + 1) % 4];
    x0 = std::min(x0, p[0]);
    y0 = std::min(y0, p[1]);
    x1 = std::max(x1, p[0]);
    y1 = std::max(y1, p[1]);
    area += p[0] * q[1] - q[0] * p[1];
  }
  return (x1 - x0) * (y1 - y0) > 2 * std::fabs(area) * 0.5 + 4096;
}

template <typename Part>
Tile inPieces(const IRect& out, int ch, Part part) {
  Tile t = blank(out, ch);
  for (int y = out.y0; y < out.y1; y += kPiece)
    for (int x = out.x0; x < out.x1; x += kPiece) {
      IRect r{x, y, std::min(x + kPiece, out.x1), std::min(y + kPiece, out.y1)};
      Tile p = part(r);
      if (p.empty()) continue;
      cv::Mat src = p.m.channels() == ch ? p.m : widen(p.m);
      src.copyTo(t.m(cv::Rect(p.rect.x0 - out.x0, p.rect.y0 - out.y0, p.rect.width(), p.rect.height())));
    }
  return t;
}

class TransformNode : public Node {
 public:
  TransformNode(Image in, const Affine& t) : in_(std::move(in)), t_(t), inv_(t.inverse()) {
    gray = in_.gray();
    Rect e = in_.extent();
    if (e.isInfinite()) {
      extent = Rect::infinite();
    } else {
      extent = kNone;
      for (double x : {e.x0, e.x1})
        for (double y : {e.y0, e.y1}) {
          auto p = t.map(x, y);
          addPoint(extent, p[0], p[1]);
        }
    }
    Rect su = in_.node()->support;
    if (su.empty()) {
      support = Rect{};
    } else if (su.isInfinite()) {
      support = extent;
    } else {
      support = kNone;
      for (double x : {su.x0, su.x1})
        for (double y : {su.y0, su.y1}) {
          auto p = t.map(x, y);
          addPoint(support, p[0], p[1]);
        }
    }
    integral_ = t.a == 1 && t.b == 0 && t.c == 0 && t.d == 1 && t.tx == std::floor(t.tx) && t.ty == std::floor(t.ty) &&
                std::fabs(t.tx) < kPixLimit && std::fabs(t.ty) < kPixLimit;
  }
  Tile render(const IRect& req) const override {
    IRect out = req.intersect(liveOf(*this));
    if (out.empty()) return {};
    if (integral_) {
      int dx = static_cast<int>(t_.tx), dy = static_cast<int>(t_.ty);
      Tile s = in_.node()->render({out.x0 - dx, out.y0 - dy, out.x1 - dx, out.y1 - dy});
      s.rect = {s.rect.x0 + dx, s.rect.y0 + dy, s.rect.x1 + dx, s.rect.y1 + dy};
      return s;
    }
    if (out.width() > kPiece || out.height() > kPiece) {
      std::array<std::array<double, 2>, 4> corners{inv_.map(out.x0, out.y0), inv_.map(out.x1, out.y0),
                                                   inv_.map(out.x1, out.y1), inv_.map(out.x0, out.y1)};
      if (wastefulBox(corners)) return inPieces(out, chans(gray), [this](const IRect& r) { return part(r); });
    }
    return part(out);
  }

  Tile part(const IRect& out) const {
    Rect back{kHuge, kHuge, -kHuge, -kHuge};
    for (double x : {out.x0, out.x1})
      for (double y : {out.y0, out.y1}) {
        auto p = inv_.map(x, y);
        back = {std::min(back.x0, p[0]), std::min(back.y0, p[1]), std::max(back.x1, p[0]), std::max(back.y1, p[1])};
      }
    IRect src = grownBy(IRect::enclosing(back), 2).intersect(liveOf(*in_.node()));
    if (src.empty()) return {};
    Tile s = in_.node()->render(src);
    if (s.empty()) return {};
    // Index maps: destination index -> continuous -> source continuous -> source index.
    Affine toOut = Affine::translate(out.x0 + 0.5, out.y0 + 0.5);
    Affine fromSrc = Affine::translate(-s.rect.x0 - 0.5, -s.rect.y0 - 0.5);
    Affine m = fromSrc.after(inv_.after(toOut));
    cv::Matx23d M(m.a, m.c, m.tx, m.b, m.d, m.ty);
    Tile t;
    t.rect = out;
    cv::warpAffine(s.m, t.m, M, cv::Size(out.width(), out.height()), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_CONSTANT, cv::Scalar::all(0));
    return t;
  }

  bool isTranslation() const { return t_.a == 1 && t_.b == 0 && t_.c == 0 && t_.d == 1; }
  const Image& input() const { return in_; }

 private:
  Image in_;
  Affine t_, inv_;
  bool integral_ = false;
};

// Source-over of a stack of images, the first lowest. Flattened so that a
// long chain blends into one buffer instead of copying it at every step.
class OverNode : public Node {
 public:
  OverNode(const Image& above, const Image& below) {
    auto add = [this](const Image& im) {
      if (auto o = dynamic_cast<const OverNode*>(im.node())) {
        stack_.insert(stack_.end(), o->stack_.begin(), o->stack_.end());
        factor_.insert(factor_.end(), o->factor_.begin(), o->factor_.end());
      } else if (!im.isNull()) {
        // An opacity on top of the stack is applied while blending.
        float k = 1;
        stack_.push_back(opacityInput(im, k));
        factor_.push_back(k);
      }
    };
    add(below);
    add(above);
    extent = Rect{};
    support = Rect{};
    gray = true;
    for (const Image& im : stack_) {
      extent = extent.unite(im.extent());
      support = support.unite(im.node()->support);
      gray = gray && im.gray();
    }
  }
  Tile render(const IRect& req) const override {
    std::vector<Tile> tiles;
    std::vector<float> factors;
    tiles.reserve(stack_.size());
    IRect all;
    for (size_t i = 0; i < stack_.size(); i++) {
      const Image& im = stack_[i];
      IRect want = req.intersect(liveOf(*im.node()));
      // A colour at the bottom (a frame's ground) is filled in its final form.
      Tile t = i == 0 && !gray ? renderColor4(*im.node(), want) : im.node()->render(want);
      if (t.empty()) continue;
      all = boundsOf(all, t.rect);
      tiles.push_back(std::move(t));
      factors.push_back(factor_[i]);
    }
    if (tiles.empty()) return {};
    int ch = chans(gray);
    Tile acc;
    size_t first = 1;
    if (tiles[0].rect.x0 == all.x0 && tiles[0].rect.y0 == all.y0 && tiles[0].rect.x1 == all.x1 &&
        tiles[0].rect.y1 == all.y1 && tiles[0].m.channels() == ch && factors[0] == 1) {
      if (tiles.size() == 1) return tiles[0];
      acc.rect = all;
      acc.owned = true;
      acc.m = tiles[0].owned ? tiles[0].m : tiles[0].m.clone();
    } else if (tiles[0].rect.x0 == all.x0 && tiles[0].rect.y0 == all.y0 && tiles[0].rect.x1 == all.x1 &&
               tiles[0].rect.y1 == all.y1 && factors[0] == 1 && ch == 4) {
      acc.rect = all;
      acc.owned = true;
      acc.m = widen(tiles[0].m);
    } else {
      acc = blank(all, ch);
      first = 0;
    }
    for (size_t k = first; k < tiles.size(); k++) blendOver(acc, tiles[k], factors[k]);
    return acc;
  }

  // acc = top * f over acc.
  static void blendOver(Tile& acc, const Tile& top, float f) {
    IRect i = top.rect.intersect(acc.rect);
    if (i.empty()) return;
    int ch = acc.m.channels();
    cv::Mat s = top.m;
    if (s.channels() != ch) s = widen(s);
    for (int y = i.y0; y < i.y1; y++) {
      const float* a = s.ptr<float>(y - top.rect.y0) + (i.x0 - top.rect.x0) * ch;
      float* d = acc.m.ptr<float>(y - acc.rect.y0) + (i.x0 - acc.rect.x0) * ch;
      int n = i.width();
      if (ch == 4) {
        overRow4(a, d, n, f);
      } else {
        for (int x = 0; x < n; x++, a += 2, d += 2) {
          float k = 1.0f - a[1] * f;
          d[0] = a[0] * f + d[0] * k;
          d[1] = a[1] * f + d[1] * k;
        }
      }
    }
  }

 private:
  static Image opacityInput(const Image& im, float& k);
  static Tile renderColor4(const Node& n, const IRect& r);
  std::vector<Image> stack_;
  std::vector<float> factor_;  // opacity of each entry
};

class ClampNode : public Node {
 public:
  explicit ClampNode(Image in) : in_(std::move(in)) {
    extent = Rect::infinite();
    gray = in_.gray();
    e_ = pixelsOf(*in_.node());
    // A support clear of the edges stays where it is; one that touches an
    // edge is repeated out to infinity.
    IRect s = IRect::enclosing(in_.node()->support).intersect(e_);
    if (s.empty())
      support = Rect{};
    else if (s.x0 > e_.x0 && s.y0 > e_.y0 && s.x1 < e_.x1 && s.y1 < e_.y1)
      support = in_.node()->support;
    else
      support = Rect::infinite();
  }
  Tile render(const IRect& r) const override {
    if (r.empty() || e_.empty()) return {};
    IRect s{std::clamp(r.x0, e_.x0, e_.x1 - 1), std::clamp(r.y0, e_.y0, e_.y1 - 1), std::clamp(r.x1, e_.x0 + 1, e_.x1),
            std::clamp(r.y1, e_.y0 + 1, e_.y1)};
    Tile t = in_.node()->render(s);
    if (t.rect.x0 != s.x0 || t.rect.y0 != s.y0 || t.rect.x1 != s.x1 || t.rect.y1 != s.y1 || t.m.channels() != chans(gray))
      t = placed(t, s, chans(gray));
    // Each axis: the part of r over the source, and how many pixels of r
    // lie before and after it, which repeat the source's edge.
    struct Span {
      int offset, len, before, after;
    };
    auto axis = [](int r0, int r1, int s0, int s1) -> Span {
      if (r1 <= s0) return {0, 1, 0, r1 - r0 - 1};
      if (r0 >= s1) return {s1 - s0 - 1, 1, 0, r1 - r0 - 1};
      int c0 = std::max(r0, s0), c1 = std::min(r1, s1);
      return {c0 - s0, c1 - c0, c0 - r0, r1 - c1};
    };
    Span sx = axis(r.x0, r.x1, s.x0, s.x1), sy = axis(r.y0, r.y1, s.y0, s.y1);
    Tile out;
    out.rect = r;
    cv::copyMakeBorder(t.m(cv::Rect(sx.offset, sy.offset, sx.len, sy.len)), out.m, sy.before, sy.after, sx.before,
                       sx.after, cv::BORDER_REPLICATE);
    return out;
  }

 private:
  Image in_;
  IRect e_;
};

int blurReach(double sigma) { return sigma <= 0 ? 0 : static_cast<int>(std::ceil(3 * sigma)) + 1; }

class BlurNode : public Node {
 public:
  BlurNode(Image in, double sigma) : in_(std::move(in)), sigma_(sigma) {
    gray = in_.gray();
    reach_ = blurReach(sigma);
    extent = in_.extent().isInfinite() ? Rect::infinite() : in_.extent().grown(reach_);
    support = in_.node()->support.empty() ? Rect{} : in_.node()->support.grown(reach_);
  }
  Tile render(const IRect& r) const override {
    IRect out = r.intersect(liveOf(*this));
    if (out.empty()) return {};
    IRect big = grownBy(out, reach_);
    Tile t = placed(in_.node()->render(big), big, chans(gray));
    if (!t.owned) t.m = t.m.clone();  // blurred in place: never a shared picture
    gaussian(t.m, sigma_);
    Tile o;
    o.rect = out;
    o.m = t.m(cv::Rect(reach_, reach_, out.width(), out.height()));
    return o;
  }

 private:
  Image in_;
  double sigma_;
  int reach_;
};

class MorphNode : public Node {
 public:
  MorphNode(Image in, double radius, bool max) : in_(std::move(in)), max_(max) {
    gray = in_.gray();
    r_ = std::max(0, static_cast<int>(std::lround(radius)));
    extent = in_.extent().isInfinite() ? Rect::infinite() : in_.extent().grown(max ? r_ : 0);
    support = in_.node()->support.empty() ? Rect{} : max ? in_.node()->support.grown(r_) : in_.node()->support;
  }
  Tile render(const IRect& r) const override {
    IRect out = r.intersect(liveOf(*this));
    if (out.empty()) return {};
    IRect big = grownBy(out, r_);
    Tile t = placed(in_.node()->render(big), big, chans(gray));
    Tile o;
    o.rect = out;
    o.owned = true;
    o.m = discMorph(t.m, r_, max_, out.width(), out.height());
    return o;
  }

 private:
  Image in_;
  bool max_;
  int r_ = 0;
};

// Nodes of two or three inputs computed pixel by pixel.
class PixelNode : public Node {
 public:
  enum class Op { BlendWithMask, Difference, Multiply };
  PixelNode(Op op, Image in, Image bg, Image mask) : op_(op), in_(std::move(in)), bg_(std::move(bg)), mask_(std::move(mask)) {
    extent = in_.extent().unite(bg_.extent());
    const Rect &si = in_.node()->support, &sb = bg_.node()->support;
    support = op == Op::BlendWithMask ? si.intersect(mask_.node()->support).unite(sb) : si.unite(sb);
    gray = in_.gray() && bg_.gray();
  }
  Tile render(const IRect& r) const override {
    IRect out = r.intersect(liveOf(*this));
    if (out.empty()) return {};
    int ch = chans(gray);
    IRect ain = out.intersect(liveOf(*in_.node()));
    // Where the mask is black the input plays no part.
    if (op_ == Op::BlendWithMask) ain = ain.intersect(liveOf(*mask_.node()));
    Tile a = in_.node()->render(ain);
    Tile b = bg_.node()->render(out.intersect(liveOf(*bg_.node())));
    IRect area = boundsOf(a.rect, b.rect);
    if (area.empty()) return {};
    a = placed(a, area, ch);
    // A clear background (masking) needs no pixels of its own.
    bool bgClear = b.empty() && op_ == Op::BlendWithMask;
    if (!bgClear) b = placed(b, area, ch);
    Tile m;
    if (op_ == Op::BlendWithMask) m = placed(mask_.node()->render(area.intersect(liveOf(*mask_.node()))), area, mask_.gray() ? 2 : 4);
    Tile o;
    o.rect = area;
    o.owned = true;
    o.m.create(area.height(), area.width(), CV_MAKETYPE(CV_32F, ch));
    int n = area.width();
    for (int y = 0; y < area.height(); y++) {
      const float* s = a.m.ptr<float>(y);
      const float* d = bgClear ? nullptr : b.m.ptr<float>(y);
      float* q = o.m.ptr<float>(y);
      if (op_ == Op::BlendWithMask) {
        const float* k = m.m.ptr<float>(y);
        int mc = m.m.channels();
        for (int x = 0; x < n; x++) {
          float l = mc == 2 ? k[x * 2] : 0.2126f * k[x * 4] + 0.7152f * k[x * 4 + 1] + 0.0722f * k[x * 4 + 2];
          l = std::clamp(l, 0.0f, 1.0f);
          if (bgClear)
            for (int c = 0; c < ch; c++) q[x * ch + c] = s[x * ch + c] * l;
          else
            for (int c = 0; c < ch; c++) q[x * ch + c] = d[x * ch + c] + (s[x * ch + c] - d[x * ch + c]) * l;
        }
      } else {
        for (int x = 0; x < n; x++) {
          const float* sp = s + x * ch;
          const float* dp = d + x * ch;
          float* qp = q + x * ch;
          float sa = sp[ch - 1], da = dp[ch - 1];
          for (int c = 0; c < ch - 1; c++) {
            if (op_ == Op::Difference)
              qp[c] = sp[c] + dp[c] - 2 * std::min(sp[c] * da, dp[c] * sa);
            else
              qp[c] = sp[c] * dp[c] + sp[c] * (1 - da) + dp[c] * (1 - sa);
          }
          qp[ch - 1] = sa + da - sa * da;
        }
      }
    }
    return o;
  }

 private:
  Op op_;
  Image in_, bg_, mask_;
};

class ColorMatrixNode : public Node {
 public:
  ColorMatrixNode(Image in, std::array<float, 4> av, std::array<float, 4> bias) : in_(std::move(in)), av_(av), bias_(bias) {
    extent = in_.extent();
    support = bias[3] > 0 ? extent : in_.node()->support;
    gray = in_.gray() && bias[0] == bias[1] && bias[1] == bias[2];
    scaleOnly_ = av[0] == 0 && av[1] == 0 && av[2] == 0 && av[3] >= 0 && av[3] <= 1 && bias == std::array<float, 4>{};
  }
  Tile render(const IRect& r) const override {
    Tile t = in_.node()->render(r.intersect(liveOf(*in_.node())));
    if (t.empty()) return t;
    Tile o;
    o.rect = t.rect;
    if (scaleOnly_) {
      t.m.convertTo(o.m, -1, av_[3]);
      return o;
    }
    int ch = t.m.channels();
    o.m.create(t.m.rows, t.m.cols, t.m.type());
    for (int y = 0; y < t.m.rows; y++) {
      const float* s = t.m.ptr<float>(y);
      float* q = o.m.ptr<float>(y);
      for (int x = 0; x < t.m.cols; x++, s += ch, q += ch) {
        float a = s[ch - 1];
        float inv = a > 0 ? 1.0f / a : 0.0f;
        float rr = s[0] * inv, gg = (ch == 4 ? s[1] : s[0]) * inv, bb = (ch == 4 ? s[2] : s[0]) * inv;
        float na = std::clamp(av_[0] * rr + av_[1] * gg + av_[2] * bb + av_[3] * a + bias_[3], 0.0f, 1.0f);
        if (ch == 4) {
          q[0] = (rr + bias_[0]) * na;
          q[1] = (gg + bias_[1]) * na;
          q[2] = (bb + bias_[2]) * na;
        } else {
          q[0] = (rr + bias_[0]) * na;
        }
        q[ch - 1] = na;
      }
    }
    return o;
  }

  bool scaleOnly() const { return scaleOnly_; }
  float scale() const { return av_[3]; }
  const Image& input() const { return in_; }

 private:
  Image in_;
  std::array<float, 4> av_, bias_;
  bool scaleOnly_ = false;
};

Tile OverNode::renderColor4(const Node& n, const IRect& r) {
  const Node* base = &n;
  if (auto c = dynamic_cast<const CropNode*>(base)) base = c->input().node();
  auto color = dynamic_cast<const ColorNode*>(base);
  if (!color || !color->gray) return n.render(r);
  Tile t;
  t.rect = r;
  t.owned = true;
  Color c = color->color();
  const float v[4] = {c.r * c.a, c.g * c.a, c.b * c.a, c.a};
  if (!r.empty()) t.m = filled(r.height(), r.width(), 4, v);
  return t;
}

Image OverNode::opacityInput(const Image& im, float& k) {
  if (auto c = dynamic_cast<const ColorMatrixNode*>(im.node()); c && c->scaleOnly()) {
    k = c->scale();
    return c->input();
  }
  k = 1;
  return im;
}

class PerspectiveNode : public Node {
 public:
  PerspectiveNode(Image in, const std::array<P2, 4>& dst) : in_(std::move(in)) {
    gray = in_.gray();
    Rect e = in_.extent();
    cv::Point2f s[4] = {{float(e.x0), float(e.y1)}, {float(e.x1), float(e.y1)}, {float(e.x1), float(e.y0)},
                        {float(e.x0), float(e.y0)}};
    cv::Point2f d[4];
    extent = kNone;
    for (int i = 0; i < 4; i++) {
      d[i] = cv::Point2f(float(dst[i].x), float(dst[i].y));
      addPoint(extent, dst[i].x, dst[i].y);
    }
    support = in_.node()->support.empty() ? Rect{} : extent;
    h_ = cv::getPerspectiveTransform(s, d);
    hinv_ = h_.inv();
  }
  Tile render(const IRect& req) const override {
    IRect out = req.intersect(liveOf(*this));
    if (out.empty()) return {};
    if (out.width() > kPiece || out.height() > kPiece) {
      std::array<std::array<double, 2>, 4> corners;
      bool finite = true;
      int k = 0;
      for (auto [x, y] : {std::pair{out.x0, out.y0}, {out.x1, out.y0}, {out.x1, out.y1}, {out.x0, out.y1}}) {
        double w = hinv_(2, 0) * x + hinv_(2, 1) * y + hinv_(2, 2);
        finite = finite && w > 1e-12;
        corners[k++] = {(hinv_(0, 0) * x + hinv_(0, 1) * y + hinv_(0, 2)) / w,
                        (hinv_(1, 0) * x + hinv_(1, 1) * y + hinv_(1, 2)) / w};
      }
      if (finite && wastefulBox(corners)) return inPieces(out, chans(gray), [this](const IRect& r) { return part(r); });
    }
    return part(out);
  }

  Tile part(const IRect& out) const {
    IRect all = liveOf(*in_.node());
    IRect src = all;
    Rect back{kHuge, kHuge, -kHuge, -kHuge};
    bool finite = true;
    for (double x : {double(out.x0), double(out.x1)})
      for (double y : {double(out.y0), double(out.y1)}) {
        double w = hinv_(2, 0) * x + hinv_(2, 1) * y + hinv_(2, 2);
        if (!(w > 1e-12)) {
          finite = false;
          continue;
        }
        double u = (hinv_(0, 0) * x + hinv_(0, 1) * y + hinv_(0, 2)) / w;
        double v = (hinv_(1, 0) * x + hinv_(1, 1) * y + hinv_(1, 2)) / w;
        addPoint(back, u, v);
      }
    if (finite) src = grownBy(IRect::enclosing(back), 2).intersect(all);
    if (src.empty()) return {};
    Tile s = in_.node()->render(src);
    if (s.empty()) return {};
    cv::Matx33d toOut(1, 0, out.x0 + 0.5, 0, 1, out.y0 + 0.5, 0, 0, 1);
    cv::Matx33d fromSrc(1, 0, -s.rect.x0 - 0.5, 0, 1, -s.rect.y0 - 0.5, 0, 0, 1);
    cv::Matx33d m = fromSrc * hinv_ * toOut;
    Tile t;
    t.rect = out;
    cv::warpPerspective(s.m, t.m, m, cv::Size(out.width(), out.height()), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                        cv::BORDER_CONSTANT, cv::Scalar::all(0));
    return t;
  }

 private:
  Image in_;
  cv::Matx33d h_, hinv_;
};

// Straight 8-bit RGBA rows as given by files and decoders, top row first,
// turned into premultiplied float only where a render asks.
class Rgba8Node : public Node {
 public:
  Rgba8Node(const uint8_t* rgba, int w, int h, int stride) : w_(w), h_(h) {
    bytes_.resize(static_cast<size_t>(w) * h * 4);
    for (int y = 0; y < h; y++)
      std::copy(rgba + static_cast<size_t>(y) * stride, rgba + static_cast<size_t>(y) * stride + static_cast<size_t>(w) * 4,
                bytes_.begin() + static_cast<ptrdiff_t>(y) * w * 4);
    extent = Rect::xywh(0, 0, w, h);
    support = extent;
  }
  Tile render(const IRect& r) const override {
    IRect i = r.intersect({0, 0, w_, h_});
    if (i.empty()) return {};
    Tile t = blank(i, 4);
    for (int y = i.y0; y < i.y1; y++) {
      const uint8_t* s = bytes_.data() + (static_cast<size_t>(h_ - 1 - y) * w_ + i.x0) * 4;
      float* d = t.m.ptr<float>(y - i.y0);
      for (int x = i.x0; x < i.x1; x++, s += 4, d += 4) {
        float a = s[3] * (1.0f / 255.0f), k = a * (1.0f / 255.0f);
        d[0] = s[0] * k;
        d[1] = s[1] * k;
        d[2] = s[2] * k;
        d[3] = a;
      }
    }
    return t;
  }

 private:
  std::vector<uint8_t> bytes_;
  int w_, h_;
};

// An image seen through a rectangle: its pixels inside, transparent outside,
// with the rectangle as extent (source-over a clear rectangle, at no cost).
class PadNode : public Node {
 public:
  PadNode(Image in, const Rect& r) : in_(std::move(in)) {
    extent = r;
    support = in_.node()->support.intersect(r).intersect(in_.extent());
    gray = in_.gray();
    keep_ = IRect{clampPix(std::ceil(r.x0 - 0.5)), clampPix(std::ceil(r.y0 - 0.5)), clampPix(std::ceil(r.x1 - 0.5)),
                  clampPix(std::ceil(r.y1 - 0.5))};
  }
  Tile render(const IRect& r) const override {
    return in_.node()->render(r.intersect(keep_).intersect(liveOf(*in_.node())));
  }

 private:
  Image in_;
  IRect keep_;
};

}  // namespace

Image Image::extendedTo(const Rect& r) const {
  if (!n_) return Image::color({}).cropped(r);
  return Image(std::make_shared<PadNode>(*this, r));
}

Rect Rect::infinite() { return {-kHuge, -kHuge, kHuge, kHuge}; }
bool Rect::isInfinite() const { return x0 <= -kHuge || y0 <= -kHuge || x1 >= kHuge || y1 >= kHuge; }
Rect Rect::intersect(const Rect& o) const {
  return {std::max(x0, o.x0), std::max(y0, o.y0), std::min(x1, o.x1), std::min(y1, o.y1)};
}
Rect Rect::unite(const Rect& o) const {
  if (o.empty()) return *this;
  if (empty()) return o;
  return {std::min(x0, o.x0), std::min(y0, o.y0), std::max(x1, o.x1), std::max(y1, o.y1)};
}

IRect IRect::intersect(const IRect& o) const {
  IRect r{std::max(x0, o.x0), std::max(y0, o.y0), std::min(x1, o.x1), std::min(y1, o.y1)};
  if (r.empty()) return {};
  return r;
}

IRect IRect::enclosing(const Rect& r) {
  if (r.empty()) return {};
  return {clampPix(std::floor(r.x0)), clampPix(std::floor(r.y0)), clampPix(std::ceil(r.x1)), clampPix(std::ceil(r.y1))};
}

Color Color::argb(uint32_t v) {
  return {((v >> 16) & 0xFF) / 255.0f, ((v >> 8) & 0xFF) / 255.0f, (v & 0xFF) / 255.0f, ((v >> 24) & 0xFF) / 255.0f};
}

Affine Affine::rotate(double r) {
  double c = std::cos(r), s = std::sin(r);
  return {c, s, -s, c, 0, 0};
}

Affine Affine::after(const Affine& f) const {
  return {a * f.a + c * f.b, b * f.a + d * f.b, a * f.c + c * f.d, b * f.c + d * f.d, a * f.tx + c * f.ty + tx,
          b * f.tx + d * f.ty + ty};
}

Affine Affine::inverse() const {
  double det = a * d - b * c;
  if (det == 0) return {0, 0, 0, 0, 0, 0};
  double ia = d / det, ib = -b / det, ic = -c / det, id = a / det;
  return {ia, ib, ic, id, -(ia * tx + ic * ty), -(ib * tx + id * ty)};
}

Image Image::color(Color c) { return Image(std::make_shared<ColorNode>(c)); }

Image Image::fromMat(cv::Mat m, int x, int y) {
  if (m.empty()) return {};
  return Image(std::make_shared<MatNode>(std::move(m), x, y));
}

Image Image::fromStraightRgba(const uint8_t* rgba, int w, int h, int stride) {
  if (!rgba || w <= 0 || h <= 0 || stride < w * 4) return {};
  return Image(std::make_shared<Rgba8Node>(rgba, w, h, stride));
}

Image Image::fromGray(const uint8_t* gray, int w, int h, int stride) {
  if (!gray || w <= 0 || h <= 0) return {};
  cv::Mat m(h, w, CV_32FC2);
  for (int y = 0; y < h; y++) {
    const uint8_t* s = gray + static_cast<size_t>(h - 1 - y) * stride;
    float* d = m.ptr<float>(y);
    for (int x = 0; x < w; x++) {
      d[2 * x] = s[x] / 255.0f;
      d[2 * x + 1] = 1.0f;
    }
  }
  return fromMat(std::move(m));
}

Rect Image::extent() const { return n_ ? n_->extent : Rect{}; }
Rect Image::support() const { return n_ ? n_->support : Rect{}; }
bool Image::gray() const { return n_ ? n_->gray : true; }

Image Image::cropped(const Rect& r) const {
  if (!n_) return {};
  return Image(std::make_shared<CropNode>(*this, r));
}
Image Image::transformed(const Affine& t) const {
  if (!n_) return {};
  if (dynamic_cast<const ColorNode*>(n_.get())) return *this;
  // A rectangle of one colour moved and scaled along the axes stays one:
  // no pixels need resampling.
  if (auto c = dynamic_cast<const CropNode*>(n_.get());
      c && t.b == 0 && t.c == 0 && t.a > 0 && t.d > 0 && dynamic_cast<const ColorNode*>(c->input().node())) {
    Rect e = extent();
    auto p0 = t.map(e.x0, e.y0), p1 = t.map(e.x1, e.y1);
    return c->input().cropped({p0[0], p0[1], p1[0], p1[1]});
  }
  return Image(std::make_shared<TransformNode>(*this, t));
}
Image Image::over(const Image& below) const {
  if (!n_) return below;
  if (below.isNull()) return *this;
  return Image(std::make_shared<OverNode>(*this, below));
}
Image Image::clampedToExtent() const {
  if (!n_ || extent().isInfinite()) return *this;
  return Image(std::make_shared<ClampNode>(*this));
}
Image Image::blurred(double r) const {
  if (!n_ || !(r > 0)) return *this;
  return Image(std::make_shared<BlurNode>(*this, std::min(r, kMaxBlur)));
}
Image Image::dilated(double r) const {
  if (!n_ || !(r > 0)) return *this;
  return Image(std::make_shared<MorphNode>(*this, std::min(r, kMaxMorph), true));
}
Image Image::eroded(double r) const {
  if (!n_ || !(r > 0)) return *this;
  return Image(std::make_shared<MorphNode>(*this, std::min(r, kMaxMorph), false));
}
Image Image::blendWithMask(const Image& bg, const Image& mask) const {
  if (!n_ || bg.isNull() || mask.isNull()) return {};
  return Image(std::make_shared<PixelNode>(PixelNode::Op::BlendWithMask, *this, bg, mask));
}
Image Image::difference(const Image& bg) const {
  if (!n_ || bg.isNull()) return {};
  return Image(std::make_shared<PixelNode>(PixelNode::Op::Difference, *this, bg, Image()));
}
Image Image::multiply(const Image& bg) const {
  if (!n_ || bg.isNull()) return {};
  return Image(std::make_shared<PixelNode>(PixelNode::Op::Multiply, *this, bg, Image()));
}
Image Image::colorMatrix(const std::array<float, 4>& av, const std::array<float, 4>& bias) const {
  if (!n_) return {};
  return Image(std::make_shared<ColorMatrixNode>(*this, av, bias));
}
Image Image::perspective(P2 tl, P2 tr, P2 br, P2 bl) const {
  if (!n_ || extent().isInfinite() || extent().empty()) return {};
  for (P2 p : {tl, tr, br, bl})
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || std::fabs(p.x) > 1e7 || std::fabs(p.y) > 1e7) return {};
  // A moved image has the extent of its source moved: warp the source
  // itself, which saves a resampling (the pieces of a mesh are such).
  if (auto t = dynamic_cast<const TransformNode*>(n_.get()); t && t->isTranslation())
    return t->input().perspective(tl, tr, br, bl);
  return Image(std::make_shared<PerspectiveNode>(*this, std::array<P2, 4>{tl, tr, br, bl}));
}

Image Image::materialized() const {
  if (!n_ || dynamic_cast<const MatNode*>(n_.get())) return *this;
  IRect live = liveOf(*n_);
  if (live.empty() || live.x0 <= -kPixLimit || live.y0 <= -kPixLimit || live.x1 >= kPixLimit || live.y1 >= kPixLimit)
    return *this;
  int ch = chans(n_->gray);
  const float zero[4] = {0, 0, 0, 0};
  cv::Mat m = filled(live.height(), live.width(), ch, zero);
  // Few tall bands: filters of a wide reach pay their margin once a band.
  int bandRows = std::max(kBandRows, (live.height() + 2 * cv::getNumThreads() - 1) / (2 * cv::getNumThreads()));
  int bands = (live.height() + bandRows - 1) / bandRows;
  forRanges(bands, [&](const cv::Range& range) {
    for (int b = range.start; b < range.end; b++) {
      IRect band{live.x0, live.y0 + b * bandRows, live.x1, std::min(live.y1, live.y0 + (b + 1) * bandRows)};
      Tile t = n_->render(band);
      if (t.empty()) continue;
      cv::Mat src = t.m.channels() == ch ? t.m : widen(t.m);
      src.copyTo(m(cv::Rect(t.rect.x0 - live.x0, t.rect.y0 - live.y0, t.rect.width(), t.rect.height())));
    }
  });
  Image pixels = fromMat(m, live.x0, live.y0);
  // The extent stays that of the original picture.
  return pixels.extendedTo(extent());
}

Tile Image::render(const IRect& r, bool rgba) const {
  if (!n_) return {};
  Tile t = n_->render(r.intersect(liveOf(*n_)));
  if (rgba && !t.empty() && t.m.channels() == 2) t.m = widen(t.m);
  return t;
}

void renderInto(const Image& image, const IRect& r, PixelOrder order, bool straight, uint8_t* out, size_t stride) {
  if (r.empty()) return;
  int ri = order == PixelOrder::RGBA ? 0 : 2, bi = 2 - ri;
  // Blocks rendered in parallel: every buffer of the graph then stays
  // small enough for the caches, and no frame-sized one is made.
  int rows = (r.height() + kBandRows - 1) / kBandRows, cols = (r.width() + kBlockCols - 1) / kBlockCols;
  forRanges(rows * cols, [&](const cv::Range& range) {
    for (int b = range.start; b < range.end; b++) {
      // Block b holds output rows from its top down, top row first.
      int top = r.y1 - (b / cols) * kBandRows, bottom = std::max(r.y0, top - kBandRows);
      int left = r.x0 + (b % cols) * kBlockCols, right = std::min(r.x1, left + kBlockCols);
      Tile t = image.render({left, bottom, right, top}, false);
      const int ch = t.empty() ? 4 : t.m.channels(), ai = ch - 1, gi = ch == 4 ? 1 : 0, b2 = ch == 4 ? 2 : 0;
      for (int y = top - 1; y >= bottom; y--) {
        uint8_t* d = out + static_cast<size_t>(r.y1 - 1 - y) * stride + static_cast<size_t>(left - r.x0) * 4;
        std::fill(d, d + static_cast<size_t>(right - left) * 4, 0);
        if (t.empty() || y < t.rect.y0 || y >= t.rect.y1) continue;
        const float* s = t.m.ptr<float>(y - t.rect.y0);
        uint8_t* q = d + static_cast<size_t>(t.rect.x0 - left) * 4;
        if (ch == 4 && !straight) {
          cv::Mat from(1, t.rect.width(), CV_32FC4, const_cast<float*>(s));
          cv::Mat to(1, t.rect.width(), CV_8UC4, q);
          from.convertTo(to, CV_8UC4, 255.0);  // rounds and saturates
          if (ri != 0) cv::cvtColor(to, to, cv::COLOR_RGBA2BGRA);
          continue;
        }
        for (int x = 0; x < t.rect.width(); x++, s += ch, q += 4) {
          float a = std::clamp(s[ai], 0.0f, 1.0f);
          float k = straight ? (a > 0 ? 255.0f / a : 0.0f) : 255.0f;
          q[ri] = static_cast<uint8_t>(std::clamp(s[0] * k, 0.0f, 255.0f) + 0.5f);
          q[1] = static_cast<uint8_t>(std::clamp(s[gi] * k, 0.0f, 255.0f) + 0.5f);
          q[bi] = static_cast<uint8_t>(std::clamp(s[b2] * k, 0.0f, 255.0f) + 0.5f);
          q[3] = static_cast<uint8_t>(a * 255.0f + 0.5f);
        }
      }
    }
  });
}

std::vector<uint8_t> renderBytes(const Image& image, const IRect& r, PixelOrder order, bool straight) {
  if (r.empty()) return {};
  std::vector<uint8_t> out(static_cast<size_t>(r.width()) * r.height() * 4);
  renderInto(image, r, order, straight, out.data(), static_cast<size_t>(r.width()) * 4);
  return out;
}

}  // namespace kavlen::img
