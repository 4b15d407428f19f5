#include "TdfRecording.hpp"

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include <nlohmann/json.hpp>

#include "EtmDecoder.hpp"
#include "MtbDecoder.hpp"

namespace OstrandSim {

namespace {

constexpr uint32_t kMaxString = 10239;  // the header's readers refuse longer strings
constexpr char kDataMagic[4] = {'O', 'S', 'T', 'D'};
constexpr uint32_t kDataVersion = 1;

class Writer {
 public:
  void u8(uint8_t v) { bytes.push_back(v); }
  void u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void raw(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    bytes.insert(bytes.end(), b, b + n);
  }
  void str(const std::string& s) {
    if (s.size() > kMaxString) throw std::runtime_error("text too long for a trace file: " + s.substr(0, 40));
    u32(static_cast<uint32_t>(s.size()));
    raw(s.data(), s.size());
  }
  std::vector<uint8_t> bytes;
};

class Reader {
 public:
  Reader(const std::vector<uint8_t>& bytes, const std::string& path) : b_(bytes), path_(path) {}
  void need(size_t n, const char* what) const {
    if (b_.size() - at_ < n) fail(std::string("cut short in ") + what);
  }
  uint32_t u32(const char* what) {
    need(4, what);
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(b_[at_ + i]) << (8 * i);
    at_ += 4;
    return v;
  }
  std::string str(const char* what) {
    const uint32_t n = u32(what);
    if (n > kMaxString) fail(std::string("string too long in ") + what);
    need(n, what);
    std::string s(reinterpret_cast<const char*>(b_.data() + at_), n);
    at_ += n;
    return s.substr(0, s.find('\0'));
  }
  void raw(void* out, size_t n, const char* what) {
    need(n, what);
    std::memcpy(out, b_.data() + at_, n);
    at_ += n;
  }
  size_t left() const { return b_.size() - at_; }
  size_t at() const { return at_; }
  [[noreturn]] void fail(const std::string& why) const {
    throw std::runtime_error("Cannot read trace recording " + path_ + ": " + why);
  }

 private:
  const std::vector<uint8_t>& b_;
  const std::string& path_;
  size_t at_ = 0;
};

void chunk(Writer& w, const char tag[4], const std::vector<uint8_t>& payload) {
  w.raw(tag, 4);
  w.u32(static_cast<uint32_t>(payload.size()));
  w.raw(payload.data(), payload.size());
}

}  // namespace

void writeTdf(const std::string& path, const TdfRecording& r) {
  if (r.mtb.has_value() == r.etm.has_value()) {
    throw std::invalid_argument("a trace recording holds either an MTB buffer or an ETM stream");
  }
  Writer body;  // the header after its size field
  body.u32(kTdfFormatVersion);
  body.str("TraceQX");
  body.str(r.receiverName);
  body.str(r.cpuName);
  for (uint32_t v : r.cpuValues) body.u32(v);
  body.str(r.programFile);
  body.u32(r.headerFlags);
  body.str(r.sourcePaths);
  for (int table = 0; table < 4; ++table) body.u32(0);  // tables A to D: no entries
  body.raw(&r.clockHz, 8);

  Writer file;
  file.raw("TDF2", 4);
  file.u32(static_cast<uint32_t>(8 + body.bytes.size()));
  file.raw(body.bytes.data(), body.bytes.size());

  file.raw(kDataMagic, 4);
  file.u32(kDataVersion);
  const std::string conf = r.configuration.empty() ? "{}" : r.configuration;
  chunk(file, "CONF", std::vector<uint8_t>(conf.begin(), conf.end()));
  Writer trace;
  if (r.mtb) {
    trace.u32(r.mtb->position);
    trace.u32(r.mtb->wrap ? 1 : 0);
    trace.raw(r.mtb->buffer.data(), r.mtb->buffer.size());
    chunk(file, "MTBB", trace.bytes);
  } else {
    trace.u8(r.etm->traceId);
    trace.u8(r.etm->wrapped ? 1 : 0);
    trace.u8(0);
    trace.u8(0);
    trace.raw(r.etm->bytes.data(), r.etm->bytes.size());
    chunk(file, "ETMS", trace.bytes);
  }

  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(file.bytes.data()), static_cast<long>(file.bytes.size()));
  out.close();
  if (!out) throw std::runtime_error("Cannot write trace recording " + path + ": " + std::strerror(errno));
}

