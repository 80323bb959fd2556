#include "agent/StateDocument.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "agent/FibView.h"

namespace Agent {
namespace {

OrderedJson tunnelsJson(const Model::TunnelRibEntry& entry) {
  OrderedJson ids = OrderedJson::array();
  for (const Model::TunnelId& id : sortedTunnelIds(entry)) {
    ids.push_back(Zol::stringOf(id));
  }
  return ids;
}

OrderedJson protocolRibEntryJson(const Model::TunnelRibEntry& entry) {
  return {{"tep", Zol::stringOf(entry.tep())}, {"tunnels", tunnelsJson(entry)}};
}

// Separates the members of one collection and puts each on a line.
class Members {
 public:
  Members(std::ostream& out, const char* indent) : out_(out), indent_(indent) {}

  std::ostream& next() { return out_ << (std::exchange(any_, true) ? ",\n" : "\n") << indent_; }

 private:
  std::ostream& out_;
  const char* indent_;
  bool any_ = false;
};

class DocumentWriter {
 public:
  DocumentWriter(std::ostream& out, const AgentState& state, const DocumentFilter& filter)
      : out_(out), state_(state), filter_(filter) {}

  void write() {
    out_ << "{\"ribs\": [";
    writeRibs();
    out_ << "],\n \"protocolRibs\": {";
    writeProtocolRibs();
    out_ << "},\n \"fib\": [";
    writeFib();
    out_ << "],\n \"encaps\": [";
    writeEncaps();
    out_ << "],\n \"unprogrammable\": [";
    writeUnprogrammable();
    out_ << "],\n \"convergence\": {";
    writeConvergence();
    out_ << "}}\n";
  }

 private:
  void writeRibs() {
    std::map<Model::TunnelRibId, std::string> names;
    for (const auto& [name, id] : state_.ribIds()->tunnelRibNames()) {
      names[id] = name;
    }
    Members ribs(out_, "  ");
    for (const auto& [id, name] : names) {
      if (const Zol::Ptr<Model::TunnelRib> rib = state_.rib(id); rib && filter_.rib.value_or(name) == name) {
        ribs.next() << "{\"name\": " << textOf(name) << ", \"id\": " << id << ", \"entries\": [";
        writeEntries(*rib, "    ", ribEntryJson);
        out_ << "]}";
      }
    }
  }

  void writeProtocolRibs() {
    std::map<Model::TunnelType, Zol::Ptr<Model::TunnelRib>> sorted;
    for (const auto& [type, wrapper] : state_.protocolRibs()->protocolTunnelRib()) {
      sorted[type] = wrapper->tunnelRib();
    }
    Members types(out_, "  ");
    for (const auto& [type, rib] : sorted) {
      types.next() << textOf(Model::stringValue(type)) << ": [";
      if (rib) {
        writeEntries(*rib, "    ", protocolRibEntryJson);
      }
      out_ << "]";
    }
  }

  void writeEntries(const Model::TunnelRib& rib, const char* indent,
                    OrderedJson (*toJson)(const Model::TunnelRibEntry&)) {
    Members entries(out_, indent);
    for (const Ipkit::IpGenPrefix& tep : filter_.tep ? std::vector{*filter_.tep} : sortedKeys(rib)) {
      Model::TunnelRibEntry entry;
      if (Model::readSafely(&rib, tep, entry)) {
        entries.next() << textOf(toJson(entry));
        if (filter_.tep) {
          tunnelsAtTep_.insert(entry.tunnelId().begin(), entry.tunnelId().end());
        }
      }
    }
  }

  bool isShown(const Model::TunnelId& id) const { return !filter_.tep || tunnelsAtTep_.contains(id); }

  void writeFib() {
    Members entries(out_, "  ");
    const Fib::TunnelFib& fib = *state_.fib();
    for (const Model::TunnelId& id : sortedKeys(fib.entry())) {
      Fib::TunnelFibEntry entry;
      if (!isShown(id) || !Model::readSafely(&fib.entry(), id, entry)) {
        continue;
      }
      entries.next() << textOf(fibEntryJson(fib, entry));
      for (const Fib::TunnelViaArray* const vias : {&entry.tunnelVia(), &entry.backupTunnelVia()}) {
        for (const Fib::TunnelVia& via : *vias) {
          encapsShown_.insert(via.encapId());
        }
      }
    }
  }

  void writeEncaps() {
    Members encaps(out_, "  ");
    std::map<Fib::EncapId, std::uint32_t> counts = encapRefCounts(*state_.fib());
    for (const Fib::EncapId& id : sortedEncapIds(*state_.fib())) {
      if (!filter_.tep || encapsShown_.contains(id)) {
        encaps.next() << textOf(encapJson(*state_.fib(), id, counts[id]));
      }
    }
  }

  void writeUnprogrammable() {
    std::set<Model::TunnelId> sorted;
    for (const auto& [id, isThere] : state_.unprogrammable()->entry()) {
      if (isShown(id)) {
        sorted.insert(id);
      }
    }
    Members ids(out_, "  ");
    for (const Model::TunnelId& id : sorted) {
      ids.next() << textOf(Zol::stringOf(id));
    }
  }

  void writeConvergence() {
    std::map<Model::TunnelRibId, std::uint64_t> sorted;
    for (const auto& [rib, seqno] : state_.tunnelConvergence()->tunnelRibConvergenceSeqno()) {
      sorted[rib] = seqno;
    }
    const char* separator = "";
    for (const auto& [rib, seqno] : sorted) {
      out_ << separator << '"' << rib << "\": " << seqno;
      separator = ", ";
    }
  }

  std::ostream& out_;
  const AgentState& state_;
  const DocumentFilter& filter_;
  std::set<Model::TunnelId> tunnelsAtTep_;  // when narrowed to a tep: those that the entries written so far name
  std::set<Fib::EncapId> encapsShown_;
};

}  // namespace

void writeStateDocument(std::ostream& out, const AgentState& state, const DocumentFilter& filter) {
  DocumentWriter(out, state, filter).write();
}

OrderedJson stateDocument(const AgentState& state, const DocumentFilter& filter) {
  std::ostringstream text;
  writeStateDocument(text, state, filter);
  return OrderedJson::parse(text.str());
}

OrderedJson ribEntryJson(const Model::TunnelRibEntry& entry) {
  const Model::TunnelMetrics& metrics = entry.metrics();
  return {{"tep", Zol::stringOf(entry.tep())},
          {"pref", entry.pref()},
          {"metrics", {metrics.m(), metrics.m2(), metrics.p(), metrics.p2()}},
          {"tunnels", tunnelsJson(entry)}};
}

std::vector<Model::TunnelId> sortedTunnelIds(const Model::TunnelRibEntry& entry) {
  std::vector<Model::TunnelId> ids(entry.tunnelId().begin(), entry.tunnelId().end());
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::string listOf(const std::vector<Model::TunnelId>& ids, std::size_t max) {
  const std::size_t shown = ids.size() > max ? max - 1 : ids.size();
  std::string words;
  for (std::size_t i = 0; i < shown; ++i) {
    words += (i == 0 ? "" : ", ") + Zol::stringOf(ids[i]);
  }
  return shown < ids.size() ? words + " and " + std::to_string(ids.size() - shown) + " more" : words;
}

}  // namespace Agent
