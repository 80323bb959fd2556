#include "agent/CommandLine.h"

#include <iostream>
#include <utility>

#include "agent/CommandPages.h"
#include "agent/CommandParser.h"
#include "agent/Tracing.h"

namespace Agent {
namespace {

// The options of "run", as the parser fills them in.
struct Texts {
  std::string state;
  std::string rib;
  std::string tep;
  std::vector<std::string> waysOf;
  std::vector<std::string> askedWhy;
  std::vector<std::string> traces;
};

void addTraceOption(const Command& app, std::vector<std::string>& traces) {
  app.option("--trace", traces, "Trace a source to standard error up to LEVEL (0 to 9); * is all sources")
      .repeatable()
      .word("SOURCE=LEVEL")
      .check(parsedBy<Zol::Exception>(readTraceSetting));
}

void addTunnelIds(const Command& app, const char* name, std::vector<std::string>& ids, const char* help) {
  app.option(name, ids, help).repeatable().word("ID").check(parsedBy<Zol::Exception>([](const std::string& text) {
    Tunnel::TunnelTable::TunnelId::fromText(text);
  }));
}

void addRunOptions(const Command& app, RunOptions& options, Texts& texts) {
  app.option("SCENARIO", options.scenarios, "Files to apply, one after the other; - is standard input").required();
  app.flag("--state{-}", texts.state, "Print the resulting state as JSON, into FILE with --state=FILE");
  app.option("--rib", texts.rib, "Show this RIB only").word("NAME");
  app.option("--tep", texts.tep, "Show this tunnel endpoint only")
      .word("PREFIX")
      .check(parsedBy<Zol::Exception>([](const std::string& text) { Ipkit::IpGenPrefix::fromText(text); }));
  addTunnelIds(app, "--tunnel", texts.waysOf, "Show the way of this tunnel to its next hops");
  addTunnelIds(app, "--why", texts.askedWhy, "Say why this tunnel is, or is not, in the FIB and in the RIBs");
  const Option checkpoints =
      app.option("--checkpoints", options.checkpointDirectory, "Write the document of each checkpoint to DIR")
          .word("DIR");
  app.flag("--checkpoint-each-settle", options.checkpointsEachSettle,
           "A checkpoint at every settle too, named by its line number")
      .needs(checkpoints);
  app.option("--yield-every", options.yieldEvery, "Let tasks yield after N units of work")
      .word("N")
      .between(std::uint64_t(1), UINT64_MAX);
  addTraceOption(app, texts.traces);
}

void addServeOptions(const Command& app, ServeOptions& options, std::vector<std::string>& traces) {
  app.option("--state-dir", options.stateDirectory, "Where the tables lie")
      .word("DIR")
      .check([](const std::string& path) { return path.empty() ? "no name of a directory" : ""; })
      .defaultValue(stateDirectoryDefault);
  app.option("--config", options.configFile, "The RIBs to build, a rib line each; read again at SIGHUP").word("FILE");
  app.option("--wait-limit", options.waitSeconds,
             "Start after SECONDS though a table is incomplete of which RIBs or FIB hold entries")
      .word("SECONDS")
      .between(0.0, 1e9);
  addTraceOption(app, traces);
}

std::vector<Fastlog::TraceSetting> settings(const std::vector<std::string>& traces) {
  std::vector<Fastlog::TraceSetting> all;
  for (const std::string& trace : traces) {
    all.push_back(Fastlog::TraceSetting::parse(trace));
  }
  return all;
}

RunOptions complete(RunOptions options, const Command& command, const Texts& texts) {
  options.wantsState = command.isGiven("--state");
  options.stateFile = texts.state == "-" ? "" : texts.state;
  if (command.isGiven("--rib")) {
    options.filter.rib = texts.rib;
  }
  if (command.isGiven("--tep")) {
    options.filter.tep = Ipkit::IpGenPrefix::fromText(texts.tep);
  }
  for (const std::string& id : texts.waysOf) {
    options.waysOf.push_back(Tunnel::TunnelTable::TunnelId::fromText(id));
  }
  for (const std::string& id : texts.askedWhy) {
    options.askedWhy.push_back(Tunnel::TunnelTable::TunnelId::fromText(id));
  }
  if (options.wantsState && options.stateFile.empty() && options.waysOf.size() + options.askedWhy.size() > 0) {
    refuse("--state", "prints nothing else; --tunnel and --why need --state=FILE");
  }
  options.traces = settings(texts.traces);
  return options;
}

}  // namespace

CommandLine CommandLine::parse(int argc, const char* const* argv) {
  const CommandParser parser("The tunnel agent of a router: builds tunnel RIBs and the tunnel FIB from tunnel tables.",
                             "tunnel-agent", agentVersion);
  const Command run = parser.top().command("run", "Apply scenario files and show the state that results");
  RunOptions options;
  Texts texts;
  addRunOptions(run, options, texts);
  run.onChosen([&] { options = complete(std::move(options), run, texts); });
  const Command serve = parser.top().command("serve", "Build RIBs and FIB from the tables of a state directory");
  ServeOptions serveOptions;
  std::vector<std::string> serveTraces;
  addServeOptions(serve, serveOptions, serveTraces);
  serve.onChosen([&] { serveOptions.traces = settings(serveTraces); });
  if (const auto status = answerPages(parser, argc, argv, nullptr)) {
    return {std::nullopt, std::nullopt, *status};
  }
  if (const auto ended = parser.parse(argc, argv)) {
    if (ended->refusal.empty()) {
      return {std::nullopt, std::nullopt, exitDone};
    }
    std::cerr << "tunnel-agent: " << ended->refusal << '\n';
    return {std::nullopt, std::nullopt, exitBadInput};
  }
  if (serve.isGiven()) {
    return {std::nullopt, std::move(serveOptions), exitDone};
  }
  return {std::move(options), std::nullopt, exitDone};
}

}  // namespace Agent
