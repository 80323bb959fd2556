#include "agent/Log.h"

#include <cstdlib>
#include <iostream>

namespace Agent {

void log(LogLevel level, const std::string& text) {
  static const bool isJournal = std::getenv("JOURNAL_STREAM") != nullptr;
  const std::string prefix =
      isJournal ? "<" + std::to_string(static_cast<int>(level)) + ">" : std::string("tunnel-agent: ");
  std::cerr << prefix + text + "\n" << std::flush;
}

}  // namespace Agent
