// ByteWriter and ByteReader: the little-endian bytes of a record in a shared table. Words are not aligned; counts and
// lengths come before what they count. The reader trusts nothing: past the end it reads zeros and remembers that the
// bytes were not a record.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace Zol {

static_assert(std::endian::native == std::endian::little, "shared tables are little-endian");

class ByteWriter {
 public:
  template <std::unsigned_integral T>
  void word(T value) {
    std::memcpy(room(sizeof value), &value, sizeof value);
  }
  void bytes(std::span<const std::byte> bytes) {
    if (!bytes.empty()) {
      std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
    }
  }

  std::span<const std::byte> written() const { return {buffer_.data(), size_}; }
  std::size_t size() const { return size_; }
  void clear() { size_ = 0; }

 private:
  std::byte* room(std::size_t size) {
    if (size_ + size > buffer_.size()) {
      buffer_.resize((size_ + size) * 2 + 64);
    }
    std::byte* const at = buffer_.data() + size_;
    size_ += size;
    return at;
  }

  std::vector<std::byte> buffer_;  // kept when cleared: a writer is reused
  std::size_t size_ = 0;
};

class ByteReader {
 public:
  explicit ByteReader(std::span<const std::byte> bytes) : at_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  template <std::unsigned_integral T>
  T word() {
    T value = 0;
    if (remaining() < sizeof value) {
      bad();
    } else {
      std::memcpy(&value, at_, sizeof value);
      at_ += sizeof value;
    }
    return value;
  }

  std::span<const std::byte> bytes(std::size_t size) {
    if (remaining() < size) {
      bad();
      return {};
    }
    const std::span<const std::byte> read(at_, size);
    at_ += size;
    return read;
  }

  std::size_t remaining() const { return static_cast<std::size_t>(end_ - at_); }
  // Call when a value that was read cannot stand in a record.
  void bad() {
    ok_ = false;
    at_ = end_;
  }
  // Whether everything read so far was there and legal.
  bool ok() const { return ok_; }

 private:
  const std::byte* at_;
  const std::byte* end_;
  bool ok_ = true;
};

}  // namespace Zol
