// The running agent, asked through its control socket and told what to do.

#include <sys/socket.h>

#include <regex>

#include "agent/ControlAddress.h"
#include "tests/tools/Lab.h"
#include "tools/ControlClient.h"

namespace Tools {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool doesMemoryTell = false;  // what is freed is kept for a while
#else
constexpr bool doesMemoryTell = true;
#endif

class Control : public testing::Test, protected Lab {
 protected:
  Support::Process serveReady(std::vector<std::string> options = {}) const {
    Support::Process agent = serve(std::move(options));
    const auto isReady = [&] {
      try {
        const OrderedJson now = stats();
        return now["pid"] == agent.pid() && now["state"] == "ready";
      } catch (const std::runtime_error&) {
        return false;
      }
    };
    EXPECT_TRUE(Support::becomes(isReady)) << agent.output();
    return agent;
  }
  ControlClient client() const { return ControlClient(stateDirectory(), 20); }
  OrderedJson stats() const { return client().ask("stats.get"); }
  std::string words(std::vector<std::string> command, int status = 0) const {
    const Answer answer = ask(std::move(command));
    EXPECT_EQ(answer.status, status) << answer.text;
    return answer.text;
  }
};

TEST_F(Control, countsWhatItDoes) {
  const Support::Process agent = serveReady();
  EXPECT_EQ(stats()["reviews"], 0);
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  ASSERT_TRUE(Support::becomes([&] { return document()["unprogrammable"].size() == 1; })) << agentLog();
  OrderedJson now;
  ASSERT_TRUE(Support::becomes([&] {
    now = stats();
    return now["state"] == "ready" && now["backlog"]["fib"] == 0;
  }));
  EXPECT_EQ(now["pid"], agent.pid());
  EXPECT_GE(now["reviews"], 7 + 6) << "each tunnel by the FIB, and those that RIBs take by the RIB";
  EXPECT_EQ(now["publishToFib"]["count"], 6) << "each that came into the FIB, not the unprogrammable one";
  EXPECT_EQ(now["publishToFib"]["buckets"].back()["count"], 6);
  EXPECT_GT(now["slices"]["count"], 0);
  EXPECT_EQ(now["backlog"]["unreadChanges"], 0);
  EXPECT_EQ(now["backlog"]["ribs"], OrderedJson({{"system", 0}}));
  EXPECT_GT(now["residentBytes"], 1000000);
}

TEST_F(Control, aConfigurationIsAppliedAsAWholeOrNotAtAll) {
  Support::Process agent = serveReady();
  const std::string good = scratch().fileWith("good.jsonl", R"(
{"rib": "a", "tables": {"ldp": {"pref": 7}, "sr": {}}}
{"rib": "b \"quoted\"", "tables": {}}
)");
  const std::string bad = scratch().fileWith(
      "bad.jsonl", "{\"rib\": \"c\", \"tables\": {}}\n{\"rib\": \"a\", \"tables\": {\"gre\": {}}}\n");
  EXPECT_TRUE(words({"config", "apply", good}).starts_with("added a\nadded b \"quoted\"\n3 RIBs configured"));
  const std::string shown = words({"config", "show"});
  EXPECT_NE(shown.find(R"({"rib": "a", "tables": {"ldp": {"pref": 7}, "sr": {}}})"), std::string::npos) << shown;
  EXPECT_EQ(words({"config", "check", scratch().fileWith("shown.jsonl", shown)}),
            scratch() / "shown.jsonl" + ": valid, 3 RIBs\n");
  ASSERT_TRUE(Support::becomes([&] { return document()["ribs"].size() == 3; })) << agentLog();

  for (const std::string command : {"check", "apply"}) {
    EXPECT_NE(words({"config", command, bad}, 2).find("bad.jsonl:2: tables.gre: "), std::string::npos);
  }
  try {  // the agent does not rely on who asks
    client().ask("config.apply", {{"config", Support::contentsOf(bad)}, {"name", "bad.jsonl"}});
    ADD_FAILURE() << "not refused";
  } catch (const Agent::ScenarioError& error) {
    EXPECT_NE(std::string(error.what()).find("bad.jsonl:2: tables.gre: "), std::string::npos) << error.what();
  }
  EXPECT_EQ(words({"config", "show"}), shown);
  EXPECT_NE(words({"config", "apply", scratch().fileWith("big.jsonl", std::string(70000, '\n'))}, 2).find("too many"),
            std::string::npos);

  agent.stop(SIGKILL);
  const OrderedJson published = ask({"config", "show", "--json"}).json();
  EXPECT_EQ(published["source"], "tables");
  EXPECT_EQ(published["ribs"].size(), 3U);
  EXPECT_NE(published["note"].get<std::string>().find("no agent is running"), std::string::npos);
}

// A RIB that is configured anew is built from the tables alone, and one that cannot be read would be missing in it.
TEST_F(Control, noConfigurationIsTakenWhileATableCannotBeRead) {
  Support::Process agent = serveReady();
  const std::string before = words({"config", "show"});
  const std::string good = scratch().fileWith("good.jsonl", "{\"rib\": \"a\", \"tables\": {\"ldp\": {}}}\n");
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  std::filesystem::resize_file(stateDirectory() + "/tunnel/table/ldp", 100);
  ASSERT_TRUE(Support::becomes([&] { return agent.says("tunnel/table/ldp"); })) << agentLog();
  EXPECT_NE(words({"config", "apply", good}, 2).find("tables cannot be read now"), std::string::npos);
  EXPECT_EQ(words({"config", "show"}), before);
}

TEST_F(Control, aSocketThatIsRemovedIsMadeAgain) {
  Support::Process agent = serveReady();
  const std::string before = words({"config", "show"});
  std::filesystem::remove(stateDirectory() + "/" + Agent::controlSocketName);
  EXPECT_TRUE(Support::becomes([&] {
    return std::filesystem::exists(stateDirectory() + "/" + Agent::controlSocketName);
  })) << agentLog();
  EXPECT_EQ(words({"config", "show"}), before);
}

// What is configured while it waits is in force when it starts.
TEST_F(Control, anAgentThatWaitsAnswers) {
  const std::string ldp = scratch().fileWith(
      "ldp.jsonl",
      R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12"}]}})");
  {
    const Support::Process agent = serveReady();
    ASSERT_EQ(publishAll({ldp}), 0);
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 1; })) << agentLog();
  }
  std::filesystem::remove(stateDirectory() + "/tunnel/table/ldp");
  const Support::Process agent = serve();
  ASSERT_TRUE(agent.says("waiting: table ldp is absent")) << agent.output();
  EXPECT_EQ(stats()["state"], "waiting");
  EXPECT_EQ(stats()["waitingFor"], OrderedJson({"table ldp is absent, 1 entry came from it"}));
  words({"config", "apply", scratch().fileWith("a.jsonl", R"({"rib": "a", "tables": {"ldp": {"pref": 7}}})")});
  ASSERT_EQ(publishAll({ldp}), 0);
  EXPECT_TRUE(Support::becomes([&] {
    const OrderedJson now = document();
    return now["ribs"].size() == 2 && now["ribs"][1]["name"] == "a" && now["ribs"][1]["entries"].size() == 1;
  })) << agentLog();
  EXPECT_TRUE(Support::becomes([&] { return stats()["state"] == "ready"; }));
}

