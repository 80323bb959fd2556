// The announcement of convergence: once for each time that BGP declares its table complete, whatever comes first.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

class Convergence : public testing::Test, private Zol::Listener<TunnelRibId> {
 protected:
  Convergence() { channelIs(&scene.convergence->tunnelRibConvergenceSeqno().channel()); }
  void onKey(const TunnelRibId&) override { ++announced; }
  std::uint64_t bgpSeqno() const { return scene.bgpLuTable->collectionControl().sequence(); }

  RibScene scene{1};
  unsigned announced = 0;
};

TEST_F(Convergence, announcesTheRibsOwnSequenceNumber) {
  for (unsigned i = 0; i < 10; ++i) {
    scene.bgpLu(i, tep(i));
  }
  scene.configure("te", {{Id::bgpLu, {}}});
  scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno());
  scene.settle();
  EXPECT_EQ(announced, 2U) << "each RIB for itself";
  const auto& seqnos = scene.convergence->tunnelRibConvergenceSeqno();
  EXPECT_EQ(seqnos.value(0), scene.rib()->collectionControl().sequence());
  EXPECT_EQ(seqnos.value(1), scene.rib("te")->collectionControl().sequence());
}

// One row is one order of events; behind each event stands how often the RIB has announced by then.
TEST_F(Convergence, everyOrderAnnouncesOnce) {
  struct Event {
    std::function<void()> happens;
    unsigned announced;
  };
  unsigned index = 0;
  const auto publish = [&](unsigned count) {
    return [this, &index, count] {
      for (unsigned i = 0; i < count; ++i) {
        ++index;
        scene.bgpLu(index, tep(index));
      }
    };
  };
  const auto declare = [&](std::uint64_t ahead) {
    return [this, ahead] { scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno() + ahead); };
  };
  const auto restart = [this] { scene.bgpLuConvergence->bgpLuConvergedIs(false, 0); };
  const auto unmount = [this] { scene.unmount(Id::bgpLu); };
  const auto mount = [this] { scene.mount(Id::bgpLu); };
  const auto reviewOne = [this] { scene.scheduler->runReadyTask(); };
  const auto settle = [this] { scene.settle(); };
  const auto wait = [this](double seconds) { return [this, seconds] { scene.advance(seconds); }; };
  const auto configure = [this] { scene.configure("system", {{Id::bgpLu, {}}, {Id::ldp, {}}}); };
  struct Row {
    int line;
    std::vector<Event> events;
  };
  const std::vector<Row> rows = {
      {__LINE__, {{declare(0), 1}, {wait(200), 1}}},
      // The table has caught up, the backlog is worked off later.
      {__LINE__, {{publish(10), 0}, {declare(0), 0}, {reviewOne, 0}, {settle, 1}, {wait(200), 1}}},
      {__LINE__, {{publish(1), 0}, {declare(1), 0}, {publish(1), 0}, {reviewOne, 0}, {settle, 1}, {wait(200), 1}}},
      // The backlog is empty, the table catches up later.
      {__LINE__, {{declare(2), 0}, {publish(1), 0}, {settle, 0}, {publish(1), 0}, {settle, 1}, {wait(200), 1}}},
      // The table never catches up.
      {__LINE__, {{declare(1), 0}, {wait(119.99), 0}, {wait(0.01), 1}, {publish(1), 1}, {settle, 1}, {wait(200), 1}}},
      // What BGP declares again moves no deadline.
      {__LINE__, {{declare(1), 0}, {wait(60), 0}, {declare(1), 0}, {wait(59.99), 0}, {wait(0.01), 1}, {wait(200), 1}}},
      // BGP restarts before and after the announcement.
      {__LINE__, {{declare(1), 0}, {restart, 0}, {wait(200), 0}, {publish(1), 0}, {settle, 0}, {declare(0), 1}}},
      {__LINE__, {{declare(1), 0}, {wait(60), 0}, {restart, 0}, {declare(1), 0}, {wait(119), 0}, {wait(1), 1}}},
      {__LINE__, {{declare(0), 1}, {restart, 1}, {publish(2), 1}, {declare(0), 1}, {settle, 2}, {wait(200), 2}}},
      // The table is not mounted, and is again.
      {__LINE__, {{unmount, 0}, {declare(0), 0}, {wait(200), 0}, {mount, 0}, {settle, 1}, {wait(200), 1}}},
      {__LINE__,
       {{publish(5), 0}, {settle, 0}, {unmount, 0}, {declare(0), 0}, {mount, 0}, {settle, 1}, {wait(200), 1}}},
      {__LINE__, {{declare(1), 0}, {unmount, 0}, {wait(200), 0}, {mount, 0}, {wait(119.99), 0}, {wait(0.01), 1}}},
      {__LINE__,
       {{declare(1), 0}, {unmount, 0}, {restart, 0}, {wait(200), 0}, {mount, 0}, {wait(200), 0}, {declare(0), 1}}},
      {__LINE__, {{unmount, 0}, {declare(0), 0}, {restart, 0}, {mount, 0}, {wait(200), 0}}},
      // The RIB is configured anew: while it waits, its deadline stays; afterwards it converges once more.
      {__LINE__, {{declare(1), 0}, {wait(100), 0}, {configure, 0}, {wait(19.99), 0}, {wait(0.01), 1}, {wait(200), 1}}},
      {__LINE__, {{publish(5), 0}, {declare(0), 0}, {configure, 0}, {reviewOne, 0}, {settle, 1}, {wait(200), 1}}},
      {__LINE__, {{publish(5), 0}, {settle, 0}, {declare(0), 1}, {configure, 1}, {settle, 2}, {wait(200), 2}}},
  };
  for (const Row& row : rows) {
    scene.bgpLuConvergence->bgpLuConvergedIs(false, 0);
    mount();
    configure();
    scene.settle();
    announced = 0;
    for (std::size_t i = 0; i < row.events.size(); ++i) {
      row.events[i].happens();
      EXPECT_EQ(announced, row.events[i].announced) << "row in line " << row.line << ", event " << i;
    }
  }
}

// Fails if a call of the clock that was meant for an earlier wait ends the present one.
TEST_F(Convergence, onlyTheDeadlineOfThisWaitEndsIt) {
  scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno() + 1);
  scene.advance(119);
  scene.builder()->handleConvergenceUpdateWaitMax();
  EXPECT_EQ(announced, 0U);
  scene.advance(1);
  EXPECT_EQ(announced, 1U);
}

// Fails if a wait that begins while a watcher handles the announcement is lost.
TEST_F(Convergence, aWatcherMayBeginTheNextWait) {
  struct Restarter : Zol::Listener<TunnelRibId> {
    explicit Restarter(RibScene& owner) : scene(owner) {
      channelIs(&scene.convergence->tunnelRibConvergenceSeqno().channel());
    }
    void onKey(const TunnelRibId&) override {
      channelIs(nullptr);
      scene.bgpLuConvergence->bgpLuConvergedIs(false, 0);
      scene.bgpLuConvergence->bgpLuConvergedIs(true, scene.bgpLuTable->collectionControl().sequence() + 1);
    }
    RibScene& scene;
  } restarter(scene);
  scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno());
  EXPECT_EQ(announced, 1U);
  scene.bgpLu(1, tep(1));
  scene.settle();
  EXPECT_EQ(announced, 2U);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
