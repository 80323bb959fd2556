#include "agent/CommandParser.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "agent/InputError.h"

namespace Agent {
namespace {

CLI::Validator validator(ValueCheck check) { return {std::move(check), ""}; }

}  // namespace

Option& Option::required() {
  option_->required();
  return *this;
}

Option& Option::word(const char* word) {
  option_->type_name(word);
  return *this;
}

Option& Option::repeatable() {
  option_->type_size(1)->allow_extra_args(false);
  return *this;
}

Option& Option::check(ValueCheck check) {
  option_->check(validator(std::move(check)));
  return *this;
}

// A comparison with the limits alone would let "nan" pass.
Option& Option::between(double low, double high) {
  const CLI::Range range(low, high);
  const auto check = [range](std::string& text) {
    return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is not a number" : range(text);
  };
  option_->check(CLI::Validator(check, range.get_description()));
  return *this;
}

Option& Option::between(std::uint64_t low, std::uint64_t high) {
  option_->check(CLI::Range(low, high));
  return *this;
}

Option& Option::oneOf(const std::vector<std::string>& words) {
  option_->check(CLI::IsMember(words));
  return *this;
}

Option& Option::defaultValue(const std::string& value) {
  option_->default_val(value);
  return *this;
}

Option& Option::defaultValue(double value) {
  option_->default_val(value);
  return *this;
}

Option& Option::needs(const Option& other) {
  option_->needs(other.option_);
  return *this;
}

Option& Option::excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

Command Command::command(const char* name, const char* help) const {
  return Command(*app_->add_subcommand(name, help));
}

void Command::commandRequired() const { app_->require_subcommand(1); }

Option Command::option(const char* name, std::string& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, std::optional<std::string>& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, std::vector<std::string>& values, const std::string& help) const {
  return Option(*app_->add_option(name, values, help));
}
Option Command::option(const char* name, std::uint64_t& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, double& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, std::optional<double>& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, std::optional<std::uint32_t>& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::option(const char* name, std::optional<std::uint64_t>& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}
Option Command::flag(const char* name, bool& value, const std::string& help) const {
  return Option(*app_->add_flag(name, value, help));
}
Option Command::flag(const char* name, std::string& value, const std::string& help) const {
  return Option(*app_->add_flag(name, value, help));
}

void Command::onChosen(std::function<void()> action) const { app_->callback(std::move(action)); }

bool Command::isGiven() const { return app_->parsed(); }
bool Command::isGiven(const char* option) const { return app_->count(option) > 0; }

void refuse(const std::string& subject, const std::string& reason) { throw CLI::ValidationError(subject, reason); }
void refuseWithout(const std::string& missing) { throw CLI::RequiredError(missing); }

CommandParser::CommandParser(const char* description, const char* name, const char* version)
    : app_(std::make_unique<CLI::App>(description, name)) {
  app_->set_version_flag("--version", std::string(name) + ' ' + version);
  app_->require_subcommand(1);
}

CommandParser::~CommandParser() = default;

std::optional<CommandParser::Ended> CommandParser::parse(int argc, const char* const* argv) const {
  try {
    app_->parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app_->remaining(true);
    if (error.get_exit_code() == int(CLI::ExitCodes::RequiredError) && !unknown.empty()) {
      return Ended{"'" + printable(unknown[0]) + "' is not known; see --help"};
    }
    if (error.get_exit_code() != 0) {
      return Ended{error.what()};
    }
    app_->exit(error);
    return Ended{};
  }
}

}  // namespace Agent
