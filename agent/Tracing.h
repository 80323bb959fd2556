// Trace of the agent: its file, and the settings that operators give.
#pragma once

#include <string>

#include "runtime/Fastlog/TraceSetting.h"

namespace Agent {

// Sets up the trace file of a serving agent: trace/Tunnel.fl in the state directory, unless the environment names
// another or none. A file that cannot be created is logged, and the agent works without it. Does nothing when there is
// one. Call it after the tables are locked, so that an agent that is refused leaves the file of the running one alone.
void openTraceFile(const std::string& stateDirectory);

// A setting for "*" or one of the library's sources. Raises ParseException for another source, which lists those that
// exist, and what TraceSetting::parse raises.
Fastlog::TraceSetting readTraceSetting(const std::string& text);

}  // namespace Agent
