// The command line of tunnel-agent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/StateDocument.h"
#include "runtime/Fastlog/TraceSetting.h"

namespace Agent {

// What the program's caller learns from its exit status.
constexpr int exitDone = 0;
constexpr int exitCannotWrite = 1;
constexpr int exitBadInput = 2;

constexpr const char* agentVersion = "0.1.0";

struct RunOptions {
  std::vector<std::string> scenarios;  // "-" is standard input
  bool wantsState = false;
  std::string stateFile;  // empty: standard output
  DocumentFilter filter;
  std::vector<Tunnel::TunnelTable::TunnelId> waysOf;    // --tunnel
  std::vector<Tunnel::TunnelTable::TunnelId> askedWhy;  // --why
  std::string checkpointDirectory;                      // empty: no checkpoints are written
  bool checkpointsEachSettle = false;
  std::optional<std::uint64_t> yieldEvery;  // units of work
  std::vector<Fastlog::TraceSetting> traces;
};

struct ServeOptions {
  std::string stateDirectory;
  std::string configFile;             // empty: the system RIB alone, with all tables
  std::optional<double> waitSeconds;  // how long incomplete tables keep the agent waiting; nothing: for ever
  std::vector<Fastlog::TraceSetting> traces;
};

// Where the tables of a router lie unless a command line says otherwise: a file system in memory.
inline constexpr const char* stateDirectoryDefault = "/run/tunnel-agent";

// What is to be run; or, when nothing is, the exit status: help or version were asked for, or the line is not one that
// can be accepted. What there is to say about that has then been written.
struct CommandLine {
  std::optional<RunOptions> run;
  std::optional<ServeOptions> serve;
  int exitStatus = exitDone;

  static CommandLine parse(int argc, const char* const* argv);
};

}  // namespace Agent
