#include "WLStateDecoders.hpp"

#include <gtest/gtest.h>

#include "WLTestStreams.hpp"

using VSKTspServer::StateCondition;
using VSKTspServer::StateField;
using VSKTspServer::WLDataNode;
using nlohmann::json;
using Base = VSKTspServer::WLDataNode::DSR_Base;
using wltest::StreamBuilder;

namespace {

bool sameCondition(const StateCondition& c, int word, uint32_t mask, int shift, uint32_t value) {
  return c.word == word && c.mask == mask && c.shift == shift && c.value == value;
}

std::vector<std::string> names(const std::vector<StateField>& fields) {
  std::vector<std::string> out;
  for (const auto& f : fields) out.push_back(f.name);
  return out;
}

json jstate(int version, json bitFields) {
  return {{"name", "board"}, {"version", version}, {"bitFields", std::move(bitFields)}};
}

// A node decoded from two-word records, with a decoder of `version`
// loaded from `bitFields` and evaluated.
struct Evaluated {
  std::vector<uint8_t> bytes;
  WLDataNode node;
  Evaluated(int version, const json& bitFields, const std::vector<std::pair<uint32_t, uint32_t>>& words) {
    StreamBuilder s(0x07, 2);
    uint64_t t = 0;
    for (auto [w0, w1] : words) s.add({t += 10, {w0, w1}, 1, 1, 1});
    bytes = s.bytes();
    node.dsr = VSKTspServer::makeStateDecoder(node, version);
    node.dsr->initDefaults();
    node.dsr->loadBitFields(jstate(version, bitFields));
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
    node.evaluateStates();
  }
  Base& dsr() { return *node.dsr; }
};

TEST(StateCondition, ShiftsMaskAndAllOnes) {
  const uint32_t row[] = {0x000000F0, 0x12345678};
  EXPECT_TRUE((StateCondition{0, 0xF0, 4, 0xF}).holds(row));
  EXPECT_TRUE((StateCondition{0, 0xF0, -4, 0xF00}).holds(row));
  EXPECT_TRUE((StateCondition{0, 0xF0, 0, 0xFFFFFFFF}).holds(row));  // all bits of the field set
  EXPECT_FALSE((StateCondition{0, 0x1F0, 0, 0xFFFFFFFF}).holds(row));
  EXPECT_TRUE((StateCondition{1, 0xFF, 0, 0x78}).holds(row));
  EXPECT_FALSE((StateCondition{2, 0, 0, 0}).holds(row));  // no such word: never holds
  EXPECT_FALSE((StateCondition{-1, 0, 0, 0}).holds(row));
}

TEST(AddField, OneWordComparesTheValueInPlace) {
  std::vector<StateField> list;
  EXPECT_EQ(Base::addField("A", 7, 4, list, 0x30, "lab"), 1);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].name, "A");
  EXPECT_EQ(list[0].label, "lab");
  EXPECT_TRUE(list[0].group.empty());
  ASSERT_EQ(list[0].conditions.size(), 1u);
  EXPECT_TRUE(sameCondition(list[0].conditions[0], 0, 0xF0, 0, 0x30));
  Base::addField("B", 32, 63, list, 0xFFFFFFFF, "");
  EXPECT_TRUE(sameCondition(list[1].conditions[0], 1, 0xFFFFFFFF, 0, 0xFFFFFFFF));
  Base::addField("C", 0, 0, list, 0xFFFFFFFF, "");
  EXPECT_TRUE(sameCondition(list[2].conditions[0], 0, 0x1, 0, 0x1));
}

