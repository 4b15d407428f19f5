// WLColumn: one column of decoded power samples (times, currents, ...).
//
// A stream of an hour holds hundreds of millions of records, so a column is
// one anonymous mapping sized once from the record count: its pages come
// from the kernel already zeroed, no constructor walks them, and large
// columns ask for huge pages to keep the page-fault count low. A column that
// was never allocated "does not exist", which the views tell apart from an
// empty one (a stream of 0 records still has its columns).
//
// Not thread-safe; owned by WLDataNode and read by the views under the
// server's request lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>

namespace VSKTspServer {

namespace detail {
// Zero-filled anonymous memory of `bytes` bytes; throws std::bad_alloc.
void* mapZeroed(size_t bytes);
void unmapZeroed(void* data, size_t bytes) noexcept;
}  // namespace detail

template <typename T>
class WLColumn {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  WLColumn() = default;
  WLColumn(const WLColumn&) = delete;
  WLColumn& operator=(const WLColumn&) = delete;
  WLColumn(WLColumn&& other) noexcept { swap(other); }
  WLColumn& operator=(WLColumn&& other) noexcept {
    WLColumn(std::move(other)).swap(*this);
    return *this;
  }
  ~WLColumn() { reset(); }

  // Makes the column exist with `count` zero elements, dropping old content.
  void allocate(size_t count) {
    reset();
    adopt(count);
  }
  // Makes the column exist with `count` elements. The memory of `spare` is
  // taken over when it has exactly that size (its content is then stale:
  // the caller overwrites every element); otherwise fresh zeroed memory.
  void allocateFrom(WLColumn& spare, size_t count) {
    reset();
    if (spare.data_ != nullptr && spare.size_ == count) {
      swap(spare);
      exists_ = true;
      return;
    }
    spare.reset();
    adopt(count);
  }
  // Takes the content away into `spare` (this column then does not exist).
  void retireInto(WLColumn& spare) noexcept {
    spare.reset();
    swap(spare);
  }
  // Back to "does not exist"; the memory goes back to the system.
  void reset() noexcept {
    if (data_ != nullptr) detail::unmapZeroed(data_, size_ * sizeof(T));
    data_ = nullptr;
    size_ = 0;
    exists_ = false;
  }


  bool exists() const { return exists_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  const T& front() const { return data_[0]; }
  const T& back() const { return data_[size_ - 1]; }
  std::span<const T> span() const { return {data_, size_}; }

  void swap(WLColumn& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(exists_, other.exists_);
  }

 private:
  void adopt(size_t count) {
    if (count > 0) data_ = static_cast<T*>(detail::mapZeroed(count * sizeof(T)));
    size_ = count;
    exists_ = true;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  bool exists_ = false;
};

}  // namespace VSKTspServer
