// What a program says about its own command line, for its manual page and for completion in a shell. Both are made from
// the parser that reads the command line, so they know every command and option, and nothing else.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace Agent {

// A place on the command line that takes a value, and the state directory that the line has named so far.
struct ValuePlace {
  const CLI::App& command;
  const CLI::Option& option;
  std::string stateDirectory;  // empty: none named
};
// What may stand there; nothing: what only the user knows, or the name of a file.
using ValuesOf = std::function<std::vector<std::string>(const ValuePlace&)>;

// Commands and options as sections of a manual page, in the man(7) language.
void writeManual(std::ostream& out, const CLI::App& app);

// What may stand in the place of the last word and begins as that does; words are those behind the program's name.
std::vector<std::string> completions(const CLI::App& app, const std::vector<std::string>& words,
                                     const ValuesOf& valuesOf);

// Answers, on standard output, what the program's packaging asks; nothing when it is something else that is asked.
//
//   PROGRAM manual               writeManual()
//   PROGRAM complete [WORD]...   completions(), one a line
std::optional<int> answerPages(const CLI::App& app, int argc, const char* const* argv, const ValuesOf& valuesOf);

}  // namespace Agent
