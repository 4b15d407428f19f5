#include "WLTestStreams.hpp"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace wltest {

StreamBuilder::StreamBuilder(uint8_t tag, unsigned wordsPerRecord)
    : tag_(tag), words_(wordsPerRecord) {}

void StreamBuilder::put(uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

StreamBuilder& StreamBuilder::leadIn() {
  hasLeadIn_ = true;
  return addWithTag(tag_, Sample{0, std::vector<uint32_t>(words_, 0), 0, 0, 0});
}

StreamBuilder& StreamBuilder::add(const Sample& s) { return addWithTag(tag_, s); }

StreamBuilder& StreamBuilder::addWithTag(uint8_t tag, const Sample& s) {
  if (!hasLeadIn_) leadIn();
  bytes_.push_back(tag);
  put(s.time, 7);
  for (unsigned w = 0; w < words_; ++w) put(w < s.words.size() ? s.words[w] : 0, 4);
  put(s.current, 4);
  put(s.voltage, 2);
  put(s.energy, 4);
  return *this;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "wltest-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
  const std::string file = path_ + "/" + name;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return file;
}

std::string TempDir::writeText(const std::string& name, const std::string& text) const {
  const std::string file = path_ + "/" + name;
  std::ofstream(file, std::ios::trunc) << text;
  return file;
}

}  // namespace wltest
