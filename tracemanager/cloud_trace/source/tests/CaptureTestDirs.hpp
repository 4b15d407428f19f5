// A temporary user directory per test (USERPROFILE points at it) and file
// helpers, so nothing is ever written into a real home.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

class TempUserDir {
 public:
  TempUserDir() {
    std::random_device random;
    root_ = std::filesystem::temp_directory_path() /
            ("ostrand-orch-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(root_);
    const char* old = std::getenv("USERPROFILE");
    if (old != nullptr) saved_ = old;
    hadOld_ = old != nullptr;
    ::setenv("USERPROFILE", root_.c_str(), 1);
  }
  ~TempUserDir() {
    if (hadOld_) {
      ::setenv("USERPROFILE", saved_.c_str(), 1);
    } else {
      ::unsetenv("USERPROFILE");
    }
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  TempUserDir(const TempUserDir&) = delete;
  TempUserDir& operator=(const TempUserDir&) = delete;

  std::string root() const { return root_.string(); }
  std::string data() const { return (root_ / ".QX-trace" / "data").string(); }
  std::string settings() const { return (root_ / ".QX-trace" / "settings").string(); }

 private:
  std::filesystem::path root_;
  std::string saved_;
  bool hadOld_ = false;
};

inline void writeText(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
