// A loopback port for a server a test or benchmark starts. Header-only, so
// benchmarks use it without the test libraries.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace ostrand_test {

// A port that was free a moment ago (the kernel's choice for port 0).
inline int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  if (fd >= 0) ::close(fd);
  if (!ok) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

}  // namespace ostrand_test
