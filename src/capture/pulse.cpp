#include "pulse.h"

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <cstring>

namespace kavlen::capture::pulse {
namespace {

// How long any answer of the server may take before we give up on it: long
// enough for a loaded machine, short enough that a hung server cannot stall
// the audio-input queue for long.
constexpr pa_usec_t kAnswerTimeout = 3 * PA_USEC_PER_SEC;

class Lock {
 public:
  explicit Lock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
  ~Lock() { pa_threaded_mainloop_unlock(loop_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

}  // namespace

// A context on its own threaded main loop.
class Connection {
 public:
  using LostHook = void (*)(void* user);

  explicit Connection(const char* threadName) : threadName_(threadName) {}
  ~Connection() {
    if (!loop_) return;
    if (ctx_) {
      Lock lock(loop_);
      // No state callback while we disconnect ourselves: that is no loss.
      pa_context_set_state_callback(ctx_, nullptr, nullptr);
      pa_context_set_subscribe_callback(ctx_, nullptr, nullptr);
      pa_context_disconnect(ctx_);
    }
    pa_threaded_mainloop_stop(loop_);
    if (ctx_) pa_context_unref(ctx_);
    pa_threaded_mainloop_free(loop_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // `onLost` runs on the loop's thread when a ready connection fails.
  bool connect(std::string& error, LostHook onLost = nullptr, void* user = nullptr) {
    onLost_ = onLost;
    lostUser_ = user;
    loop_ = pa_threaded_mainloop_new();
    if (!loop_) {
      error = "servidor de som inacessível: sem memória";
      return false;
    }
    pa_threaded_mainloop_set_name(loop_, threadName_);
    ctx_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Kavlen");
    if (!ctx_) {
      error = "servidor de som inacessível: sem memória";
      return false;
    }
    pa_context_set_state_callback(ctx_, &Connection::onState, this);
    // Never spawn a daemon of our own: a show machine runs its server.
    if (pa_context_connect(ctx_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
        pa_threaded_mainloop_start(loop_) < 0) {
      error = std::string("servidor de som inacessível: ") + pa_strerror(pa_context_errno(ctx_));
      return false;
    }
    Lock lock(loop_);
    const bool settled = waitLocked([this] {
      const pa_context_state_t s = pa_context_get_state(ctx_);
      return s == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(s);
    });
    if (settled && pa_context_get_state(ctx_) == PA_CONTEXT_READY) return true;
    error = std::string("servidor de som inacessível: ") +
            (settled ? pa_strerror(pa_context_errno(ctx_)) : "sem resposta");
    return false;
  }

  bool ready() const {
    if (!loop_ || !ctx_) return false;
    Lock lock(loop_);
    return pa_context_get_state(ctx_) == PA_CONTEXT_READY;
  }

  pa_threaded_mainloop* loop() const { return loop_; }
  pa_context* context() const { return ctx_; }

  // With the loop locked: waits until `done()` or the answer timeout.
  template <typename Done>
  bool waitLocked(Done done) {
    struct Timer {
      Connection* self;
      bool fired = false;
    } timer{this};
    pa_time_event* ev = pa_context_rttime_new(
        ctx_, pa_rtclock_now() + kAnswerTimeout,
        [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* user) {
          auto* t = static_cast<Timer*>(user);
          t->fired = true;
          pa_threaded_mainloop_signal(t->self->loop_, 0);
        },
        &timer);
    while (!done() && !timer.fired) pa_threaded_mainloop_wait(loop_);
    if (ev) pa_threaded_mainloop_get_api(loop_)->time_free(ev);
    return done();
  }

  // With the loop locked: runs an operation to its end.
  bool finish(pa_operation* op, std::string& error) {
    if (!op) {
      error = pa_strerror(pa_context_errno(ctx_));
      return false;
    }
    pa_operation_set_state_callback(
        op, [](pa_operation*, void* self) { pa_threaded_mainloop_signal(static_cast<Connection*>(self)->loop_, 0); },
        this);
    const bool done = waitLocked([op] { return pa_operation_get_state(op) != PA_OPERATION_RUNNING; });
    if (!done) pa_operation_cancel(op);
    const bool ok = done && pa_operation_get_state(op) == PA_OPERATION_DONE;
    pa_operation_unref(op);
    if (!ok) error = done ? pa_strerror(pa_context_errno(ctx_)) : "o servidor de som não respondeu";
    return ok;
  }

  void signal() { pa_threaded_mainloop_signal(loop_, 0); }

 private:
  static void onState(pa_context* ctx, void* user) {
    auto* self = static_cast<Connection*>(user);
    const pa_context_state_t s = pa_context_get_state(ctx);
    if (s == PA_CONTEXT_READY) self->wasReady_ = true;
    if (!PA_CONTEXT_IS_GOOD(s) && self->wasReady_ && self->onLost_) self->onLost_(self->lostUser_);
    pa_threaded_mainloop_signal(self->loop_, 0);
  }

  const char* threadName_;
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* ctx_ = nullptr;
  bool wasReady_ = false;  // on the loop's thread
  LostHook onLost_ = nullptr;
  void* lostUser_ = nullptr;
};

bool querySources(std::vector<SourceInfo>* sources, std::optional<std::string>* defaultSource, std::string& error) {
  Connection c("kavlen-audio-q");
  if (!c.connect(error)) return false;
  Lock lock(c.loop());
  if (defaultSource) {
    defaultSource->reset();
    pa_operation* op = pa_context_get_server_info(
        c.context(),
        [](pa_context*, const pa_server_info* info, void* user) {
          auto* out = static_cast<std::optional<std::string>*>(user);
          if (info && info->default_source_name && *info->default_source_name) *out = info->default_source_name;
        },
        defaultSource);
    if (!c.finish(op, error)) return false;
  }
  if (sources) {
    sources->clear();
    pa_operation* op = pa_context_get_source_info_list(
        c.context(),
        [](pa_context*, const pa_source_info* i, int eol, void* user) {
          if (eol || !i || !i->name) return;
          SourceInfo s;
          s.name = i->name;
          s.description = i->description && *i->description ? i->description : i->name;
          s.channels = i->sample_spec.channels;
          s.rate = static_cast<int>(i->sample_spec.rate);
          static_cast<std::vector<SourceInfo>*>(user)->push_back(std::move(s));
        },
        sources);
    if (!c.finish(op, error)) return false;
  }
  return true;
}

// The record stream and what its read callback needs. The callback reads
// `tap`, `user` and `frameBytes`, which only change while no stream exists.
struct RecordEngine::StreamState {
  pa_stream* stream = nullptr;
  pa_channel_map map{};
  Tap tap = nullptr;
  void* user = nullptr;
  size_t frameBytes = 0;

  // The capture thread: hand every fragment to the tap, as it is, with no
  // copy and no allocation of ours.
  static void onRead(pa_stream* s, size_t, void* self) {
    auto* st = static_cast<StreamState*>(self);
    while (pa_stream_readable_size(s) > 0) {
      const void* data = nullptr;
      size_t bytes = 0;
      if (pa_stream_peek(s, &data, &bytes) < 0 || bytes == 0) return;
      // A hole (data null) is dropped: the analyser only sees real samples.
      if (data) st->tap(st->user, static_cast<const float*>(data), bytes / st->frameBytes);
      pa_stream_drop(s);
    }
  }
};

RecordEngine::RecordEngine() : stream_(std::make_unique<StreamState>()) {}

RecordEngine::~RecordEngine() {
  closeStream();
  conn_.reset();
}

bool RecordEngine::connect(CaptureError& error) {
  if (conn_ && conn_->ready()) return true;
  closeStream();
  conn_ = std::make_unique<Connection>("kavlen-capture");
  std::string why;
  if (conn_->connect(why)) return true;
  conn_.reset();
  error = {"pulseaudio", PA_ERR_CONNECTIONREFUSED, why};
  return false;
}

bool RecordEngine::open(const std::optional<std::string>& source, bool isDefault, CaptureError& error) {
  if (!connect(error)) return false;
  if (!source) {
    error = {"kavlen", 2, "sem entrada"};
    return false;
  }
  struct Found {
    bool found = false;
    pa_sample_spec spec{};
    pa_channel_map map{};
  } found;
  {
    Lock lock(conn_->loop());
    pa_operation* op = pa_context_get_source_info_by_name(
        conn_->context(), source->c_str(),
        [](pa_context*, const pa_source_info* i, int eol, void* user) {
          if (eol || !i) return;
          auto* f = static_cast<Found*>(user);
          f->found = true;
          f->spec = i->sample_spec;
          f->map = i->channel_map;
        },
        &found);
    std::string why;
    conn_->finish(op, why);  // an unknown name ends the operation with an error: not found
  }
  if (!found.found) {
    error = isDefault ? CaptureError{"kavlen", 2, "sem entrada"}
                      : CaptureError{"kavlen", 1, "aparelho não encontrado: " + *source};
    return false;
  }
  if (found.spec.channels == 0 || found.spec.rate == 0) {
    error = {"kavlen", 2, "sem entrada"};
    return false;
  }
  source_ = *source;
  channels_ = found.spec.channels;
  rate_ = static_cast<int>(found.spec.rate);
  stream_->map = found.map;
  return true;
}

bool RecordEngine::start(Tap tap, void* user, CaptureError& error) {
  if (channels_ == 0) {
    error = {"kavlen", 2, "sem entrada"};
    return false;
  }
  if (!connect(error)) return false;
  closeStream();
  Lock lock(conn_->loop());
  StreamState& st = *stream_;
  st.tap = tap;
  st.user = user;
  st.frameBytes = sizeof(float) * static_cast<size_t>(channels_);
  const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, static_cast<uint32_t>(rate_), static_cast<uint8_t>(channels_)};
  // The device's own channel map, so channel i of a frame is channel i of
  // the device and the server does no remixing.
  const pa_channel_map* map = pa_channel_map_valid(&st.map) && st.map.channels == channels_ ? &st.map : nullptr;
  st.stream = pa_stream_new(conn_->context(), "Kavlen capture", &spec, map);
  if (!st.stream) {
    error = {"pulseaudio", pa_context_errno(conn_->context()), pa_strerror(pa_context_errno(conn_->context()))};
    return false;
  }
  pa_stream_set_state_callback(
      st.stream, [](pa_stream*, void* c) { static_cast<Connection*>(c)->signal(); }, conn_.get());
  pa_stream_set_read_callback(st.stream, &StreamState::onRead, &st);
  // Fragments of one analysis block (512 frames): the server hands each
  // block over as soon as it is there instead of batching them.
  pa_buffer_attr attr;
  attr.maxlength = static_cast<uint32_t>(-1);
  attr.tlength = static_cast<uint32_t>(-1);
  attr.prebuf = static_cast<uint32_t>(-1);
  attr.minreq = static_cast<uint32_t>(-1);
  attr.fragsize = static_cast<uint32_t>(512 * st.frameBytes);
  // Not moved to another source when this one goes: a capture is of one
  // device, and its loss is what restarts the capture.
  const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
  bool ok = pa_stream_connect_record(st.stream, source_.c_str(), &attr, flags) == 0 &&
            conn_->waitLocked([&st] {
              const pa_stream_state_t s = pa_stream_get_state(st.stream);
              return s == PA_STREAM_READY || !PA_STREAM_IS_GOOD(s);
            }) &&
            pa_stream_get_state(st.stream) == PA_STREAM_READY;
  if (!ok) {
    const int code = pa_context_errno(conn_->context());
    error = {"pulseaudio", code, code ? pa_strerror(code) : "o servidor de som não respondeu"};
    pa_stream_set_read_callback(st.stream, nullptr, nullptr);
    pa_stream_set_state_callback(st.stream, nullptr, nullptr);
    pa_stream_disconnect(st.stream);
    pa_stream_unref(st.stream);
    st.stream = nullptr;
    return false;
  }
  streamIndex_ = pa_stream_get_index(st.stream);
  sourceIndex_ = pa_stream_get_device_index(st.stream);
  return true;
}

void RecordEngine::closeStream() {
  if (!conn_ || !stream_->stream) return;
  Lock lock(conn_->loop());
  pa_stream* s = stream_->stream;
  pa_stream_set_read_callback(s, nullptr, nullptr);
  pa_stream_set_state_callback(s, nullptr, nullptr);
  pa_stream_disconnect(s);
  pa_stream_unref(s);
  stream_->stream = nullptr;
}

void RecordEngine::stop() { closeStream(); }

bool RecordEngine::isRunning() const {
  if (!conn_ || !stream_->stream) return false;
  Lock lock(conn_->loop());
  return pa_context_get_state(conn_->context()) == PA_CONTEXT_READY &&
         pa_stream_get_state(stream_->stream) == PA_STREAM_READY;
}

Watcher::Watcher(Handler handler) : handler_(std::move(handler)) {}

Watcher::~Watcher() { conn_.reset(); }

void Watcher::emit(const ServerEvent& e) {
  if (handler_) handler_(e);
}

bool Watcher::start(std::string& error) {
  conn_ = std::make_unique<Connection>("kavlen-audio-ev");
  auto lost = [](void* self) {
    auto* w = static_cast<Watcher*>(self);
    w->alive_ = false;
    w->emit({ServerEvent::Kind::ConnectionLost});
  };
  if (!conn_->connect(error, lost, this)) {
    conn_.reset();
    return false;
  }
  Lock lock(conn_->loop());
  pa_context* ctx = conn_->context();
  std::optional<std::string> def;
  pa_operation* op = pa_context_get_server_info(
      ctx,
      [](pa_context*, const pa_server_info* info, void* user) {
        if (info && info->default_source_name) *static_cast<std::optional<std::string>*>(user) = info->default_source_name;
      },
      &def);
  if (!conn_->finish(op, error)) return false;
  defaultSource_ = def.value_or("");
  pa_context_set_subscribe_callback(
      ctx,
      [](pa_context* c, pa_subscription_event_type_t t, uint32_t index, void* self) {
        onEvent(c, static_cast<int>(t), index, self);
      },
      this);
  const auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                                        PA_SUBSCRIPTION_MASK_SERVER);
  if (!conn_->finish(pa_context_subscribe(ctx, mask, nullptr, nullptr), error)) return false;
  alive_ = true;
  return true;
}

// On the watcher's thread. Source changes (volume, suspend, a stream
// starting) are not configuration changes; removals and a new default are.
void Watcher::onEvent(void* context, int facilityAndType, uint32_t index, void* self) {
  auto* w = static_cast<Watcher*>(self);
  const int facility = facilityAndType & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
  const int type = facilityAndType & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
  if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && type == PA_SUBSCRIPTION_EVENT_REMOVE) {
    w->emit({ServerEvent::Kind::SourceRemoved, index});
  } else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT && type == PA_SUBSCRIPTION_EVENT_REMOVE) {
    w->emit({ServerEvent::Kind::StreamRemoved, index});
  } else if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
    pa_operation* op = pa_context_get_server_info(
        static_cast<pa_context*>(context),
        [](pa_context*, const pa_server_info* info, void* user) {
          if (!info) return;  // the connection is closing
          auto* me = static_cast<Watcher*>(user);
          const std::string now = info->default_source_name ? info->default_source_name : "";
          if (now == me->defaultSource_) return;
          me->defaultSource_ = now;
          me->emit({ServerEvent::Kind::DefaultChanged});
        },
        w);
    if (op) pa_operation_unref(op);
  }
}

}  // namespace kavlen::capture::pulse

#if defined(__SANITIZE_THREAD__)
// The client library passes packets between its threads through lock-free
// lists and a shared-memory ring, and hands some of its mutexes from thread to
// thread, ordered by atomics of its own: the race detector sees only the
// library's memcpy and mutex calls, not that order.
extern "C" const char* __tsan_default_suppressions() {
  return "race:pa_srbchannel_read\n"
         "race:pa_packet_new_data\n"
         "race:pa_mutex_lock\n";
}
#endif
