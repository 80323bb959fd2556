// The daemon's log: one line for each event, on standard error.
//
//     journal   <4>table ldp: readable again
//     else      2026-11-22T08:39:11.123Z tunnel-agent: table ldp: readable again
//
// Events that other processes cause are logged with their cause, which has a bounded number of lines.
#pragma once

#include <string>

namespace Agent {

// Numbers as syslog(3) has them.
enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6 };

void log(LogLevel level, const std::string& text);

// As log(), but a cause gets at most causeLinesMax lines in so many seconds. Its last line says that the others are
// suppressed; the first line of its next period has their number. cause: one of a bounded set of texts.
void logBounded(LogLevel level, const std::string& cause, const std::string& text, double periodSeconds = 60);
inline constexpr unsigned causeLinesMax = 20;

}  // namespace Agent
