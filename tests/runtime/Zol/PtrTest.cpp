#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "runtime/Zol/Entity.h"
#include "runtime/Zol/Ptr.h"

namespace Zol {
namespace {

struct Counted : PtrInterface {
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }
  using PtrInterface::flagIs;
  int* const destroyed_;
};
struct Derived final : Counted {
  using Counted::Counted;
};

// Fails if a flag counts as a reference, or a count runs into a flag.
TEST(Ptr, flagsNeverKeepAnObjectAlive) {
  for (const std::uint32_t flags : {0U, PtrInterface::zombieFlag, PtrInterface::notificationActiveFlag,
                                    PtrInterface::zombieFlag | PtrInterface::notificationActiveFlag}) {
    int destroyed = 0;
    Ptr<Counted> first = make<Counted>(&destroyed);
    Ptr<Counted> second = first;
    first->flagIs(flags, true);
    EXPECT_EQ(first->references(), 2U);
    EXPECT_EQ(first->isZombie(), (flags & PtrInterface::zombieFlag) != 0);
    EXPECT_EQ(first->hasNotificationActive(), (flags & PtrInterface::notificationActiveFlag) != 0);
    second = nullptr;
    EXPECT_EQ(destroyed, 0);
    first = nullptr;
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(Ptr, holdsAndConverts) {
  int destroyed = 0;
  {
    const Ptr<Derived> derived = make<Derived>(&destroyed);
    Ptr<Counted> base = derived;
    const PtrConst<Counted> reader = base;
    EXPECT_TRUE(reader == derived);
    EXPECT_TRUE(dynamicPtrCast<Derived>(base) == derived);
    EXPECT_TRUE(dynamicPtrCast<Derived>(Ptr<Counted>(make<Counted>(&destroyed))) == nullptr);
    EXPECT_EQ(destroyed, 1);
    Counted& self = *base;
    base = Ptr<Counted>(&self);  // the same object
    EXPECT_EQ(derived->references(), 3U);
    const Ptr<Counted> moved = std::move(base);
    EXPECT_EQ(derived->references(), 3U);
    EXPECT_TRUE(base == nullptr);  // NOLINT: what is moved from is null
  }
  EXPECT_EQ(destroyed, 2);
  const AssertionTrap trap;
  EXPECT_THROW(Ptr<Counted>()->references(), AssertionException);
}

// An object that owns the rest of its chain.
struct Link : Counted {
  using Counted::Counted;
  Ptr<Link> next;
};

// Fails if assigning drops the owner of the right side before that is held.
TEST(Ptr, assigningFromInsideTheDroppedObjectIsSafe) {
  int destroyed = 0;
  Ptr<Link> head = make<Link>(&destroyed);
  head->next = make<Link>(&destroyed);
  head = head->next;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(head->references(), 1U);
}

// Fails if counts are not atomic under the switch.
TEST(Ptr, threadSafePtrsCountFromTwoThreads) {
  PtrInterface::threadSafePtrsIs(true);
  int destroyed = 0;
  {
    const Ptr<Counted> shared = make<Counted>(&destroyed);
    const auto copyAndFlag = [&shared](std::uint32_t flag) {
      for (int i = 0; i < 200'000; ++i) {
        const Ptr<Counted> copy = shared;
        copy->flagIs(flag, i % 2 == 0);
      }
      shared->flagIs(flag, true);
    };
    std::thread other(copyAndFlag, PtrInterface::zombieFlag);
    copyAndFlag(PtrInterface::notificationActiveFlag);
    other.join();
    EXPECT_EQ(shared->references(), 1U);
    EXPECT_TRUE(shared->isZombie() && shared->hasNotificationActive());
  }
  EXPECT_EQ(destroyed, 1);
  PtrInterface::threadSafePtrsIs(false);
}

TEST(Entity, fullNameIsThePathFromTheRoot) {
  const Ptr<Entity> root = make<Entity>("root"), middle = make<Entity>("tables"), leaf = make<Entity>("ldp");
  leaf->parentIs(middle.get());
  leaf->parentAttrIdIs("table");
  middle->parentIs(root.get());
  EXPECT_EQ(leaf->fullName(), "root/tables/ldp");
  EXPECT_EQ(leaf->parentAttrName(), "table");
  leaf->parentIs(nullptr);
  EXPECT_EQ(leaf->fullName(), "ldp");
}

}  // namespace
}  // namespace Zol
