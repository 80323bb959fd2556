// CommandParser: the commands, options and arguments of a program, and the reading of its command line.
//
// The option library stays behind this interface: each source that includes it compiles several seconds longer. Only
// CommandParser.cpp and CommandPages.cpp see it.
//
//   CommandParser parser("What the program does", "program", "1.0");
//   const Command show = parser.top().command("show", "Show a table");
//   show.option("NAME", name, "The table").required();
//   show.onChosen([&] { action = ...; });
//   if (const auto ended = parser.parse(argc, argv)) { ... }
//
// Command and Option are handles: copies name the same command, and both live as long as their parser. A variable that
// an option fills must outlive the call of parse().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Agent {

// Why the text of a value is refused; empty when it is accepted.
using ValueCheck = std::function<std::string(const std::string&)>;

// Accepts a text for which parse(text) raises no exception of type Error; the reason is the exception's message.
template <class Error, class Parse>
ValueCheck parsedBy(Parse parse) {
  return [parse](const std::string& text) -> std::string {
    try {
      parse(text);
      return {};
    } catch (const Error& error) {
      return error.what();
    }
  };
}

// One option, or one argument by position.
class Option {
 public:
  explicit Option(CLI::Option& option) : option_(&option) {}

  Option& required();
  // The word for the value in help and manual page.
  Option& word(const char* word);
  // The option can be given several times, with one value each time.
  Option& repeatable();
  Option& check(ValueCheck check);
  // Also accepts nothing that is not a number.
  Option& between(double low, double high);
  Option& between(std::uint64_t low, std::uint64_t high);
  Option& oneOf(const std::vector<std::string>& words);
  // Sets the variable now.
  Option& defaultValue(const std::string& value);
  Option& defaultValue(double value);
  Option& needs(const Option& other);
  Option& excludes(const Option& other);

 private:
  CLI::Option* option_;
};

class Command {
 public:
  explicit Command(CLI::App& app) : app_(&app) {}

  // A command below this one.
  Command command(const char* name, const char* help) const;
  // One of the commands below this one must be given.
  void commandRequired() const;

  // A name that begins with "-" is an option, any other an argument by position.
  Option option(const char* name, std::string& value, const std::string& help) const;
  Option option(const char* name, std::optional<std::string>& value, const std::string& help) const;
  Option option(const char* name, std::vector<std::string>& values, const std::string& help) const;
  Option option(const char* name, std::uint64_t& value, const std::string& help) const;
  Option option(const char* name, double& value, const std::string& help) const;
  Option option(const char* name, std::optional<double>& value, const std::string& help) const;
  Option option(const char* name, std::optional<std::uint32_t>& value, const std::string& help) const;
  Option option(const char* name, std::optional<std::uint64_t>& value, const std::string& help) const;
  Option flag(const char* name, bool& value, const std::string& help) const;
  // "--name{DEFAULT}": DEFAULT when no value is given.
  Option flag(const char* name, std::string& value, const std::string& help) const;

  // Runs inside parse() when the command was given and its options are read. It may call refuse().
  void onChosen(std::function<void()> action) const;
  // After parse(): whether the command, or one of its options, was given.
  bool isGiven() const;
  bool isGiven(const char* option) const;

  CLI::App& app() const { return *app_; }

 private:
  CLI::App* app_;
};

// Refuses the command line from within onChosen(). subject: the option or command concerned.
[[noreturn]] void refuse(const std::string& subject, const std::string& reason);
// The same for something that is missing.
[[noreturn]] void refuseWithout(const std::string& missing);

class CommandParser {
 public:
  // One command is required. Adds --help and --version; version is the text that the latter prints after the name.
  CommandParser(const char* description, const char* name, const char* version);
  ~CommandParser();

  Command top() const { return Command(*app_); }

  // How a line ended that leaves nothing to run.
  struct Ended {
    std::string refusal;  // the reason; empty: help or version was asked for and has been printed
  };
  // Nothing when the line was accepted.
  std::optional<Ended> parse(int argc, const char* const* argv) const;

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace Agent
