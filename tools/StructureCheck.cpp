#include "tools/StructureCheck.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "agent/InputError.h"
#include "tools/InputDamage.h"
#include "tools/Shadow.h"
#include "tunnel/EncapKind.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;

constexpr unsigned triesMax = 5;
constexpr auto pause = std::chrono::milliseconds(100);

class StructureCheck {
 public:
  explicit StructureCheck(StateReading& reading) : reading_(reading) {}

  std::vector<Problem> run() {
    checkFib();
    checkRibs();
    checkInputs();
    checkStatus();
    checkFiles();
    return std::move(problems_);
  }

 private:
  void add(const std::string& table, const std::string& text) { problems_.push_back({table, text}); }

  // Calls f with each record. Whether all could be read.
  template <class Map, class F>
  bool checkRecords(const std::string& table, const Map& map, F&& f) {
    const std::uint64_t sequence = map.collectionControl().sequence();
    const std::size_t counted = map.size();
    std::size_t damaged = 0;
    std::size_t found = 0;
    typename Map::Hint hint;
    for (bool isStarted = false, isMore = true; isMore; isStarted = true) {
      try {
        isMore = isStarted ? map.next(hint) : map.first(hint);
      } catch (const Memtab::CorruptionException& damage) {
        ++damaged;
        map.corruptionDetected(damage.what());
        add(table, "damaged: " + std::string(damage.what()));
        continue;
      }
      if (isMore) {
        ++found;
        damaged += checkRecord(table, map, hint.key(), f) ? 0U : 1U;
      }
    }
    const bool isStill = map.collectionControl().sequence() == sequence;
    if (found != counted && damaged == 0 && isStill) {
      add(table, std::to_string(found) + " entries, its header counts " + std::to_string(counted));
    }
    return damaged == 0;
  }
  template <class Map, class F>
  bool checkRecord(const std::string& table, const Map& map, const typename Map::Key& key, F&& f) {
    const std::string name = Zol::stringOf(key);
    typename Map::Record record;
    try {
      if (!map.read(key, record)) {
        add(table, name + ": in the table, but not found under its key");
        return false;
      }
    } catch (const Memtab::CorruptionException& damage) {
      map.corruptionDetected(damage.what());
      add(table, name + ": damaged: " + damage.what());
      return false;
    }
    f(name, record);
    return true;
  }

  void checkFib() {
    const Fib::TunnelFib& fib = *reading_.state().fib();
    std::set<Fib::EncapId> referred;
    const bool areAllReadable = checkRecords("fib", fib.entry(), [&](const std::string& name, const auto& entry) {
      tunnelTypes_.insert(entry.tunnelId().tunnelType());
      checkVias(name, entry, referred);
    });
    Model::forEachEncapKind([&](auto kind) {
      const std::string table = "fib " + std::string(Fib::stringValue(kind.type));
      checkRecords(table, kind.encaps(fib), [&](const std::string& name, const auto& record) {
        if (record.encapId().encapType() != kind.type) {
          add(table, name + ": is of another type");
        } else if (areAllReadable && !referred.contains(record.encapId())) {
          add(table, name + ": no via refers to it");
        }
      });
    });
  }

  void checkVias(const std::string& name, const Fib::TunnelFibEntry& entry, std::set<Fib::EncapId>& referred) {
    if (!Model::isLegalTunnelIdValue(entry.tunnelId().value())) {
      add("fib", name + ": no tunnel has such an id");
    }
    if (entry.tunnelVias() == 0) {
      add("fib", name + ": has no vias");
    }
    for (const Fib::TunnelViaArray* const vias : {&entry.tunnelVia(), &entry.backupTunnelVia()}) {
      for (const Fib::TunnelVia& via : *vias) {
        if (!via.encapId() || !referred.insert(via.encapId()).second) {
          continue;
        }
        bool isThere = false;
        Model::withEncapKind(via.encapId().encapType(), [&](auto kind) {
          try {
            isThere = kind.encaps(*reading_.state().fib()).has(via.encapId());
          } catch (const Memtab::CorruptionException&) {
            isThere = true;  // told with its own collection
          }
        });
        if (!isThere) {
          add("fib", name + ": its via refers to " + Zol::stringOf(via.encapId()) + ", which has no record");
        }
      }
    }
  }

  void checkRibs() {
    for (const auto& [name, id] : reading_.state().ribIds()->tunnelRibNames()) {
      if (const auto rib = reading_.state().rib(id)) {
        checkRib("rib " + Agent::printable(name), *rib, std::nullopt);
      }
    }
    for (const auto& [type, wrapper] : reading_.state().protocolRibs()->protocolTunnelRib()) {
      checkRib("protocolRib " + std::string(Model::stringValue(type)), *wrapper->tunnelRib(), type);
    }
  }

