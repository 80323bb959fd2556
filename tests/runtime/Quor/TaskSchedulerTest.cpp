#include <gtest/gtest.h>

#include "runtime/Quor/OwnedTask.h"
#include "runtime/Quor/TaskScheduler.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tests/runtime/Quor/Scene.h"

namespace Quor {
namespace {

// Fails if larger numbers become more urgent, or equal ones are not served in the order in which they became ready.
TEST(TaskScheduler, urgentFirstThenFirstComeFirstServed) {
  Scene scene;
  const auto c = scene.task("c", 2), a = scene.task("a", 2), urgent = scene.task("urgent", 0), b = scene.task("b", 2);
  for (const auto& task : {&a, &b, &c, &urgent}) {
    (*task)->scheduleTask();
  }
  a->scheduleTask();  // keeps its turn
  c->unscheduleTask();
  scene.scheduler->runDue();
  EXPECT_EQ(scene.journal, (Journal{"urgent@0", "a@0", "b@0"}));
}

// Fails if a longer delay moves a shorter one, or if scheduleTask() leaves a waiting task waiting.
TEST(TaskScheduler, shorterDelayWins) {
  struct Case {
    int line;
    std::vector<double> delays;  // a negative one stands for scheduleTask()
    Journal runs;
  };
  for (const Case& c : {Case{__LINE__, {3, 5}, {"t@3"}}, Case{__LINE__, {5, 3}, {"t@3"}},
                        Case{__LINE__, {5, -1}, {"t@0"}}, Case{__LINE__, {-1, 5}, {"t@0"}},
                        Case{__LINE__, {5, 0}, {"t@0"}}, Case{__LINE__, {0.25, 0.5, 0.125}, {"t@0.125"}}}) {
    Scene scene;
    const auto task = scene.task("t");
    for (const double delay : c.delays) {
      delay < 0 ? task->scheduleTask() : task->scheduleTaskLowestDelay(delay);
    }
    EXPECT_TRUE(task->taskScheduled());
    settle(*scene.scheduler, scene.time);
    EXPECT_EQ(scene.journal, c.runs) << "case in line " << c.line;
    EXPECT_FALSE(task->taskScheduled());
  }
}

// Fails if a task still counts as scheduled in its run, or forgets that the run has scheduled it again.
TEST(TaskScheduler, taskIsIdleInsideItsRunUntilScheduledAgain) {
  Scene scene;
  int runs = 0;
  const auto task = scene.task(2, [&](ScriptedTask& self) {
    EXPECT_FALSE(self.taskScheduled());
    if (++runs == 1) {
      self.scheduleTaskLowestDelay(1);
      EXPECT_TRUE(self.taskScheduled());
    } else {
      self.scheduleTask();
      self.unscheduleTask();
    }
  });
  task->scheduleTask();
  settle(*scene.scheduler, scene.time);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(scene.time.now(), 101);
}

TEST(TaskScheduler, runMayDestroyItselfOthersAndTheLastReferenceToTheScheduler) {
  Scene scene;
  std::unique_ptr<ScriptedTask> victim = scene.task("ready victim");
  std::unique_ptr<ScriptedTask> waiting = scene.task("waiting victim");
  std::unique_ptr<ScriptedTask> self;
  self = scene.task(1, [&](ScriptedTask&) {
    self->scheduleTask();
    victim.reset();
    waiting.reset();
    self.reset();
    scene.scheduler = nullptr;
    scene.journal.push_back("done");
  });
  self->scheduleTask();
  victim->scheduleTask();
  waiting->scheduleTaskLowestDelay(1);
  scene.scheduler->runDue();
  EXPECT_EQ(scene.journal, Journal{"done"});
}

// Fails if a task runs before a timer or a watcher whose time came earlier, or the timer before the watcher of the same
// time.
TEST(TaskScheduler, whatIsDueIsServedInTheOrderOfTimeBeforeTheNextTask) {
  Scene scene;
  const auto late = scene.task("late"), early = scene.task("early"), filed = scene.task("filed");
  const auto watcher = scene.watcher([&] {
    scene.note("watcher");
    filed->scheduleTask();
  });
  late->scheduleTaskLowestDelay(3);
  early->scheduleTaskLowestDelay(1);
  watcher->timeMinIs(103);
  scene.time.nowIs(110);
  scene.scheduler->runDue();
  EXPECT_EQ(scene.journal, (Journal{"watcher@10", "early@10", "filed@10", "late@10"}));
}

TEST(TaskScheduler, deadlines) {
  Scene scene;
  EXPECT_EQ(scene.scheduler->nextDeadline(), std::nullopt);
  const auto task = scene.task("t");
  const auto watcher = scene.watcher("w");
  watcher->timeMinIs(101);
  EXPECT_FALSE(scene.scheduler->hasTasks());
  EXPECT_EQ(scene.scheduler->nextTaskDeadline(), std::nullopt);
  EXPECT_EQ(scene.scheduler->nextDeadline(), 101);
  task->scheduleTaskLowestDelay(2);
  EXPECT_TRUE(scene.scheduler->hasTasks());
  EXPECT_EQ(scene.scheduler->nextTaskDeadline(), 102);
  EXPECT_EQ(scene.scheduler->nextDeadline(), 101);
  task->scheduleTask();
  EXPECT_EQ(scene.scheduler->nextTaskDeadline(), 100);
  EXPECT_EQ(scene.scheduler->nextDeadline(), 100);
}

// A backlog of units, drained as a reactor does it.
struct Backlog {
  explicit Backlog(const Zol::Ptr<TaskScheduler>& scheduler, unsigned units)
      : pending(units), task(*this, &Backlog::drain, scheduler, 2, "backlog") {}
  void drain() {
    bool yield = false;
    while (pending > 0 && !yield) {
      --pending;
      task.taskWorkCountInc(1);
      yield = task.taskShouldYield();
    }
    task.taskWorkPendingIs(pending);
    runs.push_back(task.taskWorkCount());
    if (pending > 0) {
      task.scheduleTaskLowestDelay(0.01);
    }
  }
  std::size_t pending;
  std::vector<std::size_t> runs;
  OwnedTask<Backlog> task;
};

TEST(TaskScheduler, backlogIsDrainedInSlices) {
  SimulatedTimeSource time;
  UnitSlicePolicy policy(4);
  const auto scheduler = Zol::make<TaskScheduler>(time, policy);
  Backlog backlog(scheduler, 10);
  backlog.task.scheduleTask();
  scheduler->runDue();
  EXPECT_EQ(backlog.task.taskWorkPending(), 6U);
  settle(*scheduler, time);
  EXPECT_EQ(backlog.runs, (std::vector<std::size_t>{4, 4, 2}));
  EXPECT_DOUBLE_EQ(time.now(), 0.02);
  EXPECT_EQ(scheduler->counters().slices, 3U);
  EXPECT_EQ(scheduler->counters().units, 10U);

  Backlog direct(scheduler, 10);  // called outside a slice there is nobody to yield to
  direct.drain();
  EXPECT_EQ(direct.runs, std::vector<std::size_t>{10});
}

TEST(TaskScheduler, timeSliceEndsWithItsTime) {
  SimulatedTimeSource time(5);
  TimeSlicePolicy policy(time, 0.5);
  const auto scheduler = Zol::make<TaskScheduler>(time, policy);
  std::vector<bool> answers;
  ScriptedTask task(scheduler, 2, [&](ScriptedTask& self) {
    for (const double at : {0.0, 0.25, 0.5}) {
      time.nowIs(5 + at);
      answers.push_back(self.taskShouldYield());
    }
  });
  task.scheduleTask();
  scheduler->runDue();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true}));
  EXPECT_EQ(scheduler->counters().longestSlice, 0.5);
}

TEST(TaskScheduler, misuseIsRefused) {
  Scene scene;
  const auto task = scene.task(2, [&](ScriptedTask& self) {
    self.scheduleTask();
    scene.scheduler->runReadyTask();
  });
  const Zol::AssertionTrap trap;
  task->scheduleTask();
  EXPECT_THROW(scene.scheduler->runReadyTask(), Zol::AssertionException) << "a task inside a task";
  EXPECT_THROW(scene.scheduler->runReadyTask(), Zol::AssertionException) << "the scheduler recovers after an exception";
  EXPECT_THROW(task->scheduleTaskLowestDelay(-1), Zol::AssertionException);
  EXPECT_THROW(task->scheduleTaskLowestDelay(Clock::never), Zol::AssertionException);
  EXPECT_THROW(scene.time.nowIs(99), Zol::AssertionException);
}

}  // namespace
}  // namespace Quor
