// TableFeed: brings what other processes write into the tables of a state directory to the watchers in this one.
//
//     publisher ── stores ──▶ table file ◀── looked at once a turn of the loop ── TableFeed ── task ──▶ watchers
//         └── rings, if somebody sleeps ──▶ doorbell ──▶ loop wakes up
//     file made, removed, replaced ──▶ directory watch ──▶ loop wakes up, paths are looked at again
//
// A task tells the watchers a few keys at a time and lets the backlogs that they fill go first: what has been told is
// reviewed before more is told. So backlogs stay short, and what was published last, which followers tell first, does
// not wait for the bulk before it. While nothing changes no processor time is used.
#pragma once

#include <string>

#include "runtime/Memtab/Doorbell.h"
#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/TimerTask.h"
#include "runtime/Statehub/DirectoryWatch.h"
#include "runtime/Statehub/EntityManager.h"

namespace Statehub {

class TableFeed final : public Quor::NewsSource {
 public:
  // entityManager has a state directory, whose subdirectories at paths are watched for files. The loop, which outlives
  // the feed, is given it as its news source by whoever makes it. Raises what the doorbell and the watch raise. Out of
  // the loop comes CorruptionException when bytes of a table that is written here are lost.
  TableFeed(Zol::Ptr<EntityManager> entityManager, const Zol::Ptr<Quor::TaskScheduler>& scheduler,
            Quor::EventLoop& loop, const std::vector<std::string>& paths);
  TableFeed(const TableFeed&) = delete;
  TableFeed& operator=(const TableFeed&) = delete;
  ~TableFeed();

  void look() override;
  bool mayFallAsleep() override;
  void awake() override { bell_.awake(); }

  // Looks at the paths again, and makes anew what is written here and gone.
  void rescan();
  // Why the directory, or some of it, cannot be watched or written; it is tried again every second. Empty: it can be.
  const std::string& trouble() const { return trouble_; }

  // Called after the paths have been looked at again, on the loop's thread.
  void rescannedCallbackIs(Quor::EventLoop::Callback callback) { rescanned_ = std::move(callback); }

 private:
  class FeedTask final : public Quor::TimerTask {
   public:
    FeedTask(const Zol::Ptr<Quor::TaskScheduler>& scheduler, TableFeed& feed);

   private:
    void run() override;
    TableFeed& feed_;
  };

  bool isSound() const { return trouble_.empty() && bell_.isSound(); }

  const Zol::Ptr<EntityManager> entityManager_;
  Quor::EventLoop& loop_;
  DirectoryWatch directoryWatch_;
  Memtab::DoorbellListener bell_;
  FeedTask task_;
  std::string trouble_;
  Quor::EventLoop::Callback rescanned_;
};

}  // namespace Statehub
