#include "rect_detector.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

namespace kavlen::vision {

namespace {

// Pictures are shrunk to about this long side before the search; a corner
// placed to a tenth of a pixel here is placed well enough in any photo.
constexpr int kWorkLongSide = 1024;

using P = cv::Point2d;

double cross(P a, P b) { return a.x * b.y - a.y * b.x; }
double norm(P a) { return std::hypot(a.x, a.y); }

struct Quad {
  std::array<P, 4> p;
};

struct Line {
  P point, dir;  // dir is of unit length
};

bool intersect(const Line& a, const Line& b, P& out) {
  double d = cross(a.dir, b.dir);
  if (std::fabs(d) < 1e-6) return false;
  double t = cross(b.point - a.point, b.dir) / d;
  out = a.point + a.dir * t;
  return std::isfinite(out.x) && std::isfinite(out.y);
}

// The picture's gradient in grey levels per pixel, read between pixels.
struct Gradient {
  cv::Mat gx, gy;  // CV_32F
  float typical = 0;  // median gradient magnitude: the level of noise and texture

  cv::Vec2f at(double x, double y) const {
    if (!(x >= 0 && y >= 0 && x <= gx.cols - 1.001 && y <= gx.rows - 1.001)) return {0, 0};
    int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
    float fx = static_cast<float>(x - x0), fy = static_cast<float>(y - y0);
    auto lerp = [&](const cv::Mat& m) {
      const float* r0 = m.ptr<float>(y0) + x0;
      const float* r1 = m.ptr<float>(y0 + 1) + x0;
      float top = r0[0] + (r0[1] - r0[0]) * fx, bottom = r1[0] + (r1[1] - r1[0]) * fx;
      return top + (bottom - top) * fy;
    };
    return {lerp(gx), lerp(gy)};
  }
};

Gradient gradientOf(const cv::Mat& smooth) {
  Gradient g;
  cv::Sobel(smooth, g.gx, CV_32F, 1, 0, 3, 1.0 / 8);
  cv::Sobel(smooth, g.gy, CV_32F, 0, 1, 3, 1.0 / 8);
  // Median magnitude from a histogram of every second row, in steps of 1/8.
  std::array<int, 512> hist{};
  int count = 0;
  for (int y = 0; y < smooth.rows; y += 2) {
    const float* rx = g.gx.ptr<float>(y);
    const float* ry = g.gy.ptr<float>(y);
    for (int x = 0; x < smooth.cols; x++) {
      int bin = static_cast<int>((std::fabs(rx[x]) + std::fabs(ry[x])) * 8);
      hist[std::min(bin, 511)]++;
      count++;
    }
  }
  int seen = 0, bin = 0;
  while (bin < 511 && (seen += hist[bin]) < count / 2) bin++;
  g.typical = (bin + 0.5f) / 8;
  return g;
}

// The gradient across an edge, read at half-pixel steps along its normal
// through `q`: the signed response and the gradient's full strength.
struct Profile {
  static constexpr double kStep = 0.5;
  static constexpr int kMaxSteps = 10;  // radius up to 5 pixels
  int steps = 0;
  float across[2 * kMaxSteps + 1];
  float strength[2 * kMaxSteps + 1];

