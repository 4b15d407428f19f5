// A sink that keeps every outgoing text, safe to fill from several threads.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "json_interface/Translator.hpp"

class TestSink {
 public:
  JSONInterface::Translator::Sink sink() {
    return [this](const std::string& text) {
      std::lock_guard<std::mutex> guard(mutex_);
      texts_.push_back(text);
    };
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
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};
