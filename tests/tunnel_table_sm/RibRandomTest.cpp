// Random tables, configurations and accidents. After each settle the judge agrees with every RIB. Between two settles,
// an endpoint that the tables always had never disappears from a RIB.

#include <gtest/gtest.h>

#include <random>

#include "tests/support/RibScene.h"
#include "tests/support/Seeds.h"

namespace Tunnel::TunnelTable {
namespace {

using Endpoints = std::set<Ipkit::IpGenPrefix>;
template <class Rib>
Endpoints endpointsOf(const Rib& rib) {
  Endpoints endpoints;
  for (const auto& [endpoint, entry] : rib) {
    endpoints.insert(endpoint);
  }
  return endpoints;
}

// Watches every change of a RIB. due: the endpoints that it must have now, by the tables.
class Watch : private Zol::Listener<Ipkit::IpGenPrefix> {
 public:
  explicit Watch(Zol::Ptr<TunnelRib> rib) : rib_(std::move(rib)) { channelIs(&rib_->entryChannel()); }

  // An endpoint that is missing now may have no space until the next call.
  void settled(const Endpoints& due) {
    always_ = due;
    std::erase_if(always_, [this](const Ipkit::IpGenPrefix& endpoint) { return !rib_->has(endpoint); });
    gone_.clear();
  }
  void dueIs(const Endpoints& due) {
    std::erase_if(always_, [&due](const Ipkit::IpGenPrefix& endpoint) { return !due.contains(endpoint); });
    for (const Ipkit::IpGenPrefix& endpoint : gone_) {
      EXPECT_FALSE(always_.contains(endpoint)) << endpoint << " disappeared from " << rib_->name();
    }
    gone_.clear();
  }

 private:
  void onKey(const Ipkit::IpGenPrefix& endpoint) override {
    if (!rib_->has(endpoint)) {
      gone_.insert(endpoint);
    }
  }

  const Zol::Ptr<TunnelRib> rib_;
  Endpoints always_, gone_;
};

// One seed is one run: tunnels come, change and go at few endpoints, so that they meet; RIBs are configured anew,
// tables withdrawn and mounted again, the agent is restarted, drains are cut short anywhere. In wide runs endpoints
// have more than 512 tunnels, and the RIBs have no space at times. In dark runs a table cannot be read at times.
class RandomRun {
 public:
  explicit RandomRun(unsigned seed)
      : random_(seed),
        isWide_(seed % 12 == 5),
        isDark_(seed % 3 == 1),
        scene_(seed % 3 == 0 ? 0 : (isWide_ ? 100 : 1) + seed % 7, isWide_ ? isFull_ : nullptr) {
    watches_.push_back(std::make_unique<Watch>(scene_.systemRib));
    for (const TunnelType type : ribTypes) {
      watches_.push_back(std::make_unique<Watch>(scene_.protocolRib(type)));
    }
  }

