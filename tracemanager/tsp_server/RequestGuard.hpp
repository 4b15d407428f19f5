// RequestGuard: which requests the trace server answers at all.
//
// The server listens on loopback only, but a web page in the user's browser
// can still reach it: by a name that resolves to 127.0.0.1 (DNS rebinding),
// by a form or fetch that needs no permission (a "text/plain" POST), or by an
// image that loads "/stop". The guard closes those roads:
//   - the Host header must name this machine's loopback (localhost,
//     127.0.0.1, [::1]) with this server's port, or no port;
//   - a request that can change state (any method but GET and HEAD, and
//     GET /stop) is refused when it carries an Origin or Referer other than
//     the server's own loopback origin, or a Sec-Fetch-Site saying another
//     site sent it.
// Tools (curl, the IDE's client) send a loopback Host and no Origin; a page
// served by this server itself sends its own origin. Both pass.
//
// Thread-safe (no state). Used by the pre-routing handler, before the model
// lock is taken, so a refused request costs nothing.
#pragma once

#include <string>

namespace VSKTspServer {

// What the guard reads of a request; empty strings for absent headers.
struct RequestFacts {
  std::string method;
  std::string path;
  std::string host;
  std::string origin;
  std::string referer;
  std::string secFetchSite;
};

enum class RequestVerdict {
  kAllow,
  kForeignHost,    // answered 403: the Host header names another machine
  kForeignOrigin,  // answered 403: another site asks to change state
};

RequestVerdict judgeRequest(const RequestFacts& request, int port);

// "localhost", "127.0.0.1" or "[::1]" (any case), optionally ":<port>".
bool isLoopbackHost(const std::string& host, int port);
// "http://" followed by a loopback host with exactly this port.
bool isOwnOrigin(const std::string& origin, int port);

}  // namespace VSKTspServer
