#include "tools/PublishCommand.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <utility>

#include "agent/InputError.h"
#include "tools/Commands.h"
#include "tools/PublishRehearsal.h"

namespace Tools {

using Agent::TableId;

namespace {

// What is no file is opened only once, when its turn comes.
bool canBeReadTwice(const std::string& path) {
  std::error_code unknown;
  const auto status = std::filesystem::status(path, unknown);
  return path != "-" && (!exists(status) || is_regular_file(status));
}

}  // namespace

void PublishCommand::run() {
  std::error_code unknown;
  const bool isNewDirectory = !std::filesystem::exists(options_.stateDirectory, unknown) && !unknown;
  publish();
  if (isNewDirectory && !published_.empty()) {
    tellNote(Agent::printable(options_.stateDirectory, 200) + ": made, there was no such directory", options_.isJson);
  }
  tellWhatIsPublished();
  if (options_.holds) {
    hold();
  }
}

void PublishCommand::tellWhatIsPublished() const {
  if (published_.empty()) {
    tellNote("no line is about a table: nothing is published", options_.isJson);
  }
  Agent::OrderedJson tables = Agent::OrderedJson::array();
  for (const auto& [id, publishing] : published_) {
    const std::size_t entries = publishing.table->size();
    if (options_.isJson) {
      tables.push_back({{"table", Zol::stringOf(id)}, {"entries", entries}});
    } else {
      std::cout << Zol::stringOf(id) << ": " << Agent::counted(entries, "entry", "entries") << '\n';
    }
  }
  if (options_.isJson) {
    std::cout << Agent::textOf({{"tables", tables}}) << '\n';
  }
  std::cout << std::flush;
}

void PublishCommand::publish() {
  for (const TableId id : tablesNamed()) {
    published(id);
  }
  if (options_.table) {
    published(*options_.table).begin();
  }
  for (const std::string& path : options_.scenarios) {
    play(path);
  }
  complete();
}

// Without what is read once only, of which nothing is known yet: then deletes may be of what that has put.
std::set<TableId> PublishCommand::tablesNamed() const {
  PublishRehearsal rehearsal(options_.stateDirectory);
  if (options_.table) {
    rehearsal.begin(*options_.table);
  }
  const bool isWhole = canPlayAgain();
  const auto apply = [&](TableId id, const Agent::ScenarioLine& line) {
    if (isWhole || !std::holds_alternative<Agent::DeleteLine>(line)) {
      rehearsal.apply(id, line);
    } else {
      rehearsal.begin(id);
    }
  };
  for (const std::string& path : options_.scenarios) {
    if (canBeReadTwice(path)) {
      std::ifstream in = Agent::openedFile(path);
      read(in, path, apply, [&](const std::string&) { rehearsal.settle(); });
    }
  }
  return rehearsal.named();
}

void PublishCommand::play(const std::string& path) {
  const auto applyOne = [this](TableId id, const Agent::ScenarioLine& line) {
    withSpace(id, [&] { apply(id, line); });
  };
  const auto settle = [this](const std::string& place) { handleSettle(place); };
  if (path == "-") {
    read(std::cin, "<stdin>", applyOne, settle);
  } else {
    std::ifstream in = Agent::openedFile(path);
    read(in, path, applyOne, settle);
  }
}

// apply(table, line) for what is to be published, settle(place) at each settle and checkpoint.
template <class Apply, class Settle>
void PublishCommand::read(std::istream& in, const std::string& name, Apply&& apply, Settle&& settle) const {
  Agent::ScenarioReader reader(in, name);
  while (const std::optional<Agent::ScenarioLine> line = reader.next()) {
    if (const std::optional<TableId> id = wantedTable(*line)) {
      reader.naming([&] { apply(*id, *line); });
    } else if (std::holds_alternative<Agent::SettleLine>(*line) ||
               std::holds_alternative<Agent::CheckpointLine>(*line)) {
      settle(name + ":" + std::to_string(reader.lineNumber()));
    }
  }
}

// The table that the line writes; nothing when it writes none, or none that is to be published.
std::optional<TableId> PublishCommand::wantedTable(const Agent::ScenarioLine& line) const {
  std::optional<TableId> id;
  if (const auto* const put = std::get_if<Agent::PutLine>(&line)) {
    id = put->table;
  } else if (const auto* const del = std::get_if<Agent::DeleteLine>(&line)) {
    id = del->table;
  } else if (std::holds_alternative<Agent::ConvergedLine>(line)) {
    id = TableId::bgpLu;
  }
  const bool isOther = options_.table && id != options_.table;
  return isOther ? std::nullopt : id;
}

PublishedTable& PublishCommand::published(TableId id) {
  std::unique_ptr<PublishedTable>& table = published_[id].table;
  if (table == nullptr) {
    table = std::make_unique<PublishedTable>(options_.stateDirectory, id);
  }
  return *table;
}

void PublishCommand::apply(TableId id, const Agent::ScenarioLine& line) {
  PublishedTable& table = published(id);
  if (const auto* const put = std::get_if<Agent::PutLine>(&line)) {
    table.put(put->entry);
  } else if (const auto* const del = std::get_if<Agent::DeleteLine>(&line)) {
    table.del(del->index);
  } else {
    table.declare(std::get<Agent::ConvergedLine>(line));
  }
}

void PublishCommand::complete() {
  for (auto& [id, publishing] : published_) {
    withSpace(id, [&table = *publishing.table] { table.complete(); });
  }
}

void PublishCommand::handleSettle(const std::string& place) {
  complete();
  if (options_.steps) {
    std::cout << place << ": settle" << std::endl;
    std::string line;
    std::getline(std::cin, line);
  }
}

// A holder outwaits a full file system: what found no space has changed nothing.
template <class F>
void PublishCommand::withSpace(TableId id, F&& f) {
  for (;;) {
    try {
      f();
      report(id, "");
      return;
    } catch (const Memtab::NoSpace& full) {
      if (!options_.holds) {
        throw;
      }
      report(id, full.what());
      sleep(1);
    }
  }
}

// Until a signal ends the process: the tables then have no publisher, and stay in force. Files that somebody removes,
// replaces or spoils meanwhile are made again, as soon as that can be done.
void PublishCommand::hold() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  constexpr timespec second{.tv_sec = 1, .tv_nsec = 0};
  while (sigtimedwait(&ending, nullptr, &second) < 0) {
    for (auto& [id, publishing] : published_) {
      mend(id, publishing);
    }
  }
}

