// The channel client: which kinds become words, what it stores, and how its
// lock behaves when listeners run long, raise events again or fail.
#include "tool_access/CloudTraceEventHandler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "NotificationRecorder.hpp"

namespace {

using Qx::Nlv::Trace::ChannelEvent;

// Every kind in turn: the recording, reading and stop kinds go out as
// their words, the others (12, 0) are only stored.
TEST(CloudTraceEventHandler, KindsGiveWords) {
  NotificationRecorder recorder;
  CloudTraceEventHandler handler(&recorder, nullptr);
  for (int32_t kind : {6, 7, 8, 9, 10, 11, 17, 12, 0}) {
    handler.OnChannelEvent("cpu0", ChannelEvent{kind, "why"});
    EXPECT_EQ(handler.lastEventKind(), kind);
  }
  EXPECT_EQ(handler.lastCpu(), "cpu0");
  EXPECT_EQ(recorder.lines(),
            (std::vector<std::string>{
                "cpu0|traceChannelRecording|why", "cpu0|traceChannelReading|why",
                "cpu0|traceChannelStoppedFull|why", "cpu0|traceChannelStoppedTrigger|why",
                "cpu0|traceChannelStoppedError|why", "cpu0|traceChannelStoppedUserRequest|why",
                "cpu0|traceChannelStoppedTraceTrigger|why"}));
}

TEST(CloudTraceEventHandler, WithoutNotificationsEventsAreOnlyStored) {
  CloudTraceEventHandler handler(nullptr, nullptr);
  handler.OnChannelEvent("cpu1", ChannelEvent{6, "rec"});
  EXPECT_EQ(handler.lastEventText(), "rec");
  handler.setDeviceConfig("<cfg/>");
  std::string text;
  handler.OnDeviceConfig("cpu2", nullptr, text);
  EXPECT_EQ(text, "<cfg/>");
  EXPECT_EQ(handler.lastCpu(), "cpu2");
}

// A failing decode inside a listener ends at the channel client, and the
// lock is free again for the next event of any thread.
TEST(CloudTraceEventHandler, ListenerFailureEndsHereAndUnlocks) {
  NotificationRecorder recorder;
  CloudTraceEventHandler handler(&recorder, nullptr);
  recorder.action = [](const std::string&) { throw std::runtime_error("decoder failed"); };
  EXPECT_NO_THROW(handler.OnChannelEvent("cpu0", ChannelEvent{8, "full"}));
  recorder.action = [](const std::string&) { throw 7; };
  EXPECT_NO_THROW(handler.OnChannelEvent("cpu0", ChannelEvent{8, "full"}));
  recorder.action = nullptr;
  std::thread other([&] { handler.OnChannelEvent("cpu1", ChannelEvent{6, "rec"}); });
  other.join();
  EXPECT_EQ(recorder.lines().size(), 3u);
  EXPECT_FALSE(handler.Unlock());  // nobody holds it
}

// An event raised from inside a listener on the same thread goes through.
TEST(CloudTraceEventHandler, SameThreadReentersTheLock) {
  NotificationRecorder recorder;
  CloudTraceEventHandler handler(&recorder, nullptr);
  recorder.action = [&](const std::string& word) {
    if (word == "traceChannelStoppedUserRequest") {
      handler.OnChannelEvent("cpu0", ChannelEvent{7, "reading"});
    }
  };
  handler.OnChannelEvent("cpu0", ChannelEvent{11, "stop"});
  EXPECT_EQ(recorder.lines().size(), 2u);
}

// While one thread's listener works (decoding a capture), another thread's
// event waits for it before it reaches the listener.
TEST(CloudTraceEventHandler, SecondThreadWaitsForTheFirst) {
  NotificationRecorder recorder;
  CloudTraceEventHandler handler(&recorder, nullptr);
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  recorder.action = [&](const std::string& word) {
    if (word != "traceChannelStoppedFull") return;
    entered.set_value();
    released.wait();
  };
  std::thread first([&] { handler.OnChannelEvent("cpu0", ChannelEvent{8, "full"}); });
  entered.get_future().wait();
  std::atomic<bool> secondDone{false};
  std::thread second([&] {
    handler.OnChannelEvent("cpu1", ChannelEvent{6, "rec"});
    secondDone = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(secondDone.load());
  EXPECT_EQ(recorder.lines().size(), 1u);
  release.set_value();
  first.join();
  second.join();
  EXPECT_EQ(recorder.lines(),
            (std::vector<std::string>{"cpu0|traceChannelStoppedFull|full",
                                      "cpu1|traceChannelRecording|rec"}));
}

}  // namespace