  void checkRib(const std::string& table, const Model::TunnelRib& rib, std::optional<Model::TunnelType> type) {
    checkRecords(table, rib, [&](const std::string& name, const Model::TunnelRibEntry& entry) {
      if (entry.tunnelIds() == 0) {
        add(table, name + ": has no tunnels");
        return;
      }
      const Model::TunnelType wanted = type.value_or(entry.tunnelId(0).tunnelType());
      std::set<Model::TunnelId> ids;
      for (const Model::TunnelId& id : entry.tunnelId()) {
        tunnelTypes_.insert(id.tunnelType());
        if (id.tunnelType() != wanted) {
          add(table, name + ": " + Zol::stringOf(id) + " is of another type");
        }
        if (!ids.insert(id).second) {
          add(table, name + ": " + Zol::stringOf(id) + " stands twice");
        }
      }
    });
  }

  // A record that the table would refuse from its publisher is wrong.
  void checkInputs() {
    Agent::forEachNamedTable([&](auto named) {
      using Table = typename decltype(named)::Table;
      const std::string name = Zol::stringOf(named.id);
      Table scratch("scratch");
      checkRecords(name, *reading_.state().tables().template table<Table>(),
                   [&](const std::string& key, const auto& record) {
                     try {
                       scratch.entryIs(record);
                       scratch.entryDel(record.tunnelId());
                     } catch (const Zol::RangeException& refused) {
                       add(name, key + ": " + refused.what());
                     }
                   });
    });
    const InputDamage damage(reading_);
    for (const auto& [table, line] : damage.lines()) {
      add(table, line);
    }
  }

  void checkStatus() {
    Statehub::EntityManager& entityManager = *reading_.state().entityManager();
    const auto records = [&](const std::string& table, const char* path, auto record, auto&& f) {
      using Table = Agent::StatusTable<decltype(record)>;
      if (const auto map = Zol::dynamicPtrCast<Table>(entityManager.getEntity(path))) {
        checkRecords(table, *map, f);
      }
    };
    records("status/ribs", Agent::ribStatusPath, Agent::RibStatus(), [&](const std::string& id, const auto& status) {
      try {
        Agent::ribLine(status);
      } catch (const Agent::InputError& error) {
        add("status/ribs", "RIB " + id + ": " + error.what());
      }
    });
    records("status/unprogrammable", Agent::unprogrammablePath, Agent::UnprogrammableStatus(),
            [&](const std::string& name, const auto& status) {
              if (Model::hasSafely(reading_.state().fib()->entry(), status.tunnelId())) {
                add("status/unprogrammable", name + ": is in the FIB");
              }
            });
    const auto pass = [](const std::string&, const auto&) {};
    records("status/convergence", Agent::convergencePath, Agent::ConvergenceStatus(),
            [&](const std::string& id, const auto& status) {
              if (!reading_.status().ribs().contains(status.ribId())) {
                add("status/convergence", id + ": there is no such RIB");
              }
            });
    records("bgpLuConvergence", Agent::bgpLuDeclarationPath, Agent::BgpLuDeclaration(), pass);
  }

  // A table of a protocol may be absent while nothing came from it; those of the agent belong together.
  void checkFiles() {
    std::set<std::string> excused = {"bgpLuConvergence"};
    for (const Agent::TableId table : Agent::allTables()) {
      if (!tunnelTypes_.contains(reading_.state().tables().table(table).tunnelType())) {
        excused.insert(Zol::stringOf(table));
      }
    }
    const bool isShared = tunnelTypes_.contains(Model::TunnelType::l3IntfTunnel);
    for (const TableFile& file : reading_.files()) {
      const std::string standing = standingOf(*file.mirror);
      if (file.mirror->isBound() && file.mirror->reader().ringSlots() == 0) {
        add(file.name, "its list of changes is damaged");
      }
      if (standing == "complete" || (standing == "absent" && excused.contains(file.name))) {
        continue;
      }
      if (standing == "absent" && isShared && file.name.ends_with("TunnelInterface")) {
        continue;  // the tunnels may be those of the other two tables
      }
      if (file.mirror->isBound()) {
        const auto writer = writerOf(*file.mirror);
        add(file.name, file.path + ": incomplete: " +
                           (writer ? "publisher pid " + std::to_string(*writer) + " has not completed it"
                                   : "its publisher has gone without completing it"));
      } else {
        add(file.name, standing == "absent" ? file.path + ": no such table" : standing);
      }
    }
  }

  StateReading& reading_;
  std::vector<Problem> problems_;
  std::set<Model::TunnelType> tunnelTypes_;  // of which RIBs or FIB have tunnels
};

}  // namespace

std::vector<Problem> structureProblems(StateReading& reading) { return StructureCheck(reading).run(); }

std::vector<Problem> checkStructure(const std::string& stateDirectory) {
  std::vector<Problem> standing;
  for (unsigned tries = 1;; ++tries) {
    StateReading reading(stateDirectory);
    const auto sequences = sequencesOf(reading);
    std::vector<Problem> found = structureProblems(reading);
    if (tries > 1) {
      std::erase_if(found, [&](const Problem& each) {
        return std::find(standing.begin(), standing.end(), each) == standing.end();
      });
    }
    standing = std::move(found);
    if (standing.empty() || tries == triesMax || sequencesOf(reading) == sequences) {
      return standing;
    }
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace Tools
