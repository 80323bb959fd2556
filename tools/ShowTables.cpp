#include <fstream>
#include <iostream>

#include "agent/InputError.h"
#include "runtime/Memtab/Owner.h"
#include "tools/Commands.h"
#include "tools/ShowCommand.h"
#include "tools/StateReading.h"

namespace Tools {
namespace {

std::string nameOf(std::uint64_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(file, name);
  return Agent::printable(name);
}

// "alive" while a process has the table's lock; of a file that nobody reads or writes nothing can be said.
std::string writerWord(const Memtab::MirrorStore& mirror) {
  return !mirror.isBound() ? "-" : mirror.isOwned() ? "alive" : "gone";
}

int finish(Rows& rows, StateReading& reading, const ListOptions& options) {
  rows.end();
  return toldDamage(reading.damages(), options.isJson);
}

OrderedJson seqnoJson(const std::optional<std::uint64_t>& seqno) { return seqno ? OrderedJson(*seqno) : OrderedJson(); }

std::optional<std::uint64_t> convergedAt(const Agent::AgentState& state, Model::TunnelRibId rib) {
  const auto& seqnos = state.tunnelConvergence()->tunnelRibConvergenceSeqno();
  return seqnos.has(rib) ? std::optional(seqnos.value(rib)) : std::nullopt;
}

std::string seqnoWords(const std::optional<std::uint64_t>& seqno) { return seqno ? std::to_string(*seqno) : "not yet"; }

}  // namespace

int showTables(const ListOptions& options) {
  StateReading reading(options.stateDirectory);
  Rows rows(std::cout, options.isJson, "tables", {"table", "entries", "sequence", "state", "writer", "file"},
            options.limit);
  rows.beginBehind(options.after);
  bool isTroubled = false;
  for (const TableFile& file : reading.files()) {
    const Memtab::MirrorStore& mirror = *file.mirror;
    isTroubled = isTroubled || !mirror.trouble().empty();
    const std::uint64_t entries = mirror.isBound() ? mirror.entries(0) : 0;
    const std::uint64_t sequence = mirror.isBound() ? mirror.reader().sequence() : 0;
    const auto cells = [&] {
      const std::string number = mirror.isBound() ? std::to_string(entries) : "-";
      return Cells{file.name,
                   number,
                   mirror.isBound() ? std::to_string(sequence) : "-",
                   mirror.trouble().empty() ? standingOf(mirror) : "unreadable",
                   writerWord(mirror),
                   mirror.trouble().empty() ? file.path : mirror.trouble()};
    };
    const bool isMore = rows.add(file.name, cells, [&] {
      return OrderedJson{{"table", file.name},          {"entries", entries},           {"sequence", sequence},
                         {"state", standingOf(mirror)}, {"writer", writerWord(mirror)}, {"file", file.path}};
    });
    if (!isMore) {
      break;
    }
  }
  rows.end();
  return isTroubled ? exitFailed : exitDone;
}

int showRibs(const ListOptions& options) {
  StateReading reading(options.stateDirectory);
  const Agent::StatusReader& status = reading.status();
  Rows rows(std::cout, options.isJson, "ribs",
            {"rib", "id", "endpoints", "sequence", "state", "BGP at sequence", "tables (preference)"}, options.limit);
  rows.beginBehind(options.after);
  for (const auto& each : status.ribs()) {
    const Model::TunnelRibId id = each.first;
    const Agent::RibLine& line = each.second;
    const auto rib = reading.state().rib(id);
    const Memtab::MirrorStore& mirror = *reading.state().entityManager()->mirror(reading.pathOfRib(line.name));
    const bool isReadable = mirror.trouble().empty();
    const std::string state = isReadable ? standingOf(mirror) : "unreadable";
    const auto seqno = convergedAt(reading.state(), id);
    const std::uint64_t sequence = rib ? rib->collectionControl().sequence() : 0;
    const std::uint64_t size = rib ? rib->size() : 0;
    std::string tables;
    OrderedJson tablesJson = OrderedJson::object();
    for (const auto& [table, mapping] : line.tables) {
      const std::string name = Zol::stringOf(table);
      tables += (tables.empty() ? "" : ", ") + name + (mapping ? " (" + std::to_string(*mapping) + ")" : "");
      tablesJson[name] = mapping ? OrderedJson{{"pref", *mapping}} : OrderedJson::object();
    }
    const auto cells = [&] {
      return Cells{Agent::printable(line.name),
                   std::to_string(id),
                   isReadable ? std::to_string(size) : "-",
                   isReadable ? std::to_string(sequence) : "-",
                   state,
                   seqnoWords(seqno),
                   tables};
    };
    const bool isMore = rows.add(line.name, cells, [&] {
      return OrderedJson{{"name", line.name},    {"id", id},       {"entries", size},
                         {"sequence", sequence}, {"state", state}, {"convergence", seqnoJson(seqno)},
                         {"tables", tablesJson}};
    });
    if (!isMore) {
      break;
    }
  }
  return finish(rows, reading, options);
}

int showConvergence(const ListOptions& options) {
  StateReading reading(options.stateDirectory);
  const Agent::StatusReader& status = reading.status();
  const auto table = Agent::statusTable<Agent::BgpLuDeclaration>(*reading.state().entityManager(),
                                                                 Agent::bgpLuDeclarationPath, Statehub::Access::read);
  Agent::BgpLuDeclaration declaration;
  const bool isDeclared = Model::readSafely(table.get(), 0U, declaration) && declaration.converged();
  const auto declared = isDeclared ? std::optional(declaration.seqno()) : std::nullopt;
  if (!options.isJson) {
    std::cout << "BGP: " << (declared ? "converged at sequence number " + std::to_string(*declared) : "not converged")
              << '\n';
  }
  Rows rows(std::cout, options.isJson, "ribs", {"rib", "id", "follows BGP at sequence"}, options.limit,
            {{"bgpLu", seqnoJson(declared)}});
  rows.beginBehind(options.after);
  for (const auto& each : status.ribs()) {
    const Model::TunnelRibId id = each.first;
    const Agent::RibLine& line = each.second;
    const auto seqno = convergedAt(reading.state(), id);
    const bool isMore = rows.add(
        line.name,
        [&] {
          return Cells{Agent::printable(line.name), std::to_string(id), seqnoWords(seqno)};
        },
        [&] {
          return OrderedJson{{"name", line.name}, {"id", id}, {"convergence", seqnoJson(seqno)}};
        });
    if (!isMore) {
      break;
    }
  }
  return finish(rows, reading, options);
}

int showProcesses(const ListOptions& options) {
  StateReading reading(options.stateDirectory);
  Rows rows(std::cout, options.isJson, "processes", {"pid", "process", "holds", "file"}, options.limit);
  rows.beginBehind(options.after);
  for (const TableFile& file : reading.files()) {
    const std::optional<std::uint64_t> pid = writerOf(*file.mirror);
    if (!pid) {
      continue;
    }
    const std::string name = nameOf(*pid);
    const bool isMore = rows.add(
        file.name,
        [&] {
          return Cells{std::to_string(*pid), name.empty() ? "unknown" : name, file.name, file.path};
        },
        [&] {
          return OrderedJson{{"pid", *pid}, {"name", name}, {"table", file.name}, {"file", file.path}};
        });
    if (!isMore) {
      break;
    }
  }
  return finish(rows, reading, options);
}

}  // namespace Tools
