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
#include "tools/Rows.h"
#include "tools/StateReading.h"
#include "tools/TableExplanation.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

struct GraphOptions {
  std::string stateDirectory;
  std::vector<std::string> tunnels;
  bool isSvg = false;
  bool isJson = false;
};

// From a tunnel to a next level, or to a next hop.
struct Edge {
  std::optional<Model::TunnelId> next;
  Model::Via via;
  std::vector<Ipkit::MplsLabelOperation::Label> labels;  // top first
  Fib::EncapType encap = Fib::EncapType::labelStack;
  bool isBackup = false;
  bool isLost = false;  // nothing is programmed along it
};

// As published where that is resolved; else, and of backup vias, as the FIB has it.
std::vector<Edge> edgesOf(const Agent::ExplainedTunnel& explained) {
  std::vector<Edge> edges;
  const bool isGood = explained.standing == Agent::FibStanding::programmed;
  for (const auto& via : explained.finding.vias) {
    edges.push_back({.next = via.nextLevel,
                     .via = via.via,
                     .labels = Agent::topFirst(via.via.labelOp()),
                     .isLost = !isGood || (via.nextLevel && via.nextLevelVias == 0)});
  }
  const auto add = [&edges](const std::vector<Agent::FibVia>& vias, bool isBackup) {
    for (const Agent::FibVia& via : vias) {
      const bool isStack = via.encapId.encapType() == Fib::EncapType::labelStack;
      edges.push_back({.next = {},
                       .via = via.via.via(),
                       .labels = isStack ? Agent::topFirst(via.via.labelStack()) : decltype(Edge::labels)(),
                       .encap = via.encapId.encapType(),
                       .isBackup = isBackup});
    }
  };
  if (edges.empty()) {
    add(explained.vias, false);
  }
  add(explained.backupVias, true);
  return edges;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string labelOf(const Edge& edge) {
  if (edge.encap != Fib::EncapType::labelStack) {
    return Fib::stringValue(edge.encap);
  }
  return edge.labels.empty() ? "" : Agent::textOf(edge.labels);
}

void writeTunnel(std::ostream& out, const Model::TunnelId& tunnel, const Agent::ExplainedTunnel& explained) {
  const std::string name = Zol::stringOf(tunnel);
  const auto& tep = explained.finding.head.tep();
  const bool isGood = explained.standing == Agent::FibStanding::programmed;
  out << "  " << quoted(name) << " [shape=box, label=" << quoted(!tep ? name : name + "\\n" + Zol::stringOf(tep))
      << (isGood ? "" : ", color=red") << "];\n";
  for (const Edge& edge : edgesOf(explained)) {
    out << "  " << quoted(name) << " -> " << quoted(edge.next ? Zol::stringOf(*edge.next) : Agent::summaryOf(edge.via))
        << " [label=" << quoted(labelOf(edge)) << (edge.isLost ? ", color=red" : "")
        << (edge.isBackup ? ", style=dashed" : "") << "];\n";
  }
}

OrderedJson tunnelJson(const Model::TunnelId& tunnel, const Agent::ExplainedTunnel& explained) {
  const auto& tep = explained.finding.head.tep();
  OrderedJson edges = OrderedJson::array();
  for (const Edge& edge : edgesOf(explained)) {
    OrderedJson json = edge.next ? OrderedJson{{"tunnel", Zol::stringOf(*edge.next)}}
                                 : OrderedJson{{"nextHop", Zol::stringOf(edge.via.nextHop())},
                                               {"intf", Zol::stringOf(edge.via.intf())}};
    json.update({{"encap", Fib::stringValue(edge.encap)},
                 {"labels", edge.labels},
                 {"backup", edge.isBackup},
                 {"programmed", !edge.isLost}});
    edges.push_back(std::move(json));
  }
  return {{"tunnel", Zol::stringOf(tunnel)},
          {"tep", !tep ? OrderedJson() : OrderedJson(Zol::stringOf(tep))},
          {"programmed", explained.standing == Agent::FibStanding::programmed},
          {"edges", std::move(edges)}};
}

// visit(tunnel, explained) for these tunnels and what they go through; none: for all that tables have.
template <class F>
void forEachTunnel(const Agent::AgentState& state, const std::vector<Model::TunnelId>& tunnels, F&& visit) {
  if (!tunnels.empty()) {
    for (const auto& [tunnel, explained] : explainFromTables(state, tunnels).tunnels) {
      visit(tunnel, explained);
    }
    return;
  }
  for (const Agent::TableId table : Agent::allTables()) {
    state.tables().withTable(table, [&](const auto& each) {
      walk(each, {}, [&](const auto& entry) {
        visit(entry.tunnelId(), explainTunnel(state, entry.tunnelId()));
        return true;
      });
    });
  }
}

void writeGraph(std::ostream& out, const Agent::AgentState& state, const std::vector<Model::TunnelId>& tunnels) {
  out << "digraph tunnels {\n  rankdir=LR;\n";
  forEachTunnel(state, tunnels,
                [&out](const auto& tunnel, const auto& explained) { writeTunnel(out, tunnel, explained); });
  out << "}\n";
}

void writeJson(const Agent::AgentState& state, const std::vector<Model::TunnelId>& tunnels) {
  Rows rows(std::cout, true, "nodes", {});
  forEachTunnel(state, tunnels, [&rows](const auto& tunnel, const auto& explained) {
    rows.add(
        tunnel, [] { return Cells(); }, [&] { return tunnelJson(tunnel, explained); });
  });
  rows.end();
}

// Standard output of "dot -Tsvg" over the text is ours.
void drawAsSvg(const std::string& graph) {
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
}

int graph(const GraphOptions& options) {
  std::vector<Model::TunnelId> tunnels;
  for (const std::string& tunnel : options.tunnels) {
    tunnels.push_back(optionValue<Model::TunnelId>("--tunnel", tunnel));
  }
  StateReading reading(options.stateDirectory);
  reading.status();
  if (options.isJson) {
    writeJson(reading.state(), tunnels);
  } else if (options.isSvg) {
    std::ostringstream text;
    writeGraph(text, reading.state(), tunnels);
    drawAsSvg(text.str());
  } else {
    writeGraph(std::cout, reading.state(), tunnels);
  }
  return toldDamage(reading.damages(), options.isJson);
}

}  // namespace

void addGraph(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("graph", "Write tunnels, next levels and next hops as a graph");
  const auto options = std::make_shared<GraphOptions>();
  addStateDirectory(command, options->stateDirectory);
  command.option("--tunnel", options->tunnels, "This tunnel and its next levels; can be given several times")
      .word("ID")
      .repeatable();
  const Agent::Option svg = command.flag("--svg", options->isSvg, "Drawn by graphviz, instead of in the DOT language");
  command.flag("--json", options->isJson, "Print one JSON document").excludes(svg);
  command.onChosen([=, &action] { action = [options] { return graph(*options); }; });
}

}  // namespace Tools
