// "top": what happened between two samples, again and again.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <limits>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "agent/Columns.h"
#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "tools/AgentSample.h"

namespace Tools {
namespace {

using Agent::OrderedJson;

template <class... Args>
std::string formatted(const char* format, Args... args) {
  std::array<char, 100> text{};
  std::snprintf(text.data(), text.size(), format, args...);
  return text.data();
}

// "2 d 3 h", "4 min 5 s", "1.2 ms", "30 us".
std::string timeText(double seconds) {
  if (seconds < 1) {
    return seconds < 1e-3 ? formatted("%.0f us", seconds * 1e6) : formatted("%.3g ms", seconds * 1e3);
  }
  const auto whole = static_cast<unsigned long>(seconds);
  if (whole < 60) {
    return formatted("%.3g s", seconds);
  }
  if (whole < 3600) {
    return formatted("%lu min %lu s", whole / 60, whole % 60);
  }
  return whole < 86400 ? formatted("%lu h %lu min", whole / 3600, whole / 60 % 60)
                       : formatted("%lu d %lu h", whole / 86400, whole / 3600 % 24);
}

// A histogram of what came between two samples of it. An agent that was started in between counts from zero.
class Interval {
 public:
  Interval(const OrderedJson* before, const OrderedJson& now, double seconds)
      : now_(now), before_(before), seconds_(seconds) {}

  std::uint64_t count() const {
    return since([](const OrderedJson& histogram) { return histogram["count"]; });
  }
  double rate() const { return static_cast<double>(count()) / seconds_; }
  // At most so many seconds took that share of them; nothing when there were none, or it is beyond all bounds.
  std::optional<double> quantile(double share) const {
    const double wanted = share * static_cast<double>(count());
    const std::size_t known = before_ == nullptr ? now_["buckets"].size() : (*before_)["buckets"].size();
    const std::size_t buckets = count() == 0 ? 0 : std::min(known, now_["buckets"].size());
    for (std::size_t i = 0; i < buckets; ++i) {
      const std::uint64_t upTo = since([i](const OrderedJson& each) { return each["buckets"][i]["count"]; });
      if (static_cast<double>(upTo) >= wanted) {
        return now_["buckets"][i]["seconds"].get<double>();
      }
    }
    return std::nullopt;
  }

  OrderedJson json() const {
    const auto orNull = [](const std::optional<double>& value) { return value ? OrderedJson(*value) : OrderedJson(); };
    return {{"perSecond", rate()},
            {"median", orNull(quantile(0.5))},
            {"p99", orNull(quantile(0.99))},
            {"longestSinceStart", now_["longest"]}};
  }
  std::vector<std::string> cells(const char* name) const {
    const auto text = [](const std::optional<double>& value) { return value ? "<= " + timeText(*value) : "-"; };
    return {name, formatted("%.1f", rate()), text(quantile(0.5)), text(quantile(0.99)),
            timeText(now_["longest"].get<double>())};
  }

 private:
  template <class F>
  std::uint64_t since(F&& f) const {
    const std::uint64_t now = f(now_);
    const std::uint64_t before = before_ == nullptr ? 0 : f(*before_).template get<std::uint64_t>();
    return now - std::min(now, before);
  }

  const OrderedJson& now_;
  const OrderedJson* const before_;
  const double seconds_;
};

class Frame {
 public:
  Frame(const AgentSample& before, const AgentSample& now)
      : before_(before), now_(now), seconds_(std::chrono::duration<double>(now.time - before.time).count()) {}

  OrderedJson json() const {
    OrderedJson tables = OrderedJson::array();
    forEachTable([&](const TableSample& table, double rate) {
      tables.push_back({{"table", table.name},
                        {"entries", table.entries},
                        {"changesPerSecond", rate},
                        {"state", table.standing},
                        {"isWriterAlive", table.isWriterAlive}});
    });
    OrderedJson frame = {{"seconds", seconds_}, {"up", now_.isUp()}};
    if (now_.isUp()) {
      frame["agent"] = {{"pid", now_.stats["pid"]},
                        {"state", now_.stats["state"]},
                        {"uptime", now_.stats["uptime"]},
                        {"residentBytes", now_.stats["residentBytes"]},
                        {"backlog", now_.stats["backlog"]},
                        {"reviewsPerSecond", reviewRate()},
                        {"slices", interval("slices").json()},
                        {"publishToFib", interval("publishToFib").json()}};
    } else {
      frame["note"] = now_.trouble;
    }
    frame["tables"] = std::move(tables);
    return frame;
  }