TEST_F(Control, traceLevelsTakeEffect) {
  const Support::Process agent = serveReady();
  const std::string levels = words({"trace", "set", "TunnelFibSm=8", "TunnelRibSm=3"});
  EXPECT_TRUE(std::regex_search(levels, std::regex("TunnelFibSm +8"))) << levels;
  EXPECT_TRUE(std::regex_search(levels, std::regex("TunnelRibSm +3"))) << levels;
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  EXPECT_TRUE(agent.says("updateTunnelFibEntry tunnelId: ")) << agentLog().substr(0, 2000);
  words({"trace", "set", "*=0"});
  for (const std::string wrong : {"TunnelFibSm", "TunnelFibSm=10", "=3", "Misspelt=3"}) {
    EXPECT_NE(words({"trace", "set", "*=9", wrong}, 2).find(wrong.substr(0, 8)), std::string::npos);
    try {  // the agent does not rely on who asks
      client().ask("trace.set", {{"settings", {"*=9", wrong}}});
      ADD_FAILURE() << wrong << " is not refused";
    } catch (const Agent::ScenarioError&) {
    }
  }
  EXPECT_EQ(client().ask("trace.get")["default"], 0) << "refused as a whole";
  EXPECT_NE(words({"trace", "set", "Misspelt=3"}, 2).find("Memtab, PreferenceMapperSm, "), std::string::npos);
}