TEST(AddField, SpansWordsFromTheLowestBitUp) {
  std::vector<StateField> list;
  Base::addField("X", 28, 35, list, 0xAB, "");
  ASSERT_EQ(list[0].conditions.size(), 2u);
  EXPECT_TRUE(sameCondition(list[0].conditions[0], 0, 0xF0000000, 0, 0xB0000000));
  EXPECT_TRUE(sameCondition(list[0].conditions[1], 1, 0x0000000F, 0, 0xA));

  Base::addField("Y", 90, 20, list, 0xFFFFFFFF, "");  // reversed, three words
  ASSERT_EQ(list[1].conditions.size(), 3u);
  EXPECT_TRUE(sameCondition(list[1].conditions[0], 0, 0xFFF00000, 0, 0xFFF00000));
  EXPECT_TRUE(sameCondition(list[1].conditions[1], 1, 0xFFFFFFFF, 0, 0xFFFFFFFF));
  EXPECT_TRUE(sameCondition(list[1].conditions[2], 2, 0x07FFFFFF, 0, 0x07FFFFFF));

  Base::addField("Z", 0, 33, list, 0x5, "");  // starting at bit 0: nothing moves up
  EXPECT_TRUE(sameCondition(list[2].conditions[0], 0, 0xFFFFFFFF, 0, 0x5));
  EXPECT_TRUE(sameCondition(list[2].conditions[1], 1, 0x3, 0, 0));

  EXPECT_EQ(Base::addField("N", -1, 3, list, 1, ""), 0);
  EXPECT_EQ(Base::addField("N", 3, -1, list, 1, ""), 0);
  EXPECT_EQ(list.size(), 3u);
}

TEST(ParseBitFields, KindsAreTakenFromTheLastEntryBackwards) {
  WLDataNode node;
  Base dsr(node);
  dsr.peripherals.push_back({"stale", {}, "", ""});
  dsr.parseBitFields(jstate(5, json::array({
      {{"Name", "MOD_UART"}, {"Description", "UART"}, {"Start", 3}},
      {{"Name", "MOD_SPI"}, {"Description", "NA"}, {"Start", 4}},
      {{"Name", "MOD_X"}, {"Description", nullptr}, {"Start", 5}},
      {{"Name", "MODEM"}, {"Description", "Radio"}, {"Start", 6}, {"End", 7}},
      {{"Name", "PC"}, {"Start", 40}, {"End", 32}},
      {{"Name", "PC"}, {"Start", 33}, {"End", 51}},
      {{"Name", "Other"}, {"Description", "ignored"}, {"Start", 1}},
      {{"Name", nullptr}, {"Start", 1}},
      {{"Name", "MOD_NOSTART"}, {"Description", "NoBits"}},
      {{"Name", "CPU_PWRSTATE"}, {"Description", "CPU%CORTEXM_PM"}, {"Start", 8}, {"End", 9}},
      {{"Name", "RF_PWRSTATE"}, {"Start", 10}, {"End", 13}},
  })));
  EXPECT_EQ(names(dsr.peripherals), (std::vector<std::string>{"Radio", "UART"}));
  EXPECT_TRUE(sameCondition(dsr.peripherals[0].conditions[0], 0, 0xC0, 0, 0xC0));
  // The first "PC" entry is walked last and wins.
  ASSERT_EQ(dsr.pcFields.size(), 1u);
  EXPECT_TRUE(sameCondition(dsr.pcFields[0].conditions[0], 1, 0x1FF, 0, 0x1FF));
  EXPECT_EQ(names(dsr.powerModes), (std::vector<std::string>{"RF_PWRSTATE", "CPU_PWRSTATE"}));
  EXPECT_EQ(dsr.powerModes[0].label, "");
  EXPECT_EQ(dsr.powerModes[1].label, "CPU%CORTEXM_PM");
}

TEST(ParseBitFields, EnumeratedModesReplaceEachOther) {
  WLDataNode node;
  Base dsr(node);
  const json first = {{"Name", "PM"}, {"Start", 4}, {"End", 6},
                      {"Enums", {{{"Choice", "Run"}, {"Description", "d"}, {"Value", 0x10}},
                                 {{"Choice", "Nap"}, {"Description", "d"}, {"Value", 2.9}},
                                 {{"Choice", "On"}, {"Description", "d"}, {"Value", true}},
                                 {{"Choice", "Skip"}, {"Description", nullptr}, {"Value", 1}},
                                 {{"Choice", "Skip2"}, {"Description", "d"}}}}};
  const json second = {{"Name", "PowerMode"}, {"Start", 0},
                       {"Enums", {{{"Choice", "Lost"}, {"Description", "d"}, {"Value", 1}}}}};
  const json empty = {{"Name", "PowerMode"}, {"Start", 0}, {"Enums", json::array()}};
  dsr.parseBitFields(jstate(2, {first, second, empty}));
  EXPECT_EQ(names(dsr.powerModes), (std::vector<std::string>{"On", "Nap", "Run"}));
  EXPECT_EQ(dsr.powerModes[0].conditions[0].value, 1u);
  EXPECT_EQ(dsr.powerModes[1].conditions[0].value, 2u);
  EXPECT_EQ(dsr.powerModes[2].conditions[0].value, 0x10u);  // not moved to bit 4
  EXPECT_EQ(dsr.powerModes[2].conditions[0].mask, 0x70u);
}