TdfRecording readTdf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot open trace recording " + path + ": " + std::strerror(errno));
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Reader rd(bytes, path);
  TdfRecording r;
  char magic[4];
  rd.raw(magic, 4, "the header");
  if (std::memcmp(magic, "TDF2", 4) != 0) rd.fail("not a trace recording (no TDF2 header)");
  if (rd.u32("the header") == 0) rd.fail("header size is zero");
  const uint32_t version = rd.u32("the header");
  if (version < 4 || version > 20) rd.fail("format version " + std::to_string(version) + " not supported");
  if (rd.str("the header") != "TraceQX") rd.fail("wrong component name");
  r.receiverName = rd.str("the receiver name");
  r.cpuName = rd.str("the CPU name");
  for (uint32_t& v : r.cpuValues) v = rd.u32("the CPU values");
  r.programFile = rd.str("the program file");
  r.headerFlags = rd.u32("the header flags");
  r.sourcePaths = rd.str("the source paths");
  for (int table = 0; table < 4; ++table) {
    if (rd.u32("the header tables") != 0) rd.fail("header tables with entries are not ours");
  }
  rd.raw(&r.clockHz, 8, "the clock");

  rd.raw(magic, 4, "the data section");
  if (std::memcmp(magic, kDataMagic, 4) != 0) rd.fail("no data section");
  if (rd.u32("the data section") != kDataVersion) rd.fail("data section of another version");
  while (rd.left() > 0) {
    char tag[4];
    rd.raw(tag, 4, "a chunk");
    const uint32_t size = rd.u32("a chunk");
    rd.need(size, "a chunk");
    std::vector<uint8_t> payload(size);
    rd.raw(payload.data(), size, "a chunk");
    if (std::memcmp(tag, "CONF", 4) == 0) {
      r.configuration.assign(payload.begin(), payload.end());
      if (!nlohmann::json::accept(r.configuration)) rd.fail("configuration is not JSON");
    } else if (std::memcmp(tag, "MTBB", 4) == 0) {
      if (size < 8) rd.fail("MTB chunk cut short");
      MtbSnapshot m;
      std::memcpy(&m.position, payload.data(), 4);
      uint32_t wrap = 0;
      std::memcpy(&wrap, payload.data() + 4, 4);
      m.wrap = wrap != 0;
      m.buffer.assign(payload.begin() + 8, payload.end());
      if (m.position > m.buffer.size() || m.position % 8 != 0) rd.fail("MTB position outside its buffer");
      r.mtb = std::move(m);
    } else if (std::memcmp(tag, "ETMS", 4) == 0) {
      if (size < 4) rd.fail("ETM chunk cut short");
      EtmSnapshot e;
      e.traceId = payload[0];
      e.wrapped = payload[1] != 0;
      e.bytes.assign(payload.begin() + 4, payload.end());
      r.etm = std::move(e);
    }
    // Chunks of other tags belong to later versions and are passed over.
  }
  if (!r.mtb && !r.etm) rd.fail("no trace in the data section");
  return r;
}

RowTable decodeRecording(const TdfRecording& recording, const ProgramImage& image) {
  if (recording.etm) return decodeEtm(*recording.etm, image);
  MtbDecodeOptions options;
  const nlohmann::json conf = nlohmann::json::parse(recording.configuration, nullptr, false);
  if (conf.is_object() && conf.contains("Hierarchical Decode") && conf["Hierarchical Decode"].is_boolean()) {
    options.hierarchical = conf["Hierarchical Decode"].get<bool>();
  }
  return decodeMtb(*recording.mtb, &image, options);
}

}  // namespace OstrandSim
