// A running agent whose tables are spoilt from outside: input tables, and its own.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <functional>

#include "runtime/Memtab/Layout.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/tools/Played.h"

namespace Tools {
namespace {

constexpr const char* staticLines =
    R"({"table": "static", "put": {"index": 1, "tep": "10.0.1.1/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [100]}]}}
)";
// What becomes of it while the LDP table cannot be read: LDP tunnel 5 leads through static tunnel 1.
constexpr const char* otherStaticLines =
    R"({"table": "static", "put": {"index": 1, "tep": "10.0.1.1/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [101]}]}}
{"table": "static", "put": {"index": 2, "tep": "10.0.1.2/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [102]}]}}
)";
constexpr const char* ldpLines =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"intf": "tunnel:staticTunnel/1", "labels": [300123]}]}}
{"table": "ldp", "put": {"index": 6, "tep": "10.0.0.6/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300124]}]}}
{"table": "ldp", "put": {"index": 7, "tep": "10.0.0.7/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300125]}]}}
)";
constexpr const char* otherLdpLines =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"intf": "tunnel:staticTunnel/1", "labels": [300123]}]}}
{"table": "ldp", "put": {"index": 6, "tep": "10.0.0.6/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300126]}]}}
)";

using Path = std::filesystem::path;

struct Spoiling {
  const char* name;
  std::function<void(const Path& state, const Path& table)> spoil;
  std::function<void(const Path& table)> undo = [](const Path&) {};  // what only an operator can
  bool isNoticed = true;                                             // by the process that watches the directory
  bool isDamage = true;                                              // of a file's bytes
};

std::ostream& operator<<(std::ostream& out, const Spoiling& spoiling) { return out << spoiling.name; }

void overwrite(const Path& file, std::size_t offset, std::uint64_t word) {
  std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
  out.seekp(static_cast<std::streamoff>(offset));
  out.write(reinterpret_cast<const char*>(&word), sizeof word);
}

// As overwrite(), without anybody being told that the file has changed.
void overwriteMapped(const Path& file, std::size_t offset, std::uint64_t word) {
  const int fd = open(file.c_str(), O_RDWR);
  void* const at = mmap(nullptr, Memtab::headerBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ASSERT_NE(at, MAP_FAILED);
  std::memcpy(static_cast<char*>(at) + offset, &word, sizeof word);
  munmap(at, Memtab::headerBytes);
  close(fd);
}

void putInPlace(const Path& file, const std::string& bytes) {
  const std::string aside = file.string() + ".new";
  std::ofstream(aside, std::ios::binary) << bytes;
  chmod(aside.c_str(), 0640);
  std::filesystem::rename(aside, file);
}

// In one step: who writes the table makes it again as soon as the name is free.
void linkAway(const Path& file) {
  const std::string elsewhere = file.string() + ".elsewhere";
  const std::string aside = file.string() + ".link";
  std::filesystem::create_hard_link(file, elsewhere);
  std::filesystem::create_symlink(elsewhere, aside);
  std::filesystem::rename(aside, file);
}

// While somebody makes things again in it.
void removeAll(const Path& directory) {
  std::error_code isNotEmpty;
  std::filesystem::remove_all(directory, isNotEmpty);
}

const Spoiling ofOneFile[] = {
    {"emptied", [](const Path&, const Path& table) { std::filesystem::resize_file(table, 0); }},
    {"halved", [](const Path&,
                  const Path& table) { std::filesystem::resize_file(table, std::filesystem::file_size(table) / 2); }},
    {"removed", [](const Path&, const Path& table) { std::filesystem::remove(table); }, [](const Path&) {}, true,
     false},
    {"replacedByGarbage", [](const Path&, const Path& table) { putInPlace(table, std::string(100000, 'x')); }},
    {"replacedByAnotherTable",
     [](const Path& state, const Path& table) {
       putInPlace(table, Support::contentsOf(state / "tunnel/table/nexthopGroup"));
     }},
    {"magicOverwritten", [](const Path&, const Path& table) { overwrite(table, Memtab::magicAt, 17); }},
    {"fingerprintOverwritten", [](const Path&, const Path& table) { overwrite(table, Memtab::fingerprintAt, 17); }},
    {"directoryOverwritten", [](const Path&, const Path& table) { overwrite(table, Memtab::descriptorsAt, 17); }},
    {"directoryOverwrittenUnnoticed",
     [](const Path&, const Path& table) { overwriteMapped(table, Memtab::descriptorsAt, 17); }, [](const Path&) {},
     false},
    {"writableForAll", [](const Path&, const Path& table) { chmod(table.c_str(), 0666); },
     [](const Path& table) { chmod(table.c_str(), 0640); }, true, false},
    {"ofAnotherUser",
     [](const Path&, const Path& table) {
       if (chown(table.c_str(), 12345, gid_t(-1)) != 0) {
         chmod(table.c_str(), 0666);
       }
     },
     [](const Path& table) {
       [[maybe_unused]] const int status = chown(table.c_str(), geteuid(), gid_t(-1));
       chmod(table.c_str(), 0640);
     },
     true, false},
    {"aSymbolicLink", [](const Path&, const Path& table) { linkAway(table); },
     [](const Path& table) { std::filesystem::remove(table); }, true, false},
};
const Spoiling ofDirectories[] = {
    {"itsDirectoryRemoved", [](const Path& state, const Path&) { removeAll(state / "tunnel/table"); },
     [](const Path&) {}, true, false},
    {"stateDirectoryRemoved", [](const Path& state, const Path&) { removeAll(state); }, [](const Path&) {}, true,
     false},
    {"stateDirectoryMoved",
     [](const Path& state, const Path&) { std::filesystem::rename(state, state.string() + ".old"); },
     [](const Path&) {}, true, false},
};

std::vector<Spoiling> both() {
  std::vector<Spoiling> all(std::begin(ofOneFile), std::end(ofOneFile));
  all.insert(all.end(), std::begin(ofDirectories), std::end(ofDirectories));
  return all;
}
// Without those that are met when the table is read next: its writer does not read it.
std::vector<Spoiling> noticed() {
  std::vector<Spoiling> some = both();
  std::erase_if(some, [](const Spoiling& each) { return !each.isNoticed; });
  return some;
}

class ServeDamage : public testing::TestWithParam<Spoiling>, protected Router {
 protected:
  const Support::EnvironmentVariable temporaryDirectory_{"TMPDIR", scratch() / ""};

  int publishLines(const std::string& lines) const { return publishAll({scratch().fileWith("lines.jsonl", lines)}); }
  OrderedJson playedOf(const std::string& lines) const {
    return Played(scratch().fileWith("played.jsonl", lines)).end().document;
  }
  bool reaches(const OrderedJson& expected) const {
    return Support::becomes([&] { return comparable(document(), true) == expected; });
  }
  void spoil(const std::string& table) const { GetParam().spoil(stateDirectory(), stateDirectory() + "/" + table); }
  std::size_t corruptionFiles() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(scratch() / "")) {
      count += entry.path().filename().string().starts_with("memtab-corruption-tunnel-table-ldp") ? 1U : 0U;
    }
    return count;
  }
  // What RIB and FIB have of the LDP tunnels that go through no other.
  static std::string plainLdpOf(const OrderedJson& document) {
    std::string lines;
    for (const OrderedJson& part : {document["ribs"][0]["entries"], document["fib"]}) {
      for (const OrderedJson& entry : part) {
        const std::string line = entry.dump();
        const bool isOne =
            line.find("ldpTunnel/6") != std::string::npos || line.find("ldpTunnel/7") != std::string::npos;
        lines += isOne ? line + "\n" : "";
      }
    }
    return lines;
  }
};

