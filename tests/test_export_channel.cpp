// The "app.kavlen/export" channel through the in-process messenger: argument
// and state errors, pushed frames with back-pressure, the render loop with its
// progress and cancel, the audio rule, failures of the writer, and exports one
// after another.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "export_test_util.h"
#include "in_process_messenger.h"
#include "video_export_plugin.h"

using namespace kavlen::exporter;
using kavlen::host::MethodResult;
using kavlen::host::Value;
using kavlen::host::ValueList;

namespace {

// Draws the quartered test picture and records the times it was asked for.
struct RecordingRenderer : ExportRenderer {
  struct Log {
    std::mutex mutex;
    std::vector<int64_t> times;
    std::atomic<int> stops{0};
    std::chrono::milliseconds delay{0};
    size_t count() {
      std::lock_guard lock(mutex);
      return times.size();
    }
  };
  RecordingRenderer(std::shared_ptr<Log> l, int w, int h) : log(std::move(l)), width(w), height(h) {}
  void render(int64_t ms, uint8_t* rgba, int64_t stride) override {
    std::this_thread::sleep_for(log->delay);
    exporttest::paintQuadrants(rgba, width, height, stride);
    std::lock_guard lock(log->mutex);
    log->times.push_back(ms);
  }
  void stop() override { log->stops++; }
  std::shared_ptr<Log> log;
  int width, height;
};

struct Channel {
  explicit Channel(ExportOptions options = {}, bool offlineCompositor = false) {
    ExportRendererFactory recording = [log = log](const Value&, int w, int h, const std::string&) {
      return std::make_unique<RecordingRenderer>(log, w, h);
    };
    plugin = VideoExportPlugin::registerWith(messenger, loop, pool, offlineCompositor ? nullptr : recording,
                                             std::move(options));
  }
  MethodResult call(const std::string& method, Value args = {}) {
    auto r = messenger.callAndWait(VideoExportPlugin::kChannel, method, std::move(args));
    EXPECT_TRUE(r) << method << " gave no answer";
    return r.value_or(MethodResult::error("no answer"));
  }
  Value progress() {
    ValueList out;
    for (auto& s : messenger.sent())
      if (s.method == "progress") out.push_back(s.args);
    return Value(out);
  }

  kavlen::host::MainLoop loop;
  kavlen::host::WorkerPool pool{2};
  kavlen::host::InProcessMessenger messenger{loop};
  std::shared_ptr<RecordingRenderer::Log> log = std::make_shared<RecordingRenderer::Log>();
  std::shared_ptr<VideoExportPlugin> plugin;
};

Value startArgs(const std::string& path, int fps = 30, int w = 64, int h = 48) {
  return Value::map({{"path", path}, {"width", w}, {"height", h}, {"fps", fps}});
}

Value quadrantFrame(int64_t ms, int w = 64, int h = 48) {
  std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
  exporttest::paintQuadrants(rgba.data(), w, h, w * 4);
  return Value::map({{"timeMs", ms}, {"rgba", std::move(rgba)}});
}

Value renderArgs(int64_t lengthMs) {
  return Value::map({{"scene", Value::map({{"layers", ValueList{}}})}, {"lengthMs", lengthMs}, {"mediaRoot", "/"}});
}

MethodResult error(const char* code, const char* message) { return MethodResult::error(code, message); }
const MethodResult kOk = MethodResult::success();

}  // namespace

TEST(ExportChannelThreads, ArgumentAndStateErrors) {
  Channel c;
  std::string dir = mediatest::testFolder();
  const MethodResult notStarted = error("state", "export não iniciado");
  EXPECT_EQ(c.call("finish"), notStarted);
  EXPECT_EQ(c.call("appendFrame", quadrantFrame(0)), notStarted);
  EXPECT_EQ(c.call("renderNative", renderArgs(100)), notStarted);
  EXPECT_EQ(c.call("cancel"), kOk);  // idle: nothing else happens
  EXPECT_EQ(c.call("pause"), MethodResult::notImplemented());

  Value noFps = Value::map({{"path", dir + "/a.mp4"}, {"width", 64}, {"height", 48}});
  EXPECT_EQ(c.call("start", noFps), error("args", "argumentos inválidos"));
  EXPECT_EQ(c.call("start", Value("a.mp4")), error("args", "argumentos inválidos"));
  Value wrongType = startArgs(dir + "/a.mp4");
  wrongType.set("width", 64.0);
  EXPECT_EQ(c.call("start", wrongType), error("args", "argumentos inválidos"));

  MethodResult unwritable = c.call("start", startArgs(dir + "/missing/a.mp4"));
  EXPECT_EQ(unwritable.code, "start");
  EXPECT_NE(unwritable.message.value_or("").find("No such file or directory"), std::string::npos);

  ASSERT_EQ(c.call("start", startArgs(dir + "/a.mp4")), kOk);
  EXPECT_EQ(c.call("appendFrame", Value::map({{"timeMs", 0}})), error("args", "quadro inválido"));
  EXPECT_EQ(c.call("appendFrame", Value::map({{"timeMs", 0}, {"rgba", std::vector<uint8_t>(100)}})),
            error("args", "quadro inválido"));
  EXPECT_EQ(c.call("renderNative", Value::map({{"scene", "{}"}, {"lengthMs", 100}, {"mediaRoot", "/"}})),
            error("args", "cena inválida"));
  EXPECT_EQ(c.call("renderNative", renderArgs(-1)), error("args", "cena inválida"));
  ASSERT_EQ(c.call("appendFrame", quadrantFrame(0)), kOk);
  MethodResult backwards = c.call("appendFrame", quadrantFrame(0));
  EXPECT_EQ(backwards.code, "append");
  EXPECT_EQ(c.call("finish"), kOk);
  EXPECT_EQ(c.call("finish"), notStarted);
}

