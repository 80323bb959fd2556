#include "tunnel/TunnelFib.h"

#include "runtime/Memtab/KeyFollowerMake.h"

namespace Tunnel::TunnelFib {
namespace {

constexpr Memtab::HashFn collectionHashes[] = {
    &Memtab::hashOfKeyBytes<TunnelId>, &Memtab::hashOfKeyBytes<EncapId>, &Memtab::hashOfKeyBytes<EncapId>,
    &Memtab::hashOfKeyBytes<EncapId>,  &Memtab::hashOfKeyBytes<EncapId>,
};

// Entries refer to encapsulations.
constexpr std::uint32_t encapCollections = 0b11110;

template <class Record>
Zol::Ptr<TunnelFib::Collection<Record>> makeCollection(const char* name, const Zol::Ptr<Memtab::SharedStore>& store,
                                                       unsigned collection) {
  return Zol::make<TunnelFib::Collection<Record>>(name, store, collection);
}

TunnelFib::Collections collectionsOf(const Zol::Ptr<Memtab::SharedStore>& store) {
  return {makeCollection<TunnelFibEntry>("entry", store, 0), makeCollection<GreEncap>("greEncap", store, 1),
          makeCollection<IpsecVtiEncap>("ipsecVtiEncap", store, 2),
          makeCollection<IpsecGreEncap>("ipsecGreEncap", store, 3),
          makeCollection<LabelStackEncap>("labelStackEncap", store, 4)};
}

}  // namespace

void TunnelViaIndex::refuse() {
  throw Zol::RangeException("TunnelViaIndex::value < TunnelViaIndex::min or > TunnelViaIndex::max not allowed");
}

TunnelFib::TunnelFib(const std::string& name, const Zol::Ptr<Memtab::SharedStore>& store)
    : TunnelFib(name, collectionsOf(store)) {}

TunnelFib::TunnelFib(const std::string& name, Collections collections)
    : Entity(name), collections_(std::move(collections)) {
  const auto adopt = [this](auto& collection) {
    collection->parentIs(this);
    collection->parentAttrIdIs(collection->name());
  };
  adopt(collections_.entry);
  adopt(collections_.greEncap);
  adopt(collections_.ipsecVtiEncap);
  adopt(collections_.ipsecGreEncap);
  adopt(collections_.labelStackEncap);
}

std::uint64_t TunnelFib::fingerprint() {
  std::uint64_t combined = 0;
  for (const std::uint64_t part : {Memtab::fingerprintOf<TunnelFibEntry>(), Memtab::fingerprintOf<GreEncap>(),
                                   Memtab::fingerprintOf<IpsecVtiEncap>(), Memtab::fingerprintOf<IpsecGreEncap>(),
                                   Memtab::fingerprintOf<LabelStackEncap>()}) {
    combined = (combined ^ part) * 0x9E3779B97F4A7C15ULL;
    combined ^= combined >> 32;
  }
  return combined;
}

Memtab::StoreLayout TunnelFib::layout() { return {fingerprint(), collectionHashes, encapCollections}; }

Zol::Ptr<Memtab::SharedStore> TunnelFib::ownStore() { return Zol::make<Memtab::SharedStore>(layout()); }

}  // namespace Tunnel::TunnelFib

namespace Memtab {

template class MemtabMap<Tunnel::TunnelFib::TunnelFibEntry>;
template class MemtabMap<Tunnel::TunnelFib::GreEncap>;
template class MemtabMap<Tunnel::TunnelFib::IpsecVtiEncap>;
template class MemtabMap<Tunnel::TunnelFib::IpsecGreEncap>;
template class MemtabMap<Tunnel::TunnelFib::LabelStackEncap>;
template std::unique_ptr<KeyFollower<Tunnel::TunnelFib::EncapId>> makeKeyFollower(const Reader&, unsigned, OnDamage);

}  // namespace Memtab
