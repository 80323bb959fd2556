// The daemon's log: a line an event on standard error; where that is the system's journal, with its level.
#pragma once

#include <string>

namespace Agent {

// Numbers as syslog(3) has them.
enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6 };

void log(LogLevel level, const std::string& text);

// What the journal takes for a line's level, "<6>"; empty when standard error is something else.
std::string journalPrefix(LogLevel level);

}  // namespace Agent
