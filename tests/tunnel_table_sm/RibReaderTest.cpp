// What a reader of a RIB's table sees while the RIB is configured anew. It looks at every write and after every unit of
// work, and may never miss what stands before and after.

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "tests/support/RibScene.h"
#include "tests/support/Seeds.h"

namespace Tunnel::TunnelTable {
namespace {

// Knows the RIBs that the configurations between two settles stand for. An endpoint that all of them have is there at
// every look, an entry that is the same in all of them never changes, and no tunnel is shown that none of them admits.
class Reader : private Zol::Listener<Ipkit::IpGenPrefix> {
 public:
  Reader(const RibScene& scene, const std::string& name) : scene_(scene), name_(name), rib_(scene.rib(name)) {
    stateIs();
    channelIs(&rib_->entryChannel());
  }

  // The tables and the configuration as they are now are one more state on the way.
  void stateIs() {
    const NaiveTunnels tunnels = scene_.tunnels();
    const NaiveConfig config = naiveConfig(*scene_.configDir->config(name_));
    const NaiveRib rib = tunnels.rib(config, scene_.unprogrammableIds());
    for (const TunnelType type : ribTypes) {
      for (const auto& [endpoint, ids] : tunnels.protocolRib(type, config, scene_.unprogrammableIds())) {
        admitted_[endpoint].insert(ids.begin(), ids.end());
      }
    }
    if (!standing_) {
      standing_ = rib;
      unchanged_ = rib;
    }
    std::erase_if(*standing_, [&rib](const auto& each) { return !rib.contains(each.first); });
    std::erase_if(unchanged_, [&rib](const auto& each) {
      const auto at = rib.find(each.first);
      return at == rib.end() || !(at->second == each.second);
    });
  }
  // One look, and what was seen at every write since the last one: a configuration writes before it is known as a
  // state.
  void look() {
    seen_.push_back(contentsOf(*rib_));
    for (const NaiveRib& shown : seen_) {
      for (const auto& [endpoint, entry] : *standing_) {
        EXPECT_TRUE(shown.contains(endpoint)) << endpoint << " has vanished";
      }
      for (const auto& [endpoint, entry] : shown) {
        lookAt(endpoint, entry);
      }
    }
    seen_.clear();
    for (const Ipkit::IpGenPrefix& endpoint : written_) {
      EXPECT_FALSE(unchanged_.contains(endpoint)) << endpoint << " was written for nothing";
    }
  }

 private:
  void onKey(const Ipkit::IpGenPrefix& endpoint) override {
    seen_.push_back(contentsOf(*rib_));
    written_.insert(endpoint);
  }
  void lookAt(const Ipkit::IpGenPrefix& endpoint, const NaiveRibEntry& entry) {
    const auto same = unchanged_.find(endpoint);
    EXPECT_TRUE(same == unchanged_.end() || same->second == entry) << endpoint << " shows " << entry;
    for (const TunnelId& id : entry.tunnels) {
      EXPECT_TRUE(admitted_[endpoint].contains(id)) << endpoint << " shows " << id;
    }
  }

  const RibScene& scene_;
  const std::string name_;
  const Zol::Ptr<TunnelRib> rib_;
  std::optional<NaiveRib> standing_;
  NaiveRib unchanged_;
  std::map<Ipkit::IpGenPrefix, std::set<TunnelId>> admitted_;
  std::vector<NaiveRib> seen_;
  std::set<Ipkit::IpGenPrefix> written_;
};

// Endpoints with every mixture of LDP, SR and static tunnels, one to three of each.
class RibReader : public testing::Test {
 protected:
  RibReader() { publish(); }
  void publish() {
    for (unsigned i = 1; i <= 60; ++i) {
      scene.del("ldpTunnel/" + std::to_string(i));
    }
    unsigned index = 0;
    for (unsigned mixture = 1; mixture < 64; ++mixture) {
      for (unsigned i = 0; i < mixture % 4; ++i) {
        scene.ldp(++index, tep(mixture), asPublished, i);
      }
      for (unsigned i = 0; i < mixture / 4 % 4; ++i) {
        scene.sr(++index, tep(mixture), asPublished, i);
      }
      for (unsigned i = 0; i < mixture / 16; ++i) {
        scene.staticTunnel(++index, tep(mixture));
      }
    }
  }
  // Units of work, each with a look behind it.
  void run(Reader& reader, unsigned units) {
    for (; units > 0 && scene.scheduler->hasTasks() && !HasFailure(); --units) {
      scene.advance(0.01);
      reader.look();
    }
  }
  void changeAtRandom(unsigned seed);
  Zol::Ptr<TunnelRibConfig> config() const { return scene.configDir->config().value("te"); }

