// WorkQueue: the one worker thread of the process.
//
// Every command of every connection and every deferred promise resolve runs
// here, one at a time, in the order of posting. A task that does not return
// stops every later command, so tasks never wait on the host.
//
// Thread-safe: post() may be called from any thread; it copies nothing but
// the task and takes one short lock. The instance lives from library load to
// unload; at unload tasks not yet started are destroyed without running.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class WorkQueue {
 public:
  using Task = std::function<void()>;

  WorkQueue();
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // An empty function is dropped.
  void post(Task task);

  // True on the worker thread itself.
  bool onWorker() const { return std::this_thread::get_id() == worker_.get_id(); }

  // Blocks until every task posted before this call has finished. Must not
  // be called on the worker thread (it would wait for itself).
  void drain();

  // The process-wide queue.
  static WorkQueue& instance();

 private:
  void run();

  std::deque<Task> tasks_;          // guarded by mutex_
  bool stop_ = false;               // guarded by mutex_
  uint64_t posted_ = 0;             // guarded by mutex_: tasks ever posted
  uint64_t finished_ = 0;           // guarded by mutex_: tasks run or dropped
  std::mutex mutex_;
  std::condition_variable wake_;    // new task or stop
  std::condition_variable progress_;  // a task finished
  std::thread worker_;
};