TEST(ExportChannelThreads, PushedFramesAndTheAudioRule) {
  Channel c;
  std::string dir = mediatest::testFolder();
  std::string tone = mediatest::make("tone1.wav", "-f lavfi -i \"sine=frequency=440:sample_rate=44100:duration=1\"");
  Value clips = ValueList{Value::map({{"path", tone}, {"lengthMs", 500}})};
  struct Case {
    const char* name;
    Value clips;
    int64_t audioBitrate;
    bool audio;
  } cases[] = {{"none", ValueList{}, 192000, false},
               {"no-rate", clips, 0, false},
               {"not-a-list", Value("x"), 192000, false},
               {"audio", clips, 128000, true}};
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    std::string path = dir + "/" + k.name + ".mp4";
    Value args = startArgs(path);
    args.set("audioClips", k.clips);
    args.set("audioBitrate", k.audioBitrate);
    ASSERT_EQ(c.call("start", args), kOk);
    for (int i = 0; i < 3; i++) ASSERT_EQ(c.call("appendFrame", quadrantFrame(i * 40)), kOk);
    ASSERT_EQ(c.call("finish"), kOk);
    std::string facts = exporttest::probe(path);
    EXPECT_EQ(facts.find("codec_type=audio") != std::string::npos, k.audio) << facts;
    auto frames = exporttest::decodeRgba(path, 64, 48);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_TRUE(exporttest::quadrantsMatch(frames[2], 64, 48, 10));
  }
}

TEST(ExportChannelThreads, BusyEncoderTimesOutWhileTheLoopServes) {
  std::shared_ptr<MovieWriter> writer;
  ExportOptions options;
  options.backPressureLimit = std::chrono::milliseconds(300);
  options.writerStarted = [&](const std::shared_ptr<MovieWriter>& w) { writer = w; };
  Channel c(options);
  std::string path = mediatest::testFolder() + "/busy.mp4";
  ASSERT_EQ(c.call("start", startArgs(path)), kOk);
  ASSERT_TRUE(writer);
  writer->pause();
  std::vector<std::optional<MethodResult>> results(5);
  for (int i = 0; i < 5; i++)
    c.messenger.call(VideoExportPlugin::kChannel, "appendFrame", quadrantFrame(i * 40),
                     [&results, i](MethodResult r) { results[i] = std::move(r); });
  // While frames wait for the encoder, other calls are answered.
  EXPECT_EQ(c.call("renderNative", renderArgs(-1)), error("args", "cena inválida"));
  EXPECT_FALSE(results[4].has_value());
  c.loop.runUntil([&] { return results[4].has_value(); }, std::chrono::seconds(5));
  for (int i = 0; i < 5; i++) {
    ASSERT_TRUE(results[i]) << i;
    EXPECT_EQ(*results[i], i < 3 ? kOk : error("timeout", "encoder ocupado")) << i;
  }
  writer->resume();
  ASSERT_EQ(c.call("appendFrame", quadrantFrame(400)), kOk);
  ASSERT_EQ(c.call("finish"), kOk);
  EXPECT_EQ(exporttest::frameTimesMs(path), (std::vector<long>{0, 40, 80, 400}));
}

TEST(ExportChannelThreads, RenderLoopFramesTimesAndProgress) {
  struct Case {
    int fps;
    int64_t lengthMs;
    size_t frames;
    long lastMs;
  } cases[] = {{30, 1000, 30, 966}, {24, 1000, 24, 958}, {30, 1001, 31, 1000}, {30, 0, 0, -1}};
  std::string dir = mediatest::testFolder();
  for (const Case& k : cases) {
    SCOPED_TRACE(std::to_string(k.fps) + " fps, " + std::to_string(k.lengthMs) + " ms");
    Channel c;
    std::string path = dir + "/r" + std::to_string(k.fps) + "_" + std::to_string(k.lengthMs) + ".mp4";
    ASSERT_EQ(c.call("start", startArgs(path, k.fps)), kOk);
    ASSERT_EQ(c.call("renderNative", renderArgs(k.lengthMs)), MethodResult::success("ok"));
    EXPECT_EQ(c.log->stops, 1);
    ASSERT_EQ(c.call("finish"), kOk);
    ASSERT_EQ(c.log->count(), k.frames);
    if (k.frames == 0) {
      EXPECT_EQ(c.progress(), Value(ValueList{}));
      continue;
    }
    std::vector<long> times = exporttest::frameTimesMs(path);
    ASSERT_EQ(times.size(), k.frames);
    EXPECT_EQ(times.back(), k.lastMs);
    EXPECT_EQ(c.log->times[1], 1000 / k.fps);
    auto progress = *c.progress().asList();
    ASSERT_FALSE(progress.empty());
    const int64_t total = static_cast<int64_t>(k.frames);
    EXPECT_EQ(progress.back(), Value::map({{"fraction", 1.0}, {"frame", total}, {"total", total}}));
    EXPECT_LE(progress.size(), 3u);  // at most one every 0.2 s, and this one is quick
  }
}

