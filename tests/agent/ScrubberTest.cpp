// Bytes of RIBs and FIB are damaged under a running agent. Two passes later the state is as it was, every finding names
// its table, and no other entry has been written.
#include <gtest/gtest.h>

#include <random>

#include "agent/ScrubbedTables.h"
#include "tests/agent/Scene.h"
#include "tests/support/Seeds.h"
#include "tunnel/EncapKind.h"

namespace Agent {
namespace {

class ScrubbedScene {
 public:
  ScrubbedScene() {
    std::string lines = R"({"rib": "blue", "tables": {"ldp": {"pref": 7}, "sr": {}}})"
                        "\n";
    const auto put = [&lines](const char* table, int index, int tep, const std::string& vias) {
      lines += R"({"table": ")" + std::string(table) + R"(", "put": {"index": )" + std::to_string(index) +
               R"(, "tep": "10.0.)" + std::to_string(tep) + R"(.0/24", "vias": [)" + vias + "]}}\n";
    };
    const auto direct = [](int label) {
      return R"({"nextHop": "192.0.2.1", "intf": "if1", "labels": [)" + std::to_string(label) + "]}";
    };
    for (int i = 0; i < 120; ++i) {
      put("ldp", i, i % 60, direct(1000 + i % 90) + "," + direct(5000 + i));
      put("sr", i, i % 50, R"({"intf": "tunnel:ldpTunnel/)" + std::to_string(i % 70) + R"(", "labels": [17]})");
      put("static", i, i, R"({"intf": "tunnel:srTunnel/)" + std::to_string(i + 1) + R"(", "labels": [18]})");
    }
    EXPECT_EQ(scene_.apply(lines), "");
    document_ = scene_.settled();
    scrubber_.emplace(
        host().scheduler(), [this] { return scrubbedTables(host(), nullptr); }, [this] { return !host().isDrained(); },
        [this](const std::string& line) { lines_.push_back(line); });
    counts_ = counts();
  }

  AgentHost& host() { return scene_.host(); }
  const Model::TableScrubber::Counters& counters() const { return scrubber_->counters(); }
  const std::vector<std::string>& lines() const { return lines_; }
  void passes() { ASSERT_EQ(scene_.apply(R"({"advance": 12})"), ""); }
  std::uint64_t sequences() {
    std::uint64_t sum = 0;
    for (const auto& table : scrubbedTables(host(), nullptr)) {
      sum += table.store->store().sequence();
    }
    return sum;
  }
  void expectAsBefore() {
    EXPECT_TRUE(stateDocument(host()) == document_) << OrderedJson::diff(document_, stateDocument(host())).dump(1);
    EXPECT_TRUE(counts() == counts_);
    EXPECT_EQ(scrubber_->unrepaired(), 0U);
    EXPECT_EQ(scene_.apply(R"({"advance": 0})"), "");
    EXPECT_TRUE(host().isDrained());
  }

 private:
  // References of all encapsulations, as the writer counts them.
  std::map<Tunnel::TunnelFib::EncapId, std::uint32_t> counts() {
    std::map<Tunnel::TunnelFib::EncapId, std::uint32_t> counts;
    Model::forEachEncapKind([&](auto kind) {
      Model::walkSafely(kind.encaps(*host().fib()), [&](const auto& hint) {
        counts[hint.key()] = host().fibSm()->tunnelFibWriter()->encapIdRefCount(hint.key());
      });
    });
    return counts;
  }

