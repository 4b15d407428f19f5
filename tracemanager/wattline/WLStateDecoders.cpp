#include "wattline/WLStateDecoders.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "tsp_server/models/TspRequests.hpp"

namespace VSKTspServer {

namespace {

constexpr uint32_t kAllOnes = 0xFFFFFFFFu;

// The member `key` of an object; null when absent or when `j` is no object.
const nlohmann::json& member(const nlohmann::json& j, const char* key) {
  static const nlohmann::json kNull;
  if (!j.is_object()) return kNull;
  auto found = j.find(key);
  return found == j.end() ? kNull : *found;
}

// An enumeration value: a number (a float is truncated) or a boolean. Any
// other type raises the JSON library's own "type must be number" error.
uint32_t enumValue(const nlohmann::json& v) {
  if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
  if (v.is_number_float()) {
    const double d = std::trunc(v.get<double>());
    if (!(std::fabs(d) < 9.2e18)) return 0;
    return static_cast<uint32_t>(static_cast<int64_t>(d));
  }
  if (v.is_number_unsigned()) return static_cast<uint32_t>(v.get<uint64_t>());
  if (v.is_number_integer()) return static_cast<uint32_t>(v.get<int64_t>());
  return v.get<uint32_t>();
}

// Bits lo..hi (0..31, lo <= hi) of one word.
uint32_t bitRange(int lo, int hi) { return (kAllOnes >> (31 - hi)) & (kAllOnes << lo); }

using NameTable = std::vector<std::pair<uint32_t, std::string>>;

// Replaces a placeholder field by one field per entry of `table`, all on
// the bits of the field's first condition: the entry's id is moved up to
// the lowest set bit of the mask. The placeholder field keeps an empty name
// and is removed afterwards.
void expandPlaceholder(std::vector<StateField>& list, size_t index, const std::string& prefix,
                       const NameTable& table, bool grouped) {
  list[index].name.clear();
  if (list[index].conditions.empty()) return;
  const StateCondition base = list[index].conditions.front();
  const int up = base.mask == 0 ? 0 : std::countr_zero(base.mask);
  for (const auto& [id, modeName] : table) {
    StateField field;
    field.name = prefix + "." + modeName;
    field.group = grouped ? prefix : std::string();
    field.label = modeName;
    field.conditions.push_back({base.word, base.mask, base.shift, id << up});
    list.push_back(std::move(field));
  }
}

void removeUnnamed(std::vector<StateField>& list) {
  std::erase_if(list, [](const StateField& f) { return f.name.empty(); });
}

template <typename Map>
NameTable asTable(const Map& map) {
  return NameTable(map.begin(), map.end());
}

}  // namespace

int WLDataNode::DSR_Base::addField(const std::string& name, int start, int end,
                                   std::vector<StateField>& list, uint32_t value,
                                   const std::string& label) {
  if (start < 0 || end < 0) return 0;
  // A stream has at most 255 state words. A field that reaches past them
  // could never hold, and laying it out word by word would take a condition
  // per word: billions for a bit number near 2^31.
  constexpr int kStateBitLimit = 256 * 32;
  if (start >= kStateBitLimit || end >= kStateBitLimit) return 0;
  const int lo = std::min(start, end), hi = std::max(start, end);
  const int loWord = lo / 32, hiWord = hi / 32, loBit = lo % 32, hiBit = hi % 32;
  const bool allOnes = value == kAllOnes;
  StateField field;
  field.name = name;
  field.label = label;
  if (loWord == hiWord) {
    const uint32_t mask = bitRange(loBit, hiBit);
    field.conditions.push_back({loWord, mask, 0, allOnes ? mask : value});
  } else {
    // The value is laid across the words from the lowest bit up.
    uint64_t rest = value;
    const uint32_t lowMask = bitRange(loBit, 31);
    field.conditions.push_back(
        {loWord, lowMask, 0, allOnes ? lowMask : static_cast<uint32_t>(rest << loBit)});
    rest >>= (32 - loBit);
    for (int w = loWord + 1; w < hiWord; ++w) field.conditions.push_back({w, kAllOnes, 0, kAllOnes});
    const uint32_t highMask = bitRange(0, hiBit);
    field.conditions.push_back(
        {hiWord, highMask, 0, allOnes ? highMask : static_cast<uint32_t>(rest)});
  }
  list.push_back(std::move(field));
  return 1;
}

void WLDataNode::DSR_Base::parseBitFields(const nlohmann::json& jstate) {
  if (jstate.is_null() || member(jstate, "name").is_null()) return;
  const nlohmann::json& fields = member(jstate, "bitFields");
  if (!fields.is_array()) return;
  peripherals.clear();
  // Walked from the last entry; a later "PowerMode" entry is therefore
  // replaced by an earlier one, which empties the modes before it adds.
  for (auto it = fields.rbegin(); it != fields.rend(); ++it) {
    const nlohmann::json& entry = *it;
    const nlohmann::json& nameValue = member(entry, "Name");
    if (nameValue.is_null()) continue;
    const std::string name = nameValue.get<std::string>();
    const nlohmann::json& startValue = member(entry, "Start");
    const nlohmann::json& endValue = member(entry, "End");
    // Saturating: a bit number of 1e30 is as wrong as 32, and must not be
    // an undefined conversion on the way there.
    const int start = startValue.is_null() ? -1 : saturatingNumber<int32_t>(startValue);
    const int end = endValue.is_null() ? start : saturatingNumber<int32_t>(endValue);
    const nlohmann::json& description = member(entry, "Description");

    if (name.find("MOD") != std::string::npos) {
      if (description.is_null()) continue;
      const std::string text = description.get<std::string>();
      if (text == "NA") continue;
      addField(text, start, end, peripherals, kAllOnes, "");
    } else if (name == "PC") {
      pcFields.clear();
      addField("", start, end, pcFields, kAllOnes, "");
    } else if (name == "PM" || name == "PowerMode") {
      const nlohmann::json& enums = member(entry, "Enums");
      if (!enums.is_array() || enums.empty()) continue;
      powerModes.clear();
      for (auto item = enums.rbegin(); item != enums.rend(); ++item) {
        const nlohmann::json& choice = member(*item, "Choice");
        const nlohmann::json& value = member(*item, "Value");
        if (choice.is_null() || member(*item, "Description").is_null() || value.is_null()) continue;
        const std::string choiceName = choice.get<std::string>();
        addField(choiceName, start, end, powerModes, enumValue(value), "");
      }
    } else if (name.find("PWRSTATE") != std::string::npos) {
      const std::string label = description.is_null() ? "" : description.get<std::string>();
      addField(name, start, end, powerModes, kAllOnes, label);
    }
  }
}

void WLDataNode::DSR_Base::resetDerived() {
  rowRecords.clear();
  rowWords.clear();
  modeChanges.clear();
  modeBits.clear();
  stateHistory.clear();
  pcRecords.clear();
  pcValues.clear();
  peripheralChanges.clear();
  peripheralBits.clear();
}

// Keeps record 0 and every record where any state word differs from the
// record before, so the state tables are only tested where something
// changed. A first record with every word all ones carries no state (the
// capture had not latched the words yet): its word row is dropped while
// the record list keeps its length, so word row j is dated at rowRecords[j].
void WLDataNode::DSR_Base::compactRows() {
  const WLDataNode& node = owner_;
  const size_t words = node.stateWordCount;
  if (words == 0 || node.stateWords.size() < words) return;
  uint64_t count = node.recordCount;
  for (const auto& column : node.stateWords) count = std::min<uint64_t>(count, column.size());
  if (count == 0) return;

  rowRecords.clear();
  rowWords.assign(words, {});
  auto keep = [&](uint64_t i) {
    rowRecords.push_back(i);
    for (size_t w = 0; w < words; ++w) rowWords[w].push_back(node.stateWords[w][i]);
  };
  keep(0);
  // The words are read a block at a time (the columns may be views over
  // the file); slot 0 of each block holds the record before it.
  constexpr size_t kBlock = 2048;
  std::vector<uint32_t> block(words * (kBlock + 1));
  for (size_t w = 0; w < words; ++w) block[w * (kBlock + 1)] = node.stateWords[w][0];
  for (uint64_t at = 1; at < count; at += kBlock) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, count - at));
    for (size_t w = 0; w < words; ++w) node.stateWords[w].read(at, n, &block[w * (kBlock + 1) + 1]);
    if (words == 2) {
      const uint32_t* w0 = block.data();
      const uint32_t* w1 = block.data() + kBlock + 1;
      for (size_t i = 1; i <= n; ++i) {
        if (((w0[i] ^ w0[i - 1]) | (w1[i] ^ w1[i - 1])) != 0) keep(at + i - 1);
      }
    } else {
      for (size_t i = 1; i <= n; ++i) {
        for (size_t w = 0; w < words; ++w) {
          const uint32_t* column = block.data() + w * (kBlock + 1);
          if (column[i] != column[i - 1]) {
            keep(at + i - 1);
            break;
          }
        }
      }
    }
    for (size_t w = 0; w < words; ++w) block[w * (kBlock + 1)] = block[w * (kBlock + 1) + n];
  }
  const bool unlatched = std::all_of(node.stateWords.begin(), node.stateWords.begin() + words,
                                     [](const auto& column) { return column[0] == kAllOnes; });
  if (unlatched) {
    for (auto& list : rowWords) list.erase(list.begin());
  }
}

