// kavlen export: a movie of a scene, drawn by the offline compositor, with an
// optional audio mix. It drives the export channel in-process, so the command
// and the interface share one writer, one render loop and one mix. The movie
// is written under a temporary name beside the target and renamed when whole.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "commands.h"
#include "in_process_messenger.h"
#include "movie_writer.h"
#include "native_renderer.h"
#include "native_scene.h"
#include "video_export_plugin.h"

using kavlen::host::MethodResult;
using kavlen::host::Value;
using kavlen::host::ValueList;
namespace fs = std::filesystem;
namespace ex = kavlen::exporter;

namespace {

const char kUsage[] =
    "usage: kavlen export SCENE.json -o MOVIE.mp4 --length-ms N [options]\n"
    "  --length-ms N      length of the movie in milliseconds\n"
    "  --fps N            frames per second (default 30)\n"
    "  --codec C          h264 (MPEG-4, default), hevc (MPEG-4) or prores (QuickTime .mov)\n"
    "  --size WxH         frame size (default: the scene's first output, else 1920x1080)\n"
    "  --bitrate N        video bits per second (default: 6 per pixel, at least 4000000)\n"
    "  --audio CLIPS.json audio clips to mix in: a JSON list of {\"path\", \"startMs\", \"lengthMs\",\n"
    "                     \"volume\", \"skipMs\", \"fadeInMs\", \"fadeOutMs\", \"clipLengthMs\",\n"
    "                     \"fileOffsetMs\"}; relative paths are read from the list's folder\n"
    "  --audio-bitrate N  AAC bits per second (default 192000)\n"
    "  --media-root DIR   folder of the scene's media (default: the scene file's folder)\n"
    "  --stats            print where the time went (rendering, conversion, encoding)\n"
    "Ctrl-C stops the export; nothing is left under the movie's name.\n";

std::atomic<bool> interrupted{false};
void onInterrupt(int) { interrupted = true; }

struct Options {
  std::string scene, out, audio, mediaRoot, codec = "h264";
  int64_t lengthMs = -1, fps = 30, bitrate = 0, audioBitrate = 192000;
  int width = 0, height = 0;
  bool stats = false;
};

bool wholeNumber(const char* text, int64_t lo, int64_t hi, int64_t& out) {
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(text, &end, 10);
  if (!end || end == text || *end || errno || v < lo || v > hi) return false;
  out = v;
  return true;
}

int parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    bool hasValue = i + 1 < argc;
    auto number = [&](const char* name, int64_t lo, int64_t hi, int64_t& out) {
      if (wholeNumber(argv[++i], lo, hi, out)) return 0;
      return fail("export: %s wants a whole number from %lld to %lld, got '%s'", name, static_cast<long long>(lo),
                  static_cast<long long>(hi), argv[i]);
    };
    int rc = 0;
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return -1;
    } else if ((a == "-o" || a == "--out") && hasValue) {
      o.out = argv[++i];
    } else if (a == "--length-ms" && hasValue) {
      rc = number("--length-ms", 1, int64_t{1} << 40, o.lengthMs);
    } else if (a == "--fps" && hasValue) {
      rc = number("--fps", 1, 1000, o.fps);
    } else if (a == "--bitrate" && hasValue) {
      rc = number("--bitrate", 0, 1000000000, o.bitrate);
    } else if (a == "--audio-bitrate" && hasValue) {
      rc = number("--audio-bitrate", 8000, 1000000, o.audioBitrate);
    } else if (a == "--codec" && hasValue) {
      o.codec = argv[++i];
      if (o.codec != "h264" && o.codec != "hevc" && o.codec != "prores")
        return fail("export: --codec wants h264, hevc or prores, got '%s'", o.codec.c_str());
    } else if (a == "--size" && hasValue) {
      int w = 0, h = 0;
      char x = 0, tail = 0;
      if (sscanf(argv[++i], "%d%c%d%c", &w, &x, &h, &tail) != 3 || (x != 'x' && x != 'X') || w < 2 || h < 2 ||
          w > 16384 || h > 16384 || w % 2 || h % 2)
        return fail("export: --size wants WIDTHxHEIGHT, even numbers from 2 to 16384, got '%s'", argv[i]);
      o.width = w;
      o.height = h;
    } else if (a == "--audio" && hasValue) {
      o.audio = argv[++i];
    } else if (a == "--media-root" && hasValue) {
      o.mediaRoot = argv[++i];
    } else if (a == "--stats") {
      o.stats = true;
    } else if (a[0] == '-' && a.size() > 1) {
      return fail("export: unknown option or missing value: '%s' (see kavlen export --help)", a.c_str());
    } else if (o.scene.empty()) {
      o.scene = a;
    } else {
      return fail("export: more than one scene given ('%s')", a.c_str());
    }
    if (rc) return rc;
  }
  if (o.scene.empty()) return fail("export: no scene file given");
  if (o.out.empty()) return fail("export: no movie file given (-o MOVIE.mp4)");
  if (o.lengthMs < 0) return fail("export: no length given (--length-ms N)");
  return 0;
}

