#include "agent/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "runtime/Fastlog/RingFile.h"

namespace Agent {
namespace {

// The variable names the journal's stream; standard error may have been redirected since it was set.
bool isStandardErrorTheJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat facts {};
  return stream != nullptr && fstat(STDERR_FILENO, &facts) == 0 &&
         stream == std::to_string(facts.st_dev) + ":" + std::to_string(facts.st_ino);
}

}  // namespace

std::string journalPrefix(LogLevel level) {
  static const bool isJournal = isStandardErrorTheJournal();
  return isJournal ? "<" + std::to_string(static_cast<int>(level)) + ">" : "";
}

void log(LogLevel level, const std::string& text) {
  Fastlog::RingFile::note("agent", static_cast<unsigned>(level), text);
  const std::string prefix = journalPrefix(level);
  std::cerr << (prefix.empty() ? "tunnel-agent: " : prefix) + text + "\n" << std::flush;
}

}  // namespace Agent
