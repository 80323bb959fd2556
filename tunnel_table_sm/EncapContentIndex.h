// EncapContentIndex: encapsulation ids by what their records hold, so that an equal record is found without looking at
// the others. It answers as a scan of the collection would: among equal records (there can be several after damage)
// the first in the collection's order, which is that of EncapId::hash().
//
// A member is a hash of the content and an id, nothing more. Members of one hash stand together in the collection's
// order, and the caller compares the record of each candidate: the collections stay the only truth, and a member whose
// record has gone or has another content is passed over.
//
// Between changeBegin() and changeEnd() the changes are kept, so that takeBack() can undo them: a record that found no
// space leaves no member.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/EncapId.h"

namespace Tunnel::TunnelTable {

class EncapContentIndex {
 public:
  template <class Info>
  void add(EncapId id, const Info& info) {
    const Member member{contentHash(id.encapType(), info), id};
    if (members_.insert(member).second && isChanging_) {
      changes_.emplace_back(member, true);
    }
  }
  template <class Info>
  void remove(EncapId id, const Info& info) {
    const Member member{contentHash(id.encapType(), info), id};
    if (members_.erase(member) && isChanging_) {
      changes_.emplace_back(member, false);
    }
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
  std::size_t size() const { return members_.size(); }
  std::size_t bytesUsed() const { return members_.bytesUsed() + changes_.capacity() * sizeof(changes_[0]); }

  void changeBegin() { isChanging_ = true; }
  void changeEnd() {
    isChanging_ = false;
    changes_.clear();
  }
  void takeBack() {
    for (auto change = changes_.rbegin(); change != changes_.rend(); ++change) {
      if (change->second) {
        members_.erase(change->first);
      } else {
        members_.insert(change->first);
      }
    }
    changeEnd();
  }

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
  std::vector<std::pair<Member, bool>> changes_;  // of the change under way, in order; true: added
  bool isChanging_ = false;
};

}  // namespace Tunnel::TunnelTable
