// Explanations: of every reason there is, and of every tunnel of the bundled scenarios.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "agent/ExplanationJson.h"
#include "agent/ExplanationText.h"
#include "tests/agent/Scene.h"

namespace Agent {
namespace {

Explanation explained(AgentHost& host, const std::string& id, Follow follow = Follow::ways) {
  return explain(*host.fibSm(), *host.ribConfigDirSm(), *host.ribIds(), Model::TunnelId::fromText(id), follow);
}

std::string way(const Explanation& explanation) {
  std::ostringstream out;
  writeWay(out, explanation, false);
  return out.str();
}

std::string why(const Explanation& explanation) {
  std::ostringstream out;
  writeWhy(out, explanation, false);
  return out.str();
}

std::string put(const std::string& table, std::uint64_t index, const std::string& rest) {
  return R"({"table": ")" + table + R"(", "put": {"index": )" + std::to_string(index) + ", " + rest + "}}\n";
}

std::string tep(unsigned host) { return R"("tep": "10.0.0.)" + std::to_string(host) + R"(/32", )"; }

std::string vias(const std::vector<std::string>& intfs, const std::string& labels = "17") {
  std::string text = R"("vias": [)";
  for (const std::string& intf : intfs) {
    text += (text.back() == '[' ? R"({"intf": ")" : R"(, {"intf": ")") + intf + R"(", "labels": [)" + labels + "]}";
  }
  return text + "]";
}

std::string through(const std::string& tunnel) { return "tunnel:" + tunnel; }

// Fails if a reason is given for another, a cause is not followed to its end, or a cycle misses a member.
TEST(Explain, whyNotInTheFib) {
  const std::string interface = R"("source": "192.0.2.9", "destination": "192.0.2.10", )";
  struct Row {
    int line;
    std::string scenario;  // about srTunnel/1
    std::vector<std::string> says;
  };
  for (const Row& row : std::vector<Row>{
           {__LINE__, "", {"not in the FIB, no entry in table sr", "system: no entry in table sr"}},
           {__LINE__, put("sr", 1, tep(1) + R"("vias": [])"), {"its table entry has no vias"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("ldpTunnel/1")})) +
                put("ldp", 1, tep(1) + vias({through("ldpTunnel/2")})),
            {"not in the FIB, its via cannot be used",
             "tunnel:ldpTunnel/1 adds [17]: the next level is unprogrammable (recTunUnprogrammable)",
             "tunnel:ldpTunnel/2 adds [17]: the next level is missing (recTunMissing)",
             "ldpTunnel/2: not in the FIB, no entry in table ldp", "system: no candidate, it is not in the FIB"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("bgpLuTunnel/1")})) +
                put("bgpLu", 1, tep(1) + R"("contribution": "notContributing", "vias": [{"intf": "if1"}])"),
            {"(recTunNonContrib)", "bgpLuTunnel/1 to 10.0.0.1/32: not in the FIB, BGP marks it as not contributing"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("staticTunnel/1")})) +
                put("static", 1, tep(1) + R"("vias": [{"intf": "if1", "op": "swap"}])"),
            {"(recTunUnprogrammable)",
             "staticTunnel/1 to 10.0.0.1/32: not in the FIB, its label operation is not a push"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("srTunnel/2")})) +
                put("sr", 2, tep(2) + vias({through("srTunnel/3")})) +
                put("sr", 3, tep(2) + vias({"if3", through("srTunnel/1")})),
            {"the next level leads back (recTunCycle), cycle of srTunnel/1, srTunnel/2, srTunnel/3"}},
           {__LINE__, put("sr", 1, tep(1) + vias({through("srTunnel/1")})), {"(recTunCycle), cycle of srTunnel/1\n"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("ldpTunnel/1")}, "1, 2, 3")) +
                put("ldp", 1, tep(1) + vias({"if1"}, "4, 5, 6, 7")) +
                put("ldp", 1, tep(1) + vias({"if1", "if2"}, "4, 5, 6, 7, 8")),
            {"labels cannot be joined (recTunFlattenError), 2 of 2 vias dropped",
             "if1: [4, 5, 6, 7, 8] on top of [1, 2, 3] are 8 labels, at most 7"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("l3IntfTunnel/1")})) +
                put("greTunnelInterface", 1, interface + R"("vias": [{"intf": "if1"}])"),
            {"(recTunFlattenError), 1 of 1 via dropped", "if1: wrapped as gre, no labels go inside"}},
           {__LINE__,  // its flag says missing, its own line knows better
            put("sr", 1, tep(1) + vias({through("rsvpTunnel/1")})) + put("rsvp", 1, R"("vias": [])"),
            {"(recTunMissing)", "rsvpTunnel/1: not in the FIB, its table entry has no vias"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({through("tunnelType4/1")})),
            {"tunnelType4/1: not in the FIB, no entry in any table: none has tunnels of this type"}},
           {__LINE__,
            put("sr", 1, tep(1) + vias({"if1", through("ldpTunnel/1")})),
            {"in the FIB with 1 via; dropped, wholly or in part: 1 of its 2 vias", "(recTunMissing)"}},
           {__LINE__, put("sr", 1, tep(1) + vias({"if1"})), {"├─ in the FIB with 1 via\n"}},
       }) {
    Scene scene;
    ASSERT_EQ(scene.apply(row.scenario), "") << "case in line " << row.line;
    scene.settled();
    const std::string text = why(explained(scene.host(), "srTunnel/1", Follow::causes));
    for (const std::string& says : row.says) {
      EXPECT_NE(text.find(says), std::string::npos) << "case in line " << row.line << ": " << says << "\n" << text;
    }
    EXPECT_EQ(text, why(explained(scene.host(), "srTunnel/1"))) << "case in line " << row.line;
  }
}

