// "tunnelctl diff" and "tunnelctl watch": what changes in between, and as it comes.

#include "tests/tools/Lab.h"

namespace Tools {
namespace {

class Diff : public testing::Test, protected Lab {
 protected:
  Answer diff(const OrderedJson& before, const OrderedJson& after, std::vector<std::string> options = {}) const {
    std::vector<std::string> words = {TUNNELCTL_PATH, "diff", scratch().fileWith("before.json", before.dump()),
                                      scratch().fileWith("after.json", after.dump())};
    words.insert(words.end(), options.begin(), options.end());
    Support::Process process(words, scratch() / ("diff" + std::to_string(++asked_)));
    const int status = process.wait();
    return {status, process.output()};
  }

 private:
  mutable int asked_ = 0;
};

TEST_F(Diff, whatWasAddedRemovedAndChanged) {
  publishLab();
  const OrderedJson before = ask({"state"}).json();
  EXPECT_EQ(diff(before, before).status, 0);
  OrderedJson after = before;
  OrderedJson& entries = after["ribs"][0]["entries"];
  ASSERT_EQ(entries[0]["tep"], "10.0.0.0/24");
  entries[0]["pref"] = 1;
  entries.erase(1);  // 10.0.0.5/32
  after["unprogrammable"].push_back("srTunnel/7");
  after["convergence"]["5"] = 12;
  const Answer answer = diff(before, after, {"--json"});
  EXPECT_EQ(answer.status, 1);
  std::multiset<std::string> told;
  const OrderedJson json = answer.json();
  for (const OrderedJson& change : json["changes"]) {
    told.insert(change["change"].get<std::string>() + " " + change["part"].get<std::string>() + " " +
                change["key"].get<std::string>());
  }
  EXPECT_EQ(told, (std::multiset<std::string>{"changed rib system 10.0.0.0/24", "removed rib system 10.0.0.5/32",
                                              "added unprogrammable srTunnel/7", "added convergence 5"}));
  EXPECT_NE(diff(before, after).text.find("-  rib system      10.0.0.5/32"), std::string::npos)
      << diff(before, after).text;
  const Answer cut = diff(before, after, {"--json", "--limit", "1"});
  EXPECT_EQ(cut.status, 1);
  EXPECT_EQ(cut.json()["changes"].size(), 1U);
}

TEST_F(Diff, whatIsNoDocumentIsRefused) {
  const OrderedJson empty = {{"ribs", OrderedJson::array()},
                             {"protocolRibs", OrderedJson::object()},
                             {"fib", OrderedJson::array()},
                             {"encaps", OrderedJson::array()},
                             {"unprogrammable", OrderedJson::array()},
                             {"convergence", OrderedJson::object()}};
  EXPECT_EQ(diff(empty, empty).status, 0);
  EXPECT_EQ(diff(empty, OrderedJson::object()).status, 2);
  EXPECT_EQ(diff(empty, OrderedJson("text")).status, 2);
  OrderedJson wrong = empty;
  wrong["fib"].push_back({{"tunnel", 5}});
  EXPECT_EQ(diff(wrong, empty).status, 2);
}

class Watch : public testing::Test, protected Lab {
 protected:
  Support::Process watch(std::vector<std::string> options = {}, const std::string& log = "watch.log") const {
    std::vector<std::string> words = {TUNNELCTL_PATH, "watch", "--json", "--state-dir", stateDirectory()};
    words.insert(words.end(), options.begin(), options.end());
    Support::Process process(words, scratch() / log);
    EXPECT_TRUE(process.says("watching")) << process.output();
    return process;
  }
  // Of each key what was told last, by "table key".
  static std::map<std::string, OrderedJson> toldBy(const Support::Process& process) {
    std::map<std::string, OrderedJson> last;
    std::istringstream lines(process.output());
    for (std::string line; std::getline(lines, line);) {
      if (const OrderedJson json = OrderedJson::parse(line, nullptr, false);
          !json.is_discarded() && json.contains("table")) {
        last[json["table"].get<std::string>() + " " + json["key"].get<std::string>()] = json;
      }
    }
    return last;
  }
  // Becomes the whole of table ldp.
  int publishLdp(const std::string& tunnels) const {
    std::string lines;
    for (const char tunnel : tunnels) {
      const std::string index(1, tunnel);
      lines += R"({"table": "ldp", "put": {"index": )" + index + R"(, "tep": "10.0.0.)" + index +
               R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [77]}]}})" + "\n";
    }
    return publishAll({scratch().fileWith("ldp.jsonl", lines)});
  }
};

