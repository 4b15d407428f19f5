// Sample capture directories written as the capture side leaves them: the
// `metadata` file and the MTB and TDF documents of any size, for
// `ostrand gen`, the tests and the benchmarks.
//
// Data is pseudo-random but reproducible: the same seed and size give the
// same bytes. Documents are streamed: every run of an MTB document is
// derived from (seed, run index) alone, so its `code` and `data` arrays are
// written in two passes that make the runs again instead of keeping them,
// and memory stays flat for millions of rows.
//
// Errors: the writers give false when a file cannot be written (errno as
// the failing call left it); captureDirectory raises
// std::filesystem::filesystem_error. Any thread; no shared state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace VSKTspServer::samples {

// Called with the part done, from 0 to 1.
using WriteProgress = std::function<void(double)>;

// <dataDir>/.QX-trace/data/<tree>/<target levels>/<kind>, created; `target`
// has "/" between levels. Gives the directory.
std::string captureDirectory(const std::string& dataDir, const std::string& tree,
                             const std::string& target, const std::string& kind);

// The `metadata` of a capture in `dir`, keys in ascending order as the
// capture side writes them, stamped with the current UTC time.
bool writeMetadataFile(const std::string& dir, const std::string& typeId, const std::string& target,
                       const std::string& dataFile);

// An MTB document (`mtb_data.json`) of `instructions` instructions in runs
// of 1 to 12, about one run in 40 a secure (blocked) region.
bool writeMtbDocument(const std::string& path, uint64_t instructions, uint64_t seed,
                      const WriteProgress& progress = {});

// A TDF table document (`tdf_data.json`) of eight columns and `rows` rows of
// events; events without data leave that cell null.
bool writeTdfDocument(const std::string& path, uint64_t rows, uint64_t seed,
                      const WriteProgress& progress = {});

}  // namespace VSKTspServer::samples
