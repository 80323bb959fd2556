#include "tools/PublishCommand.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <utility>

#include "tunnel/TunnelTableInfo.h"

namespace Tools {

using Agent::TableId;

PublishCommand::PublishCommand(PublishOptions options)
    : options_(std::move(options)), entityManager_(Zol::make<Statehub::EntityManager>(options_.stateDirectory)) {
  if (options_.table) {
    published(*options_.table);
  }
}

void PublishCommand::run() {
  for (const std::string& path : options_.scenarios) {
    playFile(path);
  }
  complete();
  for (const auto& [table, standing] : published_) {
    std::cout << Zol::stringOf(table) << ": " << tables_->table(table).size() << " entries\n";
  }
  std::cout << std::flush;
  if (options_.holds) {
    hold();
  }
}

void PublishCommand::playFile(const std::string& path) {
  if (path == "-") {
    play(std::cin, "<stdin>");
    return;
  }
  std::ifstream in(path);
  if (!in) {
    throw Agent::ScenarioError(path, std::string("cannot be opened: ") + std::strerror(errno));
  }
  play(in, path);
}

void PublishCommand::play(std::istream& in, const std::string& name) {
  Agent::ScenarioReader reader(in, name);
  while (const std::optional<Agent::ScenarioLine> line = reader.next()) {
    reader.naming([&] { apply(*line); });
    if (std::holds_alternative<Agent::SettleLine>(*line) || std::holds_alternative<Agent::CheckpointLine>(*line)) {
      handleSettle(name + ":" + std::to_string(reader.lineNumber()));
    }
  }
}

void PublishCommand::apply(const Agent::ScenarioLine& line) {
  if (const auto* const put = std::get_if<Agent::PutLine>(&line); put != nullptr && isWanted(put->table)) {
    this->put(*put);
  } else if (const auto* const del = std::get_if<Agent::DeleteLine>(&line); del != nullptr && isWanted(del->table)) {
    this->del(*del);
  } else if (const auto* const declared = std::get_if<Agent::ConvergedLine>(&line);
             declared != nullptr && isWanted(TableId::bgpLu)) {
    declare(*declared);
  }
}

// Mounts the table when it is named first.
auto PublishCommand::published(TableId table) -> Published& {
  const auto present = published_.find(table);
  if (present != published_.end()) {
    return present->second;
  }
  std::set<TableId> mounted = {table};
  for (const auto& [other, standing] : published_) {
    mounted.insert(other);
  }
  tables_.emplace(*entityManager_, mounted, Statehub::Access::write);
  Published& added = published_[table];
  tables_->withTable(table, [&](auto& target) {
    Model::walkSafely(target, true, [&](const auto& hint) { added.stale.insert(hint.key()); });
  });
  return added;
}

void PublishCommand::put(const Agent::PutLine& line) {
  Published& table = published(line.table);
  try {
    putEntry(*tables_, line.table, line.entry);
  } catch (const Zol::RangeException& refused) {
    throw Agent::InputError("put", Agent::printable(refused.what(), 200));
  }
  table.stale.erase(Model::TunnelId(tables_->table(line.table).tunnelType(), line.entry.index));
}

void PublishCommand::del(const Agent::DeleteLine& line) {
  Published& table = published(line.table);
  if (!hasEntry(*tables_, line.table, line.index)) {
    throw Agent::InputError("delete", Zol::stringOf(line.table) + " has no entry " + std::to_string(line.index));
  }
  deleteEntry(*tables_, line.table, line.index);
  table.stale.erase(Model::TunnelId(tables_->table(line.table).tunnelType(), line.index));
}

void PublishCommand::declare(const Agent::ConvergedLine& line) {
  published(TableId::bgpLu);
  if (declaration_ == nullptr) {
    declaration_ = Agent::statusTable<Agent::BgpLuDeclaration>(*entityManager_, Agent::bgpLuDeclarationPath,
                                                               Statehub::Access::write);
  }
  Agent::BgpLuDeclaration declaration;
  declaration.convergedIs(line.isConverged);
  declaration.seqnoIs(line.seqno.value_or(tables_->table(TableId::bgpLu).collectionControl().sequence()));
  declaration_->entryIs(declaration);
  declaration_->collectionReadyIs(true);
}

void PublishCommand::complete() {
  for (auto& [id, state] : published_) {
    if (std::exchange(state.isComplete, true)) {
      continue;
    }
    tables_->withTable(id, [&, &stale = state.stale](auto& table) {
      for (const Model::TunnelId& tunnel : stale) {
        table.entryDel(tunnel);
      }
      stale.clear();
      table.collectionReadyIs(true);
    });
  }
}

void PublishCommand::handleSettle(const std::string& place) {
  complete();
  if (options_.steps) {
    std::cout << place << ": settle" << std::endl;
    std::string line;
    std::getline(std::cin, line);
  }
}

// Until a signal ends the process: the table then has no publisher, and stays in force. Files that somebody removes or
// replaces meanwhile are made again.
void PublishCommand::hold() const {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  constexpr timespec second{.tv_sec = 1, .tv_nsec = 0};
  while (sigtimedwait(&ending, nullptr, &second) < 0) {
    entityManager_->rescan();
  }
}

}  // namespace Tools
