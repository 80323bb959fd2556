#include <gtest/gtest.h>

#include "agent/ServiceManager.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/SimulatedTimeSource.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/Process.h"

namespace Agent {
namespace {

// A task that is never done.
class Busy final : public Quor::TimerTask {
 public:
  Busy(const Zol::Ptr<Quor::TaskScheduler>& scheduler, unsigned priority) : TimerTask(scheduler, priority, "Busy") {
    scheduleTask();
  }

 private:
  void run() override { scheduleTask(); }
};

class ServiceManagerTest : public testing::Test {
 protected:
  ~ServiceManagerTest() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
      unsetenv(name);
    }
  }
  // Signs of life in so many seconds, a turn of the scheduler each tenth.
  int signsOfLife(double seconds, std::optional<unsigned> busyPriority = std::nullopt) {
    const ServiceManager manager(scheduler_, [] { return "well"; });
    std::optional<Busy> busy;
    if (busyPriority) {
      busy.emplace(scheduler_, *busyPriority);
    }
    for (const double end = time_.now() + seconds; time_.now() < end; time_.nowIs(time_.now() + 0.1)) {
      scheduler_->runReadyTask();
    }
    int count = 0;
    while (socket_.next(0).find("WATCHDOG=1") != std::string::npos) {
      ++count;
    }
    return count;
  }

  Support::ScratchDirectory scratch_;
  Support::NotifySocket socket_{scratch_ / "notify"};
  Quor::SimulatedTimeSource time_;
  Quor::UnitSlicePolicy slicePolicy_{1};
  const Zol::Ptr<Quor::TaskScheduler> scheduler_ = Zol::make<Quor::TaskScheduler>(time_, slicePolicy_);
};

// Fails if much work is taken for a hang, or a hang for work: the supervisor would kill an agent in good health, or
// leave one alone that does nothing any more.
TEST_F(ServiceManagerTest, signsOfLifeStayAwayOnlyWhenTheSchedulerHangs) {
  setenv("NOTIFY_SOCKET", (scratch_ / "notify").c_str(), 1);
  setenv("WATCHDOG_USEC", "3000000", 1);
  EXPECT_NEAR(signsOfLife(6), 6, 2) << "idle";
  EXPECT_NEAR(signsOfLife(6, 2), 6, 2) << "beside a backlog";
  EXPECT_EQ(signsOfLife(9, 0), 0) << "behind a task that lets nobody else have a turn";
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  EXPECT_GT(signsOfLife(9), 0);
  setenv("WATCHDOG_PID", "1", 1);
  EXPECT_EQ(signsOfLife(9), 0) << "the variables are another process's";
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_PID");
  EXPECT_EQ(signsOfLife(9), 0);
  EXPECT_FALSE(scheduler_->hasTasks());
}

TEST_F(ServiceManagerTest, anAddressThatIsNoneAndANobodyAreLoggedOnce) {
  for (const std::string& address : {std::string("relative"), std::string("/"), "/" + std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", address.c_str(), 1);
    testing::internal::CaptureStderr();
    ServiceManager(scheduler_, [] { return "well"; }).ready();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("NOTIFY_SOCKET: no address of a socket: " + address + "; "),
              std::string::npos);
  }
  setenv("NOTIFY_SOCKET", (scratch_ / "nobody").c_str(), 1);
  testing::internal::CaptureStderr();
  ServiceManager manager(scheduler_, [] { return "well"; });
  manager.ready();
  manager.stopping();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("NOTIFY_SOCKET: cannot be written: " + (scratch_ / "nobody") + ": No such file or directory; "),
            std::string::npos)
      << said;
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

}  // namespace
}  // namespace Agent
