// Metadata discovery: where capture directories lie and how they are found.
//
// A directory below the user's data tree is a trace when it holds a file
// named exactly "metadata". The user directory is $USERPROFILE, else $HOME.
//
// Thread-safe (no state). The walk never throws for what it finds on disk.
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
// further, so nested captures are found too. Each directory is walked once,
// however many links lead to it, links out of the data tree are not
// followed, and a directory that cannot be read is logged and skipped. Each
// path found is also written to standard output.
void recursiveFindMetadataFile(const std::string& dir, std::vector<std::string>& out);
// The same walk without the output: what a scan of `dir` would find.
std::vector<std::string> metadataFilesBelow(const std::string& dir);

}  // namespace VSKTspServer