template <typename GroupOf>
void WLDataNode::DSR_Base::evaluateWith(GroupOf groupOf) {
  modeChanges.assign(powerModes.size(), {});
  modeBits.assign(powerModes.size(), {});
  peripheralChanges.assign(peripherals.size(), {});
  peripheralBits.assign(peripherals.size(), {});
  pcRecords.clear();
  pcValues.clear();
  const size_t words = rowWords.size();
  const size_t rows = words == 0 ? 0 : std::min(rowWords[0].size(), rowRecords.size());
  std::vector<uint32_t> w(words);

  auto track = [](const StateField& field, std::span<const uint32_t> row, uint64_t record,
                  std::vector<uint64_t>& changes, std::vector<bool>& bits) {
    const bool active = field.isActive(row);
    if (bits.empty() || bits.back() != active) {
      changes.push_back(record);
      bits.push_back(active);
    }
    return active;
  };

  for (size_t i = 0; i < rows; ++i) {
    for (size_t k = 0; k < words; ++k) w[k] = rowWords[k][i];
    const uint64_t record = rowRecords[i];
    for (size_t k = 0; k < powerModes.size(); ++k) {
      const StateField& mode = powerModes[k];
      if (!track(mode, w, record, modeChanges[k], modeBits[k])) continue;
      auto history = stateHistory.find(groupOf(mode));
      if (history == stateHistory.end()) continue;
      auto& entries = history->second;
      if (entries.empty() || entries.back().name != mode.name) entries.push_back({record, mode.name});
    }
    // The program counter always lives in word 1, whatever the field says;
    // a stream with fewer words has none.
    if (!pcFields.empty() && !pcFields.front().conditions.empty() && words >= 2) {
      const StateCondition& pcBits = pcFields.front().conditions.front();
      uint32_t pc = w[1] & pcBits.mask;
      if (pcBits.shift > 0) pc = pcBits.shift < 32 ? pc >> pcBits.shift : 0;
      if (pcBits.shift < 0) pc = -pcBits.shift < 32 ? pc << -pcBits.shift : 0;
      if (pcValues.empty() || pcValues.back() != pc) {
        pcRecords.push_back(record);
        pcValues.push_back(pc);
      }
    }
    for (size_t k = 0; k < peripherals.size(); ++k) {
      track(peripherals[k], w, record, peripheralChanges[k], peripheralBits[k]);
    }
  }
}