  static constexpr Id mixedTables[] = {Id::ldp, Id::sr, Id::staticTable};
  RibScene scene{1};
};

TEST_F(RibReader, neverMissesWhatStandsBeforeAndAfter) {
  using Step = std::function<void()>;
  const auto configure = [this](const RibScene::TablePrefs& tables) {
    return [this, tables] { scene.configure("te", tables); };
  };
  const auto withdraw = [this](Id id) { return [this, id] { scene.unmount(id); }; };
  const auto mount = [this](Id id) { return [this, id] { scene.mount(id); }; };
  const auto take = [this](Id id) { return [this, id] { config()->entryIs(Zol::make<TunnelRibProtoEntry>(id)); }; };
  const auto leave = [this](Id id) { return [this, id] { config()->entryDel(id); }; };
  const auto prefer = [this](Id id, std::optional<TunnelEntryPref> pref) {
    return [this, id, pref] { config()->entry().value(id)->prefMappingIs(pref); };
  };
  struct Case {
    int line;
    std::vector<Step> steps;
  };
  const RibScene::TablePrefs start = {{Id::ldp, 10}, {Id::sr, 20}};
  const std::vector<Case> cases = {
      {__LINE__, {configure({{Id::ldp, 30}, {Id::sr, 20}})}},
      {__LINE__, {configure({{Id::ldp, 30}, {Id::sr, {}}})}},
      {__LINE__, {configure({{Id::sr, 20}})}},
      {__LINE__, {configure({{Id::staticTable, 5}})}},
      {__LINE__, {configure({{Id::ldp, 10}, {Id::sr, 20}, {Id::staticTable, 5}})}},
      {__LINE__, {configure({{Id::sr, 5}}), configure({{Id::ldp, 5}}), configure(start)}},
      {__LINE__, {configure(start), withdraw(Id::ldp)}},
      {__LINE__, {configure({{Id::sr, 1}, {Id::staticTable, 2}}), withdraw(Id::sr), mount(Id::sr)}},
      {__LINE__, {prefer(Id::ldp, 30)}},
      {__LINE__, {prefer(Id::ldp, {}), prefer(Id::sr, {})}},
      {__LINE__, {leave(Id::ldp)}},
      {__LINE__, {leave(Id::ldp), take(Id::staticTable)}},
      {__LINE__, {take(Id::staticTable), leave(Id::ldp), leave(Id::sr)}},
      {__LINE__, {withdraw(Id::ldp)}},
      {__LINE__, {withdraw(Id::ldp), take(Id::staticTable)}},
      {__LINE__, {withdraw(Id::ldp), mount(Id::ldp)}},
  };
  for (const Case& c : cases) {
    for (const unsigned unitsBetween : {0U, 1U, 40U, 1000U}) {
      SCOPED_TRACE("case in line " + std::to_string(c.line) + ", " + std::to_string(unitsBetween) + " units between");
      scene.mount(Id::ldp);
      scene.configure("te", start);
      scene.settle();
      Reader reader(scene, "te");
      for (const Step& step : c.steps) {
        step();
        reader.stateIs();
        reader.look();
        run(reader, unitsBetween);
      }
      run(reader, 10000);
      scene.expectRibs();
      ASSERT_FALSE(HasFailure());
    }
  }
}

// One to four changes of any kind, with any number of units of work between them.
void RibReader::changeAtRandom(unsigned seed) {
  std::mt19937 random(seed);
  const auto below = [&random](unsigned n) { return static_cast<unsigned>(random() % n); };
  const auto anyPref = [&below] {
    return below(3) == 0 ? std::nullopt : std::optional(static_cast<TunnelEntryPref>(below(4)));
  };
  const auto configureAny = [&] {
    RibScene::TablePrefs tables;
    for (const Id id : mixedTables) {
      if (scene.isMounted(id) && below(3) != 0) {
        tables[id] = anyPref();
      }
    }
    scene.configure("te", tables);
  };
  const auto moveTunnels = [&](unsigned count) {
    for (; count > 0; --count) {
      const unsigned index = 1 + below(60);
      below(3) == 0 ? void(scene.del("ldpTunnel/" + std::to_string(index))) : scene.ldp(index, tep(1 + below(63)));
    }
  };
  for (const Id id : mixedTables) {
    scene.mount(id);
  }
  publish();
  configureAny();
  scene.settle();
  for (unsigned round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Reader reader(scene, "te");
    for (unsigned changes = 1 + below(4); changes > 0; --changes) {
      const Id id = mixedTables[below(3)];
      const auto entry = config()->entry().value(id);
      if (below(3) == 0) {
        moveTunnels(below(20));
      } else if (below(3) == 0) {
        configureAny();
      } else if (below(3) == 0) {
        scene.isMounted(id) ? scene.unmount(id) : scene.mount(id);
      } else if (!entry) {
        config()->entryIs(Zol::make<TunnelRibProtoEntry>(id, anyPref()));
      } else if (below(2) == 0) {
        config()->entryDel(id);
      } else if (scene.isMounted(id)) {
        entry->prefMappingIs(anyPref());
      }
      reader.stateIs();
      reader.look();
      run(reader, below(3) * below(60));
    }
    run(reader, 10000);
    scene.expectRibs();
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(RibReader, neverMissesWhatStandsThroughRandomChanges) {
  Support::forEachSeed(2, [this](unsigned seed) { changeAtRandom(seed); });
}

}  // namespace
}  // namespace Tunnel::TunnelTable
