#include "tools/ShowCommand.h"

#include <memory>

#include "tools/Commands.h"

namespace Tools {
namespace {

using Show = std::function<int(const ListOptions&)>;

enum class Narrowing { none, filter };

// One command below "show". show is called with the options read.
CLI::App* addList(CLI::App& parent, Action& action, const char* name, const char* help, Narrowing narrowing,
                  Show show) {
  CLI::App* const command = parent.add_subcommand(name, help);
  const auto options = std::make_shared<ListOptions>();
  addStateDirectory(*command, options->stateDirectory);
  command->add_flag("--json", options->isJson, "Print one JSON document");
  addLimit(*command, options->limit, "At most N rows");
  command->add_option("--after", options->after, "Go on behind this row")->type_name("KEY");
  if (narrowing == Narrowing::filter) {
    options->filter.addOptions(*command);
  }
  command->callback([=, &action] {
    action = [=] {
      options->filter.read();
      return show(*options);
    };
  });
  return command;
}

void addFib(CLI::App& show, Action& action) {
  const auto rib = std::make_shared<std::string>();
  addList(show, action, "fib", "Entries of the tunnel FIB", Narrowing::filter,
          [rib](ListOptions options) {
            options.rib = *rib;
            return showFib(options);
          })
      ->add_option("--rib", *rib, "Of tunnels in this RIB")
      ->type_name("NAME");
}

void addUnprogrammable(CLI::App& show, Action& action) {
  const auto reason = std::make_shared<std::string>();
  addList(show, action, "unprogrammable", "Tunnels that cannot be programmed", Narrowing::filter,
          [reason](ListOptions options) {
            options.reason = *reason;
            return showUnprogrammable(options);
          })
      ->add_option("--reason", *reason, "Those with this reason, and all their reasons; any: whatever it is")
      ->check(CLI::IsMember(unprogrammableReasons()));
}

}  // namespace

void addShow(CLI::App& app, Action& action) {
  CLI::App& show = *app.add_subcommand("show", "Show what the tables hold, and how they are");
  show.require_subcommand(1);
  addList(show, action, "tables", "The tables: entries, sequence numbers, completeness, writers, files",
          Narrowing::none, showTables);
  addList(show, action, "ribs", "The RIBs and their configuration", Narrowing::none, showRibs);
  addFib(show, action);
  addList(show, action, "encaps", "Encapsulations, and how many vias share each", Narrowing::none, showEncaps);
  addUnprogrammable(show, action);
  addList(show, action, "convergence", "How far the RIBs have followed BGP", Narrowing::none, showConvergence);
  addList(show, action, "processes", "The processes that write the tables", Narrowing::none, showProcesses);

  const auto table = std::make_shared<std::string>();
  addList(show, action, "table", "Entries of a protocol's table", Narrowing::filter,
          [table](const ListOptions& options) { return showTable(options, tableNamed(*table)); })
      ->add_option("NAME", *table, "The table, such as ldp")
      ->required();
  const auto rib = std::make_shared<std::string>();
  addList(show, action, "rib", "Entries of a RIB", Narrowing::filter,
          [rib](const ListOptions& options) { return showRib(options, *rib); })
      ->add_option("NAME", *rib, "A RIB, or the tunnel type of a per-protocol one")
      ->required();
}

}  // namespace Tools
