#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/RealTimeSource.h"
#include "tests/runtime/Quor/Scene.h"

namespace Quor {
namespace {

class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe(ends_), 0); }
  ~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int reader() const { return ends_[0]; }
  int writer() const { return ends_[1]; }
  void put() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
  void take() const {
    char byte = 0;
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }

 private:
  int ends_[2] = {-1, -1};
};

struct EventLoopTest : testing::Test {
  RealTimeSource time;
  EndlessSlicePolicy endless;
  Zol::Ptr<TaskScheduler> scheduler = Zol::make<TaskScheduler>(time, endless);
  EventLoop loop{scheduler};
  ScriptedTask stop{scheduler, 9, [this](ScriptedTask&) { loop.stop(); }};
};

double threadCpuSeconds() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}
long timesThatThisThreadSlept() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

// Fails if the loop polls: neither processor time nor more than the one sleep may be seen while nothing happens.
TEST_F(EventLoopTest, idleLoopSleepsUntilTheDeadline) {
  const double begin = time.now(), cpu = threadCpuSeconds();
  const long sleeps = timesThatThisThreadSlept();
  stop.scheduleTaskLowestDelay(0.05);
  loop.run();
  EXPECT_GE(time.now() - begin, 0.05);
  EXPECT_LT(threadCpuSeconds() - cpu, 0.005);
  EXPECT_LE(timesThatThisThreadSlept() - sleeps, 3);
}

// Fails if a sleep without deadline cannot be ended, or if the clock's watchers do not end a sleep.
TEST_F(EventLoopTest, sleepEndsByWakeUpStopAndWatcher) {
  int wakeUps = 0;
  loop.wakeUpCallbackIs([&] {
    ++wakeUps;
    loop.stop();
  });
  std::thread waker([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    loop.wakeUp();
  });
  loop.run();
  waker.join();
  EXPECT_EQ(wakeUps, 1);

  loop.wakeUpCallbackIs(nullptr);
  std::thread stopper([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    loop.stop();
  });
  loop.run();
  stopper.join();

  ScriptedWatcher watcher(scheduler->activityConfig().clock(), [this] { loop.stop(); });
  watcher.timeMinIs(time.now() + 0.02);
  loop.run();
}

EventLoop* signalled = nullptr;

TEST_F(EventLoopTest, signalHandlerMayStopTheLoopEvenBeforeItRuns) {
  signalled = &loop;
  struct sigaction action {};
  action.sa_handler = [](int) { signalled->stop(); };
  struct sigaction before {};
  sigaction(SIGUSR1, &action, &before);
  raise(SIGUSR1);
  loop.run();
  ScriptedTask raiser(scheduler, 2, [](ScriptedTask&) { raise(SIGUSR1); });
  raiser.scheduleTaskLowestDelay(0.01);
  loop.run();
  sigaction(SIGUSR1, &before, nullptr);
}

// Fails if a backlog that never ends keeps descriptors waiting.
TEST_F(EventLoopTest, busyLoopServesDescriptorsBetweenSlices) {
  const Pipe pipe;
  int slices = 0;
  ScriptedTask busy(scheduler, 2, [&](ScriptedTask& self) {
    self.scheduleTask();
    if (++slices == 10) {
      pipe.put();
    }
  });
  busy.scheduleTask();
  loop.fdIs(pipe.reader(), [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(slices, 10);
}

// Fails if a callback is called for a descriptor that another callback of the same round has removed, also when its
// number is in use again, or if a callback cannot remove itself.
TEST_F(EventLoopTest, callbacksMayRemoveAndReplaceDescriptors) {
  const Pipe first, second, third;
  std::vector<std::string> calls;
  loop.fdIs(first.reader(), [&] {
    calls.emplace_back("first");
    loop.fdDel(first.reader());
    loop.fdDel(second.reader());
    loop.fdDel(third.reader());
    loop.fdIs(third.reader(), [&] {
      calls.emplace_back("third again");
      third.take();
      loop.stop();
    });
  });
  loop.fdIs(second.reader(), [&] { calls.emplace_back("second"); });
  loop.fdIs(third.reader(), [&] { calls.emplace_back("third"); });
  for (const Pipe* pipe : {&first, &second, &third}) {
    pipe->put();
  }
  loop.run();
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "third again"}));
}

TEST_F(EventLoopTest, descriptorIsServedForItsEventsAndItsFailure) {
  int writable = 0, closed = 0;
  const Pipe pipe;
  loop.fdIs(
      pipe.writer(),
      [&] {
        ++writable;
        loop.fdDel(pipe.writer());
      },
      POLLOUT);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  close(ends[1]);
  loop.fdIs(ends[0], [&] {
    ++closed;
    loop.fdDel(ends[0]);
    stop.scheduleTask();
  });
  loop.run();
  close(ends[0]);
  EXPECT_EQ(writable, 1);
  EXPECT_EQ(closed, 1);
}

// A publisher that signals to sleepers only: its news reach the loop whether it sleeps, works or is about to sleep.
class ScriptedNews : public NewsSource {
 public:
  ScriptedNews(int published, ScriptedTask& work, int bell) : published_(published), work_(work), bell_(bell) {}

  void look() override {
    ++looks;
    if (published_ != seen) {
      seen = published_;
      work_.scheduleTask();
    }
  }
  bool mayFallAsleep() override {
    if (newsAtBedtime-- > 0) {
      ++published_;
      return false;
    }
    isAsleep = true;
    ++published_;
    EXPECT_EQ(write(bell_, "x", 1), 1);
    return true;
  }
  void awake() override { isAsleep = false; }

  int newsAtBedtime = 1;
  int looks = 0;
  int seen = 0;
  bool isAsleep = false;

 private:
  int published_;
  ScriptedTask& work_;
  const int bell_;
};

TEST_F(EventLoopTest, newsSourceIsAskedBeforeEverySleepAndAtEveryTurn) {
  const Pipe bell;
  std::vector<int> worked;
  ScriptedNews* source = nullptr;
  ScriptedTask work(scheduler, 1, [&](ScriptedTask&) {
    EXPECT_FALSE(source->isAsleep);
    worked.push_back(source->seen);
    if (source->seen == 3) {
      loop.stop();
    }
  });
  ScriptedNews news(1, work, bell.writer());
  source = &news;
  loop.newsSourceIs(&news);
  loop.fdIs(bell.reader(), [&] { bell.take(); });
  loop.run();
  EXPECT_EQ(worked, (std::vector<int>{1, 2, 3}));
  EXPECT_GE(news.looks, 3);
}

}  // namespace
}  // namespace Quor
