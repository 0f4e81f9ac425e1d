#include "output_window_manager.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cpu_output_sink.h"
#include "gl_output_sink.h"
#include "preview.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

namespace kavlen::output {

using host::MethodCall;
using host::MethodResult;
using host::Reply;
using host::Value;

struct OutputWindowManager::Output {
  std::unique_ptr<OutputSink> sink;
  std::optional<std::string> lastScene;
  Value connected;                    // the last size record, without "outputId"
  std::optional<std::string> screenName;
  PreviewCache preview;
};

namespace {

OutputWindowManager* managerOf(GLFWwindow* w) { return static_cast<OutputWindowManager*>(glfwGetWindowUserPointer(w)); }

std::vector<GLFWmonitor*> monitors() {
  int n = 0;
  GLFWmonitor** m = glfwGetMonitors(&n);
  return std::vector<GLFWmonitor*>(m, m + (m ? n : 0));
}

std::string nameOf(GLFWmonitor* m) {
  const char* n = glfwGetMonitorName(m);
  return n ? n : "";
}

// The monitor whose area holds the window's centre.
GLFWmonitor* monitorOf(GLFWwindow* w) {
  int x, y, ww, wh;
  glfwGetWindowPos(w, &x, &y);
  glfwGetWindowSize(w, &ww, &wh);
  const int cx = x + ww / 2, cy = y + wh / 2;
  for (GLFWmonitor* m : monitors()) {
    int mx, my;
    glfwGetMonitorPos(m, &mx, &my);
    const GLFWvidmode* mode = glfwGetVideoMode(m);
    if (mode && cx >= mx && cy >= my && cx < mx + mode->width && cy < my + mode->height) return m;
  }
  return nullptr;
}

}  // namespace

bool isProjectPath(const std::string& path) {
  static const std::string ext = ".kvln";
  if (path.size() < ext.size()) return false;
  for (size_t i = 0; i < ext.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(path[path.size() - ext.size() + i])) != ext[i]) return false;
  return true;
}

