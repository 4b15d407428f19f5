#include "TestSupport.hpp"

#include <stdio.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace ostrand_test {

TempDir::TempDir(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
  return writeText(name, std::string(bytes.begin(), bytes.end()));
}

std::string TempDir::writeText(const std::string& name, const std::string& text) const {
  const std::string file = *this / name;
  writeFile(file, text);
  return file;
}

TempHome::TempHome() : TempDir("ostrand-home") {
  if (const char* old = std::getenv("USERPROFILE")) previous_ = old, hadPrevious_ = true;
  ::setenv("USERPROFILE", path().c_str(), 1);
}

TempHome::~TempHome() {
  if (hadPrevious_) {
    ::setenv("USERPROFILE", previous_.c_str(), 1);
  } else {
    ::unsetenv("USERPROFILE");
  }
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string sourcePath(const std::string& relative) {
  return std::string(OSTRAND_SOURCE_DIR) + "/" + relative;
}

::testing::AssertionResult matchesGolden(const std::string& actual, const std::string& goldenPath) {
  if (const char* update = std::getenv("OSTRAND_UPDATE_GOLDEN"); update && *update == '1') {
    writeFile(goldenPath, actual);
    return ::testing::AssertionFailure() << "rewrote " << goldenPath << "; review the diff";
  }
  const std::string expected = readFile(goldenPath);
  if (actual == expected) return ::testing::AssertionSuccess();
  std::istringstream a(actual), e(expected);
  std::string lineA, lineE;
  for (int line = 1;; ++line) {
    const bool moreA = static_cast<bool>(std::getline(a, lineA));
    const bool moreE = static_cast<bool>(std::getline(e, lineE));
    if (!moreA && !moreE) break;
    if (moreA != moreE || lineA != lineE) {
      return ::testing::AssertionFailure()
             << goldenPath << ":" << line << " differs (OSTRAND_UPDATE_GOLDEN=1 rewrites it)\n"
             << "expected: " << (moreE ? lineE : "<end of file>") << "\n"
             << "actual:   " << (moreA ? lineA : "<end of output>");
    }
  }
  return ::testing::AssertionFailure() << goldenPath << " differs at its end";
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::string commandOutput(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

uint32_t nmAddress(const std::string& elf, const std::string& symbol) {
  std::istringstream lines(commandOutput("arm-none-eabi-nm '" + elf + "' 2>/dev/null"));
  uint32_t found = 0;
  for (std::string line; std::getline(lines, line);) {
    unsigned value = 0;
    char kind = 0;
    char name[200];
    if (std::sscanf(line.c_str(), "%x %c %199s", &value, &kind, name) == 3 && symbol == name)
      found = value;
  }
  return found;
}

}  // namespace ostrand_test
