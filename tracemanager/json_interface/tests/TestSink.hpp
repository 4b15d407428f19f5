// A sink that keeps every outgoing text, safe to fill from several threads,
// and lets a test wait until a number of texts has arrived.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "json_interface/Translator.hpp"

class TestSink {
 public:
  JSONInterface::Translator::Sink sink() {
    return [this](const std::string& text) { add(text); };
  }
  void add(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex_);
    texts_.push_back(text);
    cv_.notify_all();
  }
  bool waitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> guard(mutex_);
    return cv_.wait_for(guard, timeout, [&] { return texts_.size() >= count; });
  }
  std::vector<std::string> texts() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return texts_;
  }
  void clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    texts_.clear();
  }

 private:
  mutable std::mutex mutex_;  // guards texts_
  std::condition_variable cv_;
  std::vector<std::string> texts_;
};
