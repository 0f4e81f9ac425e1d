// Movies for the video tests, made by ffmpeg: the top half holds ten stripes,
// stripe i white when bit i of the frame index is set; the bottom half is red.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace videotest {

struct Clip {
  int32_t width = 320, height = 180;
  int32_t fps = 30;
  double seconds = 2.0;
  int32_t gop = 12;  // key frame interval
  bool bframes = true;
  bool audio = false;  // a sine track beside the video
  std::string extra;   // more ffmpeg output options
};

inline bool makeClip(const std::string& path, const Clip& c) {
  // Boxes switched per frame: far cheaper than a per-pixel expression.
  std::string filter = "drawbox=x=0:y=ih/2:w=iw:h=ih/2:color=red:t=fill";
  for (int bit = 0; bit < 10; bit++) {
    char box[256];
    snprintf(box, sizeof box,
             ",drawbox=x=%d*iw/10:y=0:w=iw/10+1:h=ih/2:color=white:t=fill:enable='mod(floor(n/%d),2)'", bit,
             1 << bit);
    filter += box;
  }
  char cmd[4096];
  snprintf(cmd, sizeof cmd,
           "ffmpeg -nostdin -v error -y -f lavfi -i color=c=black:s=%dx%d:r=%d:d=%.3f %s -vf \"%s\" "
           "-c:v libx264 -preset ultrafast -qp 8 -g %d -bf %d -pix_fmt yuv420p %s -movflags +faststart %s '%s'",
           c.width, c.height, c.fps, c.seconds,
           c.audio ? "-f lavfi -i sine=frequency=440:sample_rate=44100" : "", filter.c_str(), c.gop,
           c.bframes ? 2 : 0, c.audio ? "-c:a aac -shortest" : "", c.extra.c_str(), path.c_str());
  return std::system(cmd) == 0;
}

// The index read from pixels (`step` bytes each), or -1 when stripes are not clean.
template <typename White, typename Black>
int32_t readStripes(const uint8_t* row, int32_t w, int32_t step, White white, Black black) {
  int32_t index = 0;
  for (int32_t bit = 0; bit < 10; bit++) {
    const uint8_t* p = row + static_cast<int32_t>((bit + 0.5) * w / 10) * step;
    if (white(p))
      index |= 1 << bit;
    else if (!black(p))
      return -1;
  }
  return index;
}

inline int32_t indexOfFrame(const AVFrame* f) {
  if (!f || f->linesize[0] <= 0) return -1;
  return readStripes(
      f->data[0] + static_cast<size_t>(f->height / 4) * f->linesize[0], f->width, 1,
      [](const uint8_t* p) { return *p > 200; }, [](const uint8_t* p) { return *p <= 60; });
}

// The same code read from RGBA pixels, top row first.
inline int32_t indexOfRgba(const uint8_t* rgba, int32_t w, int32_t h) {
  return readStripes(
      rgba + static_cast<size_t>(h / 4) * w * 4, w, 4,
      [](const uint8_t* p) { return p[0] > 200 && p[1] > 200 && p[2] > 200; },
      [](const uint8_t* p) { return p[0] <= 60 && p[1] <= 60 && p[2] <= 60; });
}

}  // namespace videotest
