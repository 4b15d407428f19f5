#include "experiments/generator/SampleCaptureWriter.hpp"

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace VSKTspServer::samples {

namespace {

namespace fs = std::filesystem;

// splitmix64: small, fast and good enough for sample data; a generator per
// run seeded from (seed, run) lets any run be made again on its own.
struct Random {
  uint64_t state;
  uint64_t next() {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
};

// Buffered writer of JSON text; flushes in large blocks.
class JsonOut {
 public:
  explicit JsonOut(const std::string& path) : file(path, std::ios::binary | std::ios::trunc) {
    buffer.reserve(kBlock + 4096);
  }
  bool ok() const { return file.good(); }
  JsonOut& raw(const std::string& text) {
    buffer += text;
    return flushIfFull();
  }
  JsonOut& raw(const char* text) {
    buffer += text;
    return flushIfFull();
  }
  JsonOut& str(const std::string& text) {
    buffer += '"';
    for (char ch : text) {
      const auto c = static_cast<unsigned char>(ch);
      if (c == '"' || c == '\\') {
        buffer += '\\';
        buffer += ch;
      } else if (c < 0x20) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        buffer += escaped;
      } else {
        buffer += ch;
      }
    }
    buffer += '"';
    return flushIfFull();
  }
  JsonOut& num(uint64_t value) { return raw(std::to_string(value)); }
  bool close() {
    file.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
    file.close();
    return !file.fail();
  }

 private:
  static constexpr size_t kBlock = 1 << 20;
  JsonOut& flushIfFull() {
    if (buffer.size() >= kBlock) {
      file.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      buffer.clear();
    }
    return *this;
  }
  std::ofstream file;
  std::string buffer;
};

// Hands the part done to the caller's progress at most once per thousandth.
class Every {
 public:
  Every(const WriteProgress& progress, uint64_t total) : progress(progress), total(total) {}
  void update(uint64_t done) {
    if (!progress || total == 0) return;
    const uint64_t step = done * 1000 / total;
    if (step == last) return;
    last = step;
    progress(static_cast<double>(done) / static_cast<double>(total));
  }

 private:
  const WriteProgress& progress;
  uint64_t total;
  uint64_t last = UINT64_MAX;
};

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%FT%TZ", &tm);
  return text;
}

}  // namespace

std::string captureDirectory(const std::string& dataDir, const std::string& tree,
                             const std::string& target, const std::string& kind) {
  fs::path dir = fs::path(dataDir) / ".QX-trace" / "data" / tree;
  size_t begin = 0;
  while (begin <= target.size()) {
    size_t end = target.find('/', begin);
    if (end == std::string::npos) end = target.size();
    if (end > begin) dir /= target.substr(begin, end - begin);
    begin = end + 1;
  }
  dir /= kind;
  fs::create_directories(dir);
  return dir.string();
}

bool writeMetadataFile(const std::string& dir, const std::string& typeId, const std::string& target,
                       const std::string& dataFile) {
  JsonOut out(dir + "/metadata");
  out.raw("{\n   \"dataFile\" : ").str(dataFile);
  out.raw(",\n   \"device\" : ").str(target);
  out.raw(",\n   \"deviceId\" : \"unknown\",\n   \"source\" : \"VSK Vireo\",\n   \"time\" : ");
  out.str(utcNow()).raw(",\n   \"typeId\" : ").str(typeId).raw("\n}\n");
  return out.close();
}

namespace {

struct Function {
  const char* name;
  const char* file;
  const char* dir;
  uint32_t address;
  uint32_t firstLine;
  bool hasDebugInfo;
};

constexpr Function kFunctions[] = {
    {"main", "main.c", "/work/firmware/src", 0x00000400, 40, true},
    {"SysTick_Handler", "irq.c", "/work/firmware/src", 0x00000180, 12, true},
    {"sensor_read", "sensor.c", "/work/firmware/drivers", 0x00000600, 88, true},
    {"filter_step", "filter.c", "/work/firmware/dsp", 0x00000800, 21, true},
    {"uart_send", "uart.c", "/work/firmware/drivers", 0x00000A40, 57, true},
    {"memcpy", "n/a", "n/a", 0x00001200, 0, false},
};

constexpr const char* kInstructions[] = {
    "movs r0, #1",       "ldr r3, [r7, #4]", "str r2, [r3, #0]",  "adds r1, r1, #1",
    "cmp r1, #15",       "bne.n 0x%08x",     "ldrb r0, [r4, r2]", "lsls r2, r2, #2",
    "push {r4, r7, lr}", "pop {r4, r7, pc}", "bl 0x%08x",         "muls r0, r1, r0",
};

constexpr const char* kSourceLines[] = {
    "    count++;",
    "    value = read_reg(ADC0);",
    "    if (count > LIMIT) {",
    "        acc += sample * k;",
    "    return acc >> 4;",
    "    while (!(UART->SR & TXE)) {}",
    "    buffer[i] = x;",
    "}",
};

struct Instruction {
  std::string addr;
  std::string assembly;
  std::string lno;  // JSON text: a number or "n/a"
  std::string src;
};

struct Run {
  bool blocked = false;
  std::string first;  // empty for the start of the trace
  std::string last;
  const Function* function = nullptr;
  std::vector<Instruction> code;
};

std::string hex8(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08" PRIX32, value);
  return text;
}

// Run `index` of the document, from the seed alone. Roughly one run in 40
// is a secure (blocked) region, marked as the decoder marks it.
Run makeRun(uint64_t seed, uint64_t index) {
  Random random{seed * 0x100000001B3ull ^ (index + 1) * 0x9E3779B97F4A7C15ull};
  Run run;
  if (index > 0 && random.below(40) == 0) {
    run.blocked = true;
    run.first = "SECURE, BLOCKED";
    run.last = "SECURE, BLOCKED";
    const bool to = random.below(2) == 0;
    run.code.push_back({"SECURE, BLOCKED",
                        to ? "Dst Address (Branch To)" : "Src Address (Branch From)", "\"n/a\"",
                        "n/a"});
    return run;
  }
  run.function = &kFunctions[random.below(std::size(kFunctions))];
  uint32_t address = run.function->address + 2 * random.below(32);
  uint32_t line = run.function->firstLine + random.below(20);
  const uint32_t length = 1 + random.below(12);
  for (uint32_t i = 0; i < length; ++i) {
    Instruction in;
    in.addr = hex8(address);
    char text[48];
    std::snprintf(text, sizeof text, kInstructions[random.below(std::size(kInstructions))],
                  run.function->address + 2 * random.below(64));
    // The disassembler indents its text; the table trims it.
    in.assembly = std::string(random.below(3) == 0 ? "  " : "") + text;
    if (run.function->hasDebugInfo) {
      if (random.below(3) == 0) ++line;
      in.lno = std::to_string(line);
      in.src = kSourceLines[random.below(std::size(kSourceLines))];
    } else {
      in.lno = "\"n/a\"";
      in.src = "n/a";
    }
    run.code.push_back(std::move(in));
    address += random.below(4) == 0 ? 4 : 2;
  }
  run.first = index == 0 ? "" : run.code.front().addr;
  run.last = run.code.back().addr;
  return run;
}

// Calls `visit(run, index, firstSeq)` for every run until `size`
// instructions are made; the last run is cut to fit.
void forEachRun(uint64_t size, uint64_t seed,
                const std::function<void(Run&, uint64_t, uint64_t)>& visit) {
  uint64_t seq = 0;
  for (uint64_t index = 0; seq < size; ++index) {
    Run run = makeRun(seed, index);
    if (run.code.size() > size - seq) run.code.resize(size - seq);
    visit(run, index, seq);
    seq += run.code.size();
  }
}

}  // namespace

