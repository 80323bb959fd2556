#include <gtest/gtest.h>

#include "runtime/Quor/SimulatedLoop.h"
#include "tests/runtime/Quor/Scene.h"

namespace Quor {
namespace {

// Fails if settling lets a convergence deadline pass, or skips a watcher that comes due while tasks wait.
TEST(SimulatedLoop, settleMovesTimeForTasksAlone) {
  Scene scene;
  int left = 3;
  const auto task = scene.task(2, [&](ScriptedTask& self) {
    scene.note("drain");
    if (--left > 0) {
      self.scheduleTaskLowestDelay(1);
    }
  });
  const auto onTheWay = scene.watcher("on the way"), beyond = scene.watcher("beyond"), past = scene.watcher("past");
  task->scheduleTaskLowestDelay(1);
  onTheWay->timeMinIs(101.5);
  beyond->timeMinIs(103.5);
  past->timeMinIs(99);
  settle(*scene.scheduler, scene.time);
  EXPECT_EQ(scene.journal, (Journal{"past@0", "drain@1", "on the way@1.5", "drain@2", "drain@3"}));
  EXPECT_EQ(scene.time.now(), 103);
  settle(*scene.scheduler, scene.time);
  EXPECT_EQ(scene.time.now(), 103);
  EXPECT_EQ(beyond->timeMin(), 103.5);
}

// Fails if what comes due sees another time than its own, or the end is not exact on either side.
TEST(SimulatedLoop, advanceLetsExactlyTheTimePass) {
  Scene scene;
  const auto now = scene.task("now"), atEnd = scene.task("at end"), behind = scene.task("behind");
  const auto watcher = scene.watcher([&] {
    scene.note("watcher");
    atEnd->scheduleTaskLowestDelay(60);
  });
  now->scheduleTask();
  watcher->timeMinIs(160);
  behind->scheduleTaskLowestDelay(120.001);
  advance(*scene.scheduler, scene.time, 120);
  EXPECT_EQ(scene.journal, (Journal{"now@0", "watcher@60", "at end@120"}));
  EXPECT_EQ(scene.time.now(), 220);
  advance(*scene.scheduler, scene.time, 0);
  EXPECT_EQ(scene.journal.size(), 3U);
  advance(*scene.scheduler, scene.time, 0.01);
  EXPECT_EQ(scene.journal.back(), "behind@120.001");
}

}  // namespace
}  // namespace Quor