  Profile(const Gradient& g, P q, P n, double radius) {
    steps = std::min(kMaxSteps, static_cast<int>(std::round(radius / kStep)));
    for (int k = -steps; k <= steps; k++) {
      cv::Vec2f v = g.at(q.x + n.x * k * kStep, q.y + n.y * k * kStep);
      across[k + steps] = static_cast<float>(v[0] * n.x + v[1] * n.y);
      strength[k + steps] = std::hypot(v[0], v[1]);
    }
  }
};

// The strongest response of one polarity in a profile: its offset along the
// normal (sub-pixel) and value. A peak at the end of the window is no peak.
struct Peak {
  double offset = 0, value = 0;
  bool aligned = false;
};

Peak peakOf(const Profile& pr, int polarity) {
  const int n = 2 * pr.steps + 1;
  int best = 0;
  for (int i = 1; i < n; i++)
    if (polarity * pr.across[i] > polarity * pr.across[best]) best = i;
  Peak peak;
  if (best == 0 || best == n - 1) return peak;
  double prev = polarity * pr.across[best - 1], mid = polarity * pr.across[best], next = polarity * pr.across[best + 1];
  double denom = prev - 2 * mid + next;
  double frac = denom < 0 ? std::clamp(0.5 * (prev - next) / denom, -0.5, 0.5) : 0.0;
  peak.offset = (best - pr.steps + frac) * Profile::kStep;
  peak.value = mid;
  // Across the side, not along it: within about 30 degrees of the normal.
  peak.aligned = mid >= 0.86 * pr.strength[best];
  return peak;
}

P outwardNormal(const Quad& q, int side) {
  P a = q.p[side], b = q.p[(side + 1) % 4];
  P d = (b - a) * (1.0 / std::max(norm(b - a), 1e-9));
  P n(d.y, -d.x);
  P centre = (q.p[0] + q.p[1] + q.p[2] + q.p[3]) * 0.25;
  if ((a - centre).dot(n) < 0) n = -n;
  return n;
}

// Moves each side onto the picture's edge near it (a robust line fit to the
// sub-pixel gradient peaks along the side) and puts the corners where the
// sides meet, so corners hidden by something in front are still placed.
bool refine(const Gradient& g, double threshold, Quad& q, double radius) {
  std::array<Line, 4> lines;
  std::vector<Profile> profiles;
  std::vector<P> at;
  std::vector<cv::Point2f> pts;
  for (int i = 0; i < 4; i++) {
    P a = q.p[i], b = q.p[(i + 1) % 4];
    double len = norm(b - a);
    if (len < 4) return false;
    P n = outwardNormal(q, i);
    int samples = std::clamp(static_cast<int>(len / 4), 12, 64);
    // Stay clear of the corners, where the neighbouring side's edge is near.
    P a2 = a + (b - a) * 0.06, b2 = a + (b - a) * 0.94;
    profiles.clear();
    at.clear();
    double pos = 0, neg = 0;
    for (int k = 0; k < samples; k++) {
      at.push_back(a2 + (b2 - a2) * ((k + 0.5) / samples));
      profiles.emplace_back(g, at.back(), n, radius);
      pos += std::max(peakOf(profiles.back(), 1).value, 0.0);
      neg += std::max(peakOf(profiles.back(), -1).value, 0.0);
    }
    // The side's polarity (dark to light across it, or the reverse) is the
    // one most of it shows.
    const int pol = pos >= neg ? 1 : -1;
    pts.clear();
    for (int k = 0; k < samples; k++) {
      Peak pk = peakOf(profiles[k], pol);
      if (pk.value >= threshold && pk.aligned) pts.emplace_back(at[k] + n * pk.offset);
    }
    P dir = (b - a) * (1.0 / len);
    if (static_cast<int>(pts.size()) < std::max(6, samples / 5)) {
      lines[i] = {a, dir};
      continue;
    }
    cv::Vec4f l;
    cv::fitLine(pts, l, cv::DIST_HUBER, 0, 0.01, 0.01);
    P fitDir(l[0], l[1]);
    if (fitDir.dot(dir) < 0) fitDir = -fitDir;
    lines[i] = {P(l[2], l[3]), fitDir};
  }
  Quad out;
  for (int i = 0; i < 4; i++) {
    if (!intersect(lines[(i + 3) % 4], lines[i], out.p[i])) return false;
    if (norm(out.p[i] - q.p[i]) > 4 * radius + 2) return false;
  }
  q = out;
  return true;
}

// Share of a side that the picture backs: samples with an edge of one
// polarity across the side, within a pixel and a half of it.
double support(const Gradient& g, double threshold, const Quad& q, int side, int maxSamples = 200) {
  P a = q.p[side], b = q.p[(side + 1) % 4];
  P n = outwardNormal(q, side);
  int samples = std::clamp(static_cast<int>(norm(b - a) / 2), 16, maxSamples);
  int pos = 0, neg = 0;
  for (int k = 0; k < samples; k++) {
    Profile pr(g, a + (b - a) * (0.03 + 0.94 * (k + 0.5) / samples), n, 2.0);
    Peak up = peakOf(pr, 1), down = peakOf(pr, -1);
    pos += up.value >= threshold && up.aligned && std::fabs(up.offset) <= 1.5;
    neg += down.value >= threshold && down.aligned && std::fabs(down.offset) <= 1.5;
  }
  return static_cast<double>(std::max(pos, neg)) / samples;
}

// Puts the corners clockwise on screen (y down), starting nearest the top
// left; false when the outline is not convex.
// Whether the edge of a side runs on past one of its corners (end 0: the
// side's first corner, 1: its second). A rectangle's sides stop at its
// corners; an outline cut from longer edges (the top of a door closed by the
// sides of a panel inside it) has sides that run on.
bool runsOn(const Gradient& g, double threshold, const Quad& q, int side, int end) {
  constexpr int kSamples = 8;
  P a = q.p[side], b = q.p[(side + 1) % 4];
  double len = norm(b - a);
  P d = (b - a) * (1.0 / len), n = outwardNormal(q, side);
  P from = end == 0 ? a : b, away = end == 0 ? -d : d;
  double reach = std::max(6.0, 0.1 * len);
  int hits = 0;
  for (int k = 0; k < kSamples; k++) {
    Profile pr(g, from + away * (3 + reach * (k + 0.5) / kSamples), n, 2.0);
    Peak up = peakOf(pr, 1), down = peakOf(pr, -1);
    hits += (up.value >= threshold && up.aligned && std::fabs(up.offset) <= 1.5) ||
            (down.value >= threshold && down.aligned && std::fabs(down.offset) <= 1.5);
  }
  return hits >= kSamples * 3 / 4;
}

// Share of a stretch of a side, from `from` to `to` (fractions of the side
// from its first corner), with an edge of either polarity across it.
double stretchSupport(const Gradient& g, double threshold, const Quad& q, int side, double from, double to) {
  constexpr int kSamples = 6;
  P a = q.p[side], b = q.p[(side + 1) % 4], n = outwardNormal(q, side);
  int hits = 0;
  for (int k = 0; k < kSamples; k++) {
    Profile pr(g, a + (b - a) * (from + (to - from) * (k + 0.5) / kSamples), n, 2.0);
    Peak up = peakOf(pr, 1), down = peakOf(pr, -1);
    hits += (up.value >= threshold && up.aligned && std::fabs(up.offset) <= 1.5) ||
            (down.value >= threshold && down.aligned && std::fabs(down.offset) <= 1.5);
  }
  return static_cast<double>(hits) / kSamples;
}

// A corner that neither side reaches, with nothing in the picture around it
// that could hide it: an outline pieced together from other objects' edges
// (two rectangles side by side give a third one spanning both), not a
// rectangle with a hidden corner.
bool emptyCorner(const Gradient& g, double threshold, const Quad& q, int corner) {
  const int before = (corner + 3) % 4, after = corner;  // sides ending and starting here
  double lenBefore = norm(q.p[corner] - q.p[before]), lenAfter = norm(q.p[(corner + 1) % 4] - q.p[corner]);
  double reachB = std::min(0.5, std::max(8.0, 0.12 * lenBefore) / lenBefore);
  double reachA = std::min(0.5, std::max(8.0, 0.12 * lenAfter) / lenAfter);
  if (stretchSupport(g, 0.6 * threshold, q, before, 1 - reachB, 1) >= 0.5 ||
      stretchSupport(g, 0.6 * threshold, q, after, 0, reachA) >= 0.5)
    return false;
  const double r = std::max(4.0, 0.05 * std::min(lenBefore, lenAfter));
  int busy = 0, total = 0;
  for (double dy = -r; dy <= r; dy += 1)
    for (double dx = -r; dx <= r; dx += 1) {
      if (dx * dx + dy * dy > r * r) continue;
      cv::Vec2f v = g.at(q.p[corner].x + dx, q.p[corner].y + dy);
      busy += std::hypot(v[0], v[1]) >= threshold;
      total++;
    }
  return busy < 0.05 * total;
}

bool convexClockwise(Quad& q) {
  double s[4];
  for (int i = 0; i < 4; i++) s[i] = cross(q.p[(i + 1) % 4] - q.p[i], q.p[(i + 2) % 4] - q.p[(i + 1) % 4]);
  bool allPos = s[0] > 0 && s[1] > 0 && s[2] > 0 && s[3] > 0;
  bool allNeg = s[0] < 0 && s[1] < 0 && s[2] < 0 && s[3] < 0;
  if (allNeg) std::reverse(q.p.begin(), q.p.end());
  int first = 0;
  for (int i = 1; i < 4; i++)
    if (q.p[i].x + q.p[i].y < q.p[first].x + q.p[first].y) first = i;
  std::rotate(q.p.begin(), q.p.begin() + first, q.p.end());
  return allPos || allNeg;
}

// A quick look before refining: the share of a few points along each side
// with an edge across it within a few pixels.
double roughSupport(const Gradient& g, double threshold, const Quad& q) {
  constexpr int kSamples = 10;
  int hits = 0;
  for (int i = 0; i < 4; i++) {
    P a = q.p[i], b = q.p[(i + 1) % 4], n = outwardNormal(q, i);
    for (int k = 0; k < kSamples; k++) {
      Profile pr(g, a + (b - a) * (0.1 + 0.8 * (k + 0.5) / kSamples), n, 4.0);
      Peak up = peakOf(pr, 1), down = peakOf(pr, -1);
      hits += (up.value >= threshold && up.aligned) || (down.value >= threshold && down.aligned);
    }
  }
  return hits / (4.0 * kSamples);
}

// The request's shape rules: corner angles, aspect ratio, size, and inside
// the picture.
bool shapeAllowed(const Quad& q, const DetectParams& prm, int w, int h) {
  for (const P& p : q.p)
    if (p.x < -1 || p.y < -1 || p.x > w + 1 || p.y > h + 1) return false;
  for (int i = 0; i < 4; i++) {
    P u = q.p[(i + 3) % 4] - q.p[i], v = q.p[(i + 1) % 4] - q.p[i];
    double angle = std::acos(std::clamp(u.dot(v) / (norm(u) * norm(v) + 1e-12), -1.0, 1.0)) * 180 / CV_PI;
    if (std::fabs(angle - 90) > prm.quadratureTolerance) return false;
  }
  double s1 = (norm(q.p[1] - q.p[0]) + norm(q.p[3] - q.p[2])) / 2;
  double s2 = (norm(q.p[2] - q.p[1]) + norm(q.p[0] - q.p[3])) / 2;
  double shorter = std::min(s1, s2), longer = std::max(s1, s2);
  double aspect = shorter / std::max(longer, 1e-9);
  if (aspect < prm.minimumAspectRatio || aspect > prm.maximumAspectRatio + 1e-9) return false;
  return shorter >= prm.minimumSize * std::min(w, h);
}

// A quadrilateral from the simplified outline of a region. Four corners: as
// they are. Five to eight, where something hides or rounds a corner: the four
// longest sides, if they make most of the outline, extended to meet.
bool quadFromPolygon(const std::vector<cv::Point>& poly, double perimeter, Quad& out) {
  const int n = static_cast<int>(poly.size());
  if (n < 4 || n > 8) return false;
  if (n == 4) {
    for (int i = 0; i < 4; i++) out.p[i] = P(poly[i]);
    return true;
  }
  std::vector<int> order(n);
  for (int i = 0; i < n; i++) order[i] = i;
  auto len = [&](int i) { return norm(P(poly[(i + 1) % n]) - P(poly[i])); };
  std::sort(order.begin(), order.end(), [&](int a, int b) { return len(a) > len(b); });
  order.resize(4);
  std::sort(order.begin(), order.end());
  double covered = 0;
  for (int i : order) covered += len(i);
  if (covered < 0.75 * perimeter) return false;
  std::array<Line, 4> lines;
  for (int k = 0; k < 4; k++) {
    P a(poly[order[k]]), b(poly[(order[k] + 1) % n]);
    lines[k] = {a, (b - a) * (1.0 / norm(b - a))};
  }
  cv::Rect box = cv::boundingRect(poly);
  double slack = 0.5 * std::max(box.width, box.height);
  for (int k = 0; k < 4; k++) {
    if (!intersect(lines[(k + 3) % 4], lines[k], out.p[k])) return false;
    if (out.p[k].x < box.x - slack || out.p[k].x > box.br().x + slack || out.p[k].y < box.y - slack ||
        out.p[k].y > box.br().y + slack)
      return false;
  }
  return true;
}

// Straight pieces of edge, joined across gaps where an edge fades or
// something crosses it. Each keeps a least-squares line through its pieces.
struct Segment {
  P a, b;  // a to b
  double length = 0;
  double covered = 0;  // edge length actually seen along it
  double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0;
  P dir() const { return (b - a) * (1.0 / length); }

