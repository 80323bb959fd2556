#include "agent/ConfigTask.h"

#include <utility>

namespace Agent {
namespace {

constexpr unsigned taskPriority = 3;  // that of the table feed, behind the backlogs

}  // namespace

ConfigTask::ConfigTask(AgentHost& host, std::function<void()> done)
    : Task(host.scheduler(), taskPriority, "Config"), host_(host), done_(std::move(done)) {}

void ConfigTask::configIs(AgentConfig config) {
  config_ = std::move(config);
  left_ = ribNames(config_, *host_.ribConfigs());
  scheduleTask();
}

void ConfigTask::finish() {
  while (!left_.empty()) {
    doOne();
  }
}

void ConfigTask::run() {
  while (!left_.empty()) {
    doOne();
    if (taskShouldYield()) {
      scheduleTask();
      return;
    }
  }
  done_();
}

void ConfigTask::doOne() {
  const std::string name = left_.extract(left_.begin()).value();
  applyRib(config_, name, *host_.ribConfigs());
}

}  // namespace Agent
