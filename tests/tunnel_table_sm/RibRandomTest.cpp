// Random tables, configurations and accidents; after each settle every RIB is what the judge says.

#include <gtest/gtest.h>

#include <random>

#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

// One seed is one run: tunnels come, change and go at few endpoints, so that they meet; RIBs are configured anew,
// tables withdrawn and mounted again, the agent is restarted, drains are cut short anywhere.
class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : random_(seed), scene_(seed % 3 == 0 ? 0 : 1 + seed % 7) {}

  void run() {
    for (unsigned round = 0; round < 12; ++round) {
      for (unsigned i = 0; i < 60; ++i) {
        step();
      }
      scene_.settle();
      scene_.expectRibs("round " + std::to_string(round));
      expectIds();
      if (testing::Test::HasFailure()) {
        return;
      }
    }
    for (const Id id : ribTables) {
      scene_.mount(id);
    }
    scene_.settle();
    const std::uint64_t writes = scene_.writes();
    restart();
    scene_.settle();
    EXPECT_EQ(scene_.writes(), writes) << "restart over unchanged tables";
  }

 private:
  unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }
  bool oneIn(unsigned n) { return below(n) == 0; }

  void step() {
    const unsigned index = below(12);
    const Ipkit::IpGenPrefix endpoint = oneIn(25) ? Ipkit::IpGenPrefix() : tep(below(5));
    const unsigned pref = oneIn(2) ? asPublished : 50 + below(4);
    switch (below(16)) {
      case 0:
      case 1:
      case 2:
        return scene_.ldp(index, endpoint, pref, below(3));
      case 3:
      case 4:
        return scene_.sr(index, endpoint, pref, below(3));
      case 5:
        return scene_.staticTunnel(index, endpoint, pref);
      case 6:
        return scene_.nexthopGroup(index, endpoint, pref);
      case 7:
      case 8:
        return scene_.bgpLu(index, endpoint, oneIn(3) ? Contribution::notContributing : Contribution::contributing,
                            pref);
      case 9:
      case 10:
      case 11:
        static_cast<void>(scene_.del(stringValue(ribTypes[below(5)]) + "/" + std::to_string(index)));
        return;
      case 12:
        return toggleUnprogrammable(TunnelId(ribTypes[below(5)], index));
      case 13:
        return oneIn(2) ? runABit() : oneIn(2) ? configureAny() : reconfigureInPlace();
      case 14:
        return oneIn(6) ? restart() : runABit();
      default:
        return oneIn(6) ? toggleMount() : runABit();
    }
  }

  void runABit() {
    for (unsigned i = below(4); i > 0; --i) {
      scene_.scheduler->runReadyTask();
    }
  }
  void toggleUnprogrammable(const TunnelId& id) {
    if (scene_.unprogrammable->has(id)) {
      scene_.unprogrammable->entryDel(id);
    } else {
      scene_.unprogrammable->entryIs(id, true);
    }
  }
  // An agent describes all tables before it configures anything.
  void restart() {
    for (const Id id : ribTables) {
      scene_.mount(id);
    }
    scene_.restart();
  }
  std::optional<TunnelEntryPref> anyPref() {
    return oneIn(2) ? std::nullopt : std::optional(static_cast<TunnelEntryPref>(below(4)));
  }
  std::string anyName() { return oneIn(3) ? "system" : "custom" + std::to_string(below(4)); }
  // A custom RIB must not name a table that is not mounted: the agent sees to that.
  void configureAny() {
    const std::string name = anyName();
    if (name != "system" && oneIn(4)) {
      scene_.configDir->configDel(name);
      return;
    }
    if (name != "system" && oneIn(4)) {
      rename(name);
      return;
    }
    RibScene::TablePrefs tables;
    for (const Id id : ribTables) {
      if (scene_.isMounted(id) && !oneIn(3)) {
        tables[id] = name == "system" ? std::nullopt : anyPref();
      }
    }
    scene_.configure(name, tables);
  }
  // The same RIB under another name: it may get another number, and certainly another table.
  void rename(const std::string& name) {
    const auto config = scene_.configDir->config().value(name);
    if (!config) {
      return;
    }
    RibScene::TablePrefs tables;
    for (auto it = config->entry().begin(); it; ++it) {
      if (scene_.isMounted(it.key())) {
        tables[it.key()] = it.value()->prefMapping();
      }
    }
    scene_.configDir->configDel(name);
    runSometimes();
    scene_.configure("custom" + std::to_string(below(4)), tables);
  }
  // Tables join and leave, preferences change and are withdrawn, under the reactor that is there.
  void reconfigureInPlace() {
    const auto config = scene_.configDir->config().value(anyName());
    const Id id = ribTables[below(5)];
    if (!config || !scene_.isMounted(id)) {
      return;
    }
    const auto entry = config->entry().value(id);
    if (!entry) {
      config->entryIs(Zol::make<TunnelRibProtoEntry>(id, anyPref()));
    } else if (oneIn(2)) {
      config->entryDel(id);
    } else {
      entry->prefMappingIs(anyPref());
    }
  }
  void runSometimes() {
    if (oneIn(2)) {
      runABit();
    }
  }
  // Every configured RIB has a number of its own and its table, and nothing is left of those that went.
  void expectIds() const {
    std::set<TunnelRibId> ids;
    for (const auto& [name, id] : scene_.ribIds->tunnelRibNames()) {
      EXPECT_TRUE(scene_.configDir->config().has(name)) << name;
      EXPECT_EQ(id == 0, name == "system");
      ids.insert(id);
    }
    EXPECT_EQ(ids.size(), scene_.configDir->config().size());
    EXPECT_EQ(scene_.configDirSm->tunnelRibSm().size(), ids.size());
    for (TunnelRibId id = 1; id < 10; ++id) {
      const std::string path = tunnelRibStatusPathPrefix + std::to_string(id);
      EXPECT_EQ(scene_.entityManager->getEntity(path) != nullptr, ids.contains(id)) << path;
    }
  }
  void toggleMount() {
    const Id id = ribTables[below(5)];
    scene_.isMounted(id) ? scene_.unmount(id) : scene_.mount(id);
  }

  std::mt19937 random_;
  RibScene scene_;
};

TEST(RibRandom, everyRibIsWhatTheTablesSay) {
  for (unsigned seed = 1; seed <= 120 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun(seed).run();
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
