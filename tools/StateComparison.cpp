#include "tools/StateComparison.h"

#include <algorithm>
#include <set>
#include <utility>

#include "agent/Explanation.h"
#include "agent/FibView.h"
#include "agent/InputError.h"
#include "agent/StateDocument.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;
using Agent::FibVia;

Held held(const std::string& text) { return {text, text}; }

Held held(const FibVia& via) {
  OrderedJson json = Agent::viasJson({via})[0];
  const bool isSaid = via.encapId.encapType() == Fib::EncapType::labelStack && !via.isEncapMissing;
  return {isSaid ? Agent::summaryOf(via) : Agent::summaryOf(via.via.via()) + " " + Agent::textOf(json["encap"]),
          std::move(json)};
}

bool isSame(const FibVia& a, const FibVia& b) { return a.isEncapMissing == b.isEncapMissing && a.via == b.via; }

// Whether the tunnel's own table has it at this endpoint.
bool isAt(const Agent::AgentState& state, const Model::TunnelId& tunnel, const Ipkit::IpGenPrefix& tep) {
  bool isThere = false;
  for (const Agent::TableId id : Agent::tablesOf(tunnel.tunnelType())) {
    state.tables().withTable(id, [&](const auto& table) {
      typename std::remove_cvref_t<decltype(table)>::Record record;
      isThere = isThere || (Model::readSafely(&table, tunnel, record) && record.tep() == tep);
    });
  }
  return isThere && !state.unprogrammable()->has(tunnel);
}

class Comparison {
 public:
  Comparison(const Agent::AgentState& left, const Agent::AgentState& right, const TellDifference& tell)
      : left_(left), right_(right), tell_(tell) {}

  void run() {
    compareRibs();
    compareProtocolRibs();
    place_.where = "fib";
    compareMaps(left_.fib()->entry(), right_.fib()->entry(), [this](const auto& a, const auto& b) { compare(a, b); });
    compareUnprogrammable();
  }

 private:
  void tell(const char* what, std::optional<Held> left, std::optional<Held> right) {
    place_.what = what;
    place_.left = std::move(left);
    place_.right = std::move(right);
    tell_(place_);
  }
  void tellUnlessSame(const char* what, const std::string& left, const std::string& right) {
    if (left != right) {
      tell(what, held(left), held(right));
    }
  }

  void compareRibs() {
    std::set<std::string> names;
    for (const Agent::AgentState* const state : {&left_, &right_}) {
      for (const auto& [name, id] : state->ribIds()->tunnelRibNames()) {
        names.insert(name);
      }
    }
    for (const std::string& name : names) {
      place_.where = "rib " + Agent::printable(name);
      isProtocolRib_ = false;
      compareRib(ribOf(left_, name), ribOf(right_, name));
    }
  }
  static Zol::Ptr<Model::TunnelRib> ribOf(const Agent::AgentState& state, const std::string& name) {
    const auto id = state.ribIds()->tunnelRibId(name);
    return id ? state.rib(*id) : nullptr;
  }

  void compareProtocolRibs() {
    isProtocolRib_ = true;
    for (const auto& [type, wrapper] : left_.protocolRibs()->protocolTunnelRib()) {
      place_.where = "protocolRib " + std::string(Model::stringValue(type));
      const auto other = right_.protocolRibs()->protocolTunnelRib(type);
      compareRib(wrapper->tunnelRib(), other ? other->tunnelRib() : nullptr);
    }
  }

  // A RIB that only one side has is empty on the other.
  void compareRib(const Zol::Ptr<Model::TunnelRib>& left, const Zol::Ptr<Model::TunnelRib>& right) {
    const auto none = Zol::make<Model::TunnelRib>("none");
    compareMaps(left ? *left : *none, right ? *right : *none, [this](const auto& a, const auto& b) { compare(a, b); });
  }

  template <class Map, class Compare>
  void compareMaps(const Map& left, const Map& right, Compare&& compareRecords) {
    typename Map::Record a, b;
    Model::walkSafely(left, true, [&](const auto& hint) {
      if (!Model::readSafely(&left, hint.key(), a)) {
        return;
      }
      place_.key = Zol::stringOf(hint.key());
      if (Model::readSafely(&right, hint.key(), b)) {
        compareRecords(a, b);
      } else {
        tell("entry", entryHeld(left_, a), std::nullopt);
      }
    });
    Model::walkSafely(right, true, [&](const auto& hint) {
      if (Model::readSafely(&right, hint.key(), b) && !Model::readSafely(&left, hint.key(), a)) {
        place_.key = Zol::stringOf(hint.key());
        tell("entry", std::nullopt, entryHeld(right_, b));
      }
    });
  }

