// Small sample captures for the tests: the metadata of a capture directory
// as the capture side writes it, an MTB document of a few runs and a TDF
// document of a few rows, each fully determined by its arguments. Pure
// functions; any thread.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace VSKTspServer::samples {

// The `metadata` of a capture of `type` on `target`; the data file is the
// one the kind reads ("unknown" for kinds without one).
nlohmann::json defaultMetadata(const std::string& target, const std::string& type);
// An MTB document with `runs` runs of `perRun` instructions each; every run
// after the first starts at a discontinuity.
nlohmann::json mtbDocument(int runs, int perRun);
// A TDF document of two columns (Time, Event) and `rows` rows; every odd
// row has no event.
nlohmann::json tdfDocument(int rows);

}  // namespace VSKTspServer::samples