TEST_F(Control, whoCannotBeAskedIsNamed) {
  EXPECT_NE(words({"trace", "show"}, 1).find("no such state directory"), std::string::npos);
  Support::Process agent = serveReady();
  agent.signal(SIGSTOP);
  const Answer hung = ask({"trace", "show", "--timeout", "0.2", "--json"});
  EXPECT_EQ(hung.status, 1);
  EXPECT_NE(hung.json()["error"]["reason"].get<std::string>().find(
                "agent.sock: the agent (pid " + std::to_string(agent.pid()) + ") has not answered for 0.2 seconds"),
            std::string::npos)
      << hung.text;
  EXPECT_EQ(hung.text.find("may still"), std::string::npos) << "nothing was ordered";
  EXPECT_NE(words({"trace", "set", "TunnelFibSm=3", "--timeout", "0.2"}, 1).find("may still carry the order out"),
            std::string::npos);
  agent.stop(SIGKILL);
  EXPECT_NE(words({"trace", "show"}, 1).find("agent.sock: no agent is running"), std::string::npos);
  EXPECT_EQ(ask({"trace", "show", "--timeout", "never"}).status, 2);
  EXPECT_EQ(ask({"config"}).status, 2);

  const Support::Process successor = serveReady();
  EXPECT_EQ(stats()["pid"], successor.pid()) << "the dead agent's socket is in nobody's way";
}

TEST_F(Control, anAgentWithoutASocketIsNotTakenForNone) {
  std::filesystem::create_directory(stateDirectory());
  std::filesystem::permissions(stateDirectory(), std::filesystem::perms(0750));
  std::ofstream(stateDirectory() + "/agent.sock") << "no socket";
  const Support::Process agent = serve();
  ASSERT_TRUE(agent.says("ready")) << agent.output();
  const std::string runs = "the agent (pid " + std::to_string(agent.pid()) + ") runs without a control socket";
  EXPECT_NE(words({"trace", "show"}, 1).find(runs), std::string::npos);
  EXPECT_NE(words({"top", "--interval", "0.05", "--count", "1"}).find(runs), std::string::npos);
}

