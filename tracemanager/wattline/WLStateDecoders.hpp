// The state decoders of a Wattline capture: WLDataNode::DSR_Base and the
// three versions of the `JState` description (DSRv2, DSRv4, DSRv5).
//
// A decoder holds the named states of the capture (power modes, peripherals,
// the program counter field) as bit conditions on the state words, and
// after a decode the lists derived from the stream: the rows where any state
// word changed, and for each state the records where it switched on or off.
// The state graph reads only these lists.
//
// Owned by WLDataNode through `dsr`; no lock of its own (the server's request
// lock covers every call). Failures: a `JState` member of the wrong JSON type
// throws nlohmann::json::type_error 302 out of loadBitFields.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

// One test on a row of state words; see holds().
struct StateCondition {
  int32_t word = 0;
  uint32_t mask = 0;
  int32_t shift = 0;
  uint32_t value = 0;

  // (words[word] AND mask), shifted right by `shift` (left when negative),
  // equals `value`; a `value` of all ones asks for all bits of the field
  // set. A word the row does not have never matches.
  bool holds(std::span<const uint32_t> words) const;
};

struct StateField {
  std::string name;
  std::vector<StateCondition> conditions;
  std::string group;
  std::string label;

  bool isActive(std::span<const uint32_t> words) const;
};

struct StateEntry {
  uint64_t record = 0;
  std::string name;
};

class WLDataNode::DSR_Base {
 public:
  explicit DSR_Base(WLDataNode& owner) : owner_(owner) {}
  virtual ~DSR_Base() = default;
  DSR_Base(const DSR_Base&) = delete;
  DSR_Base& operator=(const DSR_Base&) = delete;

  // Reads the `bitFields` of a `JState` object into the field lists.
  virtual void parseBitFields(const nlohmann::json& jstate);
  virtual void loadBitFields(const nlohmann::json& jstate) { parseBitFields(jstate); }
  virtual void evaluateRows() {}
  virtual void initDefaults() {}
  virtual void finishRows() {}

  // Keeps the records where a state word changed, see the .cpp.
  void compactRows();
  // Appends a field testing bits start..end (either order, counted across
  // the words) against `value`; 0xFFFFFFFF means "all bits set". Returns 1,
  // or 0 when a bit position is negative.
  static int addField(const std::string& name, int start, int end, std::vector<StateField>& list,
                      uint32_t value, const std::string& label);
  // Empties every list derived from the stream.
  void resetDerived();

  WLDataNode& owner() const { return owner_; }

  std::vector<StateField> powerModes;
  std::vector<StateField> pcFields;
  std::vector<StateField> peripherals;
  std::vector<uint64_t> rowRecords;
  std::vector<std::vector<uint32_t>> rowWords;
  std::vector<std::vector<uint64_t>> modeChanges;
  std::vector<std::vector<bool>> modeBits;
  std::map<std::string, std::vector<StateEntry>> stateHistory;
  std::vector<uint64_t> pcRecords;
  std::vector<uint32_t> pcValues;
  std::vector<std::vector<uint64_t>> peripheralChanges;
  std::vector<std::vector<bool>> peripheralBits;

 protected:
  // The walk shared by the versions: `groupOf` names the history group of
  // an active mode (empty: none); the keys of `stateHistory` are set first.
  template <typename GroupOf>
  void evaluateWith(GroupOf groupOf);

 private:
  WLDataNode& owner_;
};

// Version 2: a fixed default table of eight modes and a program counter
// field in word 1, unless the description brings its own modes.
class WLDataNode::DSRv2 : public WLDataNode::DSR_Base {
 public:
  using DSR_Base::DSR_Base;
  void initDefaults() override;
  void evaluateRows() override;
};

// Version 4: names with placeholders that stand for whole families of
// states (processor modes, radio modes, interrupts, voltage domains).
class WLDataNode::DSRv4 : public WLDataNode::DSR_Base {
 public:
  explicit DSRv4(WLDataNode& owner);
  void loadBitFields(const nlohmann::json& jstate) override;
  void evaluateRows() override;

  const std::vector<std::pair<uint32_t, std::string>> cortexModes;
  const std::map<uint32_t, std::string> lprfModes;
  const std::map<uint32_t, std::string> voltageDomains;
  const std::map<uint32_t, std::string> hwiNames;
};

// Version 5: dotted names; a mode's history group is its `group`, or
// "PowerMode".
class WLDataNode::DSRv5 : public WLDataNode::DSR_Base {
 public:
  using DSR_Base::DSR_Base;
  void evaluateRows() override;
};

// The decoder for a `JState` version (2, 4, 5), or null for any other.
std::unique_ptr<WLDataNode::DSR_Base> makeStateDecoder(WLDataNode& owner, int64_t version);

}  // namespace VSKTspServer
