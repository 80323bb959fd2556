#include <gtest/gtest.h>

#include <limits>

#include "runtime/Quor/Clock.h"
#include "tests/runtime/Quor/Scene.h"

namespace Quor {
namespace {

// Fails if a watcher is called from inside timeMinIs(), called early, called twice, or still armed in its handler.
TEST(Clock, watcherIsCalledOnceWhenItsTimeHasCome) {
  Scene scene;
  std::unique_ptr<ScriptedWatcher> watcher;
  watcher = scene.watcher([&] {
    EXPECT_EQ(watcher->timeMin(), Clock::never);
    scene.note("w");
  });
  watcher->timeMinIs(99);  // past
  EXPECT_TRUE(scene.journal.empty());
  scene.scheduler->runDue();
  watcher->timeMinIs(103);
  watcher->timeMinIs(102);  // replaces
  EXPECT_EQ(watcher->timeMin(), 102);
  advance(*scene.scheduler, scene.time, 1.875);
  EXPECT_EQ(scene.journal, Journal{"w@0"});
  advance(*scene.scheduler, scene.time, 20);
  EXPECT_EQ(scene.journal, (Journal{"w@0", "w@2"}));
}

TEST(Clock, orderIsTimeThenArming) {
  Scene scene;
  const auto a = scene.watcher("a"), b = scene.watcher("b"), c = scene.watcher("c");
  a->timeMinIs(105);
  b->timeMinIs(105);
  c->timeMinIs(104);
  a->timeMinIs(105);  // armed last now
  scene.time.nowIs(106);
  scene.scheduler->runDue();
  EXPECT_EQ(scene.journal, (Journal{"c@6", "b@6", "a@6"}));
}

TEST(Clock, handlersMayDestroyDisarmAndArm) {
  Scene scene;
  std::unique_ptr<ScriptedWatcher> self, victim = scene.watcher("destroyed"), disarmed = scene.watcher("disarmed");
  const auto armed = scene.watcher("armed");
  self = scene.watcher([&] {
    victim.reset();
    disarmed->timeMinIs(Clock::never);
    armed->timeMinIs(100.5);
    self.reset();
  });
  self->timeMinIs(101);
  victim->timeMinIs(101);
  disarmed->timeMinIs(102);
  scene.time.nowIs(103);
  scene.scheduler->runDue();
  EXPECT_EQ(scene.journal, Journal{"armed@3"});
}

// Fails if a handler that always finds itself due again keeps tasks from running.
TEST(Clock, watcherThatIsAlwaysDueLeavesTasksTheirTurn) {
  Scene scene;
  int calls = 0;
  std::unique_ptr<ScriptedWatcher> watcher;
  watcher = scene.watcher([&] {
    ++calls;
    watcher->timeMinIs(0);
  });
  watcher->timeMinIs(0);
  const auto task = scene.task("t");
  task->scheduleTask();
  EXPECT_TRUE(scene.scheduler->runReadyTask());
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(scene.journal, Journal{"t@0"});
}

TEST(Clock, watcherMayOutliveTheScheduler) {
  Scene scene;
  const auto watcher = scene.watcher("w");
  watcher->timeMinIs(101);
  scene.scheduler = nullptr;
  EXPECT_EQ(watcher->clock()->now(), 100);
  const Zol::AssertionTrap trap;
  EXPECT_THROW(watcher->timeMinIs(std::numeric_limits<double>::quiet_NaN()), Zol::AssertionException);
}

}  // namespace
}  // namespace Quor