  static Held entryHeld(const Agent::AgentState& state, const Fib::TunnelFibEntry& entry) {
    OrderedJson json = Agent::fibEntryJson(*state.fib(), entry);
    json.erase("tunnel");
    return {Agent::summaryOf(*state.fib(), entry), std::move(json)};
  }
  static Held entryHeld(const Agent::AgentState&, const Model::TunnelRibEntry& entry) {
    OrderedJson tunnels = OrderedJson::array();
    const std::vector<Model::TunnelId> ids = Agent::sortedTunnelIds(entry);
    for (const Model::TunnelId& id : ids) {
      tunnels.push_back(Zol::stringOf(id));
    }
    return {Agent::listOf(ids, 4), {{"pref", entry.pref()}, {"tunnels", std::move(tunnels)}}};
  }

  void compare(const Model::TunnelRibEntry& left, const Model::TunnelRibEntry& right) {
    const bool areFull = left.isFull() && right.isFull();
    if (!isProtocolRib_) {
      tellUnlessSame("preference", std::to_string(left.pref()), std::to_string(right.pref()));
      if (!areFull) {
        tellUnlessSame("metrics", textOf(left.metrics()), textOf(right.metrics()));
      }
    }
    for (const Model::TunnelId& id : Agent::sortedTunnelIds(left)) {
      if (!right.hasTunnelId(id) && !(areFull && isAt(right_, id, right.tep()))) {
        tell("tunnel", held(Zol::stringOf(id)), std::nullopt);
      }
    }
    for (const Model::TunnelId& id : Agent::sortedTunnelIds(right)) {
      if (!left.hasTunnelId(id) && !areFull) {
        tell("tunnel", std::nullopt, held(Zol::stringOf(id)));
      }
    }
  }
  static std::string textOf(const Model::TunnelMetrics& metrics) {
    return Agent::textOf(OrderedJson{metrics.m(), metrics.m2(), metrics.p(), metrics.p2()});
  }

  void compare(const Fib::TunnelFibEntry& left, const Fib::TunnelFibEntry& right) {
    compareVias("via", left.tunnelVia(), right.tunnelVia());
    compareVias("backup via", left.backupTunnelVia(), right.backupTunnelVia());
    tellUnlessSame("usable", left.arePrimaryViasUsable() ? "true" : "false",
                   right.arePrimaryViasUsable() ? "true" : "false");
  }

  // Vias without a partner on the other side; two to the same next hop are one via whose wrapping differs.
  void compareVias(const char* what, const Fib::TunnelViaArray& left, const Fib::TunnelViaArray& right) {
    std::vector<FibVia> onlyRight = Agent::sortedVias(*right_.fib(), right);
    std::vector<FibVia> onlyLeft;
    const auto take = [&onlyRight](auto&& isPartner) {
      const auto found = std::find_if(onlyRight.begin(), onlyRight.end(), isPartner);
      std::optional<FibVia> partner;
      if (found != onlyRight.end()) {
        partner = *found;
        onlyRight.erase(found);
      }
      return partner;
    };
    for (const FibVia& via : Agent::sortedVias(*left_.fib(), left)) {
      if (!take([&via](const FibVia& other) { return isSame(via, other); })) {
        onlyLeft.push_back(via);
      }
    }
    for (const FibVia& via : onlyLeft) {
      const auto partner = take([&via](const FibVia& other) { return via.via.via() == other.via.via(); });
      tell(what, held(via), partner ? std::optional(held(*partner)) : std::nullopt);
    }
    for (const FibVia& via : std::vector<FibVia>(onlyRight)) {
      tell(what, std::nullopt, held(via));
    }
  }

  void compareUnprogrammable() {
    place_.where = "unprogrammable";
    const auto& left = *left_.unprogrammable();
    const auto& right = *right_.unprogrammable();
    for (const auto& [id, isThere] : left.entry()) {
      if (!right.has(id)) {
        place_.key = Zol::stringOf(id);
        tell("tunnel", held(place_.key), std::nullopt);
      }
    }
    for (const auto& [id, isThere] : right.entry()) {
      if (!left.has(id)) {
        place_.key = Zol::stringOf(id);
        tell("tunnel", std::nullopt, held(place_.key));
      }
    }
  }

  const Agent::AgentState& left_;
  const Agent::AgentState& right_;
  const TellDifference& tell_;
  Difference place_;  // of what is looked at
  bool isProtocolRib_ = false;
};

}  // namespace

void compareStates(const Agent::AgentState& left, const Agent::AgentState& right, const TellDifference& tell) {
  Comparison(left, right, tell).run();
}

OrderedJson differenceJson(const Difference& difference, const char* left, const char* right) {
  return {{"where", difference.where},
          {"key", difference.key},
          {"what", difference.what},
          {left, difference.left ? difference.left->json : OrderedJson()},
          {right, difference.right ? difference.right->json : OrderedJson()}};
}

}  // namespace Tools
