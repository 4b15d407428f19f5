// A listener of the tool gate that keeps every notification as
// "target|event|description" and can run an action on each; thread-safe.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tool_access/CloudHemlockNotificationIF.hpp"

class NotificationRecorder : public CloudHemlockNotificationIF {
 public:
  void tableSizeChanged(uint32_t, uint32_t, bool, uint32_t) override {}
  void notify(const std::string& target, const std::string& event,
              const std::string& desc) override {
    {
      std::lock_guard<std::mutex> guard(mutex);
      heard.push_back(target + "|" + event + "|" + desc);
    }
    if (action) action(event);
  }
  void setAdapterPresent(bool) override {}
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> guard(mutex);
    return heard;
  }
  std::function<void(const std::string&)> action;  // set before events arrive
  std::mutex mutex;                                // guards heard
  std::vector<std::string> heard;
};
