// Finding rectangles in a grey picture.
//
//   std::vector<Observation> found = detectRectangles(grey);        // default request
//   for (const Observation& o : found) use(o.topLeft, o.confidence);
//
// A rectangle in the world shows in a photo as a convex quadrilateral: seen
// at an angle, blurred by the lens, lit unevenly, its edges faint in places,
// partly hidden by something in front. The detector looks for outlines that
// four straight, consistent edges account for, fits each side to the picture's
// gradient with sub-pixel precision, and scores how much of the outline the
// picture actually backs (see docs/detection.md).
//
// Coordinates are normalised to the picture: 0 to 1, origin at the top left,
// y downwards; a pixel (i, j) covers [i, i+1) x [j, j+1) before dividing by
// the picture's size.
#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace kavlen::vision {

// The request's parameters; the defaults are those of the vision channel.
struct DetectParams {
  double minimumConfidence = 0.5;
  double minimumAspectRatio = 0.2;  // shorter side over longer side
  double maximumAspectRatio = 1.0;
  int maximumObservations = 8;
  double minimumSize = 0.1;           // shorter side over the picture's shorter side
  double quadratureTolerance = 30.0;  // degrees a corner may differ from a right angle
};

struct Point2 {
  double x = 0, y = 0;
};

struct BoundingBox {
  double x = 0, y = 0, width = 0, height = 0;
};

struct Observation {
  Point2 topLeft, topRight, bottomRight, bottomLeft;
  BoundingBox boundingBox;
  double confidence = 0;  // 0 to 1: the share of the outline the picture backs
  std::array<Point2, 4> corners() const { return {topLeft, topRight, bottomRight, bottomLeft}; }
};

// At most `maximumObservations`, the most confident first. `grey` is CV_8UC1
// of any size; large pictures are shrunk first (detection needs no more than
// about a megapixel). An empty or tiny picture gives nothing.
std::vector<Observation> detectRectangles(const cv::Mat& grey, const DetectParams& params = {});

// The intersection over union of two convex quadrilaterals (any corner
// order, either winding); 0 when either is degenerate.
double quadIoU(const std::array<Point2, 4>& a, const std::array<Point2, 4>& b);

// The four corners named: top left is the one nearest the picture's top-left
// corner along x + y, the others follow clockwise on screen.
std::array<Point2, 4> nameCorners(std::array<Point2, 4> quad);

}  // namespace kavlen::vision
