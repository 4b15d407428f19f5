#include "json_interface/WorkQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "json_interface/promise.hpp"

TEST(WorkQueueTest, RunsTasksInPostingOrderOnOneThread) {
  WorkQueue queue;
  std::vector<int> order;  // touched by the worker only
  std::thread::id worker;
  for (int i = 0; i < 100; ++i) {
    queue.post([&, i] {
      if (i == 0) worker = std::this_thread::get_id();
      EXPECT_EQ(std::this_thread::get_id(), worker);
      order.push_back(i);
    });
  }
  queue.post(nullptr);  // dropped
  queue.drain();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

TEST(WorkQueueTest, WorkerSurvivesAnyException) {
  WorkQueue queue;
  std::atomic<int> after{0};
  queue.post([] { throw std::runtime_error("a"); });
  queue.post([] { throw 42; });  // not a std::exception
  queue.post([&] { ++after; });
  queue.drain();
  EXPECT_EQ(after.load(), 1);
}

TEST(WorkQueueTest, PostsFromManyThreadsAllRun) {
  WorkQueue queue;
  std::atomic<int> ran{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) queue.post([&] { ++ran; });
    });
  }
  for (auto& p : posters) p.join();
  queue.drain();
  EXPECT_EQ(ran.load(), 2000);
}

TEST(WorkQueueTest, DestructionDropsTasksNotYetStarted) {
  std::atomic<int> ran{0};
  std::promise<void> started;
  std::promise<void> release;
  auto releaseFuture = release.get_future().share();
  std::thread releaser;
  {
    WorkQueue queue;
    queue.post([&, releaseFuture] {
      started.set_value();
      releaseFuture.wait();
      ++ran;
    });
    for (int i = 0; i < 10; ++i) queue.post([&] { ++ran; });
    started.get_future().wait();
    releaser = std::thread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      release.set_value();
    });
  }  // stop is set while the first task runs; the ten others never run
  releaser.join();
  EXPECT_EQ(ran.load(), 1);
}

TEST(WorkQueueTest, DeferredResolveSettlesOnTheWorker) {
  low::promise<void> p;
  std::thread::id settledOn;
  low::promise<void> child;
  p.then(child, [&] { settledOn = std::this_thread::get_id(); });
  std::thread other([&] { low::resolveDeferred(p); });
  other.join();
  WorkQueue::instance().drain();
  EXPECT_EQ(p.status(), low::promise<void>::resolved);
  EXPECT_NE(settledOn, std::this_thread::get_id());
}
