#include "ostrand/ShellSim.hpp"

#include <dlfcn.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <thread>

#include "sim/SimControl.hpp"

namespace ostrand {

namespace {

template <typename F>
F entry(void* library, const char* name) {
  return library != nullptr ? reinterpret_cast<F>(dlsym(library, name)) : nullptr;
}

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

bool wholeNumber(const std::string& text, uint64_t& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19) {
    return false;
  }
  value = std::stoull(text);
  return true;
}

}  // namespace

std::string ShellSim::toolDirOf(const std::string& modulePath) {
  std::filesystem::path lib = std::filesystem::absolute(modulePath).parent_path();
  return (lib.parent_path() / "emulation" / "analysis" / "bin").lexically_normal().string();
}

bool ShellSim::open(const std::string& toolDir, const std::string& scenario, std::string& error) {
  std::string path = toolDir + "/libhemlock.so";
  // The same file the module loads, so both reach one simulated world.
  library_ = dlopen(path.c_str(), RTLD_NOW);
  auto load = entry<OstrandSim_LoadScenario_t>(library_, "OstrandSim_LoadScenario");
  if (load == nullptr) {
    error = "the simulated tool libraries are not at " + toolDir +
            " (build the project, or pass --module with the module of a complete tree)";
    return false;
  }
  return call(load(scenario.c_str()), "--sim", error);
}

bool ShellSim::call(int32_t result, const std::string& what, std::string& error) const {
  if (result >= 0) return true;
  auto last = entry<OstrandSim_LastError_t>(library_, "OstrandSim_LastError");
  error = what + ": " + (last != nullptr ? last() : "failed");
  return false;
}

bool ShellSim::ready(std::string& error) const {
  if (library_ != nullptr) return true;
  error = "host lines drive the simulated targets; start the shell with --sim";
  return false;
}

void ShellSim::printed(const std::string& text) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    printed_.push_back(text);
  }
  printedChanged_.notify_all();
}

