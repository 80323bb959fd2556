// "tunnelctl check" finds what is wrong with tables in themselves.

#include <cstring>

#include "runtime/Memtab/Layout.h"
#include "tests/tools/ShadowRouter.h"
#include "tools/StructureCheck.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;

class Check : public testing::Test, protected ShadowRouter {};

struct Damage {
  int line;
  const char* table;  // that is named
  const char* text;   // that is said of it
  std::function<void(const std::string& directory)> inflict;
};

// By a writer of the agent's tables, who calls them complete.
template <class F>
auto written(F write) {
  return [=](const std::string& directory) {
    Agent::AgentState state(Zol::make<Statehub::EntityManager>(directory), Statehub::Access::write);
    write(state);
    state.fib()->entry().collectionReadyIs(true);
    state.rib(0)->collectionReadyIs(true);
    for (const auto& [type, wrapper] : state.protocolRibs()->protocolTunnelRib()) {
      wrapper->tunnelRib()->collectionReadyIs(true);
    }
  };
}
// Turns the bytes of the file at every place of pattern; there is one at least.
auto turned(const char* file, std::vector<std::uint8_t> pattern) {
  return [=](const std::string& directory) {
    const std::string path = directory + "/" + file;
    std::string bytes = Support::contentsOf(path);
    const std::string wanted(pattern.begin(), pattern.end());
    std::size_t found = 0;
    for (std::size_t at = bytes.find(wanted); at != std::string::npos; at = bytes.find(wanted, at + 1), ++found) {
      bytes[at] = static_cast<char>(bytes[at] ^ 0x5A);
    }
    ASSERT_GT(found, 0U) << file;
    std::ofstream(path, std::ios::binary | std::ios::in).write(bytes.data(), std::streamsize(bytes.size()));
  };
}
std::uint64_t wordAt(const std::string& bytes, std::size_t offset) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof word);
  return word;
}
void putWord(const std::string& path, std::size_t offset, std::uint64_t word) {
  std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
  out.seekp(std::streamoff(offset));
  out.write(reinterpret_cast<const char*>(&word), sizeof word);
}
// Writes a word of the file's header.
auto header(const char* file, std::size_t offset, std::uint64_t word) {
  return [=](const std::string& directory) { putWord(directory + "/" + file, offset, word); };
}
// Turns a bit of the word at the place that where(bytes) finds.
auto turnedBit(const char* file, unsigned bit, std::function<std::size_t(const std::string& bytes)> where) {
  return [=](const std::string& directory) {
    const std::string path = directory + "/" + file;
    const std::string bytes = Support::contentsOf(path);
    const std::size_t at = where(bytes);
    putWord(path, at, wordAt(bytes, at) ^ std::uint64_t(1) << bit);
  };
}
std::size_t directoryWord(const std::string& bytes) {
  return Memtab::Place::of(wordAt(bytes, Memtab::descriptorsAt)).offset();
}
std::size_t indexWord(const std::string& bytes) {
  std::size_t at = Memtab::Place::of(wordAt(bytes, directoryWord(bytes))).offset();
  while (!Memtab::isLive(wordAt(bytes, at))) {
    at += sizeof(std::uint64_t);
  }
  return at;
}
// The block that the index word names.
std::size_t block(const std::string& bytes) {
  return Memtab::unitsOf(wordAt(bytes, indexWord(bytes))) * Memtab::unitBytes;
}
auto removed(const char* file) {
  return [=](const std::string& directory) { std::filesystem::remove(directory + "/" + file); };
}
auto cut(const char* file) {
  return [=](const std::string& directory) { std::filesystem::resize_file(directory + "/" + file, 1000); };
}

auto moded(const char* file, unsigned mode) {
  return [=](const std::string& directory) {
    std::filesystem::permissions(directory + "/" + file, std::filesystem::perms(mode));
  };
}
// Has make(other, path) put something in the file's place.
template <class Make>
auto replaced(const char* file, Make make) {
  return [=](const std::string& directory) {
    std::filesystem::rename(directory + "/" + file, directory + "/other");
    make(directory + "/other", directory + "/" + file);
  };
}
template <class Record>
auto statusWritten(const char* path, Record record) {
  return [=](const std::string& directory) {
    Statehub::EntityManager entityManager(directory);
    const auto table = Agent::statusTable<Record>(entityManager, path, Statehub::Access::write);
    table->entryIs(record);
    table->collectionReadyIs(true);
  };
}
// A record that the publisher's own table would have refused.
void smuggle(const std::string& directory) {
  using Map = Memtab::MemtabMap<Model::LdpTunnelTableEntry>;
  Map map("ldp",
          Zol::Ptr<Memtab::SharedStore>(Zol::make<Memtab::FileStore>(directory, "tunnel/table/ldp", Map::layout())),
          0U);
  Model::LdpTunnelTableEntry entry;
  entry.tunnelIdIs(Model::TunnelId::fromText("srTunnel/777"));
  map.entryIs(entry);
  map.collectionReadyIs(true);
}