TEST(ParseBitFields, IgnoredDescriptionsAndTypeErrors) {
  WLDataNode node;
  Base dsr(node);
  dsr.parseBitFields(json());
  dsr.parseBitFields({{"version", 2}, {"bitFields", {{{"Name", "PC"}, {"Start", 1}}}}});
  dsr.parseBitFields({{"name", "n"}, {"bitFields", {{"Name", "PC"}}}});
  EXPECT_TRUE(dsr.pcFields.empty());

  auto expectTypeError = [&](const json& fields, const std::string& words) {
    try {
      dsr.parseBitFields(jstate(2, fields));
      ADD_FAILURE() << "no error for " << fields.dump();
    } catch (const json::type_error& e) {
      EXPECT_EQ(e.id, 302);
      EXPECT_NE(std::string(e.what()).find(words), std::string::npos) << e.what();
    }
  };
  // Bit numbers far out of range are wrong, not undefined, and a field past
  // every word a stream can have is dropped, not laid out word by word
  // (both found by fuzzing).
  dsr.parseBitFields(jstate(2, {{{"Name", "MOD_T"}, {"Description", "T"}, {"Start", 5.4e27},
                                 {"End", -1e300}},
                                {{"Name", "MOD_U"}, {"Description", "U"}, {"Start", 16},
                                 {"End", 1.6e41}}}));
  EXPECT_TRUE(dsr.peripherals.empty());
  expectTypeError({{{"Name", 5}}}, "type must be string, but is number");
  expectTypeError({{{"Name", "PM"}, {"Start", 0},
                    {"Enums", {{{"Choice", 3}, {"Description", "d"}, {"Value", 1}}}}}},
                  "type must be string, but is number");
  expectTypeError({{{"Name", "PM"}, {"Start", 0},
                    {"Enums", {{{"Choice", "A"}, {"Description", "d"}, {"Value", "1"}}}}}},
                  "type must be number, but is string");
}

TEST(DSRv2, DefaultTableUnlessTheDescriptionHasModes) {
  WLDataNode node;
  WLDataNode::DSRv2 plain(node);
  plain.initDefaults();
  plain.loadBitFields(jstate(2, {{{"Name", "PWRSTATE_RF"}, {"Description", "Radio"}, {"Start", 3}}}));
  EXPECT_EQ(names(plain.powerModes),
            (std::vector<std::string>{"Active", "LPM0", "LPM1", "LPM2", "LPM3", "LPM4", "LPM35",
                                      "LPM45", "PWRSTATE_RF"}));
  EXPECT_TRUE(sameCondition(plain.powerModes[1].conditions[1], 0, 0x80000000, 0, 0x80000000));
  ASSERT_EQ(plain.pcFields.size(), 1u);
  EXPECT_TRUE(sameCondition(plain.pcFields[0].conditions[0], 1, 0x000FFFFE, -1, 0xFFFFFFFF));

  WLDataNode::DSRv2 own(node);
  own.initDefaults();
  own.loadBitFields(jstate(2, {{{"Name", "PM"}, {"Start", 0}, {"End", 1},
                                {"Enums", {{{"Choice", "Up"}, {"Description", "d"}, {"Value", 1}}}}}}));
  own.initDefaults();  // as the load does again after decoding: no effect now
  EXPECT_EQ(names(own.powerModes), (std::vector<std::string>{"Up"}));
}

