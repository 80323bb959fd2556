// EventLoop: drives a scheduler in real time and serves file descriptors beside it.
//
//     run one ready task ──▶ wait for descriptors ──▶ call back those that are ready ──┐
//            ▲                 not at all if something is due, until the next          │
//            │                 deadline if there is one, else until something happens  │
//            └─────────────────────────────────────────────────────────────────────────┘
//
// An idle loop sleeps in one system call and makes no other. A busy one looks at its descriptors once a slice, and at
// its news source, if it has one, for what no descriptor tells of.
// wakeUp() and stop() may be called from any thread and from signal handlers, everything else on the loop's thread
// only.
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/Quor/Histogram.h"
#include "runtime/Quor/TaskScheduler.h"
#include "runtime/Zol/Ptr.h"

namespace Quor {

// What is looked at instead of waited for, such as tables that other processes write: they signal only to sleepers.
class NewsSource {
 public:
  // Schedules what there is to do. Called at every turn of the loop.
  virtual void look() = 0;
  // The loop wants to sleep. False: there is news, and the loop takes another turn. True: from now on news must end
  // the sleep through a descriptor, until awake() is called.
  virtual bool mayFallAsleep() = 0;
  virtual void awake() = 0;

 protected:
  ~NewsSource() = default;
};

class EventLoop {
 public:
  using Callback = std::function<void()>;

  // The scheduler's time is real time. Raises an internal exception when the system has no descriptor left.
  explicit EventLoop(Zol::Ptr<TaskScheduler> scheduler);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  // Returns after a stop(), also one that came before run().
  void run();
  void stop();

  // Ends the present sleep; the wake-up callback is called on the loop's thread, once for any number of wake-ups.
  void wakeUp();
  void wakeUpCallbackIs(Callback callback) { wakeUpCallback_ = std::move(callback); }

  // The source outlives the loop, or is taken away with null.
  void newsSourceIs(NewsSource* source) { newsSource_ = source; }

  // Calls back whenever fd is ready for one of the events (as poll(2) has them) or has failed, until fdDel(fd), which
  // comes before fd is closed. Callbacks may add and remove any descriptor, their own too.
  void fdIs(int fd, Callback callback, short events = POLLIN);
  void fdDel(int fd);

  // How long the loop was away from its descriptors: each run of a task, with what was due before it.
  const Histogram& slices() const { return slices_; }

 private:
  struct Watch {
    std::shared_ptr<const Callback> callback;  // shared with the call in progress
    short events;
    std::uint64_t number;  // tells a descriptor that is added again from the one that was removed
  };

  void runSlice();
  void waitForDescriptors();
  std::optional<double> timeToSleep() const;
  void callBack();
  void handleWakeUp();

  const Zol::Ptr<TaskScheduler> scheduler_;
  int wakeUpFd_;
  std::atomic<bool> stopping_ = false;
  Callback wakeUpCallback_;
  NewsSource* newsSource_ = nullptr;
  std::map<int, Watch> watches_;
  std::vector<pollfd> polled_;
  std::vector<std::uint64_t> polledNumbers_;  // of the watches in polled_
  std::uint64_t nextNumber_ = 0;
  bool watchesChanged_ = true;
  Histogram slices_;
};

}  // namespace Quor