void WLDataNode::DSRv2::initDefaults() {
  if (!powerModes.empty()) return;
  struct Row {
    const char* name;
    std::vector<StateCondition> conditions;
  };
  const Row table[] = {
      {"Active", {{1, 0xC3400000, 0, 0x03400000}}},
      {"LPM0", {{1, 0xC3400000, 0, 0x82400000}, {0, 0x80000000, 0, 0x80000000}}},
      {"LPM1", {{1, 0xC3C00000, 0, 0x82C00000}, {0, 0x80000000, 0, 0}}},
      {"LPM2", {{1, 0xC3C00000, 0, 0x82400000}, {0, 0x80000000, 0, 0}}},
      {"LPM3", {{1, 0xC3C00000, 0, 0x80400000}}},
      {"LPM4", {{1, 0xC3C00000, 0, 0x80000000}}},
      {"LPM35", {{1, 0xC0000000, 0, 0xC0000000}, {0, 0x80, 0, 0}}},
      {"LPM45", {{1, 0xC0000000, 0, 0xC0000000}, {0, 0x80, 0, 0x80}}},
  };
  for (const auto& row : table) powerModes.push_back({row.name, row.conditions, "", ""});
  // Bits 1..19 of word 1 hold the program counter without its always-zero
  // bit 0, hence the shift left by one.
  pcFields.clear();
  pcFields.push_back({"PC", {{1, 0x000FFFFE, -1, kAllOnes}}, "", ""});
}

void WLDataNode::DSRv2::evaluateRows() {
  stateHistory.clear();
  stateHistory["PowerMode"];
  evaluateWith([](const StateField&) -> std::string { return "PowerMode"; });
}

