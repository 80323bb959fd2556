#include "agent/CommandPages.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string_view>
#include <utility>

#include "agent/CommandParser.h"

namespace Agent {
namespace {

constexpr const char* helpOption = "--help";

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& app, bool isPositional) {
  return app.get_options(
      [=](const CLI::Option* each) { return !each->get_group().empty() && each->get_positional() == isPositional; });
}

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

// The word for the value in "WORD:CHECK", and the bounds that a check of a range names.
struct ValueWords {
  explicit ValueWords(const std::string& typeName) {
    const std::size_t colon = typeName.find(':');
    const std::string check = colon == std::string::npos ? "" : typeName.substr(colon + 1);
    word = typeName.substr(0, colon);
    if (word == "TEXT" && !check.empty()) {
      word = check;
    }
    const std::size_t begin = check.find('[');
    if (begin != std::string::npos) {
      bounds = check.substr(begin + 1, check.find(']') - begin - 1);
      if (const std::size_t dash = bounds.find(" - "); dash != std::string::npos) {
        bounds.replace(dash, 3, " to ");
      }
    }
  }
  std::string word;
  std::string bounds;
};

// Text that troff takes for nothing but text.
std::string literal(const std::string& text) {
  std::string result = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
  for (const char c : text) {
    result += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
  }
  return result;
}

std::string bold(const std::string& text) { return "\\fB" + literal(text) + "\\fR"; }
std::string italic(const std::string& text) { return "\\fI" + literal(text) + "\\fR"; }

std::string namesOf(const CLI::Option& option) {
  std::string names;
  const auto add = [&names](const std::string& name) { names += (names.empty() ? "" : ", ") + bold(name); };
  for (const std::string& name : option.get_snames()) {
    add("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    add("--" + name);
  }
  return names;
}

void writeOption(std::ostream& out, const CLI::Option& option) {
  const ValueWords value(option.get_type_name());
  const bool isMany = option.get_expected_max() > 1;
  out << ".TP\n";
  if (option.get_positional()) {
    out << italic(option.get_name(true)) << (isMany ? "..." : "");
  } else {
    out << namesOf(option) << (takesValue(option) ? " " + italic(value.word) : "");
  }
  out << '\n' << literal(option.get_description());
  if (!value.bounds.empty()) {
    out << " (" << literal(value.bounds) << ')';
  }
  if (!option.get_default_str().empty()) {
    out << ". Default: " << literal(option.get_default_str());
  }
  if (isMany && !option.get_positional()) {
    out << ". Can be given several times";
  }
  out << ".\n";
}

void writeCommand(std::ostream& out, const CLI::App& app, const std::string& name) {
  const auto commands = commandsOf(app);
  std::string line = bold(name);
  for (const CLI::Option* const each : optionsOf(app, true)) {
    const std::string word = italic(each->get_name(true)) + (each->get_expected_max() > 1 ? "..." : "");
    line += each->get_required() ? " " + word : " [" + word + "]";
  }
  out << ".SS " << line << '\n' << literal(app.get_description()) << ".\n";
  for (const bool isPositional : {true, false}) {
    for (const CLI::Option* const each : optionsOf(app, isPositional)) {
      if (!each->check_name(helpOption)) {
        writeOption(out, *each);
      }
    }
  }
  for (const CLI::App* const each : commands) {
    writeCommand(out, *each, name + " " + each->get_name());
  }
}

// Where the words of a command line before the last one have led.
class Walk {
 public:
  explicit Walk(const CLI::App& app) : command_(&app) {}

  void wordIs(const std::string& word) {
    if (word == "=" && wanting_ != nullptr) {  // shells part "--option=value" into three
      return;
    }
    if (wanting_ != nullptr) {
      valueIs(*std::exchange(wanting_, nullptr), word);
    } else if (word.starts_with('-') && word != "-") {
      optionIs(word);
    } else if (const CLI::App* const next = positionals_ == 0 ? commandNamed(word) : nullptr) {
      command_ = next;
    } else {
      ++positionals_;
    }
  }

  std::vector<std::string> candidates(const std::string& word, const ValuesOf& valuesOf) const {
    const std::size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
    if (equals != std::string::npos) {
      return valuesOfOption(word.substr(0, equals), valuesOf);
    }
    if (wanting_ != nullptr) {
      return values(*wanting_, valuesOf);
    }
    return word.starts_with('-') ? options() : commandsAndValues(valuesOf);
  }

 private:
  std::vector<std::string> values(const CLI::Option& option, const ValuesOf& valuesOf) const {
    const std::string name = option.get_positional() ? command_->get_name() : option.get_name();
    return valuesOf ? valuesOf({name, stateDirectory_}) : std::vector<std::string>();
  }

  const CLI::App* commandNamed(const std::string& name) const {
    for (const CLI::App* const each : commandsOf(*command_)) {
      if (each->get_name() == name) {
        return each;
      }
    }
    return nullptr;
  }

  void optionIs(const std::string& word) {
    const std::size_t equals = word.find('=');
    const CLI::Option* const option = command_->get_option_no_throw(word.substr(0, equals));
    if (option == nullptr || !takesValue(*option)) {
      return;
    }
    if (equals == std::string::npos) {
      wanting_ = option;
    } else {
      valueIs(*option, word.substr(equals + 1));
    }
  }

  void valueIs(const CLI::Option& option, const std::string& value) {
    if (option.check_name("--state-dir")) {
      stateDirectory_ = value;
    }
  }

  std::vector<std::string> valuesOfOption(const std::string& name, const ValuesOf& valuesOf) const {
    const CLI::Option* const option = command_->get_option_no_throw(name);
    std::vector<std::string> values;
    if (option != nullptr) {
      for (const std::string& value : this->values(*option, valuesOf)) {
        values.push_back(name + "=" + value);
      }
    }
    return values;
  }

  std::vector<std::string> options() const {
    std::vector<std::string> names;
    for (const CLI::Option* const option : optionsOf(*command_, false)) {
      for (const std::string& name : option->get_lnames()) {
        names.push_back("--" + name);
      }
    }
    return names;
  }

  std::vector<std::string> commandsAndValues(const ValuesOf& valuesOf) const {
    std::vector<std::string> words;
    for (const CLI::App* const each : commandsOf(*command_)) {
      if (positionals_ == 0) {
        words.push_back(each->get_name());
      }
    }
    const auto places = optionsOf(*command_, true);
    if (!places.empty() && (positionals_ < places.size() || places.back()->get_expected_max() > 1)) {
      const CLI::Option& place = *places[std::min(positionals_, places.size() - 1)];
      const auto values = this->values(place, valuesOf);
      words.insert(words.end(), values.begin(), values.end());
    }
    return words;
  }

  const CLI::App* command_;
  const CLI::Option* wanting_ = nullptr;  // the option whose value comes next
  std::size_t positionals_ = 0;           // those behind the command
  std::string stateDirectory_;
};

}  // namespace

void writeManual(std::ostream& out, const CommandParser& parser) {
  const CLI::App& app = parser.top().app();
  out << ".SH COMMANDS\nEvery command also takes " << bold("-h") << " and " << bold(helpOption)
      << ", and then says what it is for.\n";
  for (const CLI::App* const each : commandsOf(app)) {
    writeCommand(out, *each, each->get_name());
  }
  out << ".SH OPTIONS\n";
  for (const CLI::Option* const each : optionsOf(app, false)) {
    writeOption(out, *each);
  }
}

std::vector<std::string> completions(const CommandParser& parser, const std::vector<std::string>& words,
                                     const ValuesOf& valuesOf) {
  Walk walk(parser.top().app());
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    walk.wordIs(words[i]);
  }
  const std::string last = words.empty() || words.back() == "=" ? "" : words.back();
  std::vector<std::string> candidates = walk.candidates(last, valuesOf);
  std::erase_if(candidates, [&](const std::string& each) { return !each.starts_with(last); });
  return candidates;
}

std::optional<int> answerPages(const CommandParser& parser, int argc, const char* const* argv,
                               const ValuesOf& valuesOf) {
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (words.size() == 1 && words[0] == "manual") {
    writeManual(std::cout, parser);
  } else if (!words.empty() && words[0] == "complete") {
    for (const std::string& each : completions(parser, {words.begin() + 1, words.end()}, valuesOf)) {
      std::cout << each << '\n';
    }
  } else {
    return std::nullopt;
  }
  return std::cout.flush() ? 0 : 1;
}

}  // namespace Agent