bool ShellSim::hostLine(const std::string& line, std::string& error) {
  std::vector<std::string> w = words(line);
  const std::string verb = w.empty() ? "" : w[0];
  uint64_t number = 0;
  if (verb == ":sleep") {
    if (w.size() != 2 || !wholeNumber(w[1], number)) return (error = ":sleep needs milliseconds, as in ':sleep 200'"), false;
    std::this_thread::sleep_for(std::chrono::milliseconds(number));
    return true;
  }
  if (verb == ":wait") {
    // TEXT is everything after the verb, less a trailing number of seconds.
    double seconds = 10;
    std::string text = line.substr(line.find(":wait") + 5);
    size_t end = text.find_last_not_of(" \t");
    text = end == std::string::npos ? "" : text.substr(0, end + 1);
    size_t cut = text.find_last_of(" \t");
    if (cut != std::string::npos && wholeNumber(text.substr(cut + 1), number)) {
      seconds = static_cast<double>(number);
      text = text.substr(0, cut);
    }
    text = text.substr(std::min(text.size(), text.find_first_not_of(" \t")));
    if (text.empty()) return (error = ":wait needs a text to wait for, as in ':wait DataReady 20'"), false;
    std::unique_lock<std::mutex> lock(mutex_);
    size_t from = 0;
    bool seen = printedChanged_.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
      for (; from < printed_.size(); ++from) {
        if (printed_[from].find(text) != std::string::npos) return true;
      }
      return false;
    });
    if (!seen) {
      char within[32];
      std::snprintf(within, sizeof within, "%g", seconds);
      error = ":wait: no line with '" + text + "' came within " + within + " s";
    }
    if (seen) printed_.erase(printed_.begin(), printed_.begin() + static_cast<long>(from) + 1);
    return seen;
  }
  if (verb == ":files" && w.size() == 2) {
    // What a capture left on disk: the names in a directory, "~/" being the
    // user directory the module writes under.
    std::string dir = w[1];
    if (dir.rfind("~/", 0) == 0) {
      const char* home = std::getenv("USERPROFILE");
      if (home == nullptr || *home == '\0') home = std::getenv("HOME");
      dir = std::string(home != nullptr ? home : "") + dir.substr(1);
    }
    std::error_code ec;
    Json::Value out(Json::objectValue);
    out["dir"] = dir;
    out["files"] = Json::Value(Json::arrayValue);
    std::vector<std::string> names;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      names.push_back(it->path().filename().string());
    }
    if (ec) return (error = ":files " + dir + ": " + ec.message()), false;
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) out["files"].append(n);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::printf("%s\n", Json::writeString(writer, out).c_str());
    std::fflush(stdout);
    return true;
  }
  if (!ready(error)) return false;
  if (verb == ":targets" && w.size() == 1) {
    auto state = entry<OstrandSim_State_t>(library_, "OstrandSim_State");
    std::string text(4096, '\0');
    int32_t n = state(text.data(), text.size());
    if (n >= static_cast<int32_t>(text.size())) {
      text.assign(static_cast<size_t>(n) + 1, '\0');
      n = state(text.data(), text.size());
    }
    if (!call(n, ":targets", error)) return false;
    text.resize(static_cast<size_t>(n));
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
    return true;
  }
  if ((verb == ":connect" || verb == ":disconnect" || verb == ":halt") && w.size() == 2) {
    const char* name = verb == ":connect" ? "OstrandSim_Connect" : verb == ":disconnect" ? "OstrandSim_Disconnect"
                                                                                         : "OstrandSim_Halt";
    return call(entry<OstrandSim_Connect_t>(library_, name)(w[1].c_str()), verb + " " + w[1], error);
  }
  if (verb == ":run" && (w.size() == 2 || w.size() == 3)) {
    if (w.size() == 3 && !wholeNumber(w[2], number)) {
      return (error = ":run takes a number of instructions, as in ':run mps2/CM4 5000'"), false;
    }
    return call(entry<OstrandSim_Run_t>(library_, "OstrandSim_Run")(w[1].c_str(), number), verb + " " + w[1], error);
  }
  if (verb == ":save") {
    if (w.size() != 3) return (error = ":save needs a CPU and a file, as in ':save mps2/CM4 /tmp/run.tdf'"), false;
    // A halt just asked for may still be ending the run: let it finish.
    entry<OstrandSim_WaitHalted_t>(library_, "OstrandSim_WaitHalted")(w[1].c_str(), 5000);
    const std::string file = std::filesystem::absolute(w[2]).lexically_normal().string();
    if (!call(entry<OstrandSim_Save_t>(library_, "OstrandSim_Save")(w[1].c_str(), file.c_str()),
              ":save " + w[1], error)) {
      return false;
    }
    std::fprintf(stderr, "saved the last run of %s as %s\n", w[1].c_str(), file.c_str());
    return true;
  }
  error = "unknown host line '" + line +
          "' (host lines: :targets, :connect CPU, :disconnect CPU, :run CPU [N], :halt CPU, "
          ":save CPU FILE, :wait TEXT [SECONDS], :sleep MS, :files DIR)";
  return false;
}

std::vector<std::string> ShellSim::runningCpus() const {
  std::vector<std::string> out;
  auto state = entry<OstrandSim_State_t>(library_, "OstrandSim_State");
  if (state == nullptr) return out;
  std::string text(65536, '\0');
  int32_t n = state(text.data(), text.size());
  Json::Value root;
  if (n <= 0 || !Json::Reader().parse(text.substr(0, static_cast<size_t>(n)), root)) return out;
  for (const Json::Value& cpu : root["cpus"]) {
    if (cpu["state"].asString() == "running") out.push_back(cpu["name"].asString());
  }
  return out;
}

void ShellSim::finish() {
  if (library_ == nullptr) return;
  auto halt = entry<OstrandSim_Halt_t>(library_, "OstrandSim_Halt");
  auto wait = entry<OstrandSim_WaitHalted_t>(library_, "OstrandSim_WaitHalted");
  for (const std::string& cpu : runningCpus()) {
    halt(cpu.c_str());
    wait(cpu.c_str(), 5000);
  }
}

}  // namespace ostrand
