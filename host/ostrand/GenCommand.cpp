// `ostrand gen`: writes sample capture directories as the capture side
// leaves them, so the trace server has something real to serve without a
// probe.
//
// Each kind writes a capture directory with its `metadata` file and, except
// for placeholders, its data file. Data is pseudo-random but reproducible:
// the same seed and size give the same bytes. Large documents are streamed:
// every run of an MTB document is derived from (seed, run index) alone, so
// the `code` and `data` arrays are written in two passes that regenerate the
// runs instead of keeping them, and memory stays flat for millions of rows.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

namespace ostrand {
namespace {

namespace fs = std::filesystem;

void printGenUsage(FILE* out) {
  std::fprintf(
      out,
      "usage: ostrand gen mtb|tdf|tdf-table|placeholder|wattline|all [options]\n\n"
      "Write sample capture directories (a `metadata` file and a data file) into a\n"
      "data tree, as a capture leaves them, for `ostrand serve` and the tests.\n\n"
      "Kinds:\n"
      "  mtb           an MTB capture: runs of code with instructions, source lines\n"
      "                and blocked (secure) markers, mtb_data.json\n"
      "  tdf           a .tdf recording of a simulated CPU's run, to open with a TDF\n"
      "                session; it has options of its own: see 'ostrand gen tdf --help'\n"
      "  tdf-table     a decoded TDF capture: a table of columns and rows,\n"
      "                tdf_data.json, as a TDF session leaves it\n"
      "  placeholder   MTB, ETB and TDF captures with only their `metadata`, as\n"
      "                written before any data has arrived\n"
      "  wattline      a power capture (WLData.bin with its state description);\n"
      "                it has options of its own: see 'ostrand gen wattline --help'\n"
      "  all           all of them, each on its own target; for wattline one capture\n"
      "                of every record kind and state description (sim/wl_*), with\n"
      "                --size samples each\n\n"
      "Options:\n"
      "  --data DIR    user directory; captures go below DIR/.QX-trace/data\n"
      "                (default: $USERPROFILE, else $HOME)\n"
      "  --target T    target path, \"/\" between levels (one kind only; defaults:\n"
      "                mtb Probe/Cortex_M4_0, tdf-table file/recording,\n"
      "                placeholder Probe/Cortex_M0_1)\n"
      "  --size N      instructions (mtb) or rows (tdf-table); default 10000, up to\n"
      "                100000000\n"
      "  --seed S      seed of the pseudo-random data (default 1)\n"
      "  --tree T      where TDF tables go: \"file\" (file-targets, as a capture\n"
      "                leaves them; default) or \"live\" (live-targets, so that\n"
      "                `ostrand serve` finds them by its scan)\n"
      "  --help        show this text\n\n"
      "Prints the capture directories it wrote. Existing files are replaced.\n");
}

constexpr uint64_t kMaxSize = 100'000'000;

struct GenOptions {
  std::string kind;
  std::string dataDir;
  std::string target;
  uint64_t size = 10'000;
  uint64_t seed = 1;
  bool liveTdf = false;
};

// ---- Pseudo-random numbers --------------------------------------------

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

// ---- Streaming JSON text ----------------------------------------------

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

// Progress on stderr when it is a terminal, at most once per percent.
class Progress {
 public:
  Progress(std::string label, uint64_t total)
      : label(std::move(label)), total(total), shown(isatty(STDERR_FILENO) != 0) {}
  void update(uint64_t done) {
    if (!shown || total == 0) return;
    const int percent = static_cast<int>(done * 100 / total);
    if (percent == last) return;
    last = percent;
    std::fprintf(stderr, "\r%s: %3d%%", label.c_str(), percent);
  }
  ~Progress() {
    if (shown && last >= 0) std::fprintf(stderr, "\r%s: done\n", label.c_str());
  }

