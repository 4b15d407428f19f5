// TableLinesWriter: the JSON text of a table lines answer, written directly.
//
// Table lines are the hot answer of the server (a viewer asks for a few
// hundred lines at each scroll). Building them as a JSON document first and
// dumping it costs several times the request itself, so this writer emits
// the same bytes straight into a string: exactly what
// `nlohmann::json(response).dump()` gives, sorted keys and compact form
// included, and the same exception for text that is not valid UTF-8.
//
// Thread-safe (no state).
#pragma once

#include <string>

#include "TspResponses.hpp"

namespace VSKTspServer {

std::string writeTableLinesResponse(const TableLinesResponse& response);

// Appends `text` as a JSON string, escaped as nlohmann's dump does.
void appendJsonString(std::string& out, const std::string& text);

}  // namespace VSKTspServer
