// Metadata discovery: where capture directories lie and how they are found.
//
// A directory below the user's data tree is a trace when it holds a file
// named exactly "metadata". The user directory is $USERPROFILE, else $HOME.
//
// Thread-safe (no state). File system errors other than a missing root
// travel to the caller as std::filesystem::filesystem_error.
#pragma once

#include <string>
#include <vector>

namespace VSKTspServer {

// The user directory with each element of `parts` appended as a path
// element. Throws std::runtime_error when neither variable is set.
std::string getUserDir(const std::vector<std::string>& parts);

// Depth-first walk of `dir` that appends the full path of every file named
// "metadata" to `out`. Entries whose name begins with "." are skipped, files
// and directories alike; a directory that holds a `metadata` file is walked
// further, so nested captures are found too.
void recursiveFindMetadataFile(const std::string& dir, std::vector<std::string>& out);

}  // namespace VSKTspServer
