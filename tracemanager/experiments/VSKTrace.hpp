// VSKTrace: a capture directory with a `metadata` file, as the model manager
// and the experiments know it.
//
// The `Trace` base is what the protocol shows; `type` and `metadata` are what
// the experiments read. A plain value: experiments keep copies, and
// `readMetadata` on a copy leaves the original alone.
//
// Errors: the constructor and readMetadata throw nlohmann's exceptions when
// `metadata` cannot be opened or parsed (parse_error), is not an object or
// has a `typeId` that is not a string (type_error), or has no `typeId`
// (out_of_range). The random source's exception travels as well.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {

// A random version 4 UUID in its 36-character lower-case text form.
std::string makeUuid();

class VSKTrace : public Trace {
 public:
  // Name, path and type from the arguments, a new UUID, then the metadata
  // read from `path`/metadata. A `typeId` there replaces `type`.
  VSKTrace(std::string name, std::string path, std::string type, bool confined = false);

  // Reads `path`/metadata again. A file holding JSON null leaves `type`
  // as it is.
  void readMetadata();

  // "MTB", "ETB", "TDF", "WL", "WL+", "Wattline" or "Wattline+".
  std::string type;
  nlohmann::json metadata;
  // Set by the trace server: every file of this capture, `metadata` first,
  // must resolve inside the data tree (OutsideDataTree otherwise). Off for
  // captures that tests and tools open wherever they lie.
  bool confined = false;
};

// The data file of a capture: `dataFile` from the metadata when it is there
// and a string, else `defaultName`. Never throws.
std::string dataFileName(const VSKTrace& trace, const std::string& defaultName);

}  // namespace VSKTspServer
