// Reactor: the base of every state machine.
//
// A reactor declares its watched inputs and its children as members (Notifiee, Child, ChildMap). Each registers itself
// with the reactor, so the order of declaration is the order of everything below, and none of it is written again in a
// concrete reactor:
//
//   active, quiet   hasNotificationActiveIs(v) sets the flag, then tells the notifiees, then the children. A quiet
//                   reactor receives no handler calls.
//   zombie          doZombieReactors(v) tells the notifiees, then sets the flag. A zombie lives as long as it is
//                   referred to and reacts to nothing.
//   teardown        with the last reference the reactor becomes a zombie; then its children go, each quieted before
//                   its reference is dropped.
//
// Reactors are made by their factories (Factory), which construct and then switch notifications on. A constructor's
// last act is handleInitialized(), the first full pass over the inputs. All calls come on the scheduler's thread.
#pragma once

#include <type_traits>
#include <utility>

#include "runtime/Zol/Channel.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Ptr.h"

namespace Zol {

class Reactor;

// One member of a reactor that follows its state. Lives exactly as long as the reactor.
class ReactorPart {
 public:
  ReactorPart(const ReactorPart&) = delete;
  ReactorPart& operator=(const ReactorPart&) = delete;

 protected:
  enum class Role { notifiee, child };

  ReactorPart(Reactor& owner, Role role);
  virtual ~ReactorPart() = default;

 private:
  friend class Reactor;
  virtual void doNotificationActive(bool active) = 0;
  virtual void doZombie(bool zombie) = 0;
  virtual void doTeardown() = 0;

  ReactorPart* next_ = nullptr;
  const Role role_;
};

class Reactor : public PtrInterface {
 public:
  void hasNotificationActiveIs(bool active);
  void doZombieReactors(bool zombie);

 protected:
  void onZeroReferences() override;

 private:
  friend class ReactorPart;

  template <class F>
  void forEachPart(ReactorPart::Role role, F&& f) {
    for (ReactorPart* part = firstPart_; part != nullptr; part = part->next_) {
      if (part->role_ == role) {
        f(*part);
      }
    }
  }

  ReactorPart* firstPart_ = nullptr;
  ReactorPart* lastPart_ = nullptr;
};

// A watched input: holds the notifier and calls the owner's handlers for its changes while active and not a zombie.
// channelOf picks the notifier's attribute. Any handler may be null.
template <class Owner, class Notifier, class Key = NoKey>
class Notifiee final : public ReactorPart, private Listener<Key> {
 public:
  using ChannelOf = Channel<Key>& (Notifier::*)() const;
  static constexpr bool isSingleValue = std::is_same_v<Key, NoKey>;
  using OnKey = std::conditional_t<isSingleValue, void (Owner::*)(), void (Owner::*)(const Key&)>;
  struct Handlers {
    OnKey onKey = nullptr;                  // a member, or the single value, changed
    void (Owner::*onAll)() = nullptr;       // any member may have changed
    void (Owner::*onNotifier)() = nullptr;  // pointed at a new notifier while active
  };

  Notifiee(Owner& owner, PtrConst<Notifier> notifier, ChannelOf channelOf, Handlers handlers)
      : ReactorPart(owner, Role::notifiee), owner_(owner), channelOf_(channelOf), handlers_(handlers) {
    bind(std::move(notifier));
  }

  const PtrConst<Notifier>& notifier() const { return notifier_; }
  const Notifier* operator->() const { return notifier_.operator->(); }
  explicit operator bool() const { return static_cast<bool>(notifier_); }

  // Re-binds; null unbinds.
  void notifierIs(PtrConst<Notifier> notifier) {
    bind(std::move(notifier));
    if (notifier_ && reacts() && handlers_.onNotifier != nullptr) {
      (owner_.*handlers_.onNotifier)();
    }
  }
  // Leaves the notifier's list without letting go of it, or enters it again.
  void isRegisteredNotifieeIs(bool registered) {
    this->channelIs(registered && notifier_ ? &(notifier_.get()->*channelOf_)() : nullptr);
  }
  bool isRegisteredNotifiee() const { return this->channel() != nullptr; }

