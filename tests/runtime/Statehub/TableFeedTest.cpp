// How a process that sleeps learns of changes at the very moments when one could be lost.
#include <gtest/gtest.h>

#include <functional>

#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Statehub/TableFeed.h"
#include "tests/support/Items.h"
#include "tests/support/Process.h"

namespace Statehub {
namespace {

using Support::Items;

constexpr const char* typeName = "Support::Items";
constexpr const char* path = "table/items";

// Items that let a test act right after they were found to have no news.
class WatchedItems final : public Items {
 public:
  using Items::Items;
  static inline std::function<void()> afterLook;

 private:
  bool hasNews() const override {
    const bool isNews = Items::hasNews();
    if (!isNews && afterLook) {
      afterLook();
    }
    return isNews;
  }
};

class FeedScene : public testing::Test {
 protected:
  FeedScene() {
    EntityTypes::typeIs(typeName, [](const std::string& name, const Memtab::StoreSource& source) {
      return Zol::make<WatchedItems>(name, source(Items::layout()), 0U);
    });
  }
  ~FeedScene() override { WatchedItems::afterLook = nullptr; }

  Items& mount(EntityManager& manager, Access access) const {
    manager.doMount(path, typeName, MountInfo(access));
    return dynamic_cast<Items&>(*manager.getEntity(path));
  }
  // Runs a loop over the tables until it is stopped. False: that did not come within the seconds.
  bool run(double seconds) {
    const double end = time_.now() + seconds;
    stop_.scheduleTaskLowestDelay(seconds);
    loop_.newsSourceIs(&*feed_);
    loop_.run();
    stop_.unscheduleTask();
    return time_.now() < end;
  }

 private:
  struct StopTask final : Quor::TimerTask {
    StopTask(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Quor::EventLoop& loop)
        : TimerTask(scheduler, 9, "stop"), loop_(loop) {}
    void run() override { loop_.stop(); }
    Quor::EventLoop& loop_;
  };
  const Quor::RealTimeSource time_;
  Quor::EndlessSlicePolicy endless_;

 protected:
  const Support::ScratchDirectory scratch_;
  const std::string state_ = scratch_ / "state";
  const Zol::Ptr<EntityManager> reader_ = Zol::make<EntityManager>(state_);
  const Zol::Ptr<Quor::TaskScheduler> scheduler_ = Zol::make<Quor::TaskScheduler>(time_, endless_);
  Quor::EventLoop loop_{scheduler_};
  std::optional<TableFeed> feed_;

 private:
  StopTask stop_{scheduler_, loop_};
};

// Fails if news that comes between a last look and the sleep is slept over.
TEST_F(FeedScene, newsThatComesBeforeTheSleepEndsIt) {
  constexpr std::uint32_t last = 10;
  const auto publisher = Zol::make<EntityManager>(state_);
  Items& written = mount(*publisher, Access::write);
  Items& items = mount(*reader_, Access::read);
  items.follow();
  std::uint32_t told = 0;
  const Support::ItemListener listener(items, [&](std::uint32_t id) {
    told = id;
    if (id == last) {
      loop_.stop();
    }
  });
  feed_.emplace(reader_, scheduler_, loop_, std::vector<std::string>{"table"});
  std::uint32_t next = 1;
  WatchedItems::afterLook = [&] {
    if (next <= last) {
      written.entryIs({next++, 0});
    }
  };
  EXPECT_TRUE(run(5));
  EXPECT_EQ(told, last);
}

// Fails if a change is slept over whose writer was killed before it could ring.
TEST_F(FeedScene, aWriterKilledBeforeItRingsEndsTheSleep) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    // A store without a ringer: no ring follows its changes.
    Items written(path, Zol::Ptr<Memtab::SharedStore>(Zol::make<Memtab::FileStore>(state_, path, Items::layout())), 0U);
    written.collectionReadyIs(true);
    const Memtab::Bell bell(state_, {});
    (void)!write(ready[1], "r", 1);
    for (int asleep = 0; asleep < 50; asleep = bell.sleepers() == 0 ? 0 : asleep + 1) {
      usleep(1000);
    }
    written.entryIs({7, 0});
    usleep(50000);
    raise(SIGKILL);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  Items& items = mount(*reader_, Access::read);
  items.follow();
  const Support::ItemListener listener(items, [&](std::uint32_t) { loop_.stop(); });
  feed_.emplace(reader_, scheduler_, loop_, std::vector<std::string>{"table"});
  EXPECT_TRUE(run(10));
  waitpid(child, nullptr, 0);
}

// Fails if a repair that fails answers the events of its own attempt, and so runs without a pause.
TEST_F(FeedScene, aRepairThatFailsIsTriedAfterASecond) {
  mount(*reader_, Access::write);
  feed_.emplace(reader_, scheduler_, loop_, std::vector<std::string>{"table"});
  const Memtab::FileStore other(state_, "table/other", Items::layout());
  std::filesystem::rename(state_ + "/table/other", state_ + "/" + path);
  unsigned tries = 0;
  feed_->rescannedCallbackIs([&] { ++tries; });
  EXPECT_FALSE(run(0.5));
  EXPECT_NE(feed_->trouble(), "");
  EXPECT_GE(tries, 1u);
  EXPECT_LE(tries, 3u);
}

}  // namespace
}  // namespace Statehub
