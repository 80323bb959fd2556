#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "runtime/Zol/Entity.h"
#include "runtime/Zol/Reactor.h"
#include "runtime/Zol/Watchable.h"

namespace Zol {
namespace {

using Journal = std::vector<std::string>;

// A notifier with a collection and a single value.
class Source final : public Entity {
 public:
  using Members = Watchable<HashCollection<std::uint32_t, std::uint32_t>>;
  Members members;
  void sequenceIs(int sequence) {
    sequence_ = sequence;
    sequenceChannel_.notify(NoKey());
  }
  int sequence() const { return sequence_; }
  Channel<std::uint32_t>& memberChannel() const { return members.channel(); }
  Channel<NoKey>& sequenceChannel() const { return sequenceChannel_; }

 private:
  int sequence_ = 0;
  mutable Channel<NoKey> sequenceChannel_;
};

// A part that writes what it is told into a journal.
class Probe final : public ReactorPart {
 public:
  Probe(Reactor& owner, Role role, Journal& journal, std::string name)
      : ReactorPart(owner, role), journal_(journal), name_(std::move(name)) {}
  static Probe notifiee(Reactor& owner, Journal& journal, std::string name) {
    return {owner, Role::notifiee, journal, std::move(name)};
  }
  static Probe child(Reactor& owner, Journal& journal, std::string name) {
    return {owner, Role::child, journal, std::move(name)};
  }

 private:
  void doNotificationActive(bool active) override { journal_.push_back(name_ + (active ? " active" : " quiet")); }
  void doZombie(bool zombie) override { journal_.push_back(name_ + (zombie ? " zombie" : " alive")); }
  void doTeardown() override { journal_.push_back(name_ + " torn down"); }

  Journal& journal_;
  const std::string name_;
};

// Declared in an order that differs from the order of roles.
struct OrderSm final : Reactor {
  explicit OrderSm(Journal& journal)
      : childA(Probe::child(*this, journal, "childA")),
        inputA(Probe::notifiee(*this, journal, "inputA")),
        childB(Probe::child(*this, journal, "childB")),
        inputB(Probe::notifiee(*this, journal, "inputB")) {}
  Probe childA, inputA, childB, inputB;
};
inline constexpr Factory<OrderSm> orderSmFactory;

// Fails if children hear before notifiees, the order of declaration is lost, or a flag that does not change is told.
TEST(Reactor, stateReachesThePartsInTheOrderOfDeclaration) {
  Journal journal;
  Ptr<OrderSm> sm = orderSmFactory(journal);
  EXPECT_EQ(journal, (Journal{"inputA active", "inputB active", "childA active", "childB active"}));
  journal.clear();
  sm->hasNotificationActiveIs(true);
  sm->hasNotificationActiveIs(false);
  EXPECT_EQ(journal, (Journal{"inputA quiet", "inputB quiet", "childA quiet", "childB quiet"}));
  journal.clear();
  sm->doZombieReactors(false);
  sm->doZombieReactors(true);
  EXPECT_TRUE(sm->isZombie());
  EXPECT_EQ(journal, (Journal{"inputA zombie", "inputB zombie"})) << "children go with their parent, not before";
  journal.clear();
  sm->doZombieReactors(false);
  sm = nullptr;
  EXPECT_EQ(journal, (Journal{"inputA alive", "inputB alive", "inputA zombie", "inputB zombie", "childA torn down",
                              "inputA torn down", "childB torn down", "inputB torn down"}));
}

class WatchSm final : public Reactor {
 public:
  using Script = std::function<void(const std::string&)>;
  WatchSm(const Ptr<Source>& source, std::string name, Script script)
      : members_(*this, source, &Source::memberChannel,
                 {&WatchSm::handleMember, &WatchSm::handleMembers, &WatchSm::handleNotifier}),
        sequence_(*this, source, &Source::sequenceChannel, {&WatchSm::handleSequence}),
        child_(*this),
        children_(*this),
        name_(std::move(name)),
        script_(std::move(script)) {}

  Notifiee<WatchSm, Source, std::uint32_t>& members() { return members_; }
  Child<WatchSm>& child() { return child_; }
  ChildMap<std::uint32_t, WatchSm>& children() { return children_; }

 private:
  void handleMember(const std::uint32_t& key) { tell(std::to_string(key)); }
  void handleMembers() { tell("all"); }
  void handleNotifier() { tell("notifier"); }
  void handleSequence() { tell("sequence " + std::to_string(sequence_->sequence())); }
  void tell(const std::string& what) {
    const Script script = script_;  // the script may drop the reactor
    script(name_ + " " + what);
  }

