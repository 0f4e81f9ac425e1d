// The host's main loop: the one thread on which channel handlers, window and
// display events, timers and the results of background work run.
//
//   MainLoop loop;                         // the thread that calls run() is the main thread
//   loop.post([] { ... });                 // from any thread
//   loop.postAfter(std::chrono::seconds(1), [] { ... });
//   loop.run();                            // until quit()
//
// While it waits, the loop blocks in its `Waiter`. The plain waiter sleeps on
// a condition variable; the application installs one that waits for window
// events instead (GLFW), so windows and tasks share the thread. Tasks posted
// while the loop is not running wait until it runs. A task that throws ends
// run() with that exception.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace kavlen::host {

class MainLoop {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  struct Waiter {
    virtual ~Waiter() = default;
    // Blocks for at most `seconds` (forever when negative) or until wake().
    virtual void wait(double seconds) = 0;
    // Ends a wait from any thread.
    virtual void wake() = 0;
  };

  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  void post(Task task);
  // Returns an id for cancel(). Delays below zero count as zero.
  uint64_t postAfter(Clock::duration delay, Task task);
  void cancel(uint64_t timerId);

  // Runs tasks and due timers until quit(). The calling thread becomes the
  // loop's thread.
  void run();
  // Runs what is ready, waiting at most `timeout` for something to become
  // ready; returns false once quit() was called. For tests and nested pumping.
  bool runFor(Clock::duration timeout);
  // Runs until `done()` is true or `timeout` passes; returns done().
  bool runUntil(const std::function<bool()>& done, Clock::duration timeout);
  void quit();
  bool quitting() const;

  // True on the thread that last ran (or runs) the loop.
  bool isLoopThread() const { return std::this_thread::get_id() == thread_.load(); }

  // Installs the waiter (nullptr: the plain one). Call before run().
  void setWaiter(Waiter* waiter);

 private:
  struct CondWaiter;
  bool runReady();
  double secondsToNextTimer();

  mutable std::mutex mutex_;
  std::deque<Task> tasks_;
  std::multimap<Clock::time_point, std::pair<uint64_t, Task>> timers_;
  uint64_t nextTimer_ = 1;
  bool quit_ = false;
  std::atomic<std::thread::id> thread_;
  std::unique_ptr<CondWaiter> condWaiter_;
  Waiter* waiter_;
};

}  // namespace kavlen::host
