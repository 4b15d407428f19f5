// LoopbackHttpServer: the HTTP library's server with the connection handling
// the trace server needs, and the limits that keep one client from holding it.
//
// The library reads each request of a keep-alive connection through a fresh
// buffered stream, so bytes of a pipelined request read along with the one
// before are lost, and it bounds each read but not a whole request, so a
// client that sends a header line every few seconds holds a worker for as
// long as it likes. This class serves each connection itself, through one
// stream whose buffer lives as long as the connection and whose reads and
// writes have deadlines per request (see kLimits in the .cpp); the
// library still parses, routes and writes every request.
//
// Include only from the trace server's .cpp files (it pulls in httplib.h).
// Threads: as httplib::Server; one object per listening address.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstddef>

namespace VSKTspServer {

// Limits a real viewer never meets; each is a reason a request or connection
// is cut off, never a reason to lose an answer that was asked for properly.
struct HttpLimits {
  // Whole request line, headers and body, from its first byte on.
  std::chrono::seconds requestReadTime{10};
  // Whole answer, from its first byte on.
  std::chrono::seconds answerWriteTime{30};
  // Idle time of a keep-alive connection between requests.
  time_t keepAliveSeconds = 5;
  // Requests per connection before it is closed.
  size_t keepAliveRequests = 100;
  // Request bodies are small JSON documents; larger ones get 413.
  size_t maxBodyBytes = size_t{1} << 20;
  // Workers per listening address. A browser keeps about six connections
  // open, an IDE a few more; a request must find a free worker beside them.
  size_t workers = 32;
  // Connections waiting to be accepted.
  int listenBacklog = 128;
};

class LoopbackHttpServer : public httplib::Server {
 public:
  explicit LoopbackHttpServer(const HttpLimits& limits);

  // bind_to_port, then widens the listen backlog (the library fixes it at 5,
  // which drops connections of a burst of clients for a second).
  bool bindLoopback(const std::string& address, int port);

  // Closes a socket that was bound but never listened on (the other family's
  // bind failed); `stop` only closes a socket that is listening.
  void releaseBinding();

  // Called for every listening socket the library makes, before it binds.
  std::function<void(socket_t)> extraSocketOptions;

 private:
  bool process_and_close_socket(socket_t sock) override;

  HttpLimits limits_;
  std::atomic<socket_t> listenSocket_{INVALID_SOCKET};
};

}  // namespace VSKTspServer
