// What a program says about its own command line, for its manual page and for completion in a shell. Both are made from
// the parser that reads the command line, so they know every command and option, and nothing else.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

class CommandParser;

// A place on the command line that takes a value, and the state directory that the line has named so far.
struct ValuePlace {
  std::string name;            // of the option, such as "--rib"; of an argument by position: its command's
  std::string stateDirectory;  // empty: none named
};
// The values that fit there; none: only the user knows them, or the value is the name of a file.
using ValuesOf = std::function<std::vector<std::string>(const ValuePlace&)>;

// Commands and options as sections of a manual page, in the man(7) language.
void writeManual(std::ostream& out, const CommandParser& parser);

// What may stand in the place of the last word and begins as that does; words are those behind the program's name.
std::vector<std::string> completions(const CommandParser& parser, const std::vector<std::string>& words,
                                     const ValuesOf& valuesOf);

// Answers, on standard output, what the program's packaging asks; nothing when it is something else that is asked.
//
//   PROGRAM manual               writeManual()
//   PROGRAM complete [WORD]...   completions(), one a line
//
// valuesOf may be empty.
std::optional<int> answerPages(const CommandParser& parser, int argc, const char* const* argv,
                               const ValuesOf& valuesOf);

}  // namespace Agent
