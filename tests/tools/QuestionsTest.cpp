// What all commands have in common: they need no agent, and tell what is wrong with a question.

#include "tests/tools/ShadowRouter.h"

namespace Tools {
namespace {

using Words = std::vector<std::string>;

class Questions : public testing::Test, protected ShadowRouter {
 protected:
  static Words with(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
};

// Questions that abilene has an answer to.
const Words questions[] = {
    {"state"},
    {"show", "tables"},
    {"show", "ribs"},
    {"show", "fib"},
    {"show", "encaps"},
    {"show", "unprogrammable"},
    {"show", "convergence"},
    {"show", "processes"},
    {"show", "table", "ldp"},
    {"show", "rib", "system"},
    {"resolve", "10.0.0.7"},
    {"why", "ldpTunnel/1"},
    {"why", "10.0.0.7/32"},
    {"dependents", "tiLfaTunnel/2"},
    {"graph"},
    {"watch", "--limit", "1"},
    {"verify"},
    {"check"},
    {"what-if", "--fail-intf", "if12"},
    {"what-if", "--each", "intf"},
};

bool takesJson(const Words& words) { return words[0] != "state"; }

TEST_F(Questions, areAnsweredWithoutAnAgent) {
  publishExample("abilene");
  for (const Words& words : questions) {
    if (words[0] == "watch") {
      continue;  // nothing changes
    }
    const Answer text = ask(words);
    EXPECT_EQ(text.status, 0) << words.back() << ": " << text.text;
    EXPECT_FALSE(text.text.empty());
    if (takesJson(words)) {
      EXPECT_FALSE(OrderedJson::parse(ask(with(words, {"--json"})).text, nullptr, false).is_discarded()) << words[0];
    }
  }
}

TEST_F(Questions, aDirectoryThatIsNoneIsNamed) {
  const auto refused = [&](const std::string& reason) {
    for (const Words& words : questions) {
      const Answer text = ask(words);
      EXPECT_EQ(text.status, 1) << words[0];
      EXPECT_NE(text.text.find(stateDirectory() + ": " + reason), std::string::npos) << words[0] << ": " << text.text;
      if (takesJson(words)) {
        const Answer json = ask(with(words, {"--json"}));
        EXPECT_EQ(json.status, 1);
        EXPECT_EQ(json.json()["error"]["status"], 1) << words[0];
      }
    }
  };
  refused("no such state directory");
  std::filesystem::create_directory(stateDirectory());
  refused("no tables in it");
}

TEST_F(Questions, thatMakeNoSenseAreRefused) {
  publishExample("abilene");
  struct Row {
    int line;
    Words words;
    int status;
    const char* says;
  };
  const std::string wrong = scratch().fileWith("wrong.jsonl", "{\"settle\": true}\n{\"table\": \"ldp\"}\n");
  for (const Row& row : {
           Row{__LINE__, {}, 2, "is not known"},
           {__LINE__, {"shew"}, 2, "'shew' is not known"},
           {__LINE__, {"show"}, 2, "is not known"},
           {__LINE__, {"show", "fibs"}, 2, "'fibs' is not known"},
           {__LINE__, {"show", "rib"}, 2, "NAME"},
           {__LINE__, {"show", "rib", "blue"}, 1, "no RIB 'blue'"},
           {__LINE__, {"show", "table", "gre"}, 2, "no table 'gre'"},
           {__LINE__, {"show", "fib", "--limit", "0"}, 2, "--limit: '0' must be a positive integer"},
           {__LINE__, {"show", "fib", "--limit", "-1"}, 2, "--limit"},
           {__LINE__, {"show", "fib", "--limit", "many"}, 2, "--limit: 'many' must be"},
           {__LINE__, {"show", "tables", "--after", "none"}, 2, "--after: no row 'none'"},
           {__LINE__, {"show", "ribs", "--after", ""}, 2, "--after: no row ''"},
           {__LINE__, {"show", "fib", "--after", ""}, 2, "--after"},
           {__LINE__, {"show", "fib", "--after", "10.0.0.1/32"}, 2, "--after"},
           {__LINE__, {"show", "rib", "system", "--after", "ldpTunnel/1"}, 2, "--after"},
           {__LINE__, {"show", "fib", "--tunnel", "ldp/5"}, 2, "--tunnel: 'ldp' is not a tunnel type"},
           {__LINE__, {"show", "fib", "--type", "ldp"}, 2, "--type"},
           {__LINE__, {"show", "fib", "--tep", "10.0.0.1/8"}, 2, "--tep"},
           {__LINE__, {"show", "fib", "--next-hop", "10.0.0"}, 2, "--next-hop"},
           {__LINE__, {"show", "fib", "--intf", "eth0"}, 2, "--intf"},
           {__LINE__, {"show", "fib", "--label", "1048576"}, 2, "--label"},
           {__LINE__, {"show", "fib", "more"}, 2, "more"},
           {__LINE__, {"resolve"}, 2, "ADDRESS"},
           {__LINE__, {"resolve", "10.0.0.0/8"}, 2, "ADDRESS"},
           {__LINE__, {"resolve", "10.0.0.7", "--rib", "blue"}, 1, "no RIB 'blue'"},
           {__LINE__, {"resolve", "192.168.0.1"}, 1, "no entry of RIB system"},
           {__LINE__, {"why", "nonsense"}, 2, "neither a tunnel"},
           {__LINE__, {"why", "10.0.0.1/8"}, 2, "neither a tunnel"},
           {__LINE__, {"why", "192.168.0.1"}, 1, "no tunnel endpoint has this address"},
           {__LINE__, {"dependents", "10.0.0.7/32"}, 2, "TUNNEL"},
           {__LINE__, {"graph", "--tunnel", "5"}, 2, "--tunnel"},
           {__LINE__, {"watch", "--table", "gre"}, 2, "no table 'gre'"},
           {__LINE__, {"watch", "--rib", "blue"}, 1, "no RIB 'blue'"},
           {__LINE__, {"verify", "--every", "-1"}, 2, "--every"},
           {__LINE__, {"verify", "--limit", "0"}, 2, "--limit"},
           {__LINE__, {"top", "--count", "0"}, 2, "--count: '0' must be"},
           {__LINE__, {"what-if"}, 2, "SCENARIO"},
           {__LINE__, {"what-if", "--each", "tunnel"}, 2, "--each"},
           {__LINE__, {"what-if", "--each", "intf", "--fail-intf", "if12"}, 2, "--each"},
           {__LINE__, {"what-if", "--fail-intf", "eth0"}, 2, "--fail-intf"},
           {__LINE__, {"what-if", "--fail-intf", "if4711"}, 2, "no table entry leaves through if4711"},
           {__LINE__, {"what-if", "--fail-tunnel", "ldpTunnel/4711"}, 2, "no table entry of ldpTunnel/4711"},
           {__LINE__, {"what-if", scratch() / "absent"}, 2, "cannot be opened"},
           {__LINE__, {"what-if", wrong}, 2, "wrong.jsonl:2:"},
       }) {
    SCOPED_TRACE("case in line " + std::to_string(row.line));
    const Answer text = ask(row.words);
    EXPECT_EQ(text.status, row.status) << text.text;
    EXPECT_TRUE(text.text.starts_with("tunnelctl: ")) << text.text;
    EXPECT_NE(text.text.find(row.says), std::string::npos) << text.text;
    if (!row.words.empty()) {
      EXPECT_EQ(ask(with(row.words, {"--json"})).json()["error"]["status"], row.status);
    }
  }
}

// Fails if a script cannot tell a tunnel or endpoint that nobody has heard of from one that stands well.
TEST_F(Questions, aboutWhatNobodyHasHeardOfFail) {
  publishExample("abilene");
  for (const Words& words :
       {Words{"why", "ldpTunnel/4711"}, {"why", "10.0.99.0/24"}, {"dependents", "ldpTunnel/4711"}}) {
    EXPECT_EQ(ask(words).status, 1) << words[1];
    EXPECT_EQ(ask(with(words, {"--json"})).status, 1) << words[1];
  }
}

// Fails if a file that cannot be read passes for an empty one.
TEST_F(Questions, whatCannotBeReadIsTold) {
  publishExample("abilene");
  const std::string whole = copied();
  struct Row {
    const char* file;
    std::vector<Words> questions;
  };
  for (const Row& row :
       {Row{"tunnel/tunnelFib", {{"state"}, {"resolve", "10.0.0.7"}, {"graph"}, {"metrics"}, {"why", "ldpTunnel/1"}}},
        {"tunnel/status/ribs", {{"state"}, {"show", "ribs"}, {"show", "rib", "te-custom"}}},
        {"tunnel/tunnelRibs/system", {{"show", "ribs"}, {"show", "convergence"}, {"why", "10.0.0.7"}}},
        {"tunnel/table/ldp", {{"state"}, {"graph"}, {"resolve", "10.0.0.7"}, {"what-if", "--each", "intf"}}}}) {
    const std::string path = stateDirectory() + "/" + row.file;
    std::filesystem::resize_file(path, 100);
    for (const Words& words : row.questions) {
      const Answer answer = ask(words);
      EXPECT_EQ(answer.status, 1) << row.file << ": " << words[0] << answer.text;
      EXPECT_NE(answer.text.find(path), std::string::npos) << row.file << ": " << words[0] << answer.text;
    }
    Support::Process diff({TUNNELCTL_PATH, "diff", stateDirectory(), stateDirectory()}, scratch() / "diff");
    EXPECT_EQ(diff.wait(), 1) << row.file;
    std::filesystem::copy_file(whole + "/" + row.file, path, std::filesystem::copy_options::overwrite_existing);
  }
  EXPECT_EQ(ask({"state"}).status, 0);
}

// Fails if a misspelt directory, or a file without tables, goes without a word.
TEST_F(Questions, publishersHearWhatTheyMayNotHaveMeant) {
  const Answer nothing = ask({"publish", scratch().fileWith("rib.jsonl", R"({"rib": "a", "tables": {}})")});
  EXPECT_EQ(nothing.status, 0);
  EXPECT_EQ(nothing.text, "tunnelctl: no line is about a table: nothing is published\n");
  const std::string tables = "{\"tables\": [{\"table\": \"ldp\", \"entries\": 0}]}\n";
  EXPECT_EQ(ask({"publish", "--json", "--table", "ldp"}).text,
            "{\"note\": \"" + stateDirectory() + ": made, there was no such directory\"}\n" + tables);
  EXPECT_EQ(ask({"publish", "--json", "--table", "ldp"}).text, tables);
}

}  // namespace
}  // namespace Tools
