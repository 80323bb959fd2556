// Ptr and PtrConst: counted references. Ptr<T> gives the whole object, PtrConst<T> only its read operations; a reactor
// takes what it reads as PtrConst and what it writes as Ptr. Null is a legal value. Dereferencing null is an assertion.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/PtrInterface.h"

namespace Zol {

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}                        // NOLINT: null is a value of every pointer attribute
  Ptr(T* object) : object_(object) { take(); }  // NOLINT: an object carries its own count
  Ptr(const Ptr& other) : object_(other.object_) { take(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& other) : object_(other.get()) {  // NOLINT: as a plain pointer converts
    take();
  }
  ~Ptr() { give(); }

  // By value: assigning to itself, or dropping what owns the right side, is safe.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const { return object_; }
  T* operator->() const {
    ZOL_ASSERT_TEXT(object_ != nullptr, "ptr != null");
    return object_;
  }
  T& operator*() const { return *operator->(); }
  explicit operator bool() const { return object_ != nullptr; }

  template <class U>
  bool operator==(const Ptr<U>& other) const {
    return object_ == other.get();
  }
  bool operator==(std::nullptr_t) const { return object_ == nullptr; }

 private:
  void take() const {
    if (object_ != nullptr) {
      object_->referenceInc();
    }
  }
  void give() const {
    if (object_ != nullptr) {
      object_->referenceDec();
    }
  }

  T* object_ = nullptr;
};

template <class T>
using PtrConst = Ptr<const T>;

// Null when the object is null or of another class.
template <class To, class From>
Ptr<To> dynamicPtrCast(const Ptr<From>& from) {
  return Ptr<To>(dynamic_cast<To*>(from.get()));
}

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Zol
