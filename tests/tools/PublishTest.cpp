// Publishers that are refused, and holders whose files are spoilt.

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <functional>
#include <memory>

#include "tests/tools/Router.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tools {
namespace {

using Agent::TableId;
using Path = std::filesystem::path;

std::string line(const std::string& table, int index) {
  return R"({"table": ")" + table + R"(", "put": {"index": )" + std::to_string(index) + R"(, "tep": "10.)" +
         std::to_string(index / 62500) + "." + std::to_string(index / 250 % 250) + "." + std::to_string(index % 250) +
         R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [)" + std::to_string(1000 + index) +
         "]}]}}\n";
}
std::string lines(const std::string& table, int first, int end) {
  std::string all;
  for (int index = first; index < end; ++index) {
    all += line(table, index);
  }
  return all;
}
const std::string settle = "{\"settle\": true}\n";

// What a reader finds.
struct Seen {
  bool isComplete = false;  // and owned or not as it was asked for, and nothing is the matter
  std::size_t entries = 0;
  std::uint64_t sequence = 0;
  bool operator==(const Seen&) const = default;
};
Seen seen(const Router& router, TableId id, bool isOwned) {
  const Router::Reading reading(router.stateDirectory());
  const auto& table = reading.state.tables().table(id);
  const auto* const mirror = reading.state.entityManager()->mirror(Agent::Model::tunnelTableInfo(id).path);
  return {table.collectionReady() && mirror->isCurrent() && mirror->isOwned() == isOwned, table.size(),
          table.collectionControl().sequence()};
}

class Publish : public testing::Test, protected Router {
 protected:
  Seen sr() const { return seen(*this, TableId::sr, false); }
};

// Fails if who finds a line wrong or a table taken has made others incomplete by then, or swept them.
TEST_F(Publish, whoIsRefusedLeavesTablesAsTheyStood) {
  ASSERT_EQ(publishAll({scratch().fileWith("sr.jsonl", lines("sr", 1, 4))}), 0);
  const Seen before = sr();
  ASSERT_TRUE(before.isComplete && before.entries == 3);
  Support::Process holder = publish({scratch().fileWith("ldp.jsonl", line("ldp", 5)), "--hold"}, "holder.log");
  ASSERT_TRUE(holder.says("ldp: 1"));
  struct Case {
    std::string behind;
    int status;
    const char* says;
  };
  const std::string deleted2 = R"({"table": "sr", "delete": 2})";
  const std::string deleted77 = R"({"table": "sr", "delete": 77})";
  for (const Case& c : {Case{line("ldp", 6), 1, "ldp: another writer"}, Case{"nonsense", 2, "two.jsonl:2: line: "},
                        Case{deleted77, 2, "two.jsonl:2: delete: sr has no entry 77"},
                        Case{settle + deleted2, 2, "two.jsonl:3: delete: sr has no entry 2"}}) {
    const std::string two = scratch().fileWith("two.jsonl", line("sr", 7) + c.behind);
    Support::Process publisher = publish({two}, "refused.log");
    EXPECT_EQ(publisher.wait(), c.status) << publisher.output();
    EXPECT_TRUE(publisher.says(c.says, 0)) << publisher.output();
    EXPECT_TRUE(sr() == before) << c.behind;
  }
}

// Fails if a table that is locked is taken over before its first line: an early settle would empty it.
TEST_F(Publish, aTableStaysAsItStandsUntilItsFirstLine) {
  ASSERT_EQ(publishAll({scratch().fileWith("sr.jsonl", lines("sr", 1, 4))}), 0);
  const Seen before = sr();
  const std::string steps = scratch().fileWith("steps.jsonl", line("ldp", 5) + settle + line("sr", 2));
  Support::Process publisher = publish({steps, "--step"});
  ASSERT_TRUE(publisher.says("settle"));
  EXPECT_TRUE(seen(*this, TableId::sr, true) == before);
  EXPECT_TRUE(seen(*this, TableId::ldp, true).isComplete);
  publisher.tell("\n");
  EXPECT_EQ(publisher.wait(), 0);
  EXPECT_EQ(sr().entries, 1U);
}

// What is done to files of a holder of ldp and static, by names so that nothing comes in between.
struct Spoiling {
  const char* name;
  std::function<void(const Path& state, const Path& ldp)> spoil;
  std::function<void(const Path& state, const Path& ldp)> undo;
};
void putDirectory(const Path& at) {
  do {
    std::filesystem::remove(at);
  } while (mkdir(at.c_str(), 0750) != 0);
}
const auto removeIt = [](const Path&, const Path& ldp) { std::filesystem::remove(ldp); };
const Spoiling spoilings[] = {
    {"a directory in its place", [](const Path&, const Path& ldp) { putDirectory(ldp); }, removeIt},
    {"a link in its place",
     [](const Path& state, const Path& ldp) {
       std::filesystem::create_symlink("static", state / "link");
       std::filesystem::rename(state / "link", ldp);
     },
     removeIt},
    {"truncated", [](const Path&, const Path& ldp) { std::filesystem::resize_file(ldp, 4096); },
     [](const Path&, const Path&) {}},
    {"no bell", [](const Path& state, const Path&) { putDirectory(state / ".bell"); },
     [](const Path& state, const Path&) { std::filesystem::remove(state / ".bell"); }},
    {"a directory that all may write",
     [](const Path& state, const Path& ldp) {
       chmod(state.c_str(), 0777);
       std::filesystem::remove(ldp);
     },
     [](const Path& state, const Path&) { chmod(state.c_str(), 0750); }},
};