  void run() {
    for (unsigned round = 0; round < (isWide_ ? 6U : 12U); ++round) {
      settleWatches();
      for (unsigned i = 0; i < 60 && !testing::Test::HasFailure(); ++i) {
        step();
        checkWatches();
      }
      *isFull_ = false;
      scene_.advance(3);
      if (scene_.hidden.empty()) {
        scene_.settle();
      }
      scene_.expectRibs("round " + std::to_string(round));
      expectIds();
      if (testing::Test::HasFailure()) {
        return;
      }
    }
    scene_.hidden.clear();
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
  bool isHidden(TunnelType type) const {
    return std::any_of(scene_.hidden.begin(), scene_.hidden.end(),
                       [&](const auto& each) { return scene_.tableOf(each.first)->tunnelType() == type; });
  }

  // Calls f(watch, due endpoints) for each watched RIB.
  template <class F>
  void forEachWatch(F&& f) {
    const NaiveTunnels tunnels = scene_.tunnels();
    const auto config = scene_.configDir->config("system");
    const NaiveConfig naive = config ? naiveConfig(*config) : NaiveConfig();
    f(*watches_[0], endpointsOf(tunnels.rib(naive, scene_.unprogrammableIds())));
    for (std::size_t i = 0; i < std::size(ribTypes); ++i) {
      f(*watches_[1 + i], endpointsOf(tunnels.protocolRib(ribTypes[i], naive, scene_.unprogrammableIds())));
    }
  }
  void settleWatches() {
    forEachWatch([](Watch& watch, const Endpoints& due) { watch.settled(due); });
  }
  void checkWatches() {
    forEachWatch([](Watch& watch, const Endpoints& due) { watch.dueIs(due); });
  }

  void step() {
    const unsigned index = below(12);
    const Ipkit::IpGenPrefix endpoint = oneIn(25) ? tep(oneIn(2) ? "::/0" : "0.0.0.0/0") : tep(below(5));
    const unsigned pref = oneIn(2) ? asPublished : 50 + below(4);
    const TunnelType type = ribTypes[below(5)];
    switch (below(16)) {
      case 0:
      case 1:
      case 2:
        return isHidden(TunnelType::ldpTunnel) ? void() : scene_.ldp(index, endpoint, pref, below(3));
      case 3:
      case 4:
        return isHidden(TunnelType::srTunnel) ? void() : scene_.sr(index, endpoint, pref, below(3));
      case 5:
        return isHidden(TunnelType::staticTunnel) ? void() : scene_.staticTunnel(index, endpoint, pref);
      case 6:
        return isHidden(TunnelType::nexthopGroupTunnel) ? void() : scene_.nexthopGroup(index, endpoint, pref);
      case 7:
      case 8:
        return isHidden(TunnelType::bgpLuTunnel)
                   ? void()
                   : scene_.bgpLu(index, endpoint,
                                  oneIn(3) ? Contribution::notContributing : Contribution::contributing, pref);
      case 9:
      case 10:
      case 11:
        static_cast<void>(!isHidden(type) && scene_.del(stringValue(type) + "/" + std::to_string(index)));
        return;
      case 12:
        return isHidden(type) ? void() : toggleUnprogrammable(TunnelId(type, index));
      case 13:
        return !scene_.hidden.empty() || oneIn(2) ? runABit() : oneIn(2) ? configureAny() : reconfigureInPlace();
      case 14:
        return isWide_               ? publishMany(endpoint)
               : isDark_ && oneIn(2) ? toggleHidden()
               : oneIn(6)            ? restart()
                                     : runABit();
      default:
        return scene_.hidden.empty() && oneIn(6) ? toggleMount() : runABit();
    }
  }

  // Enough to fill an entry, and now and then the file system.
  void publishMany(const Ipkit::IpGenPrefix& endpoint) {
    *isFull_ = oneIn(2);
    const unsigned first = 100 * below(10);
    const bool isDeletion = oneIn(3);
    for (unsigned i = first; i < first + 100 + 100 * below(5); ++i) {
      if (isDeletion) {
        static_cast<void>(scene_.del("ldpTunnel/" + std::to_string(i)));
      } else {
        scene_.ldp(i, endpoint, asPublished, below(3));
      }
    }
  }
  // Changes of a table that were not reviewed before it became unreadable are unknown: none are left.
  void toggleHidden() {
    const Id id = ribTables[below(5)];
    if (!scene_.hidden.empty()) {
      scene_.hidden.clear();
    } else if (scene_.isMounted(id)) {
      scene_.settle();
      scene_.hide(id);
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
    scene_.hidden.clear();
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
    } else if (oneIn(3)) {
      config->entryDel(id);
    } else if (oneIn(2)) {
      config->entryIs(Zol::make<TunnelRibProtoEntry>(id, anyPref()));  // in place of the other one
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
  const bool isWide_, isDark_;
  const std::shared_ptr<bool> isFull_ = std::make_shared<bool>(false);
  RibScene scene_;
  std::vector<std::unique_ptr<Watch>> watches_;
};

TEST(RibRandom, everyRibIsWhatTheTablesSay) {
  Support::forEachSeed(120, [](unsigned seed) { RandomRun(seed).run(); });
}

}  // namespace
}  // namespace Tunnel::TunnelTable