std::optional<Value> readJson(const std::string& path, const char* what) {
  std::string text, error;
  if (!read_text_file(path, text, error)) {
    fail("export: %s", error.c_str());
    return std::nullopt;
  }
  auto v = kavlen::native::valueFromJson(text);
  if (!v) fail("export: %s %s is not JSON", what, path.c_str());
  return v;
}

// The clips of the list file, with relative paths made absolute from its folder.
std::optional<Value> readClips(const std::string& path) {
  auto list = readJson(path, "audio clip list");
  if (!list) return std::nullopt;
  if (!list->asList()) {
    fail("export: the audio clip list %s is no JSON list", path.c_str());
    return std::nullopt;
  }
  fs::path folder = fs::absolute(path).parent_path();
  for (Value& clip : *list->asList())
    if (auto p = clip.getString("path"); p && !p->empty() && fs::path(*p).is_relative())
      clip.set("path", (folder / *p).lexically_normal().string());
  return list;
}

// The frame size the scene's first output asks for, else 1920x1080. False
// when that size can't be encoded.
bool sceneSize(const Value& doc, int& w, int& h) {
  const Value* outputs = doc.find("outputs");
  const ValueList* list = outputs ? outputs->asList() : nullptr;
  const Value* res = list && !list->empty() ? (*list)[0].find("resolution") : nullptr;
  const ValueList* wh = res ? res->asList() : nullptr;
  w = 1920;
  h = 1080;
  if (!wh || wh->size() != 2 || !(*wh)[0].asInt() || !(*wh)[1].asInt()) return true;
  int64_t a = *(*wh)[0].asInt(), b = *(*wh)[1].asInt();
  if (a < 2 || b < 2 || a > 16384 || b > 16384 || a % 2 || b % 2) {
    fail("export: the scene's output size %lldx%lld cannot be encoded (even sizes up to 16384); give --size",
         static_cast<long long>(a), static_cast<long long>(b));
    return false;
  }
  w = static_cast<int>(a);
  h = static_cast<int>(b);
  return true;
}

// Times the compositor's frames for --stats.
struct TimedRenderer : ex::ExportRenderer {
  TimedRenderer(std::unique_ptr<ex::ExportRenderer> r, std::atomic<int64_t>& ns) : inner(std::move(r)), spent(ns) {}
  void render(int64_t ms, uint8_t* rgba, int64_t stride) override {
    auto t0 = std::chrono::steady_clock::now();
    inner->render(ms, rgba, stride);
    spent += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
  }
  void stop() override { inner->stop(); }
  std::unique_ptr<ex::ExportRenderer> inner;
  std::atomic<int64_t>& spent;
};

