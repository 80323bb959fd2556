// Attempts: several things to do of which none shall keep the others from being done.
#pragma once

#include <exception>

#include "runtime/Memtab/CorruptionException.h"

namespace Statehub {

class Attempts {
 public:
  // Does it, and keeps what it raises. Lost bytes of a table of our own are let through: all begins anew then.
  template <class F>
  void attempt(F&& f) {
    try {
      f();
    } catch (const Memtab::CorruptionException&) {
      throw;
    } catch (const Zol::Exception&) {
      first_ = first_ ? first_ : std::current_exception();
    }
  }
  // Raises what was raised first, if anything.
  void raise() const {
    if (first_) {
      std::rethrow_exception(first_);
    }
  }

 private:
  std::exception_ptr first_;
};

}  // namespace Statehub
