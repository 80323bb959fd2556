// The state document: what an agent holds, as one JSON object (docs/running.md has its form). Collections are sorted by
// key, and each member of a collection stands on a line of its own, so that two documents are compared with diff.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "agent/AgentState.h"
#include "agent/JsonText.h"

namespace Agent {

// What a document is narrowed to; nothing: all.
struct DocumentFilter {
  std::optional<std::string> rib;         // this RIB alone
  std::optional<Ipkit::IpGenPrefix> tep;  // this endpoint, the tunnels at it and their encapsulations alone
};

// Written member by member; nothing but the keys of a collection is kept in memory.
void writeStateDocument(std::ostream& out, const AgentState& state, const DocumentFilter& filter = {});

// The same as a value.
OrderedJson stateDocument(const AgentState& state, const DocumentFilter& filter = {});

// One entry of a RIB, as the document has it.
OrderedJson ribEntryJson(const Model::TunnelRibEntry& entry);

// The members of a shared-memory map in the order of their keys. What cannot be read is left out.
template <class Map>
std::vector<typename Map::Key> sortedKeys(const Map& map) {
  std::vector<typename Map::Key> keys;
  Model::walkSafely(map, [&keys](const auto& hint) { keys.push_back(hint.key()); });
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::vector<Model::TunnelId> sortedTunnelIds(const Model::TunnelRibEntry& entry);
// "ldpTunnel/1, ldpTunnel/2"; of more than max ids the first and how many more there are.
std::string listOf(const std::vector<Model::TunnelId>& ids, std::size_t max);

}  // namespace Agent
