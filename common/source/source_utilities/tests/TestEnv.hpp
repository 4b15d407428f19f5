// Test helpers: a temporary directory that tests use as the user's home, so
// nothing is ever written into a real home.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace ostrand_test {

class TempHome {
 public:
  TempHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrand-test-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
    previous_ = std::getenv("USERPROFILE") ? std::getenv("USERPROFILE") : "";
    setenv("USERPROFILE", path_.c_str(), 1);
  }
  ~TempHome() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    if (previous_.empty()) {
      unsetenv("USERPROFILE");
    } else {
      setenv("USERPROFILE", previous_.c_str(), 1);
    }
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string previous_;
};

}  // namespace ostrand_test
