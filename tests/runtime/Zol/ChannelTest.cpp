#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/Zol/Channel.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/OrderedCollection.h"
#include "runtime/Zol/Watchable.h"

namespace Zol {
namespace {

struct Ear final : Listener<int> {
  using Script = std::function<void(int)>;
  explicit Ear(Channel<int>* channel, Script script = nullptr) : script_(std::move(script)) { channelIs(channel); }
  using Listener<int>::channelIs;
  std::vector<int> heard;

 private:
  void onKey(const int& key) override {
    heard.push_back(key);
    if (const Script script = script_) {  // the script may destroy the listener
      script(key);
    }
  }
  void onAll() override { onKey(-1); }
  Script script_;
};

using Heard = std::vector<int>;

TEST(Channel, tellsEveryListenerOnce) {
  Channel<int> channel;
  channel.notify(1);
  Ear a(&channel), b(&channel);
  a.channelIs(&channel);  // again
  channel.notify(2);
  channel.notifyAll();
  EXPECT_EQ(a.heard, (Heard{2, -1}));
  EXPECT_EQ(b.heard, (Heard{2, -1}));
  EXPECT_EQ(channel.listeners(), 2U);
}

// Fails if one that arrives hears the change that was under way, one that leaves hears it, or others miss it.
TEST(Channel, listenersComeAndGoDuringANotification) {
  Channel<int> channel;
  std::unique_ptr<Ear> victim, newcomer, leaver;
  Ear first(&channel, [&](int key) {
    if (key == 1) {
      victim.reset();
      newcomer = std::make_unique<Ear>(&channel);
      channel.notify(10);  // inside the other
    }
  });
  victim = std::make_unique<Ear>(&channel);
  leaver = std::make_unique<Ear>(&channel, [&](int) { leaver.reset(); });
  Ear last(&channel);
  channel.notify(1);
  EXPECT_EQ(first.heard, (Heard{1, 10}));
  EXPECT_EQ(newcomer->heard, (Heard{10}));
  EXPECT_EQ(leaver, nullptr);
  EXPECT_EQ(last.heard, (Heard{10, 1}));
  EXPECT_EQ(channel.listeners(), 3U);
  channel.notify(2);
  EXPECT_EQ(newcomer->heard, (Heard{10, 2}));
}

// Fails if registering again loses the change that is under way.
TEST(Channel, bindingToTheSameChannelKeepsThePlace) {
  Channel<int> channel;
  std::unique_ptr<Ear> second;
  Ear first(&channel, [&](int) { second->channelIs(&channel); });
  second = std::make_unique<Ear>(&channel);
  channel.notify(1);
  EXPECT_EQ(second->heard, Heard{1});
}

TEST(Channel, goesWithItsListenersOrBeforeThem) {
  auto channel = std::make_unique<Channel<int>>();
  Ear ear(channel.get());
  { const Ear gone(channel.get()); }
  EXPECT_EQ(channel->listeners(), 1U);
  channel.reset();
  EXPECT_EQ(ear.channel(), nullptr);
}

// Fails if a handler that lets go of the notifier leaves the notification walking in freed memory.
TEST(Channel, mayBeDestroyedInsideItsNotification) {
  auto channel = std::make_unique<Channel<int>>();
  Ear outer(channel.get(), [&](int key) {
    if (key == 1) {
      channel->notify(2);
    }
  });
  Ear destroyer(channel.get(), [&](int) { channel.reset(); });
  Ear last(channel.get());
  channel->notify(1);
  EXPECT_EQ(outer.heard, (Heard{1, 2}));
  EXPECT_EQ(destroyer.heard, Heard{2});
  EXPECT_TRUE(last.heard.empty());
}

TEST(Channel, exceptionOfAListenerLeavesItUsable) {
  Channel<int> channel;
  std::unique_ptr<Ear> gone;
  Ear thrower(&channel, [&](int key) {
    if (key == 1) {
      gone.reset();
      throw std::runtime_error("handler");
    }
  });
  gone = std::make_unique<Ear>(&channel);
  EXPECT_THROW(channel.notify(1), std::runtime_error);
  EXPECT_EQ(channel.listeners(), 1U);
  channel.notify(2);
  EXPECT_EQ(thrower.heard, (Heard{1, 2}));
}

template <class Storage>
struct WatchableTest : testing::Test {};
using Storages = testing::Types<HashCollection<int, std::string>, OrderedCollection<int, std::string>>;
TYPED_TEST_SUITE(WatchableTest, Storages);

// Fails if a change is not notified, a notification comes before the change is to be seen, or one comes for nothing.
TYPED_TEST(WatchableTest, everyChangeIsNotifiedOnce) {
  Watchable<TypeParam> watchable;
  std::vector<std::string> seen;
  Ear ear(&watchable.channel(), [&](int key) {
    seen.push_back(std::to_string(key) + (watchable.has(key) ? "=" + watchable.value(key) : " gone"));
  });
  EXPECT_TRUE(watchable.is(1, "a"));
  EXPECT_FALSE(watchable.is(1, "a"));
  EXPECT_TRUE(watchable.is(1, "b"));
  EXPECT_TRUE(watchable.is(2, "c"));
  EXPECT_TRUE(watchable.del(1));
  EXPECT_FALSE(watchable.del(1));
  watchable.is(3, "d");
  watchable.delAll();
  EXPECT_EQ(std::vector<std::string>(seen.begin(), seen.begin() + 5),
            (std::vector<std::string>{"1=a", "1=b", "2=c", "1 gone", "3=d"}));
  EXPECT_EQ(seen.size(), 7U);
  EXPECT_EQ(watchable.size(), 0U);
  EXPECT_EQ(watchable.value(3), "");
}

// Fails if the key that is deleted is read from the member after it has gone.
TEST(Watchable, keyOfTheMemberItselfMayBeGiven) {
  Watchable<OrderedCollection<std::string, int>> watchable;
  const std::string key = "a key that does not fit into a small string";
  watchable.is(key, 1);
  watchable.del(*watchable.members().firstKey([](const std::string&) { return true; }));
  EXPECT_EQ(watchable.size(), 0U);
}

TEST(Watchable, settingAReferenceAgainPublishesItAgain) {
  struct Object : PtrInterface {};
  Watchable<HashCollection<int, Ptr<Object>>> watchable;
  Ear ear(&watchable.channel());
  const Ptr<Object> object = make<Object>();
  watchable.is(4, object);
  watchable.is(4, object);
  EXPECT_EQ(ear.heard, (Heard{4, 4}));
}

}  // namespace
}  // namespace Zol
