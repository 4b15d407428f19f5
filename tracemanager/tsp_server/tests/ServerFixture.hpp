// Test helper: a TspServer serving on a free loopback port in a thread of
// its own, with a client, stopped and joined at the end of the test.
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "LoopbackPort.hpp"
#include "tsp_server/TspServer.hpp"

namespace ostrand_test {

using VSKTspServer::TspServer;

// The loopback address of one family at `port`, with its length.
inline std::pair<sockaddr_storage, socklen_t> loopbackAddress(int port, bool ipv6) {
  sockaddr_storage address{};
  if (ipv6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&address);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    a->sin6_port = htons(static_cast<uint16_t>(port));
    return {address, sizeof *a};
  }
  auto* a = reinterpret_cast<sockaddr_in*>(&address);
  a->sin_family = AF_INET;
  a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a->sin_port = htons(static_cast<uint16_t>(port));
  return {address, sizeof *a};
}

// Listens on `port` on both loopback addresses (where they exist) and
// never accepts. Without an IPv6 loopback the IPv4 socket covers
// "localhost" alone, so only that one must succeed.
class PortBlocker {
 public:
  explicit PortBlocker(int port) {
    for (bool ipv6 : {false, true}) {
      const int fd = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
      const auto [address, length] = loopbackAddress(port, ipv6);
      if (fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
          ::listen(fd, 1) == 0)
        fds_[ipv6] = fd;
      else if (fd >= 0)
        ::close(fd);
    }
  }
  ~PortBlocker() {
    for (int fd : fds_)
      if (fd >= 0) ::close(fd);
  }
  PortBlocker(const PortBlocker&) = delete;
  PortBlocker& operator=(const PortBlocker&) = delete;
  bool blocking() const { return fds_[0] >= 0; }

 private:
  int fds_[2] = {-1, -1};
};

// A connection that says exactly what the test writes.
class RawConnection {
 public:
  explicit RawConnection(int port, bool ipv6 = false)
      : fd_(::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)) {
    const auto [address, length] = loopbackAddress(port, ipv6);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), length) == 0;
  }
  ~RawConnection() { ::close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;
  bool connected() const { return connected_; }
  void send(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // Everything until the server closes or `timeout` passes.
  std::string readAll(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    std::string text;
    const auto end = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (std::chrono::steady_clock::now() < end) {
      pollfd entry{fd_, POLLIN, 0};
      if (::poll(&entry, 1, 50) <= 0) continue;
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
  }

 private:
  int fd_;
  bool connected_ = false;
};

class RunningServer {
 public:
  explicit RunningServer(int port = freeLoopbackPort(), std::string viewerDirectory = {})
      : port_(port) {
    server_.port = port_;
    server_.viewerDirectory = std::move(viewerDirectory);
    thread_ = std::thread([this] { server_.run(); });
    // Bounded wait: listening, or given up on the port.
    for (int i = 0; i < 500 && !server_.isListening() && !server_.listenFailed(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~RunningServer() {
    server_.terminate();
    if (thread_.joinable()) thread_.join();
  }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

  TspServer& server() { return server_; }
  int port() const { return port_; }
  std::unique_ptr<httplib::Client> client() const {
    auto c = std::make_unique<httplib::Client>("localhost", port_);
    c->set_connection_timeout(2);
    c->set_read_timeout(5);
    return c;
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  int port_;
  TspServer server_;
  std::thread thread_;
};

inline std::string errorPage(int status) {
  return "<p>Error Status: <span style='color:red;'>" + std::to_string(status) + "</span></p>";
}

}  // namespace ostrand_test
