// The commands of tunnelctl. Each adds itself to the command line, and says there what is to be run when it is chosen.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/CommandParser.h"
#include "agent/ProtocolTables.h"

namespace Tools {

// What was chosen; returns the exit status. What it raises is told to the caller of the program.
using Action = std::function<int()>;

constexpr int exitDone = 0;
constexpr int exitFailed = 1;  // asked rightly, but it cannot be done, or something is wrong with what was asked about
constexpr int exitBadInput = 2;  // the command line or an input file is wrong

// On standard error: "tunnelctl: REASON", or {"error": {"status": ..., "reason": ...}}. What was printed comes first.
void complain(bool isJson, int status, const std::string& reason);

// Says what of a state directory could not be read; the exit status.
int toldDamage(const std::vector<std::string>& damages, bool isJson);

// The option that nearly every command has.
void addStateDirectory(const Agent::Command& command, std::string& stateDirectory);

// Accepts a number of at least 1.
Agent::ValueCheck isCount();

// At most so many rows, at least one.
void addLimit(const Agent::Command& command, std::optional<std::uint64_t>& limit, const char* help);

// The table of that name; raises InputError.
Agent::TableId tableNamed(const std::string& name);

// What there is to know besides the answer, on standard error; for programs {"note": TEXT}.
void tellNote(const std::string& text, bool isJson);

void addPublish(const Agent::Command& app, Action& action);
void addState(const Agent::Command& app, Action& action);
void addShow(const Agent::Command& app, Action& action);
void addResolve(const Agent::Command& app, Action& action);
void addDiff(const Agent::Command& app, Action& action);
void addGraph(const Agent::Command& app, Action& action);
void addWatch(const Agent::Command& app, Action& action);

}  // namespace Tools
