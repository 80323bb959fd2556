#include "tools/PublishedTable.h"

#include <utility>

#include "agent/InputError.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tools {
namespace {

// How many entries of a complete table readers find there now; nothing: it is not complete, or not to be read.
std::optional<std::size_t> completeSize(const std::string& stateDirectory, Agent::TableId id) {
  const auto reader = Zol::make<Statehub::EntityManager>(stateDirectory);
  const Agent::ProtocolTables tables(*reader, {id}, Statehub::Access::read);
  const Model::TunnelTableBase& table = tables.table(id);
  const bool isSound = reader->mirror(Model::tunnelTableInfo(id).path)->trouble().empty();
  return isSound && table.collectionReady() ? std::optional(table.size()) : std::nullopt;
}

}  // namespace

void requireEntry(Agent::TableId table, std::uint64_t index, bool isThere) {
  if (!isThere) {
    throw Agent::InputError("delete", Zol::stringOf(table) + " has no entry " + std::to_string(index));
  }
}

// Taking a table over makes it incomplete. It is so only if something that was unreadable had to be taken out.
PublishedTable::PublishedTable(const std::string& stateDirectory, Agent::TableId id)
    : id_(id), entityManager_(Zol::make<Statehub::EntityManager>(stateDirectory)) {
  const std::optional<std::size_t> before = completeSize(stateDirectory, id_);
  tables_.emplace(*entityManager_, std::set<Agent::TableId>{id_}, Statehub::Access::write);
  if (before == size()) {
    readyIs(true);
  }
}

void PublishedTable::readyIs(bool ready) {
  tables_->withTable(id_, [ready](auto& table) { table.collectionReadyIs(ready); });
}

void PublishedTable::begin() {
  if (std::exchange(isBegun_, true)) {
    return;
  }
  readyIs(false);
  tables_->withTable(
      id_, [this](auto& table) { Model::walkSafely(table, [this](const auto& hint) { stale_.insert(hint.key()); }); });
}

void PublishedTable::put(const Agent::EntryDraft& entry) {
  begin();
  try {
    putEntry(*tables_, id_, entry);
  } catch (const Zol::RangeException& refused) {
    throw Agent::InputError("put", Agent::printable(refused.what(), 200));
  }
  stale_.erase(Model::TunnelId(tables_->table(id_).tunnelType(), entry.index));
}

void PublishedTable::del(std::uint64_t index) {
  begin();
  requireEntry(id_, index, hasEntry(*tables_, id_, index));
  deleteEntry(*tables_, id_, index);
  stale_.erase(Model::TunnelId(tables_->table(id_).tunnelType(), index));
}

void PublishedTable::declare(const Agent::ConvergedLine& line) {
  ZOL_ASSERT(id_ == Agent::TableId::bgpLu);
  begin();
  if (declaration_ == nullptr) {
    declaration_ = Agent::statusTable<Agent::BgpLuDeclaration>(*entityManager_, Agent::bgpLuDeclarationPath,
                                                               Statehub::Access::write);
  }
  Agent::BgpLuDeclaration declaration;
  declaration.convergedIs(line.isConverged);
  declaration.seqnoIs(line.seqno.value_or(tables_->table(id_).collectionControl().sequence()));
  declaration_->entryIs(declaration);
  declaration_->collectionReadyIs(true);
}

void PublishedTable::complete() {
  if (!isBegun_ || isComplete_) {
    return;
  }
  tables_->withTable(id_, [this](auto& table) {
    for (const Model::TunnelId& tunnel : stale_) {
      table.entryDel(tunnel);
    }
  });
  stale_.clear();
  readyIs(true);
  isComplete_ = true;
}

}  // namespace Tools
