#include "image_kernels.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <opencv2/imgproc.hpp>

namespace kavlen::img {

// Gaussian blur of a whole mat; large radii as three box passes, which stay
// within a few per cent of the true kernel and cost the same at any radius.
void gaussian(cv::Mat& m, double sigma) {
  if (sigma <= 0) return;
  if (sigma <= 3) {
    int k = 2 * static_cast<int>(std::ceil(3 * sigma)) + 1;
    cv::GaussianBlur(m, m, cv::Size(k, k), sigma, sigma, cv::BORDER_REPLICATE);
    return;
  }
  double ideal = std::sqrt(12 * sigma * sigma / 3 + 1);
  int wl = static_cast<int>(std::floor(ideal));
  if (wl % 2 == 0) wl--;
  int wu = wl + 2;
  int mcount = static_cast<int>(std::lround((12 * sigma * sigma - 3.0 * wl * wl - 12.0 * wl - 9) / (-4.0 * wl - 4)));
  for (int i = 0; i < 3; i++) {
    int w = i < mcount ? wl : wu;
    cv::blur(m, m, cv::Size(w, w), cv::Point(-1, -1), cv::BORDER_REPLICATE);
  }
}

// Dilation (or erosion) by OpenCV's elliptic element of radius r, of the
// inner w x h of `in` (which has r more on every side). The disc is taken
// apart into its rows: each row width is one fast rectangular pass of
// OpenCV along x, and the rows are then combined with a running maximum
// along y. The result is the same as one pass with the whole element, at a
// fraction of the cost for large radii.
cv::Mat discMorph(const cv::Mat& in, int r, bool max, int w, int h) {
  cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * r + 1, 2 * r + 1));
  cv::Mat out;
  if (r <= 2) {
    cv::Mat res;
    if (max)
      cv::dilate(in, res, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    else
      cv::erode(in, res, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    return res(cv::Rect(r, r, w, h));
  }
  std::map<int, cv::Mat> byHalfWidth;  // the rows of `in` spread along x
  for (int dy = -r; dy <= r; dy++) {
    int half = (cv::countNonZero(kernel.row(dy + r)) - 1) / 2;
    cv::Mat& spread = byHalfWidth[half];
    if (spread.empty()) {
      cv::Mat line = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * half + 1, 1));
      cv::Mat rows = in.rowRange(0, in.rows);
      if (max)
        cv::dilate(rows, spread, line, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
      else
        cv::erode(rows, spread, line, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    }
    cv::Mat part = spread(cv::Rect(r, r + dy, w, h));
    if (out.empty())
      out = part.clone();
    else if (max)
      cv::max(out, part, out);
    else
      cv::min(out, part, out);
  }
  return out;
}

}  // namespace kavlen::img
