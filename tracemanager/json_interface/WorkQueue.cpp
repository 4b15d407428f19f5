#include "json_interface/WorkQueue.hpp"

#include <exception>

#include "source_utilities/Logger.hpp"

WorkQueue::WorkQueue() : worker_([this] { run(); }) {}

WorkQueue::~WorkQueue() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
  // Tasks not yet started go without running.
  std::lock_guard<std::mutex> guard(mutex_);
  finished_ += tasks_.size();
  tasks_.clear();
  progress_.notify_all();
}

void WorkQueue::post(Task task) {
  if (!task) return;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    tasks_.push_back(std::move(task));
    ++posted_;
  }
  wake_.notify_one();
}

void WorkQueue::drain() {
  std::unique_lock<std::mutex> guard(mutex_);
  uint64_t target = posted_;
  progress_.wait(guard, [&] { return finished_ >= target || stop_; });
}

void WorkQueue::run() {
  std::unique_lock<std::mutex> guard(mutex_);
  for (;;) {
    wake_.wait(guard, [this] { return stop_ || !tasks_.empty(); });
    if (stop_) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    guard.unlock();
    try {
      task();
    } catch (const std::exception& e) {
      QX_LOG_ERROR("WorkQueue: a task ended with an exception: %s", e.what());
    } catch (...) {
      // Whatever a task throws, the worker must survive: every later command
      // of every connection depends on it.
      QX_LOG_ERROR("WorkQueue: a task ended with an exception of unknown type");
    }
    task = nullptr;  // destroyed with no lock held
    guard.lock();
    ++finished_;
    progress_.notify_all();
  }
}

WorkQueue& WorkQueue::instance() {
  // Built at load (see Exports.cpp) and destroyed first at unload.
  static WorkQueue queue;
  return queue;
}
