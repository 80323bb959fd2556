#include "agent/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <utility>

#include "agent/InputError.h"
#include "runtime/Fastlog/RingFile.h"

namespace Agent {
namespace {

constexpr std::size_t lineBytesMax = 4000;
constexpr std::size_t causesMax = 1000;

// The variable names the journal's stream; standard error may have been redirected since it was set.
bool isStandardErrorTheJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat facts {};
  return stream != nullptr && fstat(STDERR_FILENO, &facts) == 0 &&
         stream == std::to_string(facts.st_dev) + ":" + std::to_string(facts.st_ino);
}

std::string timeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  std::array<char, 40> seconds{};
  std::strftime(seconds.data(), seconds.size(), "%FT%T", &parts);
  std::array<char, 60> text{};
  std::snprintf(text.data(), text.size(), "%s.%03ldZ", seconds.data(), now.tv_nsec / 1'000'000);
  return text.data();
}

std::string prefixOf(LogLevel level) {
  static const bool isJournal = isStandardErrorTheJournal();
  return isJournal ? "<" + std::to_string(static_cast<int>(level)) + ">" : timeStamp() + " tunnel-agent: ";
}

struct Share {
  std::chrono::steady_clock::time_point begin;
  unsigned lines = 0;
  unsigned suppressed = 0;
};

}  // namespace

// One call for each line, so that lines of several processes in one file stay whole. A line that cannot be written is
// lost; the next one is tried all the same.
void log(LogLevel level, const std::string& text) {
  Fastlog::RingFile::note("agent", static_cast<unsigned>(level), text);
  const std::string line = prefixOf(level) + printable(text, lineBytesMax) + "\n";
  while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

void logBounded(LogLevel level, const std::string& cause, const std::string& text, double periodSeconds) {
  static std::map<std::string, Share> shares;
  const auto now = std::chrono::steady_clock::now();
  const bool isKnown = shares.size() < causesMax || shares.contains(cause);
  const auto [at, isNew] = shares.try_emplace(isKnown ? cause : "other causes", Share{now});
  Share& share = at->second;
  std::string note;
  if (now - share.begin > std::chrono::duration<double>(periodSeconds)) {
    note = share.suppressed > 0 ? " (" + counted(share.suppressed, "line") + " of this cause suppressed before)" : "";
    share = {now};
  }
  if (share.lines == causeLinesMax) {
    ++share.suppressed;
    return;
  }
  if (++share.lines == causeLinesMax) {
    note += " (more lines of this cause are suppressed for a while)";
  }
  log(level, text + note);
}

}  // namespace Agent
