// The command "tunnelctl graph": tunnels, their next levels and next hops as a graph in the DOT language.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>

#include "runtime/Memtab/Descriptor.h"
#include "tools/Commands.h"
#include "tools/EntryFilter.h"
#include "tools/StateReading.h"
#include "tools/TableExplanation.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

struct GraphOptions {
  std::string stateDirectory;
  std::vector<std::string> tunnels;
  bool isSvg = false;
};

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

void writeEdge(std::ostream& out, const Model::TunnelId& from, const std::string& to, const std::string& label,
               const char* style) {
  out << "  " << quoted(Zol::stringOf(from)) << " -> " << quoted(to) << " [label=" << quoted(label) << style << "];\n";
}

std::string labelsOf(const Ipkit::MplsLabelOperation& operation) {
  const auto labels = Agent::topFirst(operation);
  return labels.empty() ? "" : Agent::textOf(labels);
}

std::string encapOf(const Agent::FibVia& via) {
  return via.encapId.encapType() == Fib::EncapType::labelStack ? labelsOf(via.via.labelStack())
                                                               : Fib::stringValue(via.encapId.encapType());
}

void writeTunnel(std::ostream& out, const Model::TunnelId& tunnel, const Agent::ExplainedTunnel& explained) {
  const std::string name = Zol::stringOf(tunnel);
  const auto& tep = explained.finding.head.tep();
  const bool isGood = explained.standing == Agent::FibStanding::programmed;
  out << "  " << quoted(name) << " [shape=box, label=" << quoted(!tep ? name : name + "\\n" + Zol::stringOf(tep))
      << (isGood ? "" : ", color=red") << "];\n";
  for (const auto& via : explained.finding.vias) {
    const bool isLost = !isGood || (via.nextLevel && via.nextLevelVias == 0);
    const std::string to = via.nextLevel ? Zol::stringOf(*via.nextLevel) : Agent::summaryOf(via.via);
    writeEdge(out, tunnel, to, labelsOf(via.via.labelOp()), isLost ? ", color=red" : "");
  }
  if (explained.finding.vias.empty()) {
    for (const Agent::FibVia& via : explained.vias) {
      writeEdge(out, tunnel, Agent::summaryOf(via.via.via()), encapOf(via), "");
    }
  }
  for (const Agent::FibVia& via : explained.backupVias) {
    writeEdge(out, tunnel, Agent::summaryOf(via.via.via()), encapOf(via), ", style=dashed");
  }
}

void writeGraph(std::ostream& out, const Agent::AgentState& state, const std::vector<Model::TunnelId>& tunnels) {
  out << "digraph tunnels {\n  rankdir=LR;\n";
  if (!tunnels.empty()) {
    for (const auto& [tunnel, explained] : explainFromTables(state, tunnels).tunnels) {
      writeTunnel(out, tunnel, explained);
    }
  } else {
    for (const Agent::TableId table : Agent::allTables()) {
      state.tables().withTable(table, [&](const auto& each) {
        walk(each, {}, [&](const auto& entry) {
          writeTunnel(out, entry.tunnelId(), explainTunnel(state, entry.tunnelId()));
          return true;
        });
      });
    }
  }
  out << "}\n";
}

// Standard output of "dot -Tsvg" over the text is ours.
int drawAsSvg(const std::string& graph) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("no pipe to dot: ") + std::strerror(errno));
  }
  Memtab::Descriptor input(ends[0]);
  Memtab::Descriptor output(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO);
  std::string words[] = {"dot", "-Tsvg"};
  char* const arguments[] = {words[0].data(), words[1].data(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, "dot", &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::runtime_error(error == ENOENT ? "--svg: needs the program dot of graphviz, which is not installed"
                                             : std::string("dot: ") + std::strerror(error));
  }
  input = Memtab::Descriptor();
  for (std::size_t at = 0; at < graph.size();) {
    const ssize_t written = write(output.get(), graph.data() + at, graph.size() - at);
    if (written < 0) {
      break;  // dot has gone; its status says why
    }
    at += static_cast<std::size_t>(written);
  }
  output = Memtab::Descriptor();
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("dot failed");
  }
  return exitDone;
}

int graph(const GraphOptions& options) {
  std::vector<Model::TunnelId> tunnels;
  for (const std::string& tunnel : options.tunnels) {
    tunnels.push_back(optionValue<Model::TunnelId>("--tunnel", tunnel));
  }
  StateReading reading(options.stateDirectory);
  reading.status();
  if (!options.isSvg) {
    writeGraph(std::cout, reading.state(), tunnels);
    return exitDone;
  }
  std::ostringstream text;
  writeGraph(text, reading.state(), tunnels);
  return drawAsSvg(text.str());
}

}  // namespace

void addGraph(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand("graph", "Write tunnels, next levels and next hops as a graph");
  const auto options = std::make_shared<GraphOptions>();
  addStateDirectory(*command, options->stateDirectory);
  command->add_option("--tunnel", options->tunnels, "This tunnel and what it goes through; several times: these")
      ->type_name("ID")
      ->type_size(1)
      ->allow_extra_args(false);
  command->add_flag("--svg", options->isSvg, "Drawn by graphviz, instead of in the DOT language");
  command->callback([=, &action] { action = [options] { return graph(*options); }; });
}

}  // namespace Tools
