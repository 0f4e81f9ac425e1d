// kavlen detect: the rectangles the vision channel finds in a picture,
// printed, and drawn over the picture so a person can check them.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>
#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "image_file.h"
#include "picture.h"
#include "vision_plugin.h"

namespace {

using kavlen::vision::Detection;
using kavlen::vision::Observation;
using kavlen::vision::Point2;

const char kUsage[] =
    "usage: kavlen detect PICTURE [--json] [--png OVERLAY.png]\n"
    "  prints the rectangles found in the picture, largest first: the corners top left,\n"
    "  top right, bottom right, bottom left, as fractions of the upright picture (origin\n"
    "  top left, y down), and the confidence (0 to 1, the share of the outline the\n"
    "  picture backs)\n"
    "  --json          print {\"width\", \"height\", \"orientation\", \"quads\": [{\"corners\", \"confidence\"}]}\n"
    "  --png OUT.png   also draw the rectangles over the upright picture\n";

std::string number(double v) {
  char buf[32];
  auto [ptr, ec] = std::to_chars(buf, buf + sizeof buf, std::round(v * 1e6) / 1e6);
  return ec == std::errc() ? std::string(buf, ptr) : "0";
}

std::string json(const Detection& d) {
  std::string out = "{\"width\": " + std::to_string(d.width) + ", \"height\": " + std::to_string(d.height) +
                    ", \"orientation\": " + std::to_string(d.orientation) + ", \"quads\": [";
  for (size_t i = 0; i < d.quads.size(); i++) {
    out += i ? ", {\"corners\": [" : "{\"corners\": [";
    auto corners = d.quads[i].corners();
    for (size_t k = 0; k < 4; k++)
      out += (k ? ", [" : "[") + number(corners[k].x) + ", " + number(corners[k].y) + "]";
    out += "], \"confidence\": " + number(d.quads[i].confidence) + "}";
  }
  return out + "]}\n";
}

// Each quad in its own colour, its top-left corner marked, over the
// picture turned upright.
bool drawOverlay(const std::string& picture, const Detection& d, const std::string& out, std::string& error) {
  ImageFile img;
  if (!ImageFile::load(picture, img, error)) return false;
  cv::Mat upright = kavlen::vision::toUpright(cv::Mat(img.height, img.width, CV_8UC4, img.rgba.data()), d.orientation);
  if (!upright.isContinuous()) upright = upright.clone();
  static const cv::Scalar kColours[] = {{255, 64, 64, 255},  {64, 220, 64, 255}, {64, 128, 255, 255}, {255, 200, 0, 255},
                                        {255, 0, 255, 255},  {0, 230, 230, 255}, {255, 128, 0, 255},  {160, 96, 255, 255}};
  const int thick = std::max(2, std::min(upright.cols, upright.rows) / 250);
  for (size_t i = 0; i < d.quads.size(); i++) {
    auto corners = d.quads[i].corners();
    std::vector<cv::Point> pts;
    for (const Point2& p : corners)
      pts.emplace_back(static_cast<int>(p.x * upright.cols * 16), static_cast<int>(p.y * upright.rows * 16));
    const cv::Scalar& c = kColours[i % 8];
    cv::polylines(upright, pts, true, c, thick, cv::LINE_AA, 4);
    cv::circle(upright, pts[0], thick * 3 * 16, c, -1, cv::LINE_AA, 4);
  }
  return ImageFile::write_png(out, upright.data, upright.cols, upright.rows, static_cast<int32_t>(upright.step), error);
}

}  // namespace

int cmd_detect(int argc, char** argv) {
  std::string picture, png;
  bool asJson = false;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--json") {
      asJson = true;
    } else if (a == "--png" && i + 1 < argc) {
      png = argv[++i];
    } else if (int rc = media_argument("detect", a, picture)) {
      return rc;
    }
  }
  if (picture.empty()) return fail("detect: no picture given");
  if (int rc = media_file_ok("detect", picture)) return rc;

  std::optional<Detection> d = kavlen::vision::VisionPlugin::detectInFile(picture);
  if (!d) return fail("detect: cannot read %s as a picture (not an image, or damaged)", picture.c_str());
  if (!png.empty()) {
    std::string error;
    if (!drawOverlay(picture, *d, png, error)) return fail("detect: %s", error.c_str());
  }
  if (asJson) {
    fputs(json(*d).c_str(), stdout);
    return 0;
  }
  printf("%s: %dx%d, %zu rectangle%s\n", picture.c_str(), d->width, d->height, d->quads.size(),
         d->quads.size() == 1 ? "" : "s");
  for (size_t i = 0; i < d->quads.size(); i++) {
    printf("%zu  confidence %.2f ", i + 1, d->quads[i].confidence);
    for (const Point2& p : d->quads[i].corners()) printf(" (%.4f, %.4f)", p.x, p.y);
    printf("\n");
  }
  return 0;
}