class ProgressBar {
 public:
  explicit ProgressBar(int64_t total) : total_(total), tty_(isatty(STDERR_FILENO)) {}
  void show(int64_t done, bool last) {
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    if (!tty_ && !last && elapsed - printedAt_ < 1.0) return;
    printedAt_ = elapsed;
    double fps = elapsed > 0 ? done / elapsed : 0;
    long left = fps > 0 ? std::lround((total_ - done) / fps) : 0;
    if (tty_) {
      const int width = 30;
      int filled = total_ > 0 ? static_cast<int>(width * done / total_) : width;
      std::string bar(static_cast<size_t>(filled), '=');
      bar.resize(width, ' ');
      fprintf(stderr, "\rkavlen: export [%s] %lld/%lld frames  %5.1f fps  %ld:%02ld left ", bar.c_str(),
              static_cast<long long>(done), static_cast<long long>(total_), fps, left / 60, left % 60);
      if (last) fputc('\n', stderr);
    } else {
      fprintf(stderr, "kavlen: export: %lld/%lld frames, %.1f fps, %ld s left\n", static_cast<long long>(done),
              static_cast<long long>(total_), fps, left);
    }
    fflush(stderr);
  }
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  int64_t total_;
  bool tty_;
  double printedAt_ = -1;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

int cmd_export(int argc, char** argv) {
  Options o;
  if (int rc = parse(argc, argv, o)) return rc < 0 ? 0 : rc;
  auto scene = readJson(o.scene, "scene");
  if (!scene) return 1;
  if (!scene->isMap()) return fail("export: the scene %s is no JSON object", o.scene.c_str());
  if (o.width == 0 && !sceneSize(*scene, o.width, o.height)) return 1;
  if (o.mediaRoot.empty()) o.mediaRoot = fs::absolute(o.scene).parent_path().string();
  Value clips = ValueList{};
  if (!o.audio.empty()) {
    auto list = readClips(o.audio);
    if (!list) return 1;
    clips = std::move(*list);
  }
  // Beside the target, so the final rename stays on one file system.
  fs::path target = fs::absolute(o.out);
  std::error_code ec;
  if (fs::is_directory(target, ec)) return fail("export: %s is a folder", o.out.c_str());
  fs::path temp = target.parent_path() / ("." + target.filename().string() + ".partial-" + std::to_string(getpid()));

  kavlen::host::MainLoop loop;
  kavlen::host::WorkerPool pool(2);
  kavlen::host::InProcessMessenger messenger(loop);
  std::atomic<int64_t> renderNs{0};
  std::shared_ptr<ex::MovieWriter> writer;
  ex::ExportOptions options;
  options.writerStarted = [&](const std::shared_ptr<ex::MovieWriter>& w) { writer = w; };
  auto native = ex::nativeRendererFactory();
  ex::VideoExportPlugin::registerWith(
      messenger, loop, pool,
      [&](const Value& doc, int w, int h, const std::string& root) {
        return std::make_unique<TimedRenderer>(native(doc, w, h, root), renderNs);
      },
      options);

  struct sigaction sa {};
  sa.sa_handler = onInterrupt;
  sa.sa_flags = SA_RESTART;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  const int64_t total = static_cast<int64_t>(std::ceil(static_cast<double>(o.lengthMs) / 1000.0 * o.fps));
  ProgressBar bar(total);
  int64_t framesDone = 0;
  bool cancelSent = false;
  // One call on the channel, with the progress shown and Ctrl-C turned into "cancel".
  auto call = [&](const char* method, Value args) {
    std::optional<MethodResult> result;
    messenger.call(ex::VideoExportPlugin::kChannel, method, std::move(args),
                   [&](MethodResult r) { result = std::move(r); });
    loop.runUntil(
        [&] {
          for (auto& s : messenger.sent())
            if (auto f = s.args.getInt("frame")) {
              framesDone = *f;
              bar.show(framesDone, framesDone == total);
            }
          messenger.clearSent();
          if (interrupted && !cancelSent) {
            cancelSent = true;
            messenger.call(ex::VideoExportPlugin::kChannel, "cancel", {}, [](MethodResult) {});
          }
          return result.has_value();
        },
        std::chrono::hours(24 * 365));
    return *result;
  };
  // The channel's messages name the temporary file; the user knows the target.
  auto failed = [&](const MethodResult& r) {
    fs::remove(temp, ec);
    std::string text = r.message.value_or(r.code);
    for (size_t at; (at = text.find(temp.string())) != std::string::npos;) text.replace(at, temp.string().size(), o.out);
    return fail("export: %s", text.c_str());
  };
  auto cancelled = [&] {
    fs::remove(temp, ec);
    if (isatty(STDERR_FILENO)) fputc('\n', stderr);  // below the progress bar
    fprintf(stderr, "kavlen: export cancelled after %lld of %lld frames; %s was not written (the movie would be "
            "incomplete)\n", static_cast<long long>(framesDone), static_cast<long long>(total), o.out.c_str());
    return 130;
  };

  Value start = Value::map({{"path", temp.string()},
                            {"width", o.width},
                            {"height", o.height},
                            {"fps", o.fps},
                            {"audioClips", clips},
                            {"codec", o.codec},
                            {"bitrate", o.bitrate},
                            {"audioBitrate", o.audioBitrate}});
  MethodResult r = call("start", start);
  if (r.kind != MethodResult::Kind::Success) return failed(r);
  r = call("renderNative", Value::map({{"scene", *scene}, {"lengthMs", o.lengthMs}, {"mediaRoot", o.mediaRoot}}));
  if (interrupted || r.value == Value("cancelled")) return cancelled();
  if (r.kind != MethodResult::Kind::Success) return failed(r);
  if (!clips.asList()->empty()) fputs("kavlen: export: mixing and writing the audio\n", stderr);
  r = call("finish", {});
  if (interrupted) return cancelled();
  if (r.kind != MethodResult::Kind::Success) return failed(r);
  if (framesDone < total) {
    fs::remove(temp, ec);
    return fail("export: only %lld of %lld frames could be made", static_cast<long long>(framesDone),
                static_cast<long long>(total));
  }
  fs::rename(temp, target, ec);
  if (ec) {
    fs::remove(temp, ec);
    return fail("export: cannot move the movie to %s: %s", o.out.c_str(), ec.message().c_str());
  }
  double secs = bar.seconds();
  fprintf(stderr, "kavlen: wrote %s (%lld frames, %dx%d, %s, %.1f s in %.1f s, %.1f fps)\n", o.out.c_str(),
          static_cast<long long>(total), o.width, o.height, o.codec.c_str(), o.lengthMs / 1000.0, secs,
          secs > 0 ? total / secs : 0.0);
  if (o.stats && writer) {
    auto timing = writer->timing();
    double render = renderNs / 1e9;
    double sum = render + timing.convertSeconds + timing.encodeSeconds;
    if (sum > 0)
      fprintf(stderr,
              "kavlen: time spent: rendering %.2f s (%.0f%%), conversion %.2f s (%.0f%%), encoding and writing "
              "%.2f s (%.0f%%); rendering and encoding overlap on their own threads\n",
              render, 100 * render / sum, timing.convertSeconds, 100 * timing.convertSeconds / sum,
              timing.encodeSeconds, 100 * timing.encodeSeconds / sum);
  }
  return 0;
}
