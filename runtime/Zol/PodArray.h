// PodArray: a counted array of plain values with a fixed largest size. The first few elements lie inside the object,
// more on the heap, so that a record with one via does not carry room for 512.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>

#include "runtime/Zol/Exception.h"
#include "runtime/Zol/Hash.h"

namespace Zol {

template <class T, std::size_t maxSize_, std::size_t inlineSize = 1>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
  static_assert(maxSize_ <= UINT16_MAX && inlineSize >= 1 && inlineSize <= maxSize_);

 public:
  using Element = T;

  PodArray() {}
  PodArray(std::initializer_list<T> elements) : PodArray() {  // so that its destructor runs if there are too many
    for (const T& element : elements) {
      append(element);
    }
  }
  PodArray(const PodArray& other) { assign(other); }
  PodArray(PodArray&& other) noexcept { steal(other); }
  PodArray& operator=(const PodArray& other) {
    if (this != &other) {
      assign(other);
    }
    return *this;
  }
  PodArray& operator=(PodArray&& other) noexcept {
    if (this != &other) {
      freeHeap();
      steal(other);
    }
    return *this;
  }
  ~PodArray() { freeHeap(); }

  static constexpr std::size_t maxSize() { return maxSize_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool full() const { return size_ == maxSize_; }

  // New elements hold T(). A size above maxSize() is refused with a range exception and changes nothing.
  void sizeIs(std::size_t size) {
    if (size > maxSize_) {
      throw RangeException("PodArray::set expected size <= " + std::to_string(maxSize_));
    }
    reserve(size);
    std::fill(data() + std::min<std::size_t>(size_, size), data() + size, T());
    size_ = static_cast<std::uint16_t>(size);
  }
  void append(const T& element) {
    const T copy = element;  // may lie in this very array
    sizeIs(size_ + std::size_t(1));
    data()[size_ - 1] = copy;
  }
  void clear() { size_ = 0; }

  // The last element takes the freed place: the order of the others is not kept.
  void swapRemove(std::size_t index) {
    (*this)[index] = data()[size_ - 1];
    --size_;
  }

  T& operator[](std::size_t index) { return const_cast<T&>(std::as_const(*this)[index]); }
  const T& operator[](std::size_t index) const {
    if (index >= size_) {
      throw RangeException("PodArray index " + std::to_string(index) + " < size " + std::to_string(size_) +
                           " expected");
    }
    return data()[index];
  }
  T* begin() { return data(); }
  T* end() { return data() + size_; }
  const T* begin() const { return data(); }
  const T* end() const { return data() + size_; }

  std::uint32_t hash() const {
    HashMix mix;
    for (const T& element : *this) {
      mix.add(hashOf(element));
    }
    return mix.result();
  }
  friend bool operator==(const PodArray& a, const PodArray& b) {
    return a.size_ == b.size_ && std::equal(a.begin(), a.end(), b.begin());
  }
  friend std::strong_ordering operator<=>(const PodArray& a, const PodArray& b) {
    return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  bool onHeap() const { return capacity_ > inlineSize; }
  T* data() { return onHeap() ? heap_ : inline_; }
  const T* data() const { return onHeap() ? heap_ : inline_; }

  void reserve(std::size_t size) {
    if (size <= capacity_) {
      return;
    }
    const std::size_t capacity = std::min(maxSize_, std::max<std::size_t>(size, capacity_ * std::size_t(2)));
    T* const larger = new T[capacity];
    std::copy(begin(), end(), larger);
    freeHeap();
    heap_ = larger;
    capacity_ = static_cast<std::uint16_t>(capacity);
  }
  void assign(const PodArray& other) {
    size_ = 0;
    reserve(other.size_);
    std::copy(other.begin(), other.end(), data());
    size_ = other.size_;
  }
  void steal(PodArray& other) {
    size_ = other.size_;
    capacity_ = other.capacity_;
    if (other.onHeap()) {
      heap_ = other.heap_;
    } else {
      std::copy(other.begin(), other.end(), inline_);
    }
    other.size_ = 0;
    other.capacity_ = inlineSize;
  }
  void freeHeap() {
    if (onHeap()) {
      delete[] heap_;
      capacity_ = inlineSize;
    }
  }

  std::uint16_t size_ = 0;
  std::uint16_t capacity_ = inlineSize;
  union {
    T inline_[inlineSize];
    T* heap_;
  };
};

}  // namespace Zol
