// Two threads for the passes over a power stream: a pipeline of two stages
// (runTwoStages), and the same work on both threads (runOnTwoThreads).
//
// Items 0, 1, 2, ... pass two stages: `first(i)` on a helper thread, then
// `second(i)` on the calling thread, in item order, the first stage at most
// `depth` items ahead, so that `depth` buffers suffice (item i uses buffer
// i % depth). A stage returns false to make item i the last: after `first`
// says so, `second` still runs for that item; after `second` says so,
// nothing more runs. What `first(i)` wrote is visible to `second(i)`, and
// what `second(i)` read may be overwritten by `first(i + depth)` only after
// it returned.
//
// An exception in either stage ends both; the first one is rethrown here
// once the helper has ended. Without a helper thread (none to be had, or
// `twoThreads` false) the caller runs both stages item by item.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

namespace VSKTspServer {

template <typename First, typename Second>
void runTwoStages(bool twoThreads, uint64_t depth, First&& first, Second&& second) {
  std::mutex mutex;
  std::condition_variable changed;
  uint64_t produced = 0;       // guarded by mutex: items through the first stage
  uint64_t consumed = 0;       // guarded by mutex: items through the second stage
  bool producerDone = false;   // guarded by mutex
  bool consumerDone = false;   // guarded by mutex
  std::exception_ptr failure;  // the helper's; read after the join
  const auto finish = [&](bool& done) {
    {
      std::lock_guard lock(mutex);
      done = true;
    }
    changed.notify_all();
  };
  const auto produce = [&] {
    try {
      for (uint64_t i = 0;; ++i) {
        {
          std::unique_lock lock(mutex);
          changed.wait(lock, [&] { return consumerDone || i - consumed < depth; });
          if (consumerDone) break;
        }
        const bool more = first(i);
        {
          std::lock_guard lock(mutex);
          produced = i + 1;
        }
        changed.notify_all();
        if (!more) break;
      }
    } catch (...) {
      failure = std::current_exception();
    }
    finish(producerDone);
  };

  std::thread helper;
  if (twoThreads) {
    try {
      helper = std::thread(produce);
    } catch (const std::system_error&) {
      // No second thread to be had: this one does it all below.
    }
  }
  if (!helper.joinable()) {
    for (uint64_t i = 0;; ++i) {
      const bool more = first(i);
      if (!second(i) || !more) return;
    }
  }
  try {
    for (uint64_t i = 0;; ++i) {
      {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return produced > i || producerDone; });
        if (produced <= i) break;
      }
      const bool more = second(i);
      {
        std::lock_guard lock(mutex);
        consumed = i + 1;
      }
      changed.notify_all();
      if (!more) break;
    }
  } catch (...) {
    finish(consumerDone);
    helper.join();
    throw;
  }
  finish(consumerDone);
  helper.join();
  if (failure) std::rethrow_exception(failure);
}

// Runs `work()` on a helper thread and on the calling thread at once (only
// here when no helper can be had) and returns when both are done; the first
// exception of either is rethrown here. `work` shares its items out itself,
// so a thread that gets no processor on a loaded machine simply takes fewer.
template <typename Work>
void runOnTwoThreads(Work&& work) {
  std::exception_ptr helperFailure, ownFailure;
  std::thread helper;
  try {
    helper = std::thread([&] {
      try {
        work();
      } catch (...) {
        helperFailure = std::current_exception();
      }
    });
  } catch (const std::system_error&) {
    // No second thread to be had: this one does all the work.
  }
  try {
    work();
  } catch (...) {
    ownFailure = std::current_exception();
  }
  if (helper.joinable()) helper.join();
  if (ownFailure) std::rethrow_exception(ownFailure);
  if (helperFailure) std::rethrow_exception(helperFailure);
}

}  // namespace VSKTspServer