// Fails if what waits for review is taken for decided, or if asking leaves anything behind.
TEST(Explain, beforeTheReview) {
  Scene scene;
  scene.settled();
  ASSERT_EQ(scene.apply(put("sr", 1, tep(1) + vias({through("ldpTunnel/1")})) + put("ldp", 1, tep(1) + vias({"if1"}))),
            "");
  const std::size_t reviews = scene.host().fibSm()->tunnelForReviews();
  const std::string text = why(explained(scene.host(), "srTunnel/1"));
  EXPECT_NE(text.find("waits for review"), std::string::npos) << text;
  EXPECT_NE(text.find("the next level waits for review (recTunNotReady)"), std::string::npos) << text;
  EXPECT_NE(text.find("system: waits for review"), std::string::npos) << text;
  EXPECT_EQ(scene.host().fibSm()->tunnelForReviews(), reviews);
  EXPECT_EQ(scene.host().fib()->entry().size(), 0U);
  EXPECT_TRUE(scene.host().fibSm()->tunnelsDirectlyDependingOn(Model::TunnelId::fromText("srTunnel/1")).empty());
}

TEST(Explain, tooManyVias) {
  Scene scene;
  std::vector<std::string> wide;
  for (unsigned i = 1; i <= 512; ++i) {
    wide.push_back("if" + std::to_string(i));
  }
  ASSERT_EQ(scene.apply(
                put("ldp", 1, tep(1) + vias(wide)) + put("ldp", 2, tep(1) + vias({"if600"})) +
                put("sr", 1, tep(1) + vias({through("ldpTunnel/1"), through("ldpTunnel/2"), through("ldpTunnel/3")}))),
            "");
  scene.settled();
  const Explanation explanation = explained(scene.host(), "srTunnel/1");
  EXPECT_EQ(explanation.tunnels.at(explanation.tunnel).standing, FibStanding::tooManyVias);
  EXPECT_NE(why(explanation).find("tunnel:ldpTunnel/3 adds [17]: not looked at, there are too many before it"),
            std::string::npos);
  EXPECT_FALSE(explanation.tunnels.contains(Model::TunnelId::fromText("ldpTunnel/3")));
}

