// HiddenTable: a table of this process that cannot be read while the object lives, as after damage to its index. Every
// look-up then raises CorruptionException, hides() is true for every key, and a walk finds no entry.
//
// Write the table only while it is readable: the writer reads the same index.
#pragma once

#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/MapBase.h"

namespace Support {

// The bytes of a table of this process.
inline Memtab::View viewOf(const Memtab::MapBase& table) {
  struct Opened : Memtab::MapBase {  // may name a protected member
    static const Memtab::SharedStore& storeOf(const Memtab::MapBase& map) { return (map.*&Opened::store)(); }
  };
  return Opened::storeOf(table).store().view();
}

class HiddenTable {
 public:
  explicit HiddenTable(const Memtab::MapBase& table)
      : descriptor_(
            *reinterpret_cast<Memtab::Word*>(const_cast<std::byte*>(viewOf(table).base + Memtab::descriptorsAt))) {
    flip();
  }
  HiddenTable(const HiddenTable&) = delete;
  HiddenTable& operator=(const HiddenTable&) = delete;
  ~HiddenTable() { flip(); }

 private:
  void flip() { descriptor_ ^= std::uint64_t{1} << 56; }  // a check bit

  Memtab::Word& descriptor_;  // of the table's first collection
};

}  // namespace Support
