// A running agent that cannot have all that it needs: it says so, does the rest, and goes on when it can.

#include <sys/mman.h>

#include "runtime/Memtab/Layout.h"
#include "tests/tools/Lab.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Tools {
namespace {

namespace Fs = std::filesystem;

class ServeTrouble : public testing::Test, protected Lab {
 protected:
  std::string at(const std::string& name) const { return stateDirectory() + "/" + name; }
  int publishLabFile() const { return publishAll({scratch().fileWith("lab.jsonl", labScenario)}); }
  bool hasFibEntries(std::size_t count) const {
    return Support::becomes([&] { return document()["fib"].size() == count; });
  }
  // A link where a table was, in one step.
  void linkAway(const std::string& table) const {
    Fs::create_symlink("/etc/passwd", at("link"));
    Fs::rename(at("link"), at(table));
  }
  std::string ribFile(const std::string& lines) const { return scratch().fileWith("rib.jsonl", lines); }
  bool hasRib(const std::string& name) const {
    const OrderedJson now = document();
    return std::any_of(now["ribs"].begin(), now["ribs"].end(),
                       [&](const OrderedJson& rib) { return rib["name"] == name && !rib["entries"].empty(); });
  }
};

TEST_F(ServeTrouble, aRefusedFileOfItsOwnHidesNoOtherTable) {
  for (const std::string table : {"tunnel/status/convergence", "tunnel/protocolTunnelRibs/bgpLuTunnel"}) {
    Support::Process agent = serve();
    ASSERT_TRUE(agent.says("ready")) << agent.output();
    linkAway(table);
    EXPECT_TRUE(agent.says("state directory: ")) << agent.output();
    ASSERT_EQ(publishLabFile(), 0);
    EXPECT_TRUE(hasFibEntries(6)) << agent.output();
    Fs::remove(at("tunnel/tunnelFib"));
    EXPECT_TRUE(Support::becomes([&] { return Fs::exists(at("tunnel/tunnelFib")); })) << agent.output();
    EXPECT_TRUE(hasFibEntries(6)) << agent.output();
    Fs::remove(at(table));
    EXPECT_TRUE(agent.says("resolved: state directory: ")) << agent.output();
    EXPECT_TRUE(Support::becomes([&] { return Fs::is_regular_file(at(table)); })) << agent.output();
    agent.stop();
    Fs::remove_all(stateDirectory());
    Fs::remove(scratch() / "agent.log");
  }
}

TEST_F(ServeTrouble, whoCannotBeRungIsReadyAllTheSame) {
  ASSERT_EQ(publishLabFile(), 0);
  scratch().fileWith("state/.wake-0", "");
  const Support::Process agent = serve();
  EXPECT_TRUE(agent.says("ready: 6 FIB entries")) << agent.output();
  EXPECT_TRUE(agent.says("/.wake-0: cannot be opened as a FIFO: File exists")) << agent.output();
}

TEST_F(ServeTrouble, aRibThatCannotBeMadeKeepsNoOtherFromBeingMade) {
  Fs::create_directories(at("tunnel/tunnelRibs/status/1/inTheWay"));
  const std::string one = R"({"rib": "one", "tables": {"ldp": {}}})";
  const std::string two = R"({"rib": "two", "tables": {"ldp": {}}})";
  const Support::Process agent = serve({"--config", ribFile(one + "\n" + two)});
  ASSERT_TRUE(agent.says("RIB one: cannot be made")) << agent.output();
  ASSERT_EQ(publishLabFile(), 0);
  EXPECT_TRUE(agent.says("ready")) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return hasRib("two"); })) << agent.output();
  EXPECT_FALSE(hasRib("one"));
  Fs::remove_all(at("tunnel/tunnelRibs/status/1"));
  EXPECT_TRUE(Support::becomes([&] { return hasRib("one"); })) << agent.output();
  EXPECT_TRUE(agent.says("resolved: RIB one")) << agent.output();
}

TEST_F(ServeTrouble, manyRibs) {
  constexpr int count = 520;
  std::string lines;
  for (int i = 0; i < count; ++i) {
    lines += "{\"rib\": \"r" + std::to_string(i) + "\", \"tables\": {}}\n";
  }
  const Support::Process agent = serve({"--config", ribFile(lines)});
  ASSERT_TRUE(agent.says("ready", 60)) << agent.output();
  const auto tables = Fs::directory_iterator(at("tunnel/tunnelRibs/status"));
  EXPECT_EQ(std::distance(begin(tables), end(tables)), count);
}