 private:
  void bind(PtrConst<Notifier> notifier) {
    this->channelIs(nullptr);
    notifier_ = std::move(notifier);
    isRegisteredNotifieeIs(true);
  }
  bool reacts() const { return active_ && !zombie_; }

  void onKey(const Key& key) override {
    if (!reacts() || handlers_.onKey == nullptr) {
      return;
    }
    if constexpr (isSingleValue) {
      (owner_.*handlers_.onKey)();
    } else {
      (owner_.*handlers_.onKey)(key);
    }
  }
  void onAll() override {
    if (reacts() && handlers_.onAll != nullptr) {
      (owner_.*handlers_.onAll)();
    }
  }

  void doNotificationActive(bool active) override { active_ = active; }
  void doZombie(bool zombie) override { zombie_ = zombie; }
  void doTeardown() override { notifierIs(nullptr); }

  Owner& owner_;
  const ChannelOf channelOf_;
  const Handlers handlers_;
  PtrConst<Notifier> notifier_;
  bool active_ = false;
  bool zombie_ = false;
};

// Turns a reactor quiet; other owned objects have nothing to quiet.
template <class T>
void quiet(const Ptr<T>& child) {
  if constexpr (std::is_base_of_v<Reactor, T>) {
    if (child) {
      child->hasNotificationActiveIs(false);
    }
  }
}

// An owned object, most often a reactor that follows its parent.
template <class T>
class Child final : public ReactorPart {
 public:
  explicit Child(Reactor& owner) : ReactorPart(owner, Role::child) {}

  // Takes the new child in; the one that it replaces is quieted and let go.
  void is(Ptr<T> child) {
    const Ptr<T> replaced = std::exchange(child_, std::move(child));
    quiet(replaced);
  }
  // The child leaves its attribute first, so it is never notified after its parent let go of it.
  void del() { is(nullptr); }

  const Ptr<T>& ptr() const { return child_; }
  T* operator->() const { return child_.operator->(); }
  T& operator*() const { return *child_; }
  explicit operator bool() const { return static_cast<bool>(child_); }

 private:
  void doNotificationActive(bool active) override {
    if constexpr (std::is_base_of_v<Reactor, T>) {
      if (const Ptr<T> child = child_) {
        child->hasNotificationActiveIs(active);
      }
    }
  }
  void doZombie(bool) override {}
  void doTeardown() override { del(); }

  Ptr<T> child_;
};

// A collection of child reactors.
template <class K, class T>
class ChildMap final : public ReactorPart {
 public:
  explicit ChildMap(Reactor& owner) : ReactorPart(owner, Role::child) {}

  const HashCollection<K, Ptr<T>>& members() const { return children_; }
  Ptr<T> child(const K& key) const {
    const Ptr<T>* const present = children_.find(key);
    return present == nullptr ? nullptr : *present;
  }
  void is(const K& key, Ptr<T> child) {
    const Ptr<T> replaced = std::exchange(children_[key], std::move(child));
    quiet(replaced);
  }
  void del(const K& key) {
    const Ptr<T> gone = child(key);
    children_.erase(key);
    quiet(gone);
  }
  void delAll() {
    for (auto it = children_.begin(); it; ++it) {
      del(it.key());
    }
  }

 private:
  void doNotificationActive(bool active) override {
    for (auto it = children_.begin(); it; ++it) {
      if (const Ptr<T> child = it.value()) {
        child->hasNotificationActiveIs(active);
      }
    }
  }
  void doZombie(bool) override {}
  void doTeardown() override { delAll(); }

  HashCollection<K, Ptr<T>> children_;
};

// The factory of a reactor: constructs it, then switches its notifications on.
template <class Sm>
struct Factory {
  template <class... Args>
  Ptr<Sm> operator()(Args&&... args) const {
    Ptr<Sm> sm = make<Sm>(std::forward<Args>(args)...);
    sm->hasNotificationActiveIs(true);
    return sm;
  }
};

}  // namespace Zol
