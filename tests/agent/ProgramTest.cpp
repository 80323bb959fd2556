// The program through its command line.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "agent/JsonText.h"

namespace Agent {
namespace {

struct Result {
  int status;
  std::string output;  // standard output and standard error
};

class Program : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "agentXXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string file(const std::string& name) const { return (directory_ / name).string(); }
  std::string fileWith(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }
  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  // The arguments as a shell reads them.
  static Result run(const std::string& arguments) {
    const std::string command = "(" TUNNEL_AGENT_PATH " " + arguments + ") 2>&1";
    FILE* const pipe = popen(command.c_str(), "r");
    Result result{-1, ""};
    std::array<char, 4096> buffer{};
    for (std::size_t got = 0; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
      result.output.append(buffer.data(), got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
  }

  std::filesystem::path directory_;
  const std::string put_ =
      R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}]}})"
      "\n";
};

TEST_F(Program, exitStatusTellsWhatWentWrong) {
  const std::string good = fileWith("good.jsonl", put_);
  const std::string bad = fileWith("bad.jsonl", put_ + "{\"settle\": 1}\n");
  struct Row {
    int line;
    std::string arguments;
    int status;
    std::string says;
  };
  for (const Row& row : std::vector<Row>{
           {__LINE__, "run " + good, 0, "+ system  10.0.0.5/32  ldpTunnel/5 (55)"},
           {__LINE__, "run - < " + good, 0, "+ FIB  ldpTunnel/5  if12 192.0.2.1 [300123]"},
           {__LINE__, "--version", 0, "tunnel-agent 0."},
           {__LINE__, "run --help", 0, "SCENARIO"},
           {__LINE__, "run " + bad, 2, bad + ":2: settle: neither true nor false\n"},
           {__LINE__, "run - < " + bad, 2, "<stdin>:2: settle: neither true nor false\n"},
           {__LINE__, "run " + file("absent"), 2, "cannot be opened"},
           {__LINE__, "run " + directory_.string(), 2, "cannot be read"},
           {__LINE__, "", 2, "subcommand"},
           {__LINE__, "run", 2, "SCENARIO"},
           {__LINE__, "run --nothing " + good, 2, "--nothing"},
           {__LINE__, "run --tep 10.0.0.5/8 " + good, 2, "--tep"},
           {__LINE__, "run --rib c1 " + good, 2, "no RIB 'c1'"},
           {__LINE__, "run --tunnel ldpTunnel/5 " + good, 0,
            "ldpTunnel/5 to 10.0.0.5/32\n└─ if12 192.0.2.1 [300123]\n"},
           {__LINE__, "run --tunnel ldpTunnel/6 " + good, 2, "--tunnel: no table entry of ldpTunnel/6 at the end"},
           {__LINE__, "run --tunnel ldp/5 " + good, 2, "--tunnel: 'ldp' is not a tunnel type"},
           {__LINE__, "run --why 5 " + good, 2, "--why: '5' is not a tunnel id"},
           {__LINE__, "run --why ldpTunnel/17592186044416 " + good, 2, "--why"},
           {__LINE__, "run --why ldpTunnel/6 --why ldpTunnel/5 " + good, 0,
            "why ldpTunnel/6\n├─ not in the FIB, no entry in table ldp\n└─ RIBs\n   └─ system: no entry in table ldp\n"
            "why ldpTunnel/5\n├─ in the FIB with 1 via\n"},
           {__LINE__, "run --state --why ldpTunnel/5 " + good, 2, "--tunnel and --why need --state=FILE"},
           {__LINE__, "run --state=" + file("s.json") + " --why ldpTunnel/5 " + good, 0, "why ldpTunnel/5\n"},
           {__LINE__, "run --trace ldp " + good, 2, "--trace"},
           {__LINE__, "run --trace foo=3 " + good, 2, "unknown trace source 'foo'; known are * (all), Memtab"},
           {__LINE__, "run --trace TunnelFibSm=8 " + good, 0, "TunnelFibWriter::handleInitialized()\n"},
           {__LINE__, "run --yield-every 0 " + good, 2, "--yield-every"},
           {__LINE__, "serve --wait-limit nan", 2, "--wait-limit: nan is not a number"},
           {__LINE__, "run --checkpoint-each-settle " + good, 2, "--checkpoints"},
           {__LINE__, "run --state=" + file("no/state") + " " + good, 1, "cannot be written: No such file"},
           {__LINE__, "run --checkpoints " + good + "/x " + good, 1, "cannot be created"},
           {__LINE__, "run --state " + good + " > /dev/full", 1, "standard output: cannot be written"},
           {__LINE__, "run --state " + good + " >&-", 0, ""},
           {__LINE__, "run --state " EXAMPLES_DIR "/geant.jsonl | head -c 10", 0, "{\"ribs\": ["},
           {__LINE__, "run --trace '*=8' --yield-every 1 " + good, 0, "TunnelRibBuilderSm 8 "},
       }) {
    const Result result = run(row.arguments);
    EXPECT_EQ(result.status, row.status) << "case in line " << row.line << ": " << result.output.substr(0, 500);
    EXPECT_NE(result.output.find(row.says), std::string::npos)
        << "case in line " << row.line << ": " << result.output.substr(0, 500);
  }
}

