// TableLinesWriter: the JSON text of a table lines answer, written directly.
//
// Table lines are the hot answer of the server (a viewer asks for a few
// hundred lines at each scroll). Building them as a JSON document first and
// dumping it costs several times the request itself, so this writer emits
// the same bytes straight into a string: exactly what
// `nlohmann::json(response).dump()` gives, sorted keys and compact form
// included, and the same exception for text that is not valid UTF-8.
//
// A table that writes its lines itself (without building the model) uses
// the pieces below: the frame before the first line and after the last one,
// with its lines between, comma-separated, each as
// `{"cells":[{"content":<string>,"tags":<int>},...],"index":<int>,"tags":<int>}`.
// writeTableLinesResponse is made of the same pieces.
//
// Thread-safe (no state).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tsp_server/models/TspResponses.hpp"

namespace VSKTspServer {

std::string writeTableLinesResponse(const TableLinesResponse& response);

// Appends `text` as a JSON string, escaped as nlohmann's dump does.
void appendJsonString(std::string& out, const std::string& text);

// Appends `value` in decimal, as a JSON number.
void appendJsonInt(std::string& out, int64_t value);

// The answer up to its first line: `{"model":{"columnIds":[...],"lines":[`.
void appendTableLinesHead(std::string& out, const std::vector<int64_t>& columnIds);

// The answer after its last line, from `],"lowIndex":` to the closing brace.
void appendTableLinesTail(std::string& out, int64_t lowIndex, int64_t size,
                          const std::string& status, const std::string& statusMessage);

}  // namespace VSKTspServer
