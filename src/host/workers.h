// Background work off the main loop.
//
// `WorkerPool` runs independent tasks on a few threads (waveforms, thumbnails,
// detection, export). `SerialQueue` runs tasks one after another, in order, on
// its own thread, and can delay a task (restart timers of audio capture).
//
// Results go back to the main loop by posting: pool.submit([&loop, reply] {
// auto r = work(); loop.post([reply, r] { reply(r); }); }).
//
// Destruction: both stop taking tasks, drop what has not started, and join
// after the running task ends. Long tasks must watch their own cancel flag.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kavlen::host {

class WorkerPool {
 public:
  using Task = std::function<void()>;
  // 0 threads: one per core, at least 2 and at most 8.
  explicit WorkerPool(unsigned threads = 0);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // False once the pool is stopping.
  bool submit(Task task);
  // Drops pending tasks and joins the threads; later submits are refused.
  void shutdown();
  unsigned threadCount() const { return static_cast<unsigned>(threads_.size()); }

 private:
  void workerMain();
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

class SerialQueue {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;
  explicit SerialQueue(std::string name);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void async(Task task);
  void asyncAfter(Clock::duration delay, Task task);
  // Runs the task on the queue and waits for it; runs it at once when called
  // from the queue itself.
  void sync(const Task& task);
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }
  const std::string& name() const { return name_; }

 private:
  void queueMain();
  std::string name_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::multimap<Clock::time_point, Task> tasks_;  // ordered by time, then arrival
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace kavlen::host