  Notifiee<WatchSm, Source, std::uint32_t> members_;
  Notifiee<WatchSm, Source> sequence_;
  Child<WatchSm> child_;
  ChildMap<std::uint32_t, WatchSm> children_;
  const std::string name_;
  const Script script_;
};
inline constexpr Factory<WatchSm> watchSmFactory;

struct ReactorTest : testing::Test {
  Ptr<WatchSm> watch(const std::string& name) {
    return watchSmFactory(source, name, [this](const std::string& what) { journal.push_back(what); });
  }
  Journal changed(std::uint32_t key) {
    journal.clear();
    source->members.is(key, ++value);
    return journal;
  }
  Journal journal;
  std::uint32_t value = 0;
  Ptr<Source> source = make<Source>();
};

TEST_F(ReactorTest, handlersFollowTheInput) {
  const Ptr<WatchSm> sm = watch("sm");
  EXPECT_EQ(changed(7), Journal{"sm 7"});
  source->sequenceIs(3);
  source->members.channel().notifyAll();
  EXPECT_EQ(journal, (Journal{"sm 7", "sm sequence 3", "sm all"}));

  const Ptr<Source> first = source;
  source = make<Source>();
  journal.clear();
  sm->members().notifierIs(source);
  EXPECT_EQ(journal, Journal{"sm notifier"});
  EXPECT_EQ(changed(8), Journal{"sm 8"});
  journal.clear();
  first->members.is(9, 9);
  EXPECT_TRUE(journal.empty()) << "the old input is watched no longer";

  sm->members().isRegisteredNotifieeIs(false);
  EXPECT_EQ(changed(1), Journal{});
  EXPECT_TRUE(sm->members().notifier() == source);
  sm->members().isRegisteredNotifieeIs(true);
  EXPECT_EQ(changed(1), Journal{"sm 1"});
  sm->members().notifierIs(nullptr);
  EXPECT_EQ(changed(1), Journal{});
}

// Fails if a quiet or zombie reactor is called, or is deaf when it is active again.
TEST_F(ReactorTest, quietAndZombieReactorsAreNotCalled) {
  const Ptr<WatchSm> sm = watch("sm");
  const struct {
    int line;
    bool active, zombie;
  } cases[] = {{__LINE__, false, false}, {__LINE__, true, true}, {__LINE__, false, true}, {__LINE__, true, false}};
  for (const auto& c : cases) {
    sm->hasNotificationActiveIs(c.active);
    sm->doZombieReactors(c.zombie);
    const bool called = c.active && !c.zombie;
    EXPECT_EQ(changed(5), called ? Journal{"sm 5"} : Journal{}) << "case in line " << c.line;
    journal.clear();
    sm->members().notifierIs(source);
    EXPECT_EQ(journal, called ? Journal{"sm notifier"} : Journal{}) << "case in line " << c.line;
  }
}

// Fails if a child is called after its parent let go of it, however many others still hold it.
TEST_F(ReactorTest, childIsQuietOnceItsParentLetGoOfIt) {
  Ptr<WatchSm> parent = watch("parent");
  const Ptr<WatchSm> one = watch("one"), two = watch("two"), three = watch("three"), four = watch("four");
  parent->child().is(one);
  parent->child().is(two);
  parent->children().is(1, three);
  parent->children().is(1, four);
  EXPECT_EQ(changed(5), (Journal{"parent 5", "two 5", "four 5"}));
  parent->hasNotificationActiveIs(false);
  EXPECT_EQ(changed(5), Journal{});
  parent->hasNotificationActiveIs(true);
  EXPECT_EQ(changed(5), (Journal{"parent 5", "two 5", "four 5"}));
  parent->children().del(1);
  parent->children().del(2);
  EXPECT_EQ(changed(5), (Journal{"parent 5", "two 5"}));
  parent->children().is(3, three);
  three->hasNotificationActiveIs(true);
  parent = nullptr;
  EXPECT_EQ(changed(5), Journal{});
  EXPECT_EQ(two->references(), 1U);
  EXPECT_EQ(three->references(), 1U);
  EXPECT_FALSE(two->isZombie());
}

// Fails if setting a child to nothing in a map breaks the next change of state.
TEST_F(ReactorTest, nullChildrenAreLegal) {
  const Ptr<WatchSm> parent = watch("parent");
  parent->child().is(nullptr);
  parent->children().is(1, nullptr);
  parent->hasNotificationActiveIs(false);
  parent->children().delAll();
  EXPECT_TRUE(parent->children().child(1) == nullptr);
}

// Fails if the notification goes on inside a reactor that its own handler has destroyed.
TEST_F(ReactorTest, handlerMayDropTheLastReferenceToItsReactor) {
  Ptr<WatchSm> sm;
  sm = watchSmFactory(source, "sm", [&](const std::string& what) {
    journal.push_back(what);
    sm = nullptr;
    source->members.is(99, 1);
  });
  const Ptr<WatchSm> later = watch("later");
  EXPECT_EQ(changed(5), (Journal{"sm 5", "later 99", "later 5"}));
  EXPECT_EQ(source->members.channel().listeners(), 1U);
}

// Fails if the notifier dies under the notification when the watcher held it alone.
TEST_F(ReactorTest, handlerMayLetGoOfTheNotifier) {
  Source* const notifier = source.get();
  Ptr<WatchSm> sm;
  sm = watchSmFactory(source, "sm", [&](const std::string& what) {
    journal.push_back(what);
    sm = nullptr;
  });
  source = nullptr;
  notifier->sequenceIs(1);
  EXPECT_EQ(journal, Journal{"sm sequence 1"});
}

// Fails if quieting its children calls a reactor that is being torn down, or starts the teardown again.
TEST_F(ReactorTest, teardownHappensOnce) {
  struct ParentSm final : Reactor {
    explicit ParentSm(int& torn) : child(*this), torn_(torn) {}
    ~ParentSm() override { ++torn_; }
    Child<Reactor> child;
    int& torn_;
  };
  struct ChildSm final : Reactor {
    explicit ChildSm(ParentSm& parent) : parent_(parent) {}
    ~ChildSm() override { const Ptr<ParentSm> forAMoment(&parent_); }
    ParentSm& parent_;
  };
  int torn = 0;
  Ptr<ParentSm> parent = make<ParentSm>(torn);
  parent->child.is(make<ChildSm>(*parent));
  parent = nullptr;
  EXPECT_EQ(torn, 1);
}

}  // namespace
}  // namespace Zol
