#include "tools/PublishRehearsal.h"

#include "agent/InputError.h"

namespace Tools {

PublishRehearsal::PublishRehearsal(const std::string& stateDirectory)
    : reader_(Zol::make<Statehub::EntityManager>(stateDirectory)), standing_(*reader_) {}

void PublishRehearsal::apply(Agent::TableId id, const Agent::ScenarioLine& line) {
  begin(id);
  if (const auto* const put = std::get_if<Agent::PutLine>(&line)) {
    tables_[id].mentioned[put->entry.index] = true;
  } else if (const auto* const del = std::get_if<Agent::DeleteLine>(&line)) {
    requireEntry(id, del->index, has(id, del->index));
    tables_[id].mentioned[del->index] = false;
  }
}

void PublishRehearsal::settle() {
  for (auto& [id, rehearsed] : tables_) {
    rehearsed.isSwept = true;
  }
}

std::set<Agent::TableId> PublishRehearsal::named() const {
  std::set<Agent::TableId> all;
  for (const auto& [id, rehearsed] : tables_) {
    all.insert(id);
  }
  return all;
}

// What cannot be read may be there.
bool PublishRehearsal::has(Agent::TableId id, std::uint64_t index) const {
  const Rehearsed& rehearsed = tables_.at(id);
  const auto mentioned = rehearsed.mentioned.find(index);
  if (mentioned != rehearsed.mentioned.end()) {
    return mentioned->second;
  }
  try {
    return !rehearsed.isSwept && hasEntry(standing_, id, index);
  } catch (const Memtab::CorruptionException&) {
    return true;
  }
}

}  // namespace Tools
