// Movies for the video tests, made by the ffmpeg program: every frame shows
// its own index as a colour code, so a test can tell exactly which frame a
// player put on screen.
//
// The picture's top half holds ten vertical stripes, stripe i white when bit
// i of the frame index is set and black otherwise; the bottom half is pure
// red, which tells whether colour arrives in the right channels.
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
  int32_t gop = 12;         // key frame interval
  bool bframes = true;
  bool audio = false;       // a sine track beside the video
  std::string extra;        // more output options for ffmpeg
};

inline bool makeClip(const std::string& path, const Clip& c) {
  // Boxes switched on and off per frame are far cheaper than a per-pixel
  // expression, which matters for long clips.
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

// The index coded in a decoded frame's luma, or -1 when the stripes are not
// clean black and white.
inline int32_t indexOfLuma(const uint8_t* y, int32_t stride, int32_t w, int32_t h) {
  int32_t index = 0;
  const int32_t row = h / 4;
  for (int32_t bit = 0; bit < 10; bit++) {
    int32_t x = static_cast<int32_t>((bit + 0.5) * w / 10);
    int v = y[static_cast<size_t>(row) * stride + x];
    if (v > 200)
      index |= 1 << bit;
    else if (v > 60)
      return -1;
  }
  return index;
}

inline int32_t indexOfFrame(const AVFrame* f) {
  if (!f || f->linesize[0] <= 0) return -1;
  return indexOfLuma(f->data[0], f->linesize[0], f->width, f->height);
}

// The same code read from RGBA pixels, top row first.
inline int32_t indexOfRgba(const uint8_t* rgba, int32_t w, int32_t h) {
  int32_t index = 0;
  const int32_t row = h / 4;
  for (int32_t bit = 0; bit < 10; bit++) {
    int32_t x = static_cast<int32_t>((bit + 0.5) * w / 10);
    const uint8_t* p = rgba + (static_cast<size_t>(row) * w + x) * 4;
    if (p[0] > 200 && p[1] > 200 && p[2] > 200)
      index |= 1 << bit;
    else if (p[0] > 60 || p[1] > 60 || p[2] > 60)
      return -1;
  }
  return index;
}

}  // namespace videotest
