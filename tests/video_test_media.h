// Movies for the video tests, made by ffmpeg: the top half holds ten stripes,
// stripe i white when bit i of the frame index is set; the bottom half is red.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "video_player.h"

namespace videotest {

// A 320x180 movie.
struct Clip {
  int32_t fps = 30;
  double seconds = 2.0;
  int32_t gop = 12;  // key frame interval
  bool bframes = true;
  bool audio = false;  // a sine track beside the video
};

inline bool makeClip(const std::string& path, const Clip& c) {
  // Boxes switched per frame: far cheaper than a per-pixel expression.
  std::string filter = "drawbox=x=0:y=ih/2:w=iw:h=ih/2:color=red:t=fill";
  for (int bit = 0; bit < 10; bit++)
    filter += ",drawbox=x=" + std::to_string(bit) + "*iw/10:y=0:w=iw/10+1:h=ih/2:color=white:t=fill:enable='mod(floor(n/" +
              std::to_string(1 << bit) + "),2)'";
  std::string cmd = "ffmpeg -nostdin -v error -y -f lavfi -i color=c=black:s=320x180:r=" + std::to_string(c.fps) +
                    ":d=" + std::to_string(c.seconds) +
                    (c.audio ? " -f lavfi -i sine=frequency=440:sample_rate=44100 -c:a aac -shortest" : "") + " -vf \"" +
                    filter + "\" -c:v libx264 -preset ultrafast -qp 8 -g " + std::to_string(c.gop) + " -bf " +
                    (c.bframes ? "2" : "0") + " -pix_fmt yuv420p -movflags +faststart '" + path + "'";
  return std::system(cmd.c_str()) == 0;
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

// A host clock that moves only when the test says so.
struct FakeClock {
  std::shared_ptr<std::atomic<double>> now = std::make_shared<std::atomic<double>>(100.0);
  VideoPlayer::Options options() const { return {.hostClock = [n = now] { return n->load(); }}; }
  void advance(double s) { now->store(now->load() + s); }
};

// Polls `cond` until it holds or `limit` passes; its last answer.
inline bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return cond();
}

}  // namespace videotest
