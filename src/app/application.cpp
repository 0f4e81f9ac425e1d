#include "application.h"

#include <pthread.h>
#include <signal.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include "audio_input.h"
#include "audio_input_plugin.h"
#include "channel_host.h"
#include "video_export_plugin.h"
#include "vision_plugin.h"
#include "console_server.h"
#include "main_loop.h"
#include "main_window.h"
#include "media_plugins.h"
#include "output_window_manager.h"
#include "workers.h"

namespace kavlen::app {
namespace {

// Window events wake the loop, and posted tasks wake GLFW's wait.
struct GlfwWaiter final : host::MainLoop::Waiter {
  void wait(double seconds) override {
    if (seconds < 0)
      glfwWaitEvents();
    else
      glfwWaitEventsTimeout(seconds);
  }
  void wake() override { glfwPostEmptyEvent(); }
};

// SIGINT and SIGTERM are taken by one thread with sigwait, so the rest of the
// program never runs inside a signal handler; the thread only posts the
// same shutdown that closing the main window does.
class SignalWatcher {
 public:
  explicit SignalWatcher(std::function<void()> onSignal) : onSignal_(std::move(onSignal)) {
    thread_ = std::thread([this] {
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGINT);
      sigaddset(&set, SIGTERM);
      const timespec tick{0, 100 * 1000 * 1000};
      while (!stop_) {
        if (sigtimedwait(&set, nullptr, &tick) > 0) onSignal_();
      }
    });
  }
  ~SignalWatcher() {
    stop_ = true;
    thread_.join();
  }
  // Call before any thread starts, so that every thread inherits the mask.
  static void blockInThisThread() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
  }

 private:
  std::function<void()> onSignal_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string clientLine(const host::ChannelHost::ClientInfo& c) {
  const std::time_t t = std::chrono::system_clock::to_time_t(c.since);
  char when[16];
  std::tm tm{};
  localtime_r(&t, &tm);
  std::strftime(when, sizeof when, "%H:%M:%S", &tm);
  char line[160];
  snprintf(line, sizeof line, "#%-3llu %-22s %-8s since %s", static_cast<unsigned long long>(c.id), c.peer.c_str(),
           c.json ? "json" : "standard", when);
  return line;
}

}  // namespace

int runApplication(const std::vector<std::string>& paths) {
  SignalWatcher::blockInThisThread();

  uint16_t port = 0;
  std::string error;
  if (!host::ChannelHost::portFromEnvironment(port, error)) {
    fprintf(stderr, "kavlen: %s\n", error.c_str());
    return 2;
  }

  host::MainLoop loop;
  host::WorkerPool workers;
  host::ChannelHost channels(loop);

  GlfwWaiter glfwWaiter;
  glfwSetErrorCallback([](int, const char* what) { fprintf(stderr, "[kavlen] GLFW: %s\n", what); });
  const bool windows = glfwInit() == GLFW_TRUE;
  if (windows)
    loop.setWaiter(&glfwWaiter);
  else
    fprintf(stderr, "[kavlen] no display: serving the channels without windows\n");

  bool ending = false;
  auto terminate = [&] {
    if (ending) return;
    ending = true;
    loop.quit();
  };

  auto outputsOwner = std::make_unique<output::OutputWindowManager>(loop, windows);
  output::OutputWindowManager& outputs = *outputsOwner;
  // Paths from the command line wait for the interface's "ready".
  outputs.openFiles(paths);

  std::unique_ptr<MainWindow> window;
  if (windows) {
    window = MainWindow::create(terminate);
    if (!window) fprintf(stderr, "[kavlen] the main window could not be made\n");
  }

  outputs.attachMain(channels);
  exporter::VideoExportPlugin::registerWith(channels, loop, workers);
  vision::VisionPlugin::registerWith(channels, loop, workers);
  services::WaveformPlugin::registerWith(channels, loop, workers);
  capture::AudioInputPlugin::registerWith(channels, loop);
  services::ThumbnailPlugin::registerWith(channels, loop, workers);

  ConsoleServer console(ConsoleServer::findRoot(), &outputs);
  channels.setHttpHandler([&console](const host::HttpRequest& request, std::function<void(host::HttpResponse)> respond) {
    respond(console.handle(request));
  });

  if (!channels.start(port, error)) {
    fprintf(stderr, "kavlen: %s\n", error.c_str());
    window.reset();
    outputsOwner.reset();
    if (windows) glfwTerminate();
    return 1;
  }

  fprintf(stderr, "[kavlen] console on http://127.0.0.1:%u/ (files in %s)\n", unsigned(channels.port()),
          console.root().c_str());

  auto refreshMonitor = [&] {
    if (!window) return;
    MonitorState s;
    s.channels = "ws://127.0.0.1:" + std::to_string(channels.port()) + "/channels";
    s.console = "http://127.0.0.1:" + std::to_string(channels.port()) + "/";
    for (const auto& c : channels.clients()) s.clients.push_back(clientLine(c));
    for (output::Preview& p : outputs.previews(320, 180))
      s.outputs.push_back({p.id, p.where, std::move(p.rgba), p.width, p.height});
    window->setState(std::move(s));
  };
  channels.setClientsChanged(refreshMonitor);
  outputs.onChange = refreshMonitor;
  refreshMonitor();

  if (window) {
    if (const char* env = std::getenv("KAVLEN_WINDOW")) {
      if (auto p = parseWindowPlacement(env)) {
        MainWindow* w = window.get();
        loop.postAfter(std::chrono::seconds(1), [&window, w, p = *p] {
          if (window.get() == w) w->applyPlacement(p);
        });
      }
    }
  }

  SignalWatcher signals([&] { loop.post(terminate); });
  loop.run();

  outputs.closeAll();
  // Captures stop before the loop their answers go to is gone.
  capture::AudioInput::shared().stopAll();
  capture::AudioInput::shared().isRunning();
  channels.stop();
  // Dropping the export handler drops its plug-in, which cancels a movie
  // being rendered, so the workers can be joined at once.
  channels.setMethodHandler(exporter::VideoExportPlugin::kChannel, {});
  channels.setHttpHandler(nullptr);
  workers.shutdown();
  window.reset();
  outputsOwner.reset();
#if defined(__SANITIZE_ADDRESS__)
  // Under the leak checker: check now, while the GL driver is still loaded;
  // glfwTerminate unloads it, and what it leaked could then no longer be
  // named (nor suppressed).
  __lsan_do_leak_check();
#endif
  if (windows) glfwTerminate();
  fprintf(stderr, "[kavlen] bye\n");
  return 0;
}

}  // namespace kavlen::app
