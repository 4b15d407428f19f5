// Test helper: a TspServer serving on a free loopback port in a thread of
// its own, with a client, stopped and joined at the end of the test.
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "tsp_server/TspServer.hpp"

namespace ostrand_test {

using VSKTspServer::TspServer;

// A port that was free a moment ago (the kernel's choice for port 0).
inline int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("no free loopback port");
  }
  ::close(fd);
  return ntohs(addr.sin_port);
}

// Listens on `port` on both loopback addresses (where they exist) and
// never accepts.
class PortBlocker {
 public:
  explicit PortBlocker(int port) {
    int v4 = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a4{};
    a4.sin_family = AF_INET;
    a4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a4.sin_port = htons(static_cast<uint16_t>(port));
    if (v4 >= 0 && ::bind(v4, reinterpret_cast<sockaddr*>(&a4), sizeof a4) == 0 &&
        ::listen(v4, 1) == 0)
      fds_[0] = v4, ok_ = true;
    else if (v4 >= 0)
      ::close(v4);
    int v6 = ::socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 a6{};
    a6.sin6_family = AF_INET6;
    a6.sin6_addr = in6addr_loopback;
    a6.sin6_port = htons(static_cast<uint16_t>(port));
    if (v6 >= 0 && ::bind(v6, reinterpret_cast<sockaddr*>(&a6), sizeof a6) == 0 &&
        ::listen(v6, 1) == 0) {
      fds_[1] = v6;
    } else if (v6 >= 0) {
      // No IPv6 loopback here: the IPv4 socket covers "localhost" alone.
      ::close(v6);
    }
  }
  ~PortBlocker() {
    for (int fd : fds_)
      if (fd >= 0) ::close(fd);
  }
  PortBlocker(const PortBlocker&) = delete;
  PortBlocker& operator=(const PortBlocker&) = delete;
  bool blocking() const { return ok_; }

 private:
  int fds_[2] = {-1, -1};
  bool ok_ = false;
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
