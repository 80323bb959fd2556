// NaiveFib: the FIB as it follows from the tables, computed from scratch: no backlog, no dependency records, no
// encapsulation ids. Slow and obvious; the judge of TunnelFibSm, with which it shares nothing but the records.
#pragma once

#include <map>
#include <set>

#include "tests/support/FibScene.h"

namespace Tunnel::TunnelTable {

class NaiveFib {
 public:
  struct Entry {
    std::set<std::string> vias, backups;  // in words
  };

  explicit NaiveFib(FibScene& scene) {
    std::apply([this](auto&... holder) { (read(*holder.table), ...); }, scene.tables);
  }

  // From the twelve tables, the interface tables in the order in which they are asked.
  template <class First, class Second, class... Tables>
  NaiveFib(const First& first, const Second& second, const Tables&... tables) {
    read(first);
    read(second);
    (read(tables), ...);
  }

  // The tunnels that can be written.
  std::map<TunnelId, Entry> entries() {
    std::map<TunnelId, Entry> entries;
    for (const auto& [id, tunnel] : tunnels_) {
      if (const Paths& paths = pathsOf(id); isWritable(paths, tunnel)) {
        for (const auto& [text, path] : paths) {
          entries[id].vias.insert(text);
        }
        entries[id].backups = tunnel.backups;
      }
    }
    return entries;
  }

  FibDocument document() {
    FibDocument lines;
    const std::map<TunnelId, Entry> written = entries();
    for (const auto& [id, entry] : written) {
      lines[Zol::stringOf(id)] = listed(entry.vias) + (entry.backups.empty() ? "" : " backup " + listed(entry.backups));
    }
    for (const auto& [id, tunnel] : tunnels_) {
      if (tunnel.contributes && written.count(id) == 0) {
        lines["unprogrammable " + Zol::stringOf(id)];
      }
    }
    return lines;
  }

 private:
  // A computed via.
  struct Path {
    std::string text() const { return where + (takesLabels ? " labelStack " + labelled() : wrapped); }

    std::string where;        // interface and next hop
    bool takesLabels = true;  // else it is `wrapped`
    std::string op;
    std::vector<unsigned> labels;  // top first
    std::string wrapped;

   private:
    std::string labelled() const {
      std::string list;
      for (const unsigned label : labels) {
        list += (list.empty() ? "" : ", ") + std::to_string(label);
      }
      return op + " [" + list + "]";
    }
  };
  using Paths = std::map<std::string, Path>;  // by their texts
  static void add(Paths& paths, const Path& path) { paths.try_emplace(path.text(), path); }
  // A via of a table entry that needs resolution.
  struct Through {
    TunnelId next;
    Path own;
  };
  struct NaiveTunnel {
    bool contributes = true;
    Paths direct;
    std::vector<Through> through;
    std::set<std::string> backups;
  };

  static constexpr std::size_t viasMax = 512, labelsMax = 7;

  template <class Table>
  void read(const Table& table) {
    walkSafely(table, [&](const auto& hint) {
      if (tunnels_.count(hint.key()) == 0) {  // else of another interface table, which comes first
        fill(table.value(hint.key()), tunnels_[hint.key()]);
      }
    });
  }

  static Path pathOf(const Via& via) {
    Path path;
    path.where = Zol::stringOf(via.intf()) + " " + Zol::stringOf(via.nextHop());
    return path;
  }
  static Path pathOf(const Via& via, const Ipkit::MplsLabelOperation& labelOp) {
    static const char* const names[] = {"push", "swap", "pop"};
    Path path = pathOf(via);
    path.op = names[static_cast<unsigned>(labelOp.op())];
    for (std::size_t i = labelOp.stackSize(); i > 0; --i) {
      path.labels.push_back(labelOp.label(i - 1));
    }
    return path;
  }
  static void addVia(NaiveTunnel& tunnel, const Via& via, const Ipkit::MplsLabelOperation& labelOp) {
    static const std::string prefix = "tunnel:";
    const std::string intf = Zol::stringOf(via.intf());
    const Path path = pathOf(via, labelOp);
    if (intf.rfind(prefix, 0) == 0) {
      tunnel.through.push_back({TunnelId::fromText(intf.substr(prefix.size())), path});
    } else {
      add(tunnel.direct, path);
    }
  }

