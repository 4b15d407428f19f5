#include "tsp_server/RequestGuard.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace VSKTspServer {

namespace {

std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

bool isLoopbackName(std::string_view name) {
  static constexpr std::array<std::string_view, 3> kNames = {"localhost", "127.0.0.1", "[::1]"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

// Splits "name:port" ("[::1]:port" for IPv6); `hasPort` false when no port
// is written.
bool splitHost(std::string_view host, std::string_view& name, std::string_view& port,
               bool& hasPort) {
  size_t colon = std::string_view::npos;
  if (!host.empty() && host.front() == '[') {
    const size_t close = host.find(']');
    if (close == std::string_view::npos) return false;
    if (close + 1 < host.size()) {
      if (host[close + 1] != ':') return false;
      colon = close + 1;
    }
  } else {
    colon = host.find(':');
  }
  hasPort = colon != std::string_view::npos;
  name = host.substr(0, colon);
  port = hasPort ? host.substr(colon + 1) : std::string_view();
  return true;
}

bool hostMatches(std::string_view host, int port, bool portRequired) {
  std::string_view name;
  std::string_view portText;
  bool hasPort = false;
  if (!splitHost(host, name, portText, hasPort)) return false;
  if (!isLoopbackName(lowered(name))) return false;
  if (!hasPort) return !portRequired;
  return portText == std::to_string(port);
}

// The origin part ("http://host:port") of a URL such as a Referer.
std::string_view originOf(std::string_view url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return url;
  const size_t end = url.find('/', scheme + 3);
  return end == std::string_view::npos ? url : url.substr(0, end);
}

bool changesState(const RequestFacts& request) {
  if (request.method == "GET" || request.method == "HEAD") return request.path == "/stop";
  return true;
}

}  // namespace

bool isLoopbackHost(const std::string& host, int port) { return hostMatches(host, port, false); }

bool isOwnOrigin(const std::string& origin, int port) {
  constexpr std::string_view kScheme = "http://";
  const std::string text = lowered(origin);
  if (text.compare(0, kScheme.size(), kScheme) != 0) return false;
  // A browser writes the port of an origin unless it is the scheme's
  // default, so a loopback origin on this port always carries it.
  return hostMatches(std::string_view(text).substr(kScheme.size()), port, port != 80);
}

RequestVerdict judgeRequest(const RequestFacts& request, int port) {
  if (!isLoopbackHost(request.host, port)) return RequestVerdict::kForeignHost;
  if (!changesState(request)) return RequestVerdict::kAllow;
  if (!request.origin.empty() && !isOwnOrigin(request.origin, port))
    return RequestVerdict::kForeignOrigin;
  if (!request.referer.empty() && !isOwnOrigin(std::string(originOf(request.referer)), port))
    return RequestVerdict::kForeignOrigin;
  // "none" is the user's own navigation (typed or bookmarked).
  const std::string site = lowered(request.secFetchSite);
  if (!site.empty() && site != "same-origin" && site != "none")
    return RequestVerdict::kForeignOrigin;
  return RequestVerdict::kAllow;
}

}  // namespace VSKTspServer
