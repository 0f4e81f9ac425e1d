// kavlen listen: captures one input device and shows what the layers would
// react to (level, bass, mid, high, beat, tempo), so that an operator can
// check a microphone or a desk feed before a show.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "audio_input.h"
#include "commands.h"
#include "kavlen/kvl_audio.h"
#include "log.h"

using kavlen::capture::AudioInput;

namespace {

const char kUsage[] =
    "usage: kavlen listen [--device ID] [--channels 0,1] [--json] [--seconds N]\n"
    "  Captures an input device (the default one unless --device; ids from\n"
    "  kavlen devices) and shows level, bass, mid, high, beat and tempo live.\n"
    "  --channels 0,1  device channels to average (default: all)\n"
    "  --json          one JSON object a line at 10 Hz: t, level, bass, mid,\n"
    "                  high, beat, bpm, live\n"
    "  --seconds N     stop after N seconds (default: until Ctrl-C)\n";

volatile sig_atomic_t g_stop = 0;
extern "C" void on_stop(int) { g_stop = 1; }

bool parse_channels(const char* text, std::vector<int>& out) {
  const char* p = text;
  const char* end = text + strlen(text);
  while (p < end) {
    int c = 0;
    auto [next, ec] = std::from_chars(p, end, c);
    if (ec != std::errc() || next == p || c < 0) return false;
    out.push_back(c);
    p = next;
    if (p < end && *p++ != ',') return false;
    if (p == end && p[-1] == ',') return false;
  }
  return !out.empty();
}

bool parse_seconds(const char* text, double& out) {
  const char* end = text + strlen(text);
  auto [ptr, ec] = std::from_chars(text, end, out);
  return ec == std::errc() && ptr == end && std::isfinite(out) && out > 0;
}

std::string bar(float v) {
  const int full = static_cast<int>(std::lround(std::clamp(v, 0.0f, 1.0f) * 10));
  std::string s;
  for (int i = 0; i < 10; i++) s += i < full ? "\u2588" : "\u00b7";
  return s;
}

// Log lines of the capture: kept until it runs (the first failure becomes the
// error line), then shown, above the meter when there is one.
struct LogLines {
  std::mutex mutex;
  std::vector<std::string> held;
  bool live = false;
  bool meter = false;
  void take(const std::string& line) {
    std::lock_guard lock(mutex);
    if (!live) {
      held.push_back(line);
      return;
    }
    fprintf(stderr, meter ? "\r\033[K%s\n" : "%s\n", line.c_str());
  }
};

}  // namespace

int cmd_listen(int argc, char** argv) {
  AudioInput::Source source;
  bool json = false;
  double seconds = 0;
  for (int i = 1; i < argc; i++) {
    const char* a = argv[i];
    const bool has_value = i + 1 < argc;
    if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
      fputs(kUsage, stdout);
      return 0;
    } else if (!strcmp(a, "--json")) {
      json = true;
    } else if (!strcmp(a, "--device") && has_value) {
      source.device = argv[++i];
    } else if (!strcmp(a, "--channels") && has_value) {
      if (!parse_channels(argv[++i], source.channels))
        return fail("listen: --channels wants channel numbers like 0,1 (got '%s')", argv[i]);
    } else if (!strcmp(a, "--seconds") && has_value) {
      if (!parse_seconds(argv[++i], seconds))
        return fail("listen: --seconds wants a positive number (got '%s')", argv[i]);
    } else {
      return fail("listen: unknown option or missing value: '%s' (see kavlen listen --help)", a);
    }
  }

  static LogLines logs;  // outlives the capture's queue, which may still log
  logs.meter = !json;
  kavlen::capture::setLogSink([](const std::string& line) { logs.take(line); });
  struct sigaction sa {};
  sa.sa_handler = on_stop;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  kavlen::host::MainLoop loop;
  AudioInput input;
  bool answered = false;
  AudioInput::Results results;
  input.setSources({source}, loop, [&](AudioInput::Results r) {
    results = std::move(r);
    answered = true;
  });
  loop.runUntil([&] { return answered; }, std::chrono::seconds(20));
  {
    std::lock_guard lock(logs.mutex);
    if (!answered || results[source.id] != "ok") {
      const std::string why = logs.held.empty() ? "no answer from the sound server" : logs.held.front();
      return fail("listen: cannot capture: %s", why.c_str() + (why.rfind("[kavlen] ", 0) == 0 ? 9 : 0));
    }
    for (const std::string& line : logs.held) fprintf(stderr, "%s\n", line.c_str());
    logs.live = true;
  }

  // With --seconds, one line for each tenth of a second, however late the
  // ticks come on a busy machine.
  const long lines = seconds > 0 ? std::max(1L, static_cast<long>(std::ceil(seconds * 10 - 1e-9))) : 0;
  const auto start = std::chrono::steady_clock::now();
  for (long tick = 1; !g_stop; tick++) {
    const auto due = start + std::chrono::milliseconds(100 * tick);
    while (!g_stop && std::chrono::steady_clock::now() < due) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(due - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      timespec ts{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
      nanosleep(&ts, nullptr);  // a signal ends the sleep early
    }
    if (g_stop) break;
    const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    kvl_audio_state st;
    kvl_audio_source_read(source.id.c_str(), &st);
    if (json) {
      printf("{\"t\":%.2f,\"level\":%.4f,\"bass\":%.4f,\"mid\":%.4f,\"high\":%.4f,\"beat\":%.4f,\"bpm\":%.2f,"
             "\"live\":%s}\n",
             t, st.level, st.bass, st.mid, st.high, st.beat, st.bpm, st.live ? "true" : "false");
    } else {
      std::lock_guard lock(logs.mutex);
      char tempo[32];
      if (st.bpm > 0)
        snprintf(tempo, sizeof tempo, "%5.1f bpm", st.bpm);
      else
        snprintf(tempo, sizeof tempo, "  --- bpm");
      printf("\r\033[Klevel %s  bass %s  mid %s  high %s  %s %s%s", bar(st.level).c_str(), bar(st.bass).c_str(),
             bar(st.mid).c_str(), bar(st.high).c_str(), st.beat > 0.5f ? "\u25cf" : "\u25cb", tempo,
             st.live ? "" : "  (no signal)");
    }
    fflush(stdout);
    if (seconds > 0 && tick >= lines) break;
  }
  if (!json) printf("\n");
  return 0;
}