// Fails if a comparison is named wrongly or the wrong way round.
TEST(Explain, whoHasTheEndpoint) {
  const std::string ldp = put("ldp", 1, tep(1) + vias({"if1"}));
  const std::string sr = put("sr", 1, tep(1) + vias({"if2"}));
  const std::string second = put("sr", 2, tep(1) + vias({"if2"}));
  const std::string equal = R"({"rib": "c", "tables": {"ldp": {"pref": 9}, "sr": {"pref": 9}}})";
  struct Row {
    int line;
    std::string scenario, tunnel, says;
  };
  for (const Row& row : std::vector<Row>{
           {__LINE__, sr, "srTunnel/1",
            "system: in the entry of 10.0.0.1/32 with preference 65, alone; no other source has a candidate"},
           {__LINE__, ldp + sr, "srTunnel/1", "system: lost 10.0.0.1/32 to ldpTunnel/1: preference 65 against 55"},
           {__LINE__, ldp + sr + second, "ldpTunnel/1",
            "with preference 55, alone; before srTunnel/1: preference 55 against 65"},
           {__LINE__, sr + second, "srTunnel/2", "one of 2 tunnels; no other source"},
           {__LINE__, equal + "\n" + ldp + sr, "srTunnel/1",
            "c: lost 10.0.0.1/32 to ldpTunnel/1: both have preference 9, default preference of the type 65 against 55"},
           {__LINE__, equal + "\n" + ldp + sr, "ldpTunnel/1",
            "before srTunnel/1: both have preference 9, default preference of the type 55 against 65"},
           {__LINE__, sr + put("sr", 3, tep(1) + R"("pref": 60, )" + vias({"if1"})), "srTunnel/1",
            "lost 10.0.0.1/32 to srTunnel/3: preference 65 against 60"},
           {__LINE__,
            R"({"rib": "c", "tables": {"ldp": {}}})"
            "\n" +
                sr,
            "srTunnel/1", "c: takes no tunnels of table sr"},
           {__LINE__, sr + R"({"unmount": "sr"})", "srTunnel/1", "system: table sr is not mounted"},
           {__LINE__, sr, "rsvpTunnel/1", "system: tunnels of this type are in no RIB"},
           {__LINE__, put("bgpLu", 1, tep(1) + R"("contribution": "notContributing", "vias": [])"), "bgpLuTunnel/1",
            "system: no candidate, BGP marks it as not contributing"},
           {__LINE__, put("ldp", 1, R"("tep": "0.0.0.0/0", )" + vias({"if1"})), "ldpTunnel/1",
            "system: no candidate, it has no tunnel endpoint"},
       }) {
    Scene scene;
    ASSERT_EQ(scene.apply(row.scenario), "") << "case in line " << row.line;
    scene.settled();
    const std::string text = why(explained(scene.host(), row.tunnel));
    EXPECT_NE(text.find(row.says), std::string::npos) << "case in line " << row.line << "\n" << text;
  }
}

TEST(Explain, waitsForAPlace) {
  Scene scene;
  for (unsigned i = 1; i <= 513; ++i) {
    ASSERT_EQ(scene.apply(put("ldp", i, tep(1) + vias({"if1"}))), "");
  }
  scene.settled();
  std::size_t waiting = 0;
  for (unsigned i = 1; i <= 513; ++i) {
    const Explanation explanation = explained(scene.host(), "ldpTunnel/" + std::to_string(i));
    if (explanation.ribs.at(0).standing == RibStanding::entryFull) {
      ++waiting;
      EXPECT_NE(why(explanation).find("waits for a place, the entry of 10.0.0.1/32 has its 512 tunnels"),
                std::string::npos);
    }
  }
  EXPECT_EQ(waiting, 1U);
}

// Fails if a level's labels or its programmed stack are missing, or a shared next level is unfolded twice.
TEST(Explain, theWayToTheNextHops) {
  Scene scene;
  ASSERT_EQ(scene.apply(put("ldp", 5, tep(5) + vias({"if12"}, "300123")) +
                        put("tiLfa", 1, vias({"if7"}) + R"(, "backupVias": [{"intf": "if8", "labels": [8]}])") +
                        put("sr", 8, tep(8) + vias({through("ldpTunnel/5"), through("tiLfaTunnel/1")}, "18")) +
                        put("sr", 9, tep(9) + vias({through("srTunnel/8"), through("ldpTunnel/5"), "if9"}))),
            "");
  scene.settled();
  EXPECT_EQ(way(explained(scene.host(), "srTunnel/9")),
            "srTunnel/9 to 10.0.0.9/32\n"
            "├─ tunnel:srTunnel/8 adds [17]\n"
            "│  └─ srTunnel/8 to 10.0.0.8/32\n"
            "│     ├─ tunnel:ldpTunnel/5 adds [18]\n"
            "│     │  └─ ldpTunnel/5 to 10.0.0.5/32\n"
            "│     │     └─ if12 [300123]\n"
            "│     ├─ tunnel:tiLfaTunnel/1 adds [18]\n"
            "│     │  └─ tiLfaTunnel/1\n"
            "│     │     ├─ if7 [17]\n"
            "│     │     └─ backup if8 [8]\n"
            "│     └─ in the FIB\n"
            "│        ├─ if7 [17, 18]\n"
            "│        └─ if12 [300123, 18]\n"
            "├─ tunnel:ldpTunnel/5 adds [17]\n"
            "│  └─ ldpTunnel/5 to 10.0.0.5/32 (see above)\n"
            "├─ if9 adds [17]\n"
            "└─ in the FIB\n"
            "   ├─ if7 [17, 18, 17]\n"
            "   ├─ if9 [17]\n"
            "   ├─ if12 [300123, 17]\n"
            "   └─ if12 [300123, 18, 17]\n");
}

