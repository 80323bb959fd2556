#include "tools/StateComparison.h"

#include <algorithm>
#include <set>
#include <utility>

#include "agent/Explanation.h"
#include "agent/FibView.h"
#include "agent/InputError.h"
#include "agent/StateDocument.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;
using Agent::FibVia;

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
  Comparison(const Agent::AgentState& left, const Agent::AgentState& right, const ComparisonScope& scope,
             const TellDifference& tell)
      : left_(left), right_(right), scope_(scope), tell_(tell) {}

  void run() {
    compareRibs();
    compareProtocolRibs();
    place_.where = "fib";
    compareMaps(left_.fib()->entry(), right_.fib()->entry(), scope_.tunnels,
                [this](const auto& a, const auto& b) { compare(a, b); });
    compareUnprogrammable();
  }

 private:
  void tell(const std::string& key, const char* what, std::optional<Held> left, std::optional<Held> right) {
    if (goesOn_) {
      place_.key = key;
      place_.what = what;
      place_.left = std::move(left);
      place_.right = std::move(right);
      goesOn_ = tell_(place_);
    }
  }
  void tellUnlessSame(const std::string& key, const char* what, const std::string& left, const std::string& right) {
    if (left != right) {
      tell(key, what, held(left), held(right));
    }
  }

  Held held(const std::string& text) const { return {text, scope_.withJson ? OrderedJson(text) : OrderedJson()}; }
  Held held(const FibVia& via) const {
    const bool isSaid = via.encapId.encapType() == Fib::EncapType::labelStack && !via.isEncapMissing;
    const OrderedJson json = isSaid && !scope_.withJson ? OrderedJson() : Agent::viasJson({via})[0];
    return {isSaid ? Agent::summaryOf(via) : Agent::summaryOf(via.via.via()) + " " + Agent::textOf(json["encap"]),
            json};
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
    compareMaps(left ? *left : *none, right ? *right : *none, scope_.teps,
                [this](const auto& a, const auto& b) { compare(a, b); });
  }

  template <class Map, class Keys, class Compare>
  void compareMaps(const Map& left, const Map& right, const Keys& keys, Compare&& compareRecords) {
    typename Map::Record other;
    std::size_t common = 0;
    walk(left, {keys, std::nullopt}, [&](const auto& record) {
      if (Model::readSafely(&right, keyOf(record), other)) {
        ++common;
        compareRecords(record, other);
      } else {
        tell(Zol::stringOf(keyOf(record)), "entry", entryHeld(left_, record), std::nullopt);
      }
      return goesOn_;
    });
    if (common == right.size()) {
      return;
    }
    walk(right, {keys, std::nullopt}, [&](const auto& record) {
      bool isDamaged = false;
      if (!isRead(left, keyOf(record), other, isDamaged)) {
        tell(Zol::stringOf(keyOf(record)), isDamaged ? "damaged entry" : "entry", std::nullopt,
             entryHeld(right_, record));
      }
      return goesOn_;
    });
  }
  template <class Map>
  static bool isRead(const Map& map, const typename Map::Key& key, typename Map::Record& record, bool& isDamaged) {
    try {
      return map.read(key, record);
    } catch (const Memtab::CorruptionException& damage) {
      map.corruptionDetected(damage.what());
      isDamaged = true;
      return false;
    }
  }
  static Model::TunnelId keyOf(const Fib::TunnelFibEntry& entry) { return entry.tunnelId(); }
  static Ipkit::IpGenPrefix keyOf(const Model::TunnelRibEntry& entry) { return entry.tep(); }

  Held entryHeld(const Agent::AgentState& state, const Fib::TunnelFibEntry& entry) const {
    OrderedJson json;
    if (scope_.withJson) {
      json = Agent::fibEntryJson(*state.fib(), entry);
      json.erase("tunnel");
    }
    return {Agent::summaryOf(*state.fib(), entry), std::move(json)};
  }
  Held entryHeld(const Agent::AgentState&, const Model::TunnelRibEntry& entry) const {
    const std::vector<Model::TunnelId> ids = Agent::sortedTunnelIds(entry);
    OrderedJson json;
    if (scope_.withJson) {
      json = {{"pref", entry.pref()}, {"tunnels", OrderedJson::array()}};
      for (const Model::TunnelId& id : ids) {
        json["tunnels"].push_back(Zol::stringOf(id));
      }
    }
    return {Agent::listOf(ids, 4), std::move(json)};
  }

  void compare(const Model::TunnelRibEntry& left, const Model::TunnelRibEntry& right) {
    if (left == right) {
      return;
    }
    const std::string key = Zol::stringOf(left.tep());
    const bool areFull = left.isFull() && right.isFull();
    if (!isProtocolRib_) {
      tellUnlessSame(key, "preference", std::to_string(left.pref()), std::to_string(right.pref()));
      if (!areFull) {
        tellUnlessSame(key, "metrics", textOf(left.metrics()), textOf(right.metrics()));
      }
    }
    for (const Model::TunnelId& id : Agent::sortedTunnelIds(left)) {
      if (!right.hasTunnelId(id) && !(areFull && isAt(right_, id, right.tep()))) {
        tell(key, "tunnel", held(Zol::stringOf(id)), std::nullopt);
      }
    }
    for (const Model::TunnelId& id : Agent::sortedTunnelIds(right)) {
      if (!left.hasTunnelId(id) && !areFull) {
        tell(key, "tunnel", std::nullopt, held(Zol::stringOf(id)));
      }
    }
  }
  static std::string textOf(const Model::TunnelMetrics& metrics) {
    return Agent::textOf(OrderedJson{metrics.m(), metrics.m2(), metrics.p(), metrics.p2()});
  }

  void compare(const Fib::TunnelFibEntry& left, const Fib::TunnelFibEntry& right) {
    compareVias(left.tunnelId(), "via", left.tunnelVia(), right.tunnelVia());
    compareVias(left.tunnelId(), "backup via", left.backupTunnelVia(), right.backupTunnelVia());
    if (left.arePrimaryViasUsable() != right.arePrimaryViasUsable()) {
      tellUnlessSame(Zol::stringOf(left.tunnelId()), "usable", left.arePrimaryViasUsable() ? "true" : "false",
                     right.arePrimaryViasUsable() ? "true" : "false");
    }
  }

  // Vias without a partner on the other side; two to the same next hop are one via whose wrapping differs.
  void compareVias(const Model::TunnelId& tunnel, const char* what, const Fib::TunnelViaArray& left,
                   const Fib::TunnelViaArray& right) {
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
      tell(Zol::stringOf(tunnel), what, held(via), partner ? std::optional(held(*partner)) : std::nullopt);
    }
    for (const FibVia& via : onlyRight) {
      tell(Zol::stringOf(tunnel), what, std::nullopt, held(via));
    }
  }

  void compareUnprogrammable() {
    place_.where = "unprogrammable";
    const auto& left = *left_.unprogrammable();
    const auto& right = *right_.unprogrammable();
    const auto isOnlyIn = [this](const Model::TunnelId& id, const Model::TunnelIdColl& other) {
      const auto& asked = scope_.tunnels;
      return !other.has(id) && (!asked || std::find(asked->begin(), asked->end(), id) != asked->end());
    };
    for (const auto& [id, isThere] : left.entry()) {
      if (isOnlyIn(id, right)) {
        tell(Zol::stringOf(id), "tunnel", held(Zol::stringOf(id)), std::nullopt);
      }
    }
    for (const auto& [id, isThere] : right.entry()) {
      if (isOnlyIn(id, left)) {
        tell(Zol::stringOf(id), "tunnel", std::nullopt, held(Zol::stringOf(id)));
      }
    }
  }

  const Agent::AgentState& left_;
  const Agent::AgentState& right_;
  const ComparisonScope& scope_;
  const TellDifference& tell_;
  Difference place_;  // of what is looked at
  bool goesOn_ = true;
  bool isProtocolRib_ = false;
};

}  // namespace

void compareStates(const Agent::AgentState& left, const Agent::AgentState& right, const ComparisonScope& scope,
                   const TellDifference& tell) {
  Comparison(left, right, scope, tell).run();
}

OrderedJson differenceJson(const Difference& difference, const char* left, const char* right) {
  return {{"where", difference.where},
          {"key", difference.key},
          {"what", difference.what},
          {left, difference.left ? difference.left->json : OrderedJson()},
          {right, difference.right ? difference.right->json : OrderedJson()}};
}

std::string publishedWords(const Difference& difference) {
  const std::string place = difference.where + " " + difference.key + ": " + difference.what;
  if (!difference.left) {
    const bool isDamaged = difference.what == "damaged entry";
    return place + (isDamaged ? ", should be: " : " missing: ") + difference.right->text;
  }
  if (!difference.right) {
    return place + " not due: " + difference.left->text;
  }
  return place + " " + difference.left->text + " should be " + difference.right->text;
}

}  // namespace Tools
