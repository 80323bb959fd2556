// Entities by path, for the process that writes one and for those that read it.
#include <gtest/gtest.h>

#include "runtime/Statehub/Attempts.h"
#include "runtime/Statehub/EntityManager.h"
#include "tests/support/Items.h"
#include "tests/support/Process.h"

namespace Statehub {
namespace {

using Support::Item;
using Support::Items;

constexpr const char* typeName = "Support::Items";
constexpr const char* path = "table/items";

class EntityManagerTest : public testing::Test {
 protected:
  EntityManagerTest() {
    EntityTypes::typeIs(typeName, [](const std::string& name, const Memtab::StoreSource& source) {
      return Zol::make<Items>(name, source(Items::layout()), 0U);
    });
  }
  static Zol::Ptr<Items> mount(EntityManager& manager, Access access, const std::string& at = path) {
    manager.doMount(at, typeName, MountInfo(access));
    return Zol::dynamicPtrCast<Items>(manager.getEntity(at));
  }
  bool isStored(const std::string& at = path) const { return std::filesystem::exists(state + "/" + at); }

  const Support::ScratchDirectory scratch;
  const std::string state = scratch / "state";
  EntityManager writer{state}, reader{state};
};

template <class F>
std::string messageOf(F&& f) {
  try {
    f();
  } catch (const Zol::Exception& exception) {
    return exception.what();
  }
  return "no exception";
}

// Fails if a path names two entities, or one of the wrong type, or if a reader becomes a writer unnoticed.
TEST_F(EntityManagerTest, aPathNamesOneEntity) {
  EntityManager memory;
  for (EntityManager* const manager : {&memory, &writer}) {
    const auto items = mount(*manager, Access::write);
    EXPECT_EQ(mount(*manager, Access::read), items);
    EXPECT_EQ(manager->getEntity("table/other"), nullptr);
    EXPECT_EQ(messageOf([&] { manager->doMount(path, "Other"); }),
              "table/items is mounted as Support::Items, not as Other");
    EXPECT_EQ(messageOf([&] { manager->doMount("table/other", "Other"); }),
              "no entity type Other to mount at table/other");
    EXPECT_EQ(manager->getEntity("table/other"), nullptr);
  }
  mount(reader, Access::read);
  EXPECT_EQ(messageOf([this] { mount(reader, Access::write); }), "table/items is mounted for reading, not for writing");
  EXPECT_NE(reader.mirror(path), nullptr);
  EXPECT_EQ(writer.mirror(path), nullptr);
  EXPECT_THROW(mount(*Zol::make<EntityManager>(state), Access::write), Memtab::TableBusy);
}

// Fails if a reader that gives up a path removes the table of another process, or a writer keeps its own.
TEST_F(EntityManagerTest, cleanupRemovesWhatThisProcessStores) {
  const auto items = mount(writer, Access::write);
  items->entryIs({1, 10});
  mount(reader, Access::read);
  reader.cleanup(path);
  EXPECT_EQ(reader.getEntity(path), nullptr);
  EXPECT_TRUE(isStored());
  items->entryIs({2, 20});
  EXPECT_EQ(mount(reader, Access::read)->value(2).content(), 20U);

  writer.doUnmount(path);
  EXPECT_TRUE(isStored()) << "an unmount is for this process alone";
  EXPECT_EQ(items->value(1).content(), 10U) << "references outlive the mount";
  writer.cleanup("table/absent");
  writer.cleanup(path);
  EXPECT_FALSE(isStored()) << "left by an earlier mount";
  mount(writer, Access::write);
  writer.cleanup(path);
  EXPECT_EQ(writer.getEntity(path), nullptr);
  EXPECT_FALSE(isStored());
}

// Fails if a change is missed or reported twice, if a table that a watcher unmounts ends the round, or if news remain.
TEST_F(EntityManagerTest, pollReportsEachChangeToTheWatchersOfAllTables) {
  const std::vector<std::string> paths = {"table/a", "table/b", "table/c"};
  std::vector<Zol::Ptr<Items>> written, read;
  std::vector<std::string> reported;
  const auto record = [&](const std::string& at, std::uint32_t id) {
    reported.push_back(at + " " + std::to_string(id));
    if (at == "table/a") {
      reader.doUnmount("table/b");
    }
  };
  using Watcher = Support::ItemListener<std::function<void(std::uint32_t)>>;
  std::vector<std::unique_ptr<Watcher>> watchers;
  for (const std::string& at : paths) {
    written.push_back(mount(writer, Access::write, at));
    read.push_back(mount(reader, Access::read, at));
    read.back()->follow();
    watchers.push_back(std::make_unique<Watcher>(*read.back(), [&record, at](std::uint32_t id) { record(at, id); }));
  }
  EXPECT_FALSE(reader.hasNews());
  for (const auto& items : written) {
    items->entryIs({7, 70});
  }
  EXPECT_TRUE(reader.hasNews());
  while (reader.poll(1)) {
  }
  EXPECT_EQ(reported, (std::vector<std::string>{"table/a 7", "table/c 7"}));
  EXPECT_FALSE(reader.hasNews());
}

// Fails if a table that is removed from outside stays away, or if its readers stay with the removed file.
TEST_F(EntityManagerTest, rescanMakesWrittenFilesAgainAndReadersFollow) {
  const auto items = mount(writer, Access::write);
  items->entryIs({1, 10});
  const auto mirrored = mount(reader, Access::read);
  std::filesystem::remove(state + "/" + path);
  writer.rescan();
  ASSERT_TRUE(isStored());
  items->entryIs({2, 20});
  items->collectionReadyIs(true);
  reader.rescan();
  while (reader.poll(64)) {
  }
  EXPECT_EQ(mirrored->value(1).content(), 10U);
  EXPECT_EQ(mirrored->value(2).content(), 20U);
  EXPECT_EQ(reader.mirror(path)->trouble(), "");
}

// Fails if one failure keeps other work from being done, or if lost bytes are treated like other failures.
TEST(Attempts, allAreMadeAndTheFirstFailureIsRaised) {
  Attempts all;
  all.raise();
  int made = 0;
  for (const char* const what : {"first", "second"}) {
    all.attempt([&] {
      ++made;
      throw Zol::InternalException(what);
    });
  }
  EXPECT_EQ(made, 2);
  EXPECT_EQ(messageOf([&] { all.raise(); }), "first");
  EXPECT_THROW(all.attempt([] { throw Memtab::CorruptionException("bytes lost"); }), Memtab::CorruptionException);
}

}  // namespace
}  // namespace Statehub