// Fails if an answer is used that is well-formed and yet does not hold what was asked for.
TEST_F(Control, answersThatHoldSomethingElseAreRefused) {
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  const Memtab::Descriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
  const Agent::ControlAddress address(stateDirectory());
  ASSERT_EQ(bind(listener.get(), address.get(), Agent::ControlAddress::size()), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  struct Case {
    int line;
    const char* command;
    const char* answer;
    const char* says;
  };
  for (const Case& each : {
           Case{__LINE__, "metrics", R"({"result": {}, "id": 1})", "result.pid is missing"},
           {__LINE__, "top", R"({"result": {"pid": -5}, "id": 1})", "result.pid is missing or of another kind"},
           {__LINE__, "trace", R"({"result": {"default": 0, "sources": [{"level": 3}]}, "id": 1})",
            "result.sources[0].source is missing"},
           {__LINE__, "trace", R"({"result": {"default": 0, "sources": []}, "id": 2})", "another question"},
           {__LINE__, "trace", R"({"error": {"code": "5"}, "id": 1})", "answer.error.code"},
           {__LINE__, "trace", "[]", "answer is missing"},
       }) {
    std::thread agent([&] {
      const Memtab::Descriptor client(accept(listener.get(), nullptr, nullptr));
      const std::string line = std::string(each.answer) + "\n";
      send(client.get(), line.data(), line.size(), MSG_NOSIGNAL);
      char byte = 0;
      while (recv(client.get(), &byte, 1, 0) > 0) {
      }
    });
    const std::string command = each.command;
    const std::string text = command == "trace" ? words({"trace", "show"}, 1) : words({command}, 1);
    agent.join();
    EXPECT_NE(text.find(each.says), std::string::npos) << "case in line " << each.line << ": " << text;
  }
}

// Every line is a comment, or a value of the metric that was described last; its name, labels and value are of the
// form.
void expectExposition(const std::string& text) {
  const std::regex sample(R"re(([a-z_]+)(\{[a-z]+="([^"\\]|\\.)*"(,[a-z]+="([^"\\]|\\.)*")*\})? [-+0-9.e]+)re");
  const std::regex described(R"(# (HELP|TYPE) ([a-z_]+) .+)");
  std::istringstream lines(text);
  std::string family;
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, match, described)) {
      family = match[2];
    } else if (!line.starts_with("# ")) {
      ASSERT_TRUE(std::regex_match(line, match, sample)) << line;
      EXPECT_TRUE(match[1].str().starts_with(family)) << line;
    }
  }
}

TEST_F(Control, metricsAreAsTheirReadersWantThem) {
  const std::string config = scratch().fileWith("rib.jsonl", R"({"rib": "a \"b\" \\c", "tables": {}})");
  {
    const Support::Process agent = serveReady({"--config", config});
    ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 6; })) << agentLog();
    const std::string text = words({"metrics"});
    expectExposition(text);
    for (const char* const line :
         {"tunnel_agent_up 1\n", "tunnel_agent_ready 1\n",
          "tunnel_agent_backlog{of=\"rib\",rib=\"a \\\"b\\\" \\\\c\"} 0\n",
          "tunnel_agent_publish_to_fib_seconds_bucket{le=\"+Inf\"} 6\n", "tunnel_table_entries{table=\"ldp\"} 2\n",
          "tunnel_table_entries{table=\"fib\"} 6\n", "tunnel_table_writer_alive{table=\"fib\"} 1\n"}) {
      EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
  }
  const std::string text = words({"metrics"});
  expectExposition(text);
  for (const char* const line :
       {"tunnel_agent_up 0\n", "tunnel_table_entries{table=\"fib\"} 6\n", "tunnel_table_complete{table=\"ldp\"} 1\n",
        "tunnel_table_complete{table=\"sr\"} 1\n", "tunnel_table_complete{table=\"rsvp\"} 0\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
  EXPECT_EQ(text.find("slice"), std::string::npos);
  EXPECT_EQ(ask({"metrics", "--json"}).json()["up"], false);
}

TEST_F(Control, topShowsRatesWithAndWithoutAnAgent) {
  {
    const Support::Process agent = serveReady();
    const Support::Process publisher = publish({"-"});
    const std::vector<std::string> words = {TUNNELCTL_PATH, "top",         "--json",        "--interval",
                                            "0.5",          "--state-dir", stateDirectory()};
    const Support::Process top(words, scratch() / "top.log");
    const auto lastFrame = [&] {
      const std::string text = top.output();
      const std::size_t end = text.rfind('\n');
      const std::size_t begin = end == std::string::npos || end == 0 ? end : text.rfind('\n', end - 1);
      return end == std::string::npos ? OrderedJson() : OrderedJson::parse(text.substr(begin + 1, end - begin - 1));
    };
    ASSERT_TRUE(Support::becomes([&] { return lastFrame().is_object(); }));
    publisher.tell(labScenario);
    publisher.tell("{\"settle\": true}\n");
    EXPECT_TRUE(Support::becomes([&] {
      const OrderedJson frame = lastFrame();
      return frame["agent"]["reviewsPerSecond"] > 0 && frame["agent"]["publishToFib"]["perSecond"] > 0 &&
             frame["agent"]["publishToFib"]["p99"].is_number();
    })) << top.output();
    const std::string text = this->words({"top", "--interval", "0.05", "--count", "2"});
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << "no terminal";
    EXPECT_TRUE(std::regex_search(text, std::regex("agent [0-9]+ ready, up ")));
    EXPECT_TRUE(std::regex_search(text, std::regex("\nldp +2 +0\\.0 +complete +alive"))) << text;
    setenv("COLUMNS", "60", 1);
    std::istringstream narrow(this->words({"top", "--interval", "0.05", "--count", "1"}));
    unsetenv("COLUMNS");
    for (std::string line; std::getline(narrow, line);) {
      EXPECT_LE(line.size(), 60U) << line;
    }
  }
  const std::string text = words({"top", "--interval", "0.05", "--count", "1"});
  EXPECT_TRUE(std::regex_search(text, std::regex("no agent is running.*\n"))) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("\nfib +6 +0\\.0 +complete +gone"))) << text;
}

