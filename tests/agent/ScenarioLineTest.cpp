#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "agent/ScenarioLine.h"
#include "agent/ScenarioReader.h"
#include "tests/support/Seeds.h"

namespace Agent {
namespace {

// What a file of that text is refused with, or "accepted".
std::string verdict(const std::string& text) {
  std::istringstream in(text);
  ScenarioReader reader(in, "file");
  try {
    while (reader.next()) {
    }
  } catch (const ScenarioError& error) {
    return error.what();
  }
  return "accepted";
}

std::string put(const std::string& table, const std::string& fields) {
  return R"({"table": ")" + table + R"(", "put": {)" + fields + "}}";
}
std::string ldp(const std::string& fields) { return put("ldp", R"("index": 1, "tep": "10.0.0.1/32", )" + fields); }
std::string ldpVia(const std::string& via) { return ldp(R"("vias": [{"intf": "if1"}, {)" + via + "}]"); }

std::string repeated(const std::string& element, std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    list += (i == 0 ? "" : ", ") + element;
  }
  return list;
}

constexpr const char* pathOfLdp = R"("vias": [])";

struct Row {
  int line;
  std::string text;
  std::string verdict;
};

void expectVerdicts(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(verdict(row.text), row.verdict) << "case in line " << row.line;
  }
}

