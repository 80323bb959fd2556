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

class Watch : public testing::Test, protected Lab {};

}  // namespace
}  // namespace Tools
