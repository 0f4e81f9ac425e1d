// The kernels of the image graph that work on whole OpenCV mats: Gaussian
// blur and disc morphology.
#pragma once

#include <opencv2/core/mat.hpp>

namespace kavlen::img {

// Blurs m in place with a Gaussian of standard deviation sigma.
void gaussian(cv::Mat& m, double sigma);
// Dilation (max) or erosion of the inner w x h of `in`, which has r more on
// every side, by OpenCV's elliptic element of radius r.
cv::Mat discMorph(const cv::Mat& in, int r, bool max, int w, int h);

}  // namespace kavlen::img
