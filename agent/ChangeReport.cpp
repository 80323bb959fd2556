// Each RIB has a watch that collects the endpoints whose entries were written, and remembers in words what people were
// told of each endpoint. What to tell is the difference of the two. An endpoint that changed and changed back is none.

#include "agent/ChangeReport.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include "agent/Columns.h"
#include "agent/InputError.h"

namespace Agent {

class ChangeReport::RibWatch final : private Zol::Listener<Ipkit::IpGenPrefix> {
 public:
  RibWatch(Zol::Ptr<Model::TunnelRib> rib, std::optional<Ipkit::IpGenPrefix> tep) : tep_(std::move(tep)) {
    follow(std::move(rib));
  }

  const Zol::Ptr<Model::TunnelRib>& rib() const { return rib_; }
  // From now on rib; all of it, and all that was told of the one before, is to be looked at.
  void follow(Zol::Ptr<Model::TunnelRib> rib) {
    rib_ = std::move(rib);
    channelIs(rib_ ? &rib_->entryChannel() : nullptr);
    onAll();
  }

  // tell(tep, before, now) for each endpoint whose words changed; those of an absent entry are empty.
  template <class F>
  void takeChanges(F&& tell) {
    for (const Ipkit::IpGenPrefix& tep : std::exchange(changed_, {})) {
      Model::TunnelRibEntry entry;
      const bool isThere = rib_ && Model::readSafely(rib_.get(), tep, entry);
      const std::string now = isThere ? summaryOf(entry) : "";
      const auto before = told_.find(tep);
      if (before == told_.end() ? now.empty() : now == before->second) {
        continue;
      }
      tell(tep, before == told_.end() ? "" : before->second, now);
      isThere ? static_cast<void>(told_[tep] = now) : static_cast<void>(told_.erase(tep));
    }
  }

 private:
  void onKey(const Ipkit::IpGenPrefix& tep) override {
    if (tep_.value_or(tep) == tep) {
      changed_.insert(tep);
    }
  }
  void onAll() override {
    for (const auto& [tep, words] : told_) {
      changed_.insert(tep);
    }
    if (rib_) {
      Model::walkSafely(*rib_, true, [this](const auto& hint) { onKey(hint.key()); });
    }
  }

  const std::optional<Ipkit::IpGenPrefix> tep_;  // the only one of interest, if set
  Zol::Ptr<Model::TunnelRib> rib_;
  std::set<Ipkit::IpGenPrefix> changed_;
  std::map<Ipkit::IpGenPrefix, std::string> told_;
};

ChangeReport::ChangeReport(const AgentHost& host, DocumentFilter filter) : host_(host), filter_(std::move(filter)) {
  takeChanges();
}

ChangeReport::~ChangeReport() = default;

// Watches the RIBs that there are now, under the names that they have now.
void ChangeReport::followRibs(std::vector<Change>& changes) {
  for (auto at = watches_.begin(); at != watches_.end();) {
    const auto& [name, watch] = *at;
    if (host_.ribIds()->tunnelRibId(name)) {
      ++at;
      continue;
    }
    changes.push_back({'-', name, "", "no longer configured"});
    at = watches_.erase(at);
  }
  for (const auto& [name, id] : host_.ribIds()->tunnelRibNames()) {
    if (filter_.rib.value_or(name) != name) {
      continue;
    }
    const Zol::Ptr<Model::TunnelRib> rib = host_.rib(id);
    std::unique_ptr<RibWatch>& watch = watches_[name];
    if (!watch) {
      changes.push_back({'+', name, "", "RIB " + std::to_string(id)});
      watch = std::make_unique<RibWatch>(rib, filter_.tep);
    } else if (watch->rib() != rib) {
      watch->follow(rib);
    }
  }
}

std::vector<ChangeReport::Change> ChangeReport::takeChanges() {
  std::vector<Change> changes;
  followRibs(changes);
  for (const auto& [name, watch] : watches_) {
    const std::string& rib = name;
    watch->takeChanges([&](const Ipkit::IpGenPrefix& tep, const std::string& before, const std::string& now) {
      const char sign = before.empty() ? '+' : now.empty() ? '-' : '~';
      changes.push_back({sign, rib, Zol::stringOf(tep), sign == '~' ? before + " -> " + now : before + now});
    });
  }
  return changes;
}

void ChangeReport::write(std::ostream& out, const std::string& title, bool isColoured) {
  const std::vector<Change> changes = takeChanges();
  if (changes.empty()) {
    return;
  }
  Columns columns;
  for (std::size_t i = 0; i < std::min(changes.size(), linesMax); ++i) {
    const Change& change = changes[i];
    columns.row({std::string(1, change.sign) + " " + printable(change.rib), change.tep, change.what});
  }
  std::ostringstream lines;
  columns.write(lines, "  ");
  out << title << ": " << changes.size() << (changes.size() == 1 ? " change\n" : " changes\n");
  std::istringstream plain(lines.str());
  for (std::string line; std::getline(plain, line);) {
    const char* const colour = line[2] == '+' ? "\x1b[32m" : line[2] == '-' ? "\x1b[31m" : "\x1b[33m";
    out << (isColoured ? colour + line + "\x1b[0m" : line) << '\n';
  }
  if (changes.size() > linesMax) {
    out << "  ... and " << changes.size() - linesMax << " more\n";
  }
}

std::string summaryOf(const Model::TunnelRibEntry& entry) {
  const std::vector<Model::TunnelId> ids = sortedTunnelIds(entry);
  constexpr std::size_t all = 4;
  const std::size_t shown = ids.size() > all ? all - 1 : ids.size();
  std::string words;
  for (std::size_t i = 0; i < shown; ++i) {
    words += (i == 0 ? "" : ", ") + Zol::stringOf(ids[i]);
  }
  if (shown < ids.size()) {
    words += " and " + std::to_string(ids.size() - shown) + " more";
  }
  return words + " (" + std::to_string(entry.pref()) + ")";
}

}  // namespace Agent
