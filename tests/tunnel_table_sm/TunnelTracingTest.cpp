// The process's trace file: its name, and what is in it after the process has died.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <set>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/RingReader.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/FibScene.h"
#include "tests/support/Process.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Tunnel {
namespace {

using TunnelTable::FibScene;

// The environment of a test, restored at its end.
class Environment {
 public:
  explicit Environment(const std::map<std::string, std::string>& variables) {
    for (const char* name : {"FASTLOG_DISABLE", "FLFILE", "FASTLOGDIR", "TMPDIR"}) {
      const auto given = variables.find(name);
      variables_.emplace_back(name, given == variables.end() ? std::nullopt : std::optional(given->second));
    }
  }

 private:
  std::list<Support::EnvironmentVariable> variables_;
};

TEST(TunnelTracing, fileNames) {
  struct Case {
    int line;
    std::map<std::string, std::string> variables;
    std::optional<std::string> name;
  };
  for (const Case& c : {Case{__LINE__, {}, "Tunnel-%d.fl"}, Case{__LINE__, {{"FASTLOGDIR", "/x"}}, "Tunnel.fl"},
                        Case{__LINE__, {{"FLFILE", ""}}, "Tunnel-%d.fl"},
                        Case{__LINE__, {{"FLFILE", "/x/y"}, {"FASTLOGDIR", "/x"}}, "/x/y"},
                        Case{__LINE__, {{"FASTLOG_DISABLE", ""}, {"FLFILE", "/x/y"}}, std::nullopt}}) {
    const Environment environment(c.variables);
    EXPECT_EQ(fastlogFileName(), c.name) << "case in line " << c.line;
  }
}

// Fails if what a killed process wrote last cannot be read, or the disabled one leaves a file.
TEST(TunnelTracing, outlivesTheProcess) {
  const std::string path = testing::TempDir() + "/tracing-" + std::to_string(getpid()) + ".fl";
  const pid_t child = fork();
  if (child == 0) {
    const Environment environment({{"FLFILE", path}});
    FibScene scene;
    std::vector<TunnelTable::MplsVia> vias;
    for (unsigned i = 1; i <= 513; ++i) {
      scene.put(scene.ldp(i, {TunnelTable::via("if" + std::to_string(i))}));
      if (i <= 512) {
        vias.push_back(TunnelTable::via("tunnel:ldpTunnel/" + std::to_string(i)));
      }
    }
    scene.put(scene.ldp(1, {TunnelTable::via("if1"), TunnelTable::via("if513")}));
    scene.put(scene.sr(1, vias));
    scene.put(scene.sr(2, {TunnelTable::via("if1")}));
    scene.settle();
    scene.del(scene.sr(2, {}));
    scene.settle();
    kill(getpid(), SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  const Fastlog::RingContents contents = Fastlog::RingReader(path).read();
  std::filesystem::remove(path);
  EXPECT_EQ(contents.damaged, 0U);
  const auto has = [&](const std::string& text) {
    return std::any_of(contents.lines.begin(), contents.lines.end(),
                       [&](const Fastlog::RingLine& line) { return line.text.find(text) != std::string::npos; });
  };
  EXPECT_TRUE(has("TunnelFibEntry has too many tunnelVias: 513, (max 512)"));
  EXPECT_TRUE(has("tunnelId srTunnel/1 becomes unprogrammable: too many tunnelVias"));
  EXPECT_TRUE(has("tunnelId srTunnel/2 withdrawn from the FIB"));
  EXPECT_FALSE(has("Reviewed")) << "levels 6 to 9 are off";
}

// Fails if a host cannot keep the library from leaving a file, or a file that cannot be created ends the start.
TEST(TunnelTracing, hostDecidesWhatTheEnvironmentDoesNot) {
  const Support::ScratchDirectory scratch;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(scratch / "");
  const auto setUp = [](const std::map<std::string, std::string>& variables) {
    const Environment environment(variables);
    fastlogInitialized = false;
    const std::string trouble = fastlogSetUp();
    const std::string path = fastlogInitialized ? Fastlog::RingFile::defaultFile()->path() : "none";
    Fastlog::RingFile::defaultFileIs(nullptr);
    return std::pair(path, trouble);
  };
  const std::string temporary = scratch / "";
  const std::string ofThisProcess = "Tunnel-" + std::to_string(getpid()) + ".fl";
  EXPECT_EQ(setUp({{"TMPDIR", temporary}}).first, temporary + "/" + ofThisProcess);
  EXPECT_EQ(setUp({{"FLFILE", "bare.fl"}, {"FASTLOGDIR", "/none"}}).first, "bare.fl");
  EXPECT_TRUE(std::filesystem::exists(scratch / "bare.fl")) << "a name is used unchanged";
  EXPECT_EQ(setUp({{"FASTLOGDIR", temporary}}).first, temporary + "/Tunnel.fl");
  const std::string trouble =
      "trace file /none/Tunnel.fl: cannot be created: No such file or directory; trace lines "
      "are dropped";
  EXPECT_EQ(setUp({{"FASTLOGDIR", "/none"}}), std::pair(std::string("none"), trouble));
  EXPECT_EQ(setUp({{"FASTLOGDIR", "/none"}}).second, "") << "once";
  EXPECT_EQ(setUp({{"TMPDIR", "/none"}}).first, "none");
  EXPECT_FALSE(fastlogInitialized) << "the next start tries again";

  fastlogDirectoryIs("");
  EXPECT_EQ(setUp({{"TMPDIR", temporary}}).first, "none");
  EXPECT_EQ(setUp({{"FLFILE", "bare.fl"}}).first, "bare.fl") << "who asks has one";
  fastlogDirectoryIs(scratch / "trace");
  EXPECT_EQ(setUp({}).first, scratch / "trace/Tunnel.fl");
  EXPECT_EQ(setUp({{"FASTLOG_DISABLE", "1"}}).first, "none");
  std::filesystem::remove_all(scratch / "trace");
  scratch.fileWith("trace", "");
  EXPECT_NE(setUp({}).second.find("Not a directory"), std::string::npos);
  std::filesystem::current_path(before);
}

// Fails if a line of the FIB that people search for is lost, or changes its text or level.
TEST(TunnelTracing, linesOfTheFib) {
  using TunnelTable::tunnel;
  using TunnelTable::via;
  auto& registry = Fastlog::TraceRegistry::instance();
  std::set<std::string> lines;
  registry.traceDestinationIs([&lines](const Fastlog::TraceLine& line) {
    lines.insert(std::to_string(line.level) + " " + std::string(line.text));
  });
  registry.levelIs("TunnelFibSm", 9);
  {
    FibScene scene;
    scene.yieldEvery(1);
    scene.put(scene.ldp(1, {via("if1", {7})}));
    scene.settle();
    scene.put(scene.ldp(2, {via("if2", {7})}));
    scene.put(scene.ldp(3, {}));
    scene.put(scene.ldp(4, {via("if1", {1, 2, 3, 4, 5, 6, 8})}));
    scene.put(scene.bgpLu(1, {via("if1")}, TunnelTable::Contribution::notContributing));
    scene.put(scene.bgpLuPush(1, {via("if1", {}, "0.0.0.0", Ipkit::MplsLabelOperation::Op::swap)}));
    scene.put(scene.gre(1, {via("if1")}, "192.0.2.10"));
    scene.put(scene.sr(1, {via("tunnel:ldpTunnel/3"), via("tunnel:ldpTunnel/4", {17}), via("tunnel:srTunnel/1"),
                           via("tunnel:ldpTunnel/9"), via("tunnel:bgpLuTunnel/1"), via("if9")}));
    scene.settle();
    scene.put(scene.ldp(3, {via("if1", {7})}));
    scene.sm->tunnelForReviewDel(tunnel("ldpTunnel/3"));  // its notification is late
    scene.put(scene.sr(2, {via("tunnel:ldpTunnel/3")}));
    scene.unprogrammable->entryDel(tunnel("ldpTunnel/3"));
    scene.settle();
    scene.restart();
    scene.sm->updateTunnelFibEntry(tunnel("srTunnel/1"));
    scene.settle();
    scene.del(scene.ldp(4, {}));
    scene.put(scene.ldp(5, {}));
    scene.settle();
    scene.put(scene.ldp(5, {via("if5", {7})}));
  }
  registry.levelIs("TunnelFibSm", 0);
  registry.traceDestinationIs(nullptr);
  for (const char* const line : {
           "6   Created GRE encapId gre/0",
           "6   Created MPLS encapId labelStack/0",
           "6   EncapId labelStack/0 refCount: 1",
           "6   Found existing MPLS encapId labelStack/0",
           "6   EncapId labelStack/0 refCount: 2",
           "6   encapId labelStack/1 deleted",
           "6 drainTunnelBacklog: Reviewed 1 tunnels. 0 remain in the backlog.",
           "6 drainTunnelBacklog: Yielding",
           "6 void Tunnel::TunnelTable::TunnelFibSm::drainTunnelBacklog(): 1 backlog entries",
           "7       Ignored flattened TunnelVia for tunnel srTunnel/1 via ",
           "7       Skipping vias for tunnel ldpTunnel/3 (marked unprocessed)",
           "7     Cycle detected while trying to create MplsVia for tunnelId srTunnel/1 via tunnelId srTunnel/1",
           "7     Next-level tunnel bgpLuTunnel/1 is not contributing to tunnel FIB",
           "7     Next-level tunnel ldpTunnel/3 is not ready",
           "7     Next-level tunnel ldpTunnel/3 is unprogrammable",
           "7     Next-level tunnel ldpTunnel/9 is missing its tunnel table entry",
           "7   tunnelId ldpTunnel/4 entry deleted",
           "7 Non push label operation for tableEntry: ",
           "8  TunnelId ldpTunnel/5 is now programmable",
           "8  TunnelId ldpTunnel/5 is unprogrammable because no tunnelVias",
           "8  tunnel id ldpTunnel/1 is not stale.",
           "8     doUpdateTunnelFibEntry tunnelId: ldpTunnel/4 (ldpTunnel) tunnelTableEntryUsable: 0",
           "8 addDependentTunnelsForReview tunnelId: ldpTunnel/3, adding srTunnel/1 for review",
           "8 adding non-stale tunnelFib entry for review: tunnelId: ldpTunnel/1",
           "8 handleLdpSrTunnelEntry, tunnelId: ldpTunnel/1",
           "8 handleTunnelFibEntry tunnelId: ldpTunnel/1",
           "8 updateTunnelFibEntry tunnelId: ldpTunnel/1 (ldpTunnel)",
           "8 virtual void Tunnel::TunnelTable::TunnelFibSm::handleInitialized()",
           "8 void Tunnel::TunnelTable::TunnelFibSm::removeStaleEntries()",
           "8 void Tunnel::TunnelTable::TunnelFibSm::updateTunnelFibEntry(const Tunnel::TunnelTable::TunnelId&) "
           "tunnelId: srTunnel/2 update is being deferred.",
       }) {
    const auto at = lines.lower_bound(line);
    EXPECT_TRUE(at != lines.end() && at->starts_with(line)) << line;
  }
}

}  // namespace
}  // namespace Tunnel
