// TspApi: the route handlers of the trace protocol.
//
// Each handler only marshals: it parses the body into a request model, finds
// the experiment and the provider through `theModelManager`, calls one
// provider operation and writes the response model as JSON. Handlers run
// one at a time under `tspMutex` (taken by the server's pre-routing handler).
//
// Errors: a known failure answers with a status code (400 unknown
// experiment or a path outside the data tree, 501 output of another kind); anything else is an exception
// that the HTTP library turns into status 500 with EXCEPTION_WHAT.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace VSKTspServer::TspApi {

// The most lines one table request answers (a viewer asks for a few
// hundred); a larger count is cut to it.
inline constexpr int32_t kMaxTableLines = 50000;

// Registers every protocol route on `server` behind `tspApiPrefix`, in the
// order in which the library must try them.
void registerRoutes(httplib::Server& server);

// Parses a request body strictly (throws nlohmann::json::parse_error). With
// `unwrap`, an object holding "parameters" gives that key's value instead.
nlohmann::json parseBody(const std::string& body, bool unwrap);

void sendJson(httplib::Response& res, std::string text);
void sendText(httplib::Response& res, int status, const std::string& text);
void notImplemented(httplib::Response& res, const std::string& name);
void invalidExperiment(httplib::Response& res);

}  // namespace VSKTspServer::TspApi