TEST(DSRv4, PlaceholdersExpandToFamilies) {
  WLDataNode node;
  WLDataNode::DSRv4 dsr(node);
  dsr.loadBitFields(jstate(4, {
      {{"Name", "PWRSTATE0"}, {"Start", 4}, {"End", 5}},
      {{"Name", "PWRSTATE1"}, {"Description", "RF%LPRF_PM"}, {"Start", 8}, {"End", 11}},
      {{"Name", "PWRSTATE2"}, {"Description", "plain"}, {"Start", 12}},
      {{"Name", "MOD_HWI"}, {"Description", "%HWI"}, {"Start", 32}, {"End", 37}},
      {{"Name", "MOD_PD"}, {"Description", "AUX%V_DOMAIN"}, {"Start", 40}, {"End", 41}},
      {{"Name", "MOD_PD2"}, {"Description", "%V_DOMAIN"}, {"Start", 42}, {"End", 43}},
  }));
  const auto modes = names(dsr.powerModes);
  ASSERT_EQ(modes.size(), 11u);  // plain, 6 radio modes, 4 processor modes
  EXPECT_EQ(modes[0], "PWRSTATE2");
  EXPECT_EQ(modes[1], "RF.Off");
  EXPECT_EQ(modes[7], "CPU.Active");
  EXPECT_EQ(modes[8], "CPU.Sleep");
  EXPECT_EQ(modes[9], "CPU.DeepSleep");
  const StateField& rx = dsr.powerModes[6];
  EXPECT_EQ(rx.name, "RF.Rx");
  EXPECT_EQ(rx.group, "RF");
  EXPECT_EQ(rx.label, "Rx");
  EXPECT_TRUE(sameCondition(rx.conditions[0], 0, 0xF00, 0, 14u << 8));
  EXPECT_TRUE(sameCondition(dsr.powerModes[10].conditions[0], 0, 0x30, 0, 3u << 4));  // Stop

  ASSERT_EQ(dsr.peripherals.size(), 4u + 4u + 34u);
  EXPECT_EQ(dsr.peripherals[0].name, "PD.Off");
  EXPECT_EQ(dsr.peripherals[4].name, "AUX.Off");
  EXPECT_EQ(dsr.peripherals[7].name, "AUX.Active");
  EXPECT_TRUE(dsr.peripherals[7].group.empty());
  const StateField& rtc = dsr.peripherals[8 + 4];  // ids from 16: 20 is the fifth
  EXPECT_EQ(rtc.name, "HWI.AON_RTC");
  EXPECT_TRUE(sameCondition(rtc.conditions[0], 1, 0x3F, 0, 20));
}

TEST(CompactRows, KeepsChangesAndDropsAnUnlatchedFirstWordRow) {
  Evaluated e(5, json::array(), {{1, 1}, {1, 1}, {2, 1}, {2, 1}, {2, 3}});
  EXPECT_EQ(e.dsr().rowRecords, (std::vector<uint64_t>{0, 2, 4}));
  EXPECT_EQ(e.dsr().rowWords[0], (std::vector<uint32_t>{1, 2, 2}));
  EXPECT_EQ(e.dsr().rowWords[1], (std::vector<uint32_t>{1, 1, 3}));

  Evaluated u(5, json::array(), {{0xFFFFFFFF, 0xFFFFFFFF}, {5, 6}, {5, 6}, {7, 6}});
  EXPECT_EQ(u.dsr().rowRecords, (std::vector<uint64_t>{0, 1, 3}));
  EXPECT_EQ(u.dsr().rowWords[0], (std::vector<uint32_t>{5, 7}));

  // Only one word all ones: nothing is dropped.
  Evaluated h(5, json::array(), {{0xFFFFFFFF, 0}, {5, 6}});
  EXPECT_EQ(h.dsr().rowWords[0], (std::vector<uint32_t>{0xFFFFFFFF, 5}));
}

TEST(EvaluateRows, DefaultModesHistoryAndProgramCounter) {
  const uint32_t active = 0x03400000, lpm3 = 0x80400000;
  Evaluated e(2, json::array(), {{0, active | 0x100}, {0, active | 0x102}, {0, active | 0x102},
                                 {0, lpm3 | 0x102}, {0, active | 0x200}});
  Base& d = e.dsr();
  ASSERT_EQ(d.powerModes[0].name, "Active");
  EXPECT_EQ(d.modeChanges[0], (std::vector<uint64_t>{0, 3, 4}));
  EXPECT_EQ(d.modeBits[0], (std::vector<bool>{true, false, true}));
  ASSERT_EQ(d.powerModes[4].name, "LPM3");
  EXPECT_EQ(d.modeChanges[4], (std::vector<uint64_t>{0, 3, 4}));
  EXPECT_EQ(d.modeBits[4], (std::vector<bool>{false, true, false}));
  EXPECT_EQ(d.modeChanges[1], (std::vector<uint64_t>{0}));  // never on: one change
  EXPECT_EQ(d.modeBits[1], (std::vector<bool>{false}));
  ASSERT_EQ(d.stateHistory.size(), 1u);
  const auto& history = d.stateHistory.at("PowerMode");
  ASSERT_EQ(history.size(), 3u);
  EXPECT_EQ(history[1].record, 3u);
  EXPECT_EQ(history[1].name, "LPM3");
  EXPECT_EQ(history[2].name, "Active");
  // pc = (word1 & 0xFFFFE) << 1; unchanged PC rows are not repeated.
  EXPECT_EQ(d.pcRecords, (std::vector<uint64_t>{0, 1, 4}));
  EXPECT_EQ(d.pcValues, (std::vector<uint32_t>{0x200, 0x204, 0x400}));
}

