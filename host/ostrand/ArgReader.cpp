#include "ostrand/ArgReader.hpp"

#include <cstdio>

#include "ostrand/ExitCodes.hpp"
#include "source_utilities/Platform.hpp"

namespace ostrand {

ArgReader::ArgReader(std::string command, int argc, char** argv)
    : command_(std::move(command)), argc_(argc), argv_(argv) {}

bool ArgReader::next() {
  if (index_ + 1 >= argc_) return false;
  arg_ = argv_[++index_];
  error_.clear();
  return true;
}

bool ArgReader::value(std::string& out) {
  if (index_ + 1 >= argc_) {
    error_ = arg_ + " needs a value";
    return false;
  }
  out = argv_[++index_];
  return true;
}

bool ArgReader::optionalValue(std::string& out) {
  if (index_ + 1 >= argc_ || std::string(argv_[index_ + 1]).compare(0, 2, "--") == 0) return false;
  out = argv_[++index_];
  return true;
}

std::string ArgReader::error() const {
  return error_.empty() ? "unknown option '" + arg_ + "'" : error_;
}

int ArgReader::fail() const {
  std::fprintf(stderr, "%s: %s; see '%s --help'\n", command_.c_str(), error().c_str(),
               command_.c_str());
  return kExitUsage;
}

int ArgReader::fail(const std::string& message) const {
  std::fprintf(stderr, "%s: %s\n", command_.c_str(), message.c_str());
  return kExitUsage;
}

std::string userDirectoryOr(const std::string& given, const char* command, const char* option) {
  if (!given.empty()) return given;
  std::string home = QX_NLV::platform::homeDirectory();
  if (home.empty())
    std::fprintf(stderr, "%s: set USERPROFILE or HOME, or pass %s\n", command, option);
  return home;
}

}  // namespace ostrand
