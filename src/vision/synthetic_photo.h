// Rendered photographs with known rectangles, for measuring the detector.
//
//   SyntheticPhoto photo = renderPhoto(seed, Subject::Screen, 1600, 1200);
//   std::vector<uint8_t> jpeg = encodeJpeg(photo.bgr, 85, 6);   // stored turned, tagged 6
//
// A subject (a poster, a screen in its bezel, a door in its frame, a painted
// wall panel) is placed in the world up to 60 degrees off the camera's axis,
// in front of a shaded wall with a floor and clutter, maybe partly hidden,
// then the whole picture is lit unevenly, blurred and given sensor noise.
// Subject::None makes the same kind of picture with no rectangle in it.
// Everything follows from the seed.
#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <vector>

#include "rect_detector.h"

namespace kavlen::vision {

enum class Subject { Poster, Screen, Door, Wall, None };

struct SyntheticPhoto {
  cv::Mat bgr;  // upright, CV_8UC3
  // The subject's outline (normalised, upright), absent for Subject::None;
  // the inner rectangles of a screen or door are not listed.
  std::vector<std::array<Point2, 4>> truth;
};

SyntheticPhoto renderPhoto(uint32_t seed, Subject subject, int width, int height);

// A JPEG of an upright picture stored as a camera held that way would store
// it: turned by the inverse of `orientation`, with that EXIF orientation tag
// (any value, 0 and 9 included). `orientation` < 0 writes no EXIF block.
std::vector<uint8_t> encodeJpeg(const cv::Mat& bgrUpright, int quality, int orientation);

// An APP1 segment (marker included) holding an EXIF block with one tag, the
// orientation.
std::vector<uint8_t> exifOrientationSegment(int orientation);

}  // namespace kavlen::vision

namespace kavlen::vision {

// How well the vision channel's path (JPEG decoding with the orientation,
// detection, ordering) finds the subjects of rendered photos.
struct AccuracyReport {
  int pictures = 0;        // with a subject
  double meanIoU = 0;      // of the best quad per picture against its subject (0 when none)
  double foundShare = 0;   // pictures whose best quad has IoU >= 0.9
  int empty = 0;           // pictures without a subject
  double falseShare = 0;   // of those, the share with any quad at all
  std::vector<double> iou; // per picture with a subject, in order
};

// `pictures` photos cycling through the four subjects and the eight
// orientations, JPEG quality 55 to 95, and `empty` photos with no subject;
// seeds from `firstSeed` on.
AccuracyReport measureAccuracy(int pictures, int empty, int width, int height, uint32_t firstSeed = 1);

}  // namespace kavlen::vision