  // The lines that fit: the agent first, then tables, the busiest first.
  std::string text(const Agent::OutputSize& size) const {
    std::vector<std::string> lines;
    now_.isUp() ? writeAgent(lines, size.columns) : writeTrouble(lines, size.columns);
    std::vector<std::pair<double, std::vector<std::string>>> tables;
    forEachTable([&](const TableSample& table, double rate) {
      tables.push_back({rate,
                        {Agent::printable(table.name, 40), std::to_string(table.entries), formatted("%.1f", rate),
                         Agent::printable(table.standing, 40), table.isWriterAlive ? "alive" : "gone"}});
    });
    std::stable_sort(tables.begin(), tables.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    Agent::Columns columns;
    columns.row({"table", "entries", "changes/s", "state", "writer"});
    for (auto& [rate, cells] : tables) {
      columns.row(std::move(cells));
    }
    addColumns(lines, columns, size.columns);
    if (lines.size() > size.lines) {
      const std::size_t shown = size.lines - 1;
      const std::size_t left = lines.size() - shown;
      lines.resize(shown);
      lines.push_back("and " + std::to_string(left) + " more lines");
    }
    std::string text;
    for (const std::string& line : lines) {
      text += line + '\n';
    }
    return text;
  }

 private:
  const OrderedJson* statsBefore() const {
    return before_.isUp() && before_.stats["pid"] == now_.stats["pid"] ? &before_.stats : nullptr;
  }
  Interval interval(const char* name) const {
    const OrderedJson* const before = statsBefore();
    return {before == nullptr ? nullptr : &(*before)[name], now_.stats[name], seconds_};
  }
  double reviewRate() const {
    const OrderedJson* const before = statsBefore();
    const std::uint64_t reviews = now_.stats["reviews"];
    return static_cast<double>(reviews - (before == nullptr ? 0 : (*before)["reviews"].get<std::uint64_t>())) /
           seconds_;
  }

  // Those that are there.
  template <class F>
  void forEachTable(F&& f) const {
    for (const TableSample& table : now_.tables) {
      if (table.standing == "absent") {
        continue;
      }
      const auto earlier = std::find_if(before_.tables.begin(), before_.tables.end(),
                                        [&](const TableSample& each) { return each.name == table.name; });
      const std::uint64_t from = earlier == before_.tables.end() ? table.sequence : earlier->sequence;
      f(table, static_cast<double>(table.sequence - std::min(from, table.sequence)) / seconds_);
    }
  }

  using Lines = std::vector<std::string>;
  static void addText(Lines& lines, const std::string& text, std::size_t width) {
    const Lines parts = Agent::folded(text, width);
    lines.insert(lines.end(), parts.begin(), parts.end());
  }
  static void addColumns(Lines& lines, const Agent::Columns& columns, std::size_t width) {
    std::stringstream text;
    columns.write(text, "", width);
    for (std::string line; std::getline(text, line);) {
      while (Agent::widthOf(line) > width) {
        line.pop_back();
      }
      line.erase(line.find_last_not_of(' ') + 1);
      lines.push_back(line);
    }
  }

  void writeTrouble(Lines& lines, std::size_t width) const {
    addText(lines, "agent: " + Agent::printable(now_.trouble, 300) + "; what follows is read from the tables", width);
    lines.emplace_back();
  }
  void writeAgent(Lines& lines, std::size_t width) const {
    const OrderedJson& stats = now_.stats;
    const OrderedJson& backlog = stats["backlog"];
    const auto number = [](const OrderedJson& value) { return value.dump(); };
    addText(lines,
            "agent " + number(stats["pid"]) + " " + Agent::printable(stats["state"].get<std::string>()) + ", up " +
                timeText(stats["uptime"].get<double>()) + ", " +
                formatted("%.1f", stats["residentBytes"].get<double>() / (1 << 20)) + " MiB resident",
            width);
    for (const OrderedJson& each : stats["waitingFor"]) {
      addText(lines, "waiting: " + Agent::printable(each.get<std::string>(), 200), width);
    }
    for (const OrderedJson& each : stats["degraded"]) {
      addText(lines, "degraded: " + Agent::printable(each.get<std::string>(), 200), width);
    }
    std::string waiting = "waiting for their turn: " + number(backlog["unreadChanges"]) + " changes unread, FIB " +
                          number(backlog["fib"]) + " tunnels (and " + number(backlog["fibDeferred"]) + " deferred)";
    for (const auto& [rib, count] : backlog["ribs"].items()) {
      waiting += ", RIB " + Agent::printable(rib, 30) + " " + number(count);
    }
    addText(lines, waiting, width);
    Agent::Columns columns;
    columns.row({"", "per second", "median", "99 of 100", "longest"});
    columns.row({"reviews", formatted("%.1f", reviewRate())});
    columns.row(interval("slices").cells("slices"));
    columns.row(interval("publishToFib").cells("publish to FIB"));
    lines.emplace_back();
    addColumns(lines, columns, width);
    lines.emplace_back();
  }

  const AgentSample& before_;
  const AgentSample& now_;
  const double seconds_;
};

struct TopOptions {
  std::shared_ptr<ControlOptions> control;
  double interval = 1;
  std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
};

// In place a frame has to fit, with a line to spare for the cursor behind it.
Agent::OutputSize sizeOfFrame(bool isInPlace) {
  constexpr std::size_t linesMin = 2;
  Agent::OutputSize size = Agent::outputSize();
  if (!isInPlace) {
    size.lines = std::numeric_limits<std::size_t>::max();
  } else {
    size.lines = std::max(size.lines, linesMin) - 1;
  }
  return size;
}

int runTop(const TopOptions& options) {
  const bool isInPlace = !options.control->isJson && isatty(STDOUT_FILENO) == 1;
  AgentSample before(*options.control);
  for (std::uint64_t i = 0; i < options.count && std::cout; ++i) {
    std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
    AgentSample now(*options.control);
    const Frame frame(before, now);
    if (options.control->isJson) {
      std::cout << Agent::textOf(frame.json()) << '\n';
    } else {
      std::cout << (isInPlace ? "\x1b[H\x1b[J" : i == 0 ? "" : "\n") << frame.text(sizeOfFrame(isInPlace));
    }
    std::cout.flush();
    before = std::move(now);
  }
  return exitDone;
}

}  // namespace

void addTop(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("top", "Rates, backlogs, slices and latency, again and again");
  const auto options = std::make_shared<TopOptions>();
  options->control = addControlOptions(command);
  command.option("--interval", options->interval, "Between two looks")
      .word("SECONDS")
      .between(0.05, 86400.0)
      .defaultValue(options->interval);
  command.option("--count", options->count, "End after N looks").word("N").check(isCount());
  command.onChosen([=, &action] { action = [=] { return runTop(*options); }; });
}

}  // namespace Tools
