// What the tests of every subsystem share: temporary directories (one of
// them standing in as the user's home, so no test writes into a real one),
// small file helpers and the comparison with golden files.
//
// Golden files: a test renders what it observed as text and compares it with
// a file under the source tree. With OSTRAND_UPDATE_GOLDEN=1 in the
// environment the file is rewritten instead, and the test fails so that the
// change is reviewed in the diff before it is committed.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ostrand_test {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "ostrand-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  // Writes a file below the directory (parent folders made); gives its path.
  std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const;
  std::string writeText(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
};

// A temporary directory that is the user's home (USERPROFILE) for the life
// of the object; the previous value comes back afterwards.
class TempHome : public TempDir {
 public:
  TempHome();
  ~TempHome();

 private:
  std::string previous_;
  bool hadPrevious_ = false;
};

// Writes `text` to `path`, making its folders; truncates what was there.
void writeFile(const std::filesystem::path& path, const std::string& text);
// The whole file, or "" when it cannot be read.
std::string readFile(const std::filesystem::path& path);
// A path below the source tree's root.
std::string sourcePath(const std::string& relative);
// Compares `actual` with the golden file at `goldenPath` (see the header
// comment for the update mode); the failure names the first differing line.
::testing::AssertionResult matchesGolden(const std::string& actual, const std::string& goldenPath);
// `text` with every `from` replaced by `to`, left to right.
std::string replaceAll(std::string text, const std::string& from, const std::string& to);
// What a shell command printed on its standard output; "" when it cannot run.
std::string commandOutput(const std::string& command);
// The address of `symbol` in `elf` as the GNU tools read it; 0 when they are
// not installed or the symbol is not there.
uint32_t nmAddress(const std::string& elf, const std::string& symbol);

}  // namespace ostrand_test
