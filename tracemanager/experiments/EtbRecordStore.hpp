// EtbRecordStore: the decoded ETB records that the ETB tables show.
//
// The ETB decoder fills it on a tool thread, which does not hold the
// server's request lock, while table requests read it. So the store guards
// itself: writers take the lock exclusively, readers share it and read in
// place. No lock of the store is held while it calls out, except the read
// lock around the reader's own function, which must not call back into the
// store's writers.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace VSKTspServer {

class EtbRecordStore {
 public:
  using Record = std::map<std::string, std::string>;

  void clear() {
    std::unique_lock lock(mutex);
    records.clear();
  }
  void append(Record record) {
    std::unique_lock lock(mutex);
    records.push_back(std::move(record));
  }
  void append(std::vector<Record> batch) {
    std::unique_lock lock(mutex);
    if (records.empty()) {
      records = std::move(batch);
      return;
    }
    records.insert(records.end(), std::make_move_iterator(batch.begin()),
                   std::make_move_iterator(batch.end()));
  }
  size_t size() const {
    std::shared_lock lock(mutex);
    return records.size();
  }
  std::vector<Record> snapshot() const {
    std::shared_lock lock(mutex);
    return records;
  }
  // Calls `reader` with the records under the shared lock and gives its
  // result.
  template <typename Reader>
  decltype(auto) read(Reader&& reader) const {
    std::shared_lock lock(mutex);
    return reader(static_cast<const std::vector<Record>&>(records));
  }

 private:
  mutable std::shared_mutex mutex;  // guards records
  std::vector<Record> records;
};

}  // namespace VSKTspServer