class ServeDamagedInput : public ServeDamage {};

// Fails if an input table that cannot be read is taken for an empty one, stops the agent or other tables, goes
// unreported, is called damaged when its bytes are intact, or leaves anything after its publisher has recreated it.
TEST_P(ServeDamagedInput, leavesWhatCameFromItAndOtherTablesGoOn) {
  Support::Process agent = serve();
  ASSERT_EQ(publishAll({"--table", "nexthopGroup"}), 0);
  ASSERT_EQ(publishLines(std::string(staticLines) + ldpLines), 0);
  ASSERT_TRUE(reaches(playedOf(std::string(staticLines) + ldpLines))) << agentLog() << document();
  const std::string ldp = plainLdpOf(document());
  ASSERT_EQ(std::count(ldp.begin(), ldp.end(), '\n'), 4) << ldp;

  spoil("tunnel/table/ldp");
  ASSERT_EQ(publishLines(otherStaticLines), 0);
  ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 5; })) << agentLog() << document();
  EXPECT_TRUE(agent.says("cannot be read")) << agentLog();
  EXPECT_TRUE(Support::becomes([&] { return (corruptionFiles() > 0) == GetParam().isDamage; }));
  EXPECT_EQ(plainLdpOf(document()), ldp);

  GetParam().undo(stateDirectory() + "/tunnel/table/ldp");
  ASSERT_EQ(publishLines(otherLdpLines), 0) << Support::contentsOf(scratch() / "publish.log");
  EXPECT_TRUE(reaches(playedOf(std::string(otherStaticLines) + otherLdpLines))) << agentLog() << document();
  EXPECT_EQ(agent.stop(), 0) << agentLog();
}
INSTANTIATE_TEST_SUITE_P(, ServeDamagedInput, testing::ValuesIn(both()),
                         [](const auto& spoiling) { return spoiling.param.name; });

class ServeDamagedOutput : public ServeDamage {};

// Fails if the agent stops, goes on writing where nobody reads, or loses an entry.
TEST_P(ServeDamagedOutput, isMadeAnew) {
  const std::string lines = std::string(staticLines) + ldpLines;
  std::vector<std::string> tables = {"tunnel/tunnelFib"};
  if (std::string(GetParam().name) == "emptied" || std::string(GetParam().name) == "removed") {
    tables.insert(tables.end(), {"tunnel/tunnelRibs/system", "tunnel/status/unprogrammable"});
  }
  for (const std::string& table : tables) {
    Support::Process agent = serve();
    ASSERT_EQ(publishAll({"--table", "nexthopGroup"}), 0);
    ASSERT_EQ(publishLines(lines), 0);
    ASSERT_TRUE(reaches(playedOf(lines))) << table << agentLog() << document();
    spoil(table);
    GetParam().undo(stateDirectory() + "/" + table);
    EXPECT_TRUE(reaches(playedOf(lines))) << table << agentLog() << document();
    ASSERT_EQ(publishLines(lines + otherStaticLines), 0);
    EXPECT_TRUE(reaches(playedOf(lines + otherStaticLines))) << table << agentLog() << document();
    EXPECT_EQ(agent.stop(), 0) << table << agentLog();
  }
}
INSTANTIATE_TEST_SUITE_P(, ServeDamagedOutput, testing::ValuesIn(noticed()),
                         [](const auto& spoiling) { return spoiling.param.name; });

}  // namespace
}  // namespace Tools
