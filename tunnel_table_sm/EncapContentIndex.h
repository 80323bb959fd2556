// EncapContentIndex: encapsulation ids by what their records hold, so that an equal record is found without looking at
// the others. It answers as a scan of the collection would: among equal records (there can be several after damage)
// the first in the collection's order, which is that of EncapId::hash().
//
// A member is a hash of the content and an id, nothing more. Members of one hash stand together in the collection's
// order, and the caller compares the record of each candidate: the collections stay the only truth, and a member whose
// record has gone or has another content is passed over.
#pragma once

#include <cstdint>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/EncapId.h"

namespace Tunnel::TunnelTable {

class EncapContentIndex {
 public:
  template <class Info>
  void add(EncapId id, const Info& info) {
    members_.insert(Member{contentHash(id.encapType(), info), id});
  }
  template <class Info>
  void remove(EncapId id, const Info& info) {
    members_.erase(Member{contentHash(id.encapType(), info), id});
  }

  // The first id in the collection's order whose record matches(id), or EncapId(). O(1) unless hashes collide.
  template <class Info, class F>
  EncapId find(EncapType type, const Info& info, F&& matches) const {
    const std::uint32_t content = contentHash(type, info);
    for (auto it = members_.from(Member{content, EncapId()}); it && it.key().content == content; ++it) {
      const EncapId id = it.key().id;
      if (id.encapType() == type && matches(id)) {
        return id;
      }
    }
    return {};
  }
  void clear() { members_.clear(); }
  std::size_t size() const { return members_.size(); }
  std::size_t bytesUsed() const { return members_.bytesUsed(); }

 private:
  struct Member {
    std::uint32_t content;
    EncapId id;
    std::uint32_t hash() const { return content; }
    friend bool operator==(const Member&, const Member&) = default;
    friend bool operator<(const Member& a, const Member& b) { return a.id.hash() < b.id.hash(); }
  };

  template <class Info>
  static std::uint32_t contentHash(EncapType type, const Info& info) {
    // The collection reserves the largest hash for itself.
    const std::uint32_t hash = info.hash() ^ (static_cast<std::uint32_t>(type) * 0x9E3779B9U);
    return hash == 0xFFFFFFFF ? 0xFFFFFFFE : hash;
  }

  Zol::HashCollection<Member> members_;
};

}  // namespace Tunnel::TunnelTable