// Fails if depth costs stack, or shared next levels cost one unfolding for each of the 2^40 ways to them.
TEST(Explain, deepAndShared) {
  Scene scene;
  std::string chain;
  for (unsigned i = 1; i <= 3000; ++i) {
    chain += put("sr", i, tep(1) + vias({i == 1 ? "if1" : through("srTunnel/" + std::to_string(i - 1))}, ""));
  }
  std::string ladder = put("ldp", 0, tep(2) + vias({"if1"}, "")) + put("ldp", 1, tep(2) + vias({"if2"}, ""));
  for (unsigned i = 2; i < 80; i += 2) {
    const std::vector<std::string> both = {through("ldpTunnel/" + std::to_string(i - 2)),
                                           through("ldpTunnel/" + std::to_string(i - 1))};
    ladder += put("ldp", i, tep(2) + vias(both, "")) + put("ldp", i + 1, tep(2) + vias(both, ""));
  }
  ASSERT_EQ(scene.apply(chain + ladder), "");
  scene.settled();
  const auto count = [](const std::string& text, const std::string& what) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) {
      ++found;
    }
    return found;
  };
  const Explanation deep = explained(scene.host(), "srTunnel/3000");
  EXPECT_EQ(deep.tunnels.size(), 3000U);
  EXPECT_EQ(explained(scene.host(), "srTunnel/3000", Follow::causes).tunnels.size(), 1U);
  const std::string deepWay = way(deep);
  EXPECT_EQ(count(deepWay, "in the FIB"), 2999U);
  EXPECT_EQ(count(deepWay, " (see below)"), 249U);
  const Explanation shared = explained(scene.host(), "ldpTunnel/79");
  EXPECT_EQ(shared.tunnels.size(), 79U);  // its twin is not on the way
  EXPECT_EQ(count(way(shared), "in the FIB"), 77U);
  EXPECT_EQ(explanationJson(deep)["tunnels"].size(), 3000U);
}

