// Channel and Listener: how a change of one attribute reaches its watchers.
//
// An entity has one channel for each attribute that can be watched; a listener is bound to at most one channel. A
// collection notifies with the key of the changed member, a single value with NoKey. notifyAll() tells that any member
// may have changed. Listeners come and go at any time, also from inside a notification: one that arrives during a
// notification hears of the next change, one that leaves hears nothing more. The channel itself may go too, with the
// entity whose last reference a handler drops. Without listeners a notification costs a load and a branch.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Zol {

struct NoKey {};

template <class Key>
class Channel;

template <class Key>
class Listener {
 public:
  Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  Channel<Key>* channel() const { return channel_; }

 protected:
  ~Listener() { channelIs(nullptr); }

  // Binds to channel, or to nothing; leaves the one bound before.
  void channelIs(Channel<Key>* channel) {
    if (channel == channel_) {
      return;
    }
    if (channel_ != nullptr) {
      channel_->remove(this);
    }
    channel_ = channel;
    if (channel_ != nullptr) {
      channel_->listeners_.push_back(this);
    }
  }

 private:
  friend class Channel<Key>;
  virtual void onKey(const Key& key) = 0;
  virtual void onAll() {}

  Channel<Key>* channel_ = nullptr;
};

template <class Key>
class Channel {
 public:
  Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() {
    for (Listener<Key>* listener : listeners_) {
      if (listener != nullptr) {
        listener->channel_ = nullptr;
      }
    }
    for (Walk* walk = innermost_; walk != nullptr; walk = walk->outer) {
      walk->isChannelGone = true;
    }
  }

  void notify(const Key& key) {
    if (!listeners_.empty()) {
      forEach([&key](Listener<Key>& listener) { listener.onKey(key); });
    }
  }
  void notifyAll() {
    if (!listeners_.empty()) {
      forEach([](Listener<Key>& listener) { listener.onAll(); });
    }
  }
  std::size_t listeners() const {
    return listeners_.size() - static_cast<std::size_t>(std::count(listeners_.begin(), listeners_.end(), nullptr));
  }

 private:
  friend class Listener<Key>;

  // One notification under way; they nest when a handler changes what it is told of.
  struct Walk {
    explicit Walk(Channel& walked) : channel(walked), outer(walked.innermost_) { channel.innermost_ = this; }
    ~Walk() {
      if (isChannelGone) {
        return;
      }
      channel.innermost_ = outer;
      if (outer == nullptr) {
        std::erase(channel.listeners_, nullptr);
      }
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    Channel& channel;
    Walk* const outer;
    bool isChannelGone = false;
  };

  template <class F>
  void forEach(F&& tell) {
    Walk walk(*this);
    const std::size_t present = listeners_.size();
    for (std::size_t i = 0; !walk.isChannelGone && i < present; ++i) {
      if (listeners_[i] != nullptr) {
        tell(*listeners_[i]);
      }
    }
  }

  void remove(Listener<Key>* listener) {
    const auto at = std::find(listeners_.begin(), listeners_.end(), listener);
    if (innermost_ != nullptr) {
      *at = nullptr;  // forEach is walking the vector; the outermost walk sweeps when it is done
    } else {
      listeners_.erase(at);
    }
  }

  std::vector<Listener<Key>*> listeners_;
  Walk* innermost_ = nullptr;
};

}  // namespace Zol
