// `ostrand gen wattline`: writes a realistic Wattline capture directory.
//
// The directory looks as the capture side leaves it (`metadata`,
// `metadataSup.json`, `WLData.bin`), so `ostrand serve` shows it like a real
// power capture. The stream is written as it is made: any duration fits in
// constant memory.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

namespace ostrand {

namespace {

void printGenWattlineUsage(FILE* out) {
  std::fprintf(out,
               "usage: ostrand gen wattline [options]\n\n"
               "Write a simulated power capture: a low-power device that wakes on a timer,\n"
               "runs code, drives a serial port, a converter and a radio, and sleeps.\n\n"
               "  --out DIR        capture directory to write (default: the user data tree,\n"
               "                   <user>/.QX-trace/data/live-targets/<target>/Wattline)\n"
               "  --data DIR       user directory for the default --out (default: $USERPROFILE,\n"
               "                   else $HOME)\n"
               "  --target NAME    target of the default --out and of `device` (default\n"
               "                   sim/cortex_m4_0)\n"
               "  --type 7|8       7: records with two state words (\"WL+\"); 8: without (\"WL\")\n"
               "                   (default 7)\n"
               "  --states KIND    state description of a type-7 capture: v2, v2-enums, v4, v5\n"
               "                   or none (default v4)\n"
               "  --duration SEC   capture length in seconds (default 10)\n"
               "  --rate HZ        samples per second, 1 to 1000000 (default 10000)\n"
               "  --seed N         seed of the simulation (default 1)\n"
               "  --wrap           start the energy counter near its wrap, so that it wraps\n"
               "                   once early in the capture (for tests of the wrap)\n"
               "  --no-wrap        start it well below the wrap (the default)\n"
               "  --quiet          do not print what was written\n"
               "  --help           show this text\n\n"
               "A one-hour capture at 100000 samples per second is about 9.4 GB.\n");
}

bool parseNumber(const std::string& text, double& value) {
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0';
}

}  // namespace

int runGenWattline(int argc, char** argv) {
  VSKTspServer::WLGeneratorOptions options;
  std::string out, dataDir, statesText = "v4";
  bool quiet = false;
  ArgReader args("ostrand gen wattline", argc, argv);
  std::string value;
  while (args.next()) {
    if (args.isHelp()) {
      printGenWattlineUsage(stdout);
      return kExitOk;
    }
    if (args.is("--quiet")) {
      quiet = true;
      continue;
    }
    if (args.is("--no-wrap") || args.is("--wrap")) {
      options.wrapEnergy = args.is("--wrap");
      continue;
    }
    if (!args.isAny({"--out", "--data", "--target", "--type", "--states", "--duration", "--rate",
                     "--seed"}) ||
        !args.value(value))
      return args.fail();
    double number = 0;
    auto bad = [&](const char* want) {
      return args.fail(args.arg() + " wants " + want + ", not '" + value + "'");
    };
    if (args.is("--out")) {
      out = value;
    } else if (args.is("--data")) {
      dataDir = value;
    } else if (args.is("--target")) {
      if (!isTargetBelowTree(value)) return bad("levels below the data tree (no '.' or '..')");
      options.device = value;
    } else if (args.is("--type")) {
      if (!parseNumber(value, number) || (number != 7 && number != 8)) return bad("7 or 8");
      options.recordType = static_cast<uint32_t>(number);
    } else if (args.is("--states")) {
      statesText = value;
      if (!VSKTspServer::parseStateLayout(value, options.layout))
        return bad("one of v2, v2-enums, v4, v5, none");
    } else if (args.is("--duration")) {
      if (!parseNumber(value, number) || !(number > 0) || number > 1e6)
        return bad("a positive number of seconds");
      options.durationSeconds = number;
    } else if (args.is("--rate")) {
      if (!parseNumber(value, number) || number < 1 || number > 1e6 ||
          number != static_cast<uint32_t>(number))
        return bad("a whole number from 1 to 1000000");
      options.sampleRate = static_cast<uint32_t>(number);
    } else if (args.is("--seed")) {
      if (!parseNumber(value, number) || number < 0) return bad("a non-negative number");
      options.seed = static_cast<uint64_t>(number);
    } else {
      return args.fail();
    }
  }
  if (out.empty()) {
    dataDir = userDirectoryOr(dataDir, "ostrand gen wattline", "--data DIR or --out DIR");
    if (dataDir.empty()) return kExitUsage;
    out = dataDir + "/.QX-trace/data/live-targets/" + options.device + "/Wattline";
  }

  const bool terminal = ::isatty(STDERR_FILENO) != 0;
  int lastShown = -1;
  auto progress = [&](double done) {
    const int percent = static_cast<int>(done * 100);
    if (!terminal || percent == lastShown) return;
    lastShown = percent;
    std::fprintf(stderr, "\rwriting %s: %3d%%", out.c_str(), percent);
    std::fflush(stderr);
  };
  try {
    const auto result = VSKTspServer::writeCaptureDirectory(out, options, progress);
    if (terminal) std::fprintf(stderr, "\n");
    if (!quiet)
      std::printf("%s: %llu records (%llu bytes), type %u%s%s, energy counter wrapped %u time(s)\n",
                  out.c_str(), static_cast<unsigned long long>(result.records),
                  static_cast<unsigned long long>(result.bytes), options.recordType,
                  options.recordType == 7 ? ", states " : "",
                  options.recordType == 7 ? statesText.c_str() : "", result.energyWraps);
    return kExitOk;
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr, "ostrand gen wattline: %s\n", e.what());
    return kExitUsage;
  } catch (const std::exception& e) {
    if (terminal) std::fprintf(stderr, "\n");
    std::fprintf(stderr, "ostrand gen wattline: %s; check the directory and the free space\n",
                 e.what());
    return kExitFailure;
  }
}

}  // namespace ostrand
