// Owner: which process writes a region, for people to read. Who may write is a matter of the lock, not of this.
#pragma once

#include <cstdint>
#include <string>

namespace Memtab {

struct Owner {
  uint64_t pid = 0;    // 0: nobody
  uint64_t start = 0;  // clock ticks since boot, which tell processes of one id apart; 0: unknown

  static Owner ofThisProcess();
  // "pid 4711 (tunnel-agent), started 12.3 s ago"; "holder unknown" if no such process runs here.
  std::string text() const;
};

}  // namespace Memtab
