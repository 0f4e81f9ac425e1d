#include "workers.h"

#include <algorithm>

namespace kavlen::host {

WorkerPool::WorkerPool(unsigned threads) {
  if (threads == 0) threads = std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
  threads_.reserve(threads);
  for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this] { workerMain(); });
}

WorkerPool::~WorkerPool() { shutdown(); }

bool WorkerPool::submit(Task task) {
  {
    std::lock_guard lock(mutex_);
    if (stop_) return false;
    tasks_.push_back(std::move(task));
  }
  cv_.notify_one();
  return true;
}

void WorkerPool::shutdown() {
  {
    std::lock_guard lock(mutex_);
    if (stop_ && threads_.empty()) return;
    stop_ = true;
    tasks_.clear();
  }
  cv_.notify_all();
  for (auto& t : threads_)
    if (t.joinable()) t.join();
  threads_.clear();
}

void WorkerPool::workerMain() {
  for (;;) {
    Task task;
    {
      std::unique_lock lock(mutex_);
      cv_.wait(lock, [&] { return stop_ || !tasks_.empty(); });
      if (stop_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

SerialQueue::SerialQueue(std::string name) : name_(std::move(name)), thread_([this] { queueMain(); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
    tasks_.clear();
  }
  cv_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(Task task) { asyncAfter(Clock::duration::zero(), std::move(task)); }

void SerialQueue::asyncAfter(Clock::duration delay, Task task) {
  {
    std::lock_guard lock(mutex_);
    if (stop_) return;
    // A multimap keeps equal keys in insertion order, so tasks due at the
    // same moment run in the order they were queued.
    tasks_.emplace(Clock::now() + std::max(delay, Clock::duration::zero()), std::move(task));
  }
  cv_.notify_all();
}

void SerialQueue::sync(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  async([&] {
    task();
    std::lock_guard lock(m);
    done = true;
    cv.notify_all();
  });
  std::unique_lock lock(m);
  // A queue destroyed meanwhile drops the task: stop waiting then too.
  while (!cv.wait_for(lock, std::chrono::milliseconds(50), [&] { return done; })) {
    std::lock_guard qlock(mutex_);
    if (stop_) return;
  }
}

void SerialQueue::queueMain() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stop_) return;
    if (tasks_.empty()) {
      cv_.wait(lock);
      continue;
    }
    auto first = tasks_.begin();
    if (first->first > Clock::now()) {
      // A copy: the destructor may drop the task (and its key) while we wait.
      const Clock::time_point due = first->first;
      cv_.wait_until(lock, due);
      continue;
    }
    Task task = std::move(first->second);
    tasks_.erase(first);
    lock.unlock();
    task();
    lock.lock();
  }
}

}  // namespace kavlen::host
