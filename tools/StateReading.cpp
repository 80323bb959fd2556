#include "tools/StateReading.h"

#include <filesystem>
#include <stdexcept>

#include "agent/InputError.h"
#include "tunnel/EncapKind.h"
#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Tools {
namespace {

const std::string& existing(const std::string& directory) {
  Memtab::corruptionDirectoryIs("/dev/null");  // who asks is told of damage; a question leaves no files
  if (!isDirectory(directory)) {
    throw std::runtime_error(Agent::printable(directory, 200) + ": no such state directory");
  }
  if (!isDirectory(directory + "/tunnel")) {
    throw std::runtime_error(Agent::printable(directory, 200) + ": no tables in it");
  }
  return directory;
}

// Damage found in the maps of the entity.
std::uint64_t corruptionsIn(const Zol::Ptr<Zol::Entity>& entity) {
  if (const auto map = Zol::dynamicPtrCast<Memtab::MapBase>(entity)) {
    return map->corruptions();
  }
  std::uint64_t count = 0;
  if (const auto fib = Zol::dynamicPtrCast<Tunnel::TunnelFib::TunnelFib>(entity)) {
    count = fib->entry().corruptions();
    Model::forEachEncapKind([&](auto kind) { count += kind.encaps(*fib).corruptions(); });
  }
  return count;
}

std::string customRibPath(Model::TunnelRibId id) { return Model::tunnelRibStatusPathPrefix + std::to_string(id); }

}  // namespace

bool isDirectory(const std::string& path) {
  std::error_code error;
  const bool exists = std::filesystem::is_directory(path, error);
  if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory) {
    throw std::runtime_error("state directory: its tables cannot be read: " + Agent::printable(path, 200) + ": " +
                             error.message() + "; root and members of the directory's group can read them");
  }
  return exists;
}

std::string troubleOf(const TableFile& file) {
  const std::string& trouble = file.mirror->trouble();
  if (trouble.starts_with('/')) {  // a path and the reason why it cannot be read
    return "table " + file.name + ": cannot be read: " + trouble;
  }
  return "table " + file.name + " (" + file.path + "): damaged: " + trouble;
}

StateReading::StateReading(const std::string& directory)
    : state_(Zol::make<Statehub::EntityManager>(existing(directory)), Statehub::Access::read) {}

const Agent::StatusReader& StateReading::status() {
  if (!status_) {
    status_.emplace(state_);
  }
  return *status_;
}

void StateReading::reread() {
  status();
  status_->read();
}

bool StateReading::isProtocolRib(const std::string& name) const {
  for (const auto& [type, wrapper] : state_.protocolRibs()->protocolTunnelRib()) {
    if (Model::stringValue(type) == name) {
      return true;
    }
  }
  return false;
}

std::string StateReading::pathOfRib(const std::string& name) {
  if (isProtocolRib(name)) {
    return Agent::protocolRibPathPrefix + name;
  }
  if (name == Model::TunnelRibNameIdMap::systemTunnelRibName) {
    return Agent::systemRibPath;
  }
  status();
  const auto id = state_.ribIds()->tunnelRibId(name);
  if (!id) {
    const Memtab::MirrorStore* const names = state_.entityManager()->mirror(Agent::ribStatusPath);
    if (names != nullptr && !names->trouble().empty()) {
      throw std::runtime_error(names->trouble());
    }
    throw std::runtime_error(state_.entityManager()->stateDirectory() + ": no RIB '" + Agent::printable(name) + "'");
  }
  return customRibPath(*id);
}

Zol::Ptr<Model::TunnelRib> StateReading::rib(const std::string& name) {
  const std::string path = pathOfRib(name);
  requireTable(path);
  return Zol::dynamicPtrCast<Model::TunnelRib>(state_.entityManager()->getEntity(path));
}

std::vector<Zol::Ptr<Model::TunnelRib>> StateReading::ribs() {
  status();
  std::vector<Zol::Ptr<Model::TunnelRib>> all;
  for (const auto& [name, id] : state_.ribIds()->tunnelRibNames()) {
    if (const auto rib = state_.rib(id)) {
      all.push_back(rib);
    }
  }
  for (const auto& [type, wrapper] : state_.protocolRibs()->protocolTunnelRib()) {
    all.push_back(wrapper->tunnelRib());
  }
  return all;
}

std::vector<TableFile> StateReading::files() {
  status();
  Statehub::EntityManager& entityManager = *state_.entityManager();
  std::vector<TableFile> all;
  const auto add = [&](const std::string& name, const std::string& path) {
    if (const Memtab::MirrorStore* const mirror = entityManager.mirror(path)) {
      all.push_back({name, entityManager.stateDirectory() + "/" + path, mirror});
    }
  };
  for (const Agent::TableId table : Agent::allTables()) {
    add(Zol::stringOf(table), Model::tunnelTableInfo(table).path);
  }
  Agent::statusTable<Agent::BgpLuDeclaration>(entityManager, Agent::bgpLuDeclarationPath, Statehub::Access::read);
  add("bgpLuConvergence", Agent::bgpLuDeclarationPath);
  add("rib system", Agent::systemRibPath);
  for (const auto& [name, id] : state_.ribIds()->tunnelRibNames()) {
    if (id != 0) {
      add("rib " + Agent::printable(name), customRibPath(id));
    }
  }
  for (const Agent::TableId table : Agent::ribTables) {
    const std::string type = Model::stringValue(state_.tables().table(table).tunnelType());
    add("protocolRib " + type, Agent::protocolRibPathPrefix + type);
  }
  add("fib", Agent::fibPath);
  add("status/ribs", Agent::ribStatusPath);
  add("status/unprogrammable", Agent::unprogrammablePath);
  add("status/convergence", Agent::convergencePath);
  return all;
}

std::vector<TableDamage> StateReading::damagedTables() {
  std::vector<TableDamage> damaged;
  const std::string directory = state_.entityManager()->stateDirectory() + "/";
  for (const TableFile& file : files()) {
    if (corruptionsIn(state_.entityManager()->getEntity(file.path.substr(directory.size()))) > 0) {
      damaged.push_back({file.name, file.path});
    }
  }
  return damaged;
}

std::vector<std::string> StateReading::damages() {
  std::vector<std::string> all;
  const std::string directory = state_.entityManager()->stateDirectory() + "/";
  for (const TableFile& file : files()) {
    if (!file.mirror->trouble().empty()) {
      all.push_back(troubleOf(file));
    } else if (corruptionsIn(state_.entityManager()->getEntity(file.path.substr(directory.size()))) > 0) {
      all.push_back("table " + file.name + " (" + file.path + "): damaged; unreadable records are left out");
    }
  }
  return all;
}

void StateReading::requireTable(const std::string& path) const {
  const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(path);
  if (mirror == nullptr || !mirror->isBound()) {
    const std::string trouble = mirror == nullptr ? "" : mirror->trouble();
    throw std::runtime_error(trouble.empty() ? state_.entityManager()->stateDirectory() + "/" + path + ": no such table"
                                             : trouble);
  }
}

std::optional<std::uint64_t> writerOf(const Memtab::MirrorStore& mirror) {
  return mirror.isOwned() ? std::optional(mirror.reader().ownerPid()) : std::nullopt;
}

std::string standingOf(const Memtab::MirrorStore& mirror) {
  if (mirror.isBound()) {
    return mirror.reader().ready() ? "complete" : "incomplete";
  }
  return mirror.trouble().empty() ? "absent" : mirror.trouble();
}

}  // namespace Tools