// One connection, all requests before the first answer is read. What was answered, a line each.
std::string askAtOnce(const std::string& stateDirectory, const std::vector<std::string>& lines) {
  const Memtab::Descriptor fd(socket(AF_UNIX, SOCK_STREAM, 0));
  const Agent::ControlAddress address(stateDirectory);
  EXPECT_EQ(connect(fd.get(), address.get(), Agent::ControlAddress::size()), 0);
  for (const std::string& line : lines) {
    EXPECT_EQ(send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
  }
  shutdown(fd.get(), SHUT_WR);
  std::string answers;
  std::array<char, 65536> bytes;
  for (ssize_t got = 0; (got = recv(fd.get(), bytes.data(), bytes.size(), 0)) > 0;) {
    answers.append(bytes.data(), static_cast<std::size_t>(got));
  }
  return answers;
}

// With CONTROL_REQUESTS=100000 as many.
TEST_F(Control, requestsLeaveNothingBehind) {
  const Support::Process agent = serveReady();
  constexpr int atOnce = 50;
  const auto request = [](const std::string& method, const OrderedJson& params) {
    return Agent::textOf({{"jsonrpc", "2.0"}, {"method", method}, {"params", params}, {"id", 1}}) + "\n";
  };
  const auto askMany = [&](int rounds) {
    for (int i = 0; i < rounds; ++i) {
      const std::string name = std::to_string(i);
      const std::string rib = R"({"rib": ")" + name + R"(", "tables": {"ldp": {"pref": 7}}})";
      std::vector<std::string> lines = {request("config.apply", {{"config", rib}}),
                                        request("none", {{"with", std::string(60000, 'x')}}), "nonsense\n"};
      while (lines.size() < atOnce) {
        lines.push_back(request("config.get", OrderedJson::object()));
        lines.push_back(request("trace.set", {{"settings", {"*=0", "TunnelFibSm=1", "new=1"}}}));
        lines.push_back(request("stats.get", OrderedJson::object()));
      }
      const std::string answers = askAtOnce(stateDirectory(), lines);
      EXPECT_EQ(static_cast<std::size_t>(std::count(answers.begin(), answers.end(), '\n')), lines.size());
    }
    return stats()["residentBytes"].get<std::int64_t>();
  };
  const char* const configured = std::getenv("CONTROL_REQUESTS");
  const int requests = configured == nullptr ? 2000 : std::atoi(configured);
  const std::int64_t before = askMany(10);
  const std::int64_t after = askMany(requests / atOnce);
  std::cout << requests << " requests: " << before << " bytes before, " << after << " behind\n";
  if (doesMemoryTell) {
    EXPECT_LT(after - before, 512 * 1024);
  }
  EXPECT_EQ(stats()["control"]["clients"], 1);
}

}  // namespace
}  // namespace Tools
