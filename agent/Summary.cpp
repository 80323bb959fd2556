#include "agent/Summary.h"

#include <map>
#include <set>
#include <string>

#include "agent/Columns.h"
#include "agent/FibView.h"
#include "agent/InputError.h"
#include "agent/StateDocument.h"

namespace Agent {
namespace {

std::string joined(const std::string& list, const std::string& word) {
  return list.empty() ? word : list + ", " + word;
}

void writeTitle(std::ostream& out, const std::string& title, bool isColoured) {
  out << (isColoured ? "\x1b[1m" + title + "\x1b[0m" : title) << '\n';
}

void addTables(Columns& columns, const AgentHost& host) {
  for (const TableId table : allTables()) {
    const std::size_t size = host.tables().table(table).size();
    if (size > 0 || !host.isMounted(table)) {
      columns.row({Zol::stringOf(table), std::to_string(size), host.isMounted(table) ? "" : "not mounted"});
    }
  }
}

// name, id, endpoints, how many endpoints have how many tunnels, preferences in use
void addRib(Columns& columns, const std::string& name, Model::TunnelRibId id, const Model::TunnelRib& rib) {
  std::map<std::size_t, std::size_t> widths;
  std::set<unsigned> prefs;
  Model::walkSafely(rib, [&](const auto& hint) {
    Model::TunnelRibEntry entry;
    if (Model::readSafely(&rib, hint.key(), entry)) {
      ++widths[entry.tunnelIds()];
      prefs.insert(entry.pref());
    }
  });
  std::string widthWords;
  for (const auto& [width, count] : widths) {
    widthWords = joined(widthWords, std::to_string(width) + "x " + std::to_string(count));
  }
  std::string prefWords;
  for (const unsigned pref : prefs) {
    prefWords = joined(prefWords, std::to_string(pref));
  }
  columns.row({printable(name), std::to_string(id), std::to_string(rib.size()), widthWords.empty() ? "-" : widthWords,
               prefWords.empty() ? "-" : prefWords});
}

void addFib(Columns& columns, const AgentHost& host) {
  const Fib::TunnelFib& fib = *host.fib();
  columns.row({"entries", std::to_string(fib.entry().size())});
  Model::forEachEncapKind([&](auto kind) {
    if (const std::size_t count = kind.encaps(fib).size(); count > 0) {
      columns.row({Fib::stringValue(kind.type) + " encapsulations", std::to_string(count)});
    }
  });
  columns.row({"unprogrammable", std::to_string(host.unprogrammable()->entry().size())});
}

void addConvergence(Columns& columns, const AgentHost& host) {
  for (const auto& [name, id] : host.ribIds()->tunnelRibNames()) {
    const auto& seqnos = host.tunnelConvergence()->tunnelRibConvergenceSeqno();
    columns.row(
        {printable(name), seqnos.has(id) ? "at sequence number " + std::to_string(seqnos.value(id)) : "not yet"});
  }
}

}  // namespace

void writeSummary(std::ostream& out, const AgentHost& host, bool isColoured) {
  const auto section = [&](const char* title, auto&& add) {
    Columns columns;
    add(columns);
    writeTitle(out, title, isColoured);
    columns.rows() > 0 ? columns.write(out, "  ") : static_cast<void>(out << "  none\n");
  };
  section("tables", [&](Columns& columns) { addTables(columns, host); });
  section("RIBs", [&](Columns& columns) {
    columns.row({"name", "id", "teps", "ECMP", "preferences"});
    for (const auto& [name, id] : host.ribIds()->tunnelRibNames()) {
      if (const Zol::Ptr<Model::TunnelRib> rib = host.rib(id)) {
        addRib(columns, name, id, *rib);
      }
    }
  });
  section("FIB", [&](Columns& columns) { addFib(columns, host); });
  section("convergence", [&](Columns& columns) { addConvergence(columns, host); });
}

}  // namespace Agent
