#include "kit/QueueHostConnection.hpp"

namespace ostrand::hostkit {

void QueueHostConnection::receive(const char* text) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    texts_.emplace_back(text != nullptr ? text : "");
  }
  arrived_.notify_all();
}

void QueueHostConnection::closed() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    ++closed_;
  }
  arrived_.notify_all();
}

std::optional<std::string> QueueHostConnection::next(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> guard(mutex_);
  if (!arrived_.wait_for(guard, timeout, [this] { return !texts_.empty(); })) return std::nullopt;
  std::string text = std::move(texts_.front());
  texts_.pop_front();
  return text;
}

bool QueueHostConnection::isClosed() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return closed_ > 0;
}

size_t QueueHostConnection::closedCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return closed_;
}

}  // namespace ostrand::hostkit
