// The process's trace file (Fastlog::RingFile), set up by the first state machine of a tunnel FIB. The environment
// decides before the host of the library does:
//
//   FASTLOG_DISABLE   set: no file; the next start asks again
//   FLFILE            not empty: the path of the file, used unchanged
//   FASTLOGDIR        the directory of a file named "Tunnel.fl"; unset: "Tunnel-<process id>.fl" in the system's
//                     directory for temporary files, or the place that the host has set
#pragma once

#include <array>
#include <optional>
#include <string>

namespace Tunnel {

// The sources of trace lines in the library.
inline constexpr std::array traceSources = {"Memtab",      "PreferenceMapperSm", "ProtocolTunnelSm",
                                            "TunnelFibSm", "TunnelRibBuilderSm", "TunnelRibConfigDirSm",
                                            "TunnelRibSm", "TunnelTablesMountSm"};

// Whether this process has set up its trace file.
extern bool fastlogInitialized;

// Sets up the trace file unless that was done. When that fails, the next call tries again.
// Returns what went wrong, once for each trouble; empty: nothing new.
std::string fastlogSetUp();
// The same for callers without a log: what went wrong becomes a trace line of level 0, which is always written.
void fastlogInitialize();

// Sets the place for an environment that names neither file nor directory: the directory of a file "Tunnel.fl",
// created if it is absent; or, if the text is empty, no file. Holds for set-ups from then on.
void fastlogDirectoryIs(std::string directory);

// The name that the environment gives the file, "%d" standing for the process id; nothing: no file. FLFILE is a path;
// any other name is one in FASTLOGDIR, the host's directory, or the directory for temporary files.
std::optional<std::string> fastlogFileName();

}  // namespace Tunnel
