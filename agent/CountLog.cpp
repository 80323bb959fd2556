#include "agent/CountLog.h"

#include <algorithm>

#include "agent/InputError.h"
#include "agent/Log.h"

namespace Agent {
namespace {

constexpr Quor::TaskPriority priority = 3;  // after the backlogs

}  // namespace

CountLog::CountLog(const AgentHost& host)
    : host_(host), task_(*this, &CountLog::handleTime, host.scheduler(), priority, "CountLog") {}

std::string CountLog::text() const {
  std::size_t endpoints = 0;
  for (const auto& [name, id] : host_.ribIds()->tunnelRibNames()) {
    const auto rib = host_.rib(id);
    endpoints += rib ? rib->size() : 0;
  }
  return counted(host_.fib()->entry().size(), "FIB entry", "FIB entries") + ", " +
         counted(endpoints, "RIB entry", "RIB entries");
}

void CountLog::ready() { logNumbers("ready: "); }

void CountLog::look() {
  if (!logged_.empty() && !task_.taskScheduled() && text() != logged_) {
    task_.scheduleTaskLowestDelay(std::max(loggedAt_ + secondsBetween - host_.scheduler()->now(), 0.0));
  }
}

void CountLog::handleTime() {
  if (text() != logged_) {
    logNumbers("");
  }
}

void CountLog::logNumbers(const std::string& prefix) {
  logged_ = text();
  loggedAt_ = host_.scheduler()->now();
  log(LogLevel::info, prefix + logged_);
}

}  // namespace Agent
