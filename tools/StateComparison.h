// StateComparison: in what RIBs, per-protocol RIBs, FIB and unprogrammable tunnels of two agents differ. Vias are
// compared with what wraps their packets, not with the numbers that encapsulations happen to have.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "agent/JsonText.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;
using Agent::OrderedJson;

// What one of the two has in a place; for people and for programs.
struct Held {
  std::string text;
  OrderedJson json;  // null unless it was asked for
};

struct Difference {
  std::string where;  // "fib", "rib system", "protocolRib ldpTunnel", "unprogrammable"
  std::string key;    // a tunnel or an endpoint
  std::string what;   // "entry", "damaged entry" (left cannot be read), "via", "backup via", "tunnel", "preference",
                      // "metrics", "usable"
  std::optional<Held> left;  // nothing: absent there
  std::optional<Held> right;

  static std::string textOf(const std::optional<Held>& held) { return held ? held->text : std::string(); }
};

// False: that is enough.
using TellDifference = std::function<bool(const Difference&)>;

// What is looked at: these tunnels, these endpoints of every RIB; without them all.
struct ComparisonScope {
  std::optional<std::vector<Model::TunnelId>> tunnels;
  std::optional<std::vector<Ipkit::IpGenPrefix>> teps;
  bool withJson = false;
};

// Tells each difference. Walks in the tables' order; nothing is kept. Of an endpoint with more tunnels than an entry
// holds, which ones have a place depends on who came first: there it suffices that each is one of the endpoint's.
void compareStates(const Agent::AgentState& left, const Agent::AgentState& right, const ComparisonScope& scope,
                   const TellDifference& tell);

// {"where": ..., "key": ..., "what": ..., LEFT: ..., RIGHT: ...}; absent is null.
OrderedJson differenceJson(const Difference& difference, const char* left, const char* right);

// "fib ldpTunnel/5: entry missing: if12 192.0.2.1 [300123]", where left is what is published and right what is due.
std::string publishedWords(const Difference& difference);

}  // namespace Tools
