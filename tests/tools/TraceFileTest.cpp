// The trace file of an agent, and that questions and runs leave none.
#include <algorithm>

#include "runtime/Fastlog/RingReader.h"
#include "tests/tools/Lab.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Tools {
namespace {

namespace Fs = std::filesystem;

class TraceFile : public testing::Test, protected Lab {
 protected:
  std::string directory() const { return stateDirectory() + "/trace"; }
  std::string path() const { return directory() + "/Tunnel.fl"; }
  // The first line of the file that has this text.
  static std::optional<Fastlog::RingLine> find(const std::string& path, const std::string& text) {
    const auto lines = Fastlog::RingReader(path).read().lines;
    const auto line = std::find_if(lines.begin(), lines.end(), [&](const Fastlog::RingLine& each) {
      return each.text.find(text) != std::string::npos;
    });
    return line == lines.end() ? std::nullopt : std::optional(*line);
  }
  // Whether the agent's file gets such a line. A starting agent may not have created the file yet.
  bool has(const std::string& text) const {
    return Support::becomes([&] {
      try {
        return find(path(), text).has_value();
      } catch (const Zol::Exception&) {
        return false;
      }
    });
  }
  int publishLines(const std::string& lines) const { return publishAll({scratch().fileWith("lines.jsonl", lines)}); }
  Support::Process with(std::vector<std::string> variables, std::vector<std::string> words,
                        const std::string& output) const {
    variables.insert(variables.begin(), "/usr/bin/env");
    variables.insert(variables.end(), words.begin(), words.end());
    return Support::Process(variables, scratch() / output);
  }
};

// Fails if what a post-mortem needs is not in the file, or a kill, a refused second agent or a restart costs it.
TEST_F(TraceFile, holdsWhatAPostMortemNeeds) {
  Support::Process agent = serve();
  ASSERT_TRUE(agent.says("ready"));
  const std::string process = "process " + std::to_string(agent.pid());
  EXPECT_TRUE(has(process));
  EXPECT_TRUE(has("ready: "));
  EXPECT_EQ(find(path(), "ready: ")->source, "agent");
  ASSERT_EQ(publishLines(labScenario), 0);
  EXPECT_TRUE(has("tunnelId srTunnel/8 becomes unprogrammable: no tunnelVias"));
  EXPECT_TRUE(has("converged, sequence number"));
  const std::string some = labScenario;
  ASSERT_EQ(
      publishLines(some.substr(0, some.find("{\"table\": \"static\"")) + "{\"table\": \"static\", \"delete\": 3}\n"),
      0);
  EXPECT_TRUE(has("tunnelId staticTunnel/3 withdrawn from the FIB"));
  EXPECT_TRUE(has("tep 10.0.0.0/24 withdrawn from ribId 0"));
  EXPECT_FALSE(find(path(), "drainTunnelBacklog")) << "details are off";
  ASSERT_EQ(ask({"trace", "set", "*=9"}).status, 0);
  ASSERT_EQ(publishLines(labScenario), 0);
  EXPECT_TRUE(has("drainTunnelBacklog"));
  EXPECT_EQ(find(path(), "updateTunnelFibEntry tunnelId: ")->level, 8U);
  for (const Fastlog::RingLine& line : Fastlog::RingReader(path()).read().lines) {
    const auto& known = Tunnel::traceSources;
    EXPECT_TRUE(line.source == "agent" || std::find(known.begin(), known.end(), line.source) != known.end())
        << line.source << " cannot be set";
  }
  EXPECT_EQ(serveAs("second.log").wait(), 1) << "another agent serves this directory";
  const auto size = Fs::file_size(path());
  agent.stop(SIGKILL);
  EXPECT_TRUE(has(process)) << "the agent that was refused has not taken the file";
  EXPECT_TRUE(find(path(), "drainTunnelBacklog"));

  for (int i = 0; i < 3; ++i) {
    Support::Process next = serve();
    const std::string nextProcess = "process " + std::to_string(next.pid());
    EXPECT_TRUE(has(nextProcess));
    EXPECT_EQ(find(path() + ".1", process).has_value(), i == 0) << "the previous one is kept";
    EXPECT_EQ(Fs::file_size(path()), size);
    EXPECT_EQ(std::distance(Fs::directory_iterator(directory()), Fs::directory_iterator()), 2);
    next.stop(SIGKILL);
  }
}

TEST_F(TraceFile, questionsAndRunsLeaveNone) {
  publishLab();
  Fs::create_directory(scratch() / "tmp");
  const std::vector<std::vector<std::string>> questions = {{"why", "srTunnel/9"},
                                                           {"verify"},
                                                           {"dependents", "ldpTunnel/5"},
                                                           {"what-if", "--fail-intf", "if12"},
                                                           {"show", "unprogrammable", "--reason"}};
  const auto isTemporaryEmpty = [&] { return Fs::is_empty(scratch() / "tmp"); };
  for (std::vector<std::string> words : questions) {
    words.insert(words.begin(), TUNNELCTL_PATH);
    words.insert(words.end(), {"--state-dir", stateDirectory()});
    Support::Process question = with({"TMPDIR=" + (scratch() / "tmp")}, words, "question");
    question.wait();
    EXPECT_TRUE(isTemporaryEmpty()) << words[1];
  }
  const std::vector<std::string> run = {TUNNEL_AGENT_PATH, "run", scratch() / "lab.jsonl"};
  EXPECT_EQ(with({"TMPDIR=" + (scratch() / "tmp")}, run, "run").wait(), 0);
  EXPECT_TRUE(isTemporaryEmpty());
  EXPECT_EQ(with({"FLFILE=" + (scratch() / "asked.fl")}, run, "run").wait(), 0);
  EXPECT_TRUE(Fs::exists(scratch() / "asked.fl")) << "who asks has one";
  EXPECT_EQ(with({"FASTLOG_DISABLE="}, {TUNNEL_AGENT_PATH, "serve", "--state-dir", scratch() / "none"}, "disabled")
                .says("ready"),
            true);
  EXPECT_FALSE(Fs::exists(scratch() / "none/trace"));
}

// Fails if an agent ends, or says nothing, because its trace file cannot be created.
TEST_F(TraceFile, aFileThatCannotBeCreatedIsAWarning) {
  const std::string scenario = scratch().fileWith("lab.jsonl", labScenario);
  Support::Process run = with({"TMPDIR=/nonexistent"}, {TUNNEL_AGENT_PATH, "run", scenario}, "run");
  EXPECT_EQ(run.wait(), 0) << run.output();
  EXPECT_NE(run.output().find("+ FIB"), std::string::npos);
  Support::Process asked = with({"FLFILE=/nonexistent/x"}, {TUNNEL_AGENT_PATH, "run", scenario}, "asked");
  EXPECT_EQ(asked.wait(), 0);
  const std::string problem = ": cannot be created: No such file or directory; trace lines are dropped\n";
  EXPECT_NE(asked.output().find("trace file /nonexistent/x" + problem), std::string::npos) << asked.output();
  const Support::Process agent =
      with({"FASTLOGDIR=/nonexistent"}, {TUNNEL_AGENT_PATH, "serve", "--state-dir", stateDirectory()}, "agent");
  EXPECT_TRUE(agent.says("ready"));
  EXPECT_TRUE(agent.says("tunnel-agent: trace file /nonexistent/Tunnel.fl" + problem)) << agent.output();
}

// Fails if a restart, which keeps a second file, takes the space of tables on a small file system.
TEST_F(TraceFile, takesLittleOfASmallFileSystem) {
  Fs::create_directory(scratch() / "small");
  const std::string mount = "mount -t tmpfs -o size=2m tmpfs " + (scratch() / "small");
  if (Support::Process({"/usr/bin/unshare", "-m", "/bin/sh", "-c", mount}, scratch() / "mount").wait() != 0) {
    GTEST_SKIP() << "no permission to mount a file system";
  }
  const std::string run = "FASTLOGDIR=" + (scratch() / "small") + " " TUNNEL_AGENT_PATH " run " +
                          scratch().fileWith("lab.jsonl", labScenario);
  const std::string sizes = "stat -c '%n %s' " + (scratch() / "small/*");
  Support::Process process(
      {"/usr/bin/unshare", "-m", "/bin/sh", "-c", mount + " && " + run + " && " + run + " && " + sizes},
      scratch() / "output");
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(process.says("Tunnel.fl 65536\n", 0)) << process.output();
  EXPECT_TRUE(process.says("Tunnel.fl.1 65536\n", 0)) << process.output();
}

}  // namespace
}  // namespace Tools