bool writeMtbDocument(const std::string& path, uint64_t size, uint64_t seed,
                      const WriteProgress& progress) {
  JsonOut out(path);
  if (!out.ok()) return false;
  Every every(progress, size * 2);
  out.raw("{\"code\":[");
  forEachRun(size, seed, [&](Run& run, uint64_t index, uint64_t seq) {
    out.raw(index == 0 ? "\n[" : ",\n[");
    for (size_t j = 0; j < run.code.size(); ++j) {
      const Instruction& in = run.code[j];
      out.raw(j == 0 ? "{\"addr\":" : ",{\"addr\":").str(in.addr);
      out.raw(",\"asm\":").str(in.assembly).raw(",\"lno\":").raw(in.lno);
      out.raw(",\"seq\":").num(seq + j).raw(",\"src\":").str(in.src).raw("}");
    }
    out.raw("]");
    every.update(seq);
  });
  out.raw("],\n\"data\":[");
  forEachRun(size, seed, [&](Run& run, uint64_t index, uint64_t seq) {
    const bool known = run.function != nullptr;
    out.raw(index == 0 ? "\n{\"dir\":" : ",\n{\"dir\":").str(known ? run.function->dir : "n/a");
    out.raw(",\"file\":").str(known ? run.function->file : "n/a");
    out.raw(",\"first\":").str(run.first);
    out.raw(",\"function\":").str(known ? run.function->name : "n/a");
    out.raw(",\"last\":").str(run.last).raw(",\"seq\":").num(index).raw("}");
    every.update(size + seq);
  });
  out.raw(
      "],\n\"header\":[\"Index\",\"Cycle Count\",\"Read Address\",\"Write Address\","
      "\"Program Address\",\"Function\",\"File\",\"Dir\"]}\n");
  return out.close();
}

bool writeTdfDocument(const std::string& path, uint64_t size, uint64_t seed,
                      const WriteProgress& progress) {
  static constexpr const char* kColumns[] = {"Index", "Time (ns)", "Event", "Program Address",
                                             "Data",  "Function",  "File",  "Dir"};
  static constexpr const char* kEvents[] = {"ITM Port 0", "Exception Entry", "Exception Exit",
                                            "Data Watch", "PC Sample",       "Overflow"};
  JsonOut out(path);
  if (!out.ok()) return false;
  Every every(progress, size);
  out.raw("{\"Columns\":[");
  for (size_t c = 0; c < std::size(kColumns); ++c) {
    out.raw(c == 0 ? "{\"format\":\"default\",\"name\":" : ",{\"format\":\"default\",\"name\":");
    out.str(kColumns[c]).raw("}");
  }
  out.raw("],\n\"Rows\":[");
  Random random{seed * 0xD1B54A32D192ED03ull + 7};
  uint64_t time = 0;
  for (uint64_t row = 0; row < size; ++row) {
    time += 20 + random.below(5000);
    const Function& f = kFunctions[random.below(std::size(kFunctions))];
    const uint32_t event = random.below(std::size(kEvents));
    out.raw(row == 0 ? "\n[" : ",\n[").str(std::to_string(row)).raw(",");
    out.str(std::to_string(time)).raw(",").str(kEvents[event]).raw(",");
    out.str("0x" + hex8(f.address + 2 * random.below(64))).raw(",");
    // Not every event carries data: the decoder leaves those cells null.
    if (event == 0 || event == 3) {
      out.str("0x" + hex8(static_cast<uint32_t>(random.next())));
    } else {
      out.raw("null");
    }
    out.raw(",").str(f.name).raw(",").str(f.file).raw(",").str(f.dir).raw("]");
    every.update(row);
  }
  out.raw("]}\n");
  return out.close();
}

}  // namespace VSKTspServer::samples
