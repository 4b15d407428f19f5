// WLColumn: one column of power samples (times, currents, ...).
//
// A column is either
//   - owned: one anonymous mapping sized once from the record count, filled
//     by the decoder (streams given from memory, or a file that cannot be
//     mapped). Its pages come from the kernel already zeroed, no
//     constructor walks them, and large columns ask for huge pages; or
//   - a view over the records of a mapped file: element i is read from the
//     record at `base + i * stride` when asked for. A file in the page cache
//     maps without copying or zeroing, so a stream of gigabytes opens at
//     the speed of one pass over its bytes, and the process holds the
//     records once, not the file plus its columns.
// Both read the same way: `sizeof(T)` little-endian bytes, shifted right by
// `shift` (a time shares its first eight bytes with the record's tag), and,
// for fields where all ones means "no reading", all ones shown as 0 (the
// rule is idempotent, so owned columns that hold the shown values carry it
// harmlessly). Elements from `valid` on read as 0: a corrupt record ends
// what the stream says.
//
// A column that was never made "does not exist", which the views tell
// apart from an empty one (a stream of 0 records still has its columns).
// A view never reads beyond `size * stride` bytes from its base, which the
// node fixes once from the file's size when it maps the file.
//
// Not thread-safe; owned by WLDataNode and read by the views under the
// server's request lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
  static_assert(std::is_unsigned_v<T>);

 public:
  // How a view turns a field's bytes into a value.
  struct Field {
    uint32_t shift = 0;       // right shift of the loaded value
    bool noReading = false;   // all ones reads as 0
  };

  WLColumn() = default;
  WLColumn(const WLColumn&) = delete;
  WLColumn& operator=(const WLColumn&) = delete;
  WLColumn(WLColumn&& other) noexcept { swap(other); }
  WLColumn& operator=(WLColumn&& other) noexcept {
    WLColumn(std::move(other)).swap(*this);
    return *this;
  }
  ~WLColumn() { reset(); }

  // Makes the column exist, owned, with `count` zero elements.
  void allocate(size_t count) {
    reset();
    adopt(count);
  }
  // Makes the column exist, owned, with `count` elements. The memory of
  // `spare` is taken over when it is owned and has exactly that size (its
  // content is then stale: the caller overwrites every element); otherwise
  // fresh zeroed memory.
  void allocateFrom(WLColumn& spare, size_t count) {
    reset();
    if (spare.owned_ != nullptr && spare.size_ == count) {
      swap(spare);
      exists_ = true;
      valid_ = count;
      return;
    }
    spare.reset();
    adopt(count);
  }
  // Makes the column a view of `count` fields `stride` bytes apart from
  // `base`; the bytes must outlive the column (or its next reset).
  void view(const uint8_t* base, size_t count, uint32_t stride, Field field) {
    reset();
    base_ = base;
    size_ = valid_ = count;
    stride_ = stride;
    field_ = field;
    exists_ = true;
  }
  // Elements from `count` on read as 0 from now on.
  void limit(size_t count) { valid_ = std::min(valid_, count); }
  // Takes owned content away into `spare` (this column then does not exist);
  // a view is simply dropped.
  void retireInto(WLColumn& spare) noexcept {
    spare.reset();
    if (owned_ != nullptr) swap(spare);
    reset();
  }
  // Back to "does not exist"; owned memory goes back to the system.
  void reset() noexcept {
    if (owned_ != nullptr) detail::unmapZeroed(owned_, size_ * sizeof(T));
    owned_ = nullptr;
    base_ = nullptr;
    size_ = valid_ = 0;
    stride_ = sizeof(T);
    field_ = Field{};
    exists_ = false;
  }

  bool exists() const { return exists_; }
  bool isView() const { return base_ != nullptr && owned_ == nullptr; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Where the decoder writes an owned column; null for a view.
  T* storage() { return owned_; }

  T operator[](size_t i) const {
    if (i >= valid_) return 0;
    return fieldValue(base_ + i * stride_);
  }
  T front() const { return (*this)[0]; }
  T back() const { return (*this)[size_ - 1]; }

  // Elements from .. from+count-1 into `out` (count within size()): the way
  // to walk long ranges, as the per-element checks go once per call.
  void read(size_t from, size_t count, T* out) const {
    const size_t good = from >= valid_ ? 0 : std::min(count, valid_ - from);
    if (owned_ != nullptr) {
      std::memcpy(out, owned_ + from, good * sizeof(T));
    } else {
      const uint8_t* at = base_ + from * stride_;
      const uint32_t stride = stride_;
      const Field field = field_;
      for (size_t i = 0; i < good; ++i, at += stride) out[i] = fieldValue(at, field);
    }
    std::fill(out + good, out + count, T{0});
  }

  void swap(WLColumn& other) noexcept {
    std::swap(owned_, other.owned_);
    std::swap(base_, other.base_);
    std::swap(size_, other.size_);
    std::swap(valid_, other.valid_);
    std::swap(stride_, other.stride_);
    std::swap(field_, other.field_);
    std::swap(exists_, other.exists_);
  }

 private:
  static T fieldValue(const uint8_t* at, Field field) {
    T raw;
    std::memcpy(&raw, at, sizeof raw);  // the host is little-endian, like the file
    raw = static_cast<T>(raw >> field.shift);
    return field.noReading && raw == static_cast<T>(~T{0}) ? T{0} : raw;
  }
  T fieldValue(const uint8_t* at) const { return fieldValue(at, field_); }

  void adopt(size_t count) {
    if (count > 0) owned_ = static_cast<T*>(detail::mapZeroed(count * sizeof(T)));
    base_ = reinterpret_cast<const uint8_t*>(owned_);
    size_ = valid_ = count;
    stride_ = sizeof(T);
    field_ = Field{};
    exists_ = true;
  }

  T* owned_ = nullptr;
  const uint8_t* base_ = nullptr;
  size_t size_ = 0;
  size_t valid_ = 0;
  uint32_t stride_ = sizeof(T);
  Field field_{};
  bool exists_ = false;
};

}  // namespace VSKTspServer