TEST(ExportChannelThreads, CancelDuringRenderAndTwoExportsInARow) {
  Channel c;
  std::string dir = mediatest::testFolder();
  c.log->delay = std::chrono::milliseconds(15);
  ASSERT_EQ(c.call("start", startArgs(dir + "/cancelled.mp4")), kOk);
  std::optional<MethodResult> rendered;
  c.messenger.call(VideoExportPlugin::kChannel, "renderNative", renderArgs(60000),
                   [&](MethodResult r) { rendered = std::move(r); });
  ASSERT_TRUE(c.loop.runUntil([&] { return c.log->count() >= 20; }, std::chrono::seconds(10)));
  EXPECT_GE(c.progress().asList()->size(), 1u);  // some progress came while it ran
  EXPECT_EQ(c.call("cancel"), kOk);
  size_t atCancel = c.log->count();
  ASSERT_TRUE(c.loop.runUntil([&] { return rendered.has_value(); }, std::chrono::seconds(5)));
  EXPECT_EQ(*rendered, MethodResult::success("cancelled"));
  EXPECT_LE(c.log->count(), atCancel + 1);
  EXPECT_EQ(c.call("finish"), error("state", "export não iniciado"));
  EXPECT_FALSE(std::filesystem::exists(dir + "/cancelled.mp4"));

  // The same channel exports twice more, one after the other.
  c.log->delay = std::chrono::milliseconds(0);
  for (const char* codec : {"prores", "hevc"}) {
    Value args = startArgs(dir + "/" + codec + ".mov");
    args.set("codec", codec);
    ASSERT_EQ(c.call("start", args), kOk);
    ASSERT_EQ(c.call("renderNative", renderArgs(200)), MethodResult::success("ok"));
    ASSERT_EQ(c.call("finish"), kOk);
    EXPECT_EQ(exporttest::frameTimesMs(dir + "/" + codec + ".mov").size(), 6u) << codec;
  }
}

// Outside the threaded suites: the compositor's OpenCV thread pool hands work
// over in code the thread checker cannot see.
TEST(ExportChannelScene, OfflineCompositorDrawsTheFrames) {
  Channel c({}, true);
  std::string path = mediatest::testFolder() + "/scene.mp4";
  ASSERT_EQ(c.call("start", startArgs(path)), kOk);
  Value layer = Value::map({{"id", "wall"},
                            {"corners", ValueList{ValueList{0, 0}, ValueList{1, 0}, ValueList{1, 1}, ValueList{0, 1}}},
                            {"paint", Value::map({{"type", "color"}, {"argb", int64_t{0xFF2050C0}}})}});
  Value args = Value::map({{"scene", Value::map({{"mappings", ValueList{layer}}})}, {"lengthMs", 100}, {"mediaRoot", ""}});
  ASSERT_EQ(c.call("renderNative", args), MethodResult::success("ok"));
  ASSERT_EQ(c.call("finish"), kOk);
  auto frames = exporttest::decodeRgba(path, 64, 48);
  ASSERT_EQ(frames.size(), 3u);
  const uint8_t* p = frames[2].data() + (24 * 64 + 32) * 4;
  EXPECT_NEAR(p[0], 0x20, 6);
  EXPECT_NEAR(p[1], 0x50, 6);
  EXPECT_NEAR(p[2], 0xC0, 6);
}

// A disk that fills up midway, as a size limit on a child process.
TEST(ExportChannelFailure, FullDiskAnswersAppendThenFinish) {
  std::string path = mediatest::testFolder() + "/full.mov";
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{64 * 1024, 64 * 1024};
    setrlimit(RLIMIT_FSIZE, &limit);
    Channel c;
    Value args = startArgs(path, 30, 320, 240);
    args.set("codec", "prores");
    if (!(c.call("start", args) == kOk)) _exit(10);
    MethodResult r;
    std::vector<uint8_t> noise(320 * 240 * 4);
    for (int i = 0; i < 200; i++) {
      for (size_t k = 0; k < noise.size(); k++) noise[k] = static_cast<uint8_t>(k * 7919 + i * 31);
      r = c.call("appendFrame", Value::map({{"timeMs", i * 33}, {"rgba", noise}}));
      if (!(r == kOk)) break;
    }
    if (r.code != "append" || r.message.value_or("").find("File too large") == std::string::npos) _exit(11);
    MethodResult f = c.call("finish");
    if (f.code != "finish" || f.message != r.message) _exit(12);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no start, 11: no append error, 12: finish hid the failure";
}
