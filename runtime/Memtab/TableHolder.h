// Who holds a table, in words for people. What decides is the kernel's lock; this is what the holder wrote about
// itself.
#pragma once

#include <cstdint>
#include <string>

namespace Memtab {

// "pid 4711 (tunnel-agent), started 12.3 s ago", if a process of this number and start time (in clock ticks since boot)
// runs here; else "holder unknown".
std::string holderText(uint64_t pid, uint64_t startTicks);

// The start time of a process, in clock ticks since boot; 0: there is none, or it is dead.
uint64_t startOf(uint64_t pid);

}  // namespace Memtab
