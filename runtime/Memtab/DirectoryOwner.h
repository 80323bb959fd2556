// Whom a reader trusts: who owns the state directory owns what it says. So an operator, root for one, reads the tables
// of an agent that runs under a user of its own. Writers trust nobody but themselves and root.
#pragma once

#include <string>

#include "runtime/Memtab/StateDirectory.h"

namespace Memtab {

// The directory's owner; nobody when it cannot be examined.
inline Owners directoryOwner(const std::string& stateDirectory) {
  struct stat facts {};
  return stat(stateDirectory.c_str(), &facts) == 0 ? Owners{facts.st_uid} : Owners{};
}

}  // namespace Memtab