TEST(EvaluateRows, PeripheralsAndMissingWords) {
  Evaluated e(5, {{{"Name", "MOD_A"}, {"Description", "Timer"}, {"Start", 33}},
                  {{"Name", "MOD_B"}, {"Description", "Ghost"}, {"Start", 100}}},
              {{0, 0}, {0, 2}, {0, 2}, {0, 0}});
  Base& d = e.dsr();
  ASSERT_EQ(names(d.peripherals), (std::vector<std::string>{"Ghost", "Timer"}));
  EXPECT_EQ(d.peripheralChanges[1], (std::vector<uint64_t>{0, 1, 3}));
  EXPECT_EQ(d.peripheralBits[1], (std::vector<bool>{false, true, false}));
  EXPECT_EQ(d.peripheralBits[0], (std::vector<bool>{false}));  // word 3 does not exist
  EXPECT_TRUE(d.pcRecords.empty());
}

TEST(EvaluateRows, GroupsOfVersionFourAndFive) {
  const json v4 = {{{"Name", "PWRSTATE0"}, {"Start", 0}, {"End", 1}},
                   {{"Name", "PWRSTATE1"}, {"Description", "RF%LPRF_PM"}, {"Start", 4}, {"End", 7}}};
  // CPU: Active, Sleep(2), Active; RF: Off, Rx(14)
  Evaluated e(4, v4, {{0x00, 0}, {0x02, 0}, {0xE0, 0}});
  const auto& h = e.dsr().stateHistory;
  ASSERT_EQ(h.size(), 2u);
  ASSERT_EQ(h.at("CPU").size(), 3u);
  EXPECT_EQ(h.at("CPU")[1].name, "CPU.Sleep");
  EXPECT_EQ(h.at("CPU")[2].record, 2u);
  ASSERT_EQ(h.at("RF").size(), 2u);
  EXPECT_EQ(h.at("RF")[1].name, "RF.Rx");

  // Version 5: dotted names make keys, but the modes carry no group, so
  // nothing is recorded; without dotted names everything goes to PowerMode.
  const json dotted = {{{"Name", "PM"}, {"Start", 0}, {"End", 1},
                        {"Enums", {{{"Choice", "CPU.Run"}, {"Description", "d"}, {"Value", 0}},
                                   {{"Choice", "CPU.Nap"}, {"Description", "d"}, {"Value", 1}}}}}};
  Evaluated d(5, dotted, {{0, 0}, {1, 0}});
  ASSERT_EQ(d.dsr().stateHistory.size(), 1u);
  EXPECT_TRUE(d.dsr().stateHistory.at("CPU").empty());
  EXPECT_EQ(d.dsr().modeBits[0], (std::vector<bool>{false, true}));  // CPU.Nap, walked first

  const json flat = {{{"Name", "PM"}, {"Start", 0}, {"End", 1},
                      {"Enums", {{{"Choice", "Run"}, {"Description", "d"}, {"Value", 0}},
                                 {{"Choice", "Nap"}, {"Description", "d"}, {"Value", 1}}}}}};
  Evaluated f(5, flat, {{0, 0}, {1, 0}, {0, 0}});
  ASSERT_EQ(f.dsr().stateHistory.at("PowerMode").size(), 3u);
  EXPECT_EQ(f.dsr().stateHistory.at("PowerMode")[1].name, "Nap");
}

TEST(EvaluateRows, UnknownVersionHasNoDecoder) {
  WLDataNode node;
  EXPECT_EQ(VSKTspServer::makeStateDecoder(node, 3), nullptr);
  EXPECT_NE(VSKTspServer::makeStateDecoder(node, 4), nullptr);
}

}  // namespace