// Fails if a file's lines before a bad one are undone, or those behind it applied; or if --state mixes with other text.
TEST_F(Program, filesFollowEachOther) {
  const std::string first = fileWith("first.jsonl", put_ + "{\"settle\": true}\n{\"checkpoint\": \"one\"}\n");
  const std::string second = fileWith("second.jsonl", "{\"table\": \"ldp\", \"delete\": 5}\n{\"settle\": true}\n");
  const Result state = run("run --state " + first);
  ASSERT_EQ(state.status, 0);
  EXPECT_EQ(Json::parse(state.output)["fib"].size(), 1U);
  const Result both =
      run("run --state " + first + " " + second + " --checkpoints " + file("a/b") + " --checkpoint-each-settle");
  ASSERT_EQ(both.status, 0) << both.output;
  EXPECT_EQ(Json::parse(both.output)["fib"].size(), 0U);
  EXPECT_EQ(read(file("a/b/one.json")), state.output);
  EXPECT_EQ(read(file("a/b/first-2.json")), state.output);
  EXPECT_EQ(read(file("a/b/second-2.json")), both.output);
  EXPECT_EQ(run("run " + first + " --state=" + file("state.json")).status, 0);
  EXPECT_EQ(read(file("state.json")), state.output);
}

// Fails if the explanations that the manual shows are not those that the program gives.
TEST_F(Program, explainsAsDocumented) {
  const std::string manual = read(TEST_DATA_DIR "/../../docs/running.md");
  for (const auto& [option, begin] :
       {std::pair("--tunnel srTunnel/9", "\nsrTunnel/9 to"), std::pair("--why srTunnel/8", "\nwhy srTunnel/8")}) {
    const Result result = run(std::string("run " TEST_DATA_DIR "/explain/lab.jsonl ") + option);
    ASSERT_EQ(result.status, 0) << result.output;
    const std::size_t at = result.output.find(begin);
    ASSERT_NE(at, std::string::npos) << result.output;
    EXPECT_NE(manual.find(result.output.substr(at) + "```"), std::string::npos) << result.output;
  }
}

// The lab router that the captured scenario comes from forwards what the agent computes for it.
TEST_F(Program, forwardsAsTheCapturedRouterDoes) {
  ASSERT_EQ(run("run " EXAMPLES_DIR "/captured-isp.jsonl --checkpoint-each-settle --checkpoints " + file("c")).status,
            0);
  const Json oracle = Json::parse(read(EXAMPLES_DIR "/captured-isp.oracle.json"));
  for (const Json& step : oracle["steps"]) {
    Json fib = Json::object();
    Json expected = Json::object();
    const Json document = Json::parse(read(file("c/" + step["line"].dump() + ".json")));
    for (const Json& entry : document["fib"]) {
      fib[entry["tunnel"].get<std::string>()] = entry;
    }
    for (const Json& entry : step["fib"]) {
      expected[entry["tunnel"].get<std::string>()] = entry;
    }
    EXPECT_EQ(fib, expected) << step["step"] << ": " << Json::diff(expected, fib).dump(1).substr(0, 2000);
  }
}

}  // namespace
}  // namespace Agent