  Scene scene_;
  OrderedJson document_;
  std::map<Tunnel::TunnelFib::EncapId, std::uint32_t> counts_;
  std::vector<std::string> lines_;
  std::optional<Model::TableScrubber> scrubber_;
};

void damage(const Memtab::Store& store, std::size_t at, std::size_t length, unsigned mask) {
  for (std::size_t i = at; i < std::min(at + length, store.allocator().end()); ++i) {
    const_cast<std::byte*>(store.view().base)[i] ^= std::byte(mask);
  }
}

// Fails if damage is not found, not repaired, or repaired by writing other entries too.
TEST(Scrubber, randomBytes) {
  ScrubbedScene scene;
  scene.passes();
  ASSERT_EQ(scene.counters().found, 0U) << scene.lines().front();
  ASSERT_GE(scene.counters().passes, 1U);
  std::uint64_t foundBefore = 0;
  Support::forEachSeed(120, [&](unsigned seed) {
    std::mt19937 random(seed);
    const auto tables = scrubbedTables(scene.host(), nullptr);
    const auto& table = tables[random() % 3 == 0 ? 0 : random() % tables.size()];
    const Memtab::Store& store = table.store->store();
    auto length = static_cast<std::size_t>(seed % 3 == 0 ? 1 + random() % 40 : 1);
    std::size_t at = random() % 8 == 0 ? random() % 280 : random() % store.allocator().end();
    if (table.name == "fib" && length > 1) {  // not an entry and its encapsulation: both would be lost
      at = at / Memtab::unitBytes * Memtab::unitBytes;
      length = std::min(length, Memtab::unitBytes);
    }
    SCOPED_TRACE(table.name + " at " + std::to_string(at) + ", " + std::to_string(length) + " bytes");
    const std::uint64_t sequences = scene.sequences();
    const std::size_t lines = scene.lines().size();
    damage(store, at, length, static_cast<unsigned>(1 + random() % 255));
    scene.passes();
    scene.expectAsBefore();
    EXPECT_LE(scene.sequences() - sequences, 1 + length);  // entries written
    EXPECT_EQ(scene.lines().size() != lines, scene.counters().found != foundBefore);
    for (std::size_t i = lines; i < scene.lines().size(); ++i) {
      EXPECT_NE(scene.lines()[i].find("table " + table.name + " ("), std::string::npos) << scene.lines()[i];
    }
    foundBefore = scene.counters().found;
  });
  EXPECT_GT(foundBefore, 20U);
}

// Fails if a damaged record, or a sound one that is wrong, is not named or not corrected.
TEST(Scrubber, recordsByName) {
  ScrubbedScene scene;
  const Zol::Ptr<Tunnel::TunnelFib::TunnelFib> fib = scene.host().fib();
  const auto flip = [&](const auto& map, const auto& key) {
    const auto bytes = map.lookup(key);  // a copy; its place is found by its content
    ASSERT_TRUE(bytes);
    const Memtab::Store& store = map.sharedStore()->store();
    auto* const begin = const_cast<std::byte*>(store.view().base);
    auto* const found = std::search(begin, begin + store.allocator().end(), bytes->begin(), bytes->end());
    *found ^= std::byte(4);
  };
  const Model::TunnelId tunnel = Model::TunnelId::fromText("ldpTunnel/5");
  const auto tep = Ipkit::IpGenPrefix::fromText("10.0.5.0/24");
  const auto rib = scene.host().rib(0);
  const Tunnel::TunnelFib::TunnelFibEntry entry = fib->entry().value(tunnel);
  const Model::TunnelId other = Model::TunnelId::fromText("ldpTunnel/6");
  const Tunnel::TunnelFib::EncapId encap = fib->entry().value(other).tunnelVia(0).encapId();
  flip(fib->entry(), tunnel);
  flip(fib->labelStackEncap(), encap);
  Model::TunnelRibEntry stale = rib->value(tep);
  stale.delTunnelId(stale.tunnelId(0));
  rib->entryIs(stale);
  scene.passes();
  scene.expectAsBefore();
  EXPECT_EQ(fib->entry().value(tunnel), entry);
  std::string all;
  for (const std::string& line : scene.lines()) {
    all += line + "\n";
  }
  const std::vector<std::string> expectations = {"table fib (memory of this process) is damaged: ldpTunnel/5: ",
                                                 "encapsulation " + Zol::stringOf(encap) + " of ", "10.0.5.0/24"};
  for (const std::string& expected : expectations) {
    EXPECT_NE(all.find(expected), std::string::npos) << expected << "\n" << all;
  }
  EXPECT_EQ(scene.counters().found, 3U) << all;
}

}  // namespace
}  // namespace Agent
