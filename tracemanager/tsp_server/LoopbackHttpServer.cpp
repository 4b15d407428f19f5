#include "tsp_server/LoopbackHttpServer.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace VSKTspServer {

namespace {

using Clock = std::chrono::steady_clock;

// How often a wait looks at whether the server is stopping.
constexpr int kPollSliceMs = 50;

void addressOf(socket_t sock, bool peer, std::string& ip, int& port) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if ((peer ? ::getpeername(sock, raw, &length) : ::getsockname(sock, raw, &length)) != 0) return;
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> service{};
  if (::getnameinfo(raw, length, host.data(), host.size(), service.data(), service.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
    ip = host.data();
    port = std::atoi(service.data());
  }
}

// One stream per connection. Its read buffer outlives each request, so a
// request that arrived with the one before (pipelining) is served next.
// Reads of a request and writes of an answer each end at a deadline.
class ConnectionStream : public httplib::Stream {
 public:
  ConnectionStream(socket_t sock, const HttpLimits& limits) : sock_(sock), limits_(limits) {}

  // Waits, up to the keep-alive time, for the next request's first byte.
  // False when the connection closed, stayed idle, or the server stops.
  bool awaitRequest(const std::atomic<socket_t>& listening) {
    readDeadline_.reset();
    writeDeadline_.reset();
    if (begin_ < end_) return startRequest();
    const auto idleEnd = Clock::now() + std::chrono::seconds(limits_.keepAliveSeconds);
    while (listening != INVALID_SOCKET) {
      const int ready = waitFor(POLLIN, std::min(idleEnd, Clock::now() + slice()));
      if (ready < 0) return false;
      if (ready > 0) return startRequest();
      if (Clock::now() >= idleEnd) return false;
    }
    return false;
  }

  bool is_readable() const override {
    return begin_ < end_ || waitFor(POLLIN, readDeadline()) > 0;
  }
  bool is_writable() const override { return waitFor(POLLOUT, writeDeadline()) > 0; }

  ssize_t read(char* ptr, size_t size) override {
    if (begin_ == end_) {
      if (waitFor(POLLIN, readDeadline()) <= 0) return -1;
      const ssize_t n = ::recv(sock_, buffer_.data(), buffer_.size(), 0);
      if (n <= 0) return n;
      begin_ = 0;
      end_ = static_cast<size_t>(n);
    }
    const size_t n = std::min(size, end_ - begin_);
    std::memcpy(ptr, buffer_.data() + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (!writeDeadline_) writeDeadline_ = Clock::now() + limits_.answerWriteTime;
    if (waitFor(POLLOUT, *writeDeadline_) <= 0) return -1;
    return ::send(sock_, ptr, size, MSG_NOSIGNAL);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    addressOf(sock_, true, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    addressOf(sock_, false, ip, port);
  }
  socket_t socket() const override { return sock_; }

 private:
  static Clock::duration slice() { return std::chrono::milliseconds(kPollSliceMs); }

  bool startRequest() {
    readDeadline_ = Clock::now() + limits_.requestReadTime;
    return true;
  }
  Clock::time_point readDeadline() const {
    return readDeadline_.value_or(Clock::now() + limits_.requestReadTime);
  }
  Clock::time_point writeDeadline() const {
    return writeDeadline_.value_or(Clock::now() + limits_.answerWriteTime);
  }

  // poll until `deadline`: >0 ready, 0 timed out, <0 error or hang-up with
  // nothing to read.
  int waitFor(short events, Clock::time_point deadline) const {
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd entry{sock_, events, 0};
      const int rc = ::poll(&entry, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
      if (rc < 0 && errno == EINTR) continue;
      if (rc <= 0) return rc;
      if (entry.revents & (POLLERR | POLLNVAL)) return -1;
      return 1;  // readable, writable, or hung up (recv then reads 0)
    }
  }

  socket_t sock_;
  const HttpLimits& limits_;
  std::array<char, 4096> buffer_{};
  size_t begin_ = 0;
  size_t end_ = 0;
  std::optional<Clock::time_point> readDeadline_;
  std::optional<Clock::time_point> writeDeadline_;
};

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(const HttpLimits& limits) : limits_(limits) {
  const size_t workers = limits_.workers;
  new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
  set_keep_alive_timeout(limits_.keepAliveSeconds);
  set_keep_alive_max_count(limits_.keepAliveRequests);
  set_payload_max_length(limits_.maxBodyBytes);
  set_socket_options([this](socket_t sock) {
    if (extraSocketOptions) extraSocketOptions(sock);
    listenSocket_ = sock;
  });
}

bool LoopbackHttpServer::bindLoopback(const std::string& address, int port) {
  if (!bind_to_port(address, port)) return false;
  // Listening again on a listening socket only changes its backlog.
  const socket_t sock = listenSocket_;
  if (sock != INVALID_SOCKET) ::listen(sock, limits_.listenBacklog);
  return true;
}

void LoopbackHttpServer::releaseBinding() {
  if (is_running()) return;
  const socket_t sock = svr_sock_.exchange(INVALID_SOCKET);
  if (sock != INVALID_SOCKET) ::close(sock);
}

bool LoopbackHttpServer::process_and_close_socket(socket_t sock) {
  ConnectionStream stream(sock, limits_);
  bool served = false;
  for (size_t left = limits_.keepAliveRequests; left > 0 && stream.awaitRequest(svr_sock_); --left) {
    bool closed = false;
    served = process_request(stream, left == 1, closed, nullptr);
    if (!served || closed) break;
  }
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return served;
}

}  // namespace VSKTspServer