// Fails if a change is missed or told before it can be read.
TEST_F(Watch, changesComeWithTheirEntries) {
  publishLab();
  Support::Process agent = serve();
  ASSERT_TRUE(Support::becomes([&] { return ask({"show", "processes"}).text.find("fib") != std::string::npos; }));
  const Support::Process all = watch();
  Support::Process ldp = watch({"--tunnel", "ldpTunnel/5", "--limit", "2"}, "ldp.log");
  ASSERT_EQ(publishLdp("6"), 0);
  ASSERT_TRUE(Support::becomes([&] { return toldBy(all).contains("unprogrammable srTunnel/9"); })) << all.output();
  ASSERT_TRUE(Support::becomes([&] { return toldBy(all).contains("rib system 10.0.0.9/32"); })) << all.output();
  auto last = toldBy(all);
  EXPECT_EQ(last["ldp ldpTunnel/6"]["entry"]["vias"][0]["labels"], OrderedJson::array({77}));
  EXPECT_EQ(last["fib ldpTunnel/6"]["entry"]["vias"][0]["encap"]["labels"], OrderedJson::array({77}));
  EXPECT_TRUE(last["ldp ldpTunnel/5"]["entry"].is_null());
  EXPECT_TRUE(last["fib srTunnel/9"]["entry"].is_null()) << "went with its next level";
  EXPECT_TRUE(last["rib system 10.0.0.9/32"]["entry"].is_null());
  EXPECT_GT(last["fib ldpTunnel/6"]["sequence"], 0);
  EXPECT_EQ(ldp.wait(), 0) << "the limit ends it";
  for (const auto& [key, json] : toldBy(ldp)) {
    EXPECT_TRUE(key.ends_with("ldpTunnel/5") || key == "rib system 10.0.0.5/32") << key;
  }
}

// Fails if a successor's writes, a RIB that is configured later, or a table that is published first meanwhile are not
// heard of, or if looking for them costs processor time.
TEST_F(Watch, outlivesThoseWhoWrite) {
  ASSERT_EQ(publishLdp("5"), 0);
  Support::Process all = watch();
  const std::string config = scratch().fileWith("rib.jsonl", R"({"rib": "system", "tables": {"ldp": {}}})");
  Support::Process agent = serve({"--config", config});
  ASSERT_TRUE(Support::becomes([&] { return toldBy(all).contains("fib ldpTunnel/5"); })) << all.output();
  agent.stop(SIGKILL);
  std::ofstream(config, std::ios::app) << "\n"
                                       << R"({"rib": "late", "tables": {"ldp": {"pref": 7}}})"
                                       << "\n";
  const Support::Process successor = serve({"--config", config});
  ASSERT_TRUE(Support::becomes([&] { return toldBy(all).contains("rib late 10.0.0.5/32"); })) << all.output();
  ASSERT_EQ(publishLdp("56"), 0);
  ASSERT_TRUE(Support::becomes([&] { return toldBy(all).contains("rib late 10.0.0.6/32"); })) << all.output();
  const double before = all.cpuSeconds();
  usleep(300000);
  EXPECT_LT(all.cpuSeconds() - before, 0.05);
  EXPECT_EQ(all.stop(SIGINT), 0);
}

TEST_F(Watch, saysSoWhenItsDirectoryGoes) {
  ASSERT_EQ(publishLdp("5"), 0);
  Support::Process all = watch();
  std::filesystem::rename(stateDirectory(), scratch() / "elsewhere");
  EXPECT_TRUE(all.says("the state directory was removed or replaced"));
  EXPECT_EQ(all.wait(), 1);
}

}  // namespace
}  // namespace Tools
