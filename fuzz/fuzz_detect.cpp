// Fuzzes the reading of pictures for rectangle detection (JPEG through
// libjpeg-turbo with DCT scaling, other formats through stb_image, the EXIF
// orientation) and the detector on whatever decodes: no crash, no hang, and
// every quad inside the picture with its corners named in order.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "picture.h"
#include "rect_detector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kavlen::vision;
  int orientation = exifOrientation(data, size);
  if (orientation < 1 || orientation > 8) abort();
  // Small pictures keep each run short; the reading rules are the same.
  std::optional<UprightPicture> pic = decodeUprightGrey(data, size, 256);
  if (!pic) return 0;
  if (pic->grey.empty() || pic->width <= 0 || pic->height <= 0) abort();
  if (pic->grey.total() > (size_t{1} << 22)) return 0;
  for (const Observation& o : detectRectangles(pic->grey)) {
    for (const Point2& p : o.corners())
      if (!(p.x >= 0 && p.x <= 1 && p.y >= 0 && p.y <= 1)) abort();
    if (!(o.confidence >= 0.5 && o.confidence <= 1)) abort();
    if (o.topLeft.x + o.topLeft.y > o.bottomRight.x + o.bottomRight.y) abort();
  }
  return 0;
}
