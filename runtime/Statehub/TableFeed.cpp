#include "runtime/Statehub/TableFeed.h"

#include <utility>

#include "runtime/Statehub/Attempts.h"

namespace Statehub {
namespace {

constexpr unsigned feedPriority = 3;    // behind the backlogs, which are 2
constexpr std::size_t keysAtOnce = 64;  // a table: less than a millisecond with the reviews that come of it

}  // namespace

TableFeed::FeedTask::FeedTask(const Zol::Ptr<Quor::TaskScheduler>& scheduler, TableFeed& feed)
    : TimerTask(scheduler, feedPriority, "TableFeed"), feed_(feed) {}

void TableFeed::FeedTask::run() {
  if (!feed_.isSound()) {  // nobody can wake us: look by ourselves until that is mended
    feed_.rescan();
    if (!feed_.isSound()) {
      scheduleTaskLowestDelay(Memtab::DoorbellListener::secondsUnsound);
    }
  }
  if (feed_.entityManager_->poll(keysAtOnce)) {
    scheduleTask();
  }
  if (feed_.entityManager_->takeTroubleEnded() && feed_.rescanned_) {
    feed_.rescanned_();
  }
}

TableFeed::TableFeed(Zol::Ptr<EntityManager> entityManager, const Zol::Ptr<Quor::TaskScheduler>& scheduler,
                     Quor::EventLoop& loop, const std::vector<std::string>& paths)
    : entityManager_(std::move(entityManager)),
      loop_(loop),
      directoryWatch_(entityManager_->stateDirectory(), paths),
      bell_(entityManager_->stateDirectory()),
      task_(scheduler, *this) {
  loop_.fdIs(directoryWatch_.fd(), [this] { rescan(); });
  loop_.fdIs(bell_.fd(), [] {});  // that it ended the sleep is all
  task_.scheduleTask();
  rescan();
}

TableFeed::~TableFeed() {
  loop_.fdDel(bell_.fd());
  loop_.fdDel(directoryWatch_.fd());
}

void TableFeed::look() {
  // A task that waits for its delay is made ready; one that is ready keeps its turn.
  if (entityManager_->hasNews()) {
    task_.scheduleTask();
  }
}

// Who publishes after the bell has been told rings it; who published before is seen here.
bool TableFeed::mayFallAsleep() {
  bell_.aboutToSleep();
  if (!entityManager_->hasNews()) {
    return true;
  }
  bell_.awake();
  return false;
}

void TableFeed::rescan() {
  trouble_.clear();
  Attempts all;
  all.attempt([this] { directoryWatch_.answer(); });
  all.attempt([this] { entityManager_->rescan(); });
  if (!bell_.mend()) {
    trouble_ = bell_.trouble();
  }
  try {
    all.raise();
  } catch (const Zol::Exception& refused) {
    trouble_ = refused.what();
  }
  if (!isSound()) {
    // An attempt that failed has made events itself. Answering these would try again at once, and so for ever.
    directoryWatch_.forget();
    task_.scheduleTaskLowestDelay(Memtab::DoorbellListener::secondsUnsound);
  }
  if (rescanned_) {
    rescanned_();
  }
}

}  // namespace Statehub
