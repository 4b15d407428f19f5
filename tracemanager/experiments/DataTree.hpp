// DataTree: the one rule for which files the trace server may open.
//
// Every capture lies below the user's data tree, <user>/.QX-trace/data, where
// <user> is $USERPROFILE, else $HOME. A path counts as inside only after `..`
// and symbolic links are resolved, so neither a crafted name nor a link in a
// capture directory reaches another part of the file system.
//
// Thread-safe (no state). Errors: `captureFilePath` and `requireInsideDataTree`
// throw OutsideDataTree, a client error whose text names the offending path.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace VSKTspServer {

// A path that the server will not open because it lies outside the data tree
// (or is not a plain file name where one is required).
class OutsideDataTree : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// <user>/.QX-trace/data. Throws std::runtime_error when neither USERPROFILE
// nor HOME is set.
std::filesystem::path dataTreeRoot();

// True when `path`, with `..` and every symbolic link of its existing part
// resolved, equals the data tree's root or lies below it.
bool insideDataTree(const std::filesystem::path& path);

// Throws OutsideDataTree naming `what` unless insideDataTree(path).
void requireInsideDataTree(const std::filesystem::path& path, const std::string& what);

// The path of the file `name` in capture directory `dir`. `name` must be a
// plain file name (no separator, not "." or ".."); when `confined`, the
// resolved file must also lie inside the data tree. Throws OutsideDataTree.
std::string captureFilePath(const std::string& dir, const std::string& name, bool confined);

}  // namespace VSKTspServer