// Fails if something that is no scenario line gets through, or is reported where its writer does not find it.
TEST(ScenarioLine, refusesWhatIsNoLine) {
  const std::string notJson = verdict(R"({"settle": true)");
  EXPECT_EQ(notJson.substr(0, 27), "file:1: line: column 16: sy") << notJson;
  expectVerdicts({
      {__LINE__, "\n# comment\n \t\r\n[1]", "file:4: line: not a JSON object"},
      {__LINE__, "{}",
       "file:1: line: has none of the keys rib, ribDelete, table, mount, unmount, bgpLuConverged, settle, advance, "
       "checkpoint"},
      {__LINE__, R"({"settle": true, "x": 1})", "file:1: x: unknown key"},
      {__LINE__, R"({"tabel": "ldp", "delete": 1})",
       "file:1: line: unknown key 'tabel'; has none of the keys rib, ribDelete, table, mount, unmount, "
       "bgpLuConverged, settle, advance, checkpoint"},
      {__LINE__, R"({"settle": false})", "file:1: settle: not true"},
      {__LINE__, R"({"settle": true, "settle": true})", "file:1: settle: given twice"},
      {__LINE__, R"({"settle": true})" + std::string("\0{}", 3), "file:1: line: column 17: a NUL character"},
      {__LINE__, "\xEF\xBB\xBF{\"settle\": true}", "file:1: line: column 1: a byte order mark"},
      {__LINE__, "# \xC0\x80", "file:1: line: column 3: not UTF-8"},
      {__LINE__, "{\"rib\": \"\xED\xA0\x80\", \"tables\": {}}", "file:1: line: column 10: not UTF-8"},
      {__LINE__, R"({"rib": "a\u001b[2Jb", "tables": {}})", "file:1: rib: a name with control characters"},
      {__LINE__, R"({"a\u001b": 1, "settle": true})", R"(file:1: a\u001b: unknown key)"},
      {__LINE__, R"({"settle": )" + std::string(17, '[') + std::string(17, ']') + "}",
       "file:1: settle" +
           [] {
             std::string path;
             for (int i = 0; i < 15; ++i) {
               path += "[0]";
             }
             return path;
           }() +
           ": nested more than 16 deep"},
  });
}

// Fails if a field is taken from a table that has none, if one is not asked for, or if an error loses its path.
TEST(ScenarioLine, refusesBadEntries) {
  expectVerdicts({
      {__LINE__, R"({"table": "LDP", "put": {}})", "file:1: table: 'LDP' is not a tunnel table"},
      {__LINE__, R"({"table": "ldp"})", "file:1: line: wants one of put and delete"},
      {__LINE__, R"({"table": "ldp", "put": {}, "delete": 1})", "file:1: line: wants one of put and delete"},
      {__LINE__, R"({"table": "ldp", "put": 7})", "file:1: put: not an object"},
      {__LINE__, put("ldp", R"("index": 1, "vias": [])"), "file:1: put.tep: missing"},
      {__LINE__, put("tiLfa", R"("vias": [])"), "file:1: put.index: missing"},
      {__LINE__, put("rsvp", R"("index": 1)"), "file:1: put.vias: missing"},
      {__LINE__, put("nexthopGroup", R"("index": 1, "tep": "1.0.0.0/8")"), "file:1: put.nexthopGroupId: missing"},
      {__LINE__, put("nexthopGroup", R"("index": 1, "tep": "1.0.0.0/8", "vias": [])"), "file:1: put.vias: unknown key"},
      {__LINE__, ldp(R"("vias": [], "backupVias": [])"), "file:1: put.backupVias: unknown key"},
      {__LINE__, ldp(R"("vias": [], "vias": [])"), "file:1: put.vias: given twice"},
      {__LINE__, ldpVia(R"("intf": "if2", "labels": [], "labels": [])"), "file:1: put.vias[1].labels: given twice"},
      {__LINE__, ldpVia(R"("nextHop": "1.2.3.4")"), "file:1: put.vias[1].intf: missing"},
      {__LINE__, ldpVia(R"("intf": "if2", "op": "pop")"), "file:1: put.vias[1].op: unknown key"},
      {__LINE__, ldpVia(R"("intf": "none")"), "file:1: put.vias[1].intf: no interface"},
      {__LINE__, ldpVia(R"("intf": "if01")"), "file:1: put.vias[1].intf: 'if01' is to be written if1"},
      {__LINE__, ldpVia(R"("intf": "tunnel:noTunnel/1")"), "file:1: put.vias[1].intf: 'noTunnel' is not a tunnel type"},
      {__LINE__, ldpVia(R"("intf": "if2", "nextHop": "2001:DB8::1")"),
       "file:1: put.vias[1].nextHop: '2001:DB8::1' is to be written 2001:db8::1"},
      {__LINE__, ldpVia(R"("intf": "if2", "labels": [1, -1])"),
       "file:1: put.vias[1].labels[1]: -1 is not in 0 to 1048575"},
      {__LINE__, put("static", R"("index": 1, "tep": "1.0.0.0/8", "vias": [{"intf": "if1", "op": "none"}])"),
       "file:1: put.vias[0].op: 'none' is none of push, swap, pop"},
      {__LINE__, put("bgpLu", R"("index": 1, "tep": "1.0.0.0/8", "vias": [{"intf": "if1", "labels": []}])"),
       "file:1: put.vias[0].labels: unknown key"},
      {__LINE__, ldp(R"("vias": [], "metrics": [1, 2, 3])"), "file:1: put.metrics: not four numbers [m, m2, p, p2]"},
      {__LINE__, put("greTunnelInterface", R"("index": 1, "vias": [], "source": "1.1.1.1", "destination": "::1")"),
       "file:1: put.destination: not of the source's address family"},
      {__LINE__,
       put("greTunnelInterface", R"("index": 1, "vias": [], "source": "::1", "destination": "::1", "spi": 1)"),
       "file:1: put.spi: unknown key"},
      {__LINE__, put("ipsecGreTunnelInterface", R"("index": 1, "vias": [], "source": "::1", "destination": "::1")"),
       "file:1: put.spi: missing"},
  });
}

TEST(ScenarioLine, refusesBadConfiguration) {
  const auto rib = [](const std::string& name, const std::string& tables) {
    return R"({"rib": ")" + name + R"(", "tables": {)" + tables + "}}";
  };
  expectVerdicts({
      {__LINE__, rib("", ""), "file:1: rib: an empty name"},
      {__LINE__, rib(std::string(241, 'a'), ""), "file:1: rib: a name of 241 bytes, at most 240"},
      {__LINE__, rib(std::string(240, 'a'), ""), "accepted"},
      {__LINE__, R"({"rib": "c"})", "file:1: tables: missing"},
      {__LINE__, rib("c", R"("ldp": {"pref": 256})"), "file:1: tables.ldp.pref: 256 is not in 0 to 255"},
      {__LINE__, rib("c", R"("ldp": {"prefs": 1})"), "file:1: tables.ldp.prefs: unknown key"},
      {__LINE__, rib("c", R"("ldp": {}, "ldp": {})"), "file:1: tables.ldp: given twice"},
      {__LINE__, R"({"rib": "c", "rib": "d", "tables": {}})", "file:1: rib: given twice"},
      {__LINE__, R"({"rib": "c", "tables": {}, "tables": {}})", "file:1: tables: given twice"},
      {__LINE__, rib("c", R"("ldp": {"pref": 1, "pref": 2})"), "file:1: tables.ldp.pref: given twice"},
      {__LINE__, rib("c", R"("ldp": {"pref": -1})"), "file:1: tables.ldp.pref: -1 is not in 0 to 255"},
      {__LINE__, rib("c", R"("ldp": {"pref": 1.5})"), "file:1: tables.ldp.pref: not an integer"},
      {__LINE__, rib("c", R"("ldp": {"pref": null})"), "file:1: tables.ldp.pref: not an integer"},
      {__LINE__, rib("c", R"("ldp": {"pref": 0}, "sr": {"pref": 255})"), "accepted"},
      {__LINE__, rib("c", R"("ldp": 7)"), "file:1: tables.ldp: not an object"},
      {__LINE__, rib("c", R"("LDP": {})"),
       "file:1: tables.LDP: not a table that RIBs take (bgpLu, ldp, nexthopGroup, sr, static)"},
      {__LINE__, R"({"rib": "c", "tables": ["ldp"]})", "file:1: tables: not an object"},
      {__LINE__, R"({"rib": 1, "tables": {}})", "file:1: rib: not a string"},
      {__LINE__, R"({"ribDelete": ""})", "file:1: ribDelete: an empty name"},
      {__LINE__, R"({"ribDelete": ")" + std::string(241, 'a') + "\"}",
       "file:1: ribDelete: a name of 241 bytes, at most 240"},
      {__LINE__, R"({"mount": "vxlan"})", "file:1: mount: 'vxlan' is not a tunnel table"},
      {__LINE__, rib("system", R"("ldp": {"pref": 1})"),
       "file:1: tables.ldp.pref: the system RIB takes no preferences"},
      {__LINE__, R"({"checkpoint": "a/b"})", "file:1: checkpoint: a checkpoint's name with '/'"},
      {__LINE__, R"({"mount": 1})", "file:1: mount: not a string"},
      {__LINE__, R"({"bgpLuConverged": 1})", "file:1: bgpLuConverged: neither true nor false"},
  });
  for (const char* const table : {"bgpLuPush", "rsvp", "srTeSegmentList", "tiLfa", "greTunnelInterface",
                                  "ipsecVtiTunnelInterface", "ipsecGreTunnelInterface"}) {
    for (const char* const name : {"c", "system"}) {
      EXPECT_EQ(verdict(rib(name, '"' + std::string(table) + R"(": {})")),
                std::string("file:1: tables.") + table +
                    ": not a table that RIBs take (bgpLu, ldp, nexthopGroup, sr, static)");
    }
  }
}

// Fails if a bound moves by one, if an integer passes through a double, or if a float is taken for an integer.
TEST(ScenarioLine, keepsNumbersInTheirRanges) {
  struct Bound {
    int line;
    std::string before;  // the text around the number
    std::string behind;
    std::string path;
    std::string max;
    std::string beyond;
  };
  const std::string entry = R"({"table": "ldp", "put": {"tep": "10.0.0.1/32", "vias": [], )";
  const std::vector<Bound> bounds = {
      {__LINE__, entry + R"("index": )", "}}", "put.index", "17592186044415", "17592186044416"},
      {__LINE__, ldp(R"("vias": [], "tieBreaker": )").substr(0, ldp(R"("vias": [], "tieBreaker": )").size() - 2), "}}",
       "put.tieBreaker", "18446744073709551615", "18446744073709551616"},
      {__LINE__, entry + R"("index": 1, "pref": )", "}}", "put.pref", "255", "256"},
      {__LINE__, entry + R"("index": 1, "metrics": [0, 0, 0, )", "]}}", "put.metrics[3]", "4294967295", "4294967296"},
      {__LINE__, R"({"table": "sr", "put": {"index": 1, "tep": "1.0.0.0/8", "vias": [{"intf": "if1", "labels": [)",
       "]}]}}", "put.vias[0].labels[0]", "1048575", "1048576"},
      {__LINE__, R"({"table": "ldp", "delete": )", "}", "delete", "17592186044415", "17592186044416"},
      {__LINE__, R"({"bgpLuConverged": true, "seqno": )", "}", "seqno", "18446744073709551615", "18446744073709551616"},
  };
  for (const Bound& bound : bounds) {
    const auto with = [&](const std::string& number) { return verdict(bound.before + number + bound.behind); };
    const std::string at = "file:1: " + bound.path + ": ";
    EXPECT_EQ(with("0"), "accepted") << "case in line " << bound.line;
    EXPECT_EQ(with(bound.max), "accepted") << "case in line " << bound.line;
    EXPECT_EQ(with("-1"), at + "-1 is not in 0 to " + bound.max) << "case in line " << bound.line;
    EXPECT_EQ(with("1.0"), at + "not an integer") << "case in line " << bound.line;
    EXPECT_EQ(with("\"1\""), at + "not an integer") << "case in line " << bound.line;
    EXPECT_TRUE(with(bound.beyond) == at + bound.beyond + " is not in 0 to " + bound.max ||
                with(bound.beyond) == at + bound.beyond + " is beyond 64 bits")
        << with(bound.beyond) << " in line " << bound.line;
  }
  expectVerdicts({
      {__LINE__, R"({"advance": 1e9})", "accepted"},
      {__LINE__, R"({"advance": 0.25})", "accepted"},
      {__LINE__, R"({"advance": 1000000000.5})", "file:1: advance: 1000000000.5 is not in 0 to 1e+09"},
      {__LINE__, R"({"advance": -0.5})", "file:1: advance: -0.5 is not in 0 to 1e+09"},
      {__LINE__, R"({"advance": 1e999})", "file:1: advance: beyond the range of numbers"},
      {__LINE__, ldpVia(R"("intf": "if2147483647")"), "accepted"},
      {__LINE__, ldpVia(R"("intf": "nexthopGroup:4294967295")"), "accepted"},
      {__LINE__, ldp(R"("vias": [)" + repeated(R"({"intf": "if1"})", 512) + "]"), "accepted"},
      {__LINE__, ldp(R"("vias": [)" + repeated(R"({"intf": "if1"})", 513) + "]"),
       "file:1: put.vias: 513 vias, at most 512"},
      {__LINE__, ldpVia(R"("intf": "if1", "labels": [)" + repeated("1", 7) + "]"), "accepted"},
      {__LINE__, ldpVia(R"("intf": "if1", "labels": [)" + repeated("1", 8) + "]"),
       "file:1: put.vias[1].labels: 8 labels, at most 7"},
  });
  EXPECT_NE(verdict(ldpVia(R"("intf": "if0")")), "accepted");
  EXPECT_NE(verdict(ldpVia(R"("intf": "if2147483648")")), "accepted");
}

// Fails if the stack is taken bottom first, or a default is not that of the format.
TEST(ScenarioLine, readsEntries) {
  const auto line = scenarioLine(ldpVia(R"("nextHop": "2001:db8::1", "intf": "tunnel:srTunnel/7", "labels": [17, 5])"));
  const EntryDraft entry = std::get<PutLine>(line.value()).entry;
  ASSERT_EQ(entry.vias.size(), 2U);
  EXPECT_EQ(Zol::stringOf(entry.vias[1].labelOp()), "push [17, 5]");
  EXPECT_EQ(entry.vias[1].labelOp().label(0), 5U);
  EXPECT_EQ(Zol::stringOf(entry.vias[0].labelOp()), "push []");
  EXPECT_EQ(Zol::stringOf(entry.vias[0].nextHop()), "0.0.0.0");
  EXPECT_FALSE(entry.pref);
  EXPECT_EQ(entry.contribution, Model::Contribution::contributing);
  EXPECT_EQ(verdict(ldp(pathOfLdp) + "\r\n" + ldp(pathOfLdp)), "accepted");
}

// A line that is damaged in any way is accepted or refused with its place, and nothing else happens.
TEST(ScenarioLine, survivesMutatedLines) {
  const std::vector<std::string> good = {
      ldpVia(R"("nextHop": "2001:db8::1", "intf": "tunnel:srTunnel/7", "labels": [17, 5])"),
      R"({"rib": "c1", "tables": {"ldp": {"pref": 10}, "sr": {}}})",
      put("ipsecGreTunnelInterface",
          R"("index": 1, "vias": [{"intf": "if1"}], "source": "::1", "destination": "::2", "spi": 4, "tos": 3)"),
      R"({"bgpLuConverged": true, "seqno": 18446744073709551615})", R"({"advance": 1.5e3})"};
  const std::vector<std::string> pieces = {"\"",   "{",   "}",        "[",       "]",     ",",
                                           ":",    "-",   "\\u0000",  "\\ud800", "1e400", "nul",
                                           "null", "1.0", "\xF0\x9F", "\xFF",    "0",     "99999999999999999999"};
  constexpr std::size_t rounds = 20000;
  Support::forEachSeed(1, [&](unsigned seed) {
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t n) { return static_cast<std::size_t>(random()) % n; };
    std::size_t refused = 0;
    for (std::size_t i = 0; i < rounds; ++i) {
      std::string text = good[below(good.size())];
      for (std::size_t changes = 1 + below(3); changes > 0; --changes) {
        text.replace(below(text.size() + 1), below(4),
                     below(2) == 0 ? pieces[below(pieces.size())] : std::string(1, static_cast<char>(random())));
      }
      const std::string result = verdict(text);
      refused += result != "accepted" ? 1U : 0U;
      ASSERT_TRUE(result == "accepted" || result.starts_with("file:")) << result;
      for (const char c : result) {
        ASSERT_GE(static_cast<unsigned char>(c), 0x20) << text;
      }
    }
    EXPECT_GT(refused, rounds / 2);
  });
}

}  // namespace
}  // namespace Agent
