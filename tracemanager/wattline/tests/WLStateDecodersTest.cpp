#include "wattline/WLStateDecoders.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "WLTestStreams.hpp"

using VSKTspServer::StateCondition;
using VSKTspServer::StateField;
using VSKTspServer::WLDataNode;
using nlohmann::json;
using Base = VSKTspServer::WLDataNode::DSR_Base;
using wltest::StreamBuilder;

namespace {

json jstate(int version, json bitFields) {
  return {{"name", "board"}, {"version", version}, {"bitFields", std::move(bitFields)}};
}

std::string hex(uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%X", v);
  return text;
}

void listFields(std::ostream& out, const char* kind, const std::vector<StateField>& fields) {
  out << kind << ":\n";
  for (const StateField& f : fields) {
    out << "  " << f.name;
    if (!f.group.empty() || !f.label.empty()) out << " [" << f.group << "|" << f.label << "]";
    for (const StateCondition& c : f.conditions)
      out << " (w" << c.word << " & " << hex(c.mask) << " >> " << c.shift << " == " << hex(c.value)
          << ")";
    out << "\n";
  }
}

void listEvaluation(std::ostream& out, const Base& d) {
  out << "rows:";
  for (uint64_t r : d.rowRecords) out << " " << r;
  out << "\n";
  for (size_t w = 0; w < d.rowWords.size(); ++w) {
    out << "  word " << w << ":";
    for (uint32_t v : d.rowWords[w]) out << " " << hex(v);
    out << "\n";
  }
  const auto changes = [&](const char* kind, const std::vector<StateField>& fields,
                           const std::vector<std::vector<uint64_t>>& at,
                           const std::vector<std::vector<bool>>& bits) {
    out << kind << " changes:\n";
    for (size_t i = 0; i < fields.size() && i < at.size(); ++i) {
      out << "  " << fields[i].name << ":";
      for (size_t k = 0; k < at[i].size(); ++k) out << " " << at[i][k] << (bits[i][k] ? "+" : "-");
      out << "\n";
    }
  };
  changes("mode", d.powerModes, d.modeChanges, d.modeBits);
  changes("peripheral", d.peripherals, d.peripheralChanges, d.peripheralBits);
  out << "pc:";
  for (size_t i = 0; i < d.pcRecords.size(); ++i) out << " " << d.pcRecords[i] << "=" << hex(d.pcValues[i]);
  out << "\n";
  for (const auto& [key, entries] : d.stateHistory) {
    out << "history " << key << ":";
    for (const auto& e : entries) out << " " << e.record << "=" << e.name;
    out << "\n";
  }
}

// Each case of golden/state-decoders.json: conditions over one row of
// state words, fields laid out over the words one by one (addField), or a
// state description of a version
// (parsed alone by the base decoder, over a peripheral an earlier parse left,
// or loaded by the version's decoder with its defaults) and, where it gives
// rows of two state words, the evaluation of a stream of them. The listing
// of every case is compared with golden/state-decoders.expected; errors are
// listed with their text.
TEST(StateDecoders, ListingsOfTheDescriptionsAndTheirEvaluation) {
  const json cases = json::parse(ostrand_test::readFile(wltest::sourceFile("state-decoders.json")));
  std::ostringstream out;
  for (const json& c : cases) {
    out << "== " << c["case"].get<std::string>() << "\n";
    if (c.contains("holds")) {  // [word, mask, shift, value] over the row [0xF0, 0x12345678]
      const uint32_t row[] = {0x000000F0, 0x12345678};
      for (const auto& h : c["holds"]) {
        const StateCondition condition{h[0].get<int>(), h[1].get<uint32_t>(), h[2].get<int>(),
                                       h[3].get<uint32_t>()};
        out << h.dump() << (condition.holds(row) ? " holds" : " does not hold") << "\n";
      }
      continue;
    }
    if (c.contains("addField")) {  // [name, start, end, value, label]: the count added
      std::vector<StateField> fields;
      for (const auto& a : c["addField"]) {
        out << "added "
            << Base::addField(a[0].get<std::string>(), a[1].get<int>(), a[2].get<int>(), fields,
                              a[3].get<uint32_t>(), a[4].get<std::string>())
            << "\n";
      }
      listFields(out, "fields", fields);
      continue;
    }
    const int version = c["version"];
    const json description = c.contains("jstate") ? c["jstate"] : jstate(version, c["bitFields"]);
    WLDataNode node;
    try {
      if (c.value("parseOnly", false)) {
        node.dsr = std::make_unique<Base>(node);
        node.dsr->peripherals.push_back({"stale", {}, "", ""});
        node.dsr->parseBitFields(description);
      } else {
        node.dsr = VSKTspServer::makeStateDecoder(node, version);
        if (!node.dsr) {
          out << "no decoder\n";
          continue;
        }
        node.dsr->initDefaults();
        node.dsr->loadBitFields(description);
        node.dsr->initDefaults();  // as the load does again after decoding
      }
    } catch (const std::exception& e) {
      out << "error: " << e.what() << "\n";
      continue;
    }
    listFields(out, "modes", node.dsr->powerModes);
    listFields(out, "peripherals", node.dsr->peripherals);
    listFields(out, "pc", node.dsr->pcFields);
    if (!c.contains("rows")) continue;
    StreamBuilder s(0x07, 2);
    uint64_t t = 0;
    for (const auto& row : c["rows"]) s.add({t += 10, {row[0], row[1]}, 1, 1, 1});
    const std::vector<uint8_t> bytes = s.bytes();
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
    node.evaluateStates();
    listEvaluation(out, *node.dsr);
  }
  EXPECT_TRUE(
      ostrand_test::matchesGolden(out.str(), wltest::sourceFile("state-decoders.expected")));
}

}  // namespace
