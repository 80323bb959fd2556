// The command "tunnelctl watch": tells changes of tables, RIBs and FIB as their writers make them, until a signal.
//
//     each table ── Ear: what stands under the key now ──▶ a line
//     status/ribs ──▶ RIBs that come are followed too, with all that they hold; those that go are let go
//     directories ──▶ another feed, when one comes in which tables may lie; an error, when the state directory goes

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <set>

#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "runtime/Statehub/TableFeed.h"
#include "tools/Commands.h"
#include "tools/EntryFilter.h"
#include "tools/EntryJson.h"
#include "tools/StateReading.h"
#include "tools/TableWalk.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tools {
namespace {

struct WatchOptions {
  std::string stateDirectory;
  std::vector<std::string> tables;
  std::vector<std::string> ribs;
  bool hasFib = false;
  bool isJson = false;
  std::optional<std::uint64_t> limit;
  EntryFilter filter;

  bool isAll() const { return tables.empty() && ribs.empty() && !hasFib; }
};

// "2026-11-21T18:02:53.123456Z"
std::string timeNow() {
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  const auto seconds = static_cast<std::time_t>(now / 1000000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[48];
  const std::size_t size = std::strftime(text, sizeof text, "%FT%T", &parts);
  std::snprintf(text + size, sizeof text - size, ".%06dZ", static_cast<int>(now % 1000000));
  return text;
}

// What stands under a key now; nothing: it is gone.
struct Standing {
  std::string words;
  OrderedJson json;
};

class Watch final : private Quor::NewsSource {
 public:
  explicit Watch(WatchOptions options)
      : options_(std::move(options)),
        signals_(signalDescriptor()),
        reading_(options_.stateDirectory),
        scheduler_(Zol::make<Quor::TaskScheduler>(time_, slicePolicy_)),
        loop_(scheduler_),
        held_(open(options_.stateDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        directory_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    constexpr std::uint32_t changes = IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    inotify_add_watch(directory_.get(), options_.stateDirectory.c_str(), changes);
    reading_.status();
    addTables();
    addRibs();
    if (options_.isAll() || options_.hasFib) {
      addFib();
    }
    if (options_.isAll()) {
      addStatus();
    }
    makeFeed();
    loop_.newsSourceIs(this);
    loop_.fdIs(signals_.get(), [this] { loop_.stop(); });
    loop_.fdIs(directory_.get(), [this] { handleDirectory(); });
  }
  ~Watch() { loop_.newsSourceIs(nullptr); }

  void run() {
    tellNote("watching " + Agent::printable(options_.stateDirectory, 200), options_.isJson);
    loop_.run();
    if (!failure_.empty()) {
      throw std::runtime_error(failure_);
    }
  }

 private:
  struct Ear {
    virtual ~Ear() = default;
    // Tells all that stands.
    virtual void tellAll() = 0;
  };
  template <class Map>
  struct MapEar final : Ear, Zol::Listener<typename Map::Key> {
    using Key = typename Map::Key;
    using Record = typename Map::Record;
    using Words = std::function<Standing(const Record&)>;
    using Fits = std::function<bool(const Record&)>;
    MapEar(Watch& owner, Map& followed, std::string tableName, const std::string& path, Words words, Fits isFitting)
        : watch(owner),
          map(followed),
          table(std::move(tableName)),
          mirror(owner.reading_.state().entityManager()->mirror(path)),
          standingOf(std::move(words)),
          fits(std::move(isFitting)) {
      map.follow();
      this->channelIs(&map.entryChannel());
      if (!watch.options_.filter.isEmpty()) {
        forEachKey([this](const Key& key) { note(key, read(key)); });
      }
    }
    void tellAll() override {
      forEachKey([this](const Key& key) { onKey(key); });
    }
    void onKey(const Key& key) override {
      const std::optional<Record> record = read(key);
      if (note(key, record)) {
        watch.tell(table, Zol::stringOf(key), mirror->reader().sequence(),
                   record ? std::optional(standingOf(*record)) : std::nullopt);
      }
    }

   private:
    template <class F>
    void forEachKey(F&& f) {
      Model::walkSafely(map, [&](const auto& hint) { f(hint.key()); });
    }
    std::optional<Record> read(const Key& key) const {
      Record record;
      return Model::readSafely(&map, key, record) ? std::optional(std::move(record)) : std::nullopt;
    }
    // Whether the filter lets the key through, for what it was or what it is.
    bool note(const Key& key, const std::optional<Record>& record) {
      if (watch.options_.filter.isEmpty()) {
        return true;
      }
      const bool wasFitting = fitting.erase(key) > 0;
      const bool isFitting = record && fits(*record);
      if (isFitting) {
        fitting.insert(key);
      }
      return wasFitting || isFitting;
    }

    Watch& watch;
    Map& map;
    const std::string table;
    const Memtab::MirrorStore* const mirror;
    const Words standingOf;
    const Fits fits;
    std::set<Key> fitting;
  };

  static Memtab::Descriptor signalDescriptor() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    return Memtab::Descriptor(signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC));
  }

  template <class Map>
  Ear& add(Map& map, const std::string& table, const std::string& path, typename MapEar<Map>::Words words,
           typename MapEar<Map>::Fits fits) {
    return *(ears_[table] = std::make_unique<MapEar<Map>>(*this, map, table, path, std::move(words), std::move(fits)));
  }

  void addTables() {
    std::vector<Agent::TableId> tables;
    for (const std::string& name : options_.tables) {
      tables.push_back(tableNamed(name));
    }
    for (const Agent::TableId table : options_.isAll() ? Agent::allTables() : tables) {
      reading_.state().tables().withTable(table, [&]<class Table>(Table& each) {
        using Entry = typename Table::Record;
        add(
            each, Zol::stringOf(table), Model::tunnelTableInfo(table).path,
            [](const Entry& entry) {
              return Standing{entryWords(entry), entryJson(entry)};
            },
            [filter = options_.filter.amongEntries(each)](const Entry& entry) { return filter.doesFitEntry(entry); });
      });
    }
  }

  void addRibs() {
    for (const std::string& name : options_.ribs) {
      addRib(name, reading_.rib(name));
    }
    if (options_.isAll()) {
      addRib(Model::TunnelRibNameIdMap::systemTunnelRibName, reading_.state().rib(0));
      followCustomRibs();
    }
  }
  Ear& addRib(const std::string& name, const Zol::Ptr<Model::TunnelRib>& rib) {
    ribs_[name] = rib;
    const bool hasChoice = !reading_.isProtocolRib(name);
    return add(
        *rib, "rib " + name, reading_.pathOfRib(name),
        [hasChoice](const Model::TunnelRibEntry& entry) {
          return Standing{ribEntryWords(entry, hasChoice), ribEntryJson(entry, hasChoice)};
        },
        [this, filter = options_.filter.among({rib})](const Model::TunnelRibEntry& entry) {
          return filter.doesFitRibEntry(*reading_.state().fib(), entry);
        });
  }
  // The RIBs that are configured now; those that are new.
  std::vector<Ear*> followCustomRibs() {
    const auto& names = reading_.state().ribIds()->tunnelRibNames();
    for (auto at = ribs_.begin(); at != ribs_.end();) {
      const auto& [name, rib] = *at;
      const auto id = names.find(name);
      const bool isThere = name == Model::TunnelRibNameIdMap::systemTunnelRibName ||
                           (id != names.end() && reading_.state().rib(id->second) == rib);
      if (!isThere) {
        ears_.erase("rib " + name);
      }
      at = isThere ? std::next(at) : ribs_.erase(at);
    }
    std::vector<Ear*> fresh;
    for (const auto& [name, id] : names) {
      const auto rib = reading_.state().rib(id);
      if (rib && !ribs_.contains(name)) {
        fresh.push_back(&addRib(name, rib));
      }
    }
    return fresh;
  }

  void addFib() {
    const Agent::AgentState& state = reading_.state();
    std::vector<Zol::Ptr<Model::TunnelRib>> ribs;
    for (const std::string& name : options_.ribs) {
      ribs.push_back(reading_.rib(name));
    }
    add(
        state.fib()->entry(), "fib", Agent::fibPath,
        [&state](const Fib::TunnelFibEntry& entry) {
          return Standing{Agent::summaryOf(*state.fib(), entry), Agent::fibEntryJson(*state.fib(), entry)};
        },
        [&state,
         filter = options_.filter.among(ribs.empty() ? reading_.ribs() : ribs)](const Fib::TunnelFibEntry& entry) {
          return filter.doesFit(entry.tunnelId()) && filter.doViasFit(*state.fib(), entry) &&
                 (!filter.tep() || tepOf(state, entry.tunnelId()) == *filter.tep());
        });
  }

  void addStatus() {
    Statehub::EntityManager& entityManager = *reading_.state().entityManager();
    unprogrammable_ = Agent::statusTable<Agent::UnprogrammableStatus>(entityManager, Agent::unprogrammablePath,
                                                                      Statehub::Access::read);
    add(
        *unprogrammable_, "unprogrammable", Agent::unprogrammablePath,
        [](const Agent::UnprogrammableStatus& status) {
          return Standing{"cannot be programmed", Zol::stringOf(status.tunnelId())};
        },
        [this,
         filter = options_.filter.amongUnprogrammable(reading_.state())](const Agent::UnprogrammableStatus& status) {
          return !filter.asksForVias() && filter.doesFit(status.tunnelId()) &&
                 (!filter.tep() || tepOf(reading_.state(), status.tunnelId()) == *filter.tep());
        });
    configured_ = Agent::statusTable<Agent::RibStatus>(entityManager, Agent::ribStatusPath, Statehub::Access::read);
    configured_->follow();
    ribListener_.channelIs(&configured_->entryChannel());
  }
  void handleRibs() {
    reading_.reread();
    for (Ear* const ear : followCustomRibs()) {
      ear->tellAll();
    }
  }

  // Those that are there: a reader makes none.
  std::vector<std::string> directories() const {
    std::vector<std::string> all;
    for (const char* const path : {"tunnel", "tunnel/table", "tunnel/tunnelRibs", "tunnel/tunnelRibs/status",
                                   "tunnel/protocolTunnelRibs", "tunnel/status"}) {
      if (std::filesystem::is_directory(options_.stateDirectory + "/" + path)) {
        all.emplace_back(path);
      }
    }
    return all;
  }
  void makeFeed() {
    while (feed_ == nullptr || directories() != fed_) {
      fed_ = directories();
      feed_ = std::make_unique<Statehub::TableFeed>(reading_.state().entityManager(), scheduler_, loop_, fed_);
      feed_->rescannedCallbackIs([this] { isFeedOld_ = true; });
    }
    isFeedOld_ = false;
  }
  void handleDirectory() {
    std::array<char, 4096> events;
    while (read(directory_.get(), events.data(), events.size()) > 0) {
    }
    isFeedOld_ = true;
    struct stat watched {};
    struct stat present {};
    if (stat(options_.stateDirectory.c_str(), &present) != 0 || fstat(held_.get(), &watched) != 0 ||
        present.st_dev != watched.st_dev || present.st_ino != watched.st_ino) {
      failure_ = Agent::printable(options_.stateDirectory, 200) + ": the state directory was removed or replaced";
      loop_.stop();
    }
  }

  void tell(const std::string& table, const std::string& key, std::uint64_t sequence,
            const std::optional<Standing>& standing) {
    if (options_.limit && told_ >= *options_.limit) {
      return;
    }
    const std::string time = timeNow();
    if (options_.isJson) {
      std::cout << Agent::textOf(OrderedJson{{"time", time},
                                             {"table", table},
                                             {"key", key},
                                             {"sequence", sequence},
                                             {"entry", standing ? standing->json : OrderedJson()}})
                << '\n';
    } else {
      std::cout << time.substr(time.find('T') + 1) << ' ' << Agent::printable(table) << " #" << sequence << ' ' << key
                << ": " << (standing ? standing->words : "gone") << '\n';
    }
    if (options_.limit == ++told_) {
      loop_.stop();
    }
  }

  void look() override {
    if (isFeedOld_) {
      makeFeed();
    }
    feed_->look();
  }
  bool mayFallAsleep() override {
    if (!std::cout.flush() || Agent::isOutputReaderGone()) {
      loop_.stop();
    }
    return !isFeedOld_ && feed_->mayFallAsleep();
  }
  void awake() override { feed_->awake(); }

  struct RibListener final : Zol::Listener<Model::TunnelRibId> {
    explicit RibListener(Watch& owner) : watch(owner) {}
    using Listener::channelIs;
    void onKey(const Model::TunnelRibId&) override { watch.handleRibs(); }
    Watch& watch;
  };

  WatchOptions options_;
  const Memtab::Descriptor signals_;
  StateReading reading_;
  Quor::RealTimeSource time_;
  Quor::TimeSlicePolicy slicePolicy_{time_};
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  Quor::EventLoop loop_;
  const Memtab::Descriptor held_;       // the state directory
  const Memtab::Descriptor directory_;  // tells when something happens to it
  std::string failure_;
  Zol::Ptr<Agent::UnprogrammableTable> unprogrammable_;
  Zol::Ptr<Agent::RibStatusTable> configured_;
  std::map<std::string, Zol::Ptr<Model::TunnelRib>> ribs_;
  std::map<std::string, std::unique_ptr<Ear>> ears_;
  RibListener ribListener_{*this};
  std::vector<std::string> fed_;
  std::unique_ptr<Statehub::TableFeed> feed_;
  bool isFeedOld_ = false;
  std::uint64_t told_ = 0;
};

}  // namespace

void addWatch(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("watch", "Tell changes as they come, until a signal");
  const auto options = std::make_shared<WatchOptions>();
  addStateDirectory(command, options->stateDirectory);
  const auto addNames = [&](const char* name, std::vector<std::string>& names, const char* help) {
    command.option(name, names, help).word("NAME").repeatable();
  };
  addNames("--table", options->tables, "Of this table; several times: these. Without table, RIB and FIB: all");
  addNames("--rib", options->ribs, "Of this RIB; several times: these");
  command.flag("--fib", options->hasFib, "Of the FIB");
  options->filter.addOptions(command);
  command.flag("--json", options->isJson, "A JSON object a line");
  addLimit(command, options->limit, "Stop after N changes");
  command.onChosen([=, &action] {
    action = [options] {
      options->filter.read();
      Watch(*options).run();
      return exitDone;
    };
  });
}

}  // namespace Tools
