// The process's trace file, set up by the first state machine of a tunnel FIB. The environment decides:
//
//   FASTLOG_DISABLE   set: no file; the next start asks again
//   FLFILE            not empty: the name of the file
//   FASTLOGDIR        the directory of a file named "Tunnel.fl"; unset: "Tunnel-<process id>.fl" in the system's
//                     directory for temporary files
#pragma once

#include <optional>
#include <string>

namespace Tunnel {

// Whether this process has set up its trace file.
extern bool fastlogInitialized;

// Does nothing when it was done. A file that cannot be made is traced, and messages are dropped.
void fastlogInitialize();

// The name that the environment gives the file, "%d" standing for the process id; nothing: no file.
std::optional<std::string> fastlogFileName();

}  // namespace Tunnel
