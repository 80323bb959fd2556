#include "runtime/Memtab/Owner.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace Memtab {

// Field 22 of the process's status line. The second field, the name in parentheses, may contain anything.
Owner Owner::ofThisProcess() {
  Owner owner{static_cast<uint64_t>(getpid()), 0};
  std::ifstream file("/proc/self/stat");
  std::string line;
  std::getline(file, line);
  if (const size_t name = line.rfind(')'); name != std::string::npos) {
    std::istringstream fields(line.substr(name + 1));
    std::string skipped;
    for (int field = 3; field < 22; ++field) {
      fields >> skipped;
    }
    fields >> owner.start;
  }
  return owner;
}

}  // namespace Memtab
