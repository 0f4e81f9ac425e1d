#include "main_loop.h"

#include <atomic>

namespace kavlen::host {

// The plain waiter: a flag under a condition variable, so a wake() that comes
// before the wait is not lost.
struct MainLoop::CondWaiter final : Waiter {
  std::mutex m;
  std::condition_variable cv;
  bool woken = false;

  void wait(double seconds) override {
    std::unique_lock lock(m);
    if (seconds < 0) {
      cv.wait(lock, [&] { return woken; });
    } else {
      cv.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return woken; });
    }
    woken = false;
  }
  void wake() override {
    {
      std::lock_guard lock(m);
      woken = true;
    }
    cv.notify_one();
  }
};

MainLoop::MainLoop() : thread_(std::this_thread::get_id()), condWaiter_(new CondWaiter), waiter_(condWaiter_.get()) {}

MainLoop::~MainLoop() = default;

void MainLoop::setWaiter(Waiter* waiter) {
  std::lock_guard lock(mutex_);
  waiter_ = waiter ? waiter : condWaiter_.get();
}

void MainLoop::post(Task task) {
  Waiter* w;
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    w = waiter_;
  }
  w->wake();
}

uint64_t MainLoop::postAfter(Clock::duration delay, Task task) {
  if (delay < Clock::duration::zero()) delay = Clock::duration::zero();
  Waiter* w;
  uint64_t id;
  {
    std::lock_guard lock(mutex_);
    id = nextTimer_++;
    timers_.emplace(Clock::now() + delay, std::make_pair(id, std::move(task)));
    w = waiter_;
  }
  w->wake();
  return id;
}

void MainLoop::cancel(uint64_t timerId) {
  std::lock_guard lock(mutex_);
  for (auto it = timers_.begin(); it != timers_.end(); ++it) {
    if (it->second.first == timerId) {
      timers_.erase(it);
      return;
    }
  }
}

void MainLoop::quit() {
  Waiter* w;
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
    w = waiter_;
  }
  w->wake();
}

bool MainLoop::quitting() const {
  std::lock_guard lock(mutex_);
  return quit_;
}

// Runs the tasks queued now and the timers due now; tasks posted meanwhile
// wait for the next round, so a task that re-posts itself cannot starve
// the waiter (window events).
bool MainLoop::runReady() {
  std::deque<Task> batch;
  std::vector<Task> due;
  {
    std::lock_guard lock(mutex_);
    if (quit_) return false;
    batch.swap(tasks_);
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
      due.push_back(std::move(timers_.begin()->second.second));
      timers_.erase(timers_.begin());
    }
  }
  for (auto& t : batch) {
    if (quitting()) return false;
    t();
  }
  for (auto& t : due) {
    if (quitting()) return false;
    t();
  }
  return true;
}

double MainLoop::secondsToNextTimer() {
  std::lock_guard lock(mutex_);
  if (!tasks_.empty() || quit_) return 0;
  if (timers_.empty()) return -1;
  const double s = std::chrono::duration<double>(timers_.begin()->first - Clock::now()).count();
  return s < 0 ? 0 : s;
}

bool MainLoop::runFor(Clock::duration timeout) {
  thread_ = std::this_thread::get_id();
  if (!runReady()) return false;
  double wait = secondsToNextTimer();
  const double limit = std::chrono::duration<double>(timeout).count();
  if (wait < 0 || wait > limit) wait = limit;
  Waiter* w;
  {
    std::lock_guard lock(mutex_);
    w = waiter_;
  }
  if (wait > 0) w->wait(wait);
  return runReady();
}

bool MainLoop::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
  const auto end = Clock::now() + timeout;
  while (!done()) {
    const auto now = Clock::now();
    if (now >= end) return false;
    if (!runFor(std::min<Clock::duration>(end - now, std::chrono::milliseconds(50)))) return done();
  }
  return true;
}

void MainLoop::run() {
  thread_ = std::this_thread::get_id();
  while (runReady()) {
    double wait = secondsToNextTimer();
    Waiter* w;
    {
      std::lock_guard lock(mutex_);
      w = waiter_;
    }
    if (wait != 0) w->wait(wait);
  }
}

}  // namespace kavlen::host