 private:
  std::string label;
  uint64_t total;
  bool shown;
  int last = -1;
};

// ---- Capture directories and metadata ----------------------------------

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%FT%TZ", &tm);
  return text;
}

// <data>/<tree>/<target levels>/<kind>, created.
std::string captureDir(const GenOptions& o, const std::string& tree, const std::string& target,
                       const std::string& kind) {
  fs::path dir = fs::path(o.dataDir) / ".QX-trace" / "data" / tree;
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

// The metadata of a capture, keys in ascending order as the capture side
// writes them.
bool writeMetadata(const std::string& dir, const std::string& typeId, const std::string& target,
                   const std::string& dataFile) {
  JsonOut out(dir + "/metadata");
  out.raw("{\n   \"dataFile\" : ").str(dataFile);
  out.raw(",\n   \"device\" : ").str(target);
  out.raw(",\n   \"deviceId\" : \"unknown\",\n   \"source\" : \"VSK Vireo\",\n   \"time\" : ");
  out.str(utcNow()).raw(",\n   \"typeId\" : ").str(typeId).raw("\n}\n");
  return out.close();
}

// ---- MTB documents -------------------------------------------------------

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
    "movs r0, #1",    "ldr r3, [r7, #4]", "str r2, [r3, #0]", "adds r1, r1, #1",
    "cmp r1, #15",    "bne.n 0x%08x",     "ldrb r0, [r4, r2]", "lsls r2, r2, #2",
    "push {r4, r7, lr}", "pop {r4, r7, pc}", "bl 0x%08x",     "muls r0, r1, r0",
};

constexpr const char* kSourceLines[] = {
    "    count++;",           "    value = read_reg(ADC0);", "    if (count > LIMIT) {",
    "        acc += sample * k;", "    return acc >> 4;",        "    while (!(UART->SR & TXE)) {}",
    "    buffer[i] = x;",     "}",
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
                        to ? "Dst Address (Branch To)" : "Src Address (Branch From)",
                        "\"n/a\"", "n/a"});
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
void forEachRun(const GenOptions& o, const std::function<void(Run&, uint64_t, uint64_t)>& visit) {
  uint64_t seq = 0;
  for (uint64_t index = 0; seq < o.size; ++index) {
    Run run = makeRun(o.seed, index);
    if (run.code.size() > o.size - seq) run.code.resize(o.size - seq);
    visit(run, index, seq);
    seq += run.code.size();
  }
}

bool writeMtbDocument(const GenOptions& o, const std::string& path) {
  JsonOut out(path);
  if (!out.ok()) return false;
  Progress progress("mtb_data.json", o.size * 2);
  out.raw("{\"code\":[");
  forEachRun(o, [&](Run& run, uint64_t index, uint64_t seq) {
    out.raw(index == 0 ? "\n[" : ",\n[");
    for (size_t j = 0; j < run.code.size(); ++j) {
      const Instruction& in = run.code[j];
      out.raw(j == 0 ? "{\"addr\":" : ",{\"addr\":").str(in.addr);
      out.raw(",\"asm\":").str(in.assembly).raw(",\"lno\":").raw(in.lno);
      out.raw(",\"seq\":").num(seq + j).raw(",\"src\":").str(in.src).raw("}");
    }
    out.raw("]");
    progress.update(seq);
  });
  out.raw("],\n\"data\":[");
  forEachRun(o, [&](Run& run, uint64_t index, uint64_t seq) {
    const bool known = run.function != nullptr;
    out.raw(index == 0 ? "\n{\"dir\":" : ",\n{\"dir\":").str(known ? run.function->dir : "n/a");
    out.raw(",\"file\":").str(known ? run.function->file : "n/a");
    out.raw(",\"first\":").str(run.first);
    out.raw(",\"function\":").str(known ? run.function->name : "n/a");
    out.raw(",\"last\":").str(run.last).raw(",\"seq\":").num(index).raw("}");
    progress.update(o.size + seq);
  });
  out.raw("],\n\"header\":[\"Index\",\"Cycle Count\",\"Read Address\",\"Write Address\","
          "\"Program Address\",\"Function\",\"File\",\"Dir\"]}\n");
  return out.close();
}

// ---- TDF documents -------------------------------------------------------

bool writeTdfDocument(const GenOptions& o, const std::string& path) {
  static constexpr const char* kColumns[] = {"Index",  "Time (ns)", "Event", "Program Address",
                                             "Data",   "Function",  "File",  "Dir"};
  static constexpr const char* kEvents[] = {"ITM Port 0", "Exception Entry", "Exception Exit",
                                            "Data Watch", "PC Sample",       "Overflow"};
  JsonOut out(path);
  if (!out.ok()) return false;
  Progress progress("tdf_data.json", o.size);
  out.raw("{\"Columns\":[");
  for (size_t c = 0; c < std::size(kColumns); ++c) {
    out.raw(c == 0 ? "{\"format\":\"default\",\"name\":" : ",{\"format\":\"default\",\"name\":");
    out.str(kColumns[c]).raw("}");
  }
  out.raw("],\n\"Rows\":[");
  Random random{o.seed * 0xD1B54A32D192ED03ull + 7};
  uint64_t time = 0;
  for (uint64_t row = 0; row < o.size; ++row) {
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
    progress.update(row);
  }
  out.raw("]}\n");
  return out.close();
}

