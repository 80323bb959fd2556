// Walking a table for a list: all of it in its own order, or the few keys that are asked for.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "agent/Explanation.h"
#include "agent/ProtocolTables.h"
#include "runtime/Memtab/MemtabMap.h"
#include "tunnel/TunnelRib.h"
#include "tunnel/TunnelTable.h"

namespace Tools {

// What a walk visits: these keys, or all; behind after, if that is given.
template <class Key>
struct Selection {
  std::optional<std::vector<Key>> keys;
  std::optional<Key> after;
};

// Visits the records until visit(record) is false. Damage is reported to the map, its record left out.
template <class Map, class F>
void walk(const Map& map, const Selection<typename Map::Key>& selection, F&& visit) {
  typename Map::Record record;
  if (selection.keys) {
    bool isBehind = !selection.after;
    for (const auto& key : *selection.keys) {
      if (isBehind && Tunnel::TunnelTable::readSafely(&map, key, record) && !visit(record)) {
        return;
      }
      isBehind = isBehind || key == *selection.after;
    }
    return;
  }
  const auto placeOf = [](const auto& key) {
    Zol::ByteWriter bytes;
    encodeValue(bytes, key);
    return Map::hashOfKey(bytes.written());
  };
  bool isSkipping = selection.after.has_value();
  const std::uint64_t last = isSkipping ? placeOf(*selection.after) : 0;
  typename Map::Hint hint;
  for (bool isStarted = false, isMore = true; isMore; isStarted = true) {
    try {
      isMore = isStarted ? map.next(hint) : map.first(hint);
      if (!isMore || (isSkipping && placeOf(hint.key()) <= last)) {
        continue;
      }
      isSkipping = false;  // the order is that of the places
      record = hint.record(map);
    } catch (const Memtab::CorruptionException& damage) {
      map.corruptionDetected(damage.what());
      continue;
    }
    if (!visit(record)) {
      return;
    }
  }
}

// Calls f with the tunnel's record, of the first table that has one; false when none has.
template <class F>
bool visitEntry(const Agent::ProtocolTables& tables, const Tunnel::TunnelTable::TunnelId& tunnel, F&& f) {
  bool isFound = false;
  for (const Agent::TableId table : Agent::tablesOf(tunnel.tunnelType())) {
    tables.withTable(table, [&](const auto& each) {
      typename std::remove_cvref_t<decltype(each)>::Record entry;
      if (!isFound && Tunnel::TunnelTable::readSafely(&each, tunnel, entry)) {
        isFound = true;
        f(std::as_const(entry));
      }
    });
  }
  return isFound;
}

// The entry with the longest prefix that has the address in it: one look-up for each length.
inline bool longestMatch(const Tunnel::TunnelTable::TunnelRib& rib, const Ipkit::IpGenAddr& address,
                         Tunnel::TunnelTable::TunnelRibEntry& entry) {
  for (unsigned length = address.bitCount() + 1; length-- > 0;) {
    if (Tunnel::TunnelTable::readSafely(&rib, Ipkit::IpGenPrefix(address.masked(length), length), entry)) {
      return true;
    }
  }
  return false;
}

// Whether the RIB has the tunnel at the endpoint.
inline bool hasTunnel(const Tunnel::TunnelTable::TunnelRib& rib, const Ipkit::IpGenPrefix& tep,
                      const Tunnel::TunnelTable::TunnelId& tunnel) {
  Tunnel::TunnelTable::TunnelRibEntry entry;
  return Tunnel::TunnelTable::readSafely(&rib, tep, entry) && entry.hasTunnelId(tunnel);
}

// The endpoint that the tunnel's table entry names; the zero prefix: none.
inline Ipkit::IpGenPrefix tepOf(const Agent::AgentState& state, const Tunnel::TunnelTable::TunnelId& tunnel) {
  Ipkit::IpGenPrefix tep;
  visitEntry(state.tables(), tunnel, [&tep](const auto& entry) { tep = entry.tep(); });
  return tep;
}

}  // namespace Tools