bool nativeOutputPreference() {
  std::string dir;
  if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x)
    dir = x;
  else if (const char* h = std::getenv("HOME"); h && *h)
    dir = std::string(h) + "/.local/share";
  else
    return true;
  std::ifstream in(dir + "/kavlen/shared_preferences.json");
  if (!in) return true;
  std::stringstream ss;
  ss << in.rdbuf();
  const auto j = nlohmann::json::parse(ss.str(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return true;
  auto it = j.find("flutter.nativeOutput");
  if (it == j.end() || !it->is_boolean()) return true;
  return it->get<bool>();
}

OutputWindowManager::OutputWindowManager(host::MainLoop& loop, bool windows) : loop_(loop), windows_(windows) {}

OutputWindowManager::~OutputWindowManager() {
  *alive_ = false;
  closeAll();
  if (windows_) glfwSetMonitorCallback(nullptr);
}

void OutputWindowManager::attachMain(host::Messenger& messenger) {
  displayChannel_ = std::make_unique<host::MethodChannel>(messenger, kDisplayChannel);
  displayChannel_->setMethodCallHandler([this](const MethodCall& call, Reply reply) { handleDisplay(call, reply); });
  filesChannel_ = std::make_unique<host::MethodChannel>(messenger, kFilesChannel);
  filesChannel_->setMethodCallHandler([this](const MethodCall& call, Reply reply) {
    if (call.method == "ready" && !pendingFiles_.empty()) {
      host::ValueList paths(pendingFiles_.begin(), pendingFiles_.end());
      pendingFiles_.clear();
      filesChannel_->invokeMethod("openFiles", Value(std::move(paths)));
    }
    reply(MethodResult::success());
  });
  if (!windows_) return;

  // The monitor callback stands for the screen-change notice; it comes from
  // inside GLFW's event processing, so the work is posted to the loop.
  static OutputWindowManager* current = nullptr;
  current = this;
  glfwSetMonitorCallback([](GLFWmonitor*, int) {
    if (current) {
      OutputWindowManager* m = current;
      std::weak_ptr<bool> alive = m->alive_;
      m->loop_.post([m, alive] {
        if (auto a = alive.lock(); a && *a) m->screensChanged();
      });
    }
  });

  const auto ms = monitors();
  if (ms.size() > 1) openOutput(kDefaultOutput, nameOf(ms[1]));
  if (const char* env = std::getenv("KAVLEN_OUTPUT"); env && std::string(env) == "1") {
    std::weak_ptr<bool> alive = alive_;
    loop_.postAfter(std::chrono::seconds(1), [this, alive] {
      auto a = alive.lock();
      if (a && *a && !outputs_.count(kDefaultOutput)) openOutput(kDefaultOutput, std::nullopt);
    });
  }
}

void OutputWindowManager::send(const std::string& method, const Value& args) {
  if (dartReady_ && displayChannel_) displayChannel_->invokeMethod(method, args);
}

void OutputWindowManager::handleDisplay(const MethodCall& call, Reply reply) {
  // Arguments that are no map count as an empty map; a default also applies
  // when a value has another type.
  const Value& a = call.args;
  const std::string id = a.getString("outputId").value_or(kDefaultOutput);
  if (call.method == "ready") {
    dartReady_ = true;
    if (auto root = a.getString("mediaRoot"); root && !root->empty()) mediaRoot_ = *root;
    for (auto& [oid, o] : outputs_) {
      Value record = o->connected.isMap() ? o->connected : Value(host::ValueMap{});
      record.set("outputId", Value(oid));
      send("displayConnected", record);
    }
    reply(MethodResult::success());
  } else if (call.method == "setScene") {
    auto oid = a.getString("outputId");
    auto json = a.getString("json");
    if (oid && json) {
      lastScenes_[*oid] = *json;
      if (auto it = outputs_.find(*oid); it != outputs_.end()) {
        it->second->lastScene = *json;
        it->second->sink->send(*json);
      }
      changed();
    }
    reply(MethodResult::success());
  } else if (call.method == "openOutput") {
    openOutput(id, a.getString("displayId"));
    reply(MethodResult::success());
  } else if (call.method == "closeOutput") {
    closeOutput(id);
    reply(MethodResult::success());
  } else if (call.method == "listDisplays") {
    reply(MethodResult::success(listDisplays()));
  } else {
    reply(MethodResult::notImplemented());
  }
}

Value OutputWindowManager::listDisplays() const {
  host::ValueList list;
  if (!windows_) return Value(std::move(list));
  const auto ms = monitors();
  for (size_t i = 0; i < ms.size(); ++i) {
    const GLFWvidmode* mode = glfwGetVideoMode(ms[i]);
    float sx = 1, sy = 1;
    glfwGetMonitorContentScale(ms[i], &sx, &sy);
    const std::string name = nameOf(ms[i]);
    list.push_back(Value::map({{"id", name},
                               {"name", name},
                               {"width", mode ? mode->width / static_cast<double>(sx) : 0.0},
                               {"height", mode ? mode->height / static_cast<double>(sy) : 0.0},
                               {"scale", static_cast<double>(sx)},
                               {"main", i == 0}}));
  }
  return Value(std::move(list));
}

std::unique_ptr<OutputSink> OutputWindowManager::makeSink(const std::string& id) {
  std::weak_ptr<bool> alive = alive_;
  auto root = [this, alive] {
    auto a = alive.lock();
    return a && *a ? mediaRoot_ : std::string();
  };
  const std::string title = "Kavlen · " + id;
  std::unique_ptr<OutputSink> sink;
  if (nativeOutputPreference()) sink = GlOutputSink::create(title, root);
  if (!sink) sink = CpuOutputSink::create(title, root);
  return sink;
}

void OutputWindowManager::openOutput(const std::string& id, const std::optional<std::string>& displayId) {
  if (!windows_) {
    fprintf(stderr, "[kavlen] não foi possível iniciar a engine de saída\n");
    return;
  }
  if (outputs_.count(id)) closeOutput(id);
  std::unique_ptr<OutputSink> sink = makeSink(id);
  if (!sink) {
    fprintf(stderr, "[kavlen] não foi possível iniciar a engine de saída\n");
    return;
  }
  GLFWmonitor* screen = nullptr;
  if (displayId)
    for (GLFWmonitor* m : monitors())
      if (nameOf(m) == *displayId) {
        screen = m;
        break;
      }

  GLFWwindow* w = sink->window();
  const int n = static_cast<int>(outputs_.size());
  int fx = 80 + 40 * n, fy = 80, fw = 960, fh = 540;
  if (screen) {
    const GLFWvidmode* mode = glfwGetVideoMode(screen);
    glfwGetMonitorPos(screen, &fx, &fy);
    fw = mode ? mode->width : 960;
    fh = mode ? mode->height : 540;
    // Borderless over the whole display, above other windows.
    glfwSetWindowAttrib(w, GLFW_DECORATED, GLFW_FALSE);
    glfwSetWindowAttrib(w, GLFW_FLOATING, GLFW_TRUE);
    glfwSetWindowAttrib(w, GLFW_RESIZABLE, GLFW_FALSE);
  } else {
    glfwSetWindowTitle(w, ("Kavlen · " + id).c_str());
    glfwSetWindowAspectRatio(w, 16, 9);
  }
  glfwSetWindowUserPointer(w, this);
  glfwSetWindowSize(w, fw, fh);
  glfwSetWindowPos(w, fx, fy);
  glfwShowWindow(w);
  glfwFocusWindow(w);

  {
    int x, y, ww, wh;
    glfwGetWindowPos(w, &x, &y);
    glfwGetWindowSize(w, &ww, &wh);
    GLFWmonitor* on = monitorOf(w);
    fprintf(stderr, "[kavlen] saída %s em %s: frame={{%d, %d}, {%d, %d}} visível=%d tela=%s\n", id.c_str(),
            displayId ? displayId->c_str() : "janela", x, y, ww, wh, glfwGetWindowAttrib(w, GLFW_VISIBLE) ? 1 : 0,
            on ? nameOf(on).c_str() : "-");
  }

  auto out = std::make_unique<Output>();
  Output* o = out.get();
  o->sink = std::move(sink);
  o->screenName = screen ? std::optional<std::string>(nameOf(screen)) : std::nullopt;
  if (auto it = lastScenes_.find(id); it != lastScenes_.end()) o->lastScene = it->second;
  if (o->lastScene) o->sink->send(*o->lastScene);
  std::weak_ptr<bool> alive = alive_;
  o->sink->onReady = [this, alive, id, o] {
    auto a = alive.lock();
    if (!a || !*a) return;
    auto it = outputs_.find(id);
    if (it != outputs_.end() && it->second.get() == o && o->lastScene) o->sink->send(*o->lastScene);
  };
  glfwSetWindowCloseCallback(w, [](GLFWwindow* win) {
    OutputWindowManager* m = managerOf(win);
    glfwSetWindowShouldClose(win, GLFW_FALSE);
    if (auto oid = m->idOf(win)) {
      const std::string copy = *oid;
      // Closing destroys the window: not from inside its own callback.
      m->loop_.post([m, copy, alive = std::weak_ptr<bool>(m->alive_)] {
        if (auto a = alive.lock(); a && *a) m->closeOutput(copy);
      });
    }
  });
  glfwSetWindowSizeCallback(w, [](GLFWwindow* win, int width, int height) {
    // X reports the size set at opening once more, later: only a real change
    // is news for the interface.
    OutputWindowManager* m = managerOf(win);
    auto oid = m->idOf(win);
    if (!oid) return;
    const Value& c = m->outputs_[*oid]->connected;
    if (c.getDouble("width") != static_cast<double>(width) || c.getDouble("height") != static_cast<double>(height))
      m->reportSize(*oid);
  });
  glfwSetWindowRefreshCallback(w, [](GLFWwindow* win) {
    OutputWindowManager* m = managerOf(win);
    if (auto oid = m->idOf(win)) m->outputs_[*oid]->sink->invalidate();
  });
  outputs_[id] = std::move(out);
  reportSize(id);
  if (!frameTimer_) frameTick();
  changed();
}

void OutputWindowManager::closeOutput(const std::string& idRef) {
  const std::string id = idRef;  // the caller's text may be the map's own key
  auto it = outputs_.find(id);
  if (it == outputs_.end()) return;
  std::unique_ptr<Output> o = std::move(it->second);
  outputs_.erase(it);
  GLFWwindow* w = o->sink->window();
  glfwSetWindowUserPointer(w, nullptr);
  glfwSetWindowCloseCallback(w, nullptr);
  glfwSetWindowSizeCallback(w, nullptr);
  glfwSetWindowRefreshCallback(w, nullptr);
  o->sink->close();
  o.reset();  // destroys the window
  send("displayDisconnected", Value::map({{"outputId", id}}));
  changed();
}

void OutputWindowManager::closeAll() {
  while (!outputs_.empty()) closeOutput(outputs_.begin()->first);
}

void OutputWindowManager::reportSize(const std::string& id) {
  auto it = outputs_.find(id);
  if (it == outputs_.end()) return;
  GLFWwindow* w = it->second->sink->window();
  int ww = 0, wh = 0;
  glfwGetWindowSize(w, &ww, &wh);
  float sx = 1, sy = 1;
  glfwGetWindowContentScale(w, &sx, &sy);
  it->second->connected = Value::map({{"width", static_cast<double>(ww)},
                                      {"height", static_cast<double>(wh)},
                                      {"scale", static_cast<double>(sx)}});
  Value record = it->second->connected;
  record.set("outputId", Value(id));
  send("displayConnected", record);
}

void OutputWindowManager::screensChanged() {
  send("displaysChanged", Value());
  const auto ms = monitors();
  std::vector<std::string> names;
  for (GLFWmonitor* m : ms) names.push_back(nameOf(m));
  auto present = [&](const std::string& n) { return std::find(names.begin(), names.end(), n) != names.end(); };
  std::vector<std::string> lost;
  for (auto& [id, o] : outputs_)
    if (o->screenName && !present(*o->screenName)) lost.push_back(id);
  for (const std::string& id : lost) closeOutput(id);
  if (outputs_.count(kDefaultOutput)) return;
  for (size_t i = 1; i < ms.size(); ++i) {
    const std::string name = nameOf(ms[i]);
    bool taken = false;
    for (auto& [id, o] : outputs_) taken = taken || (o->screenName && *o->screenName == name);
    if (!taken) {
      openOutput(kDefaultOutput, name);
      return;
    }
  }
}

void OutputWindowManager::openFiles(const std::vector<std::string>& paths) {
  std::vector<std::string> kept;
  for (const std::string& p : paths)
    if (isProjectPath(p)) kept.push_back(p);
  if (kept.empty()) return;
  if (filesChannel_)
    filesChannel_->invokeMethod("openFiles", Value(host::ValueList(kept.begin(), kept.end())));
  else
    pendingFiles_.insert(pendingFiles_.end(), kept.begin(), kept.end());
}

std::optional<std::string> OutputWindowManager::idOf(GLFWwindow* window) const {
  for (const auto& [id, o] : outputs_)
    if (o->sink->window() == window) return id;
  return std::nullopt;
}

std::vector<std::string> OutputWindowManager::openIds() const {
  std::vector<std::string> ids;
  for (const auto& [id, o] : outputs_) ids.push_back(id);
  return ids;
}

std::optional<std::string> OutputWindowManager::lastScene(const std::string& id) const {
  auto it = lastScenes_.find(id);
  if (it == lastScenes_.end()) return std::nullopt;
  return it->second;
}

void OutputWindowManager::changed() {
  if (onChange) loop_.post([cb = onChange, alive = std::weak_ptr<bool>(alive_)] {
      if (auto a = alive.lock(); a && *a) cb();
    });
}

std::vector<Preview> OutputWindowManager::previews(int width, int height) {
  std::vector<Preview> out;
  for (auto& [id, o] : outputs_) {
    Preview p;
    p.id = id;
    p.where = o->screenName ? "display " + *o->screenName : std::string("window");
    if (o->lastScene && o->preview.render(*o->lastScene, width, height, mediaRoot_)) {
      p.rgba = o->preview.rgba();
      p.width = width;
      p.height = height;
    }
    out.push_back(std::move(p));
  }
  return out;
}

// Every open output draws at the refresh of the first display (60 Hz when
// it does not say); the loop stops ticking when no output is open.
void OutputWindowManager::frameTick() {
  frameTimer_ = 0;
  if (outputs_.empty()) return;
  for (auto& [id, o] : outputs_) o->sink->frame();
  int hz = 60;
  if (auto ms = monitors(); !ms.empty())
    if (const GLFWvidmode* mode = glfwGetVideoMode(ms[0]); mode && mode->refreshRate > 0) hz = mode->refreshRate;
  // Deadlines step by whole periods, so slow frames do not slow the rate
  // that follows; after a long stall the clock starts afresh.
  const auto period = std::chrono::microseconds(1000000 / hz);
  const auto now = host::MainLoop::Clock::now();
  nextFrame_ += period;
  if (nextFrame_ < now || nextFrame_ > now + 2 * period) nextFrame_ = now + period;
  std::weak_ptr<bool> alive = alive_;
  frameTimer_ = loop_.postAfter(nextFrame_ - now, [this, alive] {
    if (auto a = alive.lock(); a && *a) frameTick();
  });
}

}  // namespace kavlen::output