TEST(Explain, asJson) {
  Scene scene;
  ASSERT_EQ(scene.apply(put("ldp", 5, tep(9) + vias({"if12"}, "1, 2, 3, 4, 5")) +
                        put("sr", 9, tep(9) + vias({through("ldpTunnel/5"), through("ldpTunnel/6")}, "6, 7, 8")) +
                        put("sr", 8, tep(9) + vias({"if8"}))),
            "");
  scene.settled();
  EXPECT_EQ(explanationJson(explained(scene.host(), "srTunnel/9")), OrderedJson::parse(R"({
    "tunnel": "srTunnel/9",
    "tunnels": [
      {"tunnel": "ldpTunnel/5", "state": "programmed", "tep": "10.0.0.9/32",
       "vias": [{"nextHop": "0.0.0.0", "intf": "if12", "encap": {"type": "labelStack", "labels": [1, 2, 3, 4, 5]}}],
       "backupVias": [],
       "resolution": [{"nextHop": "0.0.0.0", "intf": "if12", "labels": [1, 2, 3, 4, 5],
                       "flags": [], "skipped": false, "refused": []}],
       "cycle": []},
      {"tunnel": "ldpTunnel/6", "state": "noTableEntry", "tep": null,
       "vias": [], "backupVias": [], "resolution": [], "cycle": []},
      {"tunnel": "srTunnel/9", "state": "noVias", "tep": "10.0.0.9/32", "vias": [], "backupVias": [],
       "resolution": [
         {"nextHop": "0.0.0.0", "intf": "tunnel:ldpTunnel/5", "labels": [6, 7, 8], "through": "ldpTunnel/5",
          "flags": ["recTunFlattenError"], "skipped": false,
          "refused": [{"nextHop": "0.0.0.0", "intf": "if12", "labels": [1, 2, 3, 4, 5], "encap": "labelStack",
                       "reason": "labelStackTooLarge"}]},
         {"nextHop": "0.0.0.0", "intf": "tunnel:ldpTunnel/6", "labels": [6, 7, 8], "through": "ldpTunnel/6",
          "flags": ["recTunMissing"], "skipped": false, "refused": []}],
       "cycle": []}],
    "ribs": [{"name": "system", "state": "unprogrammable"}]})"));
  EXPECT_EQ(explanationJson(explained(scene.host(), "srTunnel/8"))["ribs"], OrderedJson::parse(R"([
      {"name": "system", "state": "lost", "tep": "10.0.0.9/32", "pref": 65, "tunnels": ["ldpTunnel/5"],
       "rival": {"tunnel": "ldpTunnel/5", "pref": 55, "decidedBy": "preference", "own": 65, "other": 55}}])"));
  EXPECT_EQ(
      explanationJson(explained(scene.host(), "ldpTunnel/5"))["ribs"][0]["rival"],
      OrderedJson::parse(R"({"tunnel": "srTunnel/8", "pref": 65, "decidedBy": "preference", "own": 55, "other": 65})"));
}

// What an explanation says of a tunnel is what RIBs and FIB hold of it.
void expectTrue(AgentHost& host, const Model::TunnelId& tunnel) {
  const Explanation explanation = explained(host, Zol::stringOf(tunnel));
  for (const auto& [id, each] : explanation.tunnels) {
    const bool isProgrammed = each.standing == FibStanding::programmed;
    EXPECT_EQ(isProgrammed, host.fib()->entry().has(id)) << id;
    EXPECT_NE(each.standing, FibStanding::waiting) << id;
    if (isProgrammed) {
      const auto written =
          Model::ConsolidatedTunnelFibEntry::fromTunnelFibEntry(host.fib()->entry().value(id), *host.fib());
      EXPECT_EQ(each.finding.entry, written) << id;
    } else {
      const bool isListed = each.standing >= FibStanding::noPush;
      EXPECT_EQ(host.unprogrammable()->has(id), isListed) << id;
    }
  }
  for (const ExplainedRib& rib : explanation.ribs) {
    bool isThere = false;
    const Zol::Ptr<Model::TunnelRib> held = host.rib(*host.ribIds()->tunnelRibId(rib.name));
    Model::walkSafely(*held, [&](const auto& hint) { isThere |= held->value(hint.key()).hasTunnelId(tunnel); });
    EXPECT_EQ(rib.standing == RibStanding::inEntry, isThere) << rib.name << " " << tunnel;
    EXPECT_NE(rib.standing, RibStanding::waiting) << rib.name << " " << tunnel;
  }
}

TEST(Explain, saysWhatTheStateHolds) {
  constexpr std::size_t tunnelsMax = 200;  // of a scenario, spread over its tables
  for (const char* const directory : {EXAMPLES_DIR, TEST_DATA_DIR "/hazards"}) {
    for (const auto& file : std::filesystem::directory_iterator(directory)) {
      if (file.path().extension() != ".jsonl" || std::filesystem::file_size(file) > 1000000) {
        continue;
      }
      SCOPED_TRACE(file.path());
      std::ostringstream text;
      text << std::ifstream(file.path()).rdbuf();
      Scene scene;
      scene.apply(text.str());
      scene.settled();
      std::vector<Model::TunnelId> all;
      forEachNamedTable([&](auto named) {
        Model::walkSafely(*scene.host().tables().table<typename decltype(named)::Table>(),
                          [&](const auto& hint) { all.push_back(hint.key()); });
      });
      for (std::size_t i = 0; i < all.size(); i += all.size() / tunnelsMax + 1) {
        expectTrue(scene.host(), all[i]);
      }
    }
  }
}

}  // namespace
}  // namespace Agent
