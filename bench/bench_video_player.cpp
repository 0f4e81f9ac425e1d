// Decoding speed of the output video player on a 1080p H.264 movie, in
// software: every frame of the file is taken in order, as fast as the decode
// thread delivers them, with the player's clock stepped one frame at a time.
// A second case adds the upload to a GL texture (llvmpipe where there is no
// GPU, so the conversion pass runs on the processor too).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "gl_headless.h"
#include "gl_video_source.h"
#include "video_player.h"

namespace {

constexpr int kFps = 30;
constexpr int kFrames = 240;

// A moving test picture, High profile with B-frames and the encoder's usual
// key frame spacing: what a delivered show file looks like to the decoder.
const std::string& movie() {
  // Left alive on purpose: the exit handler that removes the file runs after
  // static strings are gone.
  static const std::string* path = [] {
    auto* p = new std::string("/tmp/kavlen-bench-1080p-" + std::to_string(getpid()) + ".mp4");
    char cmd[1024];
    snprintf(cmd, sizeof cmd,
             "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=%d -frames:v %d "
             "-c:v libx264 -preset veryfast -crf 20 -profile:v high -pix_fmt yuv420p '%s'",
             kFps, kFrames, p->c_str());
    if (std::system(cmd) != 0) {
      p->clear();
      return p;
    }
    std::atexit([] { std::filesystem::remove(*path); });
    return p;
  }();
  return *path;
}

struct FakeClock {
  std::shared_ptr<std::atomic<double>> now = std::make_shared<std::atomic<double>>(10.0);
  VideoPlayer::Options options() const {
    VideoPlayer::Options o;
    o.allowHardware = false;
    auto n = now;
    o.hostClock = [n] { return n->load(); };
    return o;
  }
};

bool seekToStart(VideoPlayer& p) {
  auto done = std::make_shared<std::promise<bool>>();
  auto f = done->get_future();
  p.seek(0, [done](bool ok) { done->set_value(ok); });
  return f.wait_for(std::chrono::seconds(30)) == std::future_status::ready && f.get();
}

// Steps the clock to each frame in turn and waits for the player to have it.
template <typename Take>
int64_t playThrough(FakeClock& clock, Take take) {
  const double start = clock.now->load();
  const double frameS = 1.0 / kFps;
  int64_t got = 0;
  int64_t lastPts = -1;
  for (int i = 0; i < kFrames; i++) {
    clock.now->store(start + (i + 0.5) * frameS);
    for (int spins = 0;; spins++) {
      VideoPlayer::FramePtr f = take();
      if (f && f->ptsUs > lastPts) {
        lastPts = f->ptsUs;
        got++;
        break;
      }
      if (spins > 200000) return got;  // stuck: report what came
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
  return got;
}

void BM_VideoPlayerDecode1080p(benchmark::State& state) {
  if (movie().empty()) {
    state.SkipWithError("ffmpeg could not make the 1080p movie");
    return;
  }
  FakeClock clock;
  VideoPlayer p(movie(), clock.options());
  if (p.waitOpened(30) != VideoPlayer::Status::Ready) {
    state.SkipWithError("the movie does not open");
    return;
  }
  int64_t frames = 0;
  for (auto _ : state) {
    state.PauseTiming();
    bool ok = seekToStart(p);
    p.setRate(1.0f);
    state.ResumeTiming();
    if (!ok) {
      state.SkipWithError("seek failed");
      return;
    }
    int64_t n = playThrough(clock, [&] { return p.frameForHostTime(clock.now->load()); });
    if (n != kFrames) {
      state.SkipWithError("frames were skipped or never came");
      return;
    }
    frames += n;
    state.PauseTiming();
    p.setRate(0.0f);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(frames);
  state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_VideoPlayerDecode1080p)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

void BM_GlVideoSourceDecodeAndUpload1080p(benchmark::State& state) {
  if (movie().empty()) {
    state.SkipWithError("ffmpeg could not make the 1080p movie");
    return;
  }
  HeadlessGl gl;
  std::string err;
  if (!gl.open(err)) {
    state.SkipWithError(("no headless GL: " + err).c_str());
    return;
  }
  FakeClock clock;
  GlVideoSource v(movie(), clock.options());
  if (v.player().waitOpened(30) != VideoPlayer::Status::Ready) {
    state.SkipWithError("the movie does not open");
    return;
  }
  int64_t frames = 0;
  for (auto _ : state) {
    state.PauseTiming();
    bool ok = seekToStart(v.player());
    v.freeRun();
    state.ResumeTiming();
    if (!ok) {
      state.SkipWithError("seek failed");
      return;
    }
    const int64_t before = v.framesUploaded();
    int64_t n = playThrough(clock, [&]() -> VideoPlayer::FramePtr {
      const int64_t had = v.framesUploaded();
      v.update();
      // The uploads are what counts here; hand back the frame that arrived.
      return v.framesUploaded() > had ? v.player().frameForHostTime(clock.now->load()) : nullptr;
    });
    glFinish();
    if (n != kFrames || v.framesUploaded() - before != kFrames) {
      state.SkipWithError("frames were skipped or never came");
      return;
    }
    frames += n;
    state.PauseTiming();
    v.player().setRate(0.0f);
    state.ResumeTiming();
  }
  v.teardown(true);
  state.SetItemsProcessed(frames);
  state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GlVideoSourceDecodeAndUpload1080p)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

}  // namespace