// ---- The kinds ----------------------------------------------------------

int failWrite(const std::string& path) {
  std::fprintf(stderr, "ostrand gen: cannot write '%s': %s; check the --data directory\n",
               path.c_str(), std::strerror(errno));
  return kExitFailure;
}

int genMtb(const GenOptions& o, const std::string& target) {
  const std::string dir = captureDir(o, "live-targets", target, "MTB");
  if (!writeMetadata(dir, "MTB", target, "mtb_data.json")) return failWrite(dir + "/metadata");
  if (!writeMtbDocument(o, dir + "/mtb_data.json")) return failWrite(dir + "/mtb_data.json");
  std::printf("%s\n", dir.c_str());
  return kExitOk;
}

int genTdf(const GenOptions& o, const std::string& target) {
  const std::string dir = captureDir(o, o.liveTdf ? "live-targets" : "file-targets", target, "TDF");
  if (!writeMetadata(dir, "TDF", target, "tdf_data.json")) return failWrite(dir + "/metadata");
  if (!writeTdfDocument(o, dir + "/tdf_data.json")) return failWrite(dir + "/tdf_data.json");
  std::printf("%s\n", dir.c_str());
  return kExitOk;
}

// Only the metadata: the data file it names does not exist yet.
int genPlaceholder(const GenOptions& o, const std::string& target) {
  const struct {
    const char* kind;
    const char* dataFile;
    bool fileTree;
  } kinds[] = {{"MTB", "mtb_data.json", false},
               {"ETB", "etb_data.json", false},
               {"TDF", "tdf_data.json", !o.liveTdf}};
  for (const auto& k : kinds) {
    const std::string dir =
        captureDir(o, k.fileTree ? "file-targets" : "live-targets", target, k.kind);
    std::error_code ec;
    fs::remove(fs::path(dir) / k.dataFile, ec);
    if (!writeMetadata(dir, k.kind, target, k.dataFile)) return failWrite(dir + "/metadata");
    std::printf("%s\n", dir.c_str());
  }
  return kExitOk;
}

// Every kind of power capture the server reads: plain records, and records
// with state words under each version of the state description. Each goes
// to a target of its own, so each becomes an experiment of its own.
int genWattlineSet(const GenOptions& o, const std::string& target) {
  using VSKTspServer::WLStateLayout;
  const struct {
    const char* device;
    uint32_t recordType;
    WLStateLayout layout;
  } captures[] = {{"wl_plain", 8, WLStateLayout::kNone},
                  {"wl_v2", 7, WLStateLayout::kV2},
                  {"wl_v2_enums", 7, WLStateLayout::kV2Enums},
                  {"wl_v4", 7, WLStateLayout::kV4},
                  {"wl_v5", 7, WLStateLayout::kV5}};
  for (const auto& c : captures) {
    VSKTspServer::WLGeneratorOptions options;
    options.recordType = c.recordType;
    options.layout = c.layout;
    options.device = target + "/" + c.device;
    options.seed = o.seed;
    options.sampleRate = 10'000;
    options.durationSeconds = static_cast<double>(o.size) / options.sampleRate;
    const std::string dir = captureDir(o, "live-targets", options.device, "Wattline");
    Progress progress(options.device, 1000);
    try {
      VSKTspServer::writeCaptureDirectory(
          dir, options, [&](double done) { progress.update(static_cast<uint64_t>(done * 1000)); });
    } catch (const std::exception& e) {
      std::fprintf(stderr, "ostrand gen: %s; check the --data directory and the free space\n",
                   e.what());
      return kExitFailure;
    }
    std::printf("%s\n", dir.c_str());
  }
  return kExitOk;
}

struct Kind {
  const char* name;
  const char* defaultTarget;
  // Kinds that share the options above.
  int (*run)(const GenOptions&, const std::string&);
  // Kinds with options of their own get the command line from the kind on
  // (argv[0] is the kind) and are not part of `all`.
  int (*runWithArgs)(int argc, char** argv);
};

// One row per kind of capture. A new kind adds its row here, with `run`
// when the options above fit it, else with `runWithArgs`.
constexpr Kind kKinds[] = {
    {"mtb", "Probe/Cortex_M4_0", genMtb, nullptr},
    {"tdf-table", "file/recording", genTdf, nullptr},
    // `gen tdf ...` runs a simulated CPU and saves a recording (GenTdfCommand.cpp).
    {"tdf", "", nullptr, runGenTdf},
    {"placeholder", "Probe/Cortex_M0_1", genPlaceholder, nullptr},
    // `gen wattline ...` takes its own options; `gen all` writes the set.
    {"wattline", "sim", genWattlineSet, runGenWattline},
};

