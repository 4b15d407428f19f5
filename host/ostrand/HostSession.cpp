#include "ostrand/HostSession.hpp"

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <vector>

#include "ostrand/ExitCodes.hpp"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace ostrand {

namespace {

// Tells the symbol manager the program of every CPU of a scenario, so that
// the module finds a target's symbols by its name as it does in a debug
// host. Program paths are relative to the scenario file.
void addScenarioPrograms(::hostkit::ElfSymbolManager& symbols, const std::string& scenarioFile) {
  std::ifstream in(scenarioFile);
  Json::Value root;
  if (!in || !Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr)) return;
  const std::filesystem::path base = std::filesystem::path(scenarioFile).parent_path();
  std::vector<const Json::Value*> pending{&root};
  while (!pending.empty()) {
    const Json::Value& node = *pending.back();
    pending.pop_back();
    if (node.isObject() && node["name"].isString() && node["program"].isString()) {
      std::filesystem::path program(node["program"].asString());
      if (program.is_relative()) program = base / program;
      symbols.addProgram(node["name"].asString(), program.lexically_normal().string());
    }
    if (node.isObject() || node.isArray()) {
      for (const Json::Value& child : node) pending.push_back(&child);
    }
  }
}

// Whether `line` holds more JSON after its first value. The module reads one
// value per message and ignores the rest, so a second object on the same
// line would never be answered.
bool holdsSeveralTexts(const std::string& line) {
  Json::CharReaderBuilder lenient;
  Json::CharReaderBuilder strict = lenient;
  strict["failIfExtra"] = true;
  Json::Value ignored;
  std::string errors;
  const char* begin = line.data();
  const char* end = begin + line.size();
  try {
    const std::unique_ptr<Json::CharReader> first(lenient.newCharReader());
    if (!first->parse(begin, end, &ignored, &errors)) return false;  // not JSON: sent as it is
    const std::unique_ptr<Json::CharReader> whole(strict.newCharReader());
    return !whole->parse(begin, end, &ignored, &errors);
  } catch (const std::exception&) {
    return false;
  }
}

// Replies still owed, by id. A command expects one reply; a cancel of an id
// still owed removes that debt (a cancelled command never answers).
}  // namespace

class ReplyLedger {
 public:
  void sent(const std::string& line) {
    Json::Value root;
    const bool parsed = parse(line, root);
    std::lock_guard<std::mutex> guard(mutex_);
    if (!parsed || !root.isObject()) {
      ++owed_["null"];  // the module answers an unparsable text with an error
      return;
    }
    if (root["command"].isNull() && !root["cancel"].isNull()) {
      auto it = owed_.find(key(root["cancel"]));
      if (it != owed_.end() && --it->second == 0) owed_.erase(it);
      return;
    }
    ++owed_[key(root["id"])];
  }

  void received(const std::string& text) {
    Json::Value root;
    if (!parse(text, root) || !root.isObject()) return;
    const char* key = root.isMember("response") ? "response" : root.isMember("error") ? "error" : nullptr;
    if (key == nullptr) return;  // an event
    std::lock_guard<std::mutex> guard(mutex_);
    // A reply carries the id as the module read it, which need not be the
    // text the client wrote (a missing id answers as 0); any reply pays one
    // debt, its own when it can be found.
    auto it = owed_.find(this->key(root[key]));
    if (it == owed_.end()) it = owed_.begin();
    if (it != owed_.end() && --it->second == 0) owed_.erase(it);
  }

  size_t owed() const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t total = 0;
    for (const auto& entry : owed_) total += entry.second;
    return total;
  }

 private:
  // Never throws: the reader raises exceptions for input nested deeper than
  // its limit, and the shell must survive any line.
  static bool parse(const std::string& text, Json::Value& root) {
    try {
      Json::Reader reader;
      return reader.parse(text, root);
    } catch (const std::exception&) {
      return false;
    }
  }

  // 7, 7.0 and "7" stay apart; an integer is the same key whatever its sign type.
  static std::string key(const Json::Value& id) {
    if (id.isUInt64()) return std::to_string(id.asUInt64());
    if (id.isInt64()) return std::to_string(id.asInt64());
    Json::FastWriter writer;
    return writer.write(id);
  }
  mutable std::mutex mutex_;
  std::map<std::string, size_t> owed_;  // guarded by mutex_
};


std::string HostSession::defaultModulePath() {
  if (const char* env = std::getenv("OSTRAND_MODULE"); env != nullptr && *env != '\0') return env;
  return OSTRAND_DEFAULT_MODULE;
}

HostSession::HostSession(Printer printer)
    : printer_(std::move(printer)), ledger_(std::make_unique<ReplyLedger>()) {}

HostSession::~HostSession() { close(0); }

int HostSession::open(const Options& options, std::string& error) {
  if (options.simulate) {
    addScenarioPrograms(symbols_, options.scenario.empty()
                                      ? ShellSim::toolDirOf(options.modulePath) + "/scenarios/default.json"
                                      : options.scenario);
    if (!sim_.open(ShellSim::toolDirOf(options.modulePath), options.scenario, error)) {
      return error.rfind("--sim:", 0) == 0 ? kExitBadInput : kExitNoModule;
    }
  }
  if (!loader_.load(options.modulePath)) {
    error = loader_.error() + "\n  Build the project or pass --module PATH to libOstrand.so.";
    return kExitNoModule;
  }
  loader_.initializeSymbolManager(static_cast<sym_lite::ISymbolManager*>(&symbols_));
  loader_.initializeDisAsmManager(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly_));
  uint32_t count = 0;
  const char* const* names = loader_.listModules(&count);
  if (count == 0 || names == nullptr || names[0] == nullptr) {
    error = options.modulePath + " offers no JSON interface module";
    return kExitNoModule;
  }
  connection_ = loader_.createModule(names[0], &host_);
  if (connection_ == nullptr) {
    error = std::string("the module refused a connection to '") + names[0] + "'";
    return kExitNoModule;
  }
  printerThread_ = std::thread([this] {
    while (!stopPrinter_.load()) {
      if (auto text = host_.next(std::chrono::milliseconds(50))) {
        ledger_->received(*text);
        printer_(*text);
        sim_.printed(*text);
      }
    }
  });
  return kExitOk;
}

int HostSession::line(const std::string& text, std::string& error) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos || text[first] == '#') return kExitOk;
  if (text.find('\0') != std::string::npos) {
    error = "holds a NUL byte and cannot be sent; skipped";
    return kExitBadInput;
  }
  if (text[first] == ':') return sim_.hostLine(text.substr(first), error) ? kExitOk : kExitFailure;
  if (connection_ == nullptr) {
    error = "no connection to the module";
    return kExitFailure;
  }
  if (holdsSeveralTexts(text)) {
    error = "holds more than one JSON message; put each on a line of its own. Skipped";
    return kExitBadInput;
  }
  ledger_->sent(text);
  connection_->send(text.c_str());
  return kExitOk;
}

size_t HostSession::close(double waitSeconds) {
  if (connection_ == nullptr) return 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(waitSeconds);
  while (ledger_->owed() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const size_t owed = ledger_->owed();
  sim_.finish();
  connection_->release();
  connection_ = nullptr;
  stopPrinter_.store(true);
  printerThread_.join();
  // Texts that arrived before release are still printed.
  while (auto text = host_.next(std::chrono::milliseconds(0))) printer_(*text);
  return owed;
}

}  // namespace ostrand

#pragma GCC diagnostic pop