Model::TunnelId id(const char* text) { return Model::TunnelId::fromText(text); }
Ipkit::IpGenPrefix tep(const char* text) { return Ipkit::IpGenPrefix::fromText(text); }
Fib::EncapId encapOf(Agent::AgentState& state, const char* tunnel) {
  return state.fib()->entry().value(id(tunnel)).tunnelVia(0).encapId();
}
void rib(Agent::AgentState& state, const std::vector<const char*>& tunnels) {
  Model::TunnelRibEntry entry(tep("10.99.0.1/32"));
  Model::TunnelIdArray ids;
  for (const char* const tunnel : tunnels) {
    ids.append(id(tunnel));
  }
  entry.tunnelIdIs(ids);
  state.rib(0)->entryIs(entry);
}

Agent::UnprogrammableStatus unprogrammable(const char* tunnel) {
  Agent::UnprogrammableStatus status;
  status.tunnelIdIs(id(tunnel));
  return status;
}
Agent::ConvergenceStatus converged(Model::TunnelRibId rib) {
  Agent::ConvergenceStatus status;
  status.ribIdIs(rib);
  return status;
}

const std::vector<std::uint8_t> nextHop = {10, 64, 0, 15};

const std::vector<Damage> damages = {
    {__LINE__, "fib", "has no record",
     written([](auto& state) { state.fib()->labelStackEncap().entryDel(encapOf(state, "ldpTunnel/1")); })},
    {__LINE__, "fib", "has no record",
     written([](auto& state) { state.fib()->greEncap().entryDel(encapOf(state, "l3IntfTunnel/1")); })},
    {__LINE__, "fib labelStack", "no via refers to it", written([](auto& state) {
       state.fib()->labelStackEncap().entryIs(Fib::LabelStackEncap(Fib::EncapId(Fib::EncapType::labelStack, 9000), {}));
     })},
    {__LINE__, "fib gre", "no via refers to it",
     written([](auto& state) { state.fib()->entry().entryDel(id("l3IntfTunnel/1")); })},
    {__LINE__, "fib gre", "of another type", written([](auto& state) {
       state.fib()->greEncap().entryIs(Fib::GreEncap(Fib::EncapId(Fib::EncapType::ipsecGre, 9000), {}));
     })},
    {__LINE__, "fib", "has no vias",
     written([](auto& state) { state.fib()->entry().entryIs(Fib::TunnelFibEntry(id("ldpTunnel/777"))); })},
    {__LINE__, "fib", "no tunnel has such an id", written([](auto& state) {
       Fib::TunnelFibEntry entry(Model::TunnelId(std::uint64_t(13) << 44));
       entry.tunnelViaIs(state.fib()->entry().value(id("ldpTunnel/1")).tunnelVia());
       state.fib()->entry().entryIs(entry);
     })},
    {__LINE__, "rib system", "has no tunnels", written([](auto& state) { rib(state, {}); })},
    {__LINE__, "rib system", "of another type", written([](auto& state) {
       rib(state, {"ldpTunnel/1", "srTunnel/1"});
     })},
    {__LINE__, "rib system", "stands twice", written([](auto& state) {
       rib(state, {"ldpTunnel/1", "ldpTunnel/1"});
     })},
    {__LINE__, "protocolRib srTunnel", "of another type", written([](auto& state) {
       Model::TunnelRibEntry entry(tep("10.99.0.1/32"));
       entry.addTunnelId(id("ldpTunnel/1"));
       state.protocolRibs()->protocolTunnelRib(Model::TunnelType::srTunnel)->tunnelRib()->entryIs(entry);
     })},
    {__LINE__, "fib", "without completing it", header("tunnel/tunnelFib", Memtab::readyAt, 0)},
    {__LINE__, "ldp", "without completing it", header("tunnel/table/ldp", Memtab::readyAt, 0)},
    {__LINE__, "ldp", "its header counts 77", header("tunnel/table/ldp", Memtab::entriesAt, 77)},
    {__LINE__, "fib", "its header counts 77", header("tunnel/tunnelFib", Memtab::entriesAt, 77)},
    {__LINE__, "ldp", "magic number is", header("tunnel/table/ldp", Memtab::magicAt, 77)},
    {__LINE__, "rib system", "format version is", header("tunnel/tunnelRibs/system", Memtab::versionAt, 77)},
    {__LINE__, "status/ribs", "record fingerprint is", header("tunnel/status/ribs", Memtab::fingerprintAt, 77)},
    {__LINE__, "fib", "descriptor of collection 0", header("tunnel/tunnelFib", Memtab::descriptorsAt, 77)},
    {__LINE__, "ldp", "its list of changes is damaged", header("tunnel/table/ldp", Memtab::ringAt, 77)},
    {__LINE__, "fib", "its list of changes is damaged", header("tunnel/tunnelFib", Memtab::ringAt, 0)},
    {__LINE__, "ldp", "directory word damaged", turnedBit("tunnel/table/ldp", 3, directoryWord)},
    {__LINE__, "ldp", "index word names another key's block", turnedBit("tunnel/table/ldp", 50, indexWord)},
    {__LINE__, "rib system", "block outside the region", turnedBit("tunnel/tunnelRibs/system", 30, indexWord)},
    {__LINE__, "rib system", "checksum differs", turnedBit("tunnel/tunnelRibs/system", 3, block)},
    {__LINE__, "rib system", "block of another collection", turnedBit("tunnel/tunnelRibs/system", 53, block)},
    {__LINE__, "ldp", "srTunnel/777: ", smuggle},
    {__LINE__, "ldp", "checksum", turned("tunnel/table/ldp", nextHop)},
    {__LINE__, "fib", "checksum", turned("tunnel/tunnelFib", nextHop)},
    {__LINE__, "greTunnelInterface", "checksum", turned("tunnel/table/greTunnelInterface", nextHop)},
    {__LINE__, "fib", "no such table", removed("tunnel/tunnelFib")},
    {__LINE__, "ldp", "no such table", removed("tunnel/table/ldp")},
    {__LINE__, "rib te-custom", "no such table", removed("tunnel/tunnelRibs/status/1")},
    {__LINE__, "status/ribs", "no such table", removed("tunnel/status/ribs")},
    {__LINE__, "ldp", "too few for a table", cut("tunnel/table/ldp")},
    {__LINE__, "ldp", "group or world may write to it", moded("tunnel/table/ldp", 0666)},
    {__LINE__, "sr", "group or world may write to it", moded("tunnel/table", 0777)},
    {__LINE__, "ldp", "not a regular file",
     replaced("tunnel/table/ldp",
              [](const auto& other, const auto& path) { std::filesystem::create_symlink(other, path); })},
    {__LINE__, "ldp", "it has 2 links",
     replaced("tunnel/table/ldp",
              [](const auto& other, const auto& path) { std::filesystem::create_hard_link(other, path); })},
    {__LINE__, "fib", "not a regular file",
     replaced("tunnel/tunnelFib", [](const auto&, const auto& path) { std::filesystem::create_directory(path); })},
    {__LINE__, "ldp", "record fingerprint is",
     [](const std::string& directory) {
       const std::string tables = directory + "/tunnel/table/";
       std::filesystem::copy_file(tables + "sr", tables + "ldp", std::filesystem::copy_options::overwrite_existing);
     }},
    {__LINE__, "status/unprogrammable", "ldpTunnel/1: is in the FIB",
     statusWritten(Agent::unprogrammablePath, unprogrammable("ldpTunnel/1"))},
    {__LINE__, "status/convergence", "9: there is no such RIB", statusWritten(Agent::convergencePath, converged(9))},
    {__LINE__, "status/ribs", "no configuration of a RIB", statusWritten(Agent::ribStatusPath, Agent::RibStatus())},
};

TEST_F(Check, namesEveryPlantedDamage) {
  publishExample("abilene");
  const std::string sound = copied();
  written([](auto&) {})(sound);
  EXPECT_TRUE(checkStructure(sound).empty());
  for (const Damage& each : damages) {
    SCOPED_TRACE("case in line " + std::to_string(each.line));
    const std::string directory = copied();
    each.inflict(directory);
    std::string all;
    bool isNamed = false;
    for (const Problem& problem : checkStructure(directory)) {
      all += problem.table + ": " + problem.text + "\n";
      isNamed = isNamed || (problem.table == each.table && problem.text.find(each.text) != std::string::npos);
    }
    EXPECT_TRUE(isNamed) << all;
  }
}

TEST_F(Check, saysSoByItsExitStatus) {
  publishExample("abilene");
  std::filesystem::remove(stateDirectory() + "/tunnel/tunnelFib");
  const Answer answer = ask({"check"});
  EXPECT_EQ(answer.status, 1);
  EXPECT_NE(answer.text.find(stateDirectory() + "/tunnel/tunnelFib: no such table"), std::string::npos) << answer.text;
}

}  // namespace
}  // namespace Tools
