// WLDataNode: the power stream of one Wattline capture.
//
// Gives the stream as columns (time, energy, current, voltage and, for
// records with state words, one column per word), computes statistics over a
// record range, and owns the state decoder (`dsr`) that evaluates the state
// words against the capture's `JState` description.
//
// Memory: a stream read from a file is mapped read-only, and its columns are
// views that decode each value from its record when asked (see WLColumn).
// `readFile` opens and maps the file, taking its size once; `decode` makes
// one pass over the records that checks every tag and computes the
// statistics of the whole stream, so the usual first `computeStats` costs
// nothing more. No column memory is allocated: the process holds the file's
// pages, which the page cache already had, and nothing beside them. Views
// never read past the size taken at `readFile`. A file that another process
// truncates while it is mapped is beyond what a reader can defend against:
// touching a page past the new end raises SIGBUS. Captures are written once
// and then only read (a refresh of a rewritten file maps it again), and the
// pass of `decode` re-checks the size as it goes, failing cleanly when the
// file shrank before then.
// A stream given from memory (`readBuffer`), or a file the system will not
// map, is decoded into owned columns instead, in blocks, the raw bytes never
// kept beside them.
//
// Ownership and threads: owned by WLExperiment, shared read-only by its
// views. No lock of its own: every call happens under the trace server's
// request lock; the helper thread of a large in-memory `decode` ends before
// it returns and writes only its own records' slices of the columns.
// Failures: `decode` throws std::runtime_error("Corrupted buffer") on a
// record whose tag differs from the file's first byte (that record and all
// after it then read as 0), and std::runtime_error with the system's error
// text when the file cannot be read; a missing file is not an error
// (`readFile` answers false).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "wattline/WLColumn.hpp"

namespace VSKTspServer {

class WLStreamSource;

struct ValueStats {
  int64_t count = 0;
  double min = 0.0;
  double max = 0.0;
  double mean = 0.0;
};

// Position in a sorted list nearest to `value`; a tie goes to the upper
// position. 0 for an empty list. The column form searches a stream's times
// in place.
uint64_t nearestIndex(std::span<const uint64_t> sortedList, uint64_t value);
uint64_t nearestIndexInColumn(const WLColumn<uint64_t>& sortedList, uint64_t value);
// A template so that a braced list still means the span form.
template <typename T>
  requires std::is_same_v<T, uint64_t>
uint64_t nearestIndex(const WLColumn<T>& sortedList, uint64_t value) {
  return nearestIndexInColumn(sortedList, value);
}

class WLDataNode {
 public:
  class DSR_Base;
  class DSRv2;
  class DSRv4;
  class DSRv5;

  // Record types with a layout.
  static constexpr uint32_t kTypeWithStates = 7;
  static constexpr uint32_t kTypePlain = 8;
  static constexpr uint32_t kSizeWithStates = 26;
  static constexpr uint32_t kSizePlain = 18;

  WLDataNode();
  ~WLDataNode();
  WLDataNode(const WLDataNode&) = delete;
  WLDataNode& operator=(const WLDataNode&) = delete;

  // Opens folder + "/" + fileName and reads the record kind from its first
  // byte. Drops the columns of an earlier load. False when the file is not
  // there (or cannot be opened); the node then has no stream.
  bool readFile(const std::string& folder, const std::string& fileName);
  // Takes the stream from memory instead of a file; the bytes must stay
  // alive until decode() returns, which copies what it needs into owned
  // columns. Used by generators and benchmarks.
  void readBuffer(const uint8_t* bytes, int64_t size);
  // Whether a stream was read (the file existed), even after decode()
  // dropped its bytes.
  bool hasStream() const { return hasStream_; }

  // Makes the columns from the stream read by readFile/readBuffer.
  void decode();
  // Whether the columns are views over the mapped file.
  bool mapped() const;

  // Statistics over records first .. last-1, kept in the node.
  void computeStats(uint64_t first, uint64_t last);
  // Record index estimate for a time, assuming evenly spaced samples.
  uint64_t indexOfTime(uint64_t time) const;

  // The state evaluation after a decode: initDefaults, compactRows,
  // finishRows, reset of the derived lists, evaluateRows. Nothing without
  // a decoder or a stream.
  void evaluateStates();

  int64_t byteCount = 0;
  uint32_t recordSize = 0;
  uint64_t recordCount = 0;
  uint32_t recordType = kTypePlain;
  uint8_t stateWordCount = 0;
  WLColumn<uint64_t> times;
  WLColumn<uint32_t> energies;
  WLColumn<uint32_t> currents;
  WLColumn<uint16_t> voltages;
  std::vector<WLColumn<uint32_t>> stateWords;
  ValueStats powerStats;
  ValueStats currentStats;
  ValueStats voltageStats;
  double duration = 0.0;
  double energyUsed = 0.0;
  std::unique_ptr<DSR_Base> dsr;

 private:
  void dropStream();
  void readKind(uint8_t first);
  // Decodes `count` records at `bytes` into the columns from index `at`;
  // returns the index of the first record with a wrong tag, or count.
  uint64_t decodeBlock(const uint8_t* bytes, uint64_t count, uint64_t at, uint8_t tag,
                       uint32_t stride);
  // Runs `decodeRange(from, to, buffer)` over all `count` records in shares
  // of whole blocks on two threads; the first record with a wrong tag, or
  // `count`. Rethrows a read failure of either thread.
  uint64_t decodeShared(
      uint64_t count, uint64_t perBlock,
      const std::function<uint64_t(uint64_t, uint64_t, std::vector<uint8_t>&)>& decodeRange);

  // Owned columns of the previous load, kept from readFile/readBuffer until
  // decode: a stream decoded again into owned columns at the same length
  // reuses their memory instead of faulting in fresh pages.
  struct Spare {
    WLColumn<uint64_t> times;
    WLColumn<uint32_t> energies, currents;
    WLColumn<uint16_t> voltages;
    std::vector<WLColumn<uint32_t>> stateWords;
  };
  void releaseSpare();

  // The statistics of records 0 .. last-1 for the two ranges a viewer asks
  // for first (the whole stream, and up to the record nearest its end),
  // worked out by the pass of `decode`.
  struct KnownStats {
    uint64_t last = 0;
    ValueStats power, current, voltage;
  };
  void decodeMapped(uint8_t tag, uint32_t stride);
  void viewColumns(uint32_t stride);

  std::unique_ptr<WLStreamSource> source_;
  std::vector<KnownStats> known_;
  Spare spare_;
  bool hasStream_ = false;
  bool streaming_ = false;  // this decode writes with streaming stores
};

}  // namespace VSKTspServer
