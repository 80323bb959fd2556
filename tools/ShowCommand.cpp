#include "tools/ShowCommand.h"

#include <memory>
#include <utility>

#include "tools/Commands.h"

namespace Tools {
namespace {

using Show = std::function<int(const ListOptions&)>;

enum class Narrowing { none, filter };

// One command below "show". show is called with the options read.
Agent::Command addList(const Agent::Command& parent, Action& action, const char* name, const char* help,
                       Narrowing narrowing, Show show) {
  const Agent::Command command = parent.command(name, help);
  const auto options = std::make_shared<ListOptions>();
  addStateDirectory(command, options->stateDirectory);
  command.flag("--json", options->isJson, "Print one JSON document");
  addLimit(command, options->limit, "At most N rows");
  command.option("--after", options->after, "Start after this row").word("KEY");
  if (narrowing == Narrowing::filter) {
    options->filter.addOptions(command);
  }
  command.onChosen([=, &action] {
    action = [=] {
      options->filter.read();
      return show(*options);
    };
  });
  return command;
}

// What some lists are narrowed by besides.
struct Besides {
  std::shared_ptr<std::string> rib = std::make_shared<std::string>();
  std::shared_ptr<std::string> reason = std::make_shared<std::string>();

  Show with(Show show) const {
    return [besides = *this, show = std::move(show)](ListOptions options) {
      options.rib = *besides.rib;
      options.reason = *besides.reason;
      return show(options);
    };
  }
  void addRib(const Agent::Command& list) const { list.option("--rib", *rib, "Of tunnels in this RIB").word("NAME"); }
  void addReason(const Agent::Command& list, const char* help) const {
    list.option("--reason", *reason, help).oneOf(unprogrammableReasons());
  }
};

void addFib(const Agent::Command& show, Action& action) {
  const Besides besides;
  besides.addRib(addList(show, action, "fib", "Entries of the tunnel FIB", Narrowing::filter, besides.with(showFib)));
}

void addEncaps(const Agent::Command& show, Action& action) {
  const Besides besides;
  besides.addRib(addList(show, action, "encaps", "Encapsulations, and how many vias share each", Narrowing::filter,
                         besides.with(showEncaps)));
}

void addUnprogrammable(const Agent::Command& show, Action& action) {
  const Besides besides;
  besides.addReason(addList(show, action, "unprogrammable", "Tunnels that cannot be programmed", Narrowing::filter,
                            besides.with(showUnprogrammable)),
                    "Those with this reason, and all their reasons; any: whatever it is");
}

void addTable(const Agent::Command& show, Action& action) {
  const auto table = std::make_shared<std::string>();
  const Besides besides;
  const Agent::Command list =
      addList(show, action, "table", "Entries of a protocol's table", Narrowing::filter,
              besides.with([table](const ListOptions& options) { return showTable(options, tableNamed(*table)); }));
  list.option("NAME", *table, "The table, such as ldp").required();
  besides.addRib(list);
  besides.addReason(list, "Of tunnels that are not in the FIB, or lack a via there, for this reason; any: for some");
}

}  // namespace

void addShow(const Agent::Command& app, Action& action) {
  const Agent::Command show = app.command("show", "Show the content and the state of the tables");
  show.commandRequired();
  addList(show, action, "tables", "The tables: entries, sequence numbers, completeness, writers, files",
          Narrowing::none, showTables);
  addList(show, action, "ribs", "The RIBs and their configuration", Narrowing::none, showRibs);
  addFib(show, action);
  addEncaps(show, action);
  addUnprogrammable(show, action);
  addList(show, action, "convergence", "How far the RIBs have followed BGP", Narrowing::none, showConvergence);
  addList(show, action, "processes", "The processes that write the tables", Narrowing::none, showProcesses);

  addTable(show, action);
  const auto rib = std::make_shared<std::string>();
  addList(show, action, "rib", "Entries of a RIB", Narrowing::filter,
          [rib](const ListOptions& options) { return showRib(options, *rib); })
      .option("NAME", *rib, "A RIB, or the tunnel type of a per-protocol one")
      .required();
}

}  // namespace Tools
