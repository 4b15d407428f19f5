#include "WLTestStreams.hpp"

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

}  // namespace wltest
