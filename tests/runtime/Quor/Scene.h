// A scheduler in simulated time, and tasks and watchers whose behaviour a test writes in place.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/TimerTask.h"

namespace Quor {

class ScriptedTask final : public TimerTask {
 public:
  using Script = std::function<void(ScriptedTask&)>;
  ScriptedTask(Zol::Ptr<TaskScheduler> scheduler, TaskPriority priority, Script script)
      : TimerTask(std::move(scheduler), priority, "scripted"), script_(std::move(script)) {}

 private:
  void run() override {
    const Script script = script_;  // the script may destroy the task
    script(*this);
  }
  Script script_;
};

class ScriptedWatcher final : public ClockNotifiee {
 public:
  ScriptedWatcher(Zol::PtrConst<Clock> clock, std::function<void()> script)
      : ClockNotifiee(std::move(clock)), script_(std::move(script)) {}

 private:
  void handleTimeMin() override {
    const std::function<void()> script = script_;
    script();
  }
  std::function<void()> script_;
};

struct Scene {
  SimulatedTimeSource time{100};
  EndlessSlicePolicy endless;
  Zol::Ptr<TaskScheduler> scheduler = Zol::make<TaskScheduler>(time, endless);
  std::vector<std::string> journal;

  Zol::Ptr<Clock> clock() const { return scheduler->activityConfig().clock(); }
  std::unique_ptr<ScriptedTask> task(TaskPriority priority, ScriptedTask::Script script) {
    return std::make_unique<ScriptedTask>(scheduler, priority, std::move(script));
  }
  // Writes its name and the time of its run into the journal.
  std::unique_ptr<ScriptedTask> task(const std::string& name, TaskPriority priority = 2) {
    return task(priority, [this, name](ScriptedTask&) { note(name); });
  }
  std::unique_ptr<ScriptedWatcher> watcher(std::function<void()> script) {
    return std::make_unique<ScriptedWatcher>(clock(), std::move(script));
  }
  std::unique_ptr<ScriptedWatcher> watcher(const std::string& name) {
    return watcher([this, name] { note(name); });
  }
  void note(const std::string& what) {
    std::string when = std::to_string(time.now() - 100);
    when.erase(when.find_last_not_of('0') + 1);
    journal.push_back(what + "@" + (when.back() == '.' ? when.substr(0, when.size() - 1) : when));
  }
};

using Journal = std::vector<std::string>;

}  // namespace Quor