  void addPiece(P p, P q) {
    double w = norm(q - p) / 2;
    for (P v : {p, q}) sw += w, sx += w * v.x, sy += w * v.y, sxx += w * v.x * v.x, sxy += w * v.x * v.y, syy += w * v.y * v.y;
  }
  // Refits the line and spans it over `ends`.
  void refit(std::initializer_list<P> ends) {
    P c(sx / sw, sy / sw);
    double cxx = sxx / sw - c.x * c.x, cxy = sxy / sw - c.x * c.y, cyy = syy / sw - c.y * c.y;
    double angle = 0.5 * std::atan2(2 * cxy, cxx - cyy);
    P d(std::cos(angle), std::sin(angle));
    double lo = 1e18, hi = -1e18;
    for (P e : ends) lo = std::min(lo, (e - c).dot(d)), hi = std::max(hi, (e - c).dot(d));
    a = c + d * lo;
    b = c + d * hi;
    length = std::max(hi - lo, 1e-6);
  }
};

void addRun(std::vector<Segment>& segs, P a, P b) {
  double len = norm(b - a);
  P d = (b - a) * (1.0 / len);
  for (Segment& s : segs) {
    // One line within 4 degrees and 4.5 pixels, either way round, and a gap
    // no longer than the longer piece.
    P e = s.dir();
    if (std::fabs(d.dot(e)) < 0.9976 || std::fabs(cross(e, a - s.a)) > 4.5 || std::fabs(cross(e, b - s.a)) > 4.5) continue;
    double ta = (a - s.a).dot(e), tb = (b - s.a).dot(e);
    double lo = std::min(ta, tb), hi = std::max(ta, tb);
    double gap = std::max(lo - s.length, -hi);
    if (gap > std::max(len, s.length)) continue;
    // Overlapping pieces (the two sides of one edge) add only what is new.
    s.covered = std::min(s.covered + std::min(hi - lo, std::max(0.0, std::max(hi - s.length, -lo))), s.length + len);
    s.addPiece(a, b);
    P sa = s.a, sb = s.b;
    s.refit({sa, sb, a, b});
    s.covered = std::min(s.covered, s.length);
    return;
  }
  Segment s;
  s.addPiece(a, b);
  s.refit({a, b});
  s.covered = len;
  segs.push_back(s);
}

// Where two pieces of edge could meet at a corner: the crossing of their
// lines, near an end of one (a hidden or faded corner leaves a gap) and near
// an end of the other or along it (a side that runs on, as a poster's lower
// edge into the line of the floor).
bool cornerOf(const Segment& s, const Segment& t, double maxAngle, P& at) {
  P d = s.dir(), e = t.dir();
  if (std::fabs(cross(d, e)) < std::cos((90 - maxAngle) * CV_PI / 180)) return false;  // too far from square
  if (!intersect({s.a, d}, {t.a, e}, at)) return false;
  auto place = [&](const Segment& g) {
    double u = (at - g.a).dot(g.dir());
    double outside = std::max(-u, u - g.length), inside = std::min(u, g.length - u);
    if (outside > 0.75 * g.length + 3) return 0;      // too far beyond its ends
    if (outside > 0 || inside <= 0.1 * g.length + 3) return 2;  // at an end
    return 1;                                          // along it
  };
  int ps = place(s), pt = place(t);
  return (ps == 2 && pt >= 1) || (pt == 2 && ps >= 1);
}

// Quadrilaterals from the straight pieces of all outlines: four pieces that
// meet in turn at corners. Catches what an outline broken by faint stretches
// or joined to its neighbours' edges hides from the outline search.
void quadsFromSegments(const std::vector<std::vector<cv::Point>>& contours, double minSide, double maxAngle,
                       std::vector<Quad>& out) {
  std::vector<Segment> segs;
  std::vector<cv::Point> poly;
  for (const auto& c : contours) {
    if (c.size() < 2 || cv::arcLength(c, false) < 0.3 * minSide) continue;
    cv::approxPolyDP(c, poly, 2.0, true);
    const int n = static_cast<int>(poly.size());
    for (int i = 0; i < n; i++) {
      P a(poly[i]), b(poly[(i + 1) % n]);
      if (norm(b - a) >= 0.2 * minSide) addRun(segs, a, b);
    }
  }
  // Keep the pieces with enough seen edge to be a side, longest first.
  std::vector<Segment> keep;
  for (const Segment& s : segs)
    if (s.covered >= 0.35 * minSide) keep.push_back(s);
  std::sort(keep.begin(), keep.end(), [](const Segment& x, const Segment& y) { return x.covered > y.covered; });
  if (keep.size() > 120) keep.resize(120);
  const int n = static_cast<int>(keep.size());
  std::vector<std::vector<int>> next(n);
  std::vector<std::vector<P>> at(n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      P c;
      if (i != j && cornerOf(keep[i], keep[j], maxAngle, c)) next[i].push_back(j), at[i].push_back(c);
    }
  auto cornerAt = [&](int i, int j) -> const P* {
    for (size_t k = 0; k < next[i].size(); k++)
      if (next[i][k] == j) return &at[i][k];
    return nullptr;
  };
  for (int a = 0; a < n; a++)
    for (size_t x = 0; x < next[a].size(); x++) {
      int b = next[a][x];
      if (b < a) continue;
      for (int c : next[b]) {
        if (c == a || c < a) continue;
        for (int d : next[c]) {
          if (d == a || d == b || d < a) continue;
          const P* last = cornerAt(d, a);
          if (!last || b > d) continue;  // each cycle once
          Quad q;
          q.p = {*last, at[a][x], *cornerAt(b, c), *cornerAt(c, d)};
          out.push_back(q);
          if (out.size() > 4000) return;
        }
      }
    }
}

// `edges`: one-pixel edges, for the straight pieces; `closed`: the same
// thickened to close small gaps, for the outlines of regions.
void candidatesFromEdges(const cv::Mat& edges, const cv::Mat& closed, const DetectParams& prm, double minSide,
                         std::vector<Quad>& out) {
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(closed, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  std::vector<cv::Point> hull, poly;
  for (const auto& c : contours) {
    if (c.size() < 4 || cv::arcLength(c, true) < 3.2 * minSide) continue;
    cv::convexHull(c, hull);
    if (cv::contourArea(hull) < 0.8 * minSide * minSide) continue;
    double perimeter = cv::arcLength(hull, true);
    cv::approxPolyDP(hull, poly, 0.02 * perimeter, true);
    Quad q;
    if (quadFromPolygon(poly, perimeter, q)) out.push_back(q);
  }
  cv::findContours(edges, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  quadsFromSegments(contours, minSide, prm.quadratureTolerance + 5, out);
}

// How much of the outline the picture backs: the mean share of the sides
// with an edge along them, the weakest side counting extra, less a little
// for each side that runs on past a corner and much for each corner that is
// neither reached by an edge nor hidden by anything.
double confidenceOf(const Gradient& g, double threshold, const Quad& q) {
  double mean = 0, least = 1;
  int runOn = 0, empty = 0;
  for (int i = 0; i < 4; i++) {
    double s = support(g, threshold, q, i);
    mean += s / 4;
    least = std::min(least, s);
    runOn += runsOn(g, threshold, q, i, 0) + runsOn(g, threshold, q, i, 1);
    empty += emptyCorner(g, threshold, q, i);
  }
  return std::clamp(0.75 * mean + 0.25 * least - 0.06 * runOn - 0.25 * empty, 0.0, 1.0);
}

struct Scored {
  Quad q;
  double confidence;
};

}  // namespace

std::array<Point2, 4> nameCorners(std::array<Point2, 4> quad) {
  P c(0, 0);
  for (const Point2& p : quad) c += P(p.x, p.y) * 0.25;
  // Clockwise on screen is increasing angle with y pointing down.
  std::sort(quad.begin(), quad.end(), [&](const Point2& a, const Point2& b) {
    return std::atan2(a.y - c.y, a.x - c.x) < std::atan2(b.y - c.y, b.x - c.x);
  });
  int first = 0;
  for (int i = 1; i < 4; i++)
    if (quad[i].x + quad[i].y < quad[first].x + quad[first].y) first = i;
  std::rotate(quad.begin(), quad.begin() + first, quad.end());
  return quad;
}

double quadIoU(const std::array<Point2, 4>& a, const std::array<Point2, 4>& b) {
  // Clip one outline by the other's sides (both convex and clockwise on
  // screen once named); exact for shared and collinear sides.
  auto area = [](const std::vector<P>& poly) {
    double s = 0;
    for (size_t i = 0; i < poly.size(); i++) s += cross(poly[i], poly[(i + 1) % poly.size()]);
    return s / 2;
  };
  std::vector<P> pa, pb;
  for (const Point2& p : nameCorners(a)) pa.emplace_back(p.x, p.y);
  for (const Point2& p : nameCorners(b)) pb.emplace_back(p.x, p.y);
  const double areaA = area(pa), areaB = area(pb);
  if (!(areaA > 0) || !(areaB > 0)) return 0;
  for (const auto* poly : {&pa, &pb})
    for (size_t i = 0; i < 4; i++)
      if (cross((*poly)[(i + 1) % 4] - (*poly)[i], (*poly)[(i + 2) % 4] - (*poly)[(i + 1) % 4]) <= 0) return 0;
  std::vector<P> clip = pa, next;
  for (size_t i = 0; i < 4 && !clip.empty(); i++) {
    P e0 = pb[i], e1 = pb[(i + 1) % 4];
    auto inside = [&](P p) { return cross(e1 - e0, p - e0) >= 0; };
    next.clear();
    for (size_t k = 0; k < clip.size(); k++) {
      P cur = clip[k], prev = clip[(k + clip.size() - 1) % clip.size()];
      bool inCur = inside(cur), inPrev = inside(prev);
      if (inCur != inPrev) {
        double dp = cross(e1 - e0, prev - e0), dc = cross(e1 - e0, cur - e0);
        next.push_back(prev + (cur - prev) * (dp / (dp - dc)));
      }
      if (inCur) next.push_back(cur);
    }
    clip.swap(next);
  }
  const double both = clip.size() >= 3 ? area(clip) : 0;
  return both > 0 ? both / (areaA + areaB - both) : 0;
}

std::vector<Observation> detectRectangles(const cv::Mat& input, const DetectParams& prm) {
  if (input.empty() || input.type() != CV_8UC1 || input.cols < 8 || input.rows < 8 || prm.maximumObservations <= 0)
    return {};
  cv::Mat work = input;
  const int longSide = std::max(input.cols, input.rows);
  if (longSide > kWorkLongSide * 5 / 4) {
    double f = static_cast<double>(kWorkLongSide) / longSide;
    cv::resize(input, work, cv::Size(), f, f, cv::INTER_AREA);
  }
  const int w = work.cols, h = work.rows;
  const double minSide = std::max(prm.minimumSize * std::min(w, h), 4.0);

  cv::Mat smooth;
  cv::GaussianBlur(work, smooth, cv::Size(0, 0), 1.2);
  Gradient g = gradientOf(smooth);
  // An edge must stand out from the picture's noise and texture, but faint
  // edges on a clean picture still count.
  const double edgeThreshold = std::max(2.5 * g.typical, 1.0);

  std::vector<Quad> candidates;
  cv::Mat edges, closed;
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
  for (double level : {1.0, 2.5}) {
    // Canny works on 3x3 Sobel sums, eight times the slope in grey levels.
    double high = 8 * edgeThreshold * level;
    cv::Canny(smooth, edges, high / 2, high, 3, true);
    cv::dilate(edges, closed, kernel);
    candidatesFromEdges(edges, closed, prm, minSide, candidates);
  }

  // Candidates far from the request's shapes are not worth refining.
  DetectParams loose = prm;
  loose.quadratureTolerance += 8;
  loose.minimumAspectRatio *= 0.8;
  loose.minimumSize *= 0.8;
  std::vector<Scored> scored;
  std::vector<Quad> tried;
  for (Quad q : candidates) {
    if (!convexClockwise(q) || !shapeAllowed(q, loose, w, h)) continue;
    // Several edges and both thresholds give the same outline: refine it once.
    bool seen = false;
    for (const Quad& t : tried) {
      double far = 0;
      for (int i = 0; i < 4; i++) far = std::max(far, norm(t.p[i] - q.p[i]));
      seen = seen || far < 3;
    }
    if (seen) continue;
    tried.push_back(q);
    if (roughSupport(g, edgeThreshold, q) < 0.4) continue;
    if (!refine(g, edgeThreshold, q, 4.0) || !refine(g, edgeThreshold, q, 1.5)) continue;
    if (!convexClockwise(q) || !shapeAllowed(q, prm, w, h)) continue;
    double confidence = confidenceOf(g, edgeThreshold, q);
    if (confidence >= prm.minimumConfidence) scored.push_back({q, confidence});
  }
  std::stable_sort(scored.begin(), scored.end(),
                   [](const Scored& a, const Scored& b) { return a.confidence > b.confidence; });

  // One object gives several outlines (from both sides of an edge, or the
  // inner and outer edges of a frame mixed): outlines that overlap by 90 %
  // or more are one, and the best of them stands for it.
  auto asPoints = [](const Quad& q) {
    std::array<Point2, 4> a;
    for (int i = 0; i < 4; i++) a[i] = {q.p[i].x, q.p[i].y};
    return a;
  };
  std::vector<Scored> kept;
  for (const Scored& s : scored) {
    bool duplicate = false;
    for (const Scored& k : kept) duplicate = duplicate || quadIoU(asPoints(s.q), asPoints(k.q)) >= 0.9;
    if (!duplicate) kept.push_back(s);
    if (static_cast<int>(kept.size()) >= prm.maximumObservations) break;
  }

  std::vector<Observation> out;
  for (const Scored& s : kept) {
    std::array<Point2, 4> c;
    for (int i = 0; i < 4; i++) c[i] = {(s.q.p[i].x + 0.5) / w, (s.q.p[i].y + 0.5) / h};
    c = nameCorners(c);
    Observation o;
    double x0 = 1, y0 = 1, x1 = 0, y1 = 0;
    for (Point2& p : c) {
      p.x = std::clamp(p.x, 0.0, 1.0), p.y = std::clamp(p.y, 0.0, 1.0);
      x0 = std::min(x0, p.x), y0 = std::min(y0, p.y), x1 = std::max(x1, p.x), y1 = std::max(y1, p.y);
    }
    o.topLeft = c[0], o.topRight = c[1], o.bottomRight = c[2], o.bottomLeft = c[3];
    o.boundingBox = {x0, y0, x1 - x0, y1 - y0};
    o.confidence = s.confidence;
    out.push_back(o);
  }
  return out;
}

}  // namespace kavlen::vision
