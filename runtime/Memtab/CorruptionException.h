// Raised by a read that met bytes which the writer cannot have written. Its text names the table and the place.
// Whoever catches it tells the table (MapBase::corruptionDetected) and reads the entry as absent.
#pragma once

#include "runtime/Zol/Exception.h"

namespace Memtab {

class CorruptionException : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

}  // namespace Memtab