// Makes the first segment of the only collection empty, as lost pages do, without anybody being told.
void wipeIndex(const std::string& table) {
  using Memtab::Place;
  const int fd = open(table.c_str(), O_RDWR);
  const auto bytes = Fs::file_size(table);
  auto* const words = static_cast<std::uint64_t*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ASSERT_NE(static_cast<void*>(words), MAP_FAILED);
  const Place directory = Place::of(words[Memtab::descriptorsAt / 8]);
  const Place segment = Place::of(words[directory.offset() / 8]);
  std::fill_n(words + segment.offset() / 8, segment.words(), 0);
  munmap(words, bytes);
  close(fd);
}

// Fails if tunnels are withdrawn because their index words are gone.
TEST_F(ServeTrouble, aTableThatHasLostRecordsIsNotASmallerOne) {
  {
    const Support::Process agent = serve();
    ASSERT_EQ(publishLabFile(), 0);
    ASSERT_TRUE(hasFibEntries(6)) << agent.output();
    ASSERT_TRUE(agent.says("ready"));
  }
  const auto before = sequences();
  wipeIndex(at("tunnel/table/ldp"));
  const Support::Process agent = serve();
  EXPECT_TRUE(agent.says("waiting: table ldp cannot be read")) << agent.output();
  EXPECT_EQ(sequences(), before);
  ASSERT_EQ(publishLabFile(), 0);
  EXPECT_TRUE(agent.says("ready: 6 FIB entries")) << agent.output();
  EXPECT_EQ(sequences(), before);
}

// Fails if an agent that waits for one table takes another one, which was spoilt meanwhile without a word, for empty.
TEST_F(ServeTrouble, aTableSpoiltDuringTheWaitIsNotEmpty) {
  {
    const Support::Process agent = serve();
    ASSERT_EQ(publishLabFile(), 0);
    ASSERT_TRUE(hasFibEntries(6)) << agent.output();
    ASSERT_TRUE(agent.says("ready"));
  }
  Fs::remove(at("tunnel/table/sr"));
  const Support::Process agent = serve();
  ASSERT_TRUE(agent.says("waiting: table sr is absent")) << agent.output();
  {
    std::fstream ldp(at("tunnel/table/ldp"), std::ios::binary | std::ios::in | std::ios::out);
    ldp.seekp(Memtab::descriptorsAt);
    ldp.put('\x7F');
  }
  ASSERT_EQ(publishAll({"--table", "sr", scratch() / "lab.jsonl"}), 0);
  EXPECT_TRUE(agent.says("waiting: table ldp cannot be read")) << agent.output();
  EXPECT_EQ(document()["fib"].size(), 6U);
  ASSERT_EQ(publishLabFile(), 0);
  EXPECT_TRUE(agent.says("ready: 6 FIB entries")) << agent.output();
}

// Fails if a table counts as well again because another file begins in its place, or if that file counts as damage.
TEST_F(ServeTrouble, aNewFileIsNoMendUntilItIsComplete) {
  const Support::Process agent = serve();
  ASSERT_EQ(publishLabFile(), 0);
  ASSERT_TRUE(hasFibEntries(6)) << agent.output();
  Fs::remove(at("tunnel/table/nexthopGroup"));
  ASSERT_TRUE(agent.says("table nexthopGroup: cannot be read")) << agent.output();
  const Support::Process successor = publish({"--table", "nexthopGroup", "-"}, "successor.log");
  successor.tell(R"({"table": "nexthopGroup", "put": {"index": 5, "tep": "2001:db8::5/128", "nexthopGroupId": 8}})"
                 "\n");
  EXPECT_TRUE(agent.says("nexthopGroup: its new file is not complete")) << agent.output();
  EXPECT_EQ(agent.output().find("damage in table tunnel/table/nexthopGroup: its new file"), std::string::npos);
  EXPECT_EQ(agent.output().find("readable again"), std::string::npos) << agent.output();
  successor.tell("{\"settle\": true}\n");
  EXPECT_TRUE(agent.says("table nexthopGroup: readable again")) << agent.output();
}

