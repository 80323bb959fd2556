#include "agent/ChangeReport.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "agent/Columns.h"
#include "agent/FibView.h"
#include "agent/InputError.h"

namespace Agent {

TextWatch<Ipkit::IpGenPrefix>::Source ChangeReport::ribSource(const Zol::Ptr<Model::TunnelRib>& rib) const {
  return {&rib->entryChannel(),
          [this, rib](const Ipkit::IpGenPrefix& tep) {
            Model::TunnelRibEntry entry;
            const bool isShown = filter_.tep.value_or(tep) == tep;
            return isShown && Model::readSafely(rib.get(), tep, entry) ? summaryOf(entry) : "";
          },
          [rib](const auto& visit) { Model::walkSafely(*rib, [&visit](const auto& hint) { visit(hint.key()); }); }};
}

TextWatch<Model::TunnelId>::Source ChangeReport::fibSource() const {
  const Zol::Ptr<Fib::TunnelFib> fib = host_.fib();
  return {
      &fib->entryChannel(),
      [fib](const Model::TunnelId& id) {
        Fib::TunnelFibEntry entry;
        return Model::readSafely(&fib->entry(), id, entry) ? summaryOf(*fib, entry) : "";
      },
      [fib](const auto& visit) { Model::walkSafely(fib->entry(), [&visit](const auto& hint) { visit(hint.key()); }); }};
}

TextWatch<Model::TunnelId>::Source ChangeReport::unprogrammableSource() const {
  const Zol::Ptr<Model::TunnelIdColl> ids = host_.unprogrammable();
  return {&ids->entryChannel(), [ids](const Model::TunnelId& id) { return ids->has(id) ? "unprogrammable" : ""; },
          [ids](const auto& visit) {
            for (const auto& [id, isThere] : ids->entry()) {
              visit(id);
            }
          }};
}

ChangeReport::ChangeReport(const AgentHost& host, DocumentFilter filter)
    : host_(host), filter_(std::move(filter)), fib_(fibSource()), unprogrammable_(unprogrammableSource()) {
  takeRibChanges();
  takeFibChanges();
}

// Watches the RIBs that there are now, under the names that they have now.
void ChangeReport::followRibs(Changes& changes) {
  for (auto at = ribs_.begin(); at != ribs_.end();) {
    const bool isThere = host_.ribIds()->tunnelRibId(at->first).has_value();
    if (!isThere) {
      changes.push_back({'-', at->first, "", "no longer configured"});
    }
    at = isThere ? std::next(at) : ribs_.erase(at);
  }
  for (const auto& [name, id] : host_.ribIds()->tunnelRibNames()) {
    const Zol::Ptr<Model::TunnelRib> rib = host_.rib(id);
    if (!rib || filter_.rib.value_or(name) != name) {
      continue;
    }
    const auto present = ribs_.find(name);
    if (present == ribs_.end()) {
      changes.push_back({'+', name, "", "RIB " + std::to_string(id)});
      ribs_.try_emplace(name, rib, ribSource(rib));
    } else if (present->second.rib != rib) {
      present->second.rib = rib;
      present->second.watch.sourceIs(ribSource(rib));
    }
  }
}

template <class Key>
void ChangeReport::takeChanges(TextWatch<Key>& watch, const std::string& where, Changes& changes) {
  watch.takeChanges([&](const Key& key, const std::string& before, const std::string& now) {
    const char sign = before.empty() ? '+' : now.empty() ? '-' : '~';
    changes.push_back({sign, where, Zol::stringOf(key), sign == '~' ? before + " -> " + now : before + now});
  });
}

ChangeReport::Changes ChangeReport::takeRibChanges() {
  Changes changes;
  followRibs(changes);
  for (auto& [name, rib] : ribs_) {
    takeChanges(rib.watch, name, changes);
  }
  return changes;
}

ChangeReport::Changes ChangeReport::takeFibChanges() {
  Changes changes;
  takeChanges(fib_, "FIB", changes);
  takeChanges(unprogrammable_, "FIB", changes);
  return filter_.rib || filter_.tep ? Changes() : changes;
}

void ChangeReport::write(std::ostream& out, const Changes& changes, std::size_t linesMax, bool isColoured) {
  Columns columns;
  for (std::size_t i = 0; i < std::min(changes.size(), linesMax); ++i) {
    const Change& change = changes[i];
    columns.row({std::string(1, change.sign) + " " + printable(change.where), change.key, change.words});
  }
  std::stringstream lines;
  columns.write(lines, "  ");
  for (std::string line; std::getline(lines, line);) {
    const char* const colour = line[2] == '+' ? "\x1b[32m" : line[2] == '-' ? "\x1b[31m" : "\x1b[33m";
    out << (isColoured ? colour + line + "\x1b[0m" : line) << '\n';
  }
  if (changes.size() > linesMax) {
    out << "  ... and " << changes.size() - linesMax << " more\n";
  }
}

void ChangeReport::write(std::ostream& out, const std::string& title, bool isColoured) {
  const Changes ribChanges = takeRibChanges();
  const Changes fibChanges = takeFibChanges();
  if (ribChanges.empty() && fibChanges.empty()) {
    return;
  }
  out << title << ": " << counted(ribChanges.size(), "RIB change") << ", " << counted(fibChanges.size(), "FIB change")
      << '\n';
  write(out, ribChanges, ribLinesMax, isColoured);
  write(out, fibChanges, fibLinesMax, isColoured);
}

std::string summaryOf(const Model::TunnelRibEntry& entry) {
  return listOf(sortedTunnelIds(entry), 4) + " (" + std::to_string(entry.pref()) + ")";
}

}  // namespace Agent
