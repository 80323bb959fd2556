// PublishRehearsal: goes through scenarios before any table is touched, and finds which they name and whether every
// line can be applied. Of entries it keeps the numbers alone.
#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "tools/PublishedTable.h"

namespace Tools {

class PublishRehearsal {
 public:
  explicit PublishRehearsal(const std::string& stateDirectory);

  // As PublishedTable's; settle() is complete() of all that have begun.
  void begin(Agent::TableId id) { tables_.try_emplace(id); }
  // Raises InputError.
  void apply(Agent::TableId id, const Agent::ScenarioLine& line);
  void settle();

  // The tables begun.
  std::set<Agent::TableId> named() const;

 private:
  struct Rehearsed {
    std::unordered_map<std::uint64_t, bool> mentioned;  // whether the last line about the entry put it
    bool isSwept = false;                               // what no line mentioned is gone
  };
  bool has(Agent::TableId id, std::uint64_t index) const;

  const Zol::Ptr<Statehub::EntityManager> reader_;
  const Agent::ProtocolTables standing_;
  std::map<Agent::TableId, Rehearsed> tables_;
};

}  // namespace Tools