// Fails if an agent that begins anew goes by a configuration that was refused, or ends because of it.
TEST_F(ServeTrouble, theConfigurationInForceOutlivesANewBeginning) {
  ASSERT_EQ(publishLabFile(), 0);
  Support::Process agent = serve({"--config", ribFile(R"({"rib": "one", "tables": {"ldp": {}}})")});
  ASSERT_TRUE(Support::becomes([&] { return hasRib("one"); })) << agent.output();
  ribFile("no configuration");
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.says("the configuration stays as it was")) << agent.output();
  Fs::resize_file(at("tunnel/tunnelFib"), 0);
  scratch().fileWith("state/look", "");  // the directory has changed
  ASSERT_TRUE(agent.says("restarting internally")) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return hasRib("one") && document()["fib"].size() == 6; })) << agent.output();
  EXPECT_EQ(agent.stop(), 0);
}

// Fails if nobody is told what a start took out of the agent's own tables.
TEST_F(ServeTrouble, whatATakeOverTakesOutIsReported) {
  publishLab();
  const std::string fib = at("tunnel/tunnelFib");
  const std::size_t place = Support::contentsOf(fib).find(std::string("\xC0\x00\x02\x01", 4));  // a next hop
  ASSERT_NE(place, std::string::npos);
  {
    std::fstream file(fib, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(place));
    file.put('x');
  }
  const Support::Process agent = serve();
  EXPECT_TRUE(agent.says("damage in table tunnel/tunnelFib")) << agent.output();
  EXPECT_TRUE(agent.says("taken out: ")) << agent.output();
  EXPECT_TRUE(agent.says("ready: 6 FIB entries")) << agent.output();
}

// Fails if a reader asks for as much memory as a damaged count says.
TEST_F(ServeTrouble, aDamagedCountIsNoSize) {
  publishLab();
  const OrderedJson before = document();
  {
    std::fstream fib(at("tunnel/tunnelFib"), std::ios::binary | std::ios::in | std::ios::out);
    fib.seekp(Memtab::entriesAt + 7);
    fib.put('\x40');
  }
  EXPECT_EQ(document()["fib"], before["fib"]);
  EXPECT_EQ(ask({"check"}).status, 1);
}

// Fails if a RIB is said to have caught up with a BGP that is still filling its table anew.
TEST_F(ServeTrouble, aDeclarationEndsWithTheTableItWasMadeFor) {
  const auto put = [](const std::string& i) {
    return R"({"table": "bgpLu", "put": {"index": )" + i + R"(, "tep": "10.1.0.)" + i +
           R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12"}]}})" + "\n";
  };
  const std::string declaration = "{\"bgpLuConverged\": true}\n";
  ASSERT_EQ(publishAll({scratch().fileWith("bgp.jsonl", put("1") + declaration)}), 0);
  const Support::Process agent = serve({"--config", ribFile("")});
  ASSERT_TRUE(Support::becomes([&] { return document()["convergence"].contains("0"); })) << agent.output();
  const Support::Process successor = publish({"--table", "bgpLu", "-"}, "successor.log");
  successor.tell(put("1"));
  ASSERT_TRUE(Support::becomes([&] {
    const Reading reading(stateDirectory());
    return !reading.state.tables().table(Agent::TableId::bgpLu).collectionReady();
  }));
  ribFile(R"({"rib": "late", "tables": {"bgpLu": {}}})");
  agent.signal(SIGHUP);
  ASSERT_TRUE(Support::becomes([&] { return hasRib("late"); })) << agent.output();
  // With each tunnel the RIB has caught up once more, and could say so.
  for (const char* const next : {"2", "3"}) {
    successor.tell(put(next));
    ASSERT_TRUE(Support::becomes([&] {
      const OrderedJson now = document();
      return std::any_of(now["ribs"].begin(), now["ribs"].end(), [&](const OrderedJson& rib) {
        return rib["name"] == "late" && rib["entries"].size() == std::stoul(next);
      });
    })) << agent.output();
  }
  EXPECT_FALSE(document()["convergence"].contains("1")) << document()["convergence"];
  successor.tell(declaration + "{\"settle\": true}\n");
  EXPECT_TRUE(Support::becomes([&] { return document()["convergence"].contains("1"); })) << agent.output();
}

}  // namespace
}  // namespace Tools
