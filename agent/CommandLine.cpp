#include "agent/CommandLine.h"

#include <CLI/CLI.hpp>

#include "agent/CommandPages.h"
#include "agent/NumberRange.h"

namespace Agent {
namespace {

// A checker of texts for which parse raises nothing.
template <class Parse>
CLI::Validator accepted(const char* word, Parse parse) {
  return CLI::Validator(
      [parse](const std::string& text) -> std::string {
        try {
          parse(text);
          return {};
        } catch (const Zol::Exception& error) {
          return error.what();
        }
      },
      word);
}

// The options of "run", as the parser fills them in.
struct Texts {
  std::string state;
  std::string rib;
  std::string tep;
  std::vector<std::string> waysOf;
  std::vector<std::string> askedWhy;
  std::vector<std::string> traces;
};

void addTraceOption(CLI::App& app, std::vector<std::string>& traces) {
  app.add_option("--trace", traces, "Trace a source to standard error up to LEVEL (0 to 9); * is all sources")
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(accepted("SOURCE=LEVEL", [](const std::string& text) { Fastlog::TraceSetting::parse(text); }));
}

void addTunnelIds(CLI::App& app, const std::string& name, std::vector<std::string>& ids, const std::string& help) {
  app.add_option(name, ids, help)
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(accepted("ID", [](const std::string& text) { Tunnel::TunnelTable::TunnelId::fromText(text); }));
}

void addRunOptions(CLI::App& app, RunOptions& options, Texts& texts) {
  app.add_option("SCENARIO", options.scenarios, "Files to apply, one after the other; - is standard input")->required();
  app.add_flag("--state{-}", texts.state, "Print the resulting state as JSON, into FILE with --state=FILE");
  app.add_option("--rib", texts.rib, "Show this RIB only")->type_name("NAME");
  app.add_option("--tep", texts.tep, "Show this tunnel endpoint only")
      ->check(accepted("PREFIX", [](const std::string& text) { Ipkit::IpGenPrefix::fromText(text); }));
  addTunnelIds(app, "--tunnel", texts.waysOf, "Show the way of this tunnel to its next hops");
  addTunnelIds(app, "--why", texts.askedWhy, "Say why this tunnel is, or is not, in the FIB and in the RIBs");
  CLI::Option* const checkpoints =
      app.add_option("--checkpoints", options.checkpointDirectory, "Write the document of each checkpoint to DIR")
          ->type_name("DIR");
  app.add_flag("--checkpoint-each-settle", options.checkpointsEachSettle,
               "A checkpoint at every settle too, named by its line number")
      ->needs(checkpoints);
  app.add_option("--yield-every", options.yieldEvery, "Let tasks yield after N units of work")
      ->type_name("N")
      ->check(CLI::Range(std::uint64_t(1), UINT64_MAX));
  addTraceOption(app, texts.traces);
}

void addServeOptions(CLI::App& app, ServeOptions& options, std::vector<std::string>& traces) {
  app.add_option("--state-dir", options.stateDirectory, "Where the tables lie")
      ->type_name("DIR")
      ->check([](const std::string& path) { return path.empty() ? "no name of a directory" : ""; })
      ->default_val(stateDirectoryDefault);
  app.add_option("--config", options.configFile, "The RIBs to build, a rib line each; read again at SIGHUP")
      ->type_name("FILE");
  app.add_option("--wait-limit", options.waitSeconds,
                 "Start after SECONDS though a table is incomplete of which RIBs or FIB hold entries")
      ->type_name("SECONDS")
      ->check(numberBetween(0.0, 1e9));
  addTraceOption(app, traces);
}

std::vector<Fastlog::TraceSetting> settings(const std::vector<std::string>& traces) {
  std::vector<Fastlog::TraceSetting> all;
  for (const std::string& trace : traces) {
    all.push_back(Fastlog::TraceSetting::parse(trace));
  }
  return all;
}

RunOptions complete(RunOptions options, const CLI::App& app, const Texts& texts) {
  options.wantsState = app.count("--state") > 0;
  options.stateFile = texts.state == "-" ? "" : texts.state;
  if (app.count("--rib") > 0) {
    options.filter.rib = texts.rib;
  }
  if (app.count("--tep") > 0) {
    options.filter.tep = Ipkit::IpGenPrefix::fromText(texts.tep);
  }
  for (const std::string& id : texts.waysOf) {
    options.waysOf.push_back(Tunnel::TunnelTable::TunnelId::fromText(id));
  }
  for (const std::string& id : texts.askedWhy) {
    options.askedWhy.push_back(Tunnel::TunnelTable::TunnelId::fromText(id));
  }
  if (options.wantsState && options.stateFile.empty() && options.waysOf.size() + options.askedWhy.size() > 0) {
    throw CLI::ValidationError("--state", "prints nothing else; --tunnel and --why need --state=FILE");
  }
  options.traces = settings(texts.traces);
  return options;
}

}  // namespace

CommandLine CommandLine::parse(int argc, const char* const* argv) {
  CLI::App app("The tunnel agent of a router: builds tunnel RIBs and the tunnel FIB from tunnel tables.",
               "tunnel-agent");
  app.set_version_flag("--version", std::string("tunnel-agent ") + agentVersion);
  app.require_subcommand(1);
  CLI::App* const run = app.add_subcommand("run", "Apply scenario files and show the state that results");
  RunOptions options;
  Texts texts;
  addRunOptions(*run, options, texts);
  CLI::App* const serve = app.add_subcommand("serve", "Build RIBs and FIB from the tables of a state directory");
  ServeOptions serveOptions;
  std::vector<std::string> serveTraces;
  addServeOptions(*serve, serveOptions, serveTraces);
  if (const auto status = answerPages(app, argc, argv, [](const ValuePlace&) { return std::vector<std::string>(); })) {
    return {std::nullopt, std::nullopt, *status};
  }
  try {
    app.parse(argc, argv);
    if (serve->parsed()) {
      serveOptions.traces = settings(serveTraces);
      return {std::nullopt, std::move(serveOptions), exitDone};
    }
    return {complete(std::move(options), *run, texts), std::nullopt, exitDone};
  } catch (const CLI::ParseError& error) {
    return {std::nullopt, std::nullopt, app.exit(error) == 0 ? exitDone : exitBadInput};
  }
}

}  // namespace Agent