bool parseNumber(const char* text, uint64_t& value) {
  if (*text == '\0' || *text == '-') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*end != '\0' || errno != 0) return false;
  value = parsed;
  return true;
}

// 0 when the options are good, else the exit code (the message is printed).
int parseGenOptions(int argc, char** argv, GenOptions& o, bool& help) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
      return 0;
    }
    if (arg.rfind("--", 0) != 0) {
      if (!o.kind.empty()) {
        std::fprintf(stderr, "ostrand gen: one kind at a time ('%s' after '%s'); use 'all'\n",
                     arg.c_str(), o.kind.c_str());
        return kExitUsage;
      }
      o.kind = arg;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "ostrand gen: %s needs a value; see 'ostrand gen --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
    const char* value = argv[++i];
    if (arg == "--data") {
      o.dataDir = value;
    } else if (arg == "--target") {
      if (!isTargetBelowTree(value)) {
        std::fprintf(stderr,
                     "ostrand gen: --target '%s' may not hold '.' or '..' levels; it names "
                     "directories below the data tree\n",
                     value);
        return kExitUsage;
      }
      o.target = value;
    } else if (arg == "--size") {
      if (!parseNumber(value, o.size) || o.size < 1 || o.size > kMaxSize) {
        std::fprintf(stderr, "ostrand gen: --size wants a number from 1 to %" PRIu64 ", not '%s'\n",
                     kMaxSize, value);
        return kExitUsage;
      }
    } else if (arg == "--seed") {
      if (!parseNumber(value, o.seed)) {
        std::fprintf(stderr, "ostrand gen: --seed wants a non-negative number, not '%s'\n", value);
        return kExitUsage;
      }
    } else if (arg == "--tree") {
      if (std::strcmp(value, "live") != 0 && std::strcmp(value, "file") != 0) {
        std::fprintf(stderr, "ostrand gen: --tree is \"live\" or \"file\", not '%s'\n", value);
        return kExitUsage;
      }
      o.liveTdf = std::strcmp(value, "live") == 0;
    } else {
      std::fprintf(stderr, "ostrand gen: unknown option '%s'; see 'ostrand gen --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
  }
  return 0;
}

}  // namespace

int runGen(int argc, char** argv) {
  if (argc >= 2) {
    for (const Kind& kind : kKinds) {
      if (kind.runWithArgs && std::strcmp(argv[1], kind.name) == 0) {
        return kind.runWithArgs(argc - 1, argv + 1);
      }
    }
  }
  GenOptions o;
  bool help = false;
  if (int rc = parseGenOptions(argc, argv, o, help); rc != 0) return rc;
  if (help) {
    printGenUsage(stdout);
    return kExitOk;
  }
  if (o.kind.empty()) {
    std::fprintf(stderr, "ostrand gen: say which kind to write: mtb, tdf, tdf-table, placeholder, wattline or all\n");
    return kExitUsage;
  }
  if (o.dataDir.empty()) {
    const char* home = std::getenv("USERPROFILE");
    if (!home || !*home) home = std::getenv("HOME");
    if (!home || !*home) {
      std::fprintf(stderr, "ostrand gen: set USERPROFILE or HOME, or pass --data DIR\n");
      return kExitUsage;
    }
    o.dataDir = home;
  }
  const bool all = o.kind == "all";
  if (all && !o.target.empty()) {
    std::fprintf(stderr, "ostrand gen: --target goes with one kind; 'all' uses one target each\n");
    return kExitUsage;
  }
  bool known = false;
  try {
    for (const Kind& kind : kKinds) {
      if (!kind.run || (!all && o.kind != kind.name)) continue;
      known = true;
      const std::string target = o.target.empty() ? kind.defaultTarget : o.target;
      if (int rc = kind.run(o, target); rc != kExitOk) return rc;
    }
  } catch (const fs::filesystem_error& e) {
    std::fprintf(stderr, "ostrand gen: cannot create the capture directory: %s\n", e.what());
    return kExitFailure;
  }
  if (!known) {
    std::fprintf(stderr,
                 "ostrand gen: unknown kind '%s'; choose mtb, tdf, tdf-table, placeholder, wattline or all\n",
                 o.kind.c_str());
    return kExitUsage;
  }
  return kExitOk;
}

}  // namespace ostrand