  static void fill(const NexthopGroupTunnelTableEntry& entry, NaiveTunnel& tunnel) {
    Path path;
    path.where = "nexthopGroup:" + std::to_string(entry.nexthopGroupId()) + " 0.0.0.0";
    path.takesLabels = false;
    path.wrapped = " none";
    add(tunnel.direct, path);
  }
  template <class Entry>
  requires std::derived_from<Entry, L3IntfTunnelTableEntry>
  static void fill(const Entry& entry, NaiveTunnel& tunnel) {
    const char* const kind = std::same_as<Entry, GreIntfTunnelTableEntry>        ? " gre "
                             : std::same_as<Entry, IpsecVtiIntfTunnelTableEntry> ? " ipsecVti "
                                                                                 : " ipsecGre ";
    for (const Via& via : entry.via()) {
      Path path = pathOf(via);
      path.takesLabels = false;
      path.wrapped = kind + Zol::stringOf(entry.tunnelInfo());
      add(tunnel.direct, path);
    }
  }
  // BGP's entries have one label operation, the others one for each via. BGP's and static ones must push.
  template <class Entry>
  static void fill(const Entry& entry, NaiveTunnel& tunnel) {
    constexpr auto push = Ipkit::MplsLabelOperation::Op::push;
    if constexpr (requires { entry.contribution(); }) {
      tunnel.contributes = entry.contribution() == Contribution::contributing;
    }
    bool isUsed = true;
    if constexpr (requires { entry.labelOp(); }) {
      isUsed = entry.labelOp().op() == push;
      for (const Via& via : entry.via()) {
        addVia(tunnel, via, entry.labelOp());
      }
    } else {
      for (const MplsVia& via : entry.via()) {
        isUsed &= !std::same_as<Entry, StaticTunnelTableEntry> || via.labelOp().op() == push;
        addVia(tunnel, via, via.labelOp());
      }
    }
    if constexpr (requires { entry.backupVia(); }) {
      for (const MplsVia& via : entry.backupVia()) {
        isUsed &= !std::same_as<Entry, StaticTunnelTableEntry> || via.labelOp().op() == push;
        tunnel.backups.insert(pathOf(via, via.labelOp()).text());
      }
    }
    if (!isUsed || !tunnel.contributes) {
      const bool contributes = tunnel.contributes;
      tunnel = {};
      tunnel.contributes = contributes;
    }
  }

  bool leadsTo(const TunnelId& from, const TunnelId& to, std::set<TunnelId>& seen) const {
    const auto tunnel = tunnels_.find(from);
    if (from == to) {
      return true;
    }
    if (tunnel == tunnels_.end() || !seen.insert(from).second) {
      return false;
    }
    return std::any_of(tunnel->second.through.begin(), tunnel->second.through.end(),
                       [&](const Through& each) { return leadsTo(each.next, to, seen); });
  }

  static bool isWritable(const Paths& paths, const NaiveTunnel& tunnel) {
    return !paths.empty() && paths.size() <= viasMax && tunnel.backups.size() <= viasMax;
  }

  const Paths& pathsOf(const TunnelId& id) {
    const auto known = paths_.find(id);
    if (known != paths_.end()) {
      return known->second;
    }
    Paths paths;
    if (const auto tunnel = tunnels_.find(id); tunnel != tunnels_.end()) {
      paths = tunnel->second.direct;
      for (const Through& each : tunnel->second.through) {
        resolve(id, each, paths);
      }
    }
    return paths_[id] = paths;
  }

  void resolve(const TunnelId& id, const Through& via, Paths& paths) {
    std::set<TunnelId> seen;
    const auto next = tunnels_.find(via.next);
    if (next == tunnels_.end() || leadsTo(via.next, id, seen) || !isWritable(pathsOf(via.next), next->second)) {
      return;
    }
    for (const auto& [text, below] : pathsOf(via.next)) {
      const bool isBare = below.takesLabels || below.wrapped == " none";
      if (isBare && below.labels.size() + via.own.labels.size() <= labelsMax) {
        Path joined = via.own;
        joined.where = below.where;
        joined.labels = below.labels;
        joined.labels.insert(joined.labels.end(), via.own.labels.begin(), via.own.labels.end());
        add(paths, joined);
      }
    }
  }

  std::map<TunnelId, NaiveTunnel> tunnels_;
  std::map<TunnelId, Paths> paths_;
};

}  // namespace Tunnel::TunnelTable
