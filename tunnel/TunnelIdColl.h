// Small shared collections of the tunnel model: sets of tunnel ids, and the RIBs of single tunnel types.
#pragma once

#include <string>
#include <utility>

#include "runtime/Zol/Entity.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Watchable.h"
#include "tunnel/TunnelRib.h"

namespace Tunnel::TunnelTable {

// A set of tunnel ids.
class TunnelIdColl : public Zol::Entity {
 public:
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::TunnelIdColl"; }
  using Entries = Zol::Watchable<Zol::HashCollection<TunnelId, bool>>;

  using Entity::Entity;

  const Entries& entry() const { return entry_; }
  bool has(const TunnelId& id) const { return entry_.has(id); }
  void entryIs(const TunnelId& id, bool value) { entry_.is(id, value); }
  void entryDel(const TunnelId& id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }

  Zol::Channel<TunnelId>& entryChannel() const { return entry_.channel(); }

 private:
  Entries entry_;
};

// A set of tunnel ids that belongs to one tunnel.
class TunnelIdCollByTunnelId : public TunnelIdColl {
 public:
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::TunnelIdCollByTunnelId"; }

  explicit TunnelIdCollByTunnelId(const TunnelId& tunnelId) : tunnelId_(tunnelId) {}
  const TunnelId& tunnelId() const { return tunnelId_; }

 private:
  const TunnelId tunnelId_;
};

// The per-protocol RIB of one tunnel type: every tunnel of the type at its tep, whether or not it won there.
class ProtocolTunnelRibWrapper : public Zol::Entity {
 public:
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::ProtocolTunnelRibWrapper"; }

  explicit ProtocolTunnelRibWrapper(TunnelType type) : Entity(stringValue(type)), tunnelType_(type) {}

  TunnelType tunnelType() const { return tunnelType_; }
  // Null until set.
  const Zol::Ptr<TunnelRib>& tunnelRib() const { return tunnelRib_; }
  void tunnelRibIs(Zol::Ptr<TunnelRib> rib) { tunnelRib_ = std::move(rib); }

 private:
  const TunnelType tunnelType_;
  Zol::Ptr<TunnelRib> tunnelRib_;
};

class ProtocolTunnelRibCollection : public Zol::Entity {
 public:
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::ProtocolTunnelRibCollection"; }
  using Wrappers = Zol::Watchable<Zol::HashCollection<TunnelType, Zol::Ptr<ProtocolTunnelRibWrapper>>>;

  explicit ProtocolTunnelRibCollection(std::string name) : Entity(std::move(name)) {}

  const Wrappers& protocolTunnelRib() const { return protocolTunnelRib_; }
  // Null when there is none.
  Zol::Ptr<ProtocolTunnelRibWrapper> protocolTunnelRib(TunnelType type) const { return protocolTunnelRib_.value(type); }
  // Makes the wrapper if it is absent.
  Zol::Ptr<ProtocolTunnelRibWrapper> protocolTunnelRibIs(TunnelType type);
  void protocolTunnelRibDel(TunnelType type) { protocolTunnelRib_.del(type); }
  void protocolTunnelRibDelAll() { protocolTunnelRib_.delAll(); }

 private:
  Wrappers protocolTunnelRib_;
};

// An in-memory form of one type's tep map, for owners and readers of RIBs.
class TunnelTypeToTunnelRib : public Zol::Entity {
 public:
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::TunnelTypeToTunnelRib"; }
  using Entries = Zol::Watchable<Zol::HashCollection<Ipkit::IpGenPrefix, TunnelRibEntry>>;

  TunnelTypeToTunnelRib(std::string name, TunnelType type) : Entity(std::move(name)), tunnelType_(type) {}

  TunnelType tunnelType() const { return tunnelType_; }
  const Entries& tunnelRibEntries() const { return tunnelRibEntries_; }
  void tunnelRibEntriesIs(const TunnelRibEntry& entry) { tunnelRibEntries_.is(entry.tep(), entry); }
  void tunnelRibEntriesDel(const Ipkit::IpGenPrefix& tep) { tunnelRibEntries_.del(tep); }
  void tunnelRibEntriesDelAll() { tunnelRibEntries_.delAll(); }

 private:
  const TunnelType tunnelType_;
  Entries tunnelRibEntries_;
};

// The tep under which a tunnel is filed; all zero for a tunnel that is not.
class TunnelIdToTepEntry {
  ZOL_VALUE(TunnelIdToTepEntry, "Tunnel::TunnelTable::TunnelIdToTepEntry", (TunnelId, tunnelId),
            (Ipkit::IpGenPrefix, tep))
 public:
  TunnelIdToTepEntry() = default;
  TunnelIdToTepEntry(const TunnelId& tunnelId, const Ipkit::IpGenPrefix& tep) : tunnelId_(tunnelId), tep_(tep) {}
};

Zol::Ptr<TunnelIdColl> tunnelIdCollFactory(std::string name = "tunnelIdColl");
Zol::Ptr<ProtocolTunnelRibCollection> protocolTunnelRibCollectionFactory(std::string name);

}  // namespace Tunnel::TunnelTable
