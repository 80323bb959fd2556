// TextWatch: follows one collection of state and tells which of its members changed for people, that is, in words.
//
// It notes the keys that are notified and remembers the words that were told of each key. What has changed is the
// difference of the two: a member that changed and changed back has not, nor one whose change is not in the words.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "runtime/Zol/Channel.h"

namespace Agent {

template <class Key>
class TextWatch final : private Zol::Listener<Key> {
 public:
  // Where a collection notifies, the words for its member (empty: there is none), and a walk over its keys.
  struct Source {
    Zol::Channel<Key>* channel = nullptr;
    std::function<std::string(const Key&)> words;
    std::function<void(const std::function<void(const Key&)>&)> forEachKey;
  };

  explicit TextWatch(Source source) { sourceIs(std::move(source)); }

  // From now on another collection; all members of both are to be looked at.
  void sourceIs(Source source) {
    source_ = std::move(source);
    this->channelIs(source_.channel);
    onAll();
  }

  // tell(key, before, now) for each member whose words changed; the words of an absent one are empty.
  template <class F>
  void takeChanges(F&& tell) {
    for (const Key& key : std::exchange(changed_, {})) {
      std::string& told = told_[key];
      std::string now = source_.words(key);
      if (now != told) {
        tell(key, std::as_const(told), std::as_const(now));
        told = std::move(now);
      }
      if (told.empty()) {
        told_.erase(key);
      }
    }
  }

 private:
  void onKey(const Key& key) override { changed_.insert(key); }
  void onAll() override {
    for (const auto& [key, words] : told_) {
      changed_.insert(key);
    }
    source_.forEachKey([this](const Key& key) { changed_.insert(key); });
  }

  Source source_;
  std::set<Key> changed_;
  std::map<Key, std::string> told_;
};

}  // namespace Agent
