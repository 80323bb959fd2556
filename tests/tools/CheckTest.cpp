// "tunnelctl check" finds what is wrong with tables in themselves.

#include <fcntl.h>

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
// Writes a word of the file's header.
auto header(const char* file, std::size_t offset, std::uint64_t word) {
  return [=](const std::string& directory) {
    std::fstream out(directory + "/" + file, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(std::streamoff(offset));
    out.write(reinterpret_cast<const char*>(&word), sizeof word);
  };
}
auto removed(const char* file) {
  return [=](const std::string& directory) { std::filesystem::remove(directory + "/" + file); };
}
auto cut(const char* file) {
  return [=](const std::string& directory) { std::filesystem::resize_file(directory + "/" + file, 1000); };
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
    {__LINE__, "fib", "has not called it complete", header("tunnel/tunnelFib", Memtab::readyAt, 0)},
    {__LINE__, "ldp", "has not called it complete", header("tunnel/table/ldp", Memtab::readyAt, 0)},
    {__LINE__, "ldp", "its header counts 77", header("tunnel/table/ldp", Memtab::entriesAt, 77)},
    {__LINE__, "fib", "its header counts 77", header("tunnel/tunnelFib", Memtab::entriesAt, 77)},
    {__LINE__, "ldp", "ldp", header("tunnel/table/ldp", Memtab::magicAt, 77)},
    {__LINE__, "rib system", "system", header("tunnel/tunnelRibs/system", Memtab::magicAt, 77)},
    {__LINE__, "ldp", "checksum", turned("tunnel/table/ldp", nextHop)},
    {__LINE__, "fib", "checksum", turned("tunnel/tunnelFib", nextHop)},
    {__LINE__, "greTunnelInterface", "checksum", turned("tunnel/table/greTunnelInterface", nextHop)},
    {__LINE__, "fib", "no such table", removed("tunnel/tunnelFib")},
    {__LINE__, "ldp", "no such table", removed("tunnel/table/ldp")},
    {__LINE__, "rib te-custom", "no such table", removed("tunnel/tunnelRibs/status/1")},
    {__LINE__, "status/ribs", "no such table", removed("tunnel/status/ribs")},
    {__LINE__, "ldp", "ldp", cut("tunnel/table/ldp")},
};

TEST_F(Check, saysSoByItsExitStatus) {
  publishExample("abilene");
  std::filesystem::remove(stateDirectory() + "/tunnel/tunnelFib");
  const Answer answer = ask({"check"});
  EXPECT_EQ(answer.status, 1);
  EXPECT_NE(answer.text.find(stateDirectory() + "/tunnel/tunnelFib: no such table"), std::string::npos) << answer.text;
}

}  // namespace
}  // namespace Tools
