#include "synthetic_photo.h"

#include <turbojpeg.h>

#include <cmath>
#include <memory>
#include <opencv2/imgproc.hpp>

#include "picture.h"

namespace kavlen::vision {

namespace {

using P = cv::Point2d;

double uniform(cv::RNG& rng, double a, double b) { return rng.uniform(a, b); }

cv::Scalar colour(cv::RNG& rng, double lo, double hi) {
  return cv::Scalar(uniform(rng, lo, hi), uniform(rng, lo, hi), uniform(rng, lo, hi));
}

double luma(const cv::Scalar& bgr) { return 0.114 * bgr[0] + 0.587 * bgr[1] + 0.299 * bgr[2]; }

// A colour whose luma differs from `from` by `contrast` grey levels, up or
// down, with its own tint.
cv::Scalar contrasting(cv::RNG& rng, const cv::Scalar& from, double contrast) {
  double base = luma(from);
  double target = base + (rng.uniform(0, 2) ? contrast : -contrast);
  if (target > 235 || target < 20) target = base > 128 ? base - contrast : base + contrast;
  cv::Scalar tint(uniform(rng, -15, 15), uniform(rng, -15, 15), uniform(rng, -15, 15));
  double shift = target - luma(tint);
  cv::Scalar c;
  for (int i = 0; i < 3; i++) c[i] = std::clamp(tint[i] + shift, 0.0, 255.0);
  return c;
}

// Smooth random variation: a few values blown up to the picture's size.
cv::Mat lowFrequency(cv::RNG& rng, int w, int h, int cells, double amplitude) {
  cv::Mat small(cells, cells, CV_32F);
  rng.fill(small, cv::RNG::UNIFORM, -amplitude, amplitude);
  cv::Mat big;
  cv::resize(small, big, cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
  return big;
}

void drawBlob(cv::Mat& img, cv::RNG& rng, P centre, double radius, const cv::Scalar& c) {
  std::vector<cv::Point> pts;
  const int n = 24, shift = 4;
  double phase = uniform(rng, 0, 6.28), wobble = uniform(rng, 0.1, 0.35);
  for (int i = 0; i < n; i++) {
    double a = 2 * CV_PI * i / n;
    double r = radius * (1 + wobble * std::sin(3 * a + phase) + 0.1 * std::sin(5 * a));
    pts.emplace_back(cv::Point(static_cast<int>((centre.x + r * std::cos(a)) * (1 << shift)),
                               static_cast<int>((centre.y + r * std::sin(a)) * (1 << shift))));
  }
  cv::fillPoly(img, std::vector<std::vector<cv::Point>>{pts}, c, cv::LINE_AA, shift);
}

// Things that are no rectangles: round objects, blobs, curved cables,
// triangles, thin straight lines.
void drawClutter(cv::Mat& img, cv::RNG& rng, int count) {
  const int w = img.cols, h = img.rows;
  const double s = std::min(w, h);
  for (int i = 0; i < count; i++) {
    P c(uniform(rng, 0, w), uniform(rng, 0, h));
    cv::Scalar col = colour(rng, 20, 235);
    switch (rng.uniform(0, 5)) {
      case 0:
        cv::ellipse(img, cv::Point(c), cv::Size(static_cast<int>(uniform(rng, 0.03, 0.2) * s), static_cast<int>(uniform(rng, 0.03, 0.2) * s)),
                    uniform(rng, 0, 180), 0, 360, col, -1, cv::LINE_AA);
        break;
      case 1: drawBlob(img, rng, c, uniform(rng, 0.03, 0.15) * s, col); break;
      case 2: {
        std::vector<cv::Point> curve;
        double amp = uniform(rng, 0.02, 0.15) * s, len = uniform(rng, 0.2, 0.7) * s, ang = uniform(rng, 0, CV_PI);
        for (int k = 0; k <= 40; k++) {
          double t = k / 40.0 * len, off = amp * std::sin(t / len * uniform(rng, 3, 3.3) * CV_PI);
          curve.emplace_back(cv::Point(static_cast<int>(c.x + t * std::cos(ang) - off * std::sin(ang)),
                                       static_cast<int>(c.y + t * std::sin(ang) + off * std::cos(ang))));
        }
        cv::polylines(img, curve, false, col, std::max(1, static_cast<int>(s / 200)), cv::LINE_AA);
        break;
      }
      case 3: {
        std::vector<cv::Point> tri;
        double r = uniform(rng, 0.05, 0.2) * s, a0 = uniform(rng, 0, 6.28);
        for (int k = 0; k < 3; k++)
          tri.emplace_back(cv::Point(static_cast<int>(c.x + r * std::cos(a0 + k * 2.1)), static_cast<int>(c.y + r * std::sin(a0 + k * 2.1))));
        cv::fillConvexPoly(img, tri, col, cv::LINE_AA);
        break;
      }
      default: {
        double len = uniform(rng, 0.1, 0.5) * s, ang = uniform(rng, 0, CV_PI);
        cv::line(img, cv::Point(c), cv::Point(static_cast<int>(c.x + len * std::cos(ang)), static_cast<int>(c.y + len * std::sin(ang))), col,
                 std::max(1, static_cast<int>(s / 300)), cv::LINE_AA);
      }
    }
  }
}

// The subject's face, flat, `tw` x `th` pixels, and the rectangles inside it
// whose outline is truth too (none listed: only the outer one is truth).
cv::Mat subjectTexture(cv::RNG& rng, Subject subject, int tw, int th, const cv::Scalar& wall, bool faint) {
  cv::Mat tex(th, tw, CV_8UC3);
  const double contrast = faint ? uniform(rng, 14, 24) : uniform(rng, 40, 120);
  cv::Scalar face = contrasting(rng, wall, contrast);
  tex.setTo(face);
  auto inset = [&](double fx, double fy) {
    return cv::Rect(static_cast<int>(fx * tw), static_cast<int>(fy * th), static_cast<int>(tw * (1 - 2 * fx)),
                    static_cast<int>(th * (1 - 2 * fy)));
  };
  switch (subject) {
    case Subject::Poster: {
      // Print inside a margin: pictures, round shapes, lines of text.
      cv::Rect area = inset(uniform(rng, 0.06, 0.12), uniform(rng, 0.06, 0.12));
      for (int i = 0; i < 5; i++) {
        cv::Point c(area.x + rng.uniform(0, area.width), area.y + rng.uniform(0, area.height));
        int r = static_cast<int>(uniform(rng, 0.05, 0.2) * std::min(tw, th));
        cv::circle(tex, c, r, colour(rng, 0, 255), -1, cv::LINE_AA);
      }
      cv::Rect pic(area.x, area.y, area.width, static_cast<int>(area.height * uniform(rng, 0.3, 0.5)));
      cv::rectangle(tex, pic, colour(rng, 0, 255), -1);
      for (int y = pic.br().y + th / 30; y < area.br().y; y += th / 25)
        cv::line(tex, cv::Point(area.x, y), cv::Point(area.x + rng.uniform(area.width / 3, area.width), y), colour(rng, 0, 90),
                 std::max(1, th / 120));
      break;
    }
    case Subject::Screen: {
      // A lit picture inside a bezel: two nested rectangles.
      cv::Rect screen = inset(uniform(rng, 0.03, 0.07), uniform(rng, 0.04, 0.09));
      cv::Mat view = tex(screen);
      view.setTo(contrasting(rng, face, uniform(rng, 30, 100)));
      cv::Mat shade = lowFrequency(rng, screen.width, screen.height, 3, 40);
      cv::Mat shade3;
      cv::merge(std::vector<cv::Mat>{shade, shade, shade}, shade3);
      view.convertTo(view, CV_32FC3);
      view += shade3;
      view.convertTo(tex(screen), CV_8UC3);
      cv::Mat lit = tex(screen);
      drawBlob(lit, rng, P(screen.width * 0.5, screen.height * 0.5), screen.height * 0.25, colour(rng, 0, 255));
      break;
    }
    case Subject::Door: {
      // Panels in the door and a handle.
      for (int k = 0; k < 2; k++) {
        cv::Rect panel(tw / 6, th / 12 + k * th / 2, tw * 2 / 3, th / 3);
        cv::rectangle(tex, panel, contrasting(rng, face, uniform(rng, 8, 20)), std::max(2, tw / 60));
      }
      cv::circle(tex, cv::Point(tw * 5 / 6, th / 2), std::max(3, tw / 25), colour(rng, 120, 220), -1, cv::LINE_AA);
      break;
    }
    case Subject::Wall: {
      cv::Mat grain = lowFrequency(rng, tw, th, 5, 12);
      cv::Mat grain3;
      cv::merge(std::vector<cv::Mat>{grain, grain, grain}, grain3);
      tex.convertTo(tex, CV_32FC3);
      tex += grain3;
      tex.convertTo(tex, CV_8UC3);
      break;
    }
    case Subject::None: break;
  }
  return tex;
}

// The outline of a flat w x h rectangle turned by yaw, pitch and roll and
// seen by a pinhole camera, before placing in the picture.
std::array<P, 4> project(double aspect, double yaw, double pitch, double roll, double focal, double distance) {
  cv::Matx33d ry(std::cos(yaw), 0, std::sin(yaw), 0, 1, 0, -std::sin(yaw), 0, std::cos(yaw));
  cv::Matx33d rx(1, 0, 0, 0, std::cos(pitch), -std::sin(pitch), 0, std::sin(pitch), std::cos(pitch));
  cv::Matx33d rz(std::cos(roll), -std::sin(roll), 0, std::sin(roll), std::cos(roll), 0, 0, 0, 1);
  cv::Matx33d r = rz * rx * ry;
  const double hw = 0.5, hh = 0.5 * aspect;
  const cv::Vec3d corners[4] = {{-hw, -hh, 0}, {hw, -hh, 0}, {hw, hh, 0}, {-hw, hh, 0}};
  std::array<P, 4> out;
  for (int i = 0; i < 4; i++) {
    cv::Vec3d p = r * corners[i] + cv::Vec3d(0, 0, distance);
    out[i] = P(focal * p[0] / p[2], focal * p[1] / p[2]);
  }
  return out;
}

bool usable(const std::array<P, 4>& q, int w, int h) {
  // The detector's request: corners within 30 degrees of square, shorter
  // side at least a tenth of the picture, aspect ratio at least 0.2. Leave a
  // margin on each so that the truth is never a borderline case.
  for (int i = 0; i < 4; i++) {
    P u = q[(i + 3) % 4] - q[i], v = q[(i + 1) % 4] - q[i];
    double angle = std::acos(u.dot(v) / (cv::norm(u) * cv::norm(v))) * 180 / CV_PI;
    if (std::fabs(angle - 90) > 27) return false;
    if (q[i].x < 0.02 * w || q[i].x > 0.98 * w || q[i].y < 0.02 * h || q[i].y > 0.98 * h) return false;
  }
  double s1 = (cv::norm(q[1] - q[0]) + cv::norm(q[3] - q[2])) / 2, s2 = (cv::norm(q[2] - q[1]) + cv::norm(q[0] - q[3])) / 2;
  return std::min(s1, s2) >= 0.13 * std::min(w, h) && std::min(s1, s2) / std::max(s1, s2) >= 0.22;
}

}  // namespace

SyntheticPhoto renderPhoto(uint32_t seed, Subject subject, int w, int h) {
  cv::RNG rng(0x9e3779b97f4a7c15ull ^ (uint64_t{seed} * 2654435761u) ^ static_cast<uint64_t>(subject));
  const double scale = std::min(w, h) / 600.0;  // sizes below are for a 800 x 600 picture
  SyntheticPhoto photo;
  cv::Mat img(h, w, CV_8UC3);
  cv::Scalar wall = colour(rng, 60, 200);
  img.setTo(wall);
  if (rng.uniform(0, 2)) {  // a floor, its line slightly tilted
    double y0 = uniform(rng, 0.75, 0.95) * h, tilt = uniform(rng, -0.05, 0.05) * h;
    std::vector<cv::Point> floor = {{0, static_cast<int>(y0)}, {w, static_cast<int>(y0 + tilt)}, {w, h}, {0, h}};
    cv::fillConvexPoly(img, floor, contrasting(rng, wall, uniform(rng, 20, 60)), cv::LINE_AA);
  }
  drawClutter(img, rng, subject == Subject::None ? rng.uniform(5, 13) : rng.uniform(2, 7));

  if (subject != Subject::None) {
    double aspect = 0.7;
    switch (subject) {
      case Subject::Poster: aspect = rng.uniform(0, 2) ? uniform(rng, 1.25, 1.5) : uniform(rng, 0.66, 0.8); break;
      case Subject::Screen: aspect = uniform(rng, 0.5, 0.75); break;
      case Subject::Door: aspect = uniform(rng, 2.0, 2.5); break;
      default: aspect = uniform(rng, 0.45, 0.8); break;
    }
    const double minCover = subject == Subject::Wall ? 0.6 : 0.3, maxCover = subject == Subject::Wall ? 0.95 : 0.85;
    std::array<P, 4> quad;
    for (int attempt = 0;; attempt++) {
      double yaw = uniform(rng, -60, 60) * CV_PI / 180, pitch = uniform(rng, -20, 20) * CV_PI / 180;
      double roll = uniform(rng, -12, 12) * CV_PI / 180, focal = uniform(rng, 0.8, 1.4);
      quad = project(aspect, yaw, pitch, roll, focal, uniform(rng, 1.0, 2.5) * std::max(1.0, aspect));
      double x0 = 1e9, y0 = 1e9, x1 = -1e9, y1 = -1e9;
      for (const P& p : quad) x0 = std::min(x0, p.x), y0 = std::min(y0, p.y), x1 = std::max(x1, p.x), y1 = std::max(y1, p.y);
      const cv::Rect2d box(x0, y0, x1 - x0, y1 - y0);
      double cover = uniform(rng, minCover, maxCover);
      double f = cover * std::min(w / box.width, h / box.height);
      double dx = uniform(rng, 0.02 * w, std::max(0.02 * w, 0.98 * w - f * box.width));
      double dy = uniform(rng, 0.02 * h, std::max(0.02 * h, 0.98 * h - f * box.height));
      for (P& p : quad) p = P((p.x - box.x) * f + dx, (p.y - box.y) * f + dy);
      if (usable(quad, w, h) || attempt > 200) break;
    }
    const int tw = static_cast<int>(600 * std::max(scale, 1.0)), th = std::max(8, static_cast<int>(tw * aspect));
    cv::Mat tex = subjectTexture(rng, subject, tw, th, wall, rng.uniform(0, 4) == 0);
    const cv::Point2f from[4] = {{-0.5f, -0.5f}, {tw - 0.5f, -0.5f}, {tw - 0.5f, th - 0.5f}, {-0.5f, th - 0.5f}};
    cv::Point2f to[4];
    for (int i = 0; i < 4; i++) to[i] = cv::Point2f(static_cast<float>(quad[i].x), static_cast<float>(quad[i].y));
    cv::Mat hom = cv::getPerspectiveTransform(from, to), face, cover;
    cv::warpPerspective(tex, face, hom, img.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::warpPerspective(cv::Mat(th, tw, CV_32F, cv::Scalar(1)), cover, hom, img.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
    cv::Mat img32, face32, cover3;
    img.convertTo(img32, CV_32FC3);
    face.convertTo(face32, CV_32FC3);
    cv::merge(std::vector<cv::Mat>{cover, cover, cover}, cover3);
    img32 = img32.mul(cv::Scalar::all(1) - cover3) + face32.mul(cover3);
    img32.convertTo(img, CV_8UC3);
    std::array<Point2, 4> truth;
    for (int i = 0; i < 4; i++) truth[i] = {(quad[i].x + 0.5) / w, (quad[i].y + 0.5) / h};
    photo.truth.push_back(truth);

    if (rng.uniform(0, 3) == 0) {  // something in front: over a corner or across a side
      int side = rng.uniform(0, 4);
      double t = rng.uniform(0, 2) ? 0.0 : uniform(rng, 0.25, 0.75);
      P at = quad[side] + (quad[(side + 1) % 4] - quad[side]) * t;
      double shorter = std::min(cv::norm(quad[1] - quad[0]), cv::norm(quad[2] - quad[1]));
      drawBlob(img, rng, at, uniform(rng, 0.05, 0.12) * shorter, colour(rng, 20, 235));
    }
  }

  // Light: a slope across the picture, a soft shadow edge, a dim border.
  cv::Mat light(h, w, CV_32F);
  double gx = uniform(rng, -0.35, 0.35), gy = uniform(rng, -0.35, 0.35), vign = uniform(rng, 0, 0.35);
  double sa = uniform(rng, 0, CV_PI), sd = uniform(rng, -0.5, 0.5), sdepth = rng.uniform(0, 2) ? uniform(rng, 0.1, 0.35) : 0;
  double soft = uniform(rng, 0.05, 0.25);
  for (int y = 0; y < h; y++) {
    float* row = light.ptr<float>(y);
    for (int x = 0; x < w; x++) {
      double u = (x + 0.5) / w - 0.5, v = (y + 0.5) / h - 0.5;
      double shadow = sdepth / (1 + std::exp(-(u * std::cos(sa) + v * std::sin(sa) - sd) / soft * 4));
      row[x] = static_cast<float>((1 + gx * u + gy * v - vign * (u * u + v * v) * 2) * (1 - shadow));
    }
  }
  cv::Mat img32, light3;
  img.convertTo(img32, CV_32FC3);
  cv::merge(std::vector<cv::Mat>{light, light, light}, light3);
  img32 = img32.mul(light3);
  cv::GaussianBlur(img32, img32, cv::Size(0, 0), uniform(rng, 0.4, 1.8) * scale);
  cv::Mat noise(h, w, CV_32FC3);
  rng.fill(noise, cv::RNG::NORMAL, 0, uniform(rng, 1.5, 7));
  img32 += noise;
  img32.convertTo(photo.bgr, CV_8UC3);
  return photo;
}

std::vector<uint8_t> exifOrientationSegment(int orientation) {
  // APP1 of 34 bytes: "Exif\0\0", a little-endian TIFF header, IFD0 with one
  // SHORT entry (tag 0x0112), no next IFD.
  const uint8_t o = static_cast<uint8_t>(orientation);
  return {0xff, 0xe1, 0, 34, 'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0,
          1, 0, 0x12, 0x01, 3, 0, 1, 0, 0, 0, o, 0, 0, 0, 0, 0, 0, 0};
}

std::vector<uint8_t> encodeJpeg(const cv::Mat& bgrUpright, int quality, int orientation) {
  cv::Mat stored = orientation >= 1 && orientation <= 8 ? fromUpright(bgrUpright, orientation) : bgrUpright;
  if (!stored.isContinuous()) stored = stored.clone();
  std::unique_ptr<void, int (*)(tjhandle)> tj(tjInitCompress(), tjDestroy);
  unsigned char* buf = nullptr;
  unsigned long size = 0;
  if (!tj || tjCompress2(tj.get(), stored.data, stored.cols, static_cast<int>(stored.step), stored.rows, TJPF_BGR, &buf,
                         &size, TJSAMP_420, quality, 0) != 0) {
    tjFree(buf);
    return {};
  }
  std::vector<uint8_t> out(buf, buf + size);
  tjFree(buf);
  if (orientation >= 0) {
    // After the start-of-image marker; a JFIF segment may follow, which is allowed.
    std::vector<uint8_t> seg = exifOrientationSegment(orientation);
    out.insert(out.begin() + 2, seg.begin(), seg.end());
  }
  return out;
}

}  // namespace kavlen::vision

#include "vision_plugin.h"

namespace kavlen::vision {

AccuracyReport measureAccuracy(int pictures, int empty, int width, int height, uint32_t firstSeed) {
  AccuracyReport r;
  const Subject subjects[4] = {Subject::Poster, Subject::Screen, Subject::Door, Subject::Wall};
  auto run = [&](uint32_t seed, Subject subject) {
    SyntheticPhoto photo = renderPhoto(seed, subject, width, height);
    std::vector<uint8_t> jpeg = encodeJpeg(photo.bgr, 55 + static_cast<int>(seed * 7 % 41), 1 + static_cast<int>(seed % 8));
    std::optional<Detection> d = VisionPlugin::detectInBytes(jpeg.data(), jpeg.size());
    return std::make_pair(std::move(photo), d ? d->quads : std::vector<Observation>{});
  };
  for (int i = 0; i < pictures; i++) {
    auto [photo, quads] = run(firstSeed + static_cast<uint32_t>(i), subjects[i % 4]);
    double best = 0;
    for (const Observation& o : quads) best = std::max(best, quadIoU(o.corners(), photo.truth[0]));
    r.iou.push_back(best);
    r.meanIoU += best / pictures;
    r.foundShare += best >= 0.9 ? 1.0 / pictures : 0.0;
  }
  r.pictures = pictures;
  for (int i = 0; i < empty; i++) {
    auto [photo, quads] = run(firstSeed + 100000 + static_cast<uint32_t>(i), Subject::None);
    r.falseShare += quads.empty() ? 0.0 : 1.0 / empty;
  }
  r.empty = empty;
  return r;
}

}  // namespace kavlen::vision
