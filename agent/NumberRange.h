// NumberRange: the check of an option that takes a number.
#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <string>

namespace Agent {

// From low to high. "nan" is refused, which a comparison with the limits alone would let pass.
inline CLI::Validator numberBetween(double low, double high) {
  const CLI::Range range(low, high);
  const auto check = [range](std::string& text) {
    return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is not a number" : range(text);
  };
  return CLI::Validator(check, range.get_description());
}

}  // namespace Agent
