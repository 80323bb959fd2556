// The process's trace file: its name, and what is in it after the process has died.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <list>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/RingReader.h"
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

}  // namespace
}  // namespace Tunnel