void PublishCommand::mend(TableId id, Publishing& publishing) {
  try {
    if (publishing.table == nullptr) {
      makeAnew(id, publishing);
    }
    publishing.table->rescan();
    report(id, "");
  } catch (const Memtab::CorruptionException& lost) {
    report(id, std::string(lost.what()) + (canPlayAgain() ? "" : ", and its lines cannot be read again"));
    if (canPlayAgain()) {
      publishing.table.reset();
    }
  } catch (const Memtab::TableBusy&) {  // its text changes all the time
    report(id, "another process has put a table in its place");
  } catch (const std::exception& trouble) {
    report(id, trouble.what());
  }
}

// Bytes are lost that only the scenarios still tell.
void PublishCommand::makeAnew(TableId id, Publishing& publishing) {
  PublishCommand again({.stateDirectory = options_.stateDirectory, .scenarios = options_.scenarios, .table = id});
  again.publish();
  publishing.table = std::move(again.published_.at(id).table);
}

bool PublishCommand::canPlayAgain() const {
  return std::all_of(options_.scenarios.begin(), options_.scenarios.end(), canBeReadTwice);
}

void PublishCommand::report(TableId id, const std::string& trouble) {
  std::string& reported = published_[id].trouble;
  if (trouble != reported) {
    reported = trouble;
    std::cerr << "tunnelctl: table " << Zol::stringOf(id) << ": "
              << (trouble.empty() ? "all is well again" : trouble + "; trying again every second") << std::endl;
  }
}

}  // namespace Tools
