// What the agent says when it cannot start, or starts over files that are none of its own.

#include <fcntl.h>

#include <optional>

#include "tests/tools/Router.h"

namespace Tools {
namespace {

constexpr const char* ldp5 =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}]}})";
constexpr uid_t nobody = 65534;

class Start : public testing::Test, protected Router {
 protected:
  Support::Process serveIn(const std::string& directory, const std::string& config, const std::string& log) const {
    return Support::Process({TUNNEL_AGENT_PATH, "serve", "--state-dir", directory, "--config", config},
                            scratch() / log);
  }
  std::string garbage(const std::string& table) const {
    const std::string path = stateDirectory() + "/" + table;
    std::filesystem::remove(path);
    std::ofstream(path) << std::string(10000, 'x');
    chmod(path.c_str(), 0640);
    return path;
  }
};

// Fails if a cause is not named, or what belongs to others is touched.
TEST_F(Start, aRefusalNamesItsCause) {
  struct Case {
    const char* directory;  // below the scratch directory, unless it is absolute
    void (*prepare)(const std::string& path);
    const char* config;  // its text; null: there is none
    int status;
    const char* says;
    bool needsRoot = false;
  };
  const auto asItIs = [](const std::string&) {};
  const auto withMode = [](const std::string& path, mode_t mode) {
    mkdir(path.c_str(), mode);
    chmod(path.c_str(), mode);
  };
  static const auto make = withMode;
  for (const Case& c : {
           Case{"/proc/none/state", asItIs, "", 1, "/proc/none: directory cannot be made: No such file"},
           Case{"/sys/kernel", asItIs, "", 1, "/sys/kernel/tunnel: directory cannot be made: "},
           Case{"file", [](const std::string& path) { std::ofstream(path) << "x"; }, "", 1,
                "file: refused: not a directory\n"},
           Case{"link", [](const std::string& path) { (void)!symlink("/tmp", path.c_str()); }, "", 1,
                "link: refused: not a directory, but a symbolic link\n"},
           Case{"open", [](const std::string& path) { make(path, 0777); }, "", 1,
                "open: refused: group or world may write to it (mode 777)\n"},
           Case{"theirs",
                [](const std::string& path) {
                  make(path, 0750);
                  (void)!chown(path.c_str(), nobody, nobody);
                },
                "", 1, "theirs: refused: it belongs to user 65534, we are 0\n", true},
           Case{"", asItIs, "", 2, "--state-dir: no name of a directory\n"},
           Case{"state", asItIs, nullptr, 2, "rib.jsonl: cannot be opened: No such file or directory\n"},
           Case{"state", asItIs, "\n{\"rib\": \"a\", \"tables\": {\"ldp\": {\"pref\": 256}}}", 2,
                "rib.jsonl:2: tables.ldp.pref: "},
           Case{"state", asItIs, "{\"settle\": true}", 2, "rib.jsonl:1: line: a configuration has rib lines only\n"},
       }) {
    if (c.needsRoot && geteuid() != 0) {
      continue;
    }
    const std::string name = c.directory;
    const std::string path = name.empty() || name[0] == '/' ? name : scratch() / name;
    c.prepare(path);
    const std::string config = scratch().fileWith("rib.jsonl", c.config == nullptr ? "" : c.config);
    if (c.config == nullptr) {
      std::filesystem::remove(config);
    }
    Support::Process agent = serveIn(path, config, "refused.log");
    EXPECT_EQ(agent.wait(), c.status) << c.says;
    EXPECT_NE(agent.output().find(c.says), std::string::npos) << c.says << " is not in\n" << agent.output();
    std::filesystem::remove(scratch() / "refused.log");
  }
}

// Fails if an agent that is killed keeps its successor from starting: its locks go with the last of the process.
TEST_F(Start, anAgentThatIsStillGoingIsWaitedFor) {
  { ASSERT_TRUE(serve().says("ready")); }
  std::optional<Memtab::Descriptor> dying(open((stateDirectory() + "/tunnel/tunnelFib").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(Memtab::lockAlone(dying->get(), 0, 0));
  const Support::Process agent = serveAs("second.log");
  ASSERT_TRUE(agent.says(stateDirectory() + ": another agent serves it: ")) << agent.output();
  dying.reset();
  EXPECT_TRUE(agent.says("ready")) << agent.output();
}

// Fails if a file that is no table is passed over in silence, or keeps the agent from its other tables.
TEST_F(Start, filesOfAnotherLayoutAreNamed) {
  { ASSERT_TRUE(serve().says("ready")); }
  const std::string fib = garbage("tunnel/tunnelFib");
  const std::string ldp = garbage("tunnel/table/ldp");
  Support::Process agent = serveAs("second.log");
  EXPECT_TRUE(agent.says("ready")) << agent.output();
  EXPECT_NE(agent.output().find(fib + ": "), std::string::npos) << agent.output();
  EXPECT_NE(agent.output().find("; the file is quarantined, and a new table takes its place\n"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(fib + ".aside-1"));
  EXPECT_NE(agent.output().find("table ldp: cannot be read: " + ldp + ": "), std::string::npos) << agent.output();
  ASSERT_EQ(publishAll({scratch().fileWith("one.jsonl", ldp5)}), 0);
  EXPECT_TRUE(agent.says("table ldp: readable again")) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return document()["fib"].size() == 1; })) << agent.output();
}

// Fails if an operator needs the agent's own identity to look at what it has programmed.
TEST_F(Start, rootReadsTheTablesOfAnAgentWithAUserOfItsOwn) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root";
  }
  { ASSERT_TRUE(serve().says("ready")); }
  ASSERT_EQ(publishAll({scratch().fileWith("one.jsonl", ldp5)}), 0);
  for (const auto& each : std::filesystem::recursive_directory_iterator(stateDirectory())) {
    ASSERT_EQ(lchown(each.path().c_str(), nobody, nobody), 0);
  }
  ASSERT_EQ(chown(stateDirectory().c_str(), nobody, nobody), 0);
  const Answer answer = ask({"show", "table", "ldp"});
  EXPECT_EQ(answer.status, 0);
  EXPECT_NE(answer.text.find("ldpTunnel/5"), std::string::npos) << answer.text;
  EXPECT_EQ(publishAll({scratch() / "one.jsonl"}), 1) << "writing stays the agent's and its publishers'";
}

}  // namespace
}  // namespace Tools
