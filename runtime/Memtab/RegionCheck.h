// What must be right about a region before anybody reads or writes the table in it. Nothing here stores.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/Memtab/Region.h"
#include "runtime/Zol/Exception.h"

namespace Memtab {

// The region holds no table, one of other records or of another version of this library, or one damaged beyond use.
// The text says which. It has not been touched, so that it can be set aside.
class IncompatibleTable : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

// Whether no table was ever completed in it: a new region, or one whose maker died before he was done. What was a
// table once, and lost its header, is not blank.
bool isBlank(View view);

// Throws IncompatibleTable unless the region holds a table of this fingerprint and number of collections, of which
// the header makes sense. What it leads to is another matter.
void requireCompatible(View view, uint64_t fingerprint, size_t collectionCount);

}  // namespace Memtab
