#include "runtime/Quor/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "runtime/Zol/Assert.h"

namespace Quor {
namespace {

// The time to sleep at most; rounded up, so that the deadline has passed when the sleep is over.
timespec sleepTime(double seconds) {
  const double limited = std::clamp(seconds, 0.0, 1e9);
  const double whole = std::floor(limited);
  timespec time{};
  time.tv_sec = static_cast<time_t>(whole);
  time.tv_nsec = std::min(static_cast<long>(std::ceil((limited - whole) * 1e9)), 999'999'999L);
  return time;
}

}  // namespace

static_assert(std::atomic<bool>::is_always_lock_free, "stop() is called by signal handlers");

EventLoop::EventLoop(Zol::Ptr<TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)), wakeUpFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (wakeUpFd_ < 0) {
    throw Zol::InternalException(std::string("no descriptor to wake the event loop: ") + std::strerror(errno));
  }
  fdIs(wakeUpFd_, [this] { handleWakeUp(); });
}

EventLoop::~EventLoop() { close(wakeUpFd_); }

void EventLoop::run() {
  while (!stopping_.exchange(false)) {
    if (newsSource_ != nullptr) {
      newsSource_->look();
    }
    runSlice();
    waitForDescriptors();
    callBack();
  }
}

void EventLoop::runSlice() {
  const double begin = scheduler_->now();
  if (scheduler_->runReadyTask()) {
    slices_.add(scheduler_->now() - begin);
  }
}

void EventLoop::stop() {
  stopping_ = true;
  wakeUp();
}

void EventLoop::wakeUp() {
  const int callersErrno = errno;  // a signal handler must leave it as it was
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the loop is about to wake anyway.
  [[maybe_unused]] const ssize_t written = write(wakeUpFd_, &one, sizeof one);
  errno = callersErrno;
}

void EventLoop::handleWakeUp() {
  std::uint64_t wakeUps = 0;
  [[maybe_unused]] const ssize_t got = read(wakeUpFd_, &wakeUps, sizeof wakeUps);
  if (wakeUpCallback_) {
    wakeUpCallback_();
  }
}

void EventLoop::fdIs(int fd, Callback callback, short events) {
  watches_[fd] = Watch{std::make_shared<const Callback>(std::move(callback)), events, nextNumber_++};
  watchesChanged_ = true;
}

void EventLoop::fdDel(int fd) {
  watches_.erase(fd);
  watchesChanged_ = true;
}

void EventLoop::waitForDescriptors() {
  if (std::exchange(watchesChanged_, false)) {
    polled_.clear();
    polledNumbers_.clear();
    for (const auto& [fd, watch] : watches_) {
      polled_.push_back(pollfd{fd, watch.events, 0});
      polledNumbers_.push_back(watch.number);
    }
  }
  std::optional<double> seconds = timeToSleep();
  const bool sleeps = newsSource_ != nullptr && seconds.value_or(1) > 0 && newsSource_->mayFallAsleep();
  if (newsSource_ != nullptr && !sleeps) {
    seconds = 0;
  }
  const timespec time = sleepTime(seconds.value_or(0));
  if (ppoll(polled_.data(), polled_.size(), seconds ? &time : nullptr, nullptr) < 0) {
    ZOL_ASSERT(errno == EINTR || errno == ENOMEM);
    std::for_each(polled_.begin(), polled_.end(), [](pollfd& each) { each.revents = 0; });
  }
  if (sleeps) {
    newsSource_->awake();
  }
}

// Until something is due; nothing: as long as nothing happens.
std::optional<double> EventLoop::timeToSleep() const {
  const std::optional<double> deadline = scheduler_->nextDeadline();
  return deadline ? std::optional(*deadline - scheduler_->now()) : std::nullopt;
}

void EventLoop::callBack() {
  for (std::size_t i = 0; i < polled_.size(); ++i) {
    if (polled_[i].revents == 0) {
      continue;
    }
    const auto watch = watches_.find(polled_[i].fd);
    if (watch == watches_.end() || watch->second.number != polledNumbers_[i]) {
      continue;  // removed by a callback before it
    }
    ZOL_ASSERT((polled_[i].revents & POLLNVAL) == 0);  // closed before fdDel()
    const std::shared_ptr<const Callback> callback = watch->second.callback;
    (*callback)();
  }
}

}  // namespace Quor
