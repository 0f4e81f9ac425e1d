// Media decoding speed: SequentialVideoSource through a 1080p H.264 file in
// software (every frame decoded and converted to RGBA, as an export asks for
// them), and the peaks of a ten-minute compressed audio file.
//
// The media are made once by the ffmpeg program into $TMPDIR/kavlen-bench-media
// (about a minute the first time) and reused by later runs.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

#include "sequential_video_source.h"
#include "waveform.h"

namespace {

std::string benchFolder() {
  const char* tmp = getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/kavlen-bench-media";
  std::filesystem::create_directories(dir);
  return dir;
}

// Makes `name` with ffmpeg unless it is already there; "" on failure.
std::string media(const std::string& name, const std::string& args) {
  std::string path = benchFolder() + "/" + name;
  if (std::filesystem::exists(path)) return path;
  std::string part = path + ".part." + std::filesystem::path(name).extension().string();
  std::string cmd = "timeout 600 ffmpeg -nostdin -v error -y " + args + " '" + part + "'";
  if (system(cmd.c_str()) != 0 || std::rename(part.c_str(), path.c_str()) != 0) {
    std::remove(part.c_str());
    return "";
  }
  return path;
}

// 10 s of 1080p at 30 fps, moving test picture, x264 with B-frames.
constexpr int kVideoFrames = 300;
constexpr double kVideoFps = 30;

std::string video1080() {
  return media("video1080.mp4",
               "-f lavfi -i testsrc2=s=1920x1080:r=30:d=10 -c:v libx264 -preset veryfast -crf 20 -g 60 "
               "-pix_fmt yuv420p -movflags +faststart");
}

// Ten minutes of stereo music-like noise in AAC at 44.1 kHz.
constexpr double kAudioSeconds = 600;

std::string audio10min() {
  return media("audio10min.m4a",
               "-f lavfi -i \"anoisesrc=d=600:c=pink:a=0.4:r=44100\" -ac 2 -c:a aac -b:a 160k");
}

// Frames per second through the source, one call per frame of the file.
void BM_SequentialVideo1080p(benchmark::State& state) {
  std::string path = video1080();
  if (path.empty()) {
    state.SkipWithError("ffmpeg could not make the 1080p test video");
    return;
  }
  int64_t frames = 0;
  std::clock_t cpuStart = std::clock();  // all threads of the process, decoder threads included
  for (auto _ : state) {
    auto src = kavlen::SequentialVideoSource::create(path);
    if (!src) {
      state.SkipWithError("no source");
      return;
    }
    for (int i = 0; i < kVideoFrames; i++) {
      const kavlen::VideoImage* im = src->frame(i / kVideoFps);
      if (!im || im->width != 1920) {
        state.SkipWithError("missing frame");
        return;
      }
      benchmark::DoNotOptimize(im->rgba.data());
    }
    frames += kVideoFrames;
  }
  state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
  // CPU time per frame over every thread: on a busy machine the wall-clock
  // rate drops with the load, this does not.
  double cpuMs = 1000.0 * static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  if (frames > 0) state.counters["cpu_ms_per_frame"] = cpuMs / static_cast<double>(frames);
}
BENCHMARK(BM_SequentialVideo1080p)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3)->Repetitions(3);

// Seconds of audio per second of work.
void BM_Peaks10Minutes(benchmark::State& state) {
  std::string path = audio10min();
  if (path.empty()) {
    state.SkipWithError("ffmpeg could not make the ten-minute test audio");
    return;
  }
  double seconds = 0;
  std::clock_t cpuStart = std::clock();
  for (auto _ : state) {
    auto p = kavlen::waveform::peaks(path, 1000);
    if (!p || p->peaks.size() != 1000) {
      state.SkipWithError("no peaks");
      return;
    }
    benchmark::DoNotOptimize(p->peaks.data());
    seconds += kAudioSeconds;
  }
  state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
  double cpuSeconds = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  if (cpuSeconds > 0) state.counters["x_realtime_per_cpu"] = seconds / cpuSeconds;
}
BENCHMARK(BM_Peaks10Minutes)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(5);

}  // namespace