WLDataNode::DSRv4::DSRv4(WLDataNode& owner)
    : DSR_Base(owner),
      cortexModes{{0, "Active"}, {2, "Sleep"}, {1, "DeepSleep"}, {3, "Stop"}},
      lprfModes{{0, "Off"}, {1, "Idle"}, {2, "SynthAct"}, {6, "RxWait"}, {10, "Tx"}, {14, "Rx"}},
      voltageDomains{{0, "Off"}, {1, "Standby"}, {2, "unknown"}, {3, "Active"}},
      hwiNames{{16, "GPIO_EDGE"},  {17, "I2C"},        {18, "RF_1"},       {19, "AON_SPI_Slave"},
               {20, "AON_RTC"},    {21, "UART0"},      {22, "UART1"},      {23, "SSI0"},
               {24, "SSI1"},       {25, "RF_2"},       {26, "RF_Core"},    {27, "RF_command"},
               {28, "I2S"},        {29, "_Unassigned_"}, {30, "WDT"},      {31, "GPTimer_0A"},
               {32, "GPTimer_0B"}, {33, "GPTimer_1A"}, {34, "GPTimer_1B"}, {35, "GPTimer_2A"},
               {36, "GPTimer_2B"}, {37, "GPTimer_3A"}, {38, "GPTimer_3B"}, {39, "Crypto"},
               {40, "uDMA_SW"},    {41, "uDMA_ERR"},   {42, "Flash"},      {43, "SW_EVNT_0"},
               {44, "AUX_EVNT"},   {45, "AON_PROG"},   {46, "DYN_PROG"},   {47, "AUX_COMP_A"},
               {48, "AUX_ADC"},    {49, "RND"}} {}

void WLDataNode::DSRv4::loadBitFields(const nlohmann::json& jstate) {
  parseBitFields(jstate);
  const size_t modes = powerModes.size();
  for (size_t i = 0; i < modes; ++i) {
    const std::string label = powerModes[i].label;
    if (auto at = label.find("%CORTEXM_PM");
        at != std::string::npos || powerModes[i].name == "PWRSTATE0") {
      // Without a text in front, the processor's modes stand under "CPU".
      std::string prefix = at == std::string::npos ? "" : label.substr(0, at);
      if (prefix.empty()) prefix = "CPU";
      expandPlaceholder(powerModes, i, prefix, cortexModes, true);
    } else if (auto rf = label.find("%LPRF_PM"); rf != std::string::npos) {
      expandPlaceholder(powerModes, i, label.substr(0, rf), asTable(lprfModes), true);
    }
  }
  removeUnnamed(powerModes);

  const size_t count = peripherals.size();
  for (size_t i = 0; i < count; ++i) {
    const std::string name = peripherals[i].name;
    if (auto at = name.find("%HWI"); at != std::string::npos) {
      expandPlaceholder(peripherals, i, at == 0 ? "HWI" : name.substr(0, at), asTable(hwiNames),
                        false);
    } else if (auto vd = name.find("%V_DOMAIN"); vd != std::string::npos) {
      expandPlaceholder(peripherals, i, vd == 0 ? "PD" : name.substr(0, vd),
                        asTable(voltageDomains), false);
    }
  }
  removeUnnamed(peripherals);
}

void WLDataNode::DSRv4::evaluateRows() {
  stateHistory.clear();
  for (const auto& mode : powerModes) stateHistory[mode.name.substr(0, mode.name.find('.'))];
  evaluateWith([](const StateField& mode) { return mode.group; });
}

void WLDataNode::DSRv5::evaluateRows() {
  stateHistory.clear();
  for (const auto& mode : powerModes) {
    const auto dot = mode.name.find('.');
    if (dot != std::string::npos) stateHistory[mode.name.substr(0, dot)];
  }
  if (stateHistory.empty()) stateHistory["PowerMode"];
  evaluateWith([](const StateField& mode) -> std::string {
    return mode.group.empty() ? "PowerMode" : mode.group;
  });
}

std::unique_ptr<WLDataNode::DSR_Base> makeStateDecoder(WLDataNode& owner, int64_t version) {
  switch (version) {
    case 2: return std::make_unique<WLDataNode::DSRv2>(owner);
    case 4: return std::make_unique<WLDataNode::DSRv4>(owner);
    case 5: return std::make_unique<WLDataNode::DSRv5>(owner);
    default: return nullptr;
  }
}

bool StateCondition::holds(std::span<const uint32_t> words) const {
  if (word < 0 || static_cast<size_t>(word) >= words.size()) return false;
  uint32_t x = words[static_cast<size_t>(word)] & mask;
  if (shift > 0) {
    x = shift < 32 ? x >> shift : 0;
  } else if (shift < 0) {
    x = -shift < 32 ? x << -shift : 0;
  }
  return value == 0xFFFFFFFFu ? x == mask : x == value;
}

bool StateField::isActive(std::span<const uint32_t> words) const {
  for (const auto& condition : conditions) {
    if (!condition.holds(words)) return false;
  }
  return true;
}

}  // namespace VSKTspServer
