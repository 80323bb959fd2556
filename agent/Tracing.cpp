#include "agent/Tracing.h"

#include <unistd.h>

#include <algorithm>

#include "agent/CommandLine.h"
#include "agent/InputError.h"
#include "agent/Log.h"
#include "runtime/Fastlog/RingFile.h"
#include "runtime/Zol/Exception.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Agent {

void openTraceFile(const std::string& stateDirectory) {
  Tunnel::fastlogDirectoryIs(stateDirectory + "/trace");
  const bool wasOpen = Tunnel::fastlogInitialized;
  if (const std::string trouble = Tunnel::fastlogSetUp(); !trouble.empty()) {
    log(LogLevel::warning, trouble);
  }
  if (!wasOpen) {
    std::string text = "tunnel-agent ";
    text.append(agentVersion).append(", process ").append(std::to_string(getpid()));
    Fastlog::RingFile::note("agent", 5, text.append(", state directory ").append(stateDirectory));
  }
}

Fastlog::TraceSetting readTraceSetting(const std::string& text) {
  Fastlog::TraceSetting setting = Fastlog::TraceSetting::parse(text);
  const auto& known = Tunnel::traceSources;
  if (setting.source != "*" && std::find(known.begin(), known.end(), setting.source) == known.end()) {
    std::string problem = "unknown trace source '" + printable(setting.source, 64) + "'; known are * (all)";
    for (const char* const source : known) {
      problem += std::string(", ") + source;
    }
    throw Zol::ParseException(problem);
  }
  return setting;
}

}  // namespace Agent
