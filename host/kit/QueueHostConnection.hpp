// QueueHostConnection: a HostConnection that never blocks the module.
//
// receive() may come on any thread (replies on the module's worker, events on
// tool threads); it only appends a copy to a queue and returns. The host's
// own thread takes texts out with next() or waitFor().
//
// Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "json_interface/ModuleConnection.hpp"

namespace ostrand::hostkit {

class QueueHostConnection final : public HostConnection {
 public:
  void receive(const char* text) override;
  void closed() override;

  // The next text, waiting up to `timeout`; nullopt when none came.
  std::optional<std::string> next(std::chrono::milliseconds timeout);
  bool isClosed() const;
  size_t closedCount() const;

 private:
  mutable std::mutex mutex_;  // guards texts_ and closed_
  std::condition_variable arrived_;
  std::deque<std::string> texts_;
  size_t closed_ = 0;
};

}  // namespace ostrand::hostkit