struct Held {
  explicit Held(const Spoiling& what)
      : spoiling(what),
        publisher(router.publish({router.scratch().fileWith("two.jsonl", line("ldp", 5) + line("static", 1)), "--hold"},
                                 "holder.log")) {}
  Router router;
  const Spoiling& spoiling;
  Support::Process publisher;
  Path state = router.stateDirectory();
  Path ldp = state / "tunnel/table/ldp";
};

// Fails if a holder ends, says the same every second, lets go of its other tables, or does not make the spoilt one
// again.
TEST(PublishHolder, outlivesWhatIsDoneToOneOfItsTables) {
  std::vector<std::unique_ptr<Held>> all;  // at the same time: each has to be waited for
  for (const Spoiling& spoiling : spoilings) {
    all.push_back(std::make_unique<Held>(spoiling));
  }
  for (const auto& held : all) {
    ASSERT_TRUE(held->publisher.says("static: 1"));
    held->spoiling.spoil(held->state, held->ldp);
  }
  usleep(2200000);
  for (const auto& held : all) {
    SCOPED_TRACE(held->spoiling.name);
    const std::string said = held->publisher.output();
    const std::size_t first = said.find("tunnelctl: table ldp: " + held->state.string());
    ASSERT_NE(first, std::string::npos) << said;
    EXPECT_EQ(said.find("; trying again every second\ntunnelctl: table ldp: " + held->state.string(), first),
              std::string::npos)
        << said;
    EXPECT_EQ(held->router.publishAll({"--table", "static"}), 1) << "it is owned all the time";
    held->spoiling.undo(held->state, held->ldp);
  }
  for (const auto& held : all) {
    SCOPED_TRACE(held->spoiling.name);
    EXPECT_TRUE(held->publisher.says("table ldp: all is well again")) << held->publisher.output();
    for (const TableId id : {TableId::ldp, TableId::staticTable}) {
      const Seen now = seen(held->router, id, true);
      EXPECT_TRUE(now.isComplete && now.entries == 1) << held->publisher.output();
    }
    EXPECT_EQ(held->publisher.stop(), 0);
  }
}

class FullFileSystem : protected Router {
 public:
  // 77: no right to mount.
  int run() {
    std::filesystem::create_directory(stateDirectory());
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", stateDirectory().c_str(), "tmpfs", 0, "size=16m,mode=750") != 0) {
      return 77;
    }
    outwaits();
    return testing::Test::HasFailure() ? 1 : 0;
  }

 private:
  std::string ballast() const { return stateDirectory() + "/ballast"; }
  void fill() const {
    std::ofstream out(ballast(), std::ios::binary);
    while (out << std::string(4096, 'x') << std::flush) {
    }
  }
  std::size_t fibEntries() const { return Reading(stateDirectory()).state.fib()->entry().size(); }

  void outwaits() const {
    constexpr int many = 3000;
    Support::Process agent = serve({"--trace", "TunnelFibSm=3"});
    Support::Process idle = publish({scratch().fileWith("static.jsonl", line("static", 60000)), "--hold"}, "idle.log");
    const std::string steps = line("ldp", 0) + settle + lines("ldp", 1, many) + settle + lines("ldp", many, 4 * many);
    Support::Process busy = publish({scratch().fileWith("steps.jsonl", steps), "--step", "--hold"}, "busy.log");
    ASSERT_TRUE(Support::becomes([&] { return fibEntries() == 2; })) << agentLog();
    agent.signal(SIGSTOP);  // its tables have to grow when the space is gone
    busy.tell("\n");
    ASSERT_TRUE(Support::becomes([&] { return seen(*this, TableId::ldp, true).entries == many; })) << busy.output();

    fill();
    std::filesystem::remove(stateDirectory() + "/tunnel/table/static");
    fill();
    busy.tell("\n");
    agent.signal(SIGCONT);
    EXPECT_TRUE(idle.says("trying again every second")) << idle.output();
    EXPECT_TRUE(busy.says("trying again every second")) << busy.output();
    EXPECT_TRUE(agent.says("FIB: no space: " + stateDirectory() + "/tunnel/tunnelFib: cannot grow: No space left on "))
        << agentLog();
    EXPECT_TRUE(busy.says("/tunnel/table/ldp: cannot grow from ")) << busy.output();
    const std::string metrics = ask({"metrics"}).text;
    EXPECT_NE(metrics.find("\ntunnel_agent_ready 0\n"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find("degraded_reason{reason=\"FIB: no space: "), std::string::npos) << metrics;
    EXPECT_EQ(publishAll({"--table", "sr"}), 1) << "who does not hold does not wait";

    std::filesystem::remove(ballast());
    EXPECT_TRUE(Support::becomes([&] { return fibEntries() == 4 * many + 1; })) << fibEntries() << agentLog();
    EXPECT_TRUE(agent.says("resolved: FIB: no space: ")) << agentLog();
    EXPECT_TRUE(idle.says("all is well again")) << idle.output();
    EXPECT_TRUE(busy.says("all is well again")) << busy.output();
    EXPECT_TRUE(seen(*this, TableId::staticTable, true).isComplete);
    EXPECT_EQ(agent.stop(), 0) << agentLog();
  }
};

// Fails if publishers or agent end for want of space, keep it to themselves, or do not go on when there is some.
TEST(PublishHolder, outwaitsAFullFileSystemAndSoDoesTheAgent) {
  FullFileSystem scene;
  const pid_t child = fork();
  if (child == 0) {
    _exit(scene.run());
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WEXITSTATUS(status) == 77) {
    GTEST_SKIP() << "no right to mount";
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace Tools
