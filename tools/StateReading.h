// StateReading: the tables of a state directory as a command reads them, whether or not anybody writes them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/AgentStatus.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;

// A file of the directory that holds a table.
struct TableFile {
  std::string name;  // "ldp", "rib system", "protocolRib ldpTunnel", "fib", "status/ribs"
  std::string path;  // the whole of it
  const Memtab::MirrorStore* mirror;
};

// Whether the directory exists. Raises runtime_error when that cannot be found out: a missing permission is no lost
// state.
bool isDirectory(const std::string& path);

// Why the file is not read, or only in part: "table ldp (/run/.../ldp): damaged: collection 0: directory word damaged".
std::string troubleOf(const TableFile& file);

// A table of which records could not be read.
struct TableDamage {
  std::string name;
  std::string path;
};

class StateReading {
 public:
  // Raises runtime_error when there is no such directory, or nothing in it. Nothing but the mounts is done here: O(1)
  // in the size of the tables.
  explicit StateReading(const std::string& directory);

  const Agent::AgentState& state() const { return state_; }
  // RIB names, unprogrammable tunnels and convergence are in the state from the first call on.
  const Agent::StatusReader& status();
  // They are as the tables are now.
  void reread();

  // The RIB of that name, be it a configured one, "system", or the tunnel type of a per-protocol one. Raises
  // runtime_error when there is none or its table cannot be read.
  Zol::Ptr<Model::TunnelRib> rib(const std::string& name);
  // Whether the name is that of a per-protocol RIB: all tunnels of a type, without a choice among them.
  bool isProtocolRib(const std::string& name) const;
  // Where that RIB lies, relative to the directory. Raises runtime_error when there is none.
  std::string pathOfRib(const std::string& name);
  // All RIBs that can be read.
  std::vector<Zol::Ptr<Model::TunnelRib>> ribs();

  // All files that belong to the state, those that are absent too.
  std::vector<TableFile> files();
  // Tables of which records were found damaged until now.
  std::vector<TableDamage> damagedTables();
  // What was found damaged until now, with its path; what cannot be read is left out of what was read.
  std::vector<std::string> damages();
  // Raises runtime_error, with the path, unless the table mounted there can be read.
  void requireTable(const std::string& path) const;

 private:
  Agent::AgentState state_;
  std::optional<Agent::StatusReader> status_;
};

// The process that says that it writes the table, if the kernel's lock confirms that there is one.
std::optional<std::uint64_t> writerOf(const Memtab::MirrorStore& mirror);

// Whether the table is there, can be read, and is complete: "complete", "incomplete", "absent", or why not.
std::string standingOf(const Memtab::MirrorStore& mirror);

}  // namespace Tools
