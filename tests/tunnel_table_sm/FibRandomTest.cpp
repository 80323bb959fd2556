// Seeded scenarios against a recomputation from scratch. A seed makes the script: writes and deletes over few ids, so
// that tunnels resolve through each other, in cycles too; slices cut short; restarts in the middle; a full file system;
// tables that cannot be read. Whatever the order, the FIB after each settling must be the one that follows from the
// tables, and no via that every state of the tables since the last settling asks for may be absent in between.
#include "tests/support/FibScript.h"
#include "tests/support/HiddenTable.h"
#include "tests/support/NaiveFib.h"
#include "tests/support/Seeds.h"
#include "tests/support/TightStore.h"

namespace Tunnel::TunnelTable {
namespace {

// Checks each change of a FIB entry against what all states of the tables ask for.
class Witness : public Zol::Listener<TunnelId> {
 public:
  explicit Witness(FibScene& scene) : scene_(scene) { channelIs(&scene.fib->entryChannel()); }

  // Before the first change after a settling.
  void begin() { due_ = NaiveFib(scene_).entries(); }
  // After each change of a table.
  void narrow() {
    std::map<TunnelId, NaiveFib::Entry> now = NaiveFib(scene_).entries();
    for (auto due = due_.begin(); due != due_.end();) {
      const auto found = now.find(due->first);
      if (found == now.end()) {
        due = due_.erase(due);
        continue;
      }
      std::erase_if(due->second.vias, [&](const auto& via) { return found->second.vias.count(via) == 0; });
      ++due;
    }
  }

  void onKey(const TunnelId& id) override {
    const auto due = due_.find(id);
    if (due == due_.end()) {
      return;
    }
    ++checked;
    ASSERT_TRUE(scene_.fib->entry().has(id)) << id << " was withdrawn";
    const auto texts = viaTexts(*scene_.fib, scene_.fib->entry().value(id).tunnelVia());
    const std::set<std::string> present(texts.begin(), texts.end());
    for (const std::string& via : due->second.vias) {
      EXPECT_TRUE(present.count(via) != 0) << id << " lost " << via << ", has " << listed(texts);
    }
  }

  unsigned checked = 0;

 private:
  FibScene& scene_;
  std::map<TunnelId, NaiveFib::Entry> due_;
};

void churn(FibScript& script, FibScene& scene) {
  if (script.below(4) == 0) {
    scene.runSlices(script.below(4));
  }
  if (script.below(25) == 0) {
    scene.restart();
  }
}

// Fails if anything but the tables decides what is in the FIB: order of reviews, yields, restarts, deferral, cycles.
TEST(FibRandom, equalsTheFibThatFollowsFromTheTables) {
  Support::forEachSeed(300, [](unsigned seed) {
    FibScene scene;
    FibScript script(scene, seed);
    scene.yieldEvery(script.below(4));
    for (unsigned round = 0; round < 12; ++round) {
      for (unsigned steps = script.below(20); steps > 0; --steps) {
        script.step();
        churn(script, scene);
      }
      scene.settle();
      ASSERT_EQ(scene.document(), NaiveFib(scene).document()) << "round " << round;
    }
  });
}

// Fails if an entry loses a via, or disappears, only because something that it resolves through is queued, marked,
// being restarted or on a cycle that a queued change opens.
TEST(FibRandom, nothingIsWithdrawnThatStaysDue) {
  unsigned checked = 0;
  const bool isUsual = Support::forEachSeed(90, [&](unsigned seed) {
    FibScene scene;
    FibScript script(scene, seed, 2 + seed % 4);
    const unsigned ring = seed % 4 != 0 ? 0 : 2 + script.below(seed % 20 == 0 ? 49 : 11);
    scene.yieldEvery(1 + script.below(3));
    Witness witness(scene);
    for (unsigned round = 0; round < 6; ++round) {
      witness.begin();
      for (unsigned steps = script.below(ring != 0 ? ring : 24); steps > 0; --steps) {
        ring != 0 && script.below(4) != 0 ? script.ringStep(ring) : script.step();
        witness.narrow();
        churn(script, scene);
      }
      scene.settle();
      ASSERT_EQ(scene.document(), NaiveFib(scene).document()) << "round " << round;
    }
    checked += witness.checked;
  });
  EXPECT_TRUE(!isUsual || checked > 300) << checked;
}

// Fails if a full file system or an unreadable table leaves a trace after it is over.
TEST(FibRandom, recoversFromFullFileSystemsAndHiddenTables) {
  unsigned heldUp = 0;
  const bool isUsual = Support::forEachSeed(60, [&](unsigned seed) {
    const auto isFull = std::make_shared<bool>(false);
    FibScene scene(Zol::make<TunnelFib>("fib", Zol::make<Memtab::TightStore>(TunnelFib::layout(), isFull)));
    FibScript script(scene, seed);
    scene.yieldEvery(script.below(4));
    for (unsigned round = 0; round < 6; ++round) {
      *isFull = script.below(2) == 0;
      const bool hides = script.below(2) == 0;
      {
        std::optional<Support::HiddenTable> hidden;
        if (hides) {
          hidden.emplace(scene.table<LdpTunnelTableEntry>());
        }
        for (unsigned steps = script.below(20); steps > 0; --steps) {
          script.below(3) == 0 && !hides ? script.wideStep()
                                         : script.step(hides ? TunnelType::ldpTunnel : TunnelType{});
          churn(script, scene);
        }
        Quor::advance(*scene.scheduler, scene.time, script.below(3));
        heldUp += scene.sm->heldUp() != 0;
      }
      *isFull = false;
      scene.settle();
      ASSERT_EQ(scene.document(), NaiveFib(scene).document()) << "round " << round;
    }
  });
  EXPECT_TRUE(!isUsual || heldUp > 10) << heldUp;
}

// Fails if a start over unchanged inputs takes anything out of service, even for a moment.
TEST(FibRandom, restartWritesNothing) {
  Support::forEachSeed(200, [](unsigned seed) {
    FibScene scene;
    FibScript script(scene, seed);
    for (unsigned steps = 0; steps < 60; ++steps) {
      script.step();
    }
    const unsigned ring = script.below(51);
    for (unsigned steps = 0; steps < 2 * ring; ++steps) {
      script.ringStep(ring);
    }
    scene.settle();
    const std::uint64_t writes = scene.writes();
    unsigned changesOfSet = 0;
    struct Counter : Zol::Listener<TunnelId> {
      explicit Counter(unsigned& count, Zol::Channel<TunnelId>& channel) : count_(count) { channelIs(&channel); }
      void onKey(const TunnelId&) override { ++count_; }
      unsigned& count_;
    } counter(changesOfSet, scene.unprogrammable->entryChannel());
    scene.yieldEvery(script.below(3));
    scene.settle();
    EXPECT_EQ(scene.writes(), writes);
    EXPECT_EQ(changesOfSet, 0U);
  });
}

}  // namespace
}  // namespace Tunnel::TunnelTable
