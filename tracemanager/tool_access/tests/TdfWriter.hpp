// A .tdf header written field by field, as a recorder writes one, with
// every field settable so a test can break one at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

#include "trace/CpuInfo.hpp"

// Writes a .tdf header field by field, as a recorder would.
struct TdfHeader {
  bool current = true;  // "TDF2" form; false: the older form with a signature
  uint32_t headerSize = 512;
  uint32_t version = 12;
  std::string signature = "TraceDataFile";
  std::string component = "TraceQX";
  std::string receiver = "ETB";
  std::string cpu = "core0";
  uint32_t values[7] = {8, 0x75801C00, Qx::Nlv::Trace::kProtocolEtm4, 3, 0, 32, 1};
  std::string coff;
  uint32_t flags = 0x55;
  std::string sourcePaths = "/src";
  bool clock = true;
  double clockHz = 48e6;
  size_t tableCOffset = 0;  // set by bytes(): where table C starts

  std::string bytes() {
    std::string out;
    auto u32 = [&out](std::initializer_list<uint32_t> values) {
      for (uint32_t v : values) {
        for (int i = 0; i < 4; ++i) out += static_cast<char>(v >> (8 * i));
      }
    };
    auto str = [&](std::initializer_list<std::string> texts) {
      for (const std::string& s : texts) {
        u32({static_cast<uint32_t>(s.size())});
        out += s;
      }
    };
    if (current) out += "TDF2";
    u32({headerSize, version});
    if (!current) str({signature});
    str({component, receiver, cpu});
    for (uint32_t v : values) u32({v});
    str({coff});
    u32({flags});
    str({sourcePaths});
    // A: one entry with two inner pairs
    u32({1});
    str({"a"});
    u32({1, 2, 2, 0});
    str({"pair"});
    u32({1});
    str({"pair"});
    u32({2, 0, 1, 2, 3, 4, 5});  // B: two entries of three
    tableCOffset = out.size();
    u32({1, 7, 1, 0, 1, 2, 3, 4});  // C: one entry with one inner record
    str({"x", "", "z"});
    u32({1});  // D
    out += std::string(16, '\x7f');
    str({"d"});
    if (clock) {
      uint64_t bits = 0;
      std::memcpy(&bits, &clockHz, 8);
      for (int i = 0; i < 8; ++i) out += static_cast<char>(bits >> (8 * i));
    }
    return out;
  }
};
